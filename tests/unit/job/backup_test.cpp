// Whole backup jobs: a virtual drive, and client hosts that are played.
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zul/module.h>

#include <filesystem>
#include <map>
#include <regex>

#include "base/pause.h"
#include "drive/cartridge.h"
#include "drive/drive.h"
#include "jobtest.h"
#include "net/gatherchild.h"
#include "tape/pending.h"

namespace {

using jobtest::Client;
using jobtest::File;
using jobtest::packages;

class Backup : public jobtest::JobTest {
 protected:
  std::string anonymous(std::string text) const {
    text = std::regex_replace(
        text, std::regex("[A-Z][a-z]{2} [A-Z][a-z]{2} [ 0-9]{2} [0-9:]{8} [0-9]{4}"), "DATE");
    text = std::regex_replace(text, std::regex("at [0-9]+ KB/s"), "at R KB/s");
    return std::regex_replace(text, std::regex("NOTICE:  libxxhash[^\n]*\n"), "");
  }
  bool logged(const std::string &text) const { return jobLog().find(text) != std::string::npos; }
  // What a job leaves behind in any case is nothing.
  void expectNothingLeft() {
    for (const auto &entry : std::filesystem::directory_iterator(path("tmp")))
      EXPECT_NE(entry.path().filename().string().rfind("ipc.", 0), 0u) << entry.path();
  }
  // The volume list without its entry numbers.
  std::string listed(int volume) const {
    return std::regex_replace(volumeList(volume), std::regex("(^|\n)[0-9]+:"), "$1");
  }
  std::string catalog() const { return support::readFile(tapeFilePath("catalog")); }
  // Positions behind the last volume, as the next job will: its volume number.
  int nextVolume() {
    std::string name = device;
    int tape = -1, volume = 0;
    support::captureStderr([&] { volume = gotoNextVol(name.data(), 1, &tape); });
    return volume;
  }
};

// The same job in both behaviours.
class AnyBackup : public Backup, public ::testing::WithParamInterface<const char *> {
 protected:
  void SetUp() override {
    Backup::SetUp();
    behave(GetParam());
  }
  bool isSound() const { return std::string(GetParam()) == "sound"; }
};
INSTANTIATE_TEST_SUITE_P(Behaviour, AnyBackup, ::testing::Values("classic", "sound"),
                         [](const auto &one) { return std::string(one.param); });

TEST_P(AnyBackup, PutsEveryFileOfEveryHostOnTape) {
  loadTape();
  defineJob({"127.0.0.2", "127.0.0.3"});
  std::vector<File> first = {{"/etc/", "", 1, "alpha"},
                             {"/etc/passwd", jobtest::pattern(1000, 2), 0, "alpha"},
                             {"/big", jobtest::pattern(2 * PACK_CHUNK + 77, 3), 0, "alpha"},
                             {"/link", std::string("/etc\0", 5), 2, "alpha"}};
  std::vector<File> second = {{"/home/empty", "", 0, "beta"},
                              {"/home/exact", jobtest::pattern(PACK_CHUNK, 4), 0, "beta"}};
  alone([&] {
    Client alpha("127.0.0.2", first), beta("127.0.0.3", second);
    EXPECT_EQ(backup(), 0) << jobLog();
    auto tape = readTape();
    ASSERT_EQ(tape.size(), 3u);
    EXPECT_EQ(tape[0].size(), 1u);
    EXPECT_EQ(tape[0][0].size(), 2056u);
    EXPECT_EQ(tape[1].size(), 9u);
    auto all = packages(tape[2]);
    for (const File &file : first) EXPECT_EQ(jobtest::contents(all, file.name), file.data);
    for (const File &file : second) EXPECT_EQ(jobtest::contents(all, file.name), file.data);
    EXPECT_EQ(all.size(), 9u);
    // The volume list has a line for each package, in the order of the tape, and no other.
    // Sound lists number the files.
    std::string list;
    std::map<std::string, int> entries;
    int files = 0;
    for (const auto &one : all) {
      if (one.header.sequence == 0 && isSound()) entries[one.header.fromhost] = ++files;
      list += std::to_string(entries[one.header.fromhost]) + ":" + one.header.fromhost + ":" +
              std::to_string(one.header.sequence) + ":" + one.header.filename + "\n";
    }
    EXPECT_EQ(volumeList(1), list);
    ASSERT_EQ(history().size(), 1u);
    EXPECT_EQ(history()[0].status, 1);
    EXPECT_EQ(history()[0].volume, 1);
    long long alphaBytes = 1000 + 2 * PACK_CHUNK + 77 + 5 + 6 * 520;
    long long betaBytes = PACK_CHUNK + 3 * 520;
    EXPECT_EQ(history()[0].kbytes, alphaBytes / 1024 + betaBytes / 1024);
    EXPECT_EQ(nextVolume(), 3);
    EXPECT_FALSE(tape::isPending(1, 0));
    expectNothingLeft();
  });
}

TEST_P(AnyBackup, SaysWhatItDoesInThisOrder) {
  loadTape();
  defineJob({"127.0.0.2"});
  alone([&] {
    Client alpha("127.0.0.2", std::vector<File>{{"/a", std::string(2000, 'a')}});
    EXPECT_EQ(backup(), 0);
    EXPECT_EQ(anonymous(support::readFile(path("tmp/console"))),
              "Starting backup job# 7 on DATE\nPositioning tape.\n"
              "Closing connection.  Backup will continue silently.\n"
              "Logging to " +
                  home + "/var/tape/jobids/___.stat\nTRANSFER OK\n");
    std::string log = anonymous(jobLog());
    std::string before = log.substr(0, log.find("Child exit status"));
    EXPECT_EQ(before,
              "Starting backup job# 7 on DATE\nReading tape header.\n"
              "NOTE:   Positioning tape to volume 1\n"
              "Writing to tape number: 0\nWrote backup ID to tape.\n"
              "Synchronizing backup request lists.\nSynchronizing 127.0.0.2..\n"
              "Starting gathering processes\nListener for: 127.0.0.2  started\n"
              "Making FIFO for: 127.0.0.2\nFIFO made.\n");
    EXPECT_EQ(log.substr(before.size()),
              "Child exit status = 8\nBacked-up 2 KB in 1 items, at R KB/s from 127.0.0.2.\n"
              "Stopping gathering process for 127.0.0.2.\nINFO:  Backup finished..\n"
              "Completed backup job# 7 at DATE\n\n\n")
        << log;
  });
}

TEST_P(AnyBackup, KeepsTheFormerCatalogAndAppendsItsVolume) {
  loadTape();
  defineJob({"127.0.0.2"});
  alone([&] {
    Client alpha("127.0.0.2", std::vector<File>{{"/a", "abc"}});
    EXPECT_EQ(backup("0"), 0);
    std::string one = catalog();
    EXPECT_EQ(support::readFile(tapeFilePath("catalog.Old")), "");
    EXPECT_EQ(one.size(), 8200 + 128 + strlen("/etc/") + strlen("/home/"));
    EXPECT_EQ(backup("4"), 0);
    EXPECT_EQ(support::readFile(tapeFilePath("catalog.Old")), one);
    EXPECT_EQ(catalog().size(), 2 * one.size());
    auto tape = readTape();
    ASSERT_EQ(tape.size(), 5u);
    EXPECT_EQ(packages(tape[4]).size(), 1u);
    ASSERT_EQ(history().size(), 2u);
    EXPECT_EQ(history()[1].volume, 3);
    EXPECT_EQ(history()[1].level, 4);
    EXPECT_EQ(listed(3), "client2:0:/a\n");
  });
}

TEST_P(AnyBackup, GoesOnWithoutAHostThatIsDown) {
  loadTape();
  defineJob({"127.0.0.2", "127.0.0.3"});
  alone([&] {
    Client beta("127.0.0.3", std::vector<File>{{"/b", "bcd"}});
    EXPECT_EQ(backup(), isSound() ? -993 : 0);
    EXPECT_TRUE(logged("Child exit status = 2\n"));
    EXPECT_TRUE(logged("Completed backup job# 7 at "));
    EXPECT_EQ(logged("ERROR:  Backup of 127.0.0.2 failed: its gatherer could not be reached, see "
                     "var/tape/jobids/127.0.0.2.stat\nERROR:  1 of 2 hosts failed\n"),
              isSound());
    EXPECT_EQ(history()[0].status, isSound() ? 2 : 1);
    EXPECT_EQ(jobtest::contents(packages(readTape()[2]), "/b"), "bcd");
    std::string record = progressRecord();
    EXPECT_NE(record.find("\"state\":\"failed\",\"started\""), std::string::npos);
    EXPECT_NE(record.find("{\"host\":\"127.0.0.3\",\"state\":\"done\",\"files\":1"),
              std::string::npos)
        << record;
    expectNothingLeft();
  });
}

TEST_P(AnyBackup, WithAllHostsDownStillEndsItsDataFile) {
  loadTape();
  defineJob({"127.0.0.2"});
  alone([&] {
    EXPECT_EQ(backup(), isSound() ? -993 : 0);
    EXPECT_EQ(nextVolume(), 3) << "three marks, or no later volume finds its place";
    Client alpha("127.0.0.2", std::vector<File>{{"/a", "abc"}});
    EXPECT_EQ(backup(), 0);
    EXPECT_EQ(listed(3), "client2:0:/a\n");
    EXPECT_EQ(nextVolume(), 5);
  });
}

TEST_P(AnyBackup, WithoutMembersEndsAtOnce) {
  loadTape();
  defineJob({});
  alone([&] {
    // A group without members has one without a name.
    EXPECT_EQ(backup(), isSound() ? -993 : 0) << jobLog();
    EXPECT_EQ(nextVolume(), 3);
  });
}

TEST_P(AnyBackup, EndsWhenAGatheringChildIsKilled) {
  loadTape();
  defineJob({"127.0.0.2", "127.0.0.3"});
  auto dies = [](int sd) {
    char line[5];
    (void)!read(sd, line, sizeof line);
    std::string half = jobtest::header({"/half", std::string(5000, 'h')}, 0);
    (void)!write(sd, half.data(), half.size());
    base::sleepMs(60000);
  };
  alone([&] {
    Client alpha("127.0.0.2", Client::Play{{}, dies, true, true});
    Client beta("127.0.0.3", std::vector<File>{{"/b", "bcd"}});
    pid_t job = startBackup();
    ASSERT_TRUE(support::eventually(
        [&] { return hostLogOf("127.0.0.2").find("Sending:") != std::string::npos; }));
    // Only the children of the job are looked for.
    std::string children = support::readFile("/proc/" + std::to_string(job) + "/task/" +
                                             std::to_string(job) + "/children");
    std::istringstream list(children);
    int killed = 0;
    for (pid_t child; list >> child;) killed += kill(child, SIGKILL) == 0;
    EXPECT_GE(killed, 1);
    EXPECT_EQ(awaitBackup(job), isSound() ? -993 : 0);
    EXPECT_TRUE(logged("Child exit status = 16\n"));
    EXPECT_EQ(logged("was killed by signal 9"), isSound());
    expectNothingLeft();
  });
}

TEST_P(AnyBackup, AFullTapeStopsTheHostOrTheJob) {
  net::gatherLimits.takenMs = 300;
  loadTape(1 << 20);
  defineJob({"127.0.0.2"});
  alone([&] {
    std::vector<File> files;
    for (int at = 0; at < 4; at++)
      files.push_back({"/f" + std::to_string(at), jobtest::pattern(600000)});
    Client alpha("127.0.0.2", files);
    EXPECT_EQ(backup(), isSound() ? -994 : 0) << jobLog();
    EXPECT_TRUE(logged("Fatal error.  Can't write to tape."));
    EXPECT_EQ(logged("Completed backup job# 7 at "), !isSound());
    EXPECT_EQ(logged("ERROR:  Backup job# 7 failed on drive 1, tape 0, volume 1: No space left on "
                     "device.  The tape is full: load another one and run the job again.\n"),
              isSound());
    EXPECT_EQ(history()[0].status, isSound() ? 0 : 1);
    EXPECT_NE(progressRecord().find("\"state\":\"failed\""), std::string::npos);
    expectNothingLeft();
  });
  net::gatherLimits.takenMs = 100000;
}

TEST_P(AnyBackup, AFailedWriteOfOneHeaderIsReportedOnce) {
  net::gatherLimits.takenMs = 300;
  loadTape();
  defineJob({"127.0.0.2"});
  // The catalog copy takes nine.
  ASSERT_EQ(drive::setFaults("d1", "write 12 EIO\n"), "");
  alone([&] {
    Client alpha("127.0.0.2", std::vector<File>{{"/a", "abc"}, {"/b", "bcd"}});
    EXPECT_EQ(backup(), isSound() ? -994 : 0);
    EXPECT_EQ(jobtest::count(jobLog(),
                             "ERROR:  8320  Fatal error.  Can't write to tape.  "
                             "retval=-1, errno=5\n"),
              1);
    EXPECT_EQ(nextVolume(), 3) << "what was written stands between its marks";
  });
  net::gatherLimits.takenMs = 100000;
}

TEST_P(AnyBackup, ACatalogCopyThatFailsEndsTheJob) {
  loadTape();
  defineJob({"127.0.0.2"});
  ASSERT_EQ(drive::setFaults("d1", "write 1 EIO\n"), "");
  alone([&] {
    EXPECT_EQ(backup(), -1);
    EXPECT_TRUE(logged("ERROR:  8323  Short write!, errno = 5\n"));
    EXPECT_EQ(catalog().empty(), isSound()) << "a sound job takes its volume out again";
    EXPECT_EQ(logged("ERROR:  8330  "), isSound());
    if (isSound()) {
      EXPECT_EQ(nextVolume(), 1);
    }
    EXPECT_NE(progressRecord().find("\"result\":-1,"), std::string::npos);
  });
}

TEST_P(AnyBackup, ADriveThatCannotBeOpenedForTheDataTakesTheVolumeBack) {
  loadTape();
  defineJob({"127.0.0.2"});
  alone([&] {
    Client alpha("127.0.0.2", std::vector<File>{});
    // The job logs in to push its list when the catalog copy is written and the data are not.
    support::hostPlay.login = [](int) {
      (void)drive::unloadCartridge("d1");
      return 0;
    };
    int result = backup();
    EXPECT_EQ(result, isSound() ? -994 : 0);
    EXPECT_TRUE(logged("ERROR:  8310  Can't open tape device: /dev/vtape/d1\nERROR:  8330  "));
    EXPECT_EQ(catalog(), "");
    EXPECT_EQ(history()[0].status, isSound() ? 0 : 1);
    EXPECT_EQ(history()[0].kbytes, isSound() ? 0 : -1);
  });
}

TEST_P(AnyBackup, ABusyDriveIsWaitedFor) {
  loadTape();
  defineJob({"127.0.0.2"});
  alone([&] {
    Client alpha("127.0.0.2", std::vector<File>{{"/a", "abc"}});
    // In a process of its own: a job would inherit it.
    pid_t holder = fork();
    if (holder == 0) {
      (void)drive::openDrive(device, O_RDONLY);
      support::writeFile(path("tmp/held"), "");
      pause();
    }
    ASSERT_TRUE(support::eventually([&] { return support::exists(path("tmp/held")); }));
    pid_t job = startBackup();
    base::sleepMs(50);
    EXPECT_EQ(waitpid(job, nullptr, WNOHANG), 0);
    kill(holder, SIGKILL);
    waitpid(holder, nullptr, 0);
    EXPECT_EQ(awaitBackup(job), 0);
  });
}

TEST_P(AnyBackup, AJobThatIsNotThereIsNotStarted) {
  loadTape();
  EXPECT_EQ(backup(), -1);
}

TEST_P(AnyBackup, ADriveThatIsNoDeviceCannotBePositioned) {
  loadTape();
  defineJob({"127.0.0.2"});
  support::writeFile(path("etc/tapedevs"), "1:d1:" + path("tmp/file") + ":a:b:\n");
  support::writeFile(path("tmp/file"), "");
  int result = backup();
  // Without a label on it, or as a path that is no device: it cannot be positioned either way.
  EXPECT_TRUE(result == -12 || result == -11) << result;
  EXPECT_TRUE(logged("ERROR:  8306  Fatal error.  Cannot position tape.\n"));
  EXPECT_NE(support::readFile(path("tmp/console")).find("TRANSFER OK\n"), std::string::npos);
  EXPECT_TRUE(history().empty());
}

TEST_P(AnyBackup, ADriveThatCannotBeReadEndsTheJob) {
  loadTape();
  defineJob({"127.0.0.2"});
  ASSERT_EQ(drive::unloadCartridge("d1"), "");
  EXPECT_EQ(backup(), -11);
  EXPECT_TRUE(logged("ERROR:  8306  Fatal error.  Cannot position tape.\n"));
}

TEST_P(AnyBackup, AHistoryThatCannotBeWrittenEndsTheJob) {
  loadTape();
  defineJob({"127.0.0.2"});
  mkdir(path("var/tape/bhistory").c_str(), 0700);
  EXPECT_EQ(backup(), -9);
  EXPECT_TRUE(logged("ERROR:  8307  Fatal error.  Aborting backup.\n"));
  EXPECT_EQ(catalog(), "");
}

TEST_P(AnyBackup, AVolumeListThatCannotBeOpenedTakesTheVolumeBack) {
  loadTape();
  defineJob({"127.0.0.2"});
  mkdir(tapeFilePath("vol.1").c_str(), 0700);
  EXPECT_EQ(backup(), -995);
  EXPECT_TRUE(logged("ERROR:  8309  Fatal error.  Cannot open backup volume list: " +
                     tapeFilePath("vol.1") + ".  errno = 21\n"));
  EXPECT_EQ(catalog(), "");
  EXPECT_EQ(nextVolume(), 1);
}

TEST_P(AnyBackup, ACatalogThatCannotBeCopiedEndsTheJob) {
  loadTape();
  defineJob({"127.0.0.2"});
  mkdir(tapeFilePath("catalog.Old").c_str(), 0700);
  EXPECT_EQ(backup(), -998);
  EXPECT_TRUE(logged("ERROR:  8308  Cannot make a backup copy of the tape catalog.\n"));
}

TEST_P(AnyBackup, AJobWithoutAListTakesItsVolumeBack) {
  loadTape();
  defineJob({"127.0.0.2"});
  unlink(path("var/tape/jobids/7").c_str());
  EXPECT_EQ(backup(), -1);
  EXPECT_TRUE(logged("ERROR:  8330  "));
  EXPECT_EQ(catalog(), "");
}

TEST_P(AnyBackup, StartsEightAtOnceAndTheNinthWhenOneIsDone) {
  loadTape();
  std::vector<std::string> hosts;
  for (int at = 2; at <= 11; at++) hosts.push_back("127.0.0." + std::to_string(at));
  defineJob(hosts);
  alone([&] {
    // They wait until the test lets them go on.
    auto waits = [&](int sd) {
      while (!support::exists(path("tmp/go"))) base::sleepMs(5);
      jobtest::serveFiles(sd, {{"/f", "abc"}});
    };
    std::vector<std::unique_ptr<Client>> clients;
    for (const std::string &host : hosts)
      clients.push_back(std::make_unique<Client>(host, Client::Play{{}, waits, true, true}));
    pid_t job = startBackup();
    EXPECT_TRUE(
        support::eventually([&] { return jobtest::count(jobLog(), "FIFO made.\n") == 8; }, 10000));
    base::sleepMs(100);
    EXPECT_EQ(jobtest::count(jobLog(), "Listener for: "), 8);
    EXPECT_EQ(jobtest::count(jobLog(), "Child exit status"), 0);
    support::writeFile(path("tmp/go"), "");
    EXPECT_EQ(awaitBackup(job), 0);
    EXPECT_EQ(jobtest::count(jobLog(), "Child exit status = 8\n"), 10);
    EXPECT_LT(jobLog().find("Stopping gathering"), jobLog().find("Listener for: 127.0.0.10  "));
    EXPECT_EQ(packages(readTape()[2]).size(), 10u);
    EXPECT_EQ(jobtest::count(volumeList(1), "\n"), 10) << "no line twice";
  });
}

TEST_P(AnyBackup, TakesMoreHostsThanTheUsualSegmentHolds) {
  loadTape();
  std::vector<std::string> hosts;
  for (int at = 0; at < 103; at++) hosts.push_back("127.0.1." + std::to_string(at + 1));
  defineJob(hosts);
  alone(
      [&] {
        Client last("127.0.1.103", std::vector<File>{{"/last", "abc"}});
        EXPECT_EQ(backup(), isSound() ? -993 : 0);
        EXPECT_EQ(jobtest::count(jobLog(), "Child exit status = 2\n"), 102);
        EXPECT_EQ(listed(1), "client103:0:/last\n");
      },
      60);
}

TEST_P(AnyBackup, AHostThatAnotherJobGathersIsWaitedForAndOthersGoFirst) {
  loadTape();
  defineJob({"127.0.0.2", "127.0.0.3"});
  alone([&] {
    Client alpha("127.0.0.2", std::vector<File>{{"/a", "abc"}});
    Client beta("127.0.0.3", std::vector<File>{{"/b", "bcd"}});
    // In a process of its own: a job would inherit it.
    pid_t other = fork();
    if (other == 0) {
      int lock = open(path("tmp/gather.127.0.0.2.lock").c_str(), O_RDWR | O_CREAT, 0600);
      if (flock(lock, LOCK_EX) == 0) support::writeFile(path("tmp/held"), "");
      pause();
    }
    ASSERT_TRUE(support::eventually([&] { return support::exists(path("tmp/held")); }));
    pid_t job = startBackup();
    EXPECT_TRUE(
        support::eventually([&] { return logged("Stopping gathering process for 127.0.0.3.\n"); }));
    EXPECT_EQ(jobtest::count(jobLog(), "NOTICE:  127.0.0.2 is being gathered by another job"), 1);
    EXPECT_FALSE(logged("Listener for: 127.0.0.2"));
    kill(other, SIGKILL);
    waitpid(other, nullptr, 0);
    EXPECT_EQ(awaitBackup(job), 0);
    EXPECT_EQ(listed(1), "client3:0:/b\nclient2:0:/a\n");
  });
}

TEST_F(Backup, SoundAHostThatTakesTheNameOfAnotherFailsAlone) {
  behave("sound");
  loadTape();
  defineJob({"127.0.0.2", "127.0.0.3", "127.0.0.4"});
  alone([&] {
    Client alpha("127.0.0.2", {{"/gone", "", 0, ""}, {"/a", "abc"}, {"/gone too", "", 0, ""}});
    Client beta("127.0.0.3", std::vector<File>{{"/b", "bcd", 0, "127.0.0.2"}});
    Client gamma("127.0.0.4", std::vector<File>{{"/c", "cde"}, {"/d", "def", 0, "client2"}});
    EXPECT_EQ(backup(), -993);
    EXPECT_TRUE(logged("ERROR:  Backup of 127.0.0.3 failed: it has the node name of another host"));
    EXPECT_TRUE(logged("ERROR:  Backup of 127.0.0.4 failed: it changed its name"));
    EXPECT_TRUE(logged("3 items, at ")) << "what vanished has no name";
    EXPECT_EQ(jobtest::count(volumeList(1), "client2:0:/a\n"), 1);
    EXPECT_EQ(jobtest::count(jobLog(), "ERROR:  Backup of "), 2);
    EXPECT_EQ(jobtest::count(volumeList(1), "/b\n") + jobtest::count(volumeList(1), "/d\n"), 0);
  });
}

TEST_P(AnyBackup, AHostWhoseNameIsNoFileNameIsLeftOut) {
  loadTape();
  defineJob({"up/../../host", "127.0.0.3"});
  alone([&] {
    Client beta("127.0.0.3", std::vector<File>{{"/b", "bcd"}});
    EXPECT_EQ(backup(), isSound() ? -993 : 0);
    EXPECT_TRUE(logged("ERROR:  Host number 1 of the group cannot be gathered: up/../../host\n"));
    EXPECT_EQ(listed(1), "client3:0:/b\n");
  });
}

TEST_F(Backup, ClassicItsSegmentStays) {
  loadTape();
  defineJob({"127.0.0.2"});
  alone([&] {
    int before = jobtest::segments();
    EXPECT_EQ(backup(), 0);
    EXPECT_EQ(jobtest::segments(), before + 1);
  });
}

TEST_F(Backup, SoundItsSegmentGoesWithIt) {
  behave("sound");
  loadTape();
  defineJob({"127.0.0.2"});
  alone([&] {
    int before = jobtest::segments();
    EXPECT_EQ(backup(), -993);
    EXPECT_EQ(jobtest::segments(), before);
  });
}

TEST_F(Backup, SoundAListThatWasNotStoredFailsItsHost) {
  behave("sound");
  loadTape();
  defineJob({"127.0.0.2"});
  alone([&] {
    Client alpha("127.0.0.2", Client::Play{{{"/a", "abc"}}, nullptr, false, true});
    EXPECT_EQ(backup(), -993);
    EXPECT_TRUE(logged("ERROR:  Backup of 127.0.0.2 failed: backup list not pushed\n"));
    EXPECT_EQ(listed(1), "client2:0:/a\n") << "it is gathered all the same";
    EXPECT_EQ(history()[0].status, 2);
  });
}

TEST_F(Backup, SoundALevelMeansSinceTheLastRunOfALowerOne) {
  behave("sound");
  loadTape();
  defineJob({"127.0.0.2"});
  histrec run;
  memset(&run, 0, sizeof run);
  run.magic = PACK_MAGIC;
  run.job = 7;
  run.group = 3;
  run.start = time(nullptr) - 1000;
  run.retention = 3600;
  run.status = 1;
  run.kbytes = 321;
  support::writeFile(path("var/tape/bhistory"),
                     std::string(reinterpret_cast<char *>(&run), sizeof run));
  alone([&] {
    // The played agent keeps what it was asked for.
    int port = 2345;
    base::Fd listening(support::listenOn(port));
    support::writeFile(path("var/tape/jobids/group"), "3:127.0.0.1:all\n");
    pid_t job = startBackup("2");
    std::string asked;
    for (int at = 0; at < 2; at++) {
      base::Fd sd(accept(listening.get(), nullptr, nullptr));
      char bytes[4096];
      ssize_t got = read(sd.get(), bytes, sizeof bytes - 1);
      bytes[got < 0 ? 0 : got] = '\0';
      asked = bytes;
    }
    EXPECT_EQ(asked, "TAPE server 7 " + std::to_string(run.start) + "\n");
    // Nobody opens the data port.
    kill(-job, SIGKILL);
    waitpid(job, nullptr, 0);
    EXPECT_NE(progressRecord().find("\"expectedBytes\":0,"), std::string::npos);
  });
}

TEST_F(Backup, KnowsWhatTheLastRunWrote) {
  loadTape();
  defineJob({"127.0.0.2"});
  alone([&] {
    Client alpha("127.0.0.2", std::vector<File>{{"/a", std::string(5000, 'a')}});
    EXPECT_EQ(backup(), 0);
    EXPECT_EQ(backup(), 0);
    EXPECT_NE(progressRecord().find("\"expectedBytes\":5120,"), std::string::npos)
        << progressRecord();
  });
}

TEST_F(Backup, SoundToldToStopEndsInOrder) {
  behave("sound");
  loadTape();
  defineJob({"127.0.0.2", "127.0.0.3"});
  alone([&] {
    Client alpha("127.0.0.2", std::vector<File>{{"/a", "abc"}});
    Client beta("127.0.0.3", Client::Play{{}, [](int) { base::sleepMs(60000); }, true, true});
    pid_t job = startBackup();
    ASSERT_TRUE(
        support::eventually([&] { return logged("Stopping gathering process for 127.0.0.2.\n"); }));
    kill(job, SIGTERM);
    EXPECT_EQ(awaitBackup(job), -994);
    EXPECT_TRUE(
        logged("ERROR:  Backup job# 7 was told to stop.  Volume 1 of tape 0 holds what was "
               "written until then.\n"));
    EXPECT_EQ(history()[0].status, 0);
    EXPECT_EQ(nextVolume(), 3);
    expectNothingLeft();
  });
}

// A job that is killed leaves its children, its mailboxes, its volume. Whatever the moment, the
// next job must find a catalog that agrees with the tape.
class KilledBackup : public Backup, public ::testing::WithParamInterface<const char *> {};
INSTANTIATE_TEST_SUITE_P(When, KilledBackup,
                         ::testing::Values("Writing to tape number", "Wrote backup ID", "FIFO made",
                                           "Stopping gathering process"),
                         [](const auto &one) {
                           return std::regex_replace(std::string(one.param), std::regex(" "), "");
                         });

TEST_P(KilledBackup, SoundLeavesATapeThatTheNextJobCanUse) {
  behave("sound");
  loadTape();
  defineJob({"127.0.0.2", "127.0.0.3"});
  alone([&] {
    {
      Client alpha("127.0.0.2", std::vector<File>{{"/a", "abc"}});
      Client beta("127.0.0.3", Client::Play{{}, [](int) { base::sleepMs(60000); }, true, true});
      pid_t job = startBackup();
      ASSERT_TRUE(support::eventually([&] { return logged(GetParam()); }));
      kill(job, SIGKILL);
      waitpid(job, nullptr, 0);
    }
    EXPECT_TRUE(tape::isPending(1, 0));
    // The children go by themselves; the drive is free when the last one has.
    Client alpha("127.0.0.2", std::vector<File>{{"/a", "abc"}});
    Client beta("127.0.0.3", std::vector<File>{{"/b", "bcd"}});
    EXPECT_EQ(backup(), 0) << jobLog();
    EXPECT_TRUE(logged("NOTICE:  An earlier backup to this tape was interrupted")) << jobLog();
    EXPECT_FALSE(tape::isPending(1, 0));
    int volume = history().back().volume;
    auto tape = readTape();
    ASSERT_EQ(tape.size(), static_cast<size_t>(volume + 2));
    EXPECT_EQ(packages(tape.back()).size(), 2u);
    EXPECT_EQ(nextVolume(), volume + 2);
    expectNothingLeft();
  });
}

// The tape still holds a volume that was taken back out of the catalog when a later job is killed
// between its record and its catalog copy: that old volume must not pass for the new one.
TEST_F(Backup, SoundAKilledJobsVolumeIsNotMistakenForAnOlderOne) {
  behave("sound");
  loadTape();
  defineJob({"127.0.0.2"});
  alone([&] {
    Client alpha("127.0.0.2", std::vector<File>{{"/a", "abc"}});
    ASSERT_EQ(backup(), 0) << jobLog();
    std::string folder = path("var/tape/drive.1/tape.0/");
    std::string catalog = support::readFile(folder + "catalog");
    support::writeFile(folder + "catalog.Old", "");
    int64_t created = 1;
    catalog.replace(offsetof(catlgstru, created), sizeof created,
                    reinterpret_cast<const char *>(&created), sizeof created);
    support::writeFile(folder + "catalog", catalog);
    ASSERT_TRUE(tape::notePending(1, 0, 1));
  });
  alone([&] {
    Client alpha("127.0.0.2", std::vector<File>{{"/b", "bcd"}});
    EXPECT_EQ(backup(), 0) << jobLog();
    EXPECT_EQ(history().back().volume, 1);
    EXPECT_EQ(readTape().size(), 3u);
    EXPECT_EQ(nextVolume(), 3);
  });
}

// Restored from an old copy, say: the tape knows better.
TEST_P(AnyBackup, ACatalogThatLostItsLastVolume) {
  loadTape();
  defineJob({"127.0.0.2"});
  const bool isSound = std::string(GetParam()) == "sound";
  alone([&] {
    Client alpha("127.0.0.2", std::vector<File>{{"/a", "abc"}});
    ASSERT_EQ(backup(), 0) << jobLog();
    support::writeFile(path("one"), catalog());
  });
  alone([&] {
    Client alpha("127.0.0.2", std::vector<File>{{"/b", "bcd"}});
    ASSERT_EQ(backup(), 0) << jobLog();
    support::writeFile(path("two"), catalog());
    support::writeFile(tapeFilePath("catalog"), support::readFile(path("one")));
  });
  alone([&] {
    Client alpha("127.0.0.2", std::vector<File>{{"/c", "cde"}});
    EXPECT_EQ(backup(), isSound ? -11 : 0) << jobLog();
    EXPECT_EQ(packages(readTape().back()).size(), 1u);
    const std::string kept = "ERROR:  The tape holds volume 3, which its catalog does not know.";
    EXPECT_EQ(logged(kept), isSound) << jobLog();
  });
  if (!isSound) return;
  alone([&] {
    Client alpha("127.0.0.2", std::vector<File>{{"/c", "cde"}});
    support::writeFile(tapeFilePath("catalog"), support::readFile(path("two")));
    EXPECT_EQ(backup(), 0) << jobLog();
    EXPECT_EQ(history().back().volume, 5);
  });
}

TEST_F(Backup, ClassicAKilledJobsChildrenLeave) {
  loadTape();
  defineJob({"127.0.0.2"});
  alone([&] {
    Client alpha("127.0.0.2", std::vector<File>{{"/a", "abc"}});
    behave("classic", "pause.gather-child = 200ms\n");
    pid_t job = startBackup();
    ASSERT_TRUE(support::eventually([&] { return logged("FIFO made"); }));
    kill(job, SIGKILL);
    waitpid(job, nullptr, 0);
    EXPECT_TRUE(support::eventually([&] { return !support::exists(path("tmp/ipc.127.0.0.2")); }));
  });
}

TEST_F(Backup, GatheringAloneGivesTheKilobytes) {
  loadTape();
  defineJob({"127.0.0.2"});
  alone([&] {
    Client alpha("127.0.0.2", std::vector<File>{{"/a", std::string(5000, 'a')}});
    jobrun run;
    memset(&run, 0, sizeof run);
    ASSERT_EQ(readJobid(7, &run.rec), 0);
    run.volume = 1;
    std::string name = device;
    support::captureStderr([&] { mtFSF(name.data(), 1); });
    tpshmid = tpmkShMem(IPC_SHM_SIZE);
    FILE *list = fopen(path("tmp/list").c_str(), "w");
    EXPECT_EQ(processHostData(&run, 0, name.data(), list), 5.0);
    fclose(list);
    EXPECT_EQ(support::readFile(path("tmp/list")), "0:client2:0:/a\n");
    tprmShMem(tpshmid);
    // Without a drive, and without a segment.
    std::string none = "/dev/vtape/none";
    EXPECT_EQ(processHostData(&run, 0, none.data(), nullptr), -1.0);
    EXPECT_NE(hostLog().find("ERROR:  8310  Can't open tape device: /dev/vtape/none\n"),
              std::string::npos);
    tpgetShMemPtr(-1);
    tpshmid = -1;
    EXPECT_EQ(processHostData(&run, 0, name.data(), nullptr), -1.0);
    EXPECT_NE(statusLog().find("ERROR:  8315  Fatal error.  Failed to find shared memory buffer."),
              std::string::npos);
  });
}

}  // namespace
