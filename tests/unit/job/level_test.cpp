// What a run of a level above 0 builds on: an earlier run whose volume is there and covers it.
#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <utime.h>

#include <filesystem>
#include <map>

#include "jobtest.h"
#include "tape/reference.h"

namespace {

constexpr char kNoRun[] =
    "NOTICE:  Everything is saved: no run of a lower level is there to build on\n";
constexpr char kNewList[] =
    "NOTICE:  Everything is saved: the backup list has changed since the run that this one would "
    "build on\n";

class Level : public jobtest::JobTest {
 protected:
  void SetUp() override {
    JobTest::SetUp();
    behave("sound");
    defineJob({"alpha", "beta"});
    for (const char *tape : {"0", "1"}) std::filesystem::create_directories(folder(tape));
  }
  std::string folder(const std::string &tape) const {
    return path("var/tape/drive.1/tape." + tape);
  }
  void setList(const std::string &text) { support::writeFile(path("var/tape/jobids/7"), text); }

  // A run of job 7 on one of the tapes, its volume behind the others there.
  void ran(int level, time_t start, int status = 1, int tape = 0) {
    catlgstru record;
    support::captureStderr([&] { ASSERT_EQ(fillCatlgstru(7, &record, level), 0); });
    record.created = start + 5;
    ASSERT_EQ(storCatalg(1, tape, &record), 0);
    runAt(level, start, status, tape, 2 * volumes_[tape]++ + 1);
  }
  void runAt(int level, time_t start, int status, int tape, int volume) {
    jobrun run;
    memset(&run, 0, sizeof run);
    ASSERT_EQ(readJobid(7, &run.rec), 0);
    run.tape = tape;
    run.volume = volume;
    run.level = level;
    ASSERT_EQ(updateHist(&run, start), 0);
    if (status != 0) {
      ASSERT_EQ(modHist(&run, start, status, 1), 0);
    }
  }

  // The time that a run of this level passes to a host, and what it says.
  int sinceOf(const char *host, int level) {
    tape::Reference reference;
    int since = 0;
    FILE *kept = backuplog;
    backuplog = fopen(path("said").c_str(), "we");
    reference.find(7, level);
    since = reference.sinceFor(host);
    fclose(backuplog);
    backuplog = kept;
    said = support::readFile(path("said"));
    return since;
  }
  int since(int level) { return sinceOf("alpha", level); }

  std::string said;

 private:
  std::map<int, int> volumes_;
};

TEST_F(Level, BuildsOnTheNewestCompletedRunOfALowerOne) {
  EXPECT_EQ(since(1), 0);
  EXPECT_EQ(said, kNoRun);
  ran(0, 1000);
  ran(0, 3000);
  ran(1, 4000);
  ran(0, 5000, 0);  // was killed
  ran(0, 5500, 2);  // hosts failed
  EXPECT_EQ(since(1), 3000);
  EXPECT_EQ(said, "");
  EXPECT_EQ(since(2), 4000);
  EXPECT_EQ(since(9), 4000);
}

TEST_F(Level, ARunOnATapeThatWasDeletedIsNothingToBuildOn) {
  ran(0, 1000, 1, 0);
  ran(0, 2000, 1, 1);
  EXPECT_EQ(since(1), 2000);
  std::filesystem::remove_all(folder("1"));
  EXPECT_EQ(since(1), 1000);
  std::filesystem::remove_all(folder("0"));
  EXPECT_EQ(since(1), 0);
  EXPECT_EQ(said, kNoRun);
}

TEST_F(Level, ARunWhoseOwnBaseIsGoneIsNothingToBuildOn) {
  ran(0, 1000, 1, 0);
  ran(1, 2000, 1, 1);
  EXPECT_EQ(since(2), 2000);
  std::filesystem::remove_all(folder("0"));
  EXPECT_EQ(since(2), 0);
}

TEST_F(Level, AVolumeThatWasWrittenOverIsNothingToBuildOn) {
  ran(0, 1000);
  runAt(0, 2000, 2, 0, 1);  // on a tape that got the number of a deleted one
  EXPECT_EQ(since(1), 0);
}

TEST_F(Level, AVolumeOfAnotherRunIsNothingToBuildOn) {
  ran(0, 1000);
  runAt(0, 2000, 1, 0, 3);  // its catalog has only one
  EXPECT_EQ(since(1), 1000);
  runAt(0, 3000, 1, 0, 2);  // no volume has this number
  EXPECT_EQ(since(1), 1000);
  ran(1, 4000);  // stands where the second one should
  EXPECT_EQ(since(1), 1000);
}

TEST_F(Level, AHostThatTheRunDidNotHaveIsSavedWhole) {
  ran(0, 1000);
  EXPECT_EQ(sinceOf("beta", 1), 1000);
  for (const char *host : {"alph", "alpha2", "gamma"}) {
    EXPECT_EQ(sinceOf(host, 1), 0);
    EXPECT_EQ(said, std::string("NOTICE:  Everything of ") + host +
                        " is saved: the run that this one builds on did not have it\n");
  }
}

TEST_F(Level, APathThatTheRunDidNotHaveMeansEverything) {
  ran(0, 1000);
  setList("/home/\n");
  EXPECT_EQ(since(1), 1000);
  setList("/etc/\n/home/\n/srv/\n");
  EXPECT_EQ(since(1), 0);
  EXPECT_EQ(said, kNewList);
}

TEST_F(Level, OfALongListTheTimeOfItsLastChangeCounts) {
  std::string lines;
  for (int at = 0; at < 140; at++) lines += "/path" + std::to_string(at) + "/\n";
  setList(lines);
  ran(0, 1000000);
  struct utimbuf before = {1000004, 1000004}, after = {1000005, 1000005};
  utime(path("var/tape/jobids/7").c_str(), &before);
  EXPECT_EQ(since(1), 1000000);
  utime(path("var/tape/jobids/7").c_str(), &after);
  EXPECT_EQ(since(1), 0);
  EXPECT_EQ(said, kNewList);
}

TEST_F(Level, ADamagedHistoryOnlyMakesTheReferenceOlder) {
  ran(0, 1000);
  ran(0, 2000);
  std::string whole = support::readFile(path("var/tape/bhistory"));
  std::string junk(sizeof(histrec), 'x');
  support::writeFile(path("var/tape/bhistory"),
                     whole.substr(0, sizeof(histrec)) + junk + whole.substr(sizeof(histrec)));
  EXPECT_EQ(since(1), 1000);
  support::writeFile(path("var/tape/bhistory"), junk + whole);
  EXPECT_EQ(since(1), 0);
}

TEST_F(Level, AJobAsksItsHostsForWhatChangedSince) {
  loadTape();
  defineJob({"127.0.0.1"});
  alone([&] {
    {
      jobtest::Client client("127.0.0.1", std::vector<jobtest::File>{{"/a", "abc"}});
      ASSERT_EQ(backup(), 0) << jobLog();
    }
    // The played agent keeps what it was asked for.
    int port = 2345;
    base::Fd listening(support::listenOn(port));
    pid_t job = startBackup("2");
    std::string asked;
    for (int at = 0; at < 2; at++) {
      base::Fd sd(accept(listening.get(), nullptr, nullptr));
      char bytes[4096];
      ssize_t got = read(sd.get(), bytes, sizeof bytes - 1);
      bytes[got < 0 ? 0 : got] = '\0';
      asked = bytes;
    }
    EXPECT_EQ(asked, "TAPE server 7 " + std::to_string(history().front().start) + "\n");
    // Nobody opens the data port.
    kill(-job, SIGKILL);
    waitpid(job, nullptr, 0);
  });
}

}  // namespace
