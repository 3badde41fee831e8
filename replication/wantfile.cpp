// Where a received file goes, and whether it is wanted at all.
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <zul/replication.h>

#include "base/site.h"
#include "replication/target.h"

namespace {

constexpr int kKeepBoth = 0;
constexpr int kIfDifferent = 2;
constexpr int kAlways = 4;
constexpr int kIfNewer = 8;
constexpr int kCopies = 256;

// A name that leads out of the destination root must not be followed by a process that runs as
// root.
bool climbs(const char *name) {
  for (const char *at = name; (at = strstr(at, "..")); at += 2) {
    bool begins = at == name || at[-1] == '/';
    bool ends = at[2] == '/' || at[2] == '\0';
    if (begins && ends) return true;
  }
  return false;
}

// The first "NAME.0", "NAME.1", ... that does not exist.
bool freeCopy(char *path, size_t room) {
  size_t length = strlen(path);
  for (int copy = 0; copy < kCopies; copy++) {
    if (snprintf(path + length, room - length, ".%i", copy) >= static_cast<int>(room - length))
      return false;
    struct stat there;
    if (!target::lookAt(path, &there)) return true;
  }
  return false;
}

bool replaces(const package &header, const struct stat &there, int conflict) {
  uint64_t mtime = static_cast<uint64_t>(there.st_mtime);
  if (conflict == kIfDifferent) return header.mtime != mtime;
  if (conflict == kIfNewer) return header.mtime > mtime;
  return conflict == kAlways;
}

}  // namespace

int target::choosePath(const package &header, const char *root, int conflict, char *path,
                       size_t room) {
  path[0] = '\0';
  if (base::sound(base::Area::receive) && climbs(header.filename))
    return refuse("a name that leads outside:", header.filename);
  char candidate[kPathRoom];
  int length = snprintf(candidate, sizeof candidate, "%.256s%.256s", root, header.filename);
  // A cut name is another file's name: better no file than that one.
  if (strlen(root) > 256 || static_cast<size_t>(length) >= room)
    return refuse("too long a path:", candidate);
  struct stat there;
  if (!lookAt(candidate, &there)) {
    memcpy(path, candidate, static_cast<size_t>(length) + 1);
    return 0;
  }
  if (conflict == kKeepBoth) {
    // A second copy of a directory would be empty and in the way: what goes into it goes into the
    // one that is there.
    if (base::sound(base::Area::receive) && S_ISDIR(there.st_mode) && header.type == 1) return -1;
    if (!freeCopy(candidate, sizeof candidate) || strlen(candidate) >= room)
      return refuse("no free name beside", header.filename);
  } else if (!replaces(header, there, conflict)) {
    return -1;
  }
  memcpy(path, candidate, strlen(candidate) + 1);
  return 0;
}

int wantFile(package *header, char *root, int conflict, char *path) {
  return target::choosePath(*header, root, conflict, path, 256) == 0 ? 0 : -1;
}
