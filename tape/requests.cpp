// The configuration requests: "get", "add", "mod" and "del" pick a store and an operation by the
// first word of the rest, and hand the words behind it on as they stand.
#include <string.h>
#include <zul/tape.h>

#include "base/log.h"

namespace {

// Items are matched by prefix over the item's own length, in table order: "tapes" is "tape",
// "catalog" is "cat".
bool names(const char *word, const char *item) {
  return strncmp(word, item, strlen(item)) == 0;
}

struct Listing {
  const char *item;
  int (*print)();
};
constexpr Listing kListings[] = {
    {"drives", getTapeDrives},
    {"jobids", getJobids},
    {"repids", getRepids},
    {"group", getTapeGroup},
};

struct Query {
  const char *item;
  int (*print)(char *argument);
};
constexpr Query kQueries[] = {
    {"dir", getdir},         {"tape", getTapes},
    {"header", prtTapeHead}, {"backuplist", [](char *job) { return getBackupList(job); }},
    {"vols", getTapeVols},   {"hhist", dumpHostHist},
    {"cat", getVolCat},      {"trans", [](char *job) { return getTrans(job); }},
};

int delTransform(char *argument) {
  char *key[2];
  if (wssplit(key, argument, 2) < 2) {
    base::print(stderr, "ERROR:  8010  Insufficient arguments.\n");
    return -1;
  }
  return delTrans(key[0], key[1]);
}

struct Change {
  const char *item;
  int (*add)(char *argument);
  int (*del)(char *argument);
};
constexpr Change kChanges[] = {
    {"jobids", addJobids, [](char *job) { return delJobids(job); }},
    {"repids", addRepids, [](char *job) { return delRepids(job); }},
    {"tape", addTape, delTape},
    {"backuplist", addBackupList, delBackupList},
    {"group", addTapeGroup, [](char *group) { return delTapeGroup(group); }},
    {"drive", addDrive, [](char *drive) { return delDrive(drive); }},
    {"trans", addTrans, delTransform},
};

struct Modification {
  const char *item;
  int (*mod)(const char *key, char *value);
  int failed;  // what tapeMod returns when it fails
};
constexpr Modification kModifications[] = {
    {"jobids", modJobids, -1},
    {"repids", modRepids, -1},
    {"group", modTapeGroup, -1},
    // A tape has nothing that could be changed; the word is accepted for the sake of installed
    // consoles.
    {"tapes", [](const char *, char *) { return 0; }, -1},
    {"drive", modDrive, -1},
    {"trans", modTrans, 1},
};

}  // namespace

int tapeGet(char *rest) {
  // A blank, not any white space, tells the two kinds of request apart.
  if (!strchr(rest, ' ')) {
    for (const Listing &listing : kListings)
      if (names(rest, listing.item)) return listing.print() != 0 ? -1 : 0;
    base::print(stderr, "ERROR:  8004  Tape lib: Unknown get request, %s\n", rest);
    return 1;
  }
  char *word[2];
  if (wssplit(word, rest, 2) < 2) {
    base::print(stderr, "ERROR:  8002  Insufficient arguments.\n");
    return -1;
  }
  for (const Query &query : kQueries)
    if (names(word[0], query.item)) return query.print(word[1]) != 0 ? -1 : 0;
  base::print(stderr, "ERROR:  8003  Tape lib: Unknown get request, %s\n", word[0]);
  return 1;
}

int tapeAdd(char *rest) {
  char *word[2];
  if (wssplit(word, rest, 2) < 2) {
    base::print(stderr, "ERROR:  8006  Insufficient arguments.\n");
    return -1;
  }
  for (const Change &change : kChanges)
    if (names(word[0], change.item)) return change.add(word[1]) != 0 ? 1 : 0;
  base::print(stderr, "ERROR:  8007  Tape lib: Unknown add request, %s\n", rest);
  return 1;
}

int tapeMod(char *rest) {
  char *word[3];
  if (wssplit(word, rest, 3) < 3) {
    base::print(stderr, "ERROR:  8008  Insufficient arguments.\n");
    return -1;
  }
  for (const Modification &change : kModifications)
    if (names(word[0], change.item)) return change.mod(word[1], word[2]) != 0 ? change.failed : 0;
  base::print(stderr, "ERROR:  8009  Tape lib: Unknown mod request, %s\n", word[0]);
  return 1;
}

int tapeDel(char *rest) {
  char *word[2];
  if (wssplit(word, rest, 2) < 2) {
    base::print(stderr, "ERROR:  8010  Insufficient arguments.\n");
    return -1;
  }
  for (const Change &change : kChanges)
    if (names(word[0], change.item)) return change.del(word[1]) != 0 ? -1 : 0;
  base::print(stderr, "ERROR:  8011  Tape lib: Unknown del request, %s\n", word[0]);
  return 1;
}
