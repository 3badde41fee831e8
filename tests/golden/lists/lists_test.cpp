// Bytes written by hand that the lists and the history must match, and must be able to read.
#include <gtest/gtest.h>
#include <string.h>
#include <zul/tape.h>

#include <filesystem>

#include "goldenbytes.h"
#include "support.h"

using support::hex;
using support::readFile;
using support::writeFile;

namespace {

class Golden : public support::HomeTest {};

// A run of job 258 (0x102), group 3, begun at 1700000000, kept for -2 seconds, on drive 4, tape 5,
// volume 7, at level 9; field by field as the page on lists gives them.
std::string record(const char *kbytes, const char *status) {
  return hex("214c755a") +           // magic: "ZuL!" backwards
         hex("00000000") +           // reserved
         hex("02010000") +           // job
         hex("03000000") +           // group
         hex("00f15365 00000000") +  // start
         hex("feffffff ffffffff") +  // retention
         hex(kbytes) +               //
         hex(status) +               //
         hex("04000000") +           // drive
         hex("05000000") +           // tape
         hex("07000000") +           // volume
         hex("09000000") +           // level
         std::string(124, '\0');     // reserved
}

jobrun job258() {
  jobrun run;
  memset(&run, 0, sizeof run);
  run.rec.job = 258;
  run.rec.group = 3;
  run.rec.retention = -2;
  run.rec.drive = 4;
  run.tape = 5;
  run.volume = 7;
  run.level = 9;
  return run;
}

TEST_F(Golden, AHistoryRecordIsWrittenAsTheseBytes) {
  for (const char *behaviour : {"behaviour = classic\n", "behaviour = sound\n"}) {
    site(behaviour);
    std::filesystem::remove(path("var/tape/bhistory"));
    jobrun run = job258();
    ASSERT_EQ(updateHist(&run, 1700000000), 0);
    EXPECT_EQ(readFile(path("var/tape/bhistory")), record("00000000 00000000", "00000000"));
    ASSERT_EQ(modHist(&run, 1700000000, 1, 0x123456789aL), 0);
    EXPECT_EQ(readFile(path("var/tape/bhistory")), record("9a785634 12000000", "01000000"));
  }
}

TEST_F(Golden, TheseBytesAreReadAsAHistoryRecord) {
  writeFile(path("var/tape/bhistory"), record("9a785634 12000000", "01000000"));
  writeFile(path("var/tape/jobids/group"), "3:h1:web\n");
  char host[] = "h1";
  time_t start = 1700000000;
  char when[32];
  ctime_r(&start, when);
  EXPECT_EQ(support::captureStderr([&] { EXPECT_EQ(dumpHostHist(host), 0); }),
            std::string("258,3,9,1,0,4,5,7,78187493530,") + when);
}

TEST_F(Golden, ARequestListIsWrittenAsTheseBytes) {
  std::string list = path("tmp/list"), requests = path("tmp/requests");
  writeFile(requests, "/zul test/a b\n/zul test/\xe4\r\n");
  const char kLines[] =
      "0 /zul test/\n"
      "1 /zul test/a b\n"
      "2 /zul test/\n"
      "3 /zul test/\xe4\n"
      "4 \n";
  EXPECT_EQ(mkBackupList(requests.data(), list.data(), 0), 0);
  EXPECT_EQ(readFile(list), kLines);
  soundSite();
  EXPECT_EQ(mkBackupList(requests.data(), list.data(), 0), 0);
  EXPECT_EQ(readFile(list), std::string(kLines) + "end\n");
}

}  // namespace
