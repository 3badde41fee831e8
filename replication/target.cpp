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

namespace target {

namespace {

constexpr char kPartName[] = ".zulpart";

// A directory whose times wait for its contents, as it lies in the spill file.
struct Pending {
  package header;
  char path[kPathRoom];
};

// The reception under way. Plain data: the module has no global with a constructor.
struct State {
  char root[kPathRoom];
  int rootFd;
  char parentPath[kPathRoom];  // the parent opened last: files of one directory come one after the
                               // other
  int parentFd;
  FILE *directories;  // Pending records, in a file: trees have more directories than memory should
                      // hold
  int fd;             // the file being written
  int partDir;        // where its part lies, under "sound"; -1 when there is none
  char error[512];
} state = {"", -1, "", -1, nullptr, -1, -1, ""};

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

bool locateBeneath(const char *path, Place *place) {
  size_t rootLength = strlen(state.root);
  const char *below = strncmp(path, state.root, rootLength) == 0 ? path + rootLength : path;
  char parent[kPathRoom];
  base::copyText(parent, sizeof parent, below);
  for (size_t length = strlen(parent); length > 0 && parent[length - 1] == '/'; length--)
    parent[length - 1] = '\0';
  char *slash = strrchr(parent, '/');
  const char *last = slash ? slash + 1 : parent;
  if (strlen(last) > NAME_MAX) {
    errno = ENAMETOOLONG;
    return false;
  }
  base::copyText(place->last, sizeof place->last, *last ? last : ".");
  if (slash) *slash = '\0';
  if (!slash) parent[0] = '\0';
  if (state.parentFd < 0 || strcmp(parent, state.parentPath) != 0) {
    closeIf(&state.parentFd);
    base::copyText(state.parentPath, sizeof state.parentPath, parent);
    state.parentFd = openMaking(parent);
    if (state.parentFd < 0) return false;
  }
  *place = Place{state.parentFd, nullptr, AT_SYMLINK_NOFOLLOW, {}};
  base::copyText(place->last, sizeof place->last, *last ? last : ".");
  place->name = place->last;
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

// The place of a path. parents: make the missing ones (classic; under "sound" they are always
// made).
bool locate(const char *path, bool parents, Place *place) {
  if (beneathRoot()) {
    if (state.rootFd < 0) begin("");
    return state.rootFd >= 0 && locateBeneath(path, place);
  }
  *place = Place{AT_FDCWD, path, 0, {}};
  return !parents || makeParent(path);
}

int setTimes(const Place &place, const package &header) {
  timespec times[2] = {{static_cast<time_t>(header.atime), 0},
                       {static_cast<time_t>(header.mtime), 0}};
  return utimensat(place.dir, place.name, times, place.noFollow);
}

int setOwner(const Place &place, const package &header) {
  return fchownat(place.dir, place.name, header.usrid, header.grpid, place.noFollow);
}

// Directories made under "sound" get owner, permissions and times at the end: until then their
// contents change the times, and a receiver without privileges must be able to write into them.
void remember(const package &header, const char *path) {
  if (!state.directories) state.directories = tmpfile();
  if (!state.directories) return;
  Pending pending{header, {}};
  base::copyText(pending.path, sizeof pending.path, path);
  fwrite(&pending, sizeof pending, 1, state.directories);
}

void finishDirectories() {
  if (!state.directories) return;
  rewind(state.directories);
  Pending pending;
  while (fread(&pending, sizeof pending, 1, state.directories) == 1) {
    Place place;
    if (!locate(pending.path, false, &place)) continue;
    if (setOwner(place, pending.header) != 0 ||
        fchmodat(place.dir, place.name, pending.header.mode & 07777, 0) != 0 ||
        setTimes(place, pending.header) != 0)
      base::print(stderr, "WARNING:  Directory %s: %s\n", pending.path, strerror(errno));
  }
  fclose(state.directories);
  state.directories = nullptr;
}

void dropPart() {
  closeIf(&state.fd);
  if (state.partDir < 0) return;
  unlinkat(state.partDir, kPartName, 0);
  closeIf(&state.partDir);
}

// A link in the way of a directory stays when it leads to a directory beneath the root (a merged
// /usr, say), and goes when it does not.
bool linkServes(const Place &place, const char *path) {
  size_t rootLength = strlen(state.root);
  const char *below = strncmp(path, state.root, rootLength) == 0 ? path + rootLength : path;
  base::Fd there(openBeneath(below, O_RDONLY | O_DIRECTORY));
  return there || unlinkat(place.dir, place.name, 0) != 0;
}

int makeDirectorySound(const package &header, const char *path) {
  Place place;
  if (!locate(path, true, &place)) return failed(kNoParent, "cannot make the parent of", path);
  struct stat there;
  bool exists = fstatat(place.dir, place.name, &there, AT_SYMLINK_NOFOLLOW) == 0;
  if (exists && S_ISLNK(there.st_mode)) {
    if (linkServes(place, path)) return 0;
    exists = false;
  }
  if (exists && !S_ISDIR(there.st_mode)) {
    errno = ENOTDIR;
    return failed(kNotADirectory, "something else stands at", path);
  }
  if (!exists && mkdirat(place.dir, place.name, (header.mode & 07777) | 0700) != 0)
    return failed(kNoParent, "cannot make directory", path);
  remember(header, path);
  return 0;
}

// Writes under a name of its own and renames, so that what stood there is there until the new one
// is whole.
int openPart(const package &header, const char *path) {
  Place place;
  if (!locate(path, true, &place)) return failed(kNoParent, "cannot make the parent of", path);
  state.partDir = fcntl(place.dir, F_DUPFD_CLOEXEC, 3);
  unlinkat(place.dir, kPartName, 0);
  state.fd =
      openat(place.dir, kPartName, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  (void)header;
  return state.fd >= 0 ? 0 : failed(kCannotOpen, "cannot write beside", path);
}

int finishPart(const package &header, const char *path) {
  Place place;
  timespec times[2] = {{static_cast<time_t>(header.atime), 0},
                       {static_cast<time_t>(header.mtime), 0}};
  // The owner first: changing it takes set-user-id bits away.
  if (fchown(state.fd, header.usrid, header.grpid) != 0 ||
      fchmod(state.fd, header.mode & 07777) != 0)
    return failed(kCannotOwn, "cannot set owner or permissions of", path);
  if (futimens(state.fd, times) != 0) base::print(stderr, "Warning cannot set file time \n");
  if (!locate(path, true, &place)) return failed(kNoParent, "cannot reach the parent of", path);
  if (renameat(state.partDir, kPartName, place.dir, place.name) != 0)
    return failed(kCannotOpen, "cannot put in place", path);
  closeIf(&state.partDir);  // the part is the file now: nothing to drop
  closeIf(&state.fd);
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
  if (state.rootFd < 0) failed(kNoParent, "cannot use destination", *root ? root : "/");
}

bool end() {
  bool whole = state.partDir < 0;
  dropPart();
  finishDirectories();
  closeIf(&state.parentFd);
  closeIf(&state.rootFd);
  state.parentPath[0] = state.root[0] = '\0';
  return whole;
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
  Place place{AT_FDCWD, path, 0, {}};
  if (setTimes(place, header) != 0) base::print(stderr, "Warning cannot set file time \n");
  return 0;
}

int makeLink(const package &header, const char *path, const char *text) {
  Place place;
  if (!locate(path, true, &place)) return failed(kNoParent, "cannot make the parent of", path);
  if (!beneathRoot()) {
    if (symlinkat(text, place.dir, place.name) != 0)
      base::print(stderr, "WARNING:  Cannot create link\n");
    return 0;
  }
  // As with files: made under another name and renamed, which replaces a file or a link in the way.
  unlinkat(place.dir, kPartName, 0);
  if (symlinkat(text, place.dir, kPartName) != 0)
    return failed(kCannotOpen, "cannot create link", path);
  Place part{place.dir, kPartName, AT_SYMLINK_NOFOLLOW, {}};
  if (setOwner(part, header) != 0 || setTimes(part, header) != 0 ||
      renameat(place.dir, kPartName, place.dir, place.name) != 0) {
    int result = failed(kCannotOpen, "cannot create link", path);
    unlinkat(place.dir, kPartName, 0);
    return result;
  }
  return 0;
}

int openSegment(const package &header, const char *path) {
  if (beneathRoot()) {
    if (header.sequence != 0) {
      if (state.fd >= 0) return 0;
      errno = ESTALE;
      return failed(kUnfinished, "the beginning is missing of", path);
    }
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
  Place place{AT_FDCWD, path, 0, {}};
  if (setTimes(place, header) != 0) base::print(stderr, "Warning cannot set file time \n");
  return 0;
}

}  // namespace target
