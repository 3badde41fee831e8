// Expands a backup list, the paths an operator asked for, into the request list that the file
// gatherer serves. Runs in the list generator, a process of its own on the client host; the
// gatherer reads while this writes.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <unistd.h>
#include <zul/host.h>
#include <zul/tape.h>

#include "base/fd.h"
#include "base/log.h"
#include "base/site.h"
#include "base/text.h"
#include "tape/treewalk.h"

namespace {

constexpr size_t kNameRoom = 256;  // of a request: 255 characters and a NUL

// A directory holds a descriptor while its subdirectories are walked, and a path can name two
// thousand levels: more than a process may open by default.
void raiseOpenFiles() {
  constexpr rlim_t kWanted = 4096;
  rlimit limit;
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= kWanted) return;
  limit.rlim_cur = limit.rlim_max < kWanted ? limit.rlim_max : kWanted;
  setrlimit(RLIMIT_NOFILE, &limit);
}

// A file beside list, locked by this process, that then takes its name: the gatherer, which waits
// for a list that is not locked and complete, never sees one of ours unlocked before its time.
int openLocked(const char *list) {
  char temporary[base::kPathMax];
  int length = snprintf(temporary, sizeof temporary, "%s.XXXXXX", list);
  if (length < 0 || static_cast<size_t>(length) >= sizeof temporary) return -1;
  base::Fd fd(mkostemp(temporary, O_CLOEXEC));
  if (!fd) return -1;
  if (flock(fd.get(), LOCK_EX | LOCK_NB) == 0 && rename(temporary, list) == 0) return fd.release();
  unlink(temporary);
  return -1;
}

int openList(const char *list) {
  // Without the lock the gatherer cannot tell a list that is still growing from its end, and a tree
  // that takes long to walk is cut short.
  if (base::sound(base::Area::stream)) return openLocked(list);
  return open(list, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
}

class Expansion {
 public:
  Expansion(int list, time_t newer) : lines_(list, &count_), newer_(newer) {}

  // Lists what one request names. False when the list cannot be written.
  bool request(const char *name);
  // Takes the bytes of a backup list. 0; -1 when the list cannot be written, -3 when a name is too
  // long.
  int take(const char *bytes, size_t length);
  // What stands behind the last line.
  bool takeTail();
  bool flush() { return lines_.flush(); }

 private:
  bool listAncestors(const char *name, size_t length);

  int count_ = 0;
  lists::LineWriter lines_;
  time_t newer_;
  char name_[kNameRoom] = "";
  size_t used_ = 0;
};

bool Expansion::listAncestors(const char *name, size_t length) {
  for (size_t i = 1; i < length; i++)
    if (name[i] == '/' && !lines_.add(name, i, true)) return false;
  return true;
}

bool Expansion::request(const char *name) {
  size_t length = strlen(name);
  bool tree = length > 0 && name[length - 1] == '/';
  if (tree) length--;
  if (!listAncestors(name, length)) return false;
  // A single entry is wanted whatever it is and however old.
  if (!tree) return lines_.add(name, length, false) && lines_.settle();
  char path[base::kPathMax];
  base::copyText(path, length + 1, name);
  long bytes = 0;
  return lists::TreeWalk(lines_, &bytes, newer_).run(path);
}

int Expansion::take(const char *bytes, size_t length) {
  for (size_t i = 0; i < length; i++) {
    if (!lists::isControl(bytes[i])) {
      name_[used_++] = bytes[i];
      if (used_ == kNameRoom) return -3;
      continue;
    }
    name_[used_] = '\0';
    used_ = 0;
    if (!request(name_)) return -1;
  }
  return 0;
}

bool Expansion::takeTail() {
  if (used_ == 0) return true;
  name_[used_] = '\0';
  used_ = 0;
  return request(name_);
}

int expand(int input, Expansion &expansion) {
  char bytes[4096];
  for (;;) {
    ssize_t got = read(input, bytes, sizeof bytes);
    if (got == 0) break;
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return -2;
    int result = expansion.take(bytes, static_cast<size_t>(got));
    if (result != 0) return result;
  }
  // A line counts by its end, so a list that was edited by hand and left without one loses its last
  // path.
  if (base::sound(base::Area::stream) && !expansion.takeTail()) return -1;
  return 0;
}

// The last line of a complete list: a line without a blank names nothing, and its absence tells the
// gatherer that the generator did not live to the end.
bool markComplete(int list) {
  constexpr char kEnd[] = "end\n";
  return !base::sound(base::Area::stream) || write(list, kEnd, sizeof kEnd - 1) == sizeof kEnd - 1;
}

}  // namespace

int mkBackupList(char *backuplist, char *requestlist, time_t newer) {
  base::Fd list(openList(requestlist));
  if (!list) {
    base::print(backuplog, "ERROR:  8304  mkBackupList:  Cannot open output file: %s\n",
                requestlist);
    return -1;
  }
  base::Fd input(open(backuplist, O_RDONLY | O_CLOEXEC));
  if (!input) {
    base::print(backuplog, "ERROR:  8305  mkBackupList:  Cannot open input file: %s\n", backuplist);
    return -2;
  }
  raiseOpenFiles();
  Expansion expansion(list.get(), newer);
  int result = expand(input.get(), expansion);
  // Whatever ended the list, the lines before it are good.
  bool written = expansion.flush();
  if (result == -3)
    base::print(backuplog, "ERROR:  8306  mkBackupList:  File name + path is too long.\n");
  else if (result == -2)
    base::print(backuplog, "ERROR:  mkBackupList:  Cannot read input file: %s\n", backuplist);
  else if (!written || result != 0 || !markComplete(list.get())) {
    base::print(backuplog, "ERROR:  mkBackupList:  Cannot write output file: %s\n", requestlist);
    return -1;
  }
  return result;
}

int ScanDir(int fd, char *path, long *bytes, time_t newer, int *count) {
  lists::LineWriter lines(fd, count);
  bool good = lists::TreeWalk(lines, bytes, newer).run(path);
  return good && lines.flush() ? 0 : -1;
}
