// The tape groups, var/tape/jobids/group: numbered sets of hosts, "number:member,member,...:name" a
// line. The configuration requests list and change them; the backup, synchronisation, restore and
// replication drivers ask who is in a group and which groups a host is in.
#include <ctype.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <zul/host.h>
#include <zul/tape.h>

#include "base/lines.h"
#include "base/log.h"
#include "base/site.h"
#include "base/store.h"
#include "base/text.h"
#include "tape/storerules.h"

namespace {

constexpr int kFields = 3;
constexpr size_t kHostsField = 4096;
constexpr int kMostGroups = 32;

struct GroupPath : base::HomePath {
  GroupPath() : HomePath("var/tape/jobids/group") {}
};

// The characters of a member's name that count. A longer name would be cut, and name another host
// or none.
size_t nameWidth(size_t classic) {
  return base::sound(base::Area::stores) ? 63 : classic;
}

int rewriteGroups(base::Store &table, stores::TableChange &change) {
  if (!table.backUp(filecopy)) {
    base::print(stderr, "ERROR:  8063  Unable to make a work copy of %s. \n", table.backup());
    return -1;
  }
  base::File old = table.openBackup();
  if (!old) {
    base::print(stderr, "ERROR:  8064  Cannot open the file %s.  Check permissions\n",
                table.backup());
    return -1;
  }
  if (!table.beginRewrite()) {
    base::print(stderr, "ERROR:  8065  Cannot open the file %s.  Check permissions\n",
                table.path());
    return -1;
  }
  stores::TableResult result = rewriteTable(table, old.get(), change);
  if (result == stores::TableResult::noMemory) {
    base::print(stderr, "ERROR:  8066  Out of memory!\n");
    return -1;
  }
  if (result == stores::TableResult::badFormat) {
    base::print(stderr, "ERROR:  8067  Format error in tape group file.\n");
    return -1;
  }
  if (result == stores::TableResult::notWritten || !table.commit())
    return stores::notWritten(table);
  if (result == stores::TableResult::notFound) {
    base::print(stderr, "ERROR:  8068  The group entry to modify was not found!\n");
    return -1;
  }
  return 0;
}

// The members of the group asked for last. The replication driver asks many times a second while it
// polls its children, and must not read the table each time; a job also keeps the members it
// started with.
struct Member {
  Member *next;
  char name[64];
};
struct Cache {
  bool loaded;
  int group;
  int count;
  Member *members;
};
Cache cache;

void emptyCache() {
  while (Member *member = cache.members) {
    cache.members = member->next;
    free(member);
  }
  cache.loaded = false;
}

// Reads on to the line of a group: its text behind the number, or null at the end of the table. Any
// control character ends a line, and a line without a ':' has no members. room bounds a table that
// grows meanwhile.
char *findMembers(FILE *table, int group, char *line, size_t room) {
  size_t length = 0;
  for (bool more = true; more;) {
    int c = getc(table);
    more = c != EOF;
    if (more && !iscntrl(c)) {
      if (length + 1 < room) line[length++] = static_cast<char>(c);
      continue;
    }
    line[length] = '\0';
    length = 0;
    char *colon = line[0] == '#' ? nullptr : strchr(line, ':');
    if (!colon) continue;
    *colon = '\0';
    if (base::decimal(line) == group) return colon + 1;
  }
  return nullptr;
}

// Fills the cache from "member,member,...:name". The number of members, -4 memory, -5 format.
int cacheMembers(char *text) {
  char *end = strchr(text, ':');
  if (!end) return -5;
  *end = '\0';
  int count = 0;
  Member **last = &cache.members;
  while (text) {
    char *comma = strchr(text, ',');
    if (comma) *comma = '\0';
    Member *member = static_cast<Member *>(calloc(1, sizeof *member));
    if (!member) return -4;
    base::copyText(member->name, sizeof member->name, text);
    *last = member;
    last = &member->next;
    count++;
    text = comma ? comma + 1 : nullptr;
  }
  return count;
}

// Loads a group, which is empty when the table does not have it. Its number of members, or -1, -4,
// -5.
int loadGroup(int group) {
  long size = getGroupFileSize();
  if (size < 0) return -1;
  size_t room = static_cast<size_t>(size) + 16;
  char *line = static_cast<char *>(malloc(room));
  if (!line) return -4;
  int count = -1;
  if (base::File table{fopen(GroupPath(), "re")}) {
    char *members = findMembers(table.get(), group, line, room);
    count = members ? cacheMembers(members) : 0;
  }
  free(line);
  return count;
}

enum class Line { group, ended, badFormat, noMemory };

// Goes on to the next line that is neither comment nor blank, and splits it in place.
Line nextGroup(base::LineReader &lines, char **field) {
  while (lines.next()) {
    if (lines.isCommentOrBlank()) continue;
    return insplit(field, lines.text(), ':', kFields) == kFields ? Line::group : Line::badFormat;
  }
  return lines.outOfMemory() ? Line::noMemory : Line::ended;
}

bool isMember(char *members, const char *host) {
  for (char *name = members; name;) {
    char *comma = strchr(name, ',');
    if (comma) *comma = '\0';
    if (strncmp(name, host, nameWidth(32)) == 0) return true;
    name = comma ? comma + 1 : nullptr;
  }
  return false;
}

}  // namespace

int getTapeGroup(void) {
  base::File table(fopen(GroupPath(), "re"));
  if (!table) {
    base::printBoth("ERROR:  8058  Cannot read tape group \n");
    return -1;
  }
  base::LineReader lines(table.get(), 255);
  while (lines.next()) fwrite(lines.text(), lines.length(), 1, stderr);
  return stores::endListing(lines);
}

int addTapeGroup(char *entry) {
  if (stores::entryRefused(entry, SIZE_MAX)) return -1;
  char *field[kFields + 1];
  if (insplit(field, entry, ':', kFields) != kFields) {
    base::print(stderr, "ERROR:  8059  Insufficient arguments.\n");
    return -1;
  }
  if (stores::keyRefused(field[0])) return -1;
  base::Store table{GroupPath()};
  // The copy is taken even before the first group; without a table there would be none to take.
  table.createIfMissing();
  if (!table.backUp(filecopy)) {
    base::print(stderr, "ERROR:  8060  Unable to make a work copy of %s. \n", table.backup());
    return -1;
  }
  if (!table.beginAppend()) {
    base::print(stderr, "ERROR:  8061  Cannot open the temp group file %s. \n", table.path());
    return -1;
  }
  if (!table.putText("%s:%s:%s\n", field[0], field[1], field[2]) || !table.commit())
    return stores::notWritten(table);
  base::print(stderr, "Added group: %s\n", field[2]);
  return 0;
}

int modTapeGroup(const char *group, char *entry) {
  if (stores::entryRefused(entry, SIZE_MAX)) return -1;
  char *field[kFields + 1];
  if (insplit(field, entry, ':', kFields) != kFields) {
    base::print(stderr, "ERROR:  8062  Insufficient arguments.\n");
    return -1;
  }
  if (stores::keyRefused(group)) return -1;
  if (strcmp(field[0], "DEL") != 0 && stores::keyRefused(field[0])) return -1;
  stores::TableChange change{.splits = kFields,
                             .least = kFields,
                             .most = kFields,
                             .key = group,
                             .fresh = field,
                             .freshCount = kFields,
                             .carried = -1};
  base::Store table{GroupPath()};
  if (rewriteGroups(table, change) != 0) return -1;
  base::print(stderr, "Modifing group: %s\n", field[2]);
  return 0;
}

int delTapeGroup(const char *group) {
  char deletion[] = "DEL:0:Deleteme";
  return modTapeGroup(group, deletion) < 0 ? -1 : 0;
}

long getGroupFileSize(void) {
  struct stat status;
  return lstat(GroupPath(), &status) == 0 ? static_cast<long>(status.st_size) : -1;
}

int getGrpMember(int group, int index, char *host) {
  if (!cache.loaded || cache.group != group) {
    emptyCache();
    int count = loadGroup(group);
    if (count < 0) {
      emptyCache();
      return count;
    }
    cache.loaded = true;
    cache.group = group;
    cache.count = count;
  }
  if (index < 1 || index > cache.count) return -3;
  const Member *member = cache.members;
  for (int at = 1; at < index; at++) member = member->next;
  base::copyText(host, nameWidth(31) + 1, member->name);
  return cache.count;
}

int getGroupHosts(int group, char *hosts) {
  base::File table(fopen(GroupPath(), "re"));
  if (!table) {
    base::printBoth("ERROR:  8069  Cannot read tape group \n");
    return -1;
  }
  base::LineReader lines(table.get(), stores::lineLimit(4089));
  char *field[kFields + 1];
  for (;;) {
    switch (nextGroup(lines, field)) {
      case Line::noMemory:
        base::print(stderr, "ERROR:  8070  Out of memory!\n");
        return -1;
      case Line::badFormat:
        base::print(stderr, "ERROR:  8071  Format error in tape group file.\n");
        return -1;
      case Line::ended:
        base::print(stderr, "ERROR:  8072  The group entry was not found!\n");
        return -1;
      case Line::group:
        break;
    }
    if (base::decimal(field[0]) != group) continue;
    size_t length = strnlen(field[1], kHostsField);
    memcpy(hosts, field[1], length);
    if (length < kHostsField) hosts[length] = '\0';
    return 0;
  }
}

int getHostGrps(const char *host, int *groups) {
  base::File table(fopen(GroupPath(), "re"));
  if (!table) {
    base::printBoth("ERROR:  8072  Cannot read tape group \n");
    return -1;
  }
  base::LineReader lines(table.get(), stores::lineLimit(4605));
  char *field[kFields + 1];
  int count = 0;
  for (;;) {
    switch (nextGroup(lines, field)) {
      case Line::noMemory:
        base::printBoth("ERROR:  8073  Out of memory!\n");
        return -1;
      case Line::badFormat:
        base::printBoth("ERROR:  8074  Format error in tape group file.\n");
        return -1;
      case Line::ended:
        return count;
      case Line::group:
        break;
    }
    if (count == kMostGroups) return count;
    if (isMember(field[1], host)) groups[count++] = base::decimal(field[0]);
  }
}
