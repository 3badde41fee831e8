// The copy of a volume's catalog record on tape, and taking a failed job back out of the catalog.
// Both run in the job process.
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>
#include <zul/host.h>
#include <zul/tape.h>

#include "base/log.h"
#include "base/site.h"
#include "base/text.h"
#include "drive/drive.h"
#include "tape/pending.h"
#include "tape/tapeio.h"

namespace {

constexpr size_t kSlotBytes = 256;
constexpr int kSlotsPerBlock = 16;
constexpr size_t kBlockBytes = kSlotBytes * kSlotsPerBlock;

ssize_t writeWhole(int fd, const void *from, size_t n) {
  ssize_t written;
  do {
    written = drive::writeBlock(fd, from, n);
  } while (written < 0 && errno == EINTR);
  return written;
}

// The backup list, sixteen lines to a block.
bool writeStrings(int fd, const catlgstru *record, char *block) {
  for (int first = 0; first < CATLG_STRINGS; first += kSlotsPerBlock) {
    memset(block, 0, kBlockBytes);
    for (int at = 0; at < kSlotsPerBlock; at++) {
      const char *text = record->strings[first + at];
      if (text) base::copyText(block + kSlotBytes * static_cast<size_t>(at), kSlotBytes, text);
    }
    ssize_t written = writeWhole(fd, block, kBlockBytes);
    if (written != static_cast<ssize_t>(kBlockBytes)) {
      base::print(backuplog,
                  "ERROR:  8325  Write error: wrote %i bytes, cnt=%i, cnt2=%i, errno=%i\n",
                  static_cast<int>(written), first, kSlotsPerBlock, errno);
      return false;
    }
  }
  return true;
}

}  // namespace

int writeCat2Tape(char *device, catlgstru *record) {
  tape::OpenDrive out(drive::openDrive(device, O_WRONLY | O_CREAT | O_TRUNC | O_DSYNC, 0600));
  if (!out) {
    base::print(backuplog, "ERROR:  8322  Can't open tape device: %s, errno = %i\n", device, errno);
    return -1;
  }
  if (writeWhole(out.get(), record, CATLG_FIXED) != CATLG_FIXED) {
    base::print(backuplog, "ERROR:  8323  Short write!, errno = %i\n", errno);
    return -2;
  }
  char *block = static_cast<char *>(malloc(kBlockBytes));
  if (!block) {
    base::print(backuplog, "ERROR:  8324  Failed to allocate a write buffer.\n");
    return -3;
  }
  bool written = writeStrings(out.get(), record, block);
  free(block);
  if (!written) return -2;
  // Closing is what ends the tape file. Without its mark the data would follow in the same file,
  // and no later volume would be found.
  if (!out.close() && base::sound(base::Area::backup)) {
    base::print(backuplog, "ERROR:  8323  Short write!, errno = %i\n", errno);
    return -2;
  }
  return 0;
}

int backupFail(int drive, int tape, int volume) {
  base::print(backuplog,
              "ERROR:  8330  Backup failed, attempting to revert to previous catalog.\n");
  unlink(base::HomePath("var/tape/drive.%i/tape.%i/vol.%i", drive, tape, volume));
  unlink(base::HomePath("var/tape/drive.%i/tape.%i/vol.%i.sum", drive, tape, volume));
  return tape::copyTapeFile(drive, tape, "catalog.Old", "catalog") ? 0 : -1;
}
