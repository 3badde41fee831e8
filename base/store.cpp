// How stores are changed: classic in place, sound by a temporary that is renamed over the store.
// Used by every operation that changes a table, an index or a list of the site, in the process of
// the request or job.
#include "base/store.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <zul/host.h>

#include "base/log.h"
#include "base/pause.h"
#include "base/site.h"

namespace base {

namespace {

// False, and an empty text, when it does not fit: a cut name would be another file's.
bool joinName(char (&to)[kPathMax], const char *path, const char *suffix) {
  int length = snprintf(to, sizeof to, "%s%s", path, suffix);
  if (length > 0 && static_cast<size_t>(length) < sizeof to) return true;
  to[0] = '\0';
  return false;
}

bool writeAll(int fd, const char *data, size_t length) {
  while (length > 0) {
    ssize_t put = write(fd, data, length);
    if (put < 0 && errno == EINTR) continue;
    if (put <= 0) return false;
    data += put;
    length -= static_cast<size_t>(put);
  }
  return true;
}

// A name that was renamed is on disk only when its folder is.
bool flushFolder(const char *path) {
  char folder[kPathMax];
  copyText(folder, sizeof folder, path);
  char *slash = strrchr(folder, '/');
  if (!slash) return false;
  slash[slash == folder ? 1 : 0] = '\0';
  Fd fd(open(folder, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  // Some file systems cannot flush a folder and say EINVAL; there is nothing more to be done then.
  return fd && (fsync(fd.get()) == 0 || errno == EINVAL);
}

}  // namespace

Store::Store(const char *path, size_t unit, int lockLimitMs)
    : unit_(unit), sound_(sound(Area::stores)) {
  target_[0] = temporary_[0] = '\0';
  bool named = path[0] != '\0' && joinName(backup_, path, ".BAK") && joinName(path_, path, "");
  if (!named) {
    path_[0] = backup_[0] = '\0';
    return;
  }
  // Without the lock two changes at the same time would both start from the old content, and the
  // later one would undo the earlier.
  usable_ = !sound_ || lock(lockLimitMs);
}

Store::~Store() {
  out_.reset();
  if (temporary_[0] != '\0') unlink(temporary_);
}

// Says once why a sound store was not changed. A classic one has its own message for it and no
// more.
bool Store::refuse(const char *what) {
  int error = errno;
  if (sound_ && !failed_)
    printBoth("ERROR:  %s not changed: %s: %s\n", path_, what, strerror(error));
  failed_ = true;
  errno = error;
  return false;
}

bool Store::lock(int limitMs) {
  char name[kPathMax];
  if (!joinName(name, path_, ".lock")) return false;
  lock_.reset(open(name, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!lock_) return refuse("cannot open its lock file");
  for (long long end = nowMs() + limitMs; flock(lock_.get(), LOCK_EX | LOCK_NB) != 0;) {
    if (errno != EWOULDBLOCK && errno != EINTR) return refuse("cannot lock it");
    if (nowMs() >= end) return refuse("another request holds its lock");
    pauseFor(Pause::StoreLock);
  }
  return true;
}

void Store::createIfMissing() {
  if (usable_) Fd made(open(path_, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, createMode_));
}

bool Store::backUp(int (*copy)(const char *, const char *)) {
  return usable_ && (copy(path_, backup_) == 0 || refuse("cannot make its backup copy"));
}

bool Store::backUp(int (*copy)(const char *, const char *, int)) {
  return usable_ && (copy(path_, backup_, 0) == 0 || refuse("cannot make its backup copy"));
}

File Store::openBackup() {
  File in(usable_ ? fopen(backup_, "re") : nullptr);
  if (usable_ && !in) refuse("cannot read its backup copy");
  return in;
}

bool Store::openLive(int flags) {
  out_.reset(open(path_, O_WRONLY | O_CREAT | O_CLOEXEC | flags, createMode_));
  return static_cast<bool>(out_);
}

// Opens the temporary beside the file that the rename will replace, with that file's owner and
// mode.
bool Store::openTemporary() {
  // A store may be a link to where the site keeps it; the rename must replace the file, not the
  // link.
  char resolved[PATH_MAX];
  if (!joinName(target_, realpath(path_, resolved) ? resolved : path_, "") ||
      !joinName(temporary_, target_, ".tmp"))
    return refuse("its name is too long");
  struct stat live;
  bool exists = stat(target_, &live) == 0;
  if (exists && !S_ISREG(live.st_mode)) {
    temporary_[0] = '\0';
    errno = S_ISDIR(live.st_mode) ? EISDIR : EINVAL;
    return refuse("it is no file");
  }
  out_.reset(open(temporary_, O_RDWR | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC,
                  exists ? 0600 : createMode_));
  if (!out_) {
    temporary_[0] = '\0';
    return refuse("cannot write beside it");
  }
  // Only root may give a file away; anybody else is its owner already.
  if (exists && fchown(out_.get(), live.st_uid, live.st_gid) != 0) errno = 0;
  if (exists && fchmod(out_.get(), live.st_mode & 0777) != 0) return refuse("cannot set its mode");
  return true;
}

bool Store::beginRewrite() {
  if (!usable_) return false;
  // The store itself must not be cut short before its new content is complete on disk.
  return sound_ ? openTemporary() : openLive(O_TRUNC);
}

bool Store::beginAppend() {
  if (!usable_) return false;
  // A disk that fills up in the middle of an append leaves half an entry behind.
  if (!sound_) return openLive(O_APPEND);
  if (!openTemporary()) return false;
  Fd live(open(target_, O_RDONLY | O_CLOEXEC));
  if (!live) return errno == ENOENT || refuse("cannot read it");
  return copyLive(live.get()) && keepBoundary();
}

bool Store::copyLive(int live) {
  char buffer[16384];
  for (;;) {
    ssize_t got = read(live, buffer, sizeof buffer);
    if (got == 0) return true;
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return refuse("cannot read it");
    if (!put(buffer, static_cast<size_t>(got))) return false;
  }
}

bool Store::keepBoundary() {
  off_t size = lseek(out_.get(), 0, SEEK_END);
  if (size < 0) return refuse("cannot find its end");
  if (unit_ == kLines) {
    char last = '\n';
    if (size > 0 && pread(out_.get(), &last, 1, size - 1) != 1)
      return refuse("cannot read its end");
    return last == '\n' || put("\n", 1);
  }
  off_t whole = size - size % static_cast<off_t>(unit_);
  if (whole == size) return true;
  if (ftruncate(out_.get(), whole) != 0 || lseek(out_.get(), whole, SEEK_SET) < 0)
    return refuse("cannot cut its partial last record");
  print(fplog, "NOTICE:  %s ended in a partial record, which was dropped\n", path_);
  return true;
}

bool Store::put(const void *data, size_t length) {
  return writeAll(out_.get(), static_cast<const char *>(data), length) || refuse("cannot write it");
}

bool Store::putText(const char *format, ...) {
  char *text = nullptr;
  va_list args;
  va_start(args, format);
  int length = vasprintf(&text, format, args);
  va_end(args);
  if (length < 0) return refuse("cannot format its entry");
  bool good = put(text, static_cast<size_t>(length));
  free(text);
  return good;
}

bool Store::commit() {
  if (!out_ || failed_) return false;
  // The data must be on disk before the name is, or a power cut could leave an empty store.
  if (sound_ && fsync(out_.get()) != 0) return refuse("cannot flush it");
  if (close(out_.release()) != 0) return refuse("cannot close it");
  return !sound_ || publish();
}

bool Store::publish() {
  if (rename(temporary_, target_) != 0) return refuse("cannot replace it");
  temporary_[0] = '\0';
  if (!flushFolder(target_))
    printBoth("WARNING:  %s changed, but a power cut may undo it: %s\n", path_, strerror(errno));
  return true;
}

}  // namespace base
