// Headers made from the file system, and a directory as the operator sees it.
//
// getFileData runs twice for every file of a backup, inside the gatherer's dialogue: its frames
// hold plain data only. Its messages go through stdio, so a dialogue that an alarm may leave holds
// the alarm while it calls.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>
#include <zul/host.h>
#include <zul/tape.h>

#include "base/log.h"
#include "base/site.h"
#include "base/text.h"

namespace {

constexpr size_t kNameMax = sizeof(package::filename) - 1;
constexpr ssize_t kShortTarget = 255;  // the longest link target that counts in a classic header
constexpr size_t kTargetRoom = 8191;   // what the gatherer reads of a target when it sends the link

void setDefaults(package *header, const char *path) {
  memset(header, 0, sizeof *header);
  header->magic = PACK_MAGIC;
  header->type = 5;
  header->usrid = 65535;
  header->grpid = 0xfffffffeU;
  header->mode = 0600;
  header->unused1 = PACK_FILLER;
  header->unused2 = PACK_FILLER;
  base::copyField(header->filename, kNameMax, path);
}

void describeLink(const char *path, package *header) {
  char target[kTargetRoom];
  ssize_t length = readlink(path, target, sizeof target);
  if (length < 0) {
    header->type = 5;
    header->size = 0;
    return;
  }
  // The gatherer sends the whole target. A header that announces less puts everything behind this
  // link out of step on the peer's side, so under "sound" the whole target counts.
  if (length > kShortTarget && !base::sound(base::Area::stream)) {
    base::print(backuplog, "NOTICE:  Target of link %s is longer than %i characters.\n", path,
                static_cast<int>(kShortTarget));
    length = kShortTarget;
  }
  header->type = 2;
  header->size = static_cast<uint64_t>(length) + 1;
}

void describe(const char *path, const struct stat &status, package *header) {
  header->usrid = status.st_uid;
  header->grpid = status.st_gid;
  header->mode = status.st_mode;
  header->mtime = static_cast<uint64_t>(status.st_mtime);
  header->atime = static_cast<uint64_t>(status.st_atime);
  header->size = static_cast<uint64_t>(status.st_size);
  switch (status.st_mode & S_IFMT) {
    case S_IFREG:
      header->type = 0;
      break;
    case S_IFDIR:
      header->type = 1;
      header->size = 0;
      break;
    case S_IFLNK:
      describeLink(path, header);
      break;
    case S_IFCHR:
    case S_IFBLK:
      header->type = S_ISCHR(status.st_mode) ? 3 : 4;
      header->unused1 = static_cast<int32_t>(status.st_rdev);
      break;
    default:
      header->size = 0;
  }
}

// Adds at most room characters of text, and never more than the name holds: a name that is still
// there from an earlier pair would else run over into the owner.
void appendName(char *name, const char *text, size_t room) {
  size_t length = strnlen(name, kNameMax);
  if (room > kNameMax - length) room = kNameMax - length;
  memcpy(name + length, text, strnlen(text, room));
}

// Every matching pair starts again from the path itself, so that the last one decides.
void transformName(const char *path, package *header, char **transforms) {
  base::print(backuplog, "Transform enabled!\n");
  for (char **pair = transforms; pair[0] && pair[1]; pair += 2) {
    const char *prefix = pair[0];
    const char *replacement = pair[1];
    size_t prefixLength = strlen(prefix);
    if (strncmp(path, prefix, prefixLength) != 0) continue;
    base::print(backuplog, "Transforming >%s< to >%s<\n", path, replacement);
    // An empty replacement leaves the name and adds the tail to it once more ("/a/x/x"), which
    // installed jobs rely on; under "sound" it takes the prefix away, which is what it says.
    if (replacement[0] != '\0' || base::sound(base::Area::stream))
      base::copyField(header->filename, kNameMax, replacement);
    appendName(header->filename, path + prefixLength, kNameMax - strnlen(replacement, kNameMax));
  }
}

}  // namespace

int getFileData(char *path, package *header, char **transforms) {
  setDefaults(header, path);
  struct stat status;
  if (lstat(path, &status) != 0) {
    int cause = errno;
    base::print(stderr, "NOTICE:  Can't stat file: %s.  errno = %i.  Ignoring\n", path, cause);
    base::print(backuplog, "NOTICE:  Can't stat file: %s.  errno = %i.   Ignoring\n", path, cause);
    return 0;
  }
  describe(path, status, header);
  struct utsname node;
  if (uname(&node) != 0) return -1;
  base::copyField(header->fromhost, sizeof header->fromhost - 1, node.nodename);
  if (transforms && transforms[0]) transformName(path, header, transforms);
  return 0;
}

void prntFileData(package *header) {
  constexpr int kName = sizeof header->filename;
  constexpr int kHost = sizeof header->fromhost;
  base::print(stdout, "Filename = %.*s\n", kName, header->filename);
  base::print(stdout, "Fromhost = %.*s\n", kHost, header->fromhost);
  base::print(stdout, "Magic = %x\n", header->magic);
  base::print(stdout, "User ID = %i\n", static_cast<int>(header->usrid));
  base::print(stdout, "Group ID = %i\n", static_cast<int>(header->grpid));
  base::print(stdout, "Mode = %i\n", static_cast<int>(header->mode));
  base::print(stdout, "Size = %li\n", static_cast<long>(header->size));
  base::print(stdout, "Mtime = %li\n", static_cast<long>(header->mtime));
  base::print(stdout, "Atime = %li\n", static_cast<long>(header->atime));
  base::print(stdout, "Type # = %i\n", header->type);
  base::print(stdout, "Version = %i\n", header->version);
  base::print(stdout, "Sqeez= %i\n", header->squez);
  base::print(stdout, "Unused = %x\n", static_cast<unsigned>(header->unused1));
}

static void printEntry(int dir, const char *path, const char *name) {
  struct stat status;
  if (fstatat(dir, name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
    base::print(stderr, "%s/%s  ERROR:  8303  Unreadable\n", path, name);
    return;
  }
  // "." is there to show that the directory was read at all; it has no slash.
  bool slash = S_ISDIR(status.st_mode) && strcmp(name, ".") != 0;
  base::print(stderr, slash ? "%s/\n" : "%s\n", name);
}

int getdir(char *path) {
  struct stat status;
  if (lstat(path, &status) != 0) {
    base::print(stderr, "ERROR:  8300  Cannot stat file: >%s<, errno = %i\n", path, errno);
    return -1;
  }
  if (!S_ISDIR(status.st_mode)) {
    // The backslash and the n are part of the text that consoles look for; the line is not ended.
    base::print(stderr, "ERROR:  8301  Path is not a directory:  >%s<, errno = %i\\n", path, errno);
    return -1;
  }
  DIR *dir = opendir(path);
  if (!dir) {
    base::print(stderr, "ERROR:  8302  Cannot read directory: %s\n", path);
    return -1;
  }
  while (dirent *entry = readdir(dir))
    if (strcmp(entry->d_name, "..") != 0) printEntry(dirfd(dir), path, entry->d_name);
  if (closedir(dir) != 0) base::print(stderr, "NOTICE: Close readdir error.\n");
  return 0;
}
