// Creates files, directories, links and devices on a receiving host, in the extracter.
//
// Classic writes in place, through links, under whatever name arrives. On a site whose receivers
// are sound (area receive) files go through replication/target.h, as those of a restore or a
// replication do: nothing outside the root, no link followed at the name itself, an existing file
// replaced whole or not at all.
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>
#include <zul/host.h>
#include <zul/mrepl.h>
#include <zul/records.h>
#include <zul/tape.h>

#include "base/log.h"
#include "base/site.h"
#include "base/text.h"
#include "mrepl/restoring.h"
#include "mrepl/run.h"
#include "replication/target.h"

namespace {

constexpr int kViewBytes = 4096;
constexpr int kRounds = 5;
constexpr mode_t kParentMode = 0755;

// A name as it arrives may fill its field.
struct Name {
  char text[sizeof(mfilehead::name) + 1];
  explicit Name(const mfilehead &header) {
    memcpy(text, header.name, sizeof header.name);
    text[sizeof header.name] = '\0';
  }
};

bool safely() {
  return base::sound(base::Area::receive);
}

mode_t modeOf(const mfilehead &header) {
  return net2hostmode(header.mode);
}

// The header as the shared way to disk takes it; sequence: of the last piece, or the first.
package packageOf(const mfilehead &header, bool last) {
  package pack{};
  base::copyText(pack.filename, sizeof pack.filename, Name(header).text);
  pack.usrid = header.owner;
  pack.grpid = header.group;
  pack.mode = modeOf(header);
  pack.mtime = header.mtime;
  pack.atime = header.atime;
  pack.size = mrepl::sizeOf(header);
  pack.sequence = last ? static_cast<int32_t>(pack.size / PACK_CHUNK) : 0;
  return pack;
}

// Names come from the network: only plain absolute ones are written to.
bool isPlain(const char *path) {
  if (path[0] != '/') return false;
  for (const char *at = path; (at = strstr(at, "/..")) != nullptr; at += 3)
    if (at[3] == '/' || at[3] == '\0') return false;
  return true;
}

int refuseName(const char *path) {
  base::print(fplog, "NOTICE:  >%s< is no absolute name\n", path);
  errno = EINVAL;
  return -4;
}

bool makeParents(const char *path) {
  char parent[base::kPathMax];
  base::copyText(parent, sizeof parent, path);
  char *slash = strrchr(parent, '/');
  if (!slash || slash == parent) return true;
  *slash = '\0';
  return rmkdir(parent, kParentMode) == 0;
}

int fromTarget(int result) {
  switch (result) {
    case 0:
      return 0;
    case target::kNoParent:
      return -4;
    case target::kNotADirectory:
      return -3;
    case target::kCannotOwn:
      return -1;
    default:
      return -6;
  }
}

int setOwnerAndMode(const char *path, const mfilehead &header) {
  if (chown(path, header.owner, header.group) != 0) return -1;
  return chmod(path, modeOf(header)) == 0 ? 0 : -2;
}

int createEmpty(const char *path) {
  int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) return -6;
  close(fd);
  return 0;
}

// A device that is there must be the one meant. On a sound site whatever else has the name keeps
// its owner.
int checkDevice(const char *path, const struct stat &there, const mfilehead &header, mode_t type) {
  bool device = (there.st_mode & S_IFMT) == type;
  if (there.st_rdev == header.rdev && (device || !safely())) return 0;
  if (!safely() && chown(path, header.owner, header.group) != 0) {
    // The message about the device says enough.
  }
  return -8;
}

int restoreDevice(const mfilehead &header, mode_t type) {
  Name name(header);
  if (safely() && !isPlain(name.text)) return refuseName(name.text);
  struct stat there;
  if (lstat(name.text, &there) == 0) {
    int result = checkDevice(name.text, there, header, type);
    if (result != 0) return result;
  } else {
    if (safely() && !makeParents(name.text)) return -4;
    if (mknod(name.text, (modeOf(header) & 07777) | type, header.rdev) != 0) return -7;
  }
  return setOwnerAndMode(name.text, header);
}

// A directory where something else stands is made in its place.
int makeDirectory(const char *path, const mfilehead &header) {
  struct stat there;
  for (int round = 0; round < kRounds; round++) {
    if (lstat(path, &there) != 0) return rmkdir(path, header.mode) == 0 ? 0 : -4;
    if (S_ISDIR(there.st_mode)) return 0;
    if (unlink(path) != 0) return -3;
  }
  return -3;
}

}  // namespace

namespace mrepl {

uint64_t sizeOf(const mfilehead &header) {
  // The high word stands where installed senders write zeros.
  return soundRun() ? joined(header.reserved4, header.size) : header.size;
}

void beginRestoring() {
  if (safely()) target::begin("");
}

void endRestoring() {
  if (safely()) target::end();
}

long putBlock(uint64_t *position, int length, const void *data) {
  if (!safely()) return memMapWrite(position, length, data);
  if (target::put(data, static_cast<size_t>(length)) != 0) return -1;
  *position += static_cast<uint64_t>(length);
  return length;
}

int finishFile(mfilehead *header, bool content) {
  Name name(*header);
  if (safely()) return fromTarget(target::closeSegment(packageOf(*header, true), name.text, 0));
  memMapClose();
  if (!content) {
    int result = setOwnerAndMode(name.text, *header);
    // Without its times the next comparison by time finds a file newer than its original.
    if (soundRun()) setTimes(*header);
    return result;
  }
  if (chown(name.text, header->owner, header->group) != 0) logError(header, -1);
  int result = chmod(name.text, modeOf(*header)) == 0 ? 0 : -2;
  setTimes(*header);
  return result;
}

void dropFile() {
  memMapClose();
  if (safely()) target::closeSegment(package{}, "", target::kUnfinished);
}

void setTimes(const mfilehead &header) {
  timespec times[2] = {{header.atime, 0}, {header.mtime, 0}};
  if (utimensat(AT_FDCWD, Name(header).text, times, safely() ? AT_SYMLINK_NOFOLLOW : 0) != 0)
    base::print(fplog, "INFO:  Cannot set access and modification time\n");
}

const char *failureText(int code) {
  if (safely() && (code == -6 || code == -4 || code == -1) && *target::lastError())
    return target::lastError();
  return strerror(errno);
}

}  // namespace mrepl

int restoreFile(mfilehead *header) {
  Name name(*header);
  if (safely()) {
    if (!isPlain(name.text)) return refuseName(name.text);
    return fromTarget(target::openSegment(packageOf(*header, false), name.text));
  }
  if (!makeParents(name.text)) return -4;
  uint64_t size = mrepl::sizeOf(*header);
  if (size == 0) return createEmpty(name.text);
  void *view;
  int opened = memMapWriteOpen(name.text, &view, kViewBytes, size);
  return opened == 0 ? 0 : opened == -1 ? -6 : -5;
}

int restoreDir(mfilehead *header) {
  Name name(*header);
  if (safely()) {
    if (!isPlain(name.text)) return refuseName(name.text);
    return fromTarget(target::makeDirectory(packageOf(*header, false), name.text));
  }
  int made = makeDirectory(name.text, *header);
  return made == 0 ? setOwnerAndMode(name.text, *header) : made;
}

int restoreBDev(mfilehead *header) {
  return restoreDevice(*header, S_IFBLK);
}

int restoreCDev(mfilehead *header) {
  return restoreDevice(*header, S_IFCHR);
}

int restoreSlink(mfilehead *header) {
  Name name(*header);
  if (header->size == 0) base::print(fplog, "ERROR:  The symlink size is 0\n");
  char text[MR_INLINE_MAX + 1] = "";
  size_t length = header->size < MR_INLINE_MAX ? header->size : MR_INLINE_MAX;
  memcpy(text, reinterpret_cast<char *>(header) + MR_INLINE_OFF, length);
  if (safely()) {
    if (!isPlain(name.text)) return refuseName(name.text);
    return fromTarget(target::makeLink(packageOf(*header, false), name.text, text)) == 0 ? 0 : -9;
  }
  if (!makeParents(name.text)) return -4;
  if (mrepl::debugging())
    base::print(fplog, "ERROR:  The symlink size is: %lu\n",
                static_cast<unsigned long>(header->size));
  if (symlink(text, name.text) != 0) return -9;
  return lchown(name.text, header->owner, header->group) == 0 ? 0 : -1;
}
