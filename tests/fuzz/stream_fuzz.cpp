// 520 bytes from a peer or a tape: any of them unpack into a record whose texts end, and what a
// record holds comes back from its stream form.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <zul/host.h>
#include <zul/net.h>

#include "base/site.h"
#include "fuzzhome.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (ZULhome[0] == '\0') fuzz::makeHome({});
  char raw[PACK_SIZE] = {}, again[PACK_SIZE];
  memcpy(raw, data, size < sizeof raw ? size : sizeof raw);
  package header, back;
  if (unpackPackage(raw, &header) != 0) abort();
  if (strnlen(header.filename, sizeof header.filename) > 256) abort();
  if (strnlen(header.fromhost, sizeof header.fromhost) > 63) abort();
  if (packPackage(again, &header) != 0 || unpackPackage(again, &back) != 0) abort();
  // The fields travel; only the texts' last bytes were set.
  raw[263] = raw[379] = '\0';
  if (memcmp(raw, again, 300) != 0 || memcmp(raw + 316, again + 316, 200) != 0) abort();
  bool same =
      back.magic == header.magic && back.type == header.type && back.usrid == header.usrid &&
      back.grpid == header.grpid && back.mode == header.mode && back.mtime == header.mtime &&
      back.atime == header.atime && back.size == header.size && back.sequence == header.sequence &&
      back.unused1 == header.unused1 && back.unused2 == header.unused2 &&
      strcmp(back.filename, header.filename) == 0 && strcmp(back.fromhost, header.fromhost) == 0;
  if (!same) abort();
  return 0;
}
