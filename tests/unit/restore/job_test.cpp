// The restore job whole: the check of the tape, what the console hears, the agent, the results; and
// reading a catalog copy back.
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <atomic>
#include <thread>

#include "tape/restorelist.h"
#include "tapes.h"

using support::captureStderr;
using support::exists;
using support::readFile;
using support::writeFile;
using tapes::blocksOf;
using tapes::File;
using tapes::pattern;

namespace {

constexpr char kDump[] =
    "TapeName=a label\nTapeDate=Sun Sep  9 01:46:40 2001\nTapeDrive=/dev/vtape/d0\n"
    "TapeHost=labeller\nTapeDrive#=%i\nTapeNum#=%i\nTapeVer#=0\n";

class Job : public tapes::TapeTest {
 protected:
  void SetUp() override {
    setenv("TZ", "UTC", 1);
    TapeTest::SetUp();
    mkdir(path("dest").c_str(), 0755);
  }

  // Runs the job in this process with its console in a file; what it said before it was released.
  int run(const std::string &args) {
    std::string text = args;
    int result = 0;
    int output = dup(STDOUT_FILENO);
    said = captureStderr([&] { result = goRestore(text.data()); });
    dup2(output, STDOUT_FILENO);  // the job has let go of it
    close(output);
    return result;
  }
  // The agent of the destination: a console that hears one request, and the receiver it asks for.
  void agent(std::string *heard) {
    int console = ZUL_PORT;
    int listener = support::listenOn(console);
    int receiver = mkServerSD();
    ASSERT_TRUE(listener >= 0 && receiver >= 0);
    agent_ = std::thread([this, listener, receiver, heard] {
      int sd = accept(listener, nullptr, nullptr);
      char line[512] = "";
      readnline(sd, line, sizeof line);
      *heard = line;
      std::string root = path("dest");
      restHandShk(receiver, root.data(), 4);
      // The console is open as long as the tape host's job is there.
      char byte;
      leftOpen = recv(sd, &byte, 1, MSG_DONTWAIT) < 0;
      close(sd);
      close(listener);
    });
  }
  void agentEnds() { agent_.join(); }
  static std::string dump(int drive, int tape) {
    char text[512];
    snprintf(text, sizeof text, kDump, drive, tape);
    return text;
  }
  std::string selection() const { return readFile(path("var/tape/jobids/restoreindx")); }

  std::string said;
  std::atomic<bool> leftOpen = false;
  std::thread agent_;
};

TEST_F(Job, SevenWordsAreNeeded) {
  EXPECT_EQ(run("0 3 1 127.0.0.1 / 4"), 1);
  EXPECT_EQ(said, "ERROR:  8110  Insufficient arguments.\n");
}

TEST_F(Job, AnotherTapeIsNamedAndNothingIsTouched) {
  writeTape({});
  EXPECT_EQ(run("0 4 1 127.0.0.1 / 4 0"), -1);
  EXPECT_EQ(said, "Checking tape header\nERROR:  8111  Please insert tape 4, and try again.\n" +
                      dump(0, 3));
  EXPECT_EQ(hostLog(), "ERROR:  8111  Please insert tape 4, and try again.\n");
  EXPECT_FALSE(exists(path("var/tape/jobids/restoreindx")));
}

TEST_F(Job, ATapeOfAnotherDriveIsNamed) {
  writeTape({}, 3, 9);
  EXPECT_EQ(run("0 3 1 127.0.0.1 / 4 0"), -1);
  EXPECT_EQ(said,
            "Checking tape header\nWARNING:  8112  The tape appears to have been made on an other "
            "device\n" +
                dump(9, 3));
}

TEST_F(Job, AnUnlabelledTapeIsNoTapeNumber0) {
  int fd = drive::openDrive(kDevice, O_WRONLY);
  drive::writeBlock(fd, "x", 1);
  drive::closeDrive(fd);
  EXPECT_EQ(run("0 0 1 127.0.0.1 / 4 0"), -1);
  EXPECT_NE(said.find("ERROR:  8111  Please insert tape 0, and try again.\n"), std::string::npos);
}

TEST_F(Job, AnUnknownDriveIsRefused) {
  EXPECT_EQ(run("5 3 1 127.0.0.1 / 4 0"), -1);
}

TEST_F(Job, TheSelectionIsStoredAsLines) {
  writeTape({});
  behave("classic");
  EXPECT_EQ(run("0 3 1 127.0.0.1 / 4 5,2,5"), -1);  // there is no volume list
  EXPECT_EQ(selection(), "5\n2\n5\n");
  EXPECT_NE(said.find("Building restore list\nERROR:  8107  "), std::string::npos);
}

TEST_F(Job, ASelectionThatCannotBeStoredIsTold) {
  writeTape({});
  mkdir(path("var/tape/jobids/restoreindx").c_str(), 0755);
  EXPECT_EQ(run("0 3 1 127.0.0.1 / 4 1"), -1);
  std::string text =
      "ERROR:  8113  Cannot make restore list: " + path("var/tape/jobids/restoreindx") + "\n";
  EXPECT_EQ(said, "Checking tape header\n" + text);
  EXPECT_EQ(hostLog(), text);
}

TEST_F(Job, NoAgentIsNoRestore) {
  for (const char *behaviour : {"classic", "sound"}) {
    behave(behaviour);
    writeTape(blocksOf(std::vector<File>{{"h", "/f", "f"}}));
    writeFile(volumePath(), "0:h:0:/f\n");
    alone([&] {
      EXPECT_EQ(run("0 3 1 127.0.0.1 /dest 4 0"), -1);
      EXPECT_EQ(said,
                "Checking tape header\nBuilding restore list\n"
                "Positioning Tape\nContinuing Silently:  See the ZUL log for any errors.\n"
                "TRANSFER OK\n");
      std::string log = readFile(path("var/tape/restore.serv"));
      EXPECT_NE(log.find("NOTE:   Positioning tape to volume 2\n"), std::string::npos);
      EXPECT_NE(log.find("ERROR:  8114  Cannot start restore client on: 127.0.0.1\n"),
                std::string::npos);
      EXPECT_NE(readFile(path("var/tape/restore.serv.progress")).find("\"state\":\"failed\""),
                std::string::npos);
    });
  }
}

TEST_F(Job, ALoginThatIsRefusedIsTold) {
  alone([&] {
    int console = ZUL_PORT;
    int listener = support::listenOn(console);
    support::hostPlay.loginResult = -1;
    EXPECT_EQ(startRestoreClnt("127.0.0.1", "/", 4), -2);
    EXPECT_EQ(hostLog(), "ERROR:  Cannot start restore agent on remote host\n");
    EXPECT_EQ(support::hostPlay.calls, "ia");
    close(listener);
    EXPECT_EQ(startRestoreClnt("127.0.0.1", "/", 4), -1);
  });
}

TEST_F(Job, RestoresAndTellsWhatBecameOfEveryFile) {
  File big{"h", "/d/big", pattern(2 * PACK_CHUNK + 5)};
  std::vector<File> files{{"h", "/d/", "", 1}, big, {"h", "/d/small", "small"}};
  for (const char *behaviour : {"classic", "sound"}) {
    bool sound = strcmp(behaviour, "sound") == 0;
    behave(behaviour);
    writeTape(blocksOf(files));
    // Under "sound" one wanted file is not on tape, and everything else comes all the same.
    writeFile(volumePath(), std::string("0:h:0:/d/\n0:h:0:/d/big\n0:h:1:/d/big\n0:h:2:/d/big\n") +
                                (sound ? "0:h:0:/d/gone\n" : "") + "0:h:0:/d/small\n");
    alone([&] {
      std::string heard;
      agent(&heard);
      EXPECT_EQ(run("0 3 1 127.0.0.1 " + path("dest") + " 4 0"), sound ? -1 : 0);
      agentEnds();
      EXPECT_EQ(heard, "TAPE resclnt " + path("dest") + " 4\n");
      EXPECT_TRUE(leftOpen);
      EXPECT_EQ(readFile(path("dest/d/big")), big.data);
      EXPECT_EQ(readFile(path("dest/d/small")), "small");
      std::string results = readFile(path("var/tape/restore.serv.results"));
      EXPECT_NE(results.find("\"path\":\"/d/big\",\"result\":\"restored\""), std::string::npos);
      EXPECT_EQ(results.find("\"result\":\"missing\"") != std::string::npos, sound) << results;
      std::string progress = readFile(path("var/tape/restore.serv.progress"));
      EXPECT_NE(progress.find(sound ? "\"state\":\"failed\"" : "\"state\":\"done\""),
                std::string::npos)
          << progress;
      EXPECT_NE(progress.find("\"files\":3,"), std::string::npos) << progress;
    });
  }
}

TEST_F(Job, ASelectionByNamesIsForgottenWhenItWasMadeForOnce) {
  writeTape({});
  writeFile(volumePath(), "1:h:0:/f\n");
  for (const char *name : {"once.1", "mine"}) {
    writeFile(path(std::string("var/tape/jobids/select.") + name), "h:/none\n");
    EXPECT_EQ(run(std::string("0 3 1 127.0.0.1 / 4 @") + name), -1);
    EXPECT_NE(said.find("WARNING:  Not on this volume: h:/none\n"), std::string::npos);
  }
  EXPECT_FALSE(exists(path("var/tape/jobids/select.once.1")));
  EXPECT_TRUE(exists(path("var/tape/jobids/select.mine")));
}

TEST_F(Job, ASelectionIsAFileOfItsFolder) {
  writeTape({});
  EXPECT_EQ(run("0 3 1 127.0.0.1 / 4 @../x"), -1);
  EXPECT_NE(said.find("ERROR:  No name of a selection: @../x\n"), std::string::npos);
}

TEST_F(Job, ASecondRestoreIsRefusedUnderSound) {
  writeTape({});
  int lock = open(path("var/tape/restore.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  ASSERT_EQ(flock(lock, LOCK_EX), 0);
  EXPECT_EQ(run("0 3 1 127.0.0.1 / 4 1"), -1);
  EXPECT_NE(said.find("ERROR:  Another restore is running"), std::string::npos);
  close(lock);
}

class CatalogCopy : public tapes::TapeTest {
 protected:
  // Reads at the start of a tape file, as numbered from 0.
  int readAt(int file) {
    int fd = drive::openDrive(kDevice, O_RDONLY);
    drive::operate(fd, MTREW, 1);
    if (file > 0) drive::operate(fd, MTFSF, file);
    drive::closeDrive(fd);
    char number[] = "0";
    int result = 0;
    said = captureStderr([&] { result = readTapeCatlg(number, &record); });
    return result;
  }
  catlgstru record;
  std::string said;
};

TEST_F(CatalogCopy, IsReadWithItsTexts) {
  writeTape(blocksOf(std::vector<File>{{"h", "/f", "f"}}));
  ASSERT_EQ(readAt(1), 0);
  EXPECT_EQ(record.jobnum, 7);
  EXPECT_STREQ(record.strings[0], "/etc/");
  EXPECT_STREQ(record.strings[1], "/home/");
  for (int at = 2; at < CATLG_STRINGS; at++) EXPECT_STREQ(record.strings[at], "") << at;
}

TEST_F(CatalogCopy, OtherBlocksAreToldApart) {
  std::string native(8200, '\0');
  uint32_t magic = PACK_MAGIC;
  memcpy(native.data(), &magic, sizeof magic);
  writeTape({native, std::string(8200, 'd'), "short"});
  EXPECT_EQ(readAt(2), -1);
  EXPECT_EQ(said, "ERROR:  8104  Volume sequence error.  This is the header volume\n");
  EXPECT_EQ(hostLog(), said);
  EXPECT_EQ(readAt(0), -1);
  EXPECT_EQ(said, "ERROR:  8102  Failed to read catalog\n");  // a label is shorter
}

TEST_F(CatalogCopy, ADataBlockIsTheDataVolume) {
  writeTape({std::string(8200, 'd')});
  EXPECT_EQ(readAt(2), -1);
  EXPECT_EQ(said, "ERROR:  8103  Volume sequence error.  This is the data volume\n");
}

TEST_F(CatalogCopy, WithoutADriveThereIsNone) {
  catlgstru none;
  char number[] = "8";
  std::string text = captureStderr([&] { EXPECT_EQ(readTapeCatlg(number, &none), -1); });
  EXPECT_NE(text.find("ERROR:  8100  Cannot find tape path\n"), std::string::npos);
  ASSERT_EQ(drive::unloadCartridge("d0"), "");
  char first[] = "0";
  text = captureStderr([&] { EXPECT_EQ(readTapeCatlg(first, &none), -1); });
  EXPECT_EQ(text, "ERROR:  8101  Cannot open device: /dev/vtape/d0\n");
}

}  // namespace
