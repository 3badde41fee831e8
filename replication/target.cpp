// Creates received directories, links and files, in the process of the receiving agent.
//
// Every operation works on a directory descriptor and a name. In classic that is the current
// directory and the whole path, links followed; under "sound" it is the parent, opened beneath the
// destination root, and the last component, links not followed. So there is one way through the
// code for both.
#include "replication/target.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <linux/openat2.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <zul/host.h>
#include <zul/tape.h>

#include "base/fd.h"
#include "base/log.h"
#include "base/site.h"
#include "base/text.h"
#include "replication/parts.h"

namespace target {

namespace {

// A directory whose permissions and times wait for its contents, as it lies in the spill file.
struct Pending {
  mode_t mode;
  timespec times[2];
  char path[kPathRoom];
};

// The reception under way. Plain data: the module has no global with a constructor.
struct State {
  char root[kPathRoom];
  int rootFd;
  int rootError;               // why the root that was begun cannot be opened, or 0
  char parentPath[kPathRoom];  // the parent opened last: files of one directory come one after the
                               // other
  int parentFd;
  FILE *directories;  // Pending records, in a file: trees have more directories than memory should
                      // hold
  int fd;             // the file being written
  int partDir;       // where its part lies, under "sound"; -1 when there is none. It is parentFd as
                     // long as that is the part's
  int32_t sequence;  // of its next segment
  package part;      // header of its first segment
  char error[512];
} state = {"", -1, 0, "", -1, nullptr, -1, -1, 0, {}, ""};

void printForRestore(Remark remark, const char *) {
  base::print(stderr, remark == Remark::timesNotSet ? "Warning cannot set file time \n"
                                                    : "WARNING:  Cannot create link\n");
}
void (*printRemark)(Remark, const char *) = printForRestore;

bool beneathRoot() {
  return base::sound(base::Area::receive);
}

int failed(int result, const char *what, const char *path) {
  snprintf(state.error, sizeof state.error, "%s %.300s: %s", what, path, strerror(errno));
  return result;
}

void closeIf(int *fd) {
  if (*fd >= 0) close(*fd);
  *fd = -1;
}

// Opens a path beneath the root: links in it are followed as if the root were "/", so none leads
// outside.
int openBeneath(const char *path, int flags) {
  open_how how{};
  how.flags = static_cast<uint64_t>(flags) | O_CLOEXEC;
  how.resolve = RESOLVE_IN_ROOT | RESOLVE_NO_MAGICLINKS;
  return static_cast<int>(syscall(SYS_openat2, state.rootFd, path, &how, sizeof how));
}

// Opens a directory beneath the root, making what is missing of it. The path is cut and mended in
// place.
int openMaking(char *path) {
  const char *name = *path ? path : "/";
  int fd = openBeneath(name, O_RDONLY | O_DIRECTORY);
  if (fd >= 0 || errno != ENOENT || *path == '\0') return fd;
  char *slash = strrchr(path, '/');
  char *last = slash ? slash + 1 : path;
  char cut = slash ? *slash : '\0';
  if (slash) *slash = '\0';
  char empty[] = "";
  base::Fd parent(openMaking(slash ? path : empty));
  if (slash) *slash = cut;
  // Of "a//b", a name below a prefix that ends in '/', the parent reads "a/".
  if (*last == '\0') return parent.release();
  if (!parent || (mkdirat(parent.get(), last, 0755) != 0 && errno != EEXIST)) return -1;
  return openBeneath(path, O_RDONLY | O_DIRECTORY);
}

// Where an operation takes place.
struct Place {
  int dir;
  const char *name;
  int noFollow;  // flag for the calls that take one
  char last[NAME_MAX + 1];
};

// What of a path lies below the root.
const char *belowRoot(const char *path) {
  size_t length = strlen(state.root);
  return strncmp(path, state.root, length) == 0 ? path + length : path;
}

// Opens the parent, unless it is open already.
bool openParent(char *parent, bool make) {
  if (state.parentFd >= 0 && strcmp(parent, state.parentPath) == 0) return true;
  if (state.parentFd == state.partDir) state.parentFd = -1;  // stays open for the part
  closeIf(&state.parentFd);
  base::copyText(state.parentPath, sizeof state.parentPath, parent);
  state.parentFd =
      make ? openMaking(parent) : openBeneath(*parent ? parent : "/", O_RDONLY | O_DIRECTORY);
  return state.parentFd >= 0;
}

bool locateBeneath(const char *path, bool make, Place *place) {
  char parent[kPathRoom];
  base::copyText(parent, sizeof parent, belowRoot(path));
  for (size_t length = strlen(parent); length > 0 && parent[length - 1] == '/'; length--)
    parent[length - 1] = '\0';
  char *slash = strrchr(parent, '/');
  const char *last = slash ? slash + 1 : parent;
  if (strlen(last) > NAME_MAX) {
    errno = ENAMETOOLONG;
    return false;
  }
  base::copyText(place->last, sizeof place->last, *last ? last : ".");
  *(slash ? slash : parent) = '\0';
  if (!openParent(parent, make)) return false;
  place->dir = state.parentFd;
  place->name = place->last;
  place->noFollow = AT_SYMLINK_NOFOLLOW;
  return true;
}

bool makeParent(const char *path) {
  char parent[kPathRoom];
  base::copyText(parent, sizeof parent, path);
  char *slash = strrchr(parent, '/');
  if (!slash || slash == parent) return true;
  *slash = '\0';
  return rmkdir(parent, 0755) == 0;
}

// Where nothing was begun the root is "/". One that was begun and cannot be opened is not exchanged
// for that: links would lead out of it.
bool rootIsOpen() {
  if (state.rootFd < 0 && state.rootError == 0) begin("");
  if (state.rootFd < 0) errno = state.rootError;
  return state.rootFd >= 0;
}

// The place of a path. parents: make the missing ones.
bool locate(const char *path, bool parents, Place *place) {
  if (beneathRoot()) return rootIsOpen() && locateBeneath(path, parents, place);
  *place = Place{AT_FDCWD, path, 0, {}};
  return !parents || makeParent(path);
}

// The times of a header, as the kernel takes them.
struct Times {
  timespec both[2];
  explicit Times(const package &header)
      : both{{static_cast<time_t>(header.atime), 0}, {static_cast<time_t>(header.mtime), 0}} {}
};

int setTimes(const Place &place, const package &header) {
  return utimensat(place.dir, place.name, Times(header).both, place.noFollow);
}

int setOwner(const Place &place, const package &header) {
  return fchownat(place.dir, place.name, header.usrid, header.grpid, place.noFollow);
}

// Directories made under "sound" get permissions and times at the end: until then their contents
// change the times, and a receiver without privileges must be able to write into them.
bool remember(mode_t mode, const timespec (&times)[2], const char *path) {
  if (!state.directories) state.directories = tmpfile();
  Pending pending{mode & 07777, {times[0], times[1]}, {}};
  base::copyText(pending.path, sizeof pending.path, path);
  return state.directories && fwrite(&pending, sizeof pending, 1, state.directories) == 1;
}

// Last made, first done: behind a parent that may not be searched nothing could be reached.
bool finishDirectories() {
  if (!state.directories) return true;
  bool good = fflush(state.directories) == 0;
  Pending pending;
  for (long at = ftell(state.directories) / static_cast<long>(sizeof pending); at-- > 0;) {
    Place place;
    bool done = fseek(state.directories, at * static_cast<long>(sizeof pending), SEEK_SET) == 0 &&
                fread(&pending, sizeof pending, 1, state.directories) == 1 &&
                locate(pending.path, false, &place) &&
                fchmodat(place.dir, place.name, pending.mode, place.noFollow) == 0;
    if (done && utimensat(place.dir, place.name, pending.times, place.noFollow) == 0) continue;
    base::print(stderr, "ERROR:  Permissions or times of directory %s: %s\n", pending.path,
                strerror(errno));
    good = false;
  }
  fclose(state.directories);
  state.directories = nullptr;
  return good;
}

void releasePart() {
  if (state.partDir != state.parentFd) closeIf(&state.partDir);
  state.partDir = -1;
}

void dropPart() {
  closeIf(&state.fd);
  if (state.partDir < 0) return;
  unlinkat(state.partDir, PartName(), 0);
  releasePart();
}

// A link in the way of a directory stays when it leads to a directory beneath the root (a merged
// /usr, say), and goes when it does not.
bool linkServes(const char *path) {
  base::Fd there(openBeneath(belowRoot(path), O_RDONLY | O_DIRECTORY));
  return static_cast<bool>(there);
}

int makeDirectorySound(const package &header, const char *path) {
  Place place;
  if (!locate(path, true, &place)) return failed(kNoParent, "cannot make the parent of", path);
  struct stat there;
  bool exists = fstatat(place.dir, place.name, &there, AT_SYMLINK_NOFOLLOW) == 0;
  if (exists && S_ISLNK(there.st_mode)) {
    if (linkServes(path)) return 0;
    if (unlinkat(place.dir, place.name, 0) != 0)
      return failed(kNoParent, "cannot take away the link", path);
    exists = false;
  }
  if (exists && !S_ISDIR(there.st_mode)) {
    errno = ENOTDIR;
    return failed(kNotADirectory, "something else stands at", path);
  }
  if (!exists && mkdirat(place.dir, place.name, (header.mode & 07777) | 0700) != 0)
    return failed(kNoParent, "cannot make directory", path);
  if (exists) sweepParts(place.dir, place.name);
  if (setOwner(place, header) != 0) return failed(kCannotOwn, "cannot set owner of", path);
  Times times(header);
  if (!remember(header.mode, times.both, path))
    return failed(kCannotOwn, "cannot note the times of", path);
  return 0;
}

// Writes under a name of its own and renames, so that what stood there is there until the new one
// is whole.
int openPart(const package &header, const char *path) {
  Place place;
  if (!locate(path, true, &place)) return failed(kNoParent, "cannot make the parent of", path);
  state.fd = openNewPart(place.dir);
  if (state.fd < 0) return failed(kCannotOpen, "cannot write beside", path);
  state.partDir = place.dir;
  state.part = header;
  state.sequence = 1;
  return 0;
}

// A later segment belongs behind the one before it, and nowhere else.
int continuePart(const package &header, const char *path) {
  if (state.fd >= 0 && header.sequence == state.sequence && header.size == state.part.size &&
      strcmp(header.filename, state.part.filename) == 0 &&
      strcmp(header.fromhost, state.part.fromhost) == 0) {
    state.sequence++;
    return 0;
  }
  dropPart();
  errno = ESTALE;
  return failed(kUnfinished, "a part is missing of", path);
}

int finishPart(const package &header, const char *path) {
  Place place;
  // The owner first: changing it takes set-user-id bits away.
  if (fchown(state.fd, header.usrid, header.grpid) != 0 ||
      fchmod(state.fd, header.mode & 07777) != 0)
    return failed(kCannotOwn, "cannot set owner or permissions of", path);
  if (futimens(state.fd, Times(header).both) != 0) printRemark(Remark::timesNotSet, path);
  // Some file systems find out here that there was no room.
  int fd = state.fd;
  state.fd = -1;
  if (close(fd) != 0) return failed(kShortWrite, "cannot write", path);
  if (!locate(path, true, &place)) return failed(kNoParent, "cannot reach the parent of", path);
  if (renameat(state.partDir, PartName(), place.dir, place.name) != 0)
    return failed(kCannotOpen, "cannot put in place", path);
  releasePart();  // the part is the file now: nothing to drop
  return 0;
}

// True when the segment that header introduces is the last that carries bytes, or stands behind it.
bool isLast(const package &header) {
  return (static_cast<uint64_t>(header.sequence) + 1) * PACK_CHUNK >= header.size;
}

}  // namespace

const char *lastError() {
  return state.error;
}

size_t segmentLength(const package &header) {
  if (header.sequence < 0) return 0;
  uint64_t before = static_cast<uint64_t>(header.sequence) * PACK_CHUNK;
  if (before >= header.size) return 0;
  uint64_t left = header.size - before;
  return left < PACK_CHUNK ? static_cast<size_t>(left) : PACK_CHUNK;
}

void begin(const char *root) {
  end();
  base::copyText(state.root, sizeof state.root, root);
  state.error[0] = '\0';
  if (!beneathRoot()) return;
  if (*root) rmkdir(root, 0755);
  state.rootFd = open(*root ? root : "/", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (state.rootFd >= 0) {
    sweepParts(state.rootFd, ".");  // no list names the root itself
  } else {
    state.rootError = errno;
    failed(kNoParent, "cannot use destination", *root ? root : "/");
  }
}

bool lookAt(const char *path, struct stat *there) {
  size_t length = strlen(path);
  if (beneathRoot() && length > 0 && path[length - 1] == '/') {
    // A link that leads to a directory beneath the root is that directory.
    base::Fd directory(rootIsOpen() ? openBeneath(belowRoot(path), O_PATH | O_DIRECTORY) : -1);
    if (directory) return fstat(directory.get(), there) == 0;
  }
  Place place;
  return locate(path, false, &place) &&
         fstatat(place.dir, place.name, there, AT_SYMLINK_NOFOLLOW) == 0;
}

int refuse(const char *what, const char *path) {
  errno = EINVAL;
  return failed(kRefused, what, path);
}

bool end() {
  bool whole = state.partDir < 0;
  dropPart();
  whole = finishDirectories() && whole;
  closeIf(&state.parentFd);
  closeIf(&state.rootFd);
  state.rootError = 0;
  state.parentPath[0] = state.root[0] = '\0';
  return whole;
}

void setRemarks(void (*print)(Remark remark, const char *path)) {
  printRemark = print;
}

void setTimesOf(const package &header, const char *path) {
  Place place{AT_FDCWD, path, 0, {}};
  if (setTimes(place, header) != 0) printRemark(Remark::timesNotSet, path);
}

void keepDirectory(const package &header, const char *root) {
  struct stat there;
  char path[kPathRoom];
  int length = snprintf(path, sizeof path, "%.256s%.256s", root, header.filename);
  Place place;
  if (!beneathRoot() || static_cast<size_t>(length) >= sizeof path) return;
  // A link that serves as the directory is left to itself, here as in makeDirectory.
  if (!locate(path, false, &place) ||
      fstatat(place.dir, place.name, &there, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISDIR(there.st_mode))
    return;
  remember(there.st_mode, {there.st_atim, there.st_mtim}, path);
  sweepParts(place.dir, place.name);
}

int makeDirectory(const package &header, const char *path) {
  if (beneathRoot()) return makeDirectorySound(header, path);
  struct stat there;
  if (stat(path, &there) == 0) {
    if (!S_ISDIR(there.st_mode)) return kNotADirectory;
  } else if (rmkdir(path, header.mode & 07777) != 0) {
    return failed(kNoParent, "cannot make directory", path);
  }
  if (chown(path, header.usrid, header.grpid) != 0)
    return failed(kCannotOwn, "cannot set owner of", path);
  setTimesOf(header, path);
  return 0;
}

int makeLink(const package &header, const char *path, const char *text) {
  Place place;
  if (!locate(path, true, &place)) return failed(kNoParent, "cannot make the parent of", path);
  if (!beneathRoot()) {
    if (symlinkat(text, place.dir, place.name) != 0) printRemark(Remark::linkNotMade, path);
    return 0;
  }
  // As with files: made under another name and renamed, which replaces a file or a link in the way.
  PartName name;
  unlinkat(place.dir, name, 0);
  if (symlinkat(text, place.dir, name) != 0) return failed(kCannotOpen, "cannot create link", path);
  Place part{place.dir, name, AT_SYMLINK_NOFOLLOW, {}};
  if (setOwner(part, header) == 0 && setTimes(part, header) == 0 &&
      renameat(place.dir, name, place.dir, place.name) == 0)
    return 0;
  int result = failed(kCannotOpen, "cannot create link", path);
  unlinkat(place.dir, name, 0);
  return result;
}

int openSegment(const package &header, const char *path) {
  if (beneathRoot()) {
    if (header.sequence != 0) return continuePart(header, path);
    dropPart();
    return openPart(header, path);
  }
  if (!makeParent(path)) return failed(kNoParent, "cannot make the parent of", path);
  int flags = header.sequence == 0 ? O_WRONLY | O_CREAT | O_TRUNC : O_WRONLY | O_APPEND;
  state.fd = open(path, flags | O_CLOEXEC, header.mode & 07777);
  return state.fd >= 0 ? 0 : failed(kCannotOpen, "cannot open", path);
}

int put(const void *data, size_t n) {
  const char *at = static_cast<const char *>(data);
  while (n > 0) {
    ssize_t done = write(state.fd, at, n);
    if (done < 0 && errno == EINTR) continue;
    if (done <= 0) {
      // Classic agents go on: the file is short and nobody is told.
      if (!base::sound(base::Area::receive)) return 0;
      snprintf(state.error, sizeof state.error, "cannot write: %s",
               strerror(done < 0 ? errno : EIO));
      return kShortWrite;
    }
    at += done;
    n -= static_cast<size_t>(done);
  }
  return 0;
}

int closeSegment(const package &header, const char *path, int result) {
  if (beneathRoot()) {
    if (result == 0 && !isLast(header)) return 0;
    if (result == 0) result = finishPart(header, path);
    dropPart();
    return result;
  }
  closeIf(&state.fd);
  if (result != 0) return result;
  if (chown(path, header.usrid, header.grpid) != 0 || chmod(path, header.mode & 07777) != 0)
    return failed(kCannotOwn, "cannot set owner or permissions of", path);
  setTimesOf(header, path);
  return 0;
}

}  // namespace target
