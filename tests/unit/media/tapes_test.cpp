// Tapes and drives as the operator sees them, as far as no medium is involved.
#include <zul/host.h>

#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "media.h"

using media::exists;
using media::readFile;
using media::writeFile;

namespace {

namespace fs = std::filesystem;

class Tapes : public media::MediaTest {
 protected:
  void SetUp() override {
    MediaTest::SetUp();
    device = path("target");
    writeFile(device, "untouched");
    addDriveLine(0, device);
  }
  // What getNextTapeID finds with directories of these names in drive 0.
  int nextWith(const std::vector<std::string> &names) {
    fs::remove_all(path("var/tape/drive.0"));
    fs::create_directory(path("var/tape/drive.0"));
    for (const std::string &name : names) fs::create_directory(path("var/tape/drive.0/" + name));
    return getNextTapeID(0);
  }
  std::string device;
};

tapehead headerOf(const std::string &dir) {
  std::string bytes = readFile(dir + "/header");
  EXPECT_EQ(bytes.size(), sizeof(tapehead));
  tapehead label{};
  memcpy(&label, bytes.data(), std::min(bytes.size(), sizeof label));
  return label;
}

TEST_F(Tapes, AnOrdinaryFileGetsACatalogAndNoLabel) {
  time_t before = time(nullptr);
  EXPECT_EQ(run(addTape, "0:1:2:3:lab"), 0);
  EXPECT_EQ(said,
            "Drive num = 0\nDrive path = " + device + "\nRegular file backup to " + device + "\n");
  EXPECT_EQ(printed, "");
  EXPECT_EQ(hostLog(), "");
  EXPECT_EQ(readFile(device), "untouched");
  tapehead label = headerOf(tapeDir(0, 0));
  EXPECT_EQ(label.magic, TAPEHEAD_MAGIC);
  EXPECT_GE(label.created, before);
  EXPECT_LE(label.created, time(nullptr));
  EXPECT_STREQ(label.name, "lab");
  EXPECT_EQ(label.device, device);
  char host[48];
  ASSERT_EQ(gethostname(host, sizeof host), 0);
  EXPECT_STREQ(label.host, host);
  EXPECT_EQ(label.drive, 0);
  EXPECT_EQ(label.tape, 0);
  EXPECT_EQ(label.field2, 1);
  EXPECT_EQ(label.field3, 2);
  EXPECT_EQ(label.version, 0);
  struct stat status;
  ASSERT_EQ(stat(tapeDir(0, 0).c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0700U);
  ASSERT_EQ(stat((tapeDir(0, 0) + "/catalog").c_str(), &status), 0);
  EXPECT_EQ(status.st_size, 0);
}

TEST_F(Tapes, TheSameUnderSound) {
  behave("sound");
  EXPECT_EQ(run(addTape, "0:1:2:3:lab"), 0);
  EXPECT_STREQ(headerOf(tapeDir(0, 0)).name, "lab");
  EXPECT_EQ(readFile(tapeDir(0, 0) + "/catalog"), "");
  EXPECT_EQ(run(addTape, "0:1:2:3:next"), 0);
  EXPECT_EQ(headerOf(tapeDir(0, 1)).tape, 1);
}

TEST_F(Tapes, FieldsThatAreNoNumbersReadAsZero) {
  EXPECT_EQ(run(addTape, "0:x:2y:anything at all:two words"), 0);
  tapehead label = headerOf(tapeDir(0, 0));
  EXPECT_EQ(label.field2, 0);
  EXPECT_EQ(label.field3, 2);
  EXPECT_STREQ(label.name, "two words");
  EXPECT_EQ(readFile(tapeDir(0, 0) + "/header").find("anything"), std::string::npos);
}

TEST_F(Tapes, ANameMayFillItsFieldAndIsCutThere) {
  EXPECT_EQ(run(addTape, "0:1:2:3:" + std::string(300, 'n')), 0);
  tapehead label = headerOf(tapeDir(0, 0));
  EXPECT_EQ(std::string(label.name, sizeof label.name), std::string(256, 'n'));
  EXPECT_EQ(std::string(label.device), device);
  EXPECT_EQ(run(getTapes, "0"), 0);
  EXPECT_EQ(said, "0:" + std::string(256, 'n') + "\n");
}

TEST_F(Tapes, AnyOtherNumberOfFieldsIsRefused) {
  EXPECT_EQ(run(addTape, "0:1:2:lab"), -1);
  EXPECT_EQ(said, "ERROR:  8012  Insufficient arguements (4)\n");
  EXPECT_EQ(run(addTape, "0:1:2:3:lab:el"), -1);
  EXPECT_EQ(said, "ERROR:  8012  Insufficient arguements (6)\n");
  EXPECT_EQ(run(addTape, "0:1:2:3:a:b:c:d"), -1);
  EXPECT_EQ(said, "ERROR:  8012  Insufficient arguements (6)\n");
  EXPECT_EQ(run(addTape, ""), -1);
  EXPECT_EQ(said, "ERROR:  8012  Insufficient arguements (1)\n");
  EXPECT_EQ(hostLog(), "");
  EXPECT_FALSE(exists(tapeDir(0, 0)));
}

TEST_F(Tapes, AnUnknownDriveTakesNoTape) {
  EXPECT_EQ(run(addTape, "7:1:2:3:lab"), -1);
  EXPECT_EQ(said, "Drive num = 7\nERROR:  8025  Cannot find tape path\n");
  EXPECT_EQ(hostLog(), "ERROR:  8025  Cannot find tape path\n");
}

TEST_F(Tapes, ADriveWithoutItsDirectoryTakesNoTape) {
  fs::remove(path("var/tape/drive.0"));
  EXPECT_EQ(run(addTape, "0:1:2:3:lab"), -1);
  EXPECT_NE(said.find("ERROR:  8026  Cannot stat file: >" + path("var/tape/drive.0") +
                      "<, errno = 2\nERROR:  8014  Cannot get a free tape Id number\n"),
            std::string::npos)
      << said;
  EXPECT_EQ(hostLog(), "ERROR:  8014  Cannot get a free tape Id number\n");
}

TEST_F(Tapes, AFileWhereTheTapesDirectoryShouldBeIsReported) {
  writeFile(path("var/tape/drive.0/tape.0"), "");
  EXPECT_EQ(run(addTape, "0:1:2:3:lab"), -1);
  std::string line = "ERROR:  8015  Cannot make tape catalog directory: " + tapeDir(0, 0) + "\n";
  EXPECT_NE(said.find(line), std::string::npos) << said;
  EXPECT_EQ(hostLog(), line);
}

TEST_F(Tapes, TwoRequestsAtTheSameTimeTakeTwoTapes) {
  for (const char *behaviour : {"classic", "sound"}) {
    behave(behaviour);
    std::vector<pid_t> children;
    for (int at = 0; at < 6; at++) {
      pid_t pid = fork();
      if (pid == 0) {
        int null = open("/dev/null", O_WRONLY);
        dup2(null, 2);
        char args[] = "0:1:2:3:lab";
        _exit(addTape(args) == 0 ? 0 : 1);
      }
      children.push_back(pid);
    }
    for (pid_t pid : children) {
      int status = -1;
      waitpid(pid, &status, 0);
      EXPECT_EQ(support::exitOf(status), 0);
    }
  }
  for (int at = 0; at < 12; at++) EXPECT_EQ(headerOf(tapeDir(0, at)).tape, at);
  EXPECT_FALSE(exists(tapeDir(0, 12)));
}

TEST_F(Tapes, TheDriveTableIsReadLineByLine) {
  writeFile(path("etc/tapedevs"),
            "# 1:no:/no:a:b:\n\n1:short:/dev/one\n 1:blank:/dev/blank:a:b:\n"
            "1:lto:/dev/two:a:b:c:d:\n1:again:/dev/three:a:b:\n01x:other:/dev/four:a\n");
  char found[256];
  std::string text = media::captureStderr([&] { EXPECT_EQ(getTapePath(1, found), 0); });
  EXPECT_STREQ(found, "/dev/two");
  EXPECT_EQ(text, "ERROR:  8024  Data Error, splits = 3\n");
  EXPECT_EQ(hostLog(), "ERROR:  8024  Data Error\n");
}

TEST_F(Tapes, AnEntryNeedsFourFieldsAndItsNumberIsADecimal) {
  writeFile(path("etc/tapedevs"), "01x:lto:/dev/four:a\n");
  char found[256];
  EXPECT_EQ(getTapePath(1, found), 0);
  EXPECT_STREQ(found, "/dev/four");
}

TEST_F(Tapes, ADevicePathIsCutToItsRoom) {
  writeFile(path("etc/tapedevs"), "1:lto:/" + std::string(400, 'p') + ":a:b:\n");
  char found[256];
  EXPECT_EQ(getTapePath(1, found), 0);
  EXPECT_EQ(std::string(found), "/" + std::string(254, 'p'));
}

TEST_F(Tapes, AMissingDriveTableIsToldInTwoWays) {
  fs::remove(path("etc/tapedevs"));
  char found[256];
  std::string text = media::captureStderr([&] { EXPECT_EQ(getTapePath(0, found), -1); });
  EXPECT_EQ(text, "ERROR:  8023  No Tape drives defined\n");
  EXPECT_EQ(hostLog(), "ERROR:  8023  Cannot read tapedevs\n");
}

TEST_F(Tapes, TheFirstGapAboveATakenNumberIsFree) {
  EXPECT_EQ(nextWith({}), 0);
  EXPECT_EQ(nextWith({"tape.0", "tape.1", "tape.3"}), 2);
  EXPECT_EQ(nextWith({"tape.4", "tape.3"}), 5);
  EXPECT_EQ(nextWith({"tape.0", "tape.2", "tape.9"}), 1);
  EXPECT_EQ(nextWith({"tape.x"}), 1);
  EXPECT_EQ(nextWith({"tape."}), 1);
  EXPECT_EQ(nextWith({"tape.007"}), 8);
  EXPECT_EQ(nextWith({"other", "tap.1", "xtape.2"}), 0);
}

TEST_F(Tapes, NumbersEndBelow32000) {
  EXPECT_EQ(nextWith({"tape.31998"}), 31999);
  EXPECT_EQ(nextWith({"tape.31999"}), -1);
  EXPECT_EQ(nextWith({"tape.32001"}), -1);
  EXPECT_EQ(nextWith({"tape.5", "tape.32001"}), 6);
  EXPECT_EQ(nextWith({"tape.32000", "tape.32002"}), 32001);
  EXPECT_EQ(nextWith({"tape.32767"}), -1);
  // 16 bits: 65536 is 0 again.
  EXPECT_EQ(nextWith({"tape.65536"}), 1);
  EXPECT_EQ(nextWith({"tape.99999999999999999999"}), 0);
}

TEST_F(Tapes, OnlyDirectoriesCount) {
  writeFile(path("var/tape/drive.0/tape.7"), "");
  EXPECT_EQ(getNextTapeID(0), 0);
  // A tape whose directory was moved to another disk still is one.
  ASSERT_EQ(symlink(path("var").c_str(), path("var/tape/drive.0/tape.4").c_str()), 0);
  EXPECT_EQ(getNextTapeID(0), 5);
}

TEST_F(Tapes, AnUnreadableEntryIsNamedAndPassedOver) {
  ASSERT_EQ(symlink("/nowhere", path("var/tape/drive.0/tape.4").c_str()), 0);
  printed = media::captureStdout([&] { EXPECT_EQ(getNextTapeID(0), 0); });
  EXPECT_EQ(printed, path("var/tape/drive.0/tape.4") + "  ERROR:  8029  Unreadable\n");
  EXPECT_EQ(run(getTapes, "0"), 0);
  EXPECT_EQ(printed, path("var/tape/drive.0/tape.4") + "  ERROR:  8034  Unreadable\n");
}

TEST_F(Tapes, ThousandsOfTapesStillGiveAFreeNumber) {
  // In memory, because making so many directories takes a disk seconds.
  char memory[] = "/dev/shm/zultest.XXXXXX";
  ASSERT_NE(mkdtemp(memory), nullptr);
  strcpy(ZULhome, memory);
  for (int at = 0; at < 2100; at++)
    fs::create_directories(std::string(memory) + "/var/tape/drive.0/tape." + std::to_string(at));
  EXPECT_EQ(getNextTapeID(0), 2100);
  fs::remove_all(memory);
}

TEST_F(Tapes, ADriveDirectoryThatIsNoneIsReported) {
  fs::remove(path("var/tape/drive.0"));
  std::string text = media::captureStderr([&] { EXPECT_EQ(getNextTapeID(0), -1); });
  EXPECT_EQ(text,
            "ERROR:  8026  Cannot stat file: >" + path("var/tape/drive.0") + "<, errno = 2\n");
  EXPECT_EQ(run(getTapes, "0"), -1);
  EXPECT_EQ(said,
            "ERROR:  8031  Cannot stat file: >" + path("var/tape/drive.0") + "<, errno = 2\n");
  writeFile(path("var/tape/drive.0"), "");
  text = media::captureStderr([&] { EXPECT_EQ(getNextTapeID(0), -1); });
  EXPECT_EQ(text, "ERROR:  8027  Path is not a directory:  >" + path("var/tape/drive.0") +
                      "<, errno = 0\\n");
  EXPECT_EQ(run(getTapes, "0"), -1);
  EXPECT_EQ(said, "ERROR:  8032  Path is not a directory:  >" + path("var/tape/drive.0") +
                      "<, errno = 0\\n");
}

TEST_F(Tapes, TheDriveTableIsListedAsItIs) {
  std::string table = "# comment\n0:lto:/dev/nst0:a:b:\nno line feed";
  writeFile(path("etc/tapedevs"), table);
  std::string text = media::captureStderr([] { EXPECT_EQ(getTapeDrives(), 0); });
  EXPECT_EQ(text, table);
  EXPECT_EQ(hostLog(), "Getting tape drive list: " + path("etc/tapedevs") + "\n");
  fs::remove(path("etc/tapedevs"));
  clearLogs();
  text = media::captureStderr([] { EXPECT_EQ(getTapeDrives(), -1); });
  EXPECT_EQ(text, "ERROR:  8030  No Tape drives defined\n");
  EXPECT_EQ(hostLog(), "Getting tape drive list: " + path("etc/tapedevs") +
                           "\nWARNING:  No tape devices available\n");
}

TEST_F(Tapes, TapesAreListedWithTheirNames) {
  EXPECT_EQ(run(getTapes, "0"), 0);
  EXPECT_EQ(said + printed, "");
  run(addTape, "0:1:2:3:monday");
  run(addTape, "0:1:2:3:with blanks");
  fs::create_directory(path("var/tape/drive.0/other"));
  EXPECT_EQ(run(getTapes, "0"), 0);
  EXPECT_EQ(printed, "");
  EXPECT_EQ(said.size(), strlen("0:monday\n1:with blanks\n"));
  EXPECT_NE(said.find("0:monday\n"), std::string::npos);
  EXPECT_NE(said.find("1:with blanks\n"), std::string::npos);
}

TEST_F(Tapes, ATapeWithoutACatalogIsListedAllTheSame) {
  run(addTape, "0:1:2:3:lab");
  fs::remove(tapeDir(0, 0) + "/catalog");
  EXPECT_EQ(run(getTapeInfo, tapeDir(0, 0)), 0);
  EXPECT_EQ(said, "0:lab\n");
}

TEST_F(Tapes, ADamagedTapeIsNamedAndTheOthersAreListed) {
  run(addTape, "0:1:2:3:good");
  run(addTape, "0:1:2:3:bad");
  run(addTape, "0:1:2:3:headless");
  writeFile(tapeDir(0, 1) + "/catalog", std::string(9000, 'x'));
  writeFile(tapeDir(0, 2) + "/header", std::string(2055, 'x'));
  EXPECT_EQ(run(getTapes, "0"), 0);
  EXPECT_EQ(said, "0:good\n");
  EXPECT_NE(printed.find("Cannot read tape catalogs: " + tapeDir(0, 1) + "\n"), std::string::npos);
  EXPECT_NE(printed.find("Cannot read tape header: " + tapeDir(0, 2) + "\n"), std::string::npos);
  EXPECT_EQ(run(getTapeInfo, tapeDir(0, 1)), -2);
  EXPECT_EQ(run(getTapeInfo, tapeDir(0, 2)), -1);
  EXPECT_EQ(run(getTapeInfo, "/nodot"), -1);
}

TEST_F(Tapes, ANameIsReadFromAWholeHeaderOnly) {
  char name[256];
  run(addTape, "0:1:2:3:lab");
  EXPECT_EQ(getTapeName(tapeDir(0, 0).data(), name), 0);
  EXPECT_STREQ(name, "lab");
  EXPECT_EQ(truncate((tapeDir(0, 0) + "/header").c_str(), 2055), 0);
  EXPECT_EQ(getTapeName(tapeDir(0, 0).data(), name), -1);
  fs::remove(tapeDir(0, 0) + "/header");
  EXPECT_EQ(getTapeName(tapeDir(0, 0).data(), name), -1);
}

TEST_F(Tapes, DeletingATapeRemovesItsCatalogDirectory) {
  run(addTape, "0:1:2:3:lab");
  run(addTape, "0:1:2:3:kept");
  writeFile(tapeDir(0, 0) + "/vol.1", "0:h:0:/a\n");
  EXPECT_EQ(run(delTape, "0 0"), 0);
  EXPECT_EQ(said, "");
  EXPECT_FALSE(exists(tapeDir(0, 0)));
  EXPECT_TRUE(exists(tapeDir(0, 1)));
  EXPECT_EQ(readFile(device), "untouched");
  EXPECT_EQ(run(delTape, " 0\t1 and more"), 0);
  EXPECT_FALSE(exists(tapeDir(0, 1)));
}

TEST_F(Tapes, DeletingNeedsADriveAndATape) {
  EXPECT_EQ(run(delTape, "0"), -1);
  EXPECT_EQ(said, "ERROR:  8021  Insufficient arguments\n");
  EXPECT_EQ(hostLog(), said);
  clearLogs();
  writeFile(tapeDir(0, 3), "a file");
  EXPECT_EQ(run(delTape, "0 0/../../.."), -1);
  EXPECT_EQ(said, "ERROR:  8022  Cannot delete tape\n");
  EXPECT_EQ(hostLog(), said);
  EXPECT_EQ(run(delTape, ".. 0"), -1);
  EXPECT_EQ(run(delTape, "0 " + std::string(5000, '1')), -1);
  EXPECT_TRUE(exists(path("var/tape/drive.0")));
}

TEST_F(Tapes, NumbersMustBeNumbersUnderSound) {
  run(addTape, "0:1:2:3:lab");
  EXPECT_EQ(run(addTape, "lto:1:2:3:lab"), 0) << "what is no number reads as drive 0";
  behave("sound");
  EXPECT_EQ(run(addTape, "lto:1:2:3:lab"), -1);
  EXPECT_EQ(said, "ERROR:  lto is not a decimal number\n");
  EXPECT_EQ(run(delTape, "0 00"), -1);
  EXPECT_EQ(said, "ERROR:  00 is not a decimal number\n");
  EXPECT_EQ(run(delTape, "x 0"), -1);
  EXPECT_TRUE(exists(tapeDir(0, 0)));
  EXPECT_FALSE(exists(tapeDir(0, 2)));
  EXPECT_EQ(run(delTape, "0 0"), 0);
  EXPECT_FALSE(exists(tapeDir(0, 0)));
}

TEST_F(Tapes, WordsThatLeadElsewhereAreNoDrives) {
  EXPECT_EQ(run(getTapes, "0/../drive.0"), -1);
  EXPECT_NE(said.find("ERROR:  8031  Cannot stat file: >"), std::string::npos);
  EXPECT_EQ(run(getTapes, ""), -1);
}

}  // namespace
