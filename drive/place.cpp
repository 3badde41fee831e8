// The small files of virtual drives, for the drives themselves and for the operator's command.
#include "drive/place.h"

#include <errno.h>
#include <fcntl.h>
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zul/host.h>

#include "drive/cartridge.h"

namespace drive {

bool isTapeName(const char *name) {
  static const char kAllowed[] =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._-";
  size_t length = strnlen(name, kNameRoom);
  return length > 0 && length < kNameRoom && name[0] != '.' && strspn(name, kAllowed) == length;
}

ssize_t readText(const char *path, char *text, size_t room) {
  text[0] = '\0';
  base::Fd in(open(path, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  if (!in) return -1;
  ssize_t got = read(in.get(), text, room - 1);
  text[got > 0 ? got : 0] = '\0';
  return got;
}

void syncFolder(const char *path) {
  char folder[base::kPathMax];
  base::copyText(folder, sizeof folder, path);
  if (char *slash = strrchr(folder, '/')) *slash = '\0';
  base::Fd fd(open(folder, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (fd) fsync(fd.get());
}

int writeText(const char *path, const char *text) {
  char temporary[base::kPathMax];
  if (snprintf(temporary, sizeof temporary, "%s.XXXXXX", path) >=
      static_cast<int>(sizeof temporary)) {
    errno = ENAMETOOLONG;
    return -1;
  }
  base::Fd out(mkostemp(temporary, O_CLOEXEC));
  if (!out) return -1;
  giveToOwner(out.get());
  size_t length = strlen(text);
  errno = EIO;  // for a write that is short and says nothing
  if (write(out.get(), text, length) != static_cast<ssize_t>(length) ||
      fchmod(out.get(), 0660) != 0 || fsync(out.get()) != 0 || rename(temporary, path) != 0) {
    int error = errno;
    unlink(temporary);
    errno = error;
    return -1;
  }
  syncFolder(path);
  return 0;
}

bool readLoaded(const char *drive, char (&name)[kNameRoom]) {
  char text[2 * kNameRoom];
  if (readText(DrivePath(drive, "cartridge"), text, sizeof text) <= 0) return false;
  text[strcspn(text, "\n")] = '\0';
  if (!isTapeName(text)) return false;
  base::copyText(name, sizeof name, text);
  return true;
}

// "key = value", one a line.
static bool findValue(const char *text, const char *key, char (&value)[32]) {
  size_t length = strlen(key);
  for (const char *line = text; *line; line += strcspn(line, "\n"), line += *line == '\n') {
    if (strncmp(line, key, length) != 0) continue;
    const char *rest = line + length + strspn(line + length, " \t");
    if (*rest != '=') continue;
    rest += 1 + strspn(rest + 1, " \t");
    size_t size = strcspn(rest, " \t\r\n");
    if (size >= sizeof value) return false;
    memcpy(value, rest, size);
    value[size] = '\0';
    return true;
  }
  return false;
}

Label readLabel(const char *cartridge) {
  char text[1024], value[32];
  Label label = {INT64_MAX, true};
  if (readText(ShelfPath(cartridge, ".info"), text, sizeof text) < 0) return label;
  if (findValue(text, "capacity", value)) {
    char *end;
    errno = 0;
    unsigned long long capacity = strtoull(value, &end, 10);
    // An unreadable capacity leaves the cartridge protected: a tape that was to end might not.
    if (errno != 0 || *end != '\0' || end == value || capacity > kCapacityMax) return label;
    if (capacity != 0) label.capacity = static_cast<int64_t>(capacity);
  }
  label.isProtected = !findValue(text, "protected", value) || strcmp(value, "no") != 0;
  return label;
}

int writeLabel(const char *cartridge, const Label &label) {
  char text[128];
  int64_t capacity = label.capacity == INT64_MAX ? 0 : label.capacity;
  snprintf(text, sizeof text, "capacity = %" PRId64 "\nprotected = %s\n", capacity,
           label.isProtected ? "yes" : "no");
  return writeText(ShelfPath(cartridge, ".info"), text);
}

base::Fd lockShelf() {
  base::HomePath path("var/vtape/%s/lock", kShelf);
  base::Fd fd(open(path, O_RDONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0660));
  if (!fd) return fd;
  giveToOwner(fd.get());
  while (flock(fd.get(), LOCK_EX) != 0)
    if (errno != EINTR) return {};
  return fd;
}

void giveToOwner(int fd) {
  struct stat home;
  if (geteuid() != 0 || stat(ZULhome, &home) != 0 || home.st_uid == 0) return;
  (void)!fchown(fd, home.st_uid, home.st_gid);
}

}  // namespace drive
