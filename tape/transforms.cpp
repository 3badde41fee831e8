// What a replication job changes about the files it sends: the prefix transforms of their names,
// kept in var/tape/jobids/trans.N, and the policy of owner and permissions that its record imposes.
// The requests that maintain the transforms call in here; so do the replication driver and the
// gatherer, in the process that serves one target.
#include <stdio.h>
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

constexpr size_t kRewriteLine =
    515;                           // longest line of a rewrite or a listing, its line feed counted
constexpr size_t kLoadLine = 511;  // and of the table that is loaded
constexpr size_t kTableTexts = 9728;  // room of the caller's text buffer
constexpr size_t kTableSlots = 32;    // of its table: two for each pair, two for the end
constexpr size_t kMostPairs = (kTableSlots - 2) / 2;

bool soundStores() {
  return base::sound(base::Area::stores);
}

base::HomePath transPath(int job) {
  return base::HomePath("var/tape/jobids/trans.%i", job);
}

// True when line is the transform of this prefix.
bool isTransformOf(const char *line, const char *prefix) {
  size_t length = strlen(prefix);
  if (strncmp(line, prefix, length) != 0) return false;
  // Otherwise the transforms of every longer prefix would go with this one.
  return !soundStores() || line[length] == '>';
}

bool copyTransforms(base::Store &file, base::LineReader &lines, const char *prefix,
                    char *const fresh[2]) {
  bool dropped = strncmp(fresh[0], "DeLeTeMe", 8) == 0;
  while (lines.next()) {
    bool replaced = lines.text()[0] != '#' && isTransformOf(lines.text(), prefix);
    if (!replaced && !file.put(lines.text(), lines.length())) return false;
    if (replaced && !dropped && !file.putText("%s>%s\n", fresh[0], fresh[1])) return false;
  }
  return !lines.outOfMemory();
}

// Replaces the transforms of prefix by a new pair, or drops them. 0, -1, or -2 out of memory.
int replaceTransforms(int job, const char *prefix, char *const fresh[2]) {
  base::Store file(transPath(job));
  if (!file.backUp(filecopy)) {
    base::print(stderr, "ERROR:  Cannot make copy of: %s\n", file.path());
    return -1;
  }
  if (!file.beginRewrite()) {
    base::print(stderr, "ERROR:  Cannot create file: %s\n", file.path());
    return -1;
  }
  base::File old = file.openBackup();
  if (!old) {
    base::print(stderr, "ERROR:  Cannot read file: %s\n", file.backup());
    return -1;
  }
  base::LineReader lines(old.get(), stores::lineLimit(kRewriteLine));
  if (lines.outOfMemory()) {
    base::print(stderr, "ERROR:  Cannot allocate a buffer big enough!\n");
    return -2;
  }
  if (!copyTransforms(file, lines, prefix, fresh) || ferror(old.get()) || !file.commit())
    return stores::notWritten(file);
  return 0;
}

// True for a line that can hold a transform.
bool counts(const char *line) {
  return line[0] != '#' && strlen(line) >= 4;
}

// True when the rest of the file holds a transform.
bool hasMore(FILE *in) {
  char line[kLoadLine + 1];
  while (fgets(line, sizeof line, in))
    if (counts(line) && strchr(line, '>')) return true;
  return false;
}

// One table being loaded: pairs of texts in the caller's buffer.
struct Loading {
  char *buffer;
  char **table;
  size_t fill = 0;
  size_t pairs = 0;

  // A longest line that just fits leaves fill a byte behind the buffer.
  bool hasRoom() const { return pairs < kMostPairs && fill + kLoadLine < kTableTexts; }

  // Reads the next line to the fill point; false at the end of the file.
  bool next(FILE *in) { return fgets(buffer + fill, kLoadLine + 1, in) != nullptr; }

  // Keeps the line at the fill point, as a pair when it is one.
  void keep() {
    char *line = buffer + fill;
    if (!counts(line)) return;
    fill += strlen(line) + 2;
    char *middle = strchr(line, '>');
    if (!middle) return;
    *middle = '\0';
    stripCtrl(middle + 1);
    table[2 * pairs] = line;
    table[2 * pairs + 1] = middle + 1;
    pairs++;
  }
};

// What permctrl imposes; one policy per process.
struct Policy {
  bool initialised;
  uint32_t owner, group;
  uint32_t directoryMode, fileMode;
  bool keepMode, keepGroup, keepOwner, keepSetuid;
};
Policy policy;

void applyPolicy(package *header) {
  if (!policy.keepSetuid) header->mode &= ~static_cast<uint32_t>(S_ISUID);
  bool directory = header->type == 1;
  if (!directory && header->type != 0) return;
  // The permission bits alone: what kind of file it is stands in the type.
  if (!policy.keepMode) header->mode = directory ? policy.directoryMode : policy.fileMode;
  if (!policy.keepGroup) header->grpid = policy.group;
  if (!policy.keepOwner) header->usrid = policy.owner;
}

}  // namespace

int getTrans(const char *job) {
  base::File file(fopen(transPath(base::decimal(job)), "re"));
  if (!file) return 0;
  base::LineReader lines(file.get(), stores::lineLimit(kRewriteLine));
  if (lines.outOfMemory()) {
    base::print(stderr, "ERROR:  Cannot allocate a buffer big enough!\n");
    return -1;
  }
  while (lines.next()) {
    if (lines.text()[0] == '#') continue;
    stripCtrl(lines.text());
    base::print(stderr, "%s\n", lines.text());
  }
  return stores::endListing(lines);
}

int addTrans(char *args) {
  char *word[2];
  if (wssplit(word, args, 2) != 2) {
    base::print(stderr, "ERROR:  Command syntax error\n");
    return -1;
  }
  if (stores::keyRefused(word[0]) || stores::entryRefused(word[1], kLoadLine - 1)) return -1;
  char *part[3];
  int count = insplit(part, word[1], '>', 2);
  if (count != 2) {
    base::print(stderr, "ERROR:  Command syntax error.  parse error in 2nd arg.  n=%i, args=%s\n",
                count, args);
    return -1;
  }
  base::Store file(transPath(base::decimal(word[0])));
  if (!file.beginAppend()) {
    base::print(stderr, "ERROR:  Cannot create/append file: %s\n", file.path());
    return -1;
  }
  size_t prefix = strlen(part[0]);
  // Installed consoles know that some pairs are dropped without a word: those whose lengths have no
  // bit in common. The job then writes to the untransformed paths, the live ones.
  bool wanted = soundStores() ? prefix != 0 : (prefix & strlen(part[1])) != 0;
  if ((wanted && !file.putText("%s>%s\n", part[0], part[1])) || !file.commit())
    return stores::notWritten(file);
  return 0;
}

int modTrans(const char *job, char *args) {
  char *word[2];
  if (wssplit(word, args, 2) != 2) {
    base::print(stderr, "ERROR:  Command syntax error\n");
    return -1;
  }
  if (stores::keyRefused(job) || stores::entryRefused(word[1], kLoadLine - 1)) return -1;
  char *fresh[3];
  if (insplit(fresh, word[1], '>', 2) != 2) {
    base::print(stderr, "ERROR:  Command syntax error.  parse error in 2nd arg\n");
    return -1;
  }
  return replaceTransforms(base::decimal(job), word[0], fresh);
}

int delTrans(const char *job, const char *prefix) {
  int result;
  if (soundStores()) {
    // Put into words, a prefix with a blank in it would be split there and its rest taken for a new
    // prefix.
    char deleted[] = "DeLeTeMe";
    char *const fresh[2] = {deleted, deleted};
    result = stores::keyRefused(job) ? -1 : replaceTransforms(base::decimal(job), prefix, fresh);
  } else {
    char args[512];
    snprintf(args, sizeof args, "%s DeLeTeMe>DeLeTeMe", prefix);
    result = modTrans(job, args);
  }
  if (result == 0) return 0;
  base::print(stderr, "ERROR:  Cannot delete entry: %s\n", prefix);
  return -1;
}

int readTransforms(int job, char *buffer, char **table) {
  table[0] = table[1] = nullptr;
  base::File file(fopen(transPath(job), "re"));
  if (!file) return 0;
  Loading loading{buffer, table};
  while (loading.hasRoom() && loading.next(file.get())) loading.keep();
  bool cut = hasMore(file.get());
  if (cut)
    base::print(backuplog,
                loading.pairs == kMostPairs
                    ? "NOTICE:  Transforms of job %i: only the first %zu are used\n"
                    : "NOTICE:  Transforms of job %i: no room for more than %zu of them\n",
                job, loading.pairs);
  table[2 * loading.pairs] = table[2 * loading.pairs + 1] = nullptr;
  base::print(stderr, "Exiting readTransforms\n");
  for (int at = 0; table[at]; at++) base::print(stderr, "transform[%i] = %s\n", at, table[at]);
  // What the missing ones were to send elsewhere would go to the live paths of every target.
  return cut && soundStores() ? -1 : 0;
}

int permctrl(int op, void *p) {
  if (op != 1) {
    if (policy.initialised) applyPolicy(static_cast<package *>(p));
    return 0;
  }
  const reprec *job = static_cast<const reprec *>(p);
  policy.owner = static_cast<uint32_t>(job->owner);
  policy.group = static_cast<uint32_t>(job->grp);
  policy.directoryMode = static_cast<uint32_t>(job->dirpolicy) & 0777;
  policy.fileMode = static_cast<uint32_t>(job->filepolicy) & 0777;
  policy.keepMode = (job->dirpolicy & 1 << 12) != 0;
  policy.keepGroup = (job->dirpolicy & 1 << 13) != 0;
  policy.keepOwner = (job->dirpolicy & 1 << 14) != 0;
  policy.keepSetuid = (job->filepolicy & 1 << 15) != 0;
  policy.initialised = true;
  return 0;
}
