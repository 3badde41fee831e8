// Tapes and drives as the operator sees them: labelling and deleting a tape, finding a drive,
// listing drives, tapes and labels.
//
// A tape is a directory "drive.N/tape.M" below var/tape with a copy of its label, its catalog and
// its volume lists; the label on the medium leads back to it.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>
#include <zul/host.h>
#include <zul/tape.h>

#include <bitset>

#include "base/fd.h"
#include "base/log.h"
#include "base/pause.h"
#include "base/site.h"
#include "base/store.h"
#include "base/text.h"
#include "tape/catalog.h"
#include "tape/storerules.h"
#include "tape/tapeio.h"

namespace {

// The fields of the add request.
enum AddField { kDrive, kField2, kField3, kField4, kLabel, kAddFields };

constexpr int kHostRoom = sizeof(tapehead::host);

// Fills a label but for the tape's number. False when this host has no name that fits.
bool fillLabel(tapehead &label, char *const *field, const char *device) {
  label = {};
  label.magic = TAPEHEAD_MAGIC;
  label.created = time(nullptr);
  base::copyField(label.name, sizeof label.name, field[kLabel]);
  base::copyField(label.device, sizeof label.device, device);
  label.drive = base::decimal(field[kDrive]);
  label.field2 = base::decimal(field[kField2]);
  label.field3 = base::decimal(field[kField3]);
  if (gethostname(label.host, kHostRoom) == 0) {
    label.host[kHostRoom - 1] = '\0';
    return true;
  }
  base::printBoth("ERROR:  8013  Cannot get hostname\n");
  return false;
}

// Takes a free number of the label's drive by making its directory. Two requests at the same time
// find the same number; the one that comes second looks again.
bool takeNumber(tapehead &label) {
  for (;;) {
    label.tape = getNextTapeID(label.drive);
    if (label.tape < 0) {
      base::printBoth("ERROR:  8014  Cannot get a free tape Id number\n");
      return false;
    }
    base::HomePath tapedir("var/tape/drive.%i/tape.%i", label.drive, label.tape);
    if (mkdir(tapedir, 0700) == 0) return true;
    struct stat status;
    bool taken = errno == EEXIST && stat(tapedir, &status) == 0 && S_ISDIR(status.st_mode);
    if (!taken) {
      base::printBoth("ERROR:  8015  Cannot make tape catalog directory: %s\n", tapedir.c_str());
      return false;
    }
  }
}

bool makeCatalog(const tapehead &label) {
  base::HomePath path("var/tape/drive.%i/tape.%i/header", label.drive, label.tape);
  base::Store header(path, base::Store::kBytes);
  if (!header.beginRewrite()) {
    base::printBoth("ERROR:  8016  Cannot make tape catalog header: %s\n", path.c_str());
    return false;
  }
  if (!header.put(&label, sizeof label) || !header.commit()) {
    base::printBoth("ERROR:  8017  Cannot write tape catalog header: %s\n", path.c_str());
    return false;
  }
  base::HomePath catalogPath("var/tape/drive.%i/tape.%i/catalog", label.drive, label.tape);
  base::Store catalog(catalogPath, base::Store::kBytes);
  if (catalog.beginRewrite() && catalog.commit()) return true;
  base::printBoth("ERROR:  8017  Cannot make tape catalog header: %s\n", catalogPath.c_str());
  return false;
}

// Writes the label as the first block and lets the close end its tape file.
bool writeLabel(const char *device, const tapehead &label) {
  tape::OpenDrive drive(drive::openDrive(device, O_WRONLY));
  if (!drive) {
    base::printBoth("ERROR:  8019  Cannot open device: %s\n", device);
    return false;
  }
  ssize_t put = drive::writeBlock(drive.get(), &label, sizeof label);
  // Without the mark that the close writes, the first volume would not begin where it is looked
  // for.
  if (put == static_cast<ssize_t>(sizeof label) && drive.close()) return true;
  base::printBoth("ERROR:  8020  Failed to write tape header.  errno=%i\n", errno);
  return false;
}

bool labelMedium(char *device, const tapehead &label) {
  // A job that positions the tape meanwhile would get the label into its volumes.
  drive::Reservation reservation;
  if (base::sound(base::Area::backup)) tape::reserveDrive(&reservation, device);
  if (mtRewind(device) != 0) {
    base::print(fplog, "ERROR:  8018  Failed to rewind tape: %s\n", device);
    return false;
  }
  base::pauseFor(base::Pause::LabelSettle);
  if (!writeLabel(device, label)) return false;
  base::pauseFor(base::Pause::LabelSettle);
  if (mtRewind(device) == 0) return true;
  base::print(fplog, "ERROR:  8094  Failed to rewind tape: %s\n", device);
  return false;
}

}  // namespace

int addTape(char *args) {
  char *field[kAddFields + 1];
  int count = insplit(field, args, ':', kAddFields);
  if (count != kAddFields) {
    base::print(stderr, "ERROR:  8012  Insufficient arguements (%i)\n", count);
    return -1;
  }
  // A slip of the hand reads as drive 0, and labels whatever tape is in that.
  if (stores::keyRefused(field[kDrive])) return -1;
  base::print(stderr, "Drive num = %s\n", field[kDrive]);
  char device[256];
  if (getTapePath(base::decimal(field[kDrive]), device) != 0) return -1;
  base::print(stderr, "Drive path = %s\n", device);
  tapehead label;
  if (!fillLabel(label, field, device)) return -1;
  // The catalog comes first: a medium with a label that leads nowhere could be written over.
  if (!takeNumber(label) || !makeCatalog(label)) return -1;
  if (!tape::isDevice(device)) {
    base::print(stderr, "Regular file backup to %s\n", device);
    return 0;
  }
  base::print(stderr, "Device file backup to %s\n", device);
  return labelMedium(device, label) ? 0 : -1;
}

int delTape(char *args) {
  char *word[3];
  if (wssplit(word, args, 3) < 2) {
    base::printBoth("ERROR:  8021  Insufficient arguments\n");
    return -1;
  }
  if (stores::keyRefused(word[0]) || stores::keyRefused(word[1])) return -1;
  // The helper gets one text, so the path can be as long as any other.
  char request[base::kPathMax + 8];
  base::HomePath tapedir("var/tape/drive.%s/tape.%s", word[0], word[1]);
  snprintf(request, sizeof request, "-rf %s", tapedir.c_str());
  bool named = base::isPathWord(word[0]) && base::isPathWord(word[1]);
  if (named && deldir(request, 1) == 0) return 0;
  base::printBoth("ERROR:  8022  Cannot delete tape\n");
  return -1;
}

void tape::printLabel(const tapehead &label) {
  base::print(stderr, "TapeName=%.*s\n", static_cast<int>(sizeof label.name), label.name);
  char text[26];
  time_t created = label.created;
  // A date of a damaged label may lie beyond the calendar.
  base::print(stderr, "TapeDate=%s", ctime_r(&created, text) ? text : "unknown\n");
  base::print(stderr, "TapeDrive=%.*s\n", static_cast<int>(sizeof label.device), label.device);
  base::print(stderr, "TapeHost=%.*s\n", kHostRoom, label.host);
  base::print(stderr, "TapeDrive#=%i\n", label.drive);
  base::print(stderr, "TapeNum#=%i\n", label.tape);
  base::print(stderr, "TapeVer#=%i\n", label.version);
}

int prtTapeHead(char *drive) {
  tapehead label = tape::noLabel();
  if (getTapeHead(drive, &label) != 0) return -1;
  tape::printLabel(label);
  return 0;
}

int getTapePath(int drive, char *path) {
  base::File table(fopen(base::HomePath("etc/tapedevs"), "re"));
  if (!table) {
    base::print(fplog, "ERROR:  8023  Cannot read tapedevs\n");
    base::print(stderr, "ERROR:  8023  No Tape drives defined\n");
    return -1;
  }
  char line[512];
  while (fgets(line, sizeof line, table.get())) {
    if (line[0] < '0' || line[0] > '9') continue;
    char *field[5];
    int count = insplit(field, line, ':', 4);
    if (count < 4) {
      base::print(fplog, "ERROR:  8024  Data Error\n");
      base::print(stderr, "ERROR:  8024  Data Error, splits = %i\n", count);
      continue;
    }
    if (base::decimal(field[0]) != drive) continue;
    base::copyText(path, 256, field[2]);
    return 0;
  }
  base::printBoth("ERROR:  8025  Cannot find tape path\n");
  return -1;
}

namespace {

// The messages of one request that walks a drive's directory: the number of the first of its four.
struct Walk {
  const char *path;
  int code;
};

// Opens a drive's directory; null after a message.
DIR *openDriveDir(const Walk &walk) {
  struct stat status;
  if (lstat(walk.path, &status) != 0) {
    base::print(stderr, "ERROR:  %i  Cannot stat file: >%s<, errno = %i\n", walk.code, walk.path,
                errno);
    return nullptr;
  }
  if (!S_ISDIR(status.st_mode)) {
    // The backslash and the n are part of the text that consoles look for; the line is not ended.
    base::print(stderr, "ERROR:  %i  Path is not a directory:  >%s<, errno = %i\\n", walk.code + 1,
                walk.path, errno);
    return nullptr;
  }
  DIR *dir = opendir(walk.path);
  if (!dir)
    base::print(stderr, "ERROR:  %i  Cannot read directory: %s\n", walk.code + 2, walk.path);
  return dir;
}

// The name of the next tape's directory, in the order in which they lie there; null at the end.
const char *nextTapeDir(DIR *dir, const Walk &walk) {
  while (dirent *entry = readdir(dir)) {
    const char *name = entry->d_name;
    if (strcmp(name, ".") == 0 || strcmp(name, "..") == 0) continue;
    struct stat status;
    if (fstatat(dirfd(dir), name, &status, 0) != 0) {
      base::print(stdout, "%s/%s  ERROR:  %i  Unreadable\n", walk.path, name, walk.code + 3);
      continue;
    }
    if (S_ISDIR(status.st_mode) && strncmp(name, "tape.", 5) == 0) return name;
  }
  return nullptr;
}

// Tape numbers are 16-bit in this system; a longer one is cut as it always was.
constexpr int kLowest = INT16_MIN;
constexpr int kEnd = 32000;  // no number at or above it is given out
using Numbers = std::bitset<65536>;

// The first free number above one that is taken. Numbers below the smallest are never given out
// again: the tape that had one may still be on a shelf.
int firstFree(const Numbers &taken) {
  if (taken.none()) return 0;
  size_t at = 0;
  while (!taken[at]) at++;
  // A run of numbers that reaches the top has no free one above it.
  while (at < taken.size() && taken[at]) at++;
  int number = static_cast<int>(at) + kLowest;
  // Above the end a number can be free only below a larger one that is taken.
  bool gap = false;
  for (size_t above = at; above < taken.size() && !gap; above++) gap = taken[above];
  return number < kEnd || gap ? number : -1;
}

}  // namespace

int getNextTapeID(int drive) {
  base::HomePath path("var/tape/drive.%i", drive);
  const Walk walk = {path, 8026};
  DIR *dir = openDriveDir(walk);
  if (!dir) return -1;
  Numbers taken;
  while (const char *name = nextTapeDir(dir, walk)) {
    int number = static_cast<int16_t>(base::decimal(name + 5));
    taken.set(static_cast<size_t>(number - kLowest));
  }
  if (closedir(dir) != 0) return -1;
  return firstFree(taken);
}

int getTapeDrives(void) {
  base::HomePath path("etc/tapedevs");
  base::print(fplog, "Getting tape drive list: %s\n", path.c_str());
  base::File table(fopen(path, "re"));
  if (!table) {
    base::print(fplog, "WARNING:  No tape devices available\n");
    base::print(stderr, "ERROR:  8030  No Tape drives defined\n");
    return -1;
  }
  char piece[4096];
  for (size_t got; (got = fread(piece, 1, sizeof piece, table.get())) > 0;)
    fwrite(piece, 1, got, stderr);
  return 0;
}

int getTapes(char *drive) {
  base::HomePath path("var/tape/drive.%s", drive);
  const Walk walk = {path, 8031};
  if (!base::isPathWord(drive)) {
    base::print(stderr, "ERROR:  8031  Cannot stat file: >%s<, errno = %i\n", walk.path, ENOENT);
    return -1;
  }
  DIR *dir = openDriveDir(walk);
  if (!dir) return -1;
  while (const char *name = nextTapeDir(dir, walk)) {
    base::HomePath tapedir("var/tape/drive.%s/%s", drive, name);
    getTapeInfo(tapedir.data());
  }
  closedir(dir);
  return 0;
}

int getTapeInfo(char *tapedir) {
  const char *dot = strrchr(tapedir, '.');
  if (!dot) return -1;
  char name[sizeof(tapehead::name)];
  if (getTapeName(tapedir, name) != 0) {
    base::print(stdout, "Cannot read tape header: %s\n", tapedir);
    return -1;
  }
  // Loaded only to prove that it can be read: a tape that is listed can be used.
  tape::Catalog catalog;
  if (catalog.load(tapedir) < 0) {
    base::print(stdout, "Cannot read tape catalogs: %s\n", tapedir);
    return -2;
  }
  base::print(stderr, "%i:%.*s\n", base::decimal(dot + 1), static_cast<int>(sizeof name), name);
  return 0;
}

int getTapeName(char *tapedir, char *name) {
  char path[base::kPathMax + 8];
  snprintf(path, sizeof path, "%s/header", tapedir);
  base::File header(fopen(path, "re"));
  tapehead label;
  if (!header || fread(&label, sizeof label, 1, header.get()) != 1) return -1;
  memcpy(name, label.name, sizeof label.name);
  return 0;
}
