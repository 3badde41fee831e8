// Headers of files and what stands behind them in the same segment. Runs in the packer.
#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zul/host.h>
#include <zul/mrepl.h>

#include "base/text.h"
#include "mrepl/run.h"
#include "mrepl/view.h"

namespace {

constexpr uint32_t kNobody = 65535;
constexpr uint32_t kNoGroup = 0xfffffffe;
constexpr char kEndName[] = "EnD_Of_TrAnSmIsSiOn";
// Targets that installed receivers take; a sound sender uses all the room there is.
constexpr size_t kLinkMax = 255;

uint8_t typeOf(mode_t mode) {
  if (S_ISREG(mode)) return mrepl::kFile;
  if (S_ISDIR(mode)) return mrepl::kDirectory;
  if (S_ISLNK(mode)) return mrepl::kLink;
  if (S_ISBLK(mode)) return mrepl::kBlockDevice;
  if (S_ISCHR(mode)) return mrepl::kCharDevice;
  return mrepl::kOther;
}

void describeUnknown(mfilehead *header) {
  header->type = mrepl::kOther;
  packul(&header->owner, kNobody);
  packul(&header->group, kNoGroup);
  packul(&header->mode, 0600);
}

// The target of a link, at most room bytes; its length, 0 when it cannot be read.
size_t readTarget(const char *path, char *target, size_t room) {
  ssize_t n = readlink(path, target, room);
  return n > 0 ? static_cast<size_t>(n) : 0;
}

void describe(const struct stat &status, mfilehead *header) {
  header->type = typeOf(status.st_mode);
  packul(&header->owner, status.st_uid);
  packul(&header->group, status.st_gid);
  packul(&header->mode, host2netmode(status.st_mode));
  packul(&header->mtime, static_cast<uint32_t>(status.st_mtime));
  packul(&header->atime, static_cast<uint32_t>(status.st_atime));
  if (header->type == mrepl::kBlockDevice || header->type == mrepl::kCharDevice)
    packul(&header->rdev, static_cast<uint32_t>(status.st_rdev));
}

// What the size field says of a file; false when a header cannot carry it.
bool sizeOf(const char *path, const struct stat &status, uint8_t type, uint64_t *size) {
  bool sound = mrepl::soundRun();
  *size = 0;
  if (type == mrepl::kFile) {
    *size = static_cast<uint64_t>(status.st_size);
    // Only a sound run has room for the high word: an installed receiver would take what lies
    // behind the first four gigabytes for headers.
    return *size <= UINT32_MAX || sound;
  }
  if (type == mrepl::kLink) {
    char target[MR_INLINE_MAX + 1];
    size_t length = readTarget(path, target, sound ? sizeof target : kLinkMax);
    if (length >= MR_INLINE_MAX) return false;
    *size = length > 0 ? length + 1 : 0;
  }
  return true;
}

// Whether the open file is the one that a header tells of, as far as that matters: the content of
// another one, which may be private, must not arrive with this one's owner and permissions.
bool isDescribed(const mfilehead &header) {
  struct stat status;
  return mrepl::viewStatus(&status) && S_ISREG(status.st_mode) &&
         unpackul(&header.owner) == status.st_uid && unpackul(&header.group) == status.st_gid &&
         unpackul(&header.mode) == host2netmode(status.st_mode);
}

}  // namespace

int storeFileHeader(const char *path, mseg *segment, int *type, uint64_t *size) {
  auto *header = reinterpret_cast<mfilehead *>(segment->payload);
  memset(header, 0, sizeof *header);
  *size = 0;
  if (strlen(path) > sizeof header->name) return -1;
  packul(&header->magic, MR_HEAD_MAGIC);
  base::copyField(header->name, sizeof header->name, path);
  struct stat status;
  if (lstat(path, &status) != 0) {
    describeUnknown(header);
  } else {
    describe(status, header);
    if (!sizeOf(path, status, header->type, size)) return -1;
    packul(&header->size, static_cast<uint32_t>(*size));
    packul(&header->reserved4, static_cast<uint32_t>(*size >> 32));
  }
  *type = header->type;
  return 0;
}

int storeNewFileData(const char *path, mseg *segment, int type, uint64_t *stored, uint64_t size) {
  char *room = segment->payload + MR_INLINE_OFF;
  memset(room, 0, MR_INLINE_MAX);
  *stored = 0;
  if (type == mrepl::kLink) {
    if (size > 0) readTarget(path, room, static_cast<size_t>(size) - 1);
    return 0;
  }
  if (type != mrepl::kFile || size == 0) return 0;
  void *view;
  if (memMapOpen(path, &view, 4096) != 0) return -1;
  if (mrepl::soundRun() && !isDescribed(*reinterpret_cast<mfilehead *>(segment->payload))) {
    memMapClose();
    errno = ESTALE;
    return -1;
  }
  // The content follows in segments of its own.
  if (size > MR_INLINE_MAX) return 0;
  if (mrepl::soundRun() && mrepl::viewHolds() < size) {
    memMapClose();
    errno = ENODATA;
    return -1;
  }
  memcpy(room, view, static_cast<size_t>(size));
  *stored = size;
  return memMapClose();
}

int makeEOTPkt(char *buffer) {
  mfilehead header{};
  packul(&header.magic, MR_HEAD_MAGIC);
  base::copyField(header.name, sizeof header.name, kEndName);
  header.type = mrepl::kEnd;
  packul(&header.owner, kNobody);
  packul(&header.group, kNoGroup);
  memcpy(buffer, &header, sizeof header);
  return 0;
}
