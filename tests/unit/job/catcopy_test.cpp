// The catalog copy on tape, and taking a job back out of the catalog.
#include <string.h>
#include <sys/stat.h>

#include "drive/cartridge.h"
#include "drive/drive.h"
#include "jobtest.h"
#include "tape/pending.h"

namespace {

class CatalogCopy : public jobtest::JobTest {
 protected:
  void SetUp() override {
    JobTest::SetUp();
    loadTape();
    memset(&record, 0, sizeof record);
    record.magic = CATLG_MAGIC;
    record.jobnum = 7;
    for (int at = 0; at < CATLG_STRINGS; at++) {
      lines[at] = "/tree/" + std::to_string(at);
      record.strings[at] = lines[at].data();
    }
    std::string name = device;
    support::captureStderr([&] { ASSERT_EQ(mtFSF(name.data(), 1), 0); });
    clearLogs();
  }
  int write(const char *path) {
    std::string name = path;
    return writeCat2Tape(name.data(), &record);
  }

  catlgstru record;
  std::string lines[CATLG_STRINGS];
};

TEST_F(CatalogCopy, IsOneBlockOfTheRecordAndEightOfTheList) {
  lines[3] = std::string(300, 'x');
  record.strings[3] = lines[3].data();
  record.strings[127] = nullptr;
  EXPECT_EQ(write(device), 0);
  auto tape = readTape();
  ASSERT_EQ(tape.size(), 2u);
  ASSERT_EQ(tape[1].size(), 9u);
  EXPECT_EQ(tape[1][0], std::string(reinterpret_cast<char *>(&record), 8200));
  for (size_t block = 0; block < 8; block++) {
    ASSERT_EQ(tape[1][block + 1].size(), 4096u);
    for (size_t at = 0; at < 16; at++) {
      size_t number = block * 16 + at;
      std::string text = number == 3 ? std::string(255, 'x') : number == 127 ? "" : lines[number];
      text.resize(256, '\0');
      EXPECT_EQ(tape[1][block + 1].substr(at * 256, 256), text) << number;
    }
  }
  EXPECT_EQ(statusLog(), "");
}

TEST_F(CatalogCopy, NeedsADrive) {
  EXPECT_EQ(write("/dev/vtape/none"), -1);
  EXPECT_NE(statusLog().find("ERROR:  8322  Can't open tape device: /dev/vtape/none, errno = "),
            std::string::npos);
}

TEST_F(CatalogCopy, ReportsARecordThatTheTapeRefuses) {
  ASSERT_EQ(drive::setFaults("d1", "write 1 EIO\n"), "");
  EXPECT_EQ(write(device), -2);
  EXPECT_EQ(statusLog(), "ERROR:  8323  Short write!, errno = 5\n");
}

TEST_F(CatalogCopy, ReportsAListThatTheTapeRefuses) {
  ASSERT_EQ(drive::setFaults("d1", "write 3 EIO\n"), "");
  EXPECT_EQ(write(device), -2);
  EXPECT_EQ(statusLog(), "ERROR:  8325  Write error: wrote -1 bytes, cnt=16, cnt2=16, errno=5\n");
}

TEST_F(CatalogCopy, SoundReportsAMarkThatCannotBeWritten) {
  behave("sound");
  ASSERT_EQ(drive::setFaults("d1", "mark 1 EIO\n"), "");
  EXPECT_EQ(write(device), -2);
  EXPECT_EQ(statusLog(), "ERROR:  8323  Short write!, errno = 5\n");
}

TEST_F(CatalogCopy, OfAFailedJobIsTakenOutOfTheCatalog) {
  support::writeFile(tapeFilePath("catalog"), "new");
  support::writeFile(tapeFilePath("catalog.Old"), "old");
  support::writeFile(tapeFilePath("vol.3"), "lines");
  ASSERT_TRUE(tape::notePending(1, 0, 3));
  EXPECT_EQ(backupFail(1, 0, 3), 0);
  EXPECT_EQ(statusLog(),
            "ERROR:  8330  Backup failed, attempting to revert to previous catalog.\n");
  EXPECT_EQ(support::readFile(tapeFilePath("catalog")), "old");
  EXPECT_FALSE(support::exists(tapeFilePath("vol.3")));
  EXPECT_EQ(tape::pendingVolume(1, 0), 3) << "the tape may hold the beginning of it";
}

TEST_F(CatalogCopy, CannotBeTakenBackWithoutTheFormerCatalog) {
  support::writeFile(tapeFilePath("catalog"), "new");
  ASSERT_TRUE(tape::notePending(1, 0, 3));
  EXPECT_EQ(backupFail(1, 0, 3), -1);
  EXPECT_EQ(support::readFile(tapeFilePath("catalog")), "new");
  EXPECT_TRUE(tape::isPending(1, 0)) << "the next job must try again";
}

}  // namespace
