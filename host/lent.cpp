// The helpers ZULd lends the module: splitting a line, copying a file, removing a tape's catalog
// directory. They run in request processes, as root, on words that came from an operator.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zul/host.h>

#include "base/fd.h"

int insplit(char **fields, char *text, int separator, int count) {
  int found = 0;
  fields[found++] = text;
  while (found <= count) {
    char *cut = strchr(text, separator);
    if (!cut) break;
    *cut = '\0';
    text = cut + 1;
    fields[found++] = text;
  }
  return found;
}

static bool copyBytes(int from, int to) {
  char buffer[65536];
  for (;;) {
    ssize_t got = read(from, buffer, sizeof buffer);
    if (got == 0) return true;
    if (got < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    for (ssize_t done = 0; done < got;) {
      ssize_t put = write(to, buffer + done, static_cast<size_t>(got - done));
      if (put < 0 && errno == EINTR) continue;
      if (put <= 0) return false;
      done += put;
    }
  }
}

int filecopy(const char *source, const char *destination) {
  base::Fd from(open(source, O_RDONLY | O_CLOEXEC));
  struct stat status;
  if (!from || fstat(from.get(), &status) != 0 || !S_ISREG(status.st_mode)) return -1;
  // Copies hold what the stores hold: nobody else needs to read them.
  base::Fd to(open(destination, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, status.st_mode & 0600));
  if (!to || !copyBytes(from.get(), to.get())) return -2;
  // A full disk may show only here.
  return close(to.release()) == 0 ? 0 : -3;
}

int filecpy(const char *source, const char *destination, int) {
  return filecopy(source, destination);
}

// Removes name below the open directory; links are removed, never followed, and no component is
// looked up twice, so a tree that changes under us cannot lead outside itself.
static int removeTree(int parent, const char *name) {
  if (unlinkat(parent, name, 0) == 0 || errno == ENOENT) return 0;
  if (errno != EISDIR && errno != EPERM) return -1;
  int fd = openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  DIR *dir = fd >= 0 ? fdopendir(fd) : nullptr;
  if (!dir) {
    if (fd >= 0) close(fd);
    return -1;
  }
  int result = 0;
  while (dirent *entry = readdir(dir)) {
    if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) continue;
    if (removeTree(dirfd(dir), entry->d_name) != 0) result = -1;
  }
  closedir(dir);
  if (result == 0 && unlinkat(parent, name, AT_REMOVEDIR) != 0) result = -1;
  return result;
}

int deldir(char *args, int) {
  char *path = strchr(args, ' ');
  if (!path) return -1;
  path++;
  char allowed[sizeof ZULhome + 16];
  size_t length =
      static_cast<size_t>(snprintf(allowed, sizeof allowed, "%.255s/var/tape/", ZULhome));
  if (strncmp(path, allowed, length) != 0 || path[length] == '\0') return -1;
  if (strstr(path, "/../") || strstr(path, "/./") || strstr(path, "//")) return -1;
  const char *last = strrchr(path, '/') + 1;
  if (last[0] == '\0' || strcmp(last, ".") == 0 || strcmp(last, "..") == 0) return -1;
  return removeTree(AT_FDCWD, path);
}
