// Where virtual drives and cartridges keep their files, and the small texts among them. Everything
// lies below ZULhome/var/vtape; docs/formats/vtape.md has the layout.
#pragma once
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include "base/fd.h"
#include "base/text.h"

namespace drive {

constexpr size_t kNameRoom = 64;
// The folder of the cartridges; no drive can have that name.
constexpr char kShelf[] = "shelf";

struct DrivePath : base::HomePath {
  DrivePath(const char *drive, const char *file) : HomePath("var/vtape/%s/%s", drive, file) {}
};
struct ShelfPath : base::HomePath {
  ShelfPath(const char *cartridge, const char *ending)
      : HomePath("var/vtape/%s/%s%s", kShelf, cartridge, ending) {}
};

// Reads a small text and terminates it: its length, cut to room - 1, or -1 with errno.
ssize_t readText(const char *path, char *text, size_t room);
// Replaces a small text as a whole, on disk before it appears; 0, or -1 with errno.
int writeText(const char *path, const char *text);
// Makes what was renamed or created in the folder of path durable.
void syncFolder(const char *path);

// The cartridge in the drive: true, its name in name.
bool readLoaded(const char *drive, char (&name)[kNameRoom]);

// What the shelf knows about a cartridge beside its image.
struct Label {
  int64_t capacity;  // INT64_MAX without limit
  bool isProtected;
};
// An image without such a file was put there by hand: read only until somebody says otherwise.
Label readLabel(const char *cartridge);
int writeLabel(const char *cartridge, const Label &label);

// Changes of the shelf and of what is loaded where, and looks at all the drives, are made one at a
// time: waits for its turn. No owner when the shelf cannot be locked.
base::Fd lockShelf();

// A drive made by root is used by the daemon's own user: what root creates is given to the owner
// of ZULhome.
void giveToOwner(int fd);

}  // namespace drive
