// A request list of any bytes: every entry fits a line, the reading ends, and both readers agree on
// what the entries are as far as the list is complete.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>
#include <zul/host.h>
#include <zul/net.h>

#include "base/text.h"
#include "fuzzhome.h"
#include "net/requestlist.h"

namespace {}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (ZULhome[0] == '\0') fuzz::makeHome({});
  // A list without a line feed at its end is read twice, 100 ms apart: not here.
  if (size > 0 && data[size - 1] != '\n') return 0;
  base::HomePath path("list");
  FILE *out = fopen(path, "we");
  if (!out || (size > 0 && fwrite(data, size, 1, out) != 1) || fclose(out) != 0) abort();

  FILE *list = net::openRequestList(path);
  FILE *plain = fopen(path, "re");
  if (!list || !plain) abort();
  static char entries[1 << 16][286];
  size_t count = 0;
  net::Listed listed;
  char *entry;
  while ((listed = net::nextListed(list, &entry)) == net::Listed::entry && count < (1 << 16)) {
    if (strlen(entry) > 284) abort();
    base::copyText(entries[count++], sizeof entries[0], entry);
  }
  if (listed == net::Listed::later) abort();  // nobody holds the list
  fclose(list);
  for (size_t at = 0; at < count; at++) {
    entry = getLineList(plain);
    if (!entry || strcmp(entry, entries[at]) != 0) abort();
  }
  // Behind the line that ends a complete list, the plain reader reads on.
  while ((entry = getLineList(plain)) != nullptr)
    if (strlen(entry) > 284 || listed == net::Listed::incomplete) abort();
  fclose(plain);
  return 0;
}
