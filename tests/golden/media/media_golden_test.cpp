// The label of a tape and a catalog, byte for byte as they lie on tapes and disks that exist. The
// bytes are written by hand from docs/formats, not by the code under test.
#include <fcntl.h>
#include <string.h>
#include <unistd.h>
#include <zul/tape.h>

#include <filesystem>
#include <memory>

#include "drive/cartridge.h"
#include "drive/drive.h"
#include "goldenbytes.h"
#include "support.h"

using support::assemble;
using support::hex;

namespace {

// Tape 258 of drive 1, labelled "Nacht-07" on host "bandhost" on 2006-07-04 12:02:08 UTC, with the
// request "1:11:-2:0:Nacht-07".
std::string goldenLabel() {
  return assemble(2056,
                  {
                      {0, hex("48 65 41 64")},                            // magic "HeAd"
                      {8, hex("C0 58 AA 44 00 00 00 00")},                // created 1152014528
                      {20, hex("4E 61 63 68 74 2D 30 37")},               // name
                      {276, hex("2F 64 65 76 2F 76 74 61 70 65 2F 67")},  // device "/dev/vtape/g"
                      {532, hex("62 61 6E 64 68 6F 73 74")},              // host
                      {580, hex("01 00 00 00")},                          // drive
                      {584, hex("02 01 00 00")},                          // tape
                      {588, hex("0B 00 00 00")},                          // field2
                      {592, hex("FE FF FF FF")},                          // field3
                  });
}

// Job 5 of group 258, level 1, 30 days, hosts "a,b", backup list "/etc", "/home".
std::string goldenRecord() {
  std::string fixed =
      assemble(8200, {
                         {0, hex("43 61 54 2A")},               // magic "CaT*"
                         {8, hex("C0 58 AA 44 00 00 00 00")},   // created
                         {16, hex("00 8D 27 00 00 00 00 00")},  // retention 2592000
                         {32, hex("61 2C 62")},                 // hosts
                         {4128, hex("05 00 00 00")},            // job number
                         {4132, hex("02 01 00 00")},            // group number
                         {4136, hex("77 6F 63 68 65")},         // volume label "woche"
                         {4396, hex("01 00 00 00")},            // level
                         {4400, hex("FF FF FF FF FF FF FF FF FF FF FF FF FF FF FF FF FF FF FF FF")},
                     });
  // 128 texts, each with its NUL.
  return fixed + hex("2F 65 74 63 00 2F 68 6F 6D 65 00") + std::string(126, '\0');
}

class Golden : public support::HomeTest {
 protected:
  void SetUp() override {
    HomeTest::SetUp();
    site("pause.label-settle = 0ms\n");
    support::writeFile(path("etc/tapedevs"), "1:lto:/dev/vtape/g:a:b:\n");
    ASSERT_EQ(drive::makeDrive("g"), "");
    ASSERT_EQ(drive::makeCartridge("g1", 1 << 20), "");
    ASSERT_EQ(drive::loadCartridge("g", "g1"), "");
    dir = path("var/tape/drive.1/tape.258");
  }
  std::string dir;
};

TEST_F(Golden, ALabelOnTapeIsUnderstood) {
  int fd = drive::openDrive("/dev/vtape/g", O_WRONLY);
  std::string bytes = goldenLabel();
  ASSERT_EQ(drive::writeBlock(fd, bytes.data(), bytes.size()), 2056);
  ASSERT_EQ(drive::closeDrive(fd), 0);
  tapehead label{};
  char number[] = "1";
  ASSERT_EQ(getTapeHead(number, &label), 0);
  EXPECT_EQ(label.magic, TAPEHEAD_MAGIC);
  EXPECT_EQ(label.created, 1152014528);
  EXPECT_EQ(label.version, 0);
  EXPECT_STREQ(label.name, "Nacht-07");
  EXPECT_STREQ(label.device, "/dev/vtape/g");
  EXPECT_STREQ(label.host, "bandhost");
  EXPECT_EQ(label.drive, 1);
  EXPECT_EQ(label.tape, 258);
  EXPECT_EQ(label.field2, 11);
  EXPECT_EQ(label.field3, -2);
}

TEST_F(Golden, ALabelIsWrittenByteForByte) {
  // The tape before it, so that this one becomes number 258.
  std::filesystem::create_directories(path("var/tape/drive.1/tape.257"));
  char request[] = "1:11:-2:0:Nacht-07";
  support::captureStderr([&] { ASSERT_EQ(addTape(request), 0); });
  std::string header = support::readFile(dir + "/header");
  std::string block(4096, '\0');
  int fd = drive::openDrive("/dev/vtape/g", O_RDONLY);
  ASSERT_EQ(drive::readBlock(fd, block.data(), block.size()), 2056);
  EXPECT_EQ(drive::readBlock(fd, block.data() + 2056, 1), 0) << "a file mark follows the label";
  drive::closeDrive(fd);
  EXPECT_EQ(header, block.substr(0, 2056));
  // The clock and this machine's name are all that may differ.
  std::string expected = goldenLabel();
  char host[48] = "";
  ASSERT_EQ(gethostname(host, sizeof host), 0);
  expected.replace(8, 8, header, 8, 8);
  expected.replace(532, 48, host, sizeof host);
  for (size_t at = 0; at < expected.size(); at++) ASSERT_EQ(header[at], expected[at]) << at;
}

TEST_F(Golden, ACatalogOnDiskIsUnderstood) {
  std::filesystem::create_directories(dir);
  support::writeFile(dir + "/catalog", goldenRecord() + goldenRecord());
  auto records = std::make_unique<catlgstru[]>(128);
  ASSERT_EQ(getTapeCatlg(dir.data(), records.get()), 2);
  const catlgstru &record = records[1];
  EXPECT_EQ(record.magic, CATLG_MAGIC);
  EXPECT_EQ(record.created, 1152014528);
  EXPECT_EQ(record.retention, 2592000);
  EXPECT_EQ(record.newer, 0);
  EXPECT_STREQ(record.hosts, "a,b");
  EXPECT_EQ(record.jobnum, 5);
  EXPECT_EQ(record.group, 258);
  EXPECT_STREQ(record.label, "woche");
  EXPECT_EQ(record.version, 0);
  EXPECT_EQ(record.level, 1);
  for (int word : record.minus1) EXPECT_EQ(word, -1);
  EXPECT_STREQ(record.strings[0], "/etc");
  EXPECT_STREQ(record.strings[1], "/home");
  EXPECT_STREQ(record.strings[2], "");
  // The last text of a record shares its storage with the first of the next.
  EXPECT_EQ(records[0].strings[127], records[1].strings[0]);
  EXPECT_STREQ(records[0].strings[127], "/etc");
  getTapeCatlg(nullptr, nullptr);
}

TEST_F(Golden, ACatalogIsWrittenByteForByte) {
  for (const char *behaviour : {"classic", "sound"}) {
    site(std::string("behaviour = ") + behaviour + "\n");
    std::filesystem::remove_all(dir);
    std::filesystem::create_directories(dir);
    char first[] = "/etc", second[] = "/home", none[] = "";
    catlgstru record;
    memset(&record, 0, sizeof record);
    record.magic = CATLG_MAGIC;
    record.created = 1152014528;
    record.retention = 2592000;
    strcpy(record.hosts, "a,b");
    record.jobnum = 5;
    record.group = 258;
    strcpy(record.label, "woche");
    record.level = 1;
    memset(record.minus1, 0xff, sizeof record.minus1);
    for (char *&text : record.strings) text = none;
    record.strings[0] = first;
    record.strings[1] = second;
    ASSERT_EQ(storCatalg(1, 258, &record), 0);
    ASSERT_EQ(storCatalg(1, 258, &record), 0);
    EXPECT_EQ(support::readFile(dir + "/catalog"), goldenRecord() + goldenRecord());
  }
}

TEST_F(Golden, AVolumeListOnDiskIsUnderstood) {
  std::filesystem::create_directories(dir);
  support::writeFile(dir + "/vol.3",
                     "0:a:0:/etc/\n0:a:0:/etc/passwd\n0:b:0:/etc/hosts\n0:a:0:/etc/x:y\n"
                     "0:a:1:/etc/x:y\n0:a:0:/etc/ssh/keys\n");
  char request[] = "1 258 3 a /etc";
  std::string text = support::captureStderr([&] { ASSERT_EQ(getVolCat(request), 0); });
  EXPECT_EQ(text, "0:.\n0:passwd\n0:x:y\n0:ssh/\n");
}

}  // namespace
