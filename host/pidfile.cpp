#include "host/pidfile.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace host {

// The holder before us may have removed the file between our open and our lock.
static bool isStillNamed(int fd, const char *path) {
  struct stat ours, named;
  return fstat(fd, &ours) == 0 && stat(path, &named) == 0 && ours.st_dev == named.st_dev &&
         ours.st_ino == named.st_ino;
}

bool PidFile::take(const std::string &home, std::string &why) {
  path_ = home + "/var/ZULd.pid";
  do {
    if (fd_ >= 0) close(fd_);
    fd_ = open(path_.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (fd_ < 0) {
      why = "Cannot open " + path_ + ": " + strerror(errno);
      return false;
    }
    if (flock(fd_, LOCK_EX | LOCK_NB) != 0) {
      char text[32] = "";
      ssize_t got = pread(fd_, text, sizeof text - 1, 0);
      text[got > 0 ? strcspn(text, "\n") : 0] = '\0';
      why = "Another ZULd serves " + home + " already: process " + text;
      close(fd_);
      fd_ = -1;
      return false;
    }
  } while (!isStillNamed(fd_, path_.c_str()));
  if (ftruncate(fd_, 0) == 0 && dprintf(fd_, "%d\n", getpid()) > 0) return true;
  why = "Cannot write " + path_ + ": " + strerror(errno);
  release();
  return false;
}

void PidFile::release() {
  if (fd_ < 0) return;
  unlink(path_.c_str());
  close(fd_);
  fd_ = -1;
}

}  // namespace host
