// The drive table, etc/tapedevs: the drives that this tape host may write to. Called by the
// configuration requests; the table's readers stand with the catalogs, in tape/tapefun.cpp. The
// other configuration stores stand beside this source: jobindex, repljobs, transforms, hostgroups.
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zul/host.h>
#include <zul/tape.h>

#include "base/log.h"
#include "base/site.h"
#include "base/store.h"
#include "base/text.h"
#include "tape/storerules.h"

namespace {

// Number, name, device path and two attributes. A line has one more, which rewrites carry along.
constexpr int kFields = 5;

// Readers take a line in a buffer of 1024 bytes; this entry fits with its sixth field and its line
// feed.
constexpr size_t kLongestEntry = 1000;

int appendDrive(base::Store &table, char **field) {
  if (access(table.path(), F_OK) == 0 && !table.backUp(filecopy)) {
    base::print(stderr, "ERROR:  8205  Unable to make a work copy of %s. \n", table.backup());
    return -1;
  }
  if (!table.beginAppend()) {
    base::print(stderr, "ERROR:  8206  Cannot open the temp group file %s. \n", table.path());
    return -1;
  }
  if (!table.putText("%s:%s:%s:%s:%s:\n", field[0], field[1], field[2], field[3], field[4]) ||
      !table.commit())
    return stores::notWritten(table);
  return 0;
}

int rewriteDrives(base::Store &table, stores::TableChange &change) {
  if (!table.backUp(filecopy)) {
    base::print(stderr, "ERROR:  8208  Unable to make a work copy of %s. \n", table.backup());
    return -1;
  }
  base::File old = table.openBackup();
  if (!old) {
    base::print(stderr, "ERROR:  8209  Cannot open the file %s.  Check permissions\n",
                table.backup());
    return -1;
  }
  if (!table.beginRewrite()) {
    base::print(stderr, "ERROR:  8210  Cannot open the file %s.  Check permissions\n",
                table.path());
    return -1;
  }
  stores::TableResult result = stores::rewriteTable(table, old.get(), change);
  if (result == stores::TableResult::noMemory) {
    base::print(stderr, "ERROR:  8211  Out of memory!\n");
    return -1;
  }
  if (result == stores::TableResult::badFormat) {
    base::print(stderr, "ERROR:  8212  Format error in tape group file.\n");
    return -1;
  }
  // Where nothing matched the table is written all the same, unchanged.
  if (result == stores::TableResult::notWritten || !table.commit())
    return stores::notWritten(table);
  if (result == stores::TableResult::notFound) {
    base::print(stderr, "ERROR:  8213  The drive entry to modify was not found!\n");
    return -1;
  }
  return 0;
}

}  // namespace

int addDrive(char *entry) {
  if (stores::entryRefused(entry, kLongestEntry)) return -1;
  char *field[kFields + 1];
  if (insplit(field, entry, ':', kFields) < kFields) {
    base::print(stderr, "ERROR:  8204  Insufficient arguments.\n");
    return -1;
  }
  if (stores::keyRefused(field[0])) return -1;
  // Before the folder is looked at, so that of two requests for one number only one finds it free.
  base::Store table(base::HomePath("etc/tapedevs"));
  base::HomePath folder("var/tape/drive.%s", field[0]);
  bool named = base::isPathWord(field[0]);
  struct stat status;
  if (named && lstat(folder, &status) == 0) {
    base::print(stderr, "ERROR:  8214  A drive number %s already exists.\n", field[0]);
    return -1;
  }
  if (!named || rmkdir(folder, 0755) != 0) {
    base::print(stderr, "ERROR:  8215  Can't make drive data directory %s.\n", folder.c_str());
    return -1;
  }
  if (appendDrive(table, field) != 0) {
    // An empty folder without an entry would make every further attempt fail: the number would be
    // taken.
    if (base::sound(base::Area::stores)) rmdir(folder);
    return -1;
  }
  base::print(stderr, "New tape added:  %s\n", field[1]);
  return 0;
}

int modDrive(const char *number, char *entry) {
  if (stores::entryRefused(entry, kLongestEntry)) return -1;
  char *field[kFields + 1];
  if (insplit(field, entry, ':', kFields) < kFields) {
    base::print(stderr, "ERROR:  8207  Insufficient arguments.\n");
    return -1;
  }
  if (stores::keyRefused(number)) return -1;
  if (strcmp(field[0], "DEL") != 0 && stores::keyRefused(field[0])) return -1;
  stores::TableChange change{.splits = kFields,
                             .least = kFields,
                             .most = kFields + 1,
                             .key = number,
                             .fresh = field,
                             .freshCount = kFields,
                             .carried = kFields};
  base::Store table(base::HomePath("etc/tapedevs"));
  if (rewriteDrives(table, change) != 0) return -1;
  // The name of the last entry of the table, whichever was changed: consoles know this line so.
  base::print(stderr, "Modified tape:  %s\n", change.lastName);
  return 0;
}

int delDrive(const char *number) {
  char deletion[] = "DEL:Del:0:0:0:0:0";
  return modDrive(number, deletion) < 0 ? -1 : 0;
}
