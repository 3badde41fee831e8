// The image layout byte for byte, and images that are torn or damaged.
#include "drive/image.h"

#include <sys/mman.h>

#include "drivetest.h"

namespace {

using drive::image::Kind;
using drive::image::Record;

// An image in memory.
class Image : public ::testing::Test {
 protected:
  void SetUp() override { fd = memfd_create("image", MFD_CLOEXEC); }
  void TearDown() override { close(fd); }

  void fill(const std::string &bytes) {
    ASSERT_EQ(ftruncate(fd, 0), 0);
    ASSERT_EQ(pwrite(fd, bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
  }
  std::string bytes() {
    std::string all(1024, '\0');
    ssize_t got = pread(fd, all.data(), all.size(), 0);
    all.resize(got > 0 ? static_cast<size_t>(got) : 0);
    return all;
  }
  int fd = -1;
};

std::string text(const char *bytes, size_t length) {
  return {bytes, length};
}
#define BYTES(literal) text(literal, sizeof(literal) - 1)

TEST_F(Image, HasLengthsAroundEvenDataAndZeroForAMark) {
  ASSERT_EQ(drive::image::putBlock(fd, 0, "abcd", 4), 12);
  ASSERT_EQ(drive::image::putBlock(fd, 12, "xyz", 3), 12);
  ASSERT_EQ(drive::image::putMarks(fd, 24, 2), 0);
  EXPECT_EQ(bytes(), BYTES("\4\0\0\0abcd\4\0\0\0"
                           "\3\0\0\0xyz\0\3\0\0\0"
                           "\0\0\0\0\0\0\0\0"));
}

TEST_F(Image, IsReadForwardsAndBackwards) {
  fill(BYTES("\4\0\0\0abcd\4\0\0\0\3\0\0\0xyz\0\3\0\0\0\0\0\0\0"));
  Record record = drive::image::look(fd, 12);
  char data[3];
  EXPECT_EQ(record.kind, Kind::data);
  EXPECT_EQ(record.length, 3u);
  EXPECT_EQ(record.next, 24);
  EXPECT_EQ(drive::image::takeData(fd, record, data), Kind::data);
  EXPECT_EQ(std::string(data, 3), "xyz");
  EXPECT_EQ(drive::image::look(fd, 24).kind, Kind::mark);
  EXPECT_EQ(drive::image::look(fd, 28).kind, Kind::end);

  EXPECT_EQ(drive::image::lookBack(fd, 28).kind, Kind::mark);
  record = drive::image::lookBack(fd, 24);
  EXPECT_EQ(record.kind, Kind::data);
  EXPECT_EQ(record.next, 12);
  EXPECT_EQ(drive::image::lookBack(fd, 12).next, 0);
  EXPECT_EQ(drive::image::lookBack(fd, 0).kind, Kind::end);
}

TEST_F(Image, OfOtherToolsMayHaveGapsAndAnEndOfMedium) {
  fill(BYTES("\xfe\xff\xff\xff\xfe\xff\xff\xff\2\0\0\0ab\2\0\0\0\xfe\xff\xff\xff\xff\xff\xff\xff"));
  drive::image::Walk walk(fd, 0);
  EXPECT_EQ(walk.next().kind, Kind::data);
  EXPECT_EQ(walk.offset(), 18);
  EXPECT_EQ(walk.next().kind, Kind::end);
  EXPECT_EQ(drive::image::lookBack(fd, 22).next, 8);
  EXPECT_EQ(drive::image::lookBack(fd, 8).kind, Kind::end);
}

TEST_F(Image, EndsBeforeARecordThatWasNeverFinished) {
  const std::string whole = BYTES("\4\0\0\0abcd\4\0\0\0");
  for (size_t length = 0; length < whole.size(); length++) {
    fill(whole + whole.substr(0, length));
    drive::image::Walk walk(fd, 0);
    EXPECT_EQ(walk.next().kind, Kind::data) << length;
    EXPECT_EQ(walk.next().kind, Kind::end) << length;
    EXPECT_EQ(walk.offset(), 12) << length;
    Record record = drive::image::look(fd, 12);
    char data[4];
    EXPECT_EQ(record.kind == Kind::data ? drive::image::takeData(fd, record, data) : record.kind,
              Kind::end);
    EXPECT_EQ(record.kind == Kind::data ? drive::image::confirm(fd, record) : record.kind,
              Kind::end);
  }
}

TEST_F(Image, WithLengthsThatDisagreeIsDamaged) {
  fill(BYTES("\4\0\0\0abcd\5\0\0\0"));
  Record record = drive::image::look(fd, 0);
  char data[4];
  EXPECT_EQ(drive::image::takeData(fd, record, data), Kind::damage);
  EXPECT_EQ(drive::image::confirm(fd, record), Kind::damage);
  drive::image::Walk walk(fd, 0);
  EXPECT_EQ(walk.next().kind, Kind::damage);
  EXPECT_EQ(walk.offset(), 0);
  EXPECT_EQ(drive::image::lookBack(fd, 12).kind, Kind::damage);
}

TEST_F(Image, WithALengthNoDriveWritesIsDamaged) {
  for (const std::string &word :
       {BYTES("\1\0\x10\0"), BYTES("\4\0\0\x80"), BYTES("\xfd\xff\xff\xff")}) {
    fill(word + std::string(64, 'x') + word);
    EXPECT_EQ(drive::image::look(fd, 0).kind, Kind::damage);
    EXPECT_EQ(drive::image::lookBack(fd, 72).kind, Kind::damage);
  }
  // The longest block is not damage, only unfinished here.
  fill(BYTES("\0\0\x10\0") + "x");
  EXPECT_EQ(drive::image::look(fd, 0).kind, Kind::data);
}

TEST_F(Image, LooksBackNoFurtherThanTheBeginning) {
  fill(BYTES("ab\4\0\0\0"));
  EXPECT_EQ(drive::image::lookBack(fd, 6).kind, Kind::damage);
  fill(BYTES("ab"));
  EXPECT_EQ(drive::image::lookBack(fd, 2).kind, Kind::damage);
}

TEST_F(Image, WalksOverMarksAndBlocksAlike) {
  std::string bytes;
  for (int i = 0; i < 50; i++) bytes += BYTES("\1\0\0\0a\0\1\0\0\0\0\0\0\0");
  fill(bytes);
  drive::image::Walk walk(fd, 0);
  for (int i = 0; i < 50; i++) {
    EXPECT_EQ(walk.next().kind, Kind::data);
    EXPECT_EQ(walk.next().kind, Kind::mark);
  }
  EXPECT_EQ(walk.next().kind, Kind::end);
  EXPECT_EQ(walk.offset(), static_cast<int64_t>(bytes.size()));
}

}  // namespace
