// Faults on demand: what they do to a tape, and what is no fault.
#include "drive/faults.h"

#include "base/pause.h"
#include "drivetest.h"

namespace {

class FaultTest : public DriveTest {
 protected:
  void faults(const std::string &text) { ASSERT_EQ(drive::setFaults("v0", text), ""); }
};

TEST_F(FaultTest, TheNthWriteFailsOnceAndTheTapeGoesOn) {
  faults("write 2 EIO\n");
  int fd = open(O_WRONLY);
  EXPECT_EQ(put(fd, "a"), 1);
  EXPECT_EQ(put(fd, "b"), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(put(fd, "c"), 1);
  EXPECT_EQ(drive::closeDrive(fd), 0);
  EXPECT_EQ(tape(), "a c | |");
}

TEST_F(FaultTest, CountsGoOnAcrossOpensAndProcesses) {
  faults("write 3 ENOSPC\n");
  writeFile({"a"});
  EXPECT_EQ(support::exitOf(support::inChild([&] {
              writeFile({"b"});
              return 0;
            })),
            0);
  int fd = open(O_WRONLY);
  EXPECT_EQ(put(fd, "c"), -1);
  EXPECT_EQ(errno, ENOSPC);
  drive::closeDrive(fd);
}

TEST_F(FaultTest, ALastingFaultStays) {
  writeFile({"a", "b", "c"});
  faults("read 2+ EIO");
  int fd = open(O_RDONLY);
  drive::operate(fd, MTREW, 1);
  EXPECT_EQ(take(fd), "a");
  for (int i = 0; i < 3; i++) EXPECT_EQ(take(fd), "EIO");
  faults("");
  EXPECT_EQ(take(fd), "b");
  drive::closeDrive(fd);
}

TEST_F(FaultTest, NewFaultsReachAProcessThatHasTheDriveOpen) {
  int fd = open(O_WRONLY);
  EXPECT_EQ(put(fd, "a"), 1);
  faults("write 1 EIO\n");
  EXPECT_EQ(put(fd, "b"), -1);
  faults("write 1 EIO\n");
  EXPECT_EQ(put(fd, "b"), -1);
  EXPECT_EQ(put(fd, "b"), 1);
  drive::closeDrive(fd);
}

TEST_F(FaultTest, AMarkThatFailsIsToldByTheCloseAndWrittenByTheNextOpen) {
  faults("mark 1 EIO\n");
  int fd = open(O_WRONLY);
  put(fd, "a");
  EXPECT_EQ(drive::closeDrive(fd), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(tape(), "a | |");
}

TEST_F(FaultTest, ReadableEvenWhenTheMarkNeverSucceeds) {
  faults("mark 1+ EIO\n");
  int fd = open(O_WRONLY);
  put(fd, "a");
  EXPECT_EQ(drive::closeDrive(fd), -1);
  EXPECT_EQ(openError(O_WRONLY), EIO);
  fd = open(O_RDONLY);
  EXPECT_EQ(drive::operate(fd, MTREW, 1), -1);
  drive::closeDrive(fd);
  faults("");
  EXPECT_EQ(tape(), "a | |");
}

TEST_F(FaultTest, RewindsAndSkipsFailToo) {
  writeFile({"a"});
  faults("rewind 2 EBUSY\nspace 1 EIO\n# a comment\n\n");
  int fd = open(O_RDONLY);
  EXPECT_EQ(drive::operate(fd, MTREW, 1), 0);
  EXPECT_EQ(drive::operate(fd, MTREW, 1), -1);
  EXPECT_EQ(errno, EBUSY);
  EXPECT_EQ(drive::operate(fd, MTFSF, 1), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(drive::operate(fd, MTFSF, 1), 0);
  drive::closeDrive(fd);
}

TEST_F(FaultTest, ACallCanBeMadeToWait) {
  writeFile({"a", "b"});
  faults("read 2 delay 80ms\nread 1 delay 40ms EIO\n");
  int fd = open(O_RDONLY);
  drive::operate(fd, MTREW, 1);
  long long begin = base::nowMs();
  EXPECT_EQ(take(fd), "EIO");
  EXPECT_GE(base::nowMs() - begin, 39);
  begin = base::nowMs();
  EXPECT_EQ(take(fd), "a");
  EXPECT_GE(base::nowMs() - begin, 79);
  drive::closeDrive(fd);
}

TEST_F(FaultTest, TheTapeEndsAfterSoManyBytes) {
  faults("eom-after 20000\n");
  int fd = open(O_WRONLY);
  std::string block(8192, 'x');
  int good = 0;
  while (put(fd, block) > 0) good++;
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_EQ(good, 3);
  EXPECT_EQ(put(fd, block), 8192);
  EXPECT_EQ(put(fd, block), -1);
  for (int refused = 0; refused < 4 && good < 1000; good++)
    refused = put(fd, block) < 0 ? refused + 1 : 0;
  EXPECT_LT(good, 1000);
  EXPECT_LT(image().size(), 20000u + 512 * 1024 + 3 * 8200);
  EXPECT_EQ(drive::closeDrive(fd), 0);
}

TEST_F(FaultTest, AFileWrittenByHandCountsFromTheNextOpen) {
  support::writeFile(path("var/vtape/v0/faults"), "write 1 EIO\nnonsense\n");
  int fd = open(O_WRONLY);
  EXPECT_EQ(put(fd, "a"), -1);
  EXPECT_EQ(put(fd, "a"), 1);
  drive::closeDrive(fd);
  EXPECT_NE(hostLog().find("NOTICE:  Drive v0: fault not understood, left out: nonsense\n"),
            std::string::npos);
}

TEST_F(FaultTest, LinesThatAreNoFaultsAreRefused) {
  for (const char *line :
       {"nonsense", "write", "write 1", "write 0 EIO", "write -1 EIO", "write x EIO",
        "write 1 EWHAT", "write 1 delay", "write 1 delay x", "write 1 delay 5h",
        "write 1 delay 99999999ms", "write 1 EIO EIO", "eom-after", "eom-after x", "eom-after -5",
        "write 5- EIO", "write 99999999999 EIO", "fly 1 EIO"})
    EXPECT_EQ(drive::setFaults("v0", std::string("write 9 EIO\n") + line),
              std::string("Line 2 of the faults is not understood: ") + line);
  EXPECT_FALSE(support::exists(path("var/vtape/v0/faults")));
  EXPECT_NE(drive::setFaults("none", "write 1 EIO"), "");
}

TEST_F(FaultTest, ThereIsRoomForSixteen) {
  drive::Faults faults = {};
  for (int i = 0; i < 16; i++) EXPECT_TRUE(drive::parseFault("write 5 EIO", &faults));
  EXPECT_FALSE(drive::parseFault("write 5 EIO", &faults));
}

}  // namespace
