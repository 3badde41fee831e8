// A history file of any bytes: it is listed, looked up, and a run in it is completed, without harm,
// and what is written back is whole records with the right magic.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>
#include <zul/host.h>
#include <zul/tape.h>

#include <initializer_list>

#include "base/text.h"
#include "fuzzhome.h"
#include "tape/reference.h"

namespace {

void makeHome() {
  fuzz::makeHome({"etc", "var/tape/jobids"});
  FILE *groups = fopen(base::HomePath("var/tape/jobids/group"), "we");
  if (!groups) abort();
  fputs("0:h:zero\n3:h:three\n", groups);
  fclose(groups);
}

void writeHistory(const uint8_t *data, size_t size) {
  FILE *out = fopen(base::HomePath("var/tape/bhistory"), "we");
  if (!out || (size > 0 && fwrite(data, size, 1, out) != 1) || fclose(out) != 0) abort();
}

void checkWhole() {
  FILE *in = fopen(base::HomePath("var/tape/bhistory"), "re");
  if (!in) abort();
  histrec record;
  size_t got;
  while ((got = fread(&record, 1, sizeof record, in)) == sizeof record)
    if (record.magic != PACK_MAGIC) abort();
  if (got != 0) abort();
  fclose(in);
}

}  // namespace

// The listing goes to standard error: run with -close_fd_mask=2.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (ZULhome[0] == '\0') makeHome();
  writeHistory(data, size);
  char host[] = "h";
  dumpHostHist(host);
  histrec first;
  memset(&first, 0, sizeof first);
  memcpy(&first, data, size < sizeof first ? size : sizeof first);
  tape::Reference reference;
  reference.find(first.job, first.level);
  jobrun run;
  memset(&run, 0, sizeof run);
  run.rec.job = first.job;
  if (modHist(&run, first.start, 1, 5) == 0) checkWhole();
  return 0;
}
