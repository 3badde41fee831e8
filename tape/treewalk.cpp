// The walk runs in the list generator's own process, on the host whose files are wanted, usually as
// root.
#include "tape/treewalk.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <stdio.h>
#include <string.h>
#include <sys/vfs.h>
#include <unistd.h>
#include <zul/host.h>

#include "base/log.h"
#include "base/pause.h"
#include "base/site.h"
#include "base/text.h"

namespace lists {

bool isControl(char c) {
  return static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
}

namespace {

constexpr long long kLongestWaitMs = 100;
constexpr size_t kNumberMax = 12;  // "-2147483648 "

// A list line cannot carry them: a name with a line feed would end its line and begin another, and
// so name any file its owner likes.
bool hasControl(const char *text) {
  for (; *text; text++)
    if (isControl(*text)) return true;
  return false;
}

bool isSelfOrParent(const char *name) {
  return strcmp(name, ".") == 0 || strcmp(name, "..") == 0;
}

// File systems that show the kernel's state: their files have no length that holds, some have no
// end, and none can be restored.
bool isKernelState(int fd) {
  struct statfs status;
  if (fstatfs(fd, &status) != 0) return false;
  switch (static_cast<unsigned long>(status.f_type) & 0xffffffffUL) {
    case PROC_SUPER_MAGIC:
    case SYSFS_MAGIC:
    case DEVPTS_SUPER_MAGIC:
    case CGROUP_SUPER_MAGIC:
    case CGROUP2_SUPER_MAGIC:
    case DEBUGFS_MAGIC:
    case TRACEFS_MAGIC:
    case SECURITYFS_MAGIC:
    case SELINUX_MAGIC:
    case BPF_FS_MAGIC:
    case PSTOREFS_MAGIC:
    case EFIVARFS_MAGIC:
    case BINFMTFS_MAGIC:
    case NSFS_MAGIC:
      return true;
    default:
      return false;
  }
}

}  // namespace

bool LineWriter::add(const char *path, size_t length, bool directory) {
  if (sizeof buffer_ - used_ < kNumberMax + length + 2 && !flush()) return false;
  if (failed_) return false;
  if (used_ == 0) oldest_ = base::nowMs();
  used_ += static_cast<size_t>(snprintf(buffer_ + used_, kNumberMax + 1, "%i ", *count_));
  memcpy(buffer_ + used_, path, length);
  used_ += length;
  if (directory) buffer_[used_++] = '/';
  buffer_[used_++] = '\n';
  (*count_)++;
  return true;
}

bool LineWriter::settle() {
  if (used_ == 0 || base::nowMs() - oldest_ < kLongestWaitMs) return !failed_;
  return flush();
}

bool LineWriter::flush() {
  size_t done = 0;
  while (!failed_ && done < used_) {
    ssize_t put = write(fd_, buffer_ + done, used_ - done);
    if (put > 0)
      done += static_cast<size_t>(put);
    else if (put == 0 || errno != EINTR)
      failed_ = true;
  }
  used_ = 0;
  return !failed_;
}

TreeWalk::TreeWalk(LineWriter &lines, long *bytes, time_t newer)
    : lines_(lines), bytes_(bytes), newer_(newer), sound_(base::sound(base::Area::stream)) {}

bool TreeWalk::run(char *path) {
  path_ = path;
  size_t length = strlen(path);
  // A request for "/" arrives here without its slash, as a name that no file has, and would back up
  // nothing without a word; the walk then starts at the root.
  const char *name = length == 0 && sound_ ? "/" : path;
  return visit(AT_FDCWD, name, length, 0);
}

// Whether an entry is new since the reference time. By its modification time alone, files that came
// with an older one (moved here, unpacked, installed) would be in no backup of a level above 0, and
// those of 1970, which some systems give to all they install, in none at all. The second of the
// reference time counts: the run that began in it may have read the file before the change.
bool TreeWalk::hasChanged(const struct stat &status) const {
  if (!sound_) return status.st_mtime > newer_;
  return newer_ <= 0 || status.st_mtime >= newer_ || status.st_ctime >= newer_;
}

// A directory that no line of an ancestor can stand above. It is listed whatever its time, as
// ancestors are: while the walk passes over files that have not changed, the gatherer needs a
// directory to keep its peer waiting with.
bool TreeWalk::standsBelowRoot(size_t length) const {
  return length > 1 && path_[0] == '/' && memchr(path_ + 1, '/', length - 1) == nullptr;
}

// Lists what stands in path_, which the kernel finds as name below parent. device is where parent
// lives.
bool TreeWalk::visit(int parent, const char *name, size_t length, dev_t device) {
  struct stat status;
  if (fstatat(parent, name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
    // What has gone since its directory was read is no loss. Anything else, a tree that was asked
    // for and is not there included, leaves out of the backup what its owner believes to be in it.
    if (sound_ && (errno != ENOENT || parent == AT_FDCWD)) notice("cannot be examined", errno);
    return true;
  }
  *bytes_ += status.st_size;
  bool directory = S_ISDIR(status.st_mode);
  bool listed = hasChanged(status) || (sound_ && directory && standsBelowRoot(length));
  if (listed && length > 0 && !lines_.add(path_, length, directory)) return false;
  if (!lines_.settle()) return false;
  // Directories are walked whatever their time: new files come to old directories.
  return !directory || descend(parent, name, length, status.st_dev, device);
}

bool TreeWalk::descend(int parent, const char *name, size_t length, dev_t own, dev_t above) {
  int fd = openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  DIR *dir = fd >= 0 ? fdopendir(fd) : nullptr;
  if (!dir) {
    if (sound_ && errno != ENOENT) notice("cannot be read", errno);
    if (fd >= 0) close(fd);
    return true;
  }
  bool good = true;
  if (sound_ && own != above && isKernelState(fd))
    notice("belongs to the kernel and is left out", 0);
  else
    good = readEntries(dir, length, own);
  closedir(dir);
  return good;
}

// The directory's own name, path_ up to length, stands there again afterwards.
bool TreeWalk::readEntries(DIR *dir, size_t length, dev_t device) {
  path_[length] = '/';
  path_[length + 1] = '\0';
  bool good = true;
  while (good) {
    errno = 0;
    dirent *entry = readdir(dir);
    if (!entry) {
      path_[length] = '\0';
      if (sound_ && errno != 0) notice("cannot be read to its end", errno);
      break;
    }
    if (!isSelfOrParent(entry->d_name)) good = visitEntry(dir, entry->d_name, length + 1, device);
  }
  path_[length] = '\0';
  return good;
}

bool TreeWalk::visitEntry(DIR *dir, const char *name, size_t length, dev_t device) {
  size_t room = base::kPathMax - 2 - length;  // a NUL, and the '/' that a directory gets
  size_t nameLength = strlen(name);
  base::copyText(path_ + length, room + 1, name);
  if (nameLength > room) {
    notice("and what follows has too long a path", 0);
    return true;
  }
  if (hasControl(name)) {
    notice("has control characters in its name", 0);
    return true;
  }
  return visit(dirfd(dir), name, length + nameLength, device);
}

// Control characters are shown as '?': the log is read by lines, too.
void TreeWalk::notice(const char *what, int cause) const {
  char shown[base::kPathMax];
  base::copyText(shown, sizeof shown, path_);
  for (char *c = shown; *c; c++)
    if (isControl(*c)) *c = '?';
  base::print(backuplog, "NOTICE:  Not listed: %s %s, errno = %i\n", shown, what, cause);
}

}  // namespace lists
