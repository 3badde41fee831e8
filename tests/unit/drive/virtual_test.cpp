// What a virtual drive does beyond the points that all drives share.
#include <sys/stat.h>

#include <fstream>

#include "drivetest.h"

namespace {

TEST_F(DriveTest, IsKnownByItsPath) {
  EXPECT_TRUE(drive::isVirtual("/dev/vtape/v0"));
  EXPECT_FALSE(drive::isVirtual("/dev/vtape"));
  EXPECT_FALSE(drive::isVirtual("/dev/nst0"));
  EXPECT_FALSE(drive::isRewindingNode("/dev/vtape/v0"));
  EXPECT_FALSE(drive::isRewindingNode("/dev/null"));
  EXPECT_FALSE(drive::isRewindingNode("/no/such/node"));
}

TEST_F(DriveTest, NamesOutsideTheFolderAreNoDrives) {
  for (const char *name :
       {"/dev/vtape/", "/dev/vtape/..", "/dev/vtape/.", "/dev/vtape/v0/../v0", "/dev/vtape/other",
        "/dev/vtape/shelf", "/dev/vtape/a b", "/dev/vtape/a\nb"})
    EXPECT_EQ(openError(O_RDONLY, name), ENOENT) << name;
  std::string longName = "/dev/vtape/" + std::string(64, 'a');
  EXPECT_EQ(openError(O_RDWR | O_CREAT, longName.c_str()), ENOENT);
  EXPECT_FALSE(support::exists(path("var/vtape/other")));
}

TEST_F(DriveTest, WithoutACartridgeFailsAtOnce) {
  ASSERT_EQ(drive::unloadCartridge("v0"), "");
  EXPECT_EQ(openError(O_RDONLY), ENOMEDIUM);
  EXPECT_EQ(openError(O_WRONLY), ENOMEDIUM);
  int fd = open(O_RDWR | O_NONBLOCK);
  EXPECT_EQ(put(fd, "abc"), -1);
  EXPECT_EQ(errno, ENOMEDIUM);
  EXPECT_EQ(drive::operate(fd, MTREW, 1), -1);
  EXPECT_EQ(errno, ENOMEDIUM);
  EXPECT_EQ(drive::closeDrive(fd), 0);
}

TEST_F(DriveTest, WhoseImageIsGoneHasNoMedium) {
  unlink(imagePath().c_str());
  EXPECT_EQ(openError(O_RDONLY), ENOMEDIUM);
  ASSERT_EQ(symlink("/etc/passwd", imagePath().c_str()), 0);
  EXPECT_NE(openError(O_RDWR), 0);
}

TEST_F(DriveTest, OtherDescriptorsGoToTheKernel) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  EXPECT_EQ(drive::waitReadable(ends[0], 0), 0);
  EXPECT_EQ(drive::writeBlock(ends[1], "abc", 3), 3);
  EXPECT_EQ(drive::waitReadable(ends[0], 1000), 1);
  EXPECT_EQ(take(ends[0], 10), "abc");
  EXPECT_EQ(drive::operate(ends[0], MTREW, 1), -1);
  mtget now;
  EXPECT_EQ(drive::status(ends[0], &now), -1);
  EXPECT_EQ(drive::closeDrive(ends[0]), 0);
  drive::abandonDrive(ends[1]);
  EXPECT_EQ(drive::closeDrive(ends[1]), -1);
  EXPECT_EQ(errno, EBADF);
  EXPECT_EQ(drive::waitReadable(ends[1], 0), -1);
  EXPECT_EQ(drive::waitReadable(-1, 0), -1);
}

TEST_F(DriveTest, OrdinaryFilesOpenAsEver) {
  std::string name = path("tmp/file");
  int fd = drive::openDrive(name.c_str(), O_RDWR | O_CREAT, 0600);
  ASSERT_GE(fd, 0);
  EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC);
  EXPECT_EQ(put(fd, "abc"), 3);
  EXPECT_EQ(drive::closeDrive(fd), 0);
  EXPECT_EQ(support::readFile(name), "abc");
}

TEST_F(DriveTest, ItsDescriptorCarriesNoData) {
  int fd = open(O_RDWR);
  EXPECT_EQ(put(fd, "tape"), 4);
  EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC);
  EXPECT_EQ(::write(fd, "stray", 5), -1);
  EXPECT_EQ(errno, EBADF);
  EXPECT_EQ(drive::closeDrive(fd), 0);
  EXPECT_EQ(tape(), "tape | |");
}

TEST_F(DriveTest, ClosedBehindItsBackIsForgotten) {
  int fd = open(O_RDONLY);
  close(fd);
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  ASSERT_EQ(ends[0], fd);
  EXPECT_EQ(::write(ends[1], "pipe", 4), 4);
  EXPECT_EQ(take(ends[0], 10), "pipe");
  close(ends[0]);
  close(ends[1]);
  for (int i = 0; i < 100; i++) close(open(O_RDONLY));
  EXPECT_EQ(tape(), "EIO");
}

TEST_F(DriveTest, ABlockIsAtMostAMebibyte) {
  int fd = open(O_RDWR);
  EXPECT_EQ(put(fd, std::string(1024 * 1024 + 1, 'x')), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(put(fd, std::string(1024 * 1024, 'x')), 1024 * 1024);
  drive::closeDrive(fd);
}

TEST_F(DriveTest, ReadsNothingBeyondTheBlockIntoTheBuffer) {
  writeFile({"abc", "defgh"});
  int fd = open(O_RDONLY);
  drive::operate(fd, MTREW, 1);
  char buffer[8];
  memset(buffer, '#', sizeof buffer);
  EXPECT_EQ(drive::readBlock(fd, buffer, sizeof buffer), 3);
  EXPECT_EQ(std::string(buffer, sizeof buffer), "abc#####");
  drive::closeDrive(fd);
}

TEST_F(DriveTest, InFixedModeMovesWholeBlocks) {
  int fd = open(O_RDWR);
  EXPECT_EQ(drive::operate(fd, MTSETBLK, 4), 0);
  EXPECT_EQ(put(fd, "aaaabbbbcccc"), 12);
  drive::operate(fd, MTREW, 1);
  EXPECT_EQ(take(fd, 6), "EINVAL");
  EXPECT_EQ(take(fd, 8), "aaaabbbb");
  EXPECT_EQ(take(fd, 8), "cccc");
  EXPECT_EQ(take(fd, 8), "|");
  EXPECT_EQ(take(fd, 8), "|");
  EXPECT_EQ(take(fd, 8), "EIO");
  drive::operate(fd, MTREW, 1);
  EXPECT_EQ(drive::operate(fd, MTSETBLK, 8), 0);
  EXPECT_EQ(take(fd, 8), "EIO");
  for (int size : {-1, 1024 * 1024 + 1}) {
    EXPECT_EQ(drive::operate(fd, MTSETBLK, size), -1);
    EXPECT_EQ(errno, EINVAL);
  }
  EXPECT_EQ(drive::operate(fd, MTSETBLK, 0), 0);
  EXPECT_EQ(take(fd, 8), "aaaa");
  drive::closeDrive(fd);
}

TEST_F(DriveTest, EjectsItsCartridge) {
  writeFile({"abc"});
  int fd = open(O_RDWR);
  put(fd, "def");
  EXPECT_EQ(drive::operate(fd, MTOFFL, 1), 0);
  EXPECT_EQ(take(fd), "ENOMEDIUM");
  drive::closeDrive(fd);
  EXPECT_EQ(openError(O_RDONLY), ENOMEDIUM);
  ASSERT_EQ(drive::loadCartridge("v0", "c1"), "");
  EXPECT_EQ(tape(), "abc | def | |");
}

TEST_F(DriveTest, StepsOverTheOtherSideOfAMark) {
  for (const char *block : {"a", "b", "c"}) writeFile({block});
  int fd = open(O_RDONLY);
  drive::operate(fd, MTREW, 1);
  EXPECT_EQ(drive::operate(fd, MTFSFM, 2), 0);
  EXPECT_EQ(take(fd), "|");
  EXPECT_EQ(take(fd), "c");
  EXPECT_EQ(drive::operate(fd, MTBSFM, 2), 0);
  EXPECT_EQ(place(fd), "1/0");
  EXPECT_EQ(take(fd), "b");
  EXPECT_EQ(drive::operate(fd, MTFSFM, 0), 0);
  EXPECT_EQ(drive::operate(fd, MTBSFM, 0), 0);
  EXPECT_EQ(take(fd), "|");
  EXPECT_EQ(drive::operate(fd, MTBSFM, 9), -1);
  EXPECT_EQ(place(fd), "0/0");
  drive::closeDrive(fd);
}

TEST_F(DriveTest, GoingBackEndsWhatWasWrittenFirst) {
  int fd = open(O_RDWR);
  put(fd, "one");
  put(fd, "two");
  EXPECT_EQ(drive::operate(fd, MTBSR, 1), 0);
  EXPECT_EQ(place(fd), "0/1");
  EXPECT_EQ(take(fd), "two");
  EXPECT_EQ(take(fd), "|");
  put(fd, "three");
  EXPECT_EQ(drive::operate(fd, MTBSF, 1), 0);
  EXPECT_EQ(take(fd), "|");
  EXPECT_EQ(take(fd), "three");
  drive::closeDrive(fd);
  EXPECT_EQ(tape(), "one two | three | |");
}

TEST_F(DriveTest, ErasesWhatLiesBehind) {
  for (const char *block : {"a", "b", "c"}) writeFile({block});
  int fd = open(O_RDONLY);
  EXPECT_EQ(drive::operate(fd, MTERASE, 1), -1);
  EXPECT_EQ(errno, EACCES);
  drive::closeDrive(fd);
  fd = open(O_RDWR);
  drive::operate(fd, MTREW, 1);
  drive::operate(fd, MTFSF, 1);
  EXPECT_EQ(drive::operate(fd, MTERASE, 1), 0);
  drive::closeDrive(fd);
  EXPECT_EQ(tape(), "a | |");
}

TEST_F(DriveTest, RefusesWhatItDoesNotKnow) {
  int fd = open(O_RDWR);
  EXPECT_EQ(drive::operate(fd, MTSEEK, 1), -1);
  EXPECT_EQ(errno, ENOSYS);
  for (short operation : {MTFSF, MTBSF, MTFSR, MTBSR, MTWEOF}) {
    EXPECT_EQ(drive::operate(fd, operation, -1), -1) << operation;
    EXPECT_EQ(errno, EINVAL) << operation;
  }
  drive::closeDrive(fd);
  EXPECT_EQ(openError(O_ACCMODE), EINVAL);
}

TEST_F(DriveTest, WritesManyMarksAtOnce) {
  int fd = open(O_RDWR);
  EXPECT_EQ(drive::operate(fd, MTWEOF, 700), 0);
  EXPECT_EQ(place(fd), "700/0");
  EXPECT_EQ(drive::operate(fd, MTWEOF, 2000000), -1);
  EXPECT_EQ(errno, ENOSPC);
  drive::operate(fd, MTREW, 1);
  EXPECT_EQ(drive::operate(fd, MTEOM, 1), 0);
  EXPECT_EQ(place(fd), "700/-1");
  drive::closeDrive(fd);
}

TEST_F(DriveTest, NeverOutgrowsItsCapacity) {
  int fd = open(O_WRONLY);
  std::string block(8192, 'x');
  for (int refused = 0; refused < 4;) refused = put(fd, block) < 0 ? refused + 1 : 0;
  EXPECT_EQ(drive::closeDrive(fd), 0);
  EXPECT_LE(image().size(), kCapacity + 4);
  EXPECT_GT(image().size(), kCapacity - 2 * 8200);
}

TEST_F(DriveTest, AMarkClearsTheWayForATrailerAtTheEndOfTheTape) {
  int fd = open(O_WRONLY);
  std::string block(8192, 'x');
  while (put(fd, block) > 0) continue;
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_EQ(drive::operate(fd, MTWEOF, 1), 0);
  EXPECT_EQ(put(fd, "trailer"), 7);
  EXPECT_EQ(drive::closeDrive(fd), 0);
}

// The worked example of docs/formats/vtape.md.
TEST_F(DriveTest, AnImageIsByteForByteAsTheFormatSays) {
  writeFile({"hello", "tape"});
  EXPECT_EQ(image(), std::string("\x05\0\0\0hello\0\x05\0\0\0"
                                 "\x04\0\0\0tape\x04\0\0\0"
                                 "\0\0\0\0",
                                 30));
}

// ---- what lies on the disk is not to be trusted

TEST_F(DriveTest, DamageIsAnInputError) {
  writeFile({"abcd", "efgh"});
  std::string bytes = image();
  bytes[12 + 8] = '\5';  // the second length of the second block
  support::writeFile(imagePath(), bytes);
  EXPECT_EQ(tape(), "abcd EIO");
  int fd = open(O_RDONLY);
  drive::operate(fd, MTREW, 1);
  EXPECT_EQ(drive::operate(fd, MTFSF, 1), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(drive::operate(fd, MTEOM, 1), -1);
  EXPECT_EQ(errno, EIO);
  drive::closeDrive(fd);
}

TEST_F(DriveTest, AStateOfAnotherImageIsNoPosition) {
  writeFile({"abcd"});
  support::writeFile(imagePath(), "");
  int fd = open(O_RDONLY);
  EXPECT_EQ(place(fd), "0/0");
  EXPECT_EQ(take(fd), "EIO");
  drive::closeDrive(fd);
}

TEST_F(DriveTest, ADamagedStateMeansTheBeginning) {
  writeFile({"abcd"});
  const std::string good = support::readFile(statePath());
  ASSERT_EQ(good.size(), 4096u);
  for (size_t at = 0; at < 168; at++) {
    std::string bad = good;
    for (size_t i = at; i < at + 8; i++) bad[i] = '\xff';
    support::writeFile(statePath(), bad);
    int fd = open(O_RDONLY);
    take(fd, 64);
    drive::operate(fd, MTFSF, 1);
    drive::operate(fd, MTBSR, 1);
    drive::closeDrive(fd);
    EXPECT_EQ(image().size(), 16u) << at;
  }
  for (size_t length : {0u, 1u, 100u, 4095u, 9000u}) {
    support::writeFile(statePath(),
                       good.substr(0, length) + std::string(length > 4096 ? 4904 : 0, 'x'));
    int fd = open(O_RDONLY);
    EXPECT_EQ(place(fd), "0/0") << length;
    EXPECT_EQ(take(fd), "abcd");
    drive::closeDrive(fd);
  }
}

TEST_F(DriveTest, ALoadedNameLeadsNowhereElse) {
  support::writeFile(path("var/vtape/v0/cartridge"), "../../../etc/ZULsite\n");
  EXPECT_EQ(openError(O_RDONLY), ENOMEDIUM);
  support::writeFile(path("var/vtape/v0/cartridge"), std::string(100000, 'a'));
  EXPECT_EQ(openError(O_RDONLY), ENOMEDIUM);
}

TEST_F(DriveTest, ALabelThatCannotBeReadProtects) {
  for (const char *label :
       {"", "capacity = many\nprotected = no\n", "capacity = -1\nprotected = no\n",
        "capacity = 99999999999999999999999\nprotected = no\n", "protected = yes\n"}) {
    support::writeFile(path("var/vtape/shelf/c1.info"), label);
    EXPECT_EQ(openError(O_WRONLY), EROFS) << label;
    EXPECT_EQ(openError(O_RDONLY), 0) << label;
  }
  support::writeFile(path("var/vtape/shelf/c1.info"), "protected = no\n");
  EXPECT_EQ(openError(O_WRONLY), 0);
}

}  // namespace
