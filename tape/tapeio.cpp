// Positioning and reading: rewinding, skipping, the label, and the package headers in a data file.
//
// The backup driver calls gotoNextVol; a restore calls getTapeHead, mtFSF and getPackHead. Nothing
// keeps a drive open between two calls, so a drive that another process holds is waited for by
// opening it again and again.
#include <errno.h>
#include <fcntl.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>
#include <zul/host.h>
#include <zul/net.h>
#include <zul/tape.h>

#include "base/fd.h"
#include "base/log.h"
#include "base/pause.h"
#include "base/site.h"
#include "base/text.h"
#include "tape/catalog.h"
#include "tape/tapeio.h"

int tape::readLimitMs = 60000;

namespace {

constexpr int kRetriesTillComplaint = 20;
constexpr size_t kLabelSize = sizeof(tapehead);
constexpr char kLabelMagic[] = {'H', 'e', 'A', 'd'};
constexpr char kPackageMagic[] = {'Z', 'u', 'L', '!'};
constexpr size_t kMagicSize = 4;

bool isMagic(const char *at, const char (&magic)[kMagicSize]) {
  return memcmp(at, magic, kMagicSize) == 0;
}

// Opens a drive for positioning, waiting while another process has it. The descriptor, or -1 after
// a message.
int openWaiting(const char *device, int code) {
  for (int attempt = 1;; attempt++) {
    int fd = drive::openDrive(device, O_RDONLY);
    if (fd >= 0) return fd;
    int error = errno;
    bool busy = error == EBUSY || error == EAGAIN;
    if (!busy || attempt >= base::pauseLength(base::Pause::DriveBusyTries)) {
      base::print(stderr, "ERROR:  %i  %s: %s.  errno=%i\n", code,
                  busy ? "Device busy" : "Cannot open device", device, error);
      return -1;
    }
    base::pauseFor(base::Pause::DriveBusy);
  }
}

}  // namespace

void tape::reserveDrive(drive::Reservation *reservation, const char *device) {
  int tries = base::pauseLength(base::Pause::DriveBusyTries);
  while (!reservation->take(device) && --tries > 0) base::pauseFor(base::Pause::DriveBusy);
}

bool tape::isDevice(const char *device) {
  return strncmp(device, "/dev", 4) == 0;
}

tapehead tape::noLabel() {
  tapehead label{};
  label.drive = -1;
  label.tape = -1;
  return label;
}

bool tape::isLabel(const tapehead &label) {
  return label.magic == TAPEHEAD_MAGIC;
}

int mtRewind(char *device) {
  tape::OpenDrive drive(openWaiting(device, 8200));
  if (!drive) return -1;
  if (drive::operate(drive.get(), MTREW, 1) == 0) return 0;
  base::print(stderr, "ERROR:  8201  Failed to rewind tape: %s.  errno=%i\n", device, errno);
  return -1;
}

int mtFSF(char *device, int count) {
  // The close below would take such a node back to the label, and the next write destroys the tape.
  if (drive::isRewindingNode(device)) {
    base::print(backuplog, "ERROR:  Rewinding tape device %s cannot be used\n", device);
    return -1;
  }
  mtRewind(device);
  base::print(stderr, "NOTE:   Positioning tape to volume %i\n", count);
  tape::OpenDrive drive(openWaiting(device, 8202));
  if (!drive) return -1;
  if (drive::operate(drive.get(), MTFSF, count) == 0) return 0;
  int error = errno;
  base::print(stderr, "ERROR:  8203  Failed to forward tape: %s by %i.\n", device, count);
  base::print(stderr, "ERROR:  8203  Errno: %i\n", error);
  return -1;
}

namespace {

// What one read of the tape's first block asks for, and with it the longest block the label may
// stand in.
constexpr size_t kFirstRead = 8190;
constexpr size_t kScanEnd = kFirstRead - kLabelSize;

// The offset of the label in a first block of that many bytes, or -1.
long findLabel(const char *block, ssize_t length) {
  if (length < static_cast<ssize_t>(kLabelSize)) return -1;
  if (length == static_cast<ssize_t>(kLabelSize)) return isMagic(block, kLabelMagic) ? 0 : -1;
  // Tapes from drives with longer fixed blocks carry the label behind bytes of their own.
  size_t end = static_cast<size_t>(length) - kLabelSize;
  if (end > kScanEnd) end = kScanEnd;
  for (size_t at = 0; at < end; at++) {
    if (!isMagic(block + at, kLabelMagic)) continue;
    base::print(backuplog, "Header found at offset: %i\n", static_cast<int>(at));
    return static_cast<long>(at);
  }
  return -1;
}

void readLabel(int fd, tapehead *out) {
  char block[kFirstRead];
  ssize_t got = drive::readBlock(fd, block, sizeof block);
  // A read that comes back full was cut out of a longer block, which no label is.
  if (got == static_cast<ssize_t>(sizeof block)) return;
  long at = findLabel(block, got);
  if (at < 0)
    base::print(backuplog, "ERROR:  No label found on tape.  Label and retry\n");
  else
    memcpy(out, block + at, kLabelSize);
}

}  // namespace

int getTapeHead(char *drive, tapehead *out) {
  base::print(backuplog, "Reading tape header.\n");
  char device[256];
  if (getTapePath(base::decimal(drive), device) != 0) {
    base::print(backuplog, "ERROR:  Cannot find tape path\n");
    return -1;
  }
  if (mtRewind(device) != 0) {
    base::print(backuplog, "ERROR:  Failed to rewind tape: %s\n", device);
    return -1;
  }
  tape::OpenDrive reader(drive::openDrive(device, O_RDONLY));
  if (!reader) {
    base::print(backuplog, "ERROR:  Cannot open device: %s\n", device);
    return -1;
  }
  readLabel(reader.get(), out);
  reader.close();
  if (mtRewind(device) != 0)
    base::print(backuplog, "WARNING:  Failed to rewind tape: %s\n", device);
  return 0;
}

namespace {

// The label must be the one the catalog was begun with. A tape of another host, or one whose
// catalog is gone, may carry the same numbers; positioning it by our catalog would overwrite what
// it holds.
bool matchesCatalog(const tapehead &label, const char *tapedir) {
  char path[base::kPathMax + 8];
  snprintf(path, sizeof path, "%s/header", tapedir);
  base::File file(fopen(path, "re"));
  tapehead kept;
  return file && fread(&kept, sizeof kept, 1, file.get()) == 1 &&
         memcmp(&kept, &label, sizeof kept) == 0;
}

// Nothing is ever written on a tape that does not prove to be the one its catalog describes.
bool mayAppend(const tapehead &label, int drive, const char *tapedir) {
  if (!tape::isLabel(label)) return false;
  if (label.drive != drive) {
    base::print(backuplog, "ERROR:  Tape %i belongs to drive %i, not to drive %i\n", label.tape,
                label.drive, drive);
    return false;
  }
  if (base::sound(base::Area::backup) && !matchesCatalog(label, tapedir)) {
    base::print(backuplog,
                "ERROR:  The tape in drive %i says it is tape %i, but it is not the one whose "
                "catalog is in %s.  Insert that tape, or label this one\n",
                drive, label.tape, tapedir);
    return false;
  }
  return true;
}

}  // namespace

int gotoNextVol(char *device, int drive, int *tape) {
  // An ordinary file has no label to read; it is refused for what it is, whatever the reading gave.
  const int refused = tape::isDevice(device) ? -1 : -2;
  char number[16];
  snprintf(number, sizeof number, "%i", drive);
  tapehead label = tape::noLabel();
  if (getTapeHead(number, &label) != 0) return refused;
  base::HomePath tapedir("var/tape/drive.%i/tape.%i", drive, label.tape);
  if (!mayAppend(label, drive, tapedir)) return refused;
  tape::Catalog catalog;
  int volumes = catalog.load(tapedir);
  if (volumes < 0) return -1;
  *tape = label.tape;
  if (!tape::isDevice(device)) return -2;
  if (volumes >= tape::kVolumeLimit) {
    // No reader sees a volume beyond the limit: one more would be overwritten by the next job.
    if (base::sound(base::Area::backup))
      base::print(backuplog,
                  "ERROR:  Tape %i of drive %i is full: it holds %i volumes and can hold no more.  "
                  "Insert another tape\n",
                  label.tape, drive, tape::kVolumeLimit);
    return -1;
  }
  int volume = 2 * volumes + 1;
  return mtFSF(device, volume) == 0 ? volume : -1;
}

namespace {

enum class Verdict { again, later, fatal };

// Judges a read that brought nothing by errno as it stands, which for a read of 0 bytes is what
// some earlier call has left.
Verdict judge(ssize_t got, int error) {
  if (got < 0 && error == EINTR) return Verdict::again;
  // An end of file with a leftover errno would be retried for ever, or go on in the next tape file
  // as if it were this one.
  if (got == 0 && base::sound(base::Area::backup)) return Verdict::fatal;
  bool passing = error == EBUSY || error == EAGAIN || error == ENOENT;
  return passing ? Verdict::later : Verdict::fatal;
}

}  // namespace

ssize_t readt(int fd, void *buf, size_t n) {
  char *at = static_cast<char *>(buf);
  size_t left = n;
  int retries = 0;
  while (left > 0) {
    int ready = drive::waitReadable(fd, tape::readLimitMs);
    if (ready < 0) return -1;
    if (ready == 0) {
      base::print(stderr, "ERROR:  Select returned: %i\n", ready);
      return -2;
    }
    ssize_t got = drive::readBlock(fd, at, left);
    int error = errno;
    if (got > 0) {
      at += got;
      left -= static_cast<size_t>(got);
      continue;
    }
    Verdict verdict = judge(got, error);
    if (verdict == Verdict::fatal) {
      base::print(stderr, "ERROR:  Read error.  nread=%li, nleft= %li, fd=%i, ptr=%p, errno = %i\n",
                  static_cast<long>(got), static_cast<long>(left), fd, static_cast<void *>(at),
                  error);
      return -3;
    }
    if (verdict == Verdict::later) {
      base::pauseFor(base::Pause::TapeRetry);
      if (++retries == kRetriesTillComplaint)
        base::print(stderr,
                    "ERROR:  Read error. Retry 20:  nread=%li, nleft= %li, fd=%i, errno = %i\n",
                    static_cast<long>(got), static_cast<long>(left), fd, error);
    }
    // The next read may bring nothing again and is then judged by this same errno.
    errno = error;
  }
  return static_cast<ssize_t>(n);
}

namespace {

constexpr int kSearchRounds = 100;
constexpr size_t kKept = 4;  // bytes of a window that are carried into the next

// The offset of a package's magic in the window, or -1. A magic in the very last bytes is left to
// the next window.
int findPackage(const char *window) {
  for (size_t at = 0; at < PACK_SIZE - kKept; at++)
    if (isMagic(window + at, kPackageMagic)) return static_cast<int>(at);
  return -1;
}

bool readPiece(int fd, char *to, size_t length, const char *complaint) {
  ssize_t got = readt(fd, to, length);
  if (got == static_cast<ssize_t>(length)) return true;
  base::print(stderr, complaint, static_cast<int>(got));
  return false;
}

// Loads the window with the next bytes of the stream.
bool nextWindow(int fd, char *window) {
  memcpy(window, window + PACK_SIZE - kKept, kKept);
  // The classic search reads over the four bytes it has kept, so that a header found from here on
  // has four stale bytes in it and its size, owner and times are wrong; under "sound" they stay in
  // front.
  size_t start = base::sound(base::Area::backup) ? kKept : 0;
  return readPiece(fd, window + start, PACK_SIZE - kKept,
                   "\nERROR:  Failed to read the data header(3).  Got error %i\n");
}

// Looks for the next header in a stream that is out of step. 0 with the header in window, or as
// getPackHead.
int resynchronise(int fd, char *window) {
  base::print(stderr, "NOTICE:  RAW data:");
  fwrite(window, PACK_SIZE, 1, stderr);
  base::print(stderr, "WARNING:  Did not find package header\nWARNING:  Searching");
  for (int round = 0; round < kSearchRounds; round++) {
    base::print(stderr, ".");
    int at = findPackage(window);
    if (at >= 0) {
      size_t missing = static_cast<size_t>(at);
      memmove(window, window + missing, PACK_SIZE - missing);
      return readPiece(fd, window + PACK_SIZE - missing, missing,
                       "\nERROR:  Failed to read the data header(2).  Got error %i\n")
                 ? 0
                 : -1;
    }
    if (!nextWindow(fd, window)) return -1;
  }
  base::print(stderr, "\nERROR:  Can't find package header\n");
  return -2;
}

}  // namespace

int getPackHead(int fd, char *raw, package *header) {
  char window[PACK_SIZE];
  if (!readPiece(fd, window, PACK_SIZE,
                 "ERROR:  Failed to read the data header(1).  Got error %i\n"))
    return -1;
  bool inStep = isMagic(window, kPackageMagic);
  if (!inStep) {
    int result = resynchronise(fd, window);
    if (result != 0) return result;
  }
  if (unpackPackage(window, header) < 0) {
    base::print(stderr, "%sERROR:  Raw package format error\n", inStep ? "" : "\n");
    return -3;
  }
  memcpy(raw, window, PACK_SIZE);
  return 0;
}

long getPackageHead(int fd, char *buf) {
  ssize_t got = drive::readBlock(fd, buf, PACK_SIZE);
  if (got < 0) return -1;
  // What a short block did not bring must not be taken from the block before.
  memset(buf + got, 0, PACK_SIZE - static_cast<size_t>(got));
  uint32_t magic;
  memcpy(&magic, buf + offsetof(package, magic), sizeof magic);
  if (magic != PACK_MAGIC) {
    base::print(stderr, "Magic = %x, expected: %x\n", magic, PACK_MAGIC);
    return -2;
  }
  int64_t size;
  memcpy(&size, buf + offsetof(package, size), sizeof size);
  return size;
}
