// The door to the drives: what is not a virtual drive of ours goes to the kernel as it is.
#include "drive/drive.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "drive/reservation.h"
#include "drive/virtual.h"

namespace drive {

int openDrive(const char *device, int flags, mode_t mode) {
  if (keeperOf(device) != 0) {
    errno = EBUSY;
    return -1;
  }
  if (isVirtual(device)) return openVirtual(device, flags);
  int fd = open(device, flags | O_CLOEXEC, mode);
  if (fd >= 0) forgetClosed(fd);
  return fd;
}

int closeDrive(int fd) {
  Handle *handle = findHandleConfirmed(fd);
  return handle ? closeVirtual(*handle) : close(fd);
}

void abandonDrive(int fd) {
  if (Handle *handle = findHandleConfirmed(fd))
    dropHandle(*handle);
  else
    close(fd);
}

ssize_t readBlock(int fd, void *buf, size_t n) {
  Handle *handle = findHandleConfirmed(fd);
  return handle ? readVirtual(*handle, buf, n) : read(fd, buf, n);
}

ssize_t writeBlock(int fd, const void *buf, size_t n) {
  Handle *handle = findHandle(fd);
  return handle ? writeVirtual(*handle, buf, n) : write(fd, buf, n);
}

int operate(int fd, short operation, int count) {
  if (Handle *handle = findHandleConfirmed(fd)) return operateVirtual(*handle, operation, count);
  mtop request = {};
  request.mt_op = operation;
  request.mt_count = count;
  return ioctl(fd, MTIOCTOP, &request);
}

int status(int fd, mtget *out) {
  if (Handle *handle = findHandleConfirmed(fd)) return statusVirtual(*handle, out);
  return ioctl(fd, MTIOCGET, out);
}

int waitReadable(int fd, int timeoutMs) {
  if (findHandleConfirmed(fd)) return 1;
  // poll waits in vain on a negative descriptor, and calls a closed one ready.
  pollfd one = {fd, POLLIN, 0};
  int ready = fd < 0 ? -1 : poll(&one, 1, timeoutMs);
  if (fd < 0 || (ready > 0 && (one.revents & POLLNVAL))) {
    errno = EBADF;
    return -1;
  }
  return ready;
}

bool isRewindingNode(const char *device) {
  constexpr unsigned kTapeMajor = 9, kNoRewind = 0x80;
  struct stat status;
  return !isVirtual(device) && stat(device, &status) == 0 && S_ISCHR(status.st_mode) &&
         major(status.st_rdev) == kTapeMajor && !(minor(status.st_rdev) & kNoRewind);
}

}  // namespace drive
