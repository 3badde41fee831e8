// A tape of any bytes: as a stream of packages, which is searched for headers in both behaviours,
// and as a volume list. What is found must begin with the magic; no read goes on for ever.
#include <errno.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>
#include <zul/host.h>
#include <zul/net.h>
#include <zul/tape.h>

#include "base/site.h"
#include "base/text.h"
#include "fuzzhome.h"

namespace {

void writeText(const char *path, const void *data, size_t size) {
  FILE *out = fopen(path, "we");
  if (!out || (size > 0 && fwrite(data, size, 1, out) != 1) || fclose(out) != 0) abort();
}

void behave(bool sound) {
  static int now = -1;
  if (now == sound) return;
  now = sound;
  const char *text = sound ? "behaviour = sound\n" : "behaviour = classic\n";
  writeText(base::HomePath("etc/ZULsite"), text, strlen(text));
  base::forgetSite();
}

void readPackages(const uint8_t *data, size_t size) {
  int fd = memfd_create("tape", MFD_CLOEXEC);
  if (fd < 0 || write(fd, data, size) != static_cast<ssize_t>(size)) abort();
  lseek(fd, 0, SEEK_SET);
  char raw[PACK_SIZE];
  package header;
  // A stale ENOENT would make the classic reader wait at the end, as it is meant to.
  errno = EIO;
  for (size_t turns = 0; getPackHead(fd, raw, &header) == 0; turns++) {
    if (memcmp(raw, "ZuL!", 4) != 0 || header.magic != PACK_MAGIC) abort();
    if (turns > size / 4) abort();
    errno = EIO;
  }
  close(fd);
}

}  // namespace

// The first byte picks the behaviour. Messages go to standard error: run with -close_fd_mask=3.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (ZULhome[0] == '\0') fuzz::makeHome({"etc", "var/tape/drive.0/tape.0"});
  if (size == 0) return 0;
  behave(data[0] & 1);
  readPackages(data + 1, size - 1);
  writeText(base::HomePath("var/tape/drive.0/tape.0/vol.1"), data + 1, size - 1);
  char args[] = "0 0 1 h /d";
  getVolCat(args);
  return 0;
}
