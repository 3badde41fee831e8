// Opening and closing virtual drives, and the table of what this process has open.
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/fd.h"
#include "drive/cartridge.h"
#include "drive/drive.h"
#include "drive/virtual.h"

namespace drive {

static constexpr char kPrefix[] = "/dev/vtape/";
// The descriptors of the image and its marks stay clear of the low numbers, which programs close in
// bulk when they detach and get again at once.
static constexpr int kHighDescriptor = 256;
static constexpr size_t kOpenMax = 16;

// No constructor: all entries start as zeros.
static Handle openDrives[kOpenMax];

bool isVirtual(const char *device) {
  return strncmp(device, kPrefix, sizeof kPrefix - 1) == 0;
}

Handle *findHandle(int fd) {
  for (Handle &handle : openDrives)
    if (handle.state && handle.fd == fd) return &handle;
  return nullptr;
}

static void forgetHandle(Handle &handle) {
  if (handle.image >= 0) close(handle.image);
  if (handle.marks.fd >= 0) close(handle.marks.fd);
  unmapState(handle.state);
  handle.state = nullptr;
}

static bool isStale(const Handle &handle) {
  struct stat status;
  return fstat(handle.fd, &status) != 0 || status.st_dev != handle.lockDevice ||
         status.st_ino != handle.lockInode;
}

Handle *findHandleConfirmed(int fd) {
  Handle *handle = findHandle(fd);
  if (!handle || !isStale(*handle)) return handle;
  forgetHandle(*handle);
  return nullptr;
}

void forgetClosed(int fd) {
  if (Handle *handle = findHandle(fd)) forgetHandle(*handle);
}

static Handle *freeHandle() {
  for (Handle &handle : openDrives) {
    if (handle.state && isStale(handle)) forgetHandle(handle);
    if (!handle.state) return &handle;
  }
  errno = EMFILE;
  return nullptr;
}

// The descriptor with the drive's lock on it, or none with errno.
static base::Fd tryLock(const char *drive) {
  base::Fd fd(open(DrivePath(drive, "lock"),
                   O_RDONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0660));
  if (fd && flock(fd.get(), LOCK_EX | LOCK_NB) != 0) {
    int error = errno == EWOULDBLOCK ? EBUSY : errno;
    fd.reset();
    errno = error;
  }
  return fd;
}

static base::Fd lockDrive(const char *drive, Patience patience) {
  base::Fd fd = tryLock(drive);
  if (fd || errno != EBUSY || patience == Patience::none) return fd;
  base::Fd shelf = lockShelf();
  if (shelf) return tryLock(drive);
  errno = EBUSY;
  return fd;
}

static int moveHigh(int fd) {
  int high = fd < 0 ? -1 : fcntl(fd, F_DUPFD_CLOEXEC, kHighDescriptor);
  if (high < 0) return fd;
  close(fd);
  return high;
}

static int openImage(Handle &handle, const char *cartridge) {
  ShelfPath path(cartridge, ".tap");
  int flags = O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
  int fd = handle.isProtected ? -1 : open(path, O_RDWR | flags);
  if (handle.isProtected || (fd < 0 && handle.mode == O_RDONLY && errno != ENOENT))
    fd = open(path, O_RDONLY | flags);
  struct stat status;
  if (fd < 0 || fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
    int error = fd >= 0 || errno == ENOENT ? ENOMEDIUM : errno;
    if (fd >= 0) close(fd);
    errno = error;
    return -1;
  }
  return moveHigh(fd);
}

// Is it the position of a tape of this name and image? The state is a file that anything may have
// happened to.
static bool isStateOf(const State &state, const char *cartridge, int fd, const struct stat &image) {
  if (strcmp(state.cartridge, cartridge) != 0 || state.inode != image.st_ino) return false;
  if (state.blockSize > image::kBlockMax || state.passed > Passed::end || state.isWritten > 1 ||
      state.isWarned > 1 || state.fileNo < -1 || state.blockNo < -1)
    return false;
  // What a killed writer left is looked at from the last durable place on, which is the end of a
  // block or mark: cutting anywhere else would cost good data. A tape at rest has the length that
  // it was left with.
  if (state.isWritten)
    return state.durable >= 0 && state.durable <= image.st_size &&
           image::lookBack(fd, state.durable).kind != image::Kind::damage;
  return state.seenSize == image.st_size && state.offset >= 0 && state.offset <= image.st_size;
}

// Takes over the position that the drive's last user left.
static int adoptState(Handle &handle, const char *cartridge) {
  struct stat image;
  if (fstat(handle.image, &image) != 0) return -1;
  if (!isStateOf(*handle.state, cartridge, handle.image, image)) {
    resetState(handle.state, cartridge, handle.image);
    return 0;
  }
  // A tape whose last mark cannot be written can at least be read.
  return handle.isProtected || recoverWriting(handle) == 0 || handle.mode == O_RDONLY ? 0 : -1;
}

static int loadMedium(Handle &handle) {
  char cartridge[kNameRoom];
  if (!readLoaded(handle.drive, cartridge)) {
    errno = ENOMEDIUM;
    return -1;
  }
  Label label = readLabel(cartridge);
  handle.isProtected = label.isProtected;
  if (handle.isProtected && handle.mode != O_RDONLY) {
    errno = EROFS;
    return -1;
  }
  handle.hardEnd = label.capacity;
  int64_t zone = label.capacity / 8 < kWarningZone ? label.capacity / 8 : kWarningZone;
  handle.warningAt = label.capacity - zone;
  handle.image = openImage(handle, cartridge);
  if (handle.image < 0) return -1;
  handle.marks = openMarks(cartridge, handle.image);
  handle.marks.fd = moveHigh(handle.marks.fd);
  return adoptState(handle, cartridge);
}

// Fills the entry for a drive whose lock is held.
static int setUp(Handle &handle, const char *drive, int lock, int flags) {
  handle = Handle{};
  handle.fd = lock;
  handle.image = handle.marks.fd = -1;
  handle.mode = flags & O_ACCMODE;
  base::copyText(handle.drive, sizeof handle.drive, drive);
  struct stat status;
  if (fstat(lock, &status) != 0 || !(handle.state = mapState(drive))) return -1;
  handle.lockDevice = status.st_dev;
  handle.lockInode = status.st_ino;
  loadFaults(drive, &handle.faults);
  startFaultCount(handle);
  if (loadMedium(handle) == 0 || (errno == ENOMEDIUM && (flags & O_NONBLOCK))) {
    handle.state->holder = getpid();
    return 0;
  }
  int error = errno;
  forgetHandle(handle);
  errno = error;
  return -1;
}

int openVirtual(const char *device, int flags, Patience patience) {
  const char *drive = device + sizeof kPrefix - 1;
  if (!isTapeName(drive) || strcmp(drive, kShelf) == 0) {
    errno = ENOENT;
    return -1;
  }
  if ((flags & O_ACCMODE) == O_ACCMODE) {
    errno = EINVAL;
    return -1;
  }
  if ((flags & O_CREAT) && (flags & O_EXCL) && access(DrivePath(drive, ""), F_OK) == 0) {
    errno = EEXIST;
    return -1;
  }
  base::Fd lock = lockDrive(drive, patience);
  if (!lock) return -1;
  forgetClosed(lock.get());
  Handle *handle = freeHandle();
  if (!handle || setUp(*handle, drive, lock.get(), flags) != 0) return -1;
  return lock.release();
}

void dropHandle(Handle &handle) {
  close(handle.fd);
  forgetHandle(handle);
}

int closeVirtual(Handle &handle) {
  close(handle.fd);
  int result = 0, error = 0;
  if (handle.state->isWritten) {
    // Only when nobody else holds the drive is this the last close, which ends the tape file. Who
    // opens it in between has done it for us.
    base::Fd lock = lockDrive(handle.drive, Patience::operators);
    struct stat status;
    if (lock && handle.state->isWritten) {
      // Another process of this open may have been killed within a write.
      bool isWhole = fstat(handle.image, &status) == 0 && status.st_size == handle.state->offset;
      result = isWhole ? finishWriting(handle) : recoverWriting(handle);
      error = errno;
    }
  }
  forgetHandle(handle);
  if (result != 0) errno = error;
  return result;
}

}  // namespace drive
