// Reading a request list. Lines are "NUMBER PATH"; a line without a blank is no entry.
//
// The generator writes while the gatherer reads, and a walk may take hours. On a site with the
// stream remedies it holds a lock on the list meanwhile and ends a complete list with the line
// "end"; so the end of the file is the end of the list only when that line was seen.
#include "net/requestlist.h"

#include <errno.h>
#include <string.h>
#include <sys/file.h>
#include <zul/net.h>
#include <zul/tape.h>

#include "base/pause.h"
#include "base/site.h"
#include "net/gatherer.h"
#include "net/timeouts.h"

namespace net {

namespace {

constexpr size_t kLineMax =
    285;  // a number, a blank, the longest path, a slash and a line feed fit well
constexpr int kLookMs = 20;

char line[kLineMax + 1];
size_t used;  // characters of the line so far; between calls not 0 only for a line that is still
              // being written

// Reads on in the current line. True when it is whole. A zero byte, as a list damaged by a power
// cut may hold, ends the text of its line and not the line.
bool takeLine(FILE *list) {
  while (used < kLineMax) {
    int c = getc_unlocked(list);
    if (c == EOF) break;
    line[used++] = static_cast<char>(c);
    if (c == '\n') break;
  }
  line[used] = '\0';
  return used > 0 && line[used - 1] == '\n';
}

// A line is written at once, but may be seen half: then its rest comes soon. False when it does
// not, or is too long.
bool takeRestOfLine(FILE *list) {
  for (long long endMs = base::nowMs() + timeouts.tornMs; used < kLineMax;) {
    bool over = base::nowMs() >= endMs;
    clearerr(list);
    if (takeLine(list)) return true;
    if (over) break;
    base::sleepMs(kLookMs);
  }
  return false;
}

void skipRestOfLine(FILE *list) {
  for (int c = getc(list); c != '\n' && c != EOF; c = getc(list)) {
  }
}

// The path in the whole line, or null.
char *pathInLine() {
  char *blank = strchr(line, ' ');
  if (!blank) return nullptr;
  stripCtrl(line);
  return blank + 1;
}

enum class Taken { path, noEntry, torn, nothing };

Taken takeEntry(FILE *list, char **path) {
  if (!takeLine(list)) {
    if (used == 0) return Taken::nothing;
    if (used < kLineMax) return Taken::torn;
    // What does not fit is longer than any path a header can carry, and its tail must not pass for
    // an entry.
    note("NOTICE:  Line of the request list is too long, skipping: %.64s...\n", line);
    skipRestOfLine(list);
    used = 0;
    return Taken::noEntry;
  }
  used = 0;
  *path = pathInLine();
  return *path ? Taken::path : Taken::noEntry;
}

// The generator's lock is held from the moment the list has its name until it is complete.
bool generatorAtWork(FILE *list) {
  if (flock(fileno(list), LOCK_SH | LOCK_NB) != 0) return errno == EWOULDBLOCK;
  flock(fileno(list), LOCK_UN);
  return false;
}

}  // namespace

FILE *openRequestList(const char *path) {
  used = 0;
  long long endMs = base::nowMs() + timeouts.listMs;
  for (;;) {
    FILE *list = fopen(path, "re");
    // Without the wait a generator that is slow to start, on a loaded host, would cost the whole
    // backup.
    if (list || errno != ENOENT || !base::sound(base::Area::stream) || base::nowMs() >= endMs)
      return list;
    base::sleepMs(kLookMs);
  }
}

Listed nextListed(FILE *list, char **path) {
  for (bool atWork = true;;) {
    Taken taken = takeEntry(list, path);
    if (taken == Taken::path) return Listed::entry;
    if (taken == Taken::noEntry) {
      if (strcmp(line, "end\n") == 0) return Listed::end;
      continue;
    }
    if (!atWork) return Listed::incomplete;
    atWork = generatorAtWork(list);
    clearerr(list);
    if (!atWork)
      continue;  // once more: it may have written its last lines after they were looked for
    base::sleepMs(kLookMs);
    return Listed::later;
  }
}

}  // namespace net

char *getLineList(FILE *fp) {
  char *path;
  net::used = 0;
  for (;;) {
    switch (net::takeEntry(fp, &path)) {
      case net::Taken::path:
        return path;
      case net::Taken::noEntry:
        continue;
      case net::Taken::nothing:
        return nullptr;
      case net::Taken::torn:
        break;
    }
    if (net::takeRestOfLine(fp)) {
      net::used = 0;
      path = net::pathInLine();
      if (path) return path;
      continue;
    }
    // The last line of a list without a line feed, or one that has grown over the limit meanwhile.
    if (net::used >= net::kLineMax) net::skipRestOfLine(fp);
    path = net::used < net::kLineMax ? net::pathInLine() : nullptr;
    net::used = 0;
    if (path) return path;
  }
}
