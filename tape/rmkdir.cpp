// Makes a directory with its missing parents, for catalogs, drive folders and everything a restore
// or a replication puts on disk.
#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <zul/tape.h>

#include "base/site.h"
#include "base/text.h"

namespace {

constexpr size_t kShortPath = 256;

enum class Found { nothing, directory, other };

Found lookAt(const char *path) {
  struct stat status;
  if (stat(path, &status) != 0) return Found::nothing;
  return S_ISDIR(status.st_mode) ? Found::directory : Found::other;
}

// Another process may make the same directory meanwhile, and "a/b/" exists as soon as its parent
// "a/b" was made: what counts is that the directory is there.
bool makeOne(const char *path, mode_t mode) {
  return mkdir(path, mode) == 0 || (errno == EEXIST && lookAt(path) == Found::directory);
}

// Cuts path at its last '/' while the parent is made, and puts the '/' back.
bool makeAll(char *path, mode_t mode) {
  Found found = lookAt(path);
  if (found != Found::nothing) return found == Found::directory;
  if (makeOne(path, mode)) return true;
  char *slash = strrchr(path, '/');
  if (!slash) return false;
  *slash = '\0';
  bool parent = makeAll(path, mode);
  *slash = '/';
  return parent && makeOne(path, mode);
}

}  // namespace

int rmkdir(const char *path, mode_t mode) {
  Found found = lookAt(path);
  if (found != Found::nothing) return found == Found::directory ? 0 : -1;
  if (makeOne(path, mode)) return 0;
  // A path that was cut to the short bound names another parent, and a deep tree could not be
  // restored; under "sound" every path that the system itself takes is made.
  char parent[base::kPathMax];
  base::copyText(parent, base::sound(base::Area::restore) ? sizeof parent : kShortPath, path);
  char *slash = strrchr(parent, '/');
  if (!slash) return -1;
  *slash = '\0';
  return makeAll(parent, mode) && makeOne(path, mode) ? 0 : -1;
}
