// The list of file marks saves time and is never believed blindly.
#include <sys/stat.h>
#include <time.h>

#include "drivetest.h"

namespace {

class MarksTest : public DriveTest {
 protected:
  void SetUp() override {
    DriveTest::SetUp();
    for (const char *block : {"aaaa", "bbbb", "cccc"}) writeFile({block, block});
  }
  std::string marksPath() const { return path("var/vtape/shelf/c1.marks"); }

  // Changes bytes of the image and leaves its time as it was, so that the list still belongs to it.
  void changeUnseen(size_t at, const std::string &bytes) {
    struct stat before;
    ASSERT_EQ(stat(imagePath().c_str(), &before), 0);
    std::string all = image();
    all.replace(at, bytes.size(), bytes);
    support::writeFile(imagePath(), all);
    const timespec times[] = {before.st_atim, before.st_mtim};
    ASSERT_EQ(utimensat(AT_FDCWD, imagePath().c_str(), times, 0), 0);
  }
  // The block at the beginning of a tape file.
  std::string blockOf(int file) {
    int fd = open(O_RDONLY);
    drive::operate(fd, MTREW, 1);
    std::string seen = drive::operate(fd, MTFSF, file) == 0 ? take(fd) : strerrorname_np(errno);
    drive::closeDrive(fd);
    return seen;
  }
};

TEST_F(MarksTest, SkippingNeedsNoLookAtTheBlocks) {
  changeUnseen(12 + 8, "\x7f");
  EXPECT_EQ(blockOf(2), "cccc");
  unlink(marksPath().c_str());
  EXPECT_EQ(blockOf(2), "EIO");
}

TEST_F(MarksTest, AListIsMadeAnewByTheFirstSkip) {
  unlink(marksPath().c_str());
  EXPECT_EQ(blockOf(2), "cccc");
  changeUnseen(12 + 8, "\x7f");
  EXPECT_EQ(blockOf(2), "cccc");
}

TEST_F(MarksTest, AnImageThatHasChangedDropsItsList) {
  std::string bytes = image();
  bytes[12 + 8] = '\x7f';
  support::writeFile(imagePath(), bytes);
  EXPECT_EQ(blockOf(2), "EIO");
}

TEST_F(MarksTest, OverwritingEndsTheListWhereItEndsTheTape) {
  int fd = open(O_RDWR);
  drive::operate(fd, MTREW, 1);
  drive::operate(fd, MTFSF, 1);
  put(fd, "a longer block");
  drive::closeDrive(fd);
  EXPECT_EQ(support::readFile(marksPath()).size(), 32u + 2 * 8);
  EXPECT_EQ(tape(), "aaaa aaaa | a longer block | |");
  EXPECT_EQ(blockOf(1), "a longer block");
  EXPECT_EQ(blockOf(2), "|");
  EXPECT_EQ(blockOf(3), "EIO");
}

TEST_F(MarksTest, EntriesThatAreWrongAreNotBelieved) {
  const std::string good = support::readFile(marksPath());
  ASSERT_EQ(good.size(), 32u + 3 * 8);
  for (unsigned char value : {0x00, 0x01, 0x04, 0x0c, 0x18, 0x7f, 0x80, 0xff})
    for (size_t at = 32; at < good.size(); at += 4) {
      std::string bad = good;
      for (size_t i = at; i < at + 4; i++) bad[i] = static_cast<char>(value);
      support::writeFile(marksPath(), bad);
      EXPECT_EQ(blockOf(1), "bbbb");
      EXPECT_EQ(blockOf(2), "cccc");
      EXPECT_EQ(blockOf(3), "|");
    }
}

TEST_F(MarksTest, TheEndIsFoundFromTheLastListedMark) {
  changeUnseen(8, "\x7f");
  int fd = open(O_RDWR);
  EXPECT_EQ(drive::operate(fd, MTEOM, 1), 0);
  EXPECT_EQ(place(fd), "3/-1");
  EXPECT_EQ(put(fd, "dddd"), 4);
  drive::closeDrive(fd);
  EXPECT_EQ(blockOf(3), "dddd");
}

TEST_F(MarksTest, WithoutAListEverythingWorks) {
  unlink(marksPath().c_str());
  ASSERT_EQ(mkdir(marksPath().c_str(), 0700), 0);
  writeFile({"dddd"});
  EXPECT_EQ(tape(), "aaaa aaaa | bbbb bbbb | cccc cccc | dddd | |");
  EXPECT_EQ(blockOf(3), "dddd");
}

}  // namespace
