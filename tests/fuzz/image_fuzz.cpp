// Images, states, lists of marks and fault files of any bytes in a virtual drive: whatever is
// called on them, nothing is read or written out of bounds, every call ends, and a tape that was
// written and closed afterwards gives back what was written.
//
// The first byte says how many operations follow (at most 15) and which files are damaged, then the
// operations, then the bytes of those files.
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>
#include <zul/host.h>

#include <algorithm>
#include <string>

#include "base/text.h"
#include "drive/cartridge.h"
#include "drive/drive.h"
#include "fuzzhome.h"

namespace {

constexpr char kDevice[] = "/dev/vtape/v0";
constexpr char kState[] = "var/vtape/v0/state", kImage[] = "var/vtape/shelf/c1.tap",
               kMarks[] = "var/vtape/shelf/c1.marks", kFaults[] = "var/vtape/v0/faults";

void makeHome() {
  fuzz::makeHome({});
  if (!drive::makeDrive("v0").empty() || !drive::makeCartridge("c1", 1 << 20).empty() ||
      !drive::loadCartridge("v0", "c1").empty())
    abort();
}

// Overwrites the beginning of a file and keeps the rest, so that a damaged state or list still
// passes for one.
void damage(const char *relative, const uint8_t *data, size_t size) {
  int fd = open(base::HomePath("%s", relative), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0 || pwrite(fd, data, size, 0) != static_cast<ssize_t>(size)) abort();
  close(fd);
}

void replace(const char *relative, const uint8_t *data, size_t size) {
  unlink(base::HomePath("%s", relative));
  damage(relative, data, size);
}

// A drive at its beginning with an empty cartridge and no faults.
void freshDrive() {
  unlink(base::HomePath("%s", kFaults));
  unlink(base::HomePath("%s", kMarks));
  unlink(base::HomePath("%s", kState));
  if (truncate(base::HomePath("%s", kImage), 0) != 0) abort();
  int fd = open(base::HomePath("var/vtape/v0/cartridge"), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0 || write(fd, "c1\n", 3) != 3) abort();
  close(fd);
}

void operate(int fd, uint8_t what) {
  static char block[4096];
  const short kOperations[] = {MTREW,  MTFSF, MTBSF,  MTFSR, MTBSR,    MTFSFM,
                               MTBSFM, MTEOM, MTWEOF, MTNOP, MTSETBLK, MTERASE};
  size_t choice = what % 16u;
  if (choice == 12 || choice == 13) {
    ssize_t got = drive::readBlock(fd, block, choice == 12 ? sizeof block : what / 16u);
    if (got > static_cast<ssize_t>(sizeof block)) abort();
  } else if (choice == 14) {
    drive::writeBlock(fd, block, what / 16u + 1);
  } else if (choice < 12) {
    drive::operate(fd, kOperations[choice], what / 16);
  }
  mtget now;
  if (drive::status(fd, &now) != 0) abort();
}

// After all that, an overwritten tape is as good as new.
void checkWriting() {
  unlink(base::HomePath("%s", kFaults));
  int fd = drive::openDrive(kDevice, O_RDWR);
  char block[8] = {};
  if (fd < 0 || drive::operate(fd, MTSETBLK, 0) != 0 || drive::operate(fd, MTREW, 1) != 0 ||
      drive::writeBlock(fd, "fuzz", 4) != 4 || drive::closeDrive(fd) != 0)
    abort();
  fd = drive::openDrive(kDevice, O_RDONLY);
  if (fd < 0 || drive::operate(fd, MTREW, 1) != 0 || drive::readBlock(fd, block, 8) != 4 ||
      memcmp(block, "fuzz", 4) != 0 || drive::readBlock(fd, block, 8) != 0 ||
      drive::operate(fd, MTREW, 1) != 0 || drive::operate(fd, MTFSF, 1) != 0 ||
      drive::readBlock(fd, block, 8) != 0 || drive::closeDrive(fd) != 0)
    abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (!ZULhome[0]) makeHome();
  if (size < 2) return 0;
  const size_t count = std::min<size_t>(data[0] & 15, size - 1);
  const unsigned damaged = data[0] >> 4;
  const uint8_t *rest = data + 1 + count;
  size_t left = size - 1 - count;

  freshDrive();
  size_t imageSize = damaged ? left / 2 : left;
  replace(kImage, rest, imageSize);
  // An open that belongs to the image, whose traces are then damaged.
  int fd = drive::openDrive(kDevice, O_RDONLY);
  if (fd < 0) abort();
  drive::closeDrive(fd);
  rest += imageSize;
  left -= imageSize;
  // Behind the fields that tie the state and the list to the image.
  if (damaged & 1 && left > 0) {
    int state = open(base::HomePath("%s", kState), O_WRONLY | O_CLOEXEC);
    if (pwrite(state, rest, std::min<size_t>(left, 48), 80) < 0) abort();
    close(state);
  }
  if (damaged & 2 && left > 0) {
    int marks = open(base::HomePath("%s", kMarks), O_WRONLY | O_CLOEXEC);
    if (pwrite(marks, rest, left, 32) < 0) abort();
    close(marks);
  }
  // A delay would only make the search slow.
  if (damaged & 4 && !memmem(rest, left, "delay", 5)) replace(kFaults, rest, left);
  fd = drive::openDrive(kDevice, damaged & 8 ? O_RDONLY : O_RDWR);
  if (fd >= 0) {
    for (size_t i = 0; i < count; i++) operate(fd, data[1 + i]);
    drive::closeDrive(fd);
  }
  checkWriting();
  return 0;
}
