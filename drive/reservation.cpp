// Reservations are record locks on a file for each device: they belong to the process and not to
// its descriptors, so a gathering child that outlives its job does not keep the drive from the next
// one.
#include "drive/reservation.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include "base/text.h"

namespace drive {

namespace {

constexpr size_t kDeviceRoom = 256;

// What this process has reserved. Opening the lock file a second time here, and closing it, would
// end the lock.
char reserved[kDeviceRoom];
pid_t reservedBy = 0;

base::HomePath lockPath(const char *device) {
  char name[kDeviceRoom];
  base::copyText(name, sizeof name, device);
  for (char *c = name; *c != '\0'; c++)
    if (*c == '/') *c = '-';
  return base::HomePath("tmp/drive%s.lock", name);
}

struct flock wholeFile() {
  struct flock lock = {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  return lock;
}

bool isOurs(const char *device) {
  return reservedBy == getpid() && strncmp(reserved, device, sizeof reserved - 1) == 0;
}

}  // namespace

pid_t keeperOf(const char *device) {
  if (isOurs(device)) return 0;
  base::Fd file(open(lockPath(device), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
  struct flock lock = wholeFile();
  if (!file || fcntl(file.get(), F_GETLK, &lock) != 0 || lock.l_type == F_UNLCK) return 0;
  return lock.l_pid;
}

bool Reservation::take(const char *device) {
  if (isOurs(device)) return true;
  lock_.reset(open(lockPath(device), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  struct flock lock = wholeFile();
  if (lock_ && fcntl(lock_.get(), F_SETLK, &lock) != 0 && (errno == EAGAIN || errno == EACCES)) {
    lock_.reset();
    return false;
  }
  base::copyText(reserved, sizeof reserved, device);
  reservedBy = getpid();
  return true;
}

Reservation::~Reservation() {
  // A child has a copy of its parent's, and nothing to give back.
  if (lock_ && reservedBy == getpid()) reservedBy = 0;
}

}  // namespace drive
