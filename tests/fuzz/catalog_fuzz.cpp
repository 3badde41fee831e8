// A catalog of any bytes: it is loaded and listed without harm, however damaged, and every text of
// a loaded record ends.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>
#include <zul/host.h>
#include <zul/tape.h>

#include "base/text.h"
#include "fuzzhome.h"
#include "tape/catalog.h"

namespace {

void writeCatalog(const uint8_t *data, size_t size) {
  FILE *out = fopen(base::HomePath("var/tape/drive.0/tape.0/catalog"), "we");
  if (!out || (size > 0 && fwrite(data, size, 1, out) != 1) || fclose(out) != 0) abort();
}

}  // namespace

// A record is longer than most inputs: the first byte says how many to put in front, and whether
// what follows is the fixed part or the texts. The listings go to standard error: run with
// -close_fd_mask=3.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (ZULhome[0] == '\0') fuzz::makeHome({"var/tape/drive.0/tape.0"});
  static uint8_t file[160 * (CATLG_FIXED + CATLG_STRINGS) + 65536];
  if (size == 0 || size > 65536) return 0;
  size_t length = 0;
  uint32_t magic = CATLG_MAGIC;
  for (int at = data[0] >> 1; at > 0; at--) {
    memset(file + length, 0, CATLG_FIXED + CATLG_STRINGS);
    memcpy(file + length, &magic, sizeof magic);
    length += CATLG_FIXED + CATLG_STRINGS;
  }
  if (data[0] & 1) {
    memset(file + length, 0xff, CATLG_FIXED);
    memcpy(file + length, &magic, sizeof magic);
    length += CATLG_FIXED;
  }
  memcpy(file + length, data + 1, size - 1);
  writeCatalog(file, length + size - 1);

  tape::Catalog catalog;
  int count = catalog.load(base::HomePath("var/tape/drive.0/tape.0"));
  if (count > tape::kVolumeLimit) abort();
  size_t total = 0;
  for (int at = 0; at < count; at++)
    for (const char *text : catalog[at].strings) total += strlen(text);
  if (total > 2 * (length + size)) abort();
  if (count > 0) {
    catlgstru last = catalog[count - 1];
    prntCatlgstru(&last);
  }
  char args[] = "0 0";
  getTapeVols(args);
  return 0;
}
