// Makes parts, and removes those that were left behind. Runs in the process of a receiving agent.
//
// A part that is being written is locked. So the parts of the dead are told from those of the
// living also where process numbers say nothing: in containers, and in folders that several hosts
// share.
#include "replication/parts.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>

#include "base/fd.h"

namespace target {

namespace {

constexpr char kBegin[] = ".zulpart.";

// The process in the name of a part; 0 for every other name.
pid_t makerOf(const char *name) {
  if (strncmp(name, kBegin, sizeof kBegin - 1) != 0) return 0;
  const char *digits = name + sizeof kBegin - 1;
  size_t length = strspn(digits, "0123456789");
  return length > 0 && length < 10 && digits[length] == '\0' ? atoi(digits) : 0;
}

bool isAlive(pid_t pid) {
  return kill(pid, 0) == 0 || errno != ESRCH;
}

// A file of this user, with the permissions of a part, that nobody has locked.
bool isAbandoned(int directory, const char *name) {
  struct stat there;
  if (fstatat(directory, name, &there, AT_SYMLINK_NOFOLLOW) != 0) return false;
  if (there.st_uid != geteuid()) return false;
  if (S_ISLNK(there.st_mode)) return true;
  if (!S_ISREG(there.st_mode) || (there.st_mode & 07777) != 0600) return false;
  base::Fd part(openat(directory, name, O_WRONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  return part && flock(part.get(), LOCK_EX | LOCK_NB) == 0;
}

}  // namespace

int openNewPart(int directory) {
  PartName name;
  constexpr int kFlags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
  int fd = openat(directory, name, kFlags, 0600);
  if (fd < 0 && errno == EEXIST && unlinkat(directory, name, 0) == 0)
    fd = openat(directory, name, kFlags, 0600);
  // A file system without locks leaves the process in the name to go by.
  if (fd >= 0) flock(fd, LOCK_EX | LOCK_NB);
  return fd;
}

void sweepParts(int directory, const char *name) {
  int fd = openat(directory, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  DIR *entries = fd >= 0 ? fdopendir(fd) : nullptr;
  if (!entries) {
    if (fd >= 0) close(fd);
    return;
  }
  while (dirent *entry = readdir(entries)) {
    pid_t maker = makerOf(entry->d_name);
    if (maker > 0 && !isAlive(maker) && isAbandoned(fd, entry->d_name))
      unlinkat(fd, entry->d_name, 0);
  }
  closedir(entries);
}

}  // namespace target
