// A tape's catalog: one record for every volume, kept in the tape's directory, and the listings
// made from it.
//
// A backup job appends a record before it writes the volume; the position of the next volume is
// counted from the records, so a catalog that cannot be read whole stops every job on its tape.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <zul/host.h>
#include <zul/tape.h>

#include "base/fd.h"
#include "base/lines.h"
#include "base/log.h"
#include "base/site.h"
#include "base/store.h"
#include "base/text.h"
#include "tape/catalog.h"
#include "tape/storerules.h"

namespace {

constexpr size_t kSpareText = 4096;
// No catalog that was ever written is as long; a file that says so is damaged, not worth the
// memory.
constexpr size_t kTextLimit = size_t{64} << 20;

// The texts of loaded catalogs, newest block first. A block is used again by the next load that
// fits into it; one that is too small is kept, because an earlier load's records point into it.
struct TextBlock {
  TextBlock *older;
  size_t room;
  char text[];
};
TextBlock *texts = nullptr;

void releaseTexts() {
  while (texts) {
    TextBlock *older = texts->older;
    free(texts);
    texts = older;
  }
}

// A buffer for the texts of a catalog of that many bytes; null when there is no memory.
TextBlock *holdTexts(size_t catalogSize) {
  size_t room = (catalogSize < kTextLimit ? catalogSize : kTextLimit) + kSpareText;
  if (texts && texts->room >= room) return texts;
  TextBlock *block = static_cast<TextBlock *>(malloc(sizeof(TextBlock) + room));
  if (!block) return nullptr;
  block->older = texts;
  block->room = room;
  return texts = block;
}

// Reads the texts of one record to text + used. They end with the last text's NUL, and used is left
// on it: the next record's first text takes its place, so the last text of a record is the first of
// the one behind it. False when the buffer is too small, which means that the file is not the one
// that was looked at.
bool loadStrings(FILE *in, catlgstru *record, TextBlock *block, size_t &used) {
  int found = 0;
  record->strings[0] = block->text + used;
  while (found < CATLG_STRINGS) {
    if (used + 1 >= block->room) return false;
    int c = getc_unlocked(in);
    if (c == EOF) break;
    block->text[used] = static_cast<char>(c);
    if (c != '\0') {
      used++;
    } else if (++found < CATLG_STRINGS) {
      record->strings[found] = block->text + ++used;
    }
  }
  // A record that ends early has empty texts for the missing ones.
  block->text[used] = '\0';
  while (++found < CATLG_STRINGS) record->strings[found] = block->text + used;
  return true;
}

// Loads what the file holds: the number of records, or -5.
int loadRecords(FILE *in, catlgstru *records, TextBlock *block) {
  size_t used = 0;
  int count = 0;
  // Every caller has room for the limit and no more.
  while (count < tape::kVolumeLimit) {
    catlgstru *record = records + count;
    if (fread(record, 1, CATLG_FIXED, in) != CATLG_FIXED) break;
    if (record->magic != CATLG_MAGIC || !loadStrings(in, record, block, used)) return -5;
    count++;
  }
  return count;
}

}  // namespace

int getTapeCatlg(char *tapedir, catlgstru *records) {
  if (!tapedir) {
    releaseTexts();
    return 0;
  }
  char path[base::kPathMax + 16];
  snprintf(path, sizeof path, "%s/catalog", tapedir);
  struct stat status;
  if (lstat(path, &status) != 0) return 0;
  if (S_ISDIR(status.st_mode)) return -5;
  // What the file holds counts, and not a link that leads to it. A pipe by that name must not hold
  // us up.
  base::Fd fd(open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (fd && fstat(fd.get(), &status) != 0) fd.reset();
  TextBlock *block = holdTexts(fd ? static_cast<size_t>(status.st_size) : 0);
  if (!block) {
    base::print(stderr, "ERROR:  8079  Cannot allocate a buffer big enough!\n");
    return -2;
  }
  base::File in(fd ? fdopen(fd.get(), "r") : nullptr);
  if (!in) {
    releaseTexts();
    return -3;
  }
  fd.release();
  int count = loadRecords(in.get(), records, block);
  if (count < 0) releaseTexts();
  return count;
}

tape::Catalog::~Catalog() {
  getTapeCatlg(nullptr, nullptr);
}

int tape::Catalog::load(const char *tapedir) {
  records_.reset(static_cast<catlgstru *>(calloc(kVolumeLimit, sizeof(catlgstru))));
  if (!records_) {
    base::print(stderr, "ERROR:  8079  Cannot allocate a buffer big enough!\n");
    return -2;
  }
  return getTapeCatlg(const_cast<char *>(tapedir), records_.get());
}

int fillCatlgstru(int job, catlgstru *record, int level) {
  memset(record, 0, sizeof *record);
  struct stat status;
  if (lstat(base::HomePath("var/tape/jobids/%i", job), &status) != 0) return 1;
  if (S_ISDIR(status.st_mode)) return 0;
  jobrec rec;
  if (readJobid(job, &rec) != 0) return -1;
  record->magic = CATLG_MAGIC;
  record->created = time(nullptr);
  record->retention = rec.retention;
  record->jobnum = rec.job;
  record->group = rec.group;
  base::copyField(record->label, sizeof record->label, rec.name);
  record->level = level;
  memset(record->minus1, 0xff, sizeof record->minus1);
  if (getGroupHosts(rec.group, record->hosts) < 0) return -1;
  return readBackupList(job, record->strings) < 0 ? -1 : 0;
}

void prntCatlgstru(catlgstru *record) {
  base::print(stderr, "Magic = %x\n", record->magic);
  base::print(stderr, "Created = %li\n", static_cast<long>(record->created));
  base::print(stderr, "Retention = %li\n", static_cast<long>(record->retention));
  base::print(stderr, "Newer than = %li\n", static_cast<long>(record->newer));
  base::print(stderr, "Hosts = %.*s\n", static_cast<int>(sizeof record->hosts), record->hosts);
  base::print(stderr, "Job number = %i\n", record->jobnum);
  base::print(stderr, "Group number = %i\n", record->group);
  base::print(stderr, "Vol Label = %.*s\n", static_cast<int>(sizeof record->label), record->label);
  base::print(stderr, "Version = %i\n", record->version);
  base::print(stderr, "Level = %i\n", record->level);
  base::print(stderr, "Unused1 = %i\n", record->unused1);
  base::print(stderr, "Unused2 = %i\n", record->unused2);
  for (const char *text : record->strings) {
    if (!text || text[0] == '\0') break;
    base::print(stderr, "%s\n", text);
  }
}

// Writes the record's texts, each with its NUL; a record that was never filled has none.
static bool putStrings(base::Store &store, const catlgstru *record) {
  for (const char *text : record->strings) {
    if (text && !store.put(text, strlen(text))) {
      base::printBoth("ERROR:  8083  Failed to update tape catalog: %s\n", store.path());
      return false;
    }
    if (!store.put("", 1)) {
      base::printBoth("ERROR:  8084  Failed to update tape catalog: %s\n", store.path());
      return false;
    }
  }
  return true;
}

int storCatalg(int drive, int tape, catlgstru *record) {
  base::HomePath path("var/tape/drive.%i/tape.%i/catalog", drive, tape);
  base::Store store(path, base::Store::kBytes);
  if (!store.beginAppend()) {
    base::printBoth("ERROR:  8081  Cannot make update tape catalog: %s\n", path.c_str());
    return -1;
  }
  if (!store.put(record, CATLG_FIXED)) {
    base::print(fplog, "ERROR:  8082  Cannot make tape catalog header: %s\n", path.c_str());
    base::print(stderr, "ERROR:  8082  Cannot write tape catalog header: %s\n", path.c_str());
    return -1;
  }
  if (!putStrings(store, record)) return -1;
  if (store.commit()) return 0;
  // A full disk may show only here.
  base::printBoth("ERROR:  8084  Failed to update tape catalog: %s\n", path.c_str());
  return -1;
}

// True when a volume made at `created` is past its retention. A sum beyond all time is not past.
static bool hasExpired(const catlgstru &volume, time_t now) {
  int64_t end;
  return !__builtin_add_overflow(volume.created, volume.retention, &end) && end < now;
}

int getTapeVols(char *args) {
  char *word[3];
  if (wssplit(word, args, 3) != 2) {
    base::print(stderr, "ERROR:  8085 Insufficient arguments.\n");
    return 1;
  }
  base::HomePath tapedir("var/tape/drive.%s/tape.%s", word[0], word[1]);
  tape::Catalog catalog;
  int count = -3;
  if (base::isPathWord(word[0]) && base::isPathWord(word[1])) count = catalog.load(tapedir);
  if (count < 0) {
    base::print(stdout, "Cannot read tape catalogs: %s\n", tapedir.c_str());
    return -2;
  }
  time_t now = time(nullptr);
  for (int at = 0; at < count; at++) {
    const catlgstru &volume = catalog[at];
    time_t created = volume.created;
    struct tm local {};
    // Years are counted from 1900 and printed as they are: consoles add the 1900.
    if (!localtime_r(&created, &local)) local = {};
    base::print(stderr, "%i:%i/%i/%i:%i:%.*s\n", at, local.tm_mday, local.tm_mon + 1, local.tm_year,
                hasExpired(volume, now) ? 1 : 0, static_cast<int>(sizeof volume.label),
                volume.label);
  }
  return 0;
}

namespace {

constexpr size_t kLineBuffer = 286;
constexpr size_t kLongLine = 4095;
constexpr int kLineFields = 4;

// What getVolCat was asked for, and the subdirectory it has printed last.
struct Listing {
  const char *host;
  const char *directory;
  size_t directoryLength;
  char last[256];
};

// True when the name lies in the directory, with rest behind the separator.
bool isBelow(const Listing &listing, char *name, char *&rest) {
  if (strncmp(name, listing.directory, listing.directoryLength) != 0) return false;
  rest = name + listing.directoryLength;
  // "/home" itself, entered without its '/'.
  if (rest[0] == '\0') return true;
  // "/homework" is no part of "/home", though classic shows its "ork" there.
  if (rest[0] != '/' && base::sound(base::Area::restore)) return false;
  rest++;
  return true;
}

void printEntry(Listing &listing, const char *number, char *rest) {
  char *slash = strchr(rest, '/');
  if (slash) {
    slash[1] = '\0';
    // One line for a subdirectory, not one for each name below it.
    if (strncmp(rest, listing.last, sizeof listing.last) == 0) return;
    base::copyField(listing.last, sizeof listing.last, rest);
  }
  base::print(stderr, "%s:%s\n", number, rest[0] == '\0' ? "." : rest);
}

void listLine(Listing &listing, const char *path, char *line) {
  stripCtrl(line);
  char *field[kLineFields];
  int count = insplit(field, line, ':', kLineFields - 1);
  if (count != kLineFields) {
    base::print(stderr, "ERROR:  8088  Line malformed in %s.  Got %i vals, lastarg = %s\n", path,
                count, field[count - 1]);
    return;
  }
  char *rest;
  // Continuations of a large file repeat its name with a sequence above 0.
  if (field[2][0] == '0' && strcmp(field[1], listing.host) == 0 && isBelow(listing, field[3], rest))
    printEntry(listing, field[0], rest);
}

}  // namespace

int getVolCat(char *args) {
  char *word[5];
  if (wssplit(word, args, 5) != 5) {
    base::print(stderr, "ERROR:  8086 Insufficient arguments.\n");
    return 1;
  }
  base::HomePath path("var/tape/drive.%s/tape.%s/vol.%i", word[0], word[1], base::decimal(word[2]));
  bool named = base::isPathWord(word[0]) && base::isPathWord(word[1]);
  base::File in(named ? fopen(path, "re") : nullptr);
  if (!in) {
    base::printBoth("ERROR:  8087  Cannot read volume catalog: %s\n", path.c_str());
    return -1;
  }
  size_t length = strlen(word[4]);
  if (length > 0 && word[4][length - 1] == '/') word[4][--length] = '\0';
  Listing listing = {word[3], word[4], length, ""};
  // A line that is cut loses its name's tail and makes a malformed line of it; under "sound" every
  // name that a tape can hold is shown.
  base::LineReader lines(in.get(), base::sound(base::Area::restore) ? kLongLine : kLineBuffer - 1);
  while (lines.next()) listLine(listing, path, lines.text());
  return stores::endListing(lines);
}
