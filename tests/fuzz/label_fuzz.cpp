// A foreign tape in the drive, its first blocks of any bytes: looking for a label, for the next
// volume's place and for what "get header" prints ends, and finds nothing that is not there.
//
// The first byte is the length of the first block in units of 64 bytes; 0 stands for a mark. The
// listings go to standard error: run with -close_fd_mask=2.
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zul/host.h>
#include <zul/tape.h>

#include <algorithm>
#include "base/text.h"
#include "drive/cartridge.h"
#include "drive/drive.h"
#include "fuzzhome.h"

namespace {

constexpr char kDevice[] = "/dev/vtape/v0";

void makeHome() {
  fuzz::makeHome({"etc", "var/tape"});
  FILE *site = fopen(base::HomePath("etc/ZULsite"), "we");
  if (!site || fputs("behaviour.pace = sound\npause.tape-retry = 0ms\n", site) < 0 ||
      fclose(site) != 0 || chmod(base::HomePath("etc/ZULsite"), 0600) != 0)
    abort();
  char device[] = "0:v0:/dev/vtape/v0:0:0";
  if (!drive::makeDrive("v0").empty() || !drive::makeCartridge("c1", 1 << 20).empty() ||
      !drive::loadCartridge("v0", "c1").empty() || addDrive(device) != 0)
    abort();
}

void writeTape(const uint8_t *data, size_t size, size_t first) {
  int fd = drive::openDrive(kDevice, O_RDWR);
  if (fd < 0 || drive::operate(fd, MTREW, 1) != 0) abort();
  for (size_t at = 0; at < size; first = 512) {
    size_t length = std::min(first, size - at);
    if (length == 0 && drive::operate(fd, MTWEOF, 1) != 0) abort();
    if (length == 0) continue;
    if (drive::writeBlock(fd, data + at, length) != static_cast<ssize_t>(length)) abort();
    at += length;
  }
  if (drive::operate(fd, MTREW, 1) != 0 || drive::closeDrive(fd) != 0) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (ZULhome[0] == '\0') makeHome();
  // Nothing written would leave the tape of the last input.
  if (size < 2 || size > 65536) return 0;
  writeTape(data + 1, size - 1, data[0] * 64u);
  tapehead label;
  memset(&label, 0x5a, sizeof label);
  label.magic = 0;
  char number[] = "0";
  bool labelled = getTapeHead(number, &label) == 0 && label.magic == TAPEHEAD_MAGIC;
  if (labelled && !memmem(data + 1, size - 1, "HeAd", 4)) abort();
  char device[] = "/dev/vtape/v0";
  int tape = -1;
  int volume = gotoNextVol(device, 0, &tape);
  if (volume >= 0 && !labelled) abort();
  return 0;
}
