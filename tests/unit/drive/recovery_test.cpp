// What is left when a writer is killed, the power fails or the host's disk is full.
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include "drivetest.h"

namespace {

class Recovery : public DriveTest {
 protected:
  // A writer that is killed before it closes.
  void writeAndDie(std::initializer_list<std::string> blocks) {
    int status = support::inChild([&] {
      int fd = drive::openDrive(kDevice, O_WRONLY);
      for (const std::string &block : blocks) put(fd, block);
      raise(SIGKILL);
      return 0;
    });
    ASSERT_EQ(support::exitOf(status), 1000 + SIGKILL);
  }
  void append(const std::string &bytes) { support::writeFile(imagePath(), image() + bytes); }
};

TEST_F(Recovery, AKilledWritersBlocksAreKeptAndClosedByTheNextOpen) {
  writeFile({"first"});
  writeAndDie({"aaaa", "bbb"});
  EXPECT_EQ(tape(), "first | aaaa bbb | |");
}

TEST_F(Recovery, ATornTailCostsTheUnfinishedBlockOnly) {
  const std::string record("\4\0\0\0cccc\4\0\0\0", 12);
  for (size_t length = 1; length < record.size(); length++) {
    int fd = open(O_RDONLY);
    drive::operate(fd, MTREW, 1);
    drive::closeDrive(fd);
    writeAndDie({"aaaa", "bbb"});
    append(record.substr(0, length));
    EXPECT_EQ(tape(), "aaaa bbb | |") << length;
    EXPECT_EQ(image().size(), 28u) << length;
  }
}

TEST_F(Recovery, AWholeBlockThatWasNeverReportedIsKept) {
  writeAndDie({"aaaa"});
  append(std::string("\4\0\0\0cccc\4\0\0\0", 12));
  EXPECT_EQ(tape(), "aaaa cccc | |");
}

TEST_F(Recovery, ZerosThatAPowerCutLeftAreNoMarks) {
  writeFile({"first"});
  writeAndDie({"aaaa"});
  append(std::string(8192, '\0'));
  EXPECT_EQ(tape(), "first | aaaa | |");
}

TEST_F(Recovery, NothingBeforeTheLastMarkIsEverCut) {
  writeFile({"first"});
  writeFile({"second"});
  size_t whole = image().size();
  writeAndDie({"aaaa"});
  ASSERT_EQ(truncate(imagePath().c_str(), static_cast<off_t>(whole)), 0);
  EXPECT_EQ(tape(), "first | second | |");
}

TEST_F(Recovery, ADamagedStateCutsNoGoodBlock) {
  writeFile({"first", "second"});
  writeAndDie({"aaaa"});
  std::string state = support::readFile(statePath());
  const std::string whole = image();
  for (char durable : {1, 4, 7, 13, 15, 25}) {
    state[96] = durable;
    support::writeFile(statePath(), state);
    support::writeFile(imagePath(), whole);
    EXPECT_EQ(tape(), "first second | aaaa EIO") << int{durable};
  }
}

TEST_F(Recovery, AnUnknownTornTapeIsReadToItsLastWholeBlock) {
  writeFile({"aaaa"});
  append(std::string("\4\0\0\0cc", 6));
  EXPECT_EQ(tape(), "aaaa | |");
  EXPECT_EQ(image().size(), 16u + 6u);
  int fd = open(O_RDWR);
  EXPECT_EQ(drive::operate(fd, MTEOM, 1), 0);
  EXPECT_EQ(put(fd, "dddd"), 4);
  drive::closeDrive(fd);
  EXPECT_EQ(tape(), "aaaa | dddd | |");
}

TEST_F(Recovery, AWriterMayBeKilledAtAnyMoment) {
  const std::string block(1024 * 1024 - 8, 'x');
  ASSERT_EQ(drive::unloadCartridge("v0"), "");
  ASSERT_EQ(drive::makeCartridge("big", 1ULL << 40), "");
  ASSERT_EQ(drive::loadCartridge("v0", "big"), "");
  size_t previous = 0;
  for (int round = 0; round < 8; round++) {
    pid_t child = fork();
    if (child == 0) {
      int fd = drive::openDrive(kDevice, O_WRONLY);
      for (;;)
        if (put(fd, block) < 0) _exit(1);
    }
    struct stat now = {};
    size_t least = previous + static_cast<size_t>(2 + round) * block.size();
    EXPECT_TRUE(support::eventually(
        [&] {
          return stat(imagePath("big").c_str(), &now) == 0 &&
                 static_cast<size_t>(now.st_size) > least;
        },
        20000));
    kill(child, SIGKILL);
    int status = 0;
    waitpid(child, &status, 0);
    // Whole blocks and a mark, whatever the kill cut off.
    int fd = open(O_RDONLY);
    EXPECT_EQ(place(fd), std::to_string(round + 1) + "/0");
    drive::closeDrive(fd);
    ASSERT_EQ(stat(imagePath("big").c_str(), &now), 0);
    EXPECT_EQ((static_cast<size_t>(now.st_size) - previous - 4) % (block.size() + 8), 0u);
    previous = static_cast<size_t>(now.st_size);
    ASSERT_LT(previous, size_t{1} << 30);
  }
  int fd = open(O_RDONLY);
  drive::operate(fd, MTREW, 1);
  EXPECT_EQ(drive::operate(fd, MTFSF, 8), 0);
  EXPECT_EQ(take(fd, 16), "|");
  drive::closeDrive(fd);
}

TEST_F(Recovery, AChildThatWasKilledDoesNotHurtItsParentsTape) {
  int fd = open(O_WRONLY);
  put(fd, "aaaa");
  int status = support::inChild([&] {
    put(fd, "bbbb");
    raise(SIGKILL);
    return 0;
  });
  EXPECT_EQ(support::exitOf(status), 1000 + SIGKILL);
  append(std::string("\4\0\0\0c", 5));
  EXPECT_EQ(drive::closeDrive(fd), 0);
  EXPECT_EQ(tape(), "aaaa bbbb | |");
}

TEST_F(Recovery, AnAbandoningChildLeavesTheTapeToItsParent) {
  int fd = open(O_WRONLY);
  put(fd, "aaaa");
  EXPECT_EQ(support::exitOf(support::inChild([&] {
              drive::abandonDrive(fd);
              return openError(O_RDONLY) == EBUSY ? 0 : 1;
            })),
            0);
  EXPECT_EQ(put(fd, "bbbb"), 4);
  EXPECT_EQ(drive::closeDrive(fd), 0);
  EXPECT_EQ(tape(), "aaaa bbbb | |");
}

TEST_F(Recovery, TheLastOfSeveralHoldersWritesTheMark) {
  int fd = open(O_WRONLY);
  put(fd, "aaaa");
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  pid_t child = fork();
  if (child == 0) {
    char byte;
    close(ends[1]);
    (void)!read(ends[0], &byte, 1);
    put(fd, "bbbb");
    _exit(drive::closeDrive(fd) == 0 ? 0 : 1);
  }
  EXPECT_EQ(drive::closeDrive(fd), 0);
  EXPECT_EQ(image().size(), 12u);
  close(ends[1]);
  close(ends[0]);
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_EQ(support::exitOf(status), 0);
  EXPECT_EQ(image().size(), 12u + 12u + 4u);
}

TEST_F(Recovery, ListingFinishesWhatAKilledWriterLeft) {
  writeAndDie({"aaaa"});
  std::vector<drive::DriveInfo> drives = drive::listDrives();
  ASSERT_EQ(drives.size(), 1u);
  EXPECT_EQ(drives[0].fileNo, 1);
  EXPECT_EQ(image().size(), 16u);
}

TEST_F(Recovery, AJobNeverFindsTheDriveBusyBecauseOfAListing) {
  pid_t lister = fork();
  if (lister == 0)
    for (;;) drive::listDrives();
  int failures = 0;
  for (int i = 0; i < 200; i++) {
    int fd = drive::openDrive(kDevice, O_WRONLY);
    failures += fd < 0 || put(fd, "abcd") != 4 || drive::closeDrive(fd) != 0;
    failures += image().size() != static_cast<size_t>(i + 1) * 16;
  }
  kill(lister, SIGKILL);
  int status = 0;
  waitpid(lister, &status, 0);
  EXPECT_EQ(failures, 0);
}

// ---- the host's disk is full

TEST_F(Recovery, AFullDiskIsAFullTapeWithoutAHalfBlock) {
  EXPECT_EQ(support::exitOf(support::inChild([&] {
              signal(SIGXFSZ, SIG_IGN);
              rlimit limit = {100000, 100000};
              setrlimit(RLIMIT_FSIZE, &limit);
              int fd = drive::openDrive(kDevice, O_WRONLY);
              int good = 0;
              while (put(fd, std::string(8192, 'x')) == 8192) good++;
              bool isRight = good == 12 && errno == ENOSPC && image().size() == 12 * 8200;
              // Smaller blocks still fit, and so does the mark.
              isRight = isRight && put(fd, "small") == 5 && drive::closeDrive(fd) == 0;
              return isRight ? 0 : 1;
            })),
            0);
  int fd = open(O_RDONLY);
  drive::operate(fd, MTREW, 1);
  for (int i = 0; i < 12; i++) EXPECT_EQ(take(fd).size(), 8192u);
  EXPECT_EQ(take(fd), "small");
  EXPECT_EQ(take(fd), "|");
  drive::closeDrive(fd);
}

// A place where mounting is allowed, for root and for anybody else.
bool ownMounts() {
  std::string user = "0 " + std::to_string(geteuid()) + " 1";
  std::string group = "0 " + std::to_string(getegid()) + " 1";
  if (unshare(CLONE_NEWNS) != 0) {
    if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) return false;
    // Files cannot be made for a user or group that the new namespace does not know.
    support::writeFile("/proc/self/setgroups", "deny");
    support::writeFile("/proc/self/uid_map", user);
    support::writeFile("/proc/self/gid_map", group);
  }
  return mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

// On a file system of its own with room for a few blocks only.
TEST_F(Recovery, AFullFileSystemIsSurvivedByTheTape) {
  int status = support::inChild([&] {
    if (!ownMounts()) return 2;
    if (mount("tmpfs", home.c_str(), "tmpfs", 0, "size=300k") != 0) return 2;
    if (!drive::makeDrive("v0").empty() || !drive::makeCartridge("c1", kCapacity).empty() ||
        !drive::loadCartridge("v0", "c1").empty())
      return 3;
    int fd = drive::openDrive(kDevice, O_WRONLY);
    long good = 0;
    while (put(fd, std::string(8192, 'x')) == 8192) good++;
    if (errno != ENOSPC || good < 10) return 4;
    // Whether the mark still fits or not, the tape stays whole blocks and can be read.
    drive::closeDrive(fd);
    fd = drive::openDrive(kDevice, O_RDONLY);
    if (fd < 0) return 5;
    drive::operate(fd, MTREW, 1);
    while (take(fd).size() == 8192) good--;
    if (good != 0) return 6;
    drive::closeDrive(fd);
    // Another open for writing, from the beginning, has room again.
    fd = drive::openDrive(kDevice, O_RDONLY);
    drive::operate(fd, MTREW, 1);
    drive::closeDrive(fd);
    fd = drive::openDrive(kDevice, O_WRONLY);
    if (put(fd, "again") != 5 || drive::closeDrive(fd) != 0) return 7;
    return tape() == "again | |" ? 0 : 8;
  });
  EXPECT_EQ(support::exitOf(status), 0);
}

}  // namespace
