// Labels on the medium, and finding one's place on it, with virtual drives.
#include <errno.h>
#include <signal.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <zul/host.h>

#include <filesystem>

#include "base/pause.h"
#include "media.h"
#include "tape/tapeio.h"

using media::bytesOf;
using media::exists;
using media::makeLabel;
using media::makeRecord;
using media::readTapeBlock;
using media::writeFile;
using media::writeTapeFile;

namespace {

namespace fs = std::filesystem;

class Medium : public media::MediaTest {
 protected:
  void SetUp() override {
    MediaTest::SetUp();
    device = addVirtualDrive(0);
  }
  // A tape whose first block this is, rewound.
  void tapeWith(const std::string &block) {
    ASSERT_EQ(run(mtRewind, device), 0);
    writeTapeFile(device, {block});
    ASSERT_EQ(run(mtRewind, device), 0);
  }
  int forward(int count) {
    return run([&](char *path) { return mtFSF(path, count); }, device);
  }
  std::string device;
};

// Holds a drive open in another process until the object ends.
class Holder {
 public:
  explicit Holder(const std::string &device, int forMs = -1) {
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    pid_ = fork();
    if (pid_ == 0) {
      int fd = drive::openDrive(device.c_str(), O_RDONLY);
      if (fd < 0 || write(ends[1], "x", 1) != 1) _exit(1);
      if (forMs >= 0)
        usleep(static_cast<useconds_t>(forMs) * 1000);
      else
        pause();
      drive::closeDrive(fd);
      _exit(0);
    }
    close(ends[1]);
    char byte;
    EXPECT_EQ(read(ends[0], &byte, 1), 1) << "the holder could not open the drive";
    close(ends[0]);
  }
  ~Holder() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }

 private:
  pid_t pid_;
};

TEST_F(Medium, ALabelIsTheFirstBlockAndTheSameAsTheHeader) {
  for (const char *behaviour : {"classic", "sound"}) {
    behave(behaviour);
    EXPECT_EQ(run(addTape, "0:1:2:3:lab"), 0);
    EXPECT_EQ(said,
              "Drive num = 0\nDrive path = " + device + "\nDevice file backup to " + device + "\n");
    std::string block = readTapeBlock(device);
    EXPECT_EQ(block.size(), 2056u);
    int tape = strcmp(behaviour, "sound") == 0 ? 1 : 0;
    EXPECT_EQ(block, media::readFile(tapeDir(0, tape) + "/header"));
    EXPECT_EQ(block.substr(0, 4), "HeAd");
  }
}

TEST_F(Medium, LabellingAnewDropsWhatWasOnTheTape) {
  writeTapeFile(device, {"one", "two"});
  writeTapeFile(device, {"three"});
  EXPECT_EQ(run(addTape, "0:1:2:3:lab"), 0);
  ASSERT_EQ(forward(1), 0);
  EXPECT_EQ(readTapeBlock(device), "") << "behind the label's mark there is nothing";
}

TEST_F(Medium, LabellingADriveThatCannotRewindIsToldTheHostOnly) {
  ASSERT_EQ(drive::unloadCartridge("d0"), "");
  EXPECT_EQ(run(addTape, "0:1:2:3:lab"), -1);
  EXPECT_EQ(hostLog(), "ERROR:  8018  Failed to rewind tape: " + device + "\n");
  EXPECT_EQ(said.find("8018"), std::string::npos);
  EXPECT_TRUE(exists(tapeDir(0, 0) + "/header")) << "the catalog stays";
}

TEST_F(Medium, LabellingAProtectedCartridgeFails) {
  ASSERT_EQ(drive::unloadCartridge("d0"), "");
  ASSERT_EQ(drive::protectCartridge("cartd0", true), "");
  ASSERT_EQ(drive::loadCartridge("d0", "cartd0"), "");
  EXPECT_EQ(run(addTape, "0:1:2:3:lab"), -1);
  std::string line = "ERROR:  8019  Cannot open device: " + device + "\n";
  EXPECT_EQ(hostLog(), line);
  EXPECT_NE(said.find(line), std::string::npos);
}

TEST_F(Medium, ALabelThatCannotBeWrittenFails) {
  ASSERT_EQ(drive::setFaults("d0", "write 1 EIO\n"), "");
  EXPECT_EQ(run(addTape, "0:1:2:3:lab"), -1);
  EXPECT_EQ(hostLog(), "ERROR:  8020  Failed to write tape header.  errno=5\n");
}

TEST_F(Medium, ALabelWithoutItsMarkFails) {
  ASSERT_EQ(drive::setFaults("d0", "mark 1 EIO\n"), "");
  EXPECT_EQ(run(addTape, "0:1:2:3:lab"), -1);
  EXPECT_EQ(hostLog(), "ERROR:  8020  Failed to write tape header.  errno=5\n");
}

TEST_F(Medium, ASecondRewindThatFailsIsToldTheHostOnly) {
  ASSERT_EQ(drive::setFaults("d0", "rewind 2 EIO\n"), "");
  EXPECT_EQ(run(addTape, "0:1:2:3:lab"), -1);
  EXPECT_EQ(hostLog(), "ERROR:  8094  Failed to rewind tape: " + device + "\n");
}

TEST_F(Medium, TheLabelOfATapeIsPrinted) {
  tapehead label = makeLabel(0, 3, "lab");
  strcpy(label.device, "/dev/nst7");
  strcpy(label.host, "alpha");
  tapeWith(bytesOf(label));
  setenv("TZ", "UTC", 1);
  tzset();
  EXPECT_EQ(run(prtTapeHead, "0"), 0);
  EXPECT_EQ(said,
            "TapeName=lab\nTapeDate=Sun Sep  9 01:46:40 2001\nTapeDrive=/dev/nst7\n"
            "TapeHost=alpha\nTapeDrive#=0\nTapeNum#=3\nTapeVer#=0\n");
  EXPECT_EQ(statusLog(), "Reading tape header.\n");
}

TEST_F(Medium, ADamagedLabelIsPrintedWithinItsFields) {
  tapehead label;
  memset(&label, 'x', sizeof label);
  label.magic = TAPEHEAD_MAGIC;
  label.created = INT64_MAX;
  tapeWith(bytesOf(label));
  EXPECT_EQ(run(prtTapeHead, "0"), 0);
  EXPECT_EQ(said, "TapeName=" + std::string(256, 'x') + "\nTapeDate=unknown\nTapeDrive=" +
                      std::string(256, 'x') + "\nTapeHost=" + std::string(48, 'x') +
                      "\nTapeDrive#=2021161080\nTapeNum#=2021161080\nTapeVer#=2021161080\n");
}

TEST_F(Medium, PrintingNeedsADrive) {
  EXPECT_EQ(run(prtTapeHead, "5"), -1);
  EXPECT_EQ(statusLog(), "Reading tape header.\nERROR:  Cannot find tape path\n");
}

class Label : public Medium {
 protected:
  // Reads the label of a tape whose first block this is.
  tapehead readFrom(const std::string &block) {
    if (!block.empty()) tapeWith(block);
    clearLogs();
    tapehead label = tape::noLabel();
    EXPECT_EQ(run([&](char *drive) { return getTapeHead(drive, &label); }, "0"), 0);
    return label;
  }
};

const char kNone[] = "Reading tape header.\nERROR:  No label found on tape.  Label and retry\n";

TEST_F(Label, ABlockOfItsSizeWithTheMagicIsOne) {
  EXPECT_STREQ(readFrom(bytesOf(makeLabel(0, 4, "lab"))).name, "lab");
  EXPECT_EQ(statusLog(), "Reading tape header.\n");
}

TEST_F(Label, ALongerBlockIsSearched) {
  std::string block =
      std::string(100, 'x') + bytesOf(makeLabel(0, 4, "lab")) + std::string(4000 - 2156, 'y');
  EXPECT_EQ(readFrom(block).tape, 4);
  EXPECT_EQ(statusLog(), "Reading tape header.\nHeader found at offset: 100\n");
  EXPECT_EQ(readFrom(bytesOf(makeLabel(0, 5, "lab")) + "tail").tape, 5);
  EXPECT_EQ(statusLog(), "Reading tape header.\nHeader found at offset: 0\n");
}

TEST_F(Label, ALabelAtTheVeryEndOfABlockIsNotSeen) {
  EXPECT_EQ(readFrom("x" + bytesOf(makeLabel(0, 4, "lab"))).tape, -1);
  EXPECT_EQ(statusLog(), kNone);
  EXPECT_EQ(readFrom("x" + bytesOf(makeLabel(0, 4, "lab")) + "y").tape, 4);
  // The longest block that is searched.
  EXPECT_EQ(readFrom(std::string(6132, 'x') + bytesOf(makeLabel(0, 4, "lab")) + "y").tape, 4);
  EXPECT_EQ(statusLog(), "Reading tape header.\nHeader found at offset: 6132\n");
}

TEST_F(Label, AnythingElseIsNoneAndTheCallersRecordStays) {
  for (const std::string &block : {std::string(2056, 'x'), std::string("HeAd"),
                                   std::string(8189, 'x'), std::string(9000, 'x'), std::string()}) {
    EXPECT_EQ(readFrom(block).tape, -1) << block.size();
    EXPECT_EQ(statusLog(), kNone) << block.size();
    if (block.empty()) break;
  }
}

TEST_F(Label, ABlankTapeHasNone) {
  EXPECT_EQ(readFrom("").tape, -1);
  EXPECT_EQ(statusLog(), kNone);
}

TEST_F(Label, ABlockThatFillsTheReadIsPassedOverInSilence) {
  EXPECT_EQ(readFrom(bytesOf(makeLabel(0, 4, "lab")) + std::string(8190 - 2056, 'x')).tape, -1);
  EXPECT_EQ(statusLog(), "Reading tape header.\n");
}

TEST_F(Label, TheTapeIsRewoundBehindTheRead) {
  tapeWith(bytesOf(makeLabel(0, 4, "lab")));
  tapehead label;
  EXPECT_EQ(run([&](char *drive) { return getTapeHead(drive, &label); }, "0"), 0);
  EXPECT_EQ(readTapeBlock(device).size(), 2056u);
}

TEST_F(Label, ADriveThatCannotBeReadIsReported) {
  tapehead label = tape::noLabel();
  ASSERT_EQ(drive::setFaults("d0", "rewind 1 EIO\n"), "");
  auto read = [&](char *drive) { return getTapeHead(drive, &label); };
  EXPECT_EQ(run(read, "0"), -1);
  EXPECT_EQ(statusLog(), "Reading tape header.\nERROR:  Failed to rewind tape: " + device + "\n");
  EXPECT_EQ(said, "ERROR:  8201  Failed to rewind tape: " + device + ".  errno=5\n");
  clearLogs();
  tapeWith(bytesOf(makeLabel(0, 4, "lab")));
  ASSERT_EQ(drive::setFaults("d0", "rewind 2 EIO\n"), "");
  EXPECT_EQ(run(read, "0"), 0);
  EXPECT_EQ(label.tape, 4);
  EXPECT_EQ(statusLog(), "Reading tape header.\nWARNING:  Failed to rewind tape: " + device + "\n");
}

TEST_F(Medium, RewindingNeedsADevice) {
  EXPECT_EQ(run(mtRewind, "/dev/no-such-tape"), -1);
  EXPECT_EQ(said, "ERROR:  8200  Cannot open device: /dev/no-such-tape.  errno=2\n");
  EXPECT_EQ(run([](char *path) { return mtFSF(path, 3); }, "/dev/no-such-tape"), -1);
  EXPECT_EQ(said,
            "ERROR:  8200  Cannot open device: /dev/no-such-tape.  errno=2\n"
            "NOTE:   Positioning tape to volume 3\n"
            "ERROR:  8202  Cannot open device: /dev/no-such-tape.  errno=2\n");
}

TEST_F(Medium, WhatIsNoTapeCannotBePositioned) {
  writeFile(path("file"), "x");
  EXPECT_EQ(run(mtRewind, path("file")), -1);
  EXPECT_EQ(said, "ERROR:  8201  Failed to rewind tape: " + path("file") + ".  errno=25\n");
  EXPECT_EQ(run([](char *path) { return mtFSF(path, 3); }, path("file")), -1);
  EXPECT_NE(said.find("ERROR:  8203  Failed to forward tape: " + path("file") +
                      " by 3.\nERROR:  8203  Errno: 25\n"),
            std::string::npos);
}

TEST_F(Medium, ABusyDriveIsWaitedFor) {
  Holder holder(device, 60);
  EXPECT_EQ(run(mtRewind, device), 0);
  EXPECT_EQ(said, "");
}

TEST_F(Medium, ADriveThatStaysBusyIsGivenUpAfterItsTries) {
  site("pause.drive-busy = 2ms\npause.drive-busy-tries = 30\n");
  Holder holder(device);
  long long start = base::nowMs();
  EXPECT_EQ(run(mtRewind, device), -1);
  EXPECT_GE(base::nowMs() - start, 29 * 2);
  EXPECT_EQ(said, "ERROR:  8200  Device busy: " + device + ".  errno=16\n");
  EXPECT_EQ(forward(1), -1);
  EXPECT_EQ(said, "ERROR:  8200  Device busy: " + device +
                      ".  errno=16\nNOTE:   Positioning tape to volume 1\n"
                      "ERROR:  8202  Device busy: " +
                      device + ".  errno=16\n");
}

TEST_F(Medium, TheWaitForABusyDriveIsFiveMinutesInBothBehaviours) {
  for (const char *behaviour : {"classic", "sound"}) {
    site(std::string("behaviour = ") + behaviour + "\n");
    EXPECT_EQ(
        base::pauseLength(base::Pause::DriveBusy) * base::pauseLength(base::Pause::DriveBusyTries),
        300000);
  }
}

TEST_F(Medium, SkippingStartsAtTheBeginning) {
  for (const char *file : {"zero", "one", "two", "three"}) writeTapeFile(device, {file, "rest"});
  for (int turn = 0; turn < 2; turn++) {
    EXPECT_EQ(forward(2), 0);
    EXPECT_EQ(said, "NOTE:   Positioning tape to volume 2\n");
    EXPECT_EQ(readTapeBlock(device), "two");
  }
  EXPECT_EQ(forward(0), 0);
  EXPECT_EQ(readTapeBlock(device), "zero");
  EXPECT_EQ(forward(4), 0) << "the end of the data is the place for the next file";
  EXPECT_EQ(forward(5), -1);
  EXPECT_EQ(said, "NOTE:   Positioning tape to volume 5\nERROR:  8203  Failed to forward tape: " +
                      device + " by 5.\nERROR:  8203  Errno: 5\n");
}

TEST_F(Medium, ANodeThatRewindsIsRefused) {
  std::string node = path("st0");
  if (mknod(node.c_str(), S_IFCHR | 0600, makedev(9, 0)) != 0)
    GTEST_FAIL() << "device nodes cannot be made here: " << strerror(errno);
  EXPECT_EQ(run([](char *path) { return mtFSF(path, 3); }, node), -1);
  EXPECT_EQ(said, "");
  EXPECT_EQ(statusLog(), "ERROR:  Rewinding tape device " + node + " cannot be used\n");
}

class NextVolume : public Medium {
 protected:
  // Labels a tape and gives it that many volumes, on the medium and in the catalog.
  void makeTape(int volumes) {
    ASSERT_EQ(run(addTape, "0:1:2:3:lab"), 0);
    std::string catalog;
    ASSERT_EQ(forward(1), 0);
    for (int at = 0; at < volumes; at++) {
      writeTapeFile(device, {"catalog " + std::to_string(at)});
      writeTapeFile(device, {"data " + std::to_string(at)});
      catalog += makeRecord(at, {"/etc"});
    }
    writeFile(tapeDir(0, 0) + "/catalog", catalog);
  }
  int next(const std::string &path, int drive = 0) {
    tape = -77;
    clearLogs();
    return run([&](char *name) { return gotoNextVol(name, drive, &tape); }, path);
  }
  int tape = 0;
};

TEST_F(NextVolume, ComesBehindTheVolumesOfTheCatalog) {
  for (const char *behaviour : {"classic", "sound"}) {
    behave(behaviour);
    fs::remove_all(tapeDir(0, 0));
    makeTape(3);
    EXPECT_EQ(next(device), 7);
    EXPECT_EQ(tape, 0);
    EXPECT_EQ(said, "NOTE:   Positioning tape to volume 7\n");
    writeTapeFile(device, {"catalog 3"});
    ASSERT_EQ(forward(6), 0);
    EXPECT_EQ(readTapeBlock(device), "data 2");
    ASSERT_EQ(forward(7), 0);
    EXPECT_EQ(readTapeBlock(device), "catalog 3");
  }
}

TEST_F(NextVolume, OfAFreshTapeIsTheFirst) {
  makeTape(0);
  EXPECT_EQ(next(device), 1);
  fs::remove(tapeDir(0, 0) + "/catalog");
  EXPECT_EQ(next(device), 1);
}

TEST_F(NextVolume, IsNotLookedForOnAnUnlabelledTape) {
  EXPECT_EQ(next(device), -1);
  EXPECT_EQ(tape, -77);
  EXPECT_EQ(statusLog(), kNone);
}

TEST_F(NextVolume, IsNotLookedForOnATapeOfAnotherDrive) {
  tapeWith(bytesOf(makeLabel(5, 0, "lab")));
  EXPECT_EQ(next(device), -1);
  EXPECT_EQ(statusLog(),
            "Reading tape header.\nERROR:  Tape 0 belongs to drive 5, not to drive 0\n");
}

TEST_F(NextVolume, IsNotLookedForOnATapeThatHasAnothersNumberUnderSound) {
  makeTape(1);
  tapeWith(bytesOf(makeLabel(0, 0, "stranger")));
  ASSERT_EQ(forward(1), 0);
  writeTapeFile(device, {"a catalog of another host"});
  writeTapeFile(device, {"and its only copy"});
  EXPECT_EQ(next(device), 3) << "only the number counts";
  behave("sound");
  EXPECT_EQ(next(device), -1);
  EXPECT_NE(statusLog().find("ERROR:  The tape in drive 0 says it is tape 0, but it is not the one "
                             "whose catalog is in " +
                             tapeDir(0, 0)),
            std::string::npos)
      << statusLog();
  tapeWith(bytesOf(makeLabel(0, 9, "no catalog here")));
  EXPECT_EQ(next(device), -1);
}

TEST_F(NextVolume, IsNotLookedForByADamagedCatalog) {
  makeTape(1);
  writeFile(tapeDir(0, 0) + "/catalog", std::string(9000, 'x'));
  EXPECT_EQ(next(device), -1);
}

TEST_F(NextVolume, ATapeAtItsLimitIsFull) {
  makeTape(0);
  std::string catalog;
  for (int at = 0; at < 127; at++) catalog += makeRecord(at, {});
  writeFile(tapeDir(0, 0) + "/catalog", catalog + makeRecord(127, {}));
  EXPECT_EQ(next(device), -1);
  EXPECT_EQ(statusLog(), "Reading tape header.\n");
  behave("sound");
  EXPECT_EQ(next(device), -1);
  EXPECT_EQ(statusLog(),
            "Reading tape header.\nERROR:  Tape 0 of drive 0 is full: it holds 128 volumes and can "
            "hold no more.  Insert another tape\n");
  EXPECT_EQ(tape, 0);
}

TEST_F(NextVolume, AnOrdinaryFileIsRefusedForWhatItIs) {
  makeTape(2);
  writeFile(path("file"), "x");
  EXPECT_EQ(next(path("file")), -2) << "the drive's label was read, the path is another";
  EXPECT_EQ(tape, 0);
  addDriveLine(1, path("file"));
  EXPECT_EQ(next(path("file"), 1), -2);
}

}  // namespace
