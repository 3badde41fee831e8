// A file seen through a view of its own memory, for the packer (reading) and the extracter
// (writing); one file at a time per process.
//
// The view is a private buffer that is filled by pread, and content goes out by pwrite. With a
// mapping of the file itself, a source file that is cut while it is read, or a full disk, would
// kill the process by a signal and leave its peer waiting.
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zul/mrepl.h>

#include "base/fd.h"
#include "mrepl/run.h"
#include "mrepl/view.h"

namespace {

// Larger views than any caller asks for are cut to this.
constexpr int kMostBytes = 4096;

struct View {
  int fd;
  int bytes;
  size_t held;  // bytes of the view that the file really has
  char content[kMostBytes];
} view = {-1, 0, 0, {}};

int beginView(int fd, int bytes, void **where) {
  view.fd = fd;
  view.bytes = bytes < 1 || bytes > kMostBytes ? kMostBytes : bytes;
  *where = view.content;
  return 0;
}

// Reads until the view is full or the file ends; what cannot be read reads as zeros.
int fill(uint64_t offset) {
  bool failed = false;
  size_t have = 0;
  size_t wanted = static_cast<size_t>(view.bytes);
  while (have < wanted) {
    ssize_t n =
        pread(view.fd, view.content + have, wanted - have, static_cast<off_t>(offset + have));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      failed = n < 0;
      break;
    }
    have += static_cast<size_t>(n);
  }
  view.held = have;
  memset(view.content + have, 0, wanted - have);
  return failed ? -1 : 0;
}

// Reserves room where the file system can, so that a full disk shows before anything is written.
bool reserve(int fd, uint64_t size) {
  if (ftruncate(fd, static_cast<off_t>(size)) != 0) return false;
  if (size == 0 || fallocate(fd, 0, 0, static_cast<off_t>(size)) == 0) return true;
  return errno == EOPNOTSUPP || errno == ENOSYS;
}

}  // namespace

namespace mrepl {
size_t viewHolds() {
  return view.held;
}
bool viewStatus(struct stat *status) {
  return view.fd >= 0 && fstat(view.fd, status) == 0;
}
}  // namespace mrepl

int memMapOpen(const char *path, void **where, int viewsize) {
  memMapClose();
  // Not to be held up by a FIFO that took the file's place since it was looked at, nor, in a sound
  // run, led elsewhere by a link.
  int flags = O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
  int fd = open(path, mrepl::soundRun() ? flags | O_NOFOLLOW : flags);
  if (fd < 0) return -1;
  beginView(fd, viewsize, where);
  if (fill(0) == 0) return 0;
  memMapClose();
  return -2;
}

int memMapSeek(void **where, uint64_t offset) {
  *where = view.content;
  int filled = fill(offset);
  return view.fd < 0 ? -1 : filled;
}

int memMapWriteOpen(const char *path, void **where, int viewsize, uint64_t size) {
  memMapClose();
  base::Fd fd(open(path, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  if (!fd) return -1;
  if (!reserve(fd.get(), size)) return -2;
  return beginView(fd.release(), viewsize, where);
}

long memMapWrite(uint64_t *position, int length, const void *data) {
  if (view.fd < 0 || length <= 0) return -1;
  ssize_t n;
  do {
    n = pwrite(view.fd, data, static_cast<size_t>(length), static_cast<off_t>(*position));
  } while (n < 0 && errno == EINTR);
  if (n > 0) *position += static_cast<uint64_t>(n);
  return n;
}

int memMapClose(void) {
  if (view.fd < 0) return -1;
  int result = close(view.fd);
  view.fd = -1;
  return result == 0 ? 0 : -1;
}
