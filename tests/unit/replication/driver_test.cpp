// The job driver: its texts, its order, what a target that fails costs.
#include <errno.h>
#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <regex>

#include "base/pause.h"
#include "repltest.h"

using repltest::count;
using repltest::TargetHost;
using support::eventually;
using support::exists;
using support::readFile;
using support::writeFile;

namespace {

class Driver : public repltest::ReplicationTest, public testing::WithParamInterface<const char *> {
 protected:
  void SetUp() override {
    ReplicationTest::SetUp();
    behave(GetParam());
    mkdir(path("tree").c_str(), 0755);
    writeFile(path("tree/one"), "first");
    writeFile(path("tree/two"), repltest::pattern(1500000));
    (void)!symlink("one", path("tree/link").c_str());
    offer({path("tree") + "/"});
  }
  bool sound() const { return strcmp(GetParam(), "sound") == 0; }
  // The copy of a file on a target whose destination is this folder.
  std::string copy(const std::string &folder, const std::string &file) const {
    return readFile(folder + path(file));
  }
};

INSTANTIATE_TEST_SUITE_P(, Driver, testing::Values("classic", "sound"),
                         [](const auto &each) { return std::string(each.param); });

TEST_P(Driver, AnUnknownJobIsSaidTwiceAndFails) {
  EXPECT_EQ(run("5"), -1);
  for (const std::string &text : {jobLog(), console()}) {
    EXPECT_TRUE(std::regex_search(text, std::regex("^Starting replication job# 5 on \\w{3} \\w{3} "
                                                   "[ 0-9]\\d \\d\\d:\\d\\d:\\d\\d \\d{4}\n")))
        << text;
    EXPECT_NE(text.find("ERROR:  Cannot find job number 5\n"), std::string::npos);
  }
}

TEST_P(Driver, OneTargetGetsTheTree) {
  alone([&] {
    defineJob({"127.0.0.2"}, path("copy"));
    TargetHost target("127.0.0.2", path("tmp"));
    ASSERT_EQ(run(), 0) << jobLog();
    EXPECT_EQ(copy(path("copy"), "tree/one"), "first");
    EXPECT_EQ(copy(path("copy"), "tree/two"), repltest::pattern(1500000));
    EXPECT_EQ(std::filesystem::read_symlink(path("copy") + path("tree/link")), "one");
    EXPECT_EQ(asked("127.0.0.2"), "TAPE repclnt " + path("copy") + " 4 0\n");
    std::string log = jobLog(), said = console();
    for (const char *line :
         {"Starting replication helpers\n", "NOTE:  This is the child of mkRlist. It will die\n",
          "NOTE:  This is the child of the child of mkRlist. It will run\n",
          "INFO:  NO Encryption\n", "Listner on 127.0.0.2\n",
          "Listner starting handshaking with 127.0.0.2\n", "Finished replication to 1 hosts.\n"})
      EXPECT_NE(log.find(line), std::string::npos) << line << log;
    EXPECT_EQ(said.find("Building list of files to replicate\n"
                        "This may take some time.  Closing ZUL console connection.\nTRANSFER OK\n"),
              said.find('\n') + 1);
    EXPECT_NE(said.find("Finished replication to 1 hosts.\n"), std::string::npos);
    EXPECT_TRUE(
        std::regex_search(log, std::regex("Starting listener for: 127.0.0.2.  PID = \\d+\n")));
    EXPECT_TRUE(
        std::regex_search(said, std::regex("Starting listener for: 127.0.0.2.  PID = \\d+\n")));
    EXPECT_TRUE(
        std::regex_search(log, std::regex("Finished replicating to: 127.0.0.2   PID = \\d+\n")));
    EXPECT_TRUE(
        std::regex_search(said, std::regex("Finished replication to: 127.0.0.2  PID = \\d+\n")));
  });
}

TEST_P(Driver, TheListComesFromTheJobsOwn) {
  alone([&] {
    defineJob({"127.0.0.2"}, path("copy"));
    TargetHost target("127.0.0.2", path("tmp"));
    run();
    EXPECT_NE(readFile(path("var/tape/jobids/repl.5")).find(" " + path("tree/one") + "\n"),
              std::string::npos);
  });
}

TEST_P(Driver, AGroupWithoutMembersIsDoneAtOnce) {
  defineJob({}, path("copy"));
  EXPECT_EQ(run(), sound() ? -2 : 0);
  EXPECT_NE(jobLog().find("Finished replication to 0 hosts.\n"), std::string::npos);
  EXPECT_NE(console().find("Finished replication to 0 hosts.\n"), std::string::npos);
}

TEST_P(Driver, AnEmptyListStillMeetsEveryTarget) {
  alone([&] {
    offer({});
    defineJob({"127.0.0.2"}, path("copy"));
    TargetHost::Play play;
    play.receive = [&](int listening) {
      base::Fd sd(accept(listening, nullptr, nullptr));
      char raw[PACK_SIZE];
      bool good = writen(sd.get(), "Next\n", 5) == 5 &&
                  readn(sd.get(), raw, sizeof raw) == PACK_SIZE && memcmp(raw, "St0P", 4) == 0 &&
                  read(sd.get(), raw, 1) == 0;
      writeFile(path("tmp/end"), good ? "good" : "bad");
      return 0;
    };
    TargetHost target("127.0.0.2", path("tmp"), play);
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(readFile(path("tmp/end")), "good");
  });
}

TEST_P(Driver, EightAreServedAtOnceAndNoMore) {
  alone([&] {
    std::vector<std::string> hosts;
    std::vector<std::unique_ptr<TargetHost>> targets;
    TargetHost::Play play;
    // Counts itself in, waits until nobody new has come for a while, and leaves.
    play.receive = [&](int listening) {
      base::Fd sd(accept(listening, nullptr, nullptr));
      std::string mine = path("tmp/in." + std::to_string(getpid()));
      writeFile(mine, "");
      size_t most = 0;
      for (int look = 0; look < 30; look++) {
        size_t present = 0;
        for (const auto &entry : std::filesystem::directory_iterator(path("tmp")))
          present += entry.path().filename().string().rfind("in.", 0) == 0;
        most = std::max(most, present);
        base::sleepMs(10);
      }
      writeFile(path("tmp/most." + std::to_string(getpid())), std::to_string(most));
      unlink(mine.c_str());
      char raw[PACK_SIZE];
      writen(sd.get(), "Quit\n", 5);
      (void)!read(sd.get(), raw, 1);
      return 0;
    };
    for (int number = 2; number < 14; number++) {
      hosts.push_back("127.0.0." + std::to_string(number));
      targets.push_back(std::make_unique<TargetHost>(hosts.back(), path("tmp"), play));
    }
    defineJob(hosts, path("copy"));
    EXPECT_EQ(run(), 0);
    int most = 0;
    for (const auto &entry : std::filesystem::directory_iterator(path("tmp")))
      if (entry.path().filename().string().rfind("most.", 0) == 0)
        most = std::max(most, atoi(readFile(entry.path()).c_str()));
    EXPECT_LE(most, 8);
    EXPECT_GE(most, 5);
    EXPECT_NE(jobLog().find("Finished replication to 12 hosts.\n"), std::string::npos);
    // The ninth is started only behind the end of one of the first eight.
    std::string log = jobLog();
    EXPECT_LT(log.find("Finished replicating to: "),
              log.find("Starting listener for: 127.0.0.10."));
  });
}

TEST_P(Driver, ManyMembersHaveRoom) {
  alone([&] {
    std::vector<std::string> hosts;
    for (int number = 0; number < 140; number++)
      hosts.push_back("127.0.1." + std::to_string(number + 1));
    defineJob(hosts, path("copy"));
    offer({});
    EXPECT_EQ(run(), sound() ? -2 : 0);
    EXPECT_NE(jobLog().find("Finished replication to 140 hosts.\n"), std::string::npos);
    EXPECT_EQ(count(jobLog(), "ERROR: Unable to start replication client on 127.0.1."), 140);
    EXPECT_EQ(count(results(), "\"state\":\"failed\""), 140);
  });
}

TEST_P(Driver, ATargetThatIsDownCostsOnlyItself) {
  alone([&] {
    defineJob({"127.0.0.2", "127.0.0.3"}, path("copy"));
    TargetHost target("127.0.0.3", path("tmp"));
    EXPECT_EQ(run(), sound() ? -2 : 0);
    EXPECT_NE(jobLog().find("ERROR: Unable to start replication client on 127.0.0.2\n"),
              std::string::npos);
    EXPECT_EQ(jobLog().find("File replication process for 127.0.0.2 did not exit cleanly.\n") !=
                  std::string::npos,
              sound());
    EXPECT_EQ(copy(path("copy"), "tree/one"), "first");
    EXPECT_NE(results().find("{\"host\":\"127.0.0.2\",\"state\":\"failed\",\"reason\":\"no "
                             "connection to its agent\""),
              std::string::npos);
    // Two files and a link; the folder and those above it; the contents of the files.
    EXPECT_NE(results().find("{\"host\":\"127.0.0.3\",\"state\":\"done\",\"reason\":\"\","
                             "\"files\":3,\"folders\":3,\"bytes\":1500005,\"seconds\":"),
              std::string::npos)
        << results();
  });
}

TEST_P(Driver, AKilledSenderIsCountedAtALaterLook) {
  alone([&] {
    defineJob({"127.0.0.2"}, path("copy"));
    TargetHost::Play play;
    play.receive = [](int listening) {
      base::Fd sd(accept(listening, nullptr, nullptr));
      char byte;
      (void)!read(sd.get(), &byte, 1);
      return 0;
    };
    TargetHost target("127.0.0.2", path("tmp"), play);
    pid_t job = start();
    std::smatch found;
    std::string log;
    ASSERT_TRUE(eventually([&] {
      log = jobLog();
      return std::regex_search(log, found, std::regex("PID = (\\d+)\n")) &&
             log.find("starting handshaking") != std::string::npos;
    }));
    kill(atoi(found[1].str().c_str()), SIGKILL);
    EXPECT_EQ(await(job), sound() ? -2 : 0);
    EXPECT_NE(jobLog().find("ERROR:  Gatherer has died for: 127.0.0.2\n"), std::string::npos);
    EXPECT_EQ(jobLog().find("Finished replicating to"), std::string::npos);
    EXPECT_NE(console().find("ERROR:  Checking kid_pid[0] = " + found[1].str() +
                             ",  Rephost = 127.0.0.2\n"
                             "Finished replication to: 127.0.0.2\n"),
              std::string::npos);
    EXPECT_NE(results().find("ended by signal 9"), std::string::npos);
  });
}

TEST_P(Driver, ALoginThatIsRefusedIsSaid) {
  alone([&] {
    support::hostPlay.loginResult = 1;
    defineJob({"127.0.0.2"}, path("copy"));
    TargetHost target("127.0.0.2", path("tmp"));
    run();
    EXPECT_NE(jobLog().find("ERROR:  Cannot start restore agent on remote host\n"
                            "ERROR: Unable to start replication client on 127.0.0.2\n"),
              std::string::npos);
    EXPECT_EQ(asked("127.0.0.2"), "");
  });
}

TEST_P(Driver, ADataPortThatIsNotOpenedIsSaid) {
  alone([&] {
    defineJob({"127.0.0.2"}, path("copy"));
    TargetHost::Play play;
    play.listens = false;
    TargetHost target("127.0.0.2", path("tmp"), play);
    // The end of the receiver is heard: nobody waits for a port that will not open.
    EXPECT_EQ(run("5", 5), sound() ? -2 : 0);
    EXPECT_NE(jobLog().find("Listner failed for 127.0.0.2\n"), std::string::npos);
  });
}

TEST_P(Driver, AListThatIsNotThereFailsTheHandshake) {
  alone([&] {
    defineJob({"127.0.0.2"}, path("copy"));
    unlink(path("var/tape/jobids/5").c_str());
    TargetHost target("127.0.0.2", path("tmp"));
    if (sound()) {
      EXPECT_EQ(run(), -1);
      EXPECT_NE(jobLog().find("ERROR:  Unable to construct replication request list, exiting.\n"),
                std::string::npos);
      return;
    }
    mkdir(path("var/tape/jobids/repl.5").c_str(), 0700);
    run();
    SUCCEED();
  });
}

TEST_P(Driver, TransformsAndPolicyShapeWhatArrives) {
  alone([&] {
    chmod(path("tree/one").c_str(), 0600);
    defineJob({"127.0.0.2"}, path("copy"), "4", "12:34:24576:420:0:0");
    writeFile(path("var/tape/jobids/trans.5"), path("tree") + ">/elsewhere\n");
    TargetHost target("127.0.0.2", path("tmp"));
    run();
    struct stat status {};
    ASSERT_EQ(stat(path("copy/elsewhere/one").c_str(), &status), 0) << jobLog();
    // Owner and group are kept by the flags; the permissions are the policy's.
    EXPECT_EQ(status.st_uid, getuid());
    EXPECT_EQ(status.st_mode & 07777, 0644u);
    EXPECT_NE(jobLog().find("Transform enabled!\n"), std::string::npos);
  });
}

TEST_P(Driver, AsManyTransformsAsThereIsRoomForAreUsed) {
  alone([&] {
    std::string pairs;
    for (int pair = 1; pair < 15; pair++) pairs += "/none" + std::to_string(pair) + ">/never\n";
    writeFile(path("var/tape/jobids/trans.5"), pairs + path("tree") + ">/elsewhere\n");
    defineJob({"127.0.0.2"}, path("copy"));
    TargetHost target("127.0.0.2", path("tmp"));
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(readFile(path("copy/elsewhere/one")), "first");
    EXPECT_EQ(jobLog().find("NOTICE:  Transforms"), std::string::npos) << jobLog();
  });
}

TEST_P(Driver, OneTransformTooManyIsSaidAndUnderSoundNothingIsSentToTheWrongPlace) {
  alone([&] {
    std::string pairs;
    for (int pair = 1; pair < 16; pair++) pairs += "/none" + std::to_string(pair) + ">/never\n";
    writeFile(path("var/tape/jobids/trans.5"), pairs + path("tree") + ">/elsewhere\n");
    defineJob({"127.0.0.2"}, path("copy"));
    TargetHost target("127.0.0.2", path("tmp"));
    EXPECT_EQ(run(), sound() ? -2 : 0);
    EXPECT_NE(jobLog().find("NOTICE:  Transforms of job 5: only the first 15 are used\n"),
              std::string::npos);
    EXPECT_FALSE(exists(path("copy/elsewhere")));
    EXPECT_EQ(exists(path("copy") + path("tree/one")), !sound());
    EXPECT_EQ(results().find("more transforms than are used") != std::string::npos, sound())
        << results();
  });
}

TEST_P(Driver, NamedMembersAreServedAlone) {
  alone([&] {
    defineJob({"127.0.0.2", "127.0.0.3"}, path("copy"));
    TargetHost target("127.0.0.3", path("tmp"));
    EXPECT_EQ(run("5 @127.0.0.3"), 0);
    EXPECT_NE(jobLog().find("Finished replication to 1 hosts.\n"), std::string::npos);
    EXPECT_EQ(results().find("127.0.0.2"), std::string::npos);
    EXPECT_EQ(progressRecord().find("127.0.0.2"), std::string::npos);
  });
}

TEST_P(Driver, TwoOfTheSameHostTakeTurns) {
  alone([&] {
    defineJob({"127.0.0.2", "127.0.0.2"}, path("copy"));
    TargetHost target("127.0.0.2", path("tmp"));
    EXPECT_EQ(run(), 0) << jobLog();
    EXPECT_NE(jobLog().find("NOTICE:  127.0.0.2 is busy with another job, waiting for it\n"),
              std::string::npos);
    EXPECT_EQ(count(results(), "\"state\":\"done\""), 2);
  });
}

TEST_P(Driver, KeepsARecordOfItsProgress) {
  alone([&] {
    defineJob({"127.0.0.2"}, path("copy"));
    TargetHost target("127.0.0.2", path("tmp"));
    run();
    std::string record = progressRecord();
    EXPECT_EQ(record.find("{\"kind\":\"replication\",\"job\":5,\"name\":\"copy\",\"pid\":"), 0u)
        << record;
    EXPECT_NE(record.find("\"state\":\"done\""), std::string::npos);
    EXPECT_EQ(count(record, "\"files\":3,\"folders\":3,\"bytes\":1500005,"), 2) << record;
    EXPECT_NE(record.find("\"hosts\":[{\"host\":\"127.0.0.2\",\"state\":\"done\""),
              std::string::npos);
    EXPECT_EQ(record.find("\"drive\""), std::string::npos);
  });
}

TEST_P(Driver, AReceiverWithMuchToSayIsHeard) {
  alone([&] {
    // A line for each of these files is more than a connection holds that nobody reads.
    for (int number = 0; number < 300; number++)
      writeFile(path("tree/f" + std::to_string(number)), "x");
    defineJob({"127.0.0.2"}, path("copy"), "1");
    TargetHost::Play play;
    play.receive = [&](int listening) {
      base::Fd sd(accept(listening, nullptr, nullptr));
      char raw[PACK_SIZE];
      std::string noise(50000, 'n');
      noise.back() = '\n';
      for (;;) {
        if (write(2, noise.data(), noise.size()) < 0 || writen(sd.get(), "Next\n", 5) != 5)
          return 1;
        if (readn(sd.get(), raw, sizeof raw) != PACK_SIZE) return 1;
        if (memcmp(raw, "St0P", 4) == 0) return 0;
      }
    };
    TargetHost target("127.0.0.2", path("tmp"), play);
    EXPECT_EQ(run(), 0) << jobLog();
    EXPECT_NE(results().find("\"kept\":306"), std::string::npos) << results();
  });
}

class ClassicDriver : public Driver {};
INSTANTIATE_TEST_SUITE_P(, ClassicDriver, testing::Values("classic"));

TEST_P(ClassicDriver, GivesTheListItsTimeAndEveryStartItsPause) {
  alone([&] {
    site(
        "pause.list-grace = 400ms\npause.replicate-start = 200ms\npause.replicate-poll = 10ms\n"
        "pause.receiver-start = 1ms\n");
    defineJob({"127.0.0.2", "127.0.0.3"}, path("copy"));
    long long before = base::nowMs();
    pid_t job = start();
    ASSERT_TRUE(eventually(
        [&] { return jobLog().find("Starting replication helpers\n") != std::string::npos; }));
    EXPECT_GE(base::nowMs() - before, 400);
    await(job);
    EXPECT_GE(base::nowMs() - before, 800);
  });
}

TEST_P(ClassicDriver, TheStatedPausesAreTheTables) {
  site("behaviour = classic\n");
  EXPECT_EQ(base::pauseLength(base::Pause::ListGrace), 10000);
  EXPECT_EQ(base::pauseLength(base::Pause::ReplicateStart), 5000);
  EXPECT_EQ(base::pauseLength(base::Pause::ReceiverStart), 5000);
  EXPECT_EQ(base::pauseLength(base::Pause::ReceiverReady), 5000);
  EXPECT_EQ(base::pauseLength(base::Pause::ReplicatePoll), 2000);
  EXPECT_EQ(base::pauseLength(base::Pause::ListStart), 100);
}

TEST_P(ClassicDriver, ADestinationThatCannotTravelIsSaidAndItsTargetIsNotReached) {
  alone([&] {
    defineJob({"127.0.0.2"}, path("my copy"));
    TargetHost::Play play;
    // What an agent makes of a line with a word too many.
    play.reply = "ERROR:  Command syntax error\n";
    play.listens = false;
    TargetHost target("127.0.0.2", path("tmp"), play);
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(asked("127.0.0.2"), "TAPE repclnt " + path("my copy") + " 4 0\n");
    std::string log = jobLog();
    EXPECT_NE(log.find("NOTICE:  A destination that is empty or has blanks in it cannot be sent"),
              std::string::npos);
    EXPECT_LT(log.find("INFO:  NO Encryption\n"), log.find("Listner failed for 127.0.0.2\n"));
    EXPECT_FALSE(exists(path("my")));
  });
}

TEST_P(ClassicDriver, AHandshakeThatFailsIsSaid) {
  alone([&] {
    defineJob({"127.0.0.2"}, path("copy"));
    TargetHost target("127.0.0.2", path("tmp"));
    // The list goes away between its making and its reading.
    site(
        "behaviour = classic\npause.list-start = 1ms\npause.list-grace = "
        "300ms\npause.receiver-start = 50ms\n"
        "pause.receiver-ready = 5ms\npause.replicate-start = 5ms\npause.replicate-poll = 10ms\n");
    pid_t job = start();
    eventually([&] { return exists(path("var/tape/jobids/repl.5")); });
    base::sleepMs(100);
    unlink(path("var/tape/jobids/repl.5").c_str());
    EXPECT_EQ(await(job), 0);
    EXPECT_NE(jobLog().find("ERROR:  Unable to handshake with 127.0.0.2.  Got error -1\n"),
              std::string::npos)
        << jobLog();
  });
}

class SoundDriver : public Driver {};
INSTANTIATE_TEST_SUITE_P(, SoundDriver, testing::Values("sound"));

TEST_P(SoundDriver, ATargetThatDiesMidwayIsNoticedAtOnce) {
  alone([&] {
    defineJob({"127.0.0.2", "127.0.0.3"}, path("copy"));
    TargetHost::Play play;
    play.tellsEnd = false;
    play.receive = [](int listening) {
      base::Fd sd(accept(listening, nullptr, nullptr));
      char raw[PACK_SIZE];
      writen(sd.get(), "Next\n", 5);
      readn(sd.get(), raw, sizeof raw);
      return 0;
    };
    TargetHost dying("127.0.0.2", path("tmp"), play);
    TargetHost living("127.0.0.3", path("tmp"));
    EXPECT_EQ(run("5", 5), -2);
    EXPECT_NE(
        results().find(
            "{\"host\":\"127.0.0.2\",\"state\":\"failed\",\"reason\":\"the connection broke off\""),
        std::string::npos)
        << results();
    EXPECT_NE(results().find("{\"host\":\"127.0.0.3\",\"state\":\"done\""), std::string::npos);
    EXPECT_NE(jobLog().find("ERROR:  Unable to handshake with 127.0.0.2.  Got error -8\n"),
              std::string::npos);
    EXPECT_NE(progressRecord().find("\"error\":\"1 of 2 hosts failed\""), std::string::npos);
  });
}

TEST_P(SoundDriver, ASilentTargetIsGivenUp) {
  alone([&] {
    behave("sound", "replication.silence = 300ms\n");
    defineJob({"127.0.0.2", "127.0.0.3"}, path("copy"));
    TargetHost::Play play;
    play.receive = [](int listening) {
      base::Fd sd(accept(listening, nullptr, nullptr));
      pause();
      return 0;
    };
    TargetHost silent("127.0.0.2", path("tmp"), play);
    TargetHost living("127.0.0.3", path("tmp"));
    EXPECT_EQ(run("5", 5), -2);
    EXPECT_NE(results().find("it said nothing for too long"), std::string::npos) << results();
    EXPECT_EQ(count(results(), "\"state\":\"done\""), 1);
  });
}

TEST_P(SoundDriver, ATargetThatStallsInAFileIsGivenUpForThat) {
  alone([&] {
    behave("sound", "replication.silence = 300ms\n");
    writeFile(path("tree/large"), std::string(16 << 20, 'x'));  // more than a connection holds
    offer({path("tree/large")});
    defineJob({"127.0.0.2", "127.0.0.3"}, path("copy"));
    TargetHost::Play play;
    play.receive = [](int listening) {
      base::Fd sd(accept(listening, nullptr, nullptr));
      char raw[PACK_SIZE];
      package header;
      do {
        writen(sd.get(), "Next\n", 5);
        readn(sd.get(), raw, sizeof raw);
        unpackPackage(raw, &header);
      } while (header.type != 0);  // the folders above it come first
      writen(sd.get(), "Get\n", 4);
      pause();
      return 0;
    };
    TargetHost stalling("127.0.0.2", path("tmp"), play);
    TargetHost living("127.0.0.3", path("tmp"));
    EXPECT_EQ(run("5", 5), -2);
    EXPECT_NE(results().find("it said nothing for too long"), std::string::npos) << results();
    EXPECT_NE(jobLog().find("Unable to handshake with 127.0.0.2.  Got error -7\n"),
              std::string::npos)
        << jobLog();
    EXPECT_EQ(count(results(), "\"state\":\"done\""), 1);
  });
}

TEST_P(SoundDriver, WhatATargetCannotMakeIsNamed) {
  alone([&] {
    mkdir((path("copy") + home).c_str(), 0755);
    std::filesystem::create_directories(path("copy") + path("tree/one/full"));
    defineJob({"127.0.0.2"}, path("copy"));
    TargetHost target("127.0.0.2", path("tmp"));
    EXPECT_EQ(run(), -2);
    EXPECT_EQ(copy(path("copy"), "tree/two"), repltest::pattern(1500000)) << jobLog();
    EXPECT_NE(jobLog().find("ERROR:  Not replicated to 127.0.0.2: " + path("tree/one") +
                            ": cannot put in place"),
              std::string::npos)
        << jobLog();
    EXPECT_NE(results().find("\"reason\":\"1 files failed, the first: cannot put in place"),
              std::string::npos)
        << results();
    // What it could not make is on no account, neither as a file nor with its bytes.
    EXPECT_NE(results().find("\"files\":2,\"folders\":3,\"bytes\":1500000,"), std::string::npos)
        << results();
  });
}

TEST_P(SoundDriver, WhatCannotBeReadHereFailsTheTargets) {
  if (getuid() == 0) {
    // Whoever may read everything needs a file that cannot be opened by anybody.
    ASSERT_EQ(symlink("/proc/self/mem", path("tree/x").c_str()), 0);
    unlink(path("tree/x").c_str());
  }
  alone([&] {
    std::string proc = "/proc/1/task/1/mem_does_not_exist";
    offer({path("tree") + "/", proc});
    defineJob({"127.0.0.2"}, path("copy"));
    TargetHost target("127.0.0.2", path("tmp"));
    run();
    // What is not there was never promised: it costs nothing but a word in the log.
    EXPECT_NE(results().find("\"state\":"), std::string::npos);
  });
}

TEST_P(SoundDriver, ADestinationThatCannotTravelIsRefusedBeforehand) {
  alone([&] {
    defineJob({"127.0.0.2"}, path("my copy"));
    TargetHost target("127.0.0.2", path("tmp"));
    EXPECT_EQ(run(), -2);
    EXPECT_EQ(asked("127.0.0.2"), "");
    EXPECT_NE(
        jobLog().find("NOTICE:  A destination that is empty or has blanks in it cannot be sent"),
        std::string::npos);
  });
}

TEST_P(SoundDriver, AReceiverThatDoesNotConfirmHasFailed) {
  alone([&] {
    defineJob({"127.0.0.2"}, path("copy"));
    TargetHost::Play play;
    play.receive = [](int listening) {
      base::Fd sd(accept(listening, nullptr, nullptr));
      char raw[PACK_SIZE];
      do {
        writen(sd.get(), "Next\n", 5);
      } while (readn(sd.get(), raw, sizeof raw) == PACK_SIZE && memcmp(raw, "St0P", 4) != 0);
      (void)!write(2, "ERROR:  the disk is upside down\n", 32);
      return 3;
    };
    TargetHost target("127.0.0.2", path("tmp"), play);
    EXPECT_EQ(run(), -2);
    EXPECT_NE(
        results().find("\"reason\":\"not everything could be made: the disk is upside down\""),
        std::string::npos)
        << results();
    EXPECT_NE(jobLog().find("127.0.0.2 says: ERROR:  the disk is upside down\n"),
              std::string::npos);
  });
}

TEST_P(SoundDriver, OneDriverForAJob) {
  alone([&] {
    defineJob({"127.0.0.2"}, path("copy"));
    TargetHost::Play play;
    play.receive = [](int) {
      pause();
      return 0;
    };
    TargetHost target("127.0.0.2", path("tmp"), play);
    pid_t first = start();
    ASSERT_TRUE(eventually([&] { return jobLog().find("Listner on") != std::string::npos; }));
    EXPECT_EQ(replicate("5"), -1);
    char rest[] = "5";
    EXPECT_EQ(support::captureStderr([&] { EXPECT_EQ(goReplicate(rest), -1); }),
              "ERROR:  Replication job# 5 is running already\n");
    kill(first, SIGTERM);
    EXPECT_EQ(await(first), -2);
    EXPECT_NE(progressRecord().find("\"state\":\"failed\""), std::string::npos);
    EXPECT_NE(progressRecord().find("told to stop"), std::string::npos);
    EXPECT_NE(results().find("ended by signal 15"), std::string::npos);
  });
}

TEST_P(SoundDriver, SendersEndWithTheirDriver) {
  alone([&] {
    defineJob({"127.0.0.2"}, path("copy"));
    TargetHost::Play play;
    play.receive = [&](int listening) {
      base::Fd sd(accept(listening, nullptr, nullptr));
      char byte;
      writeFile(path("tmp/closed"), std::to_string(read(sd.get(), &byte, 1)));
      return 0;
    };
    TargetHost target("127.0.0.2", path("tmp"), play);
    pid_t job = start();
    ASSERT_TRUE(
        eventually([&] { return jobLog().find("starting handshaking") != std::string::npos; }));
    kill(job, SIGKILL);
    waitpid(job, nullptr, 0);
    EXPECT_TRUE(eventually([&] { return readFile(path("tmp/closed")) == "0"; }));
  });
}

TEST_P(SoundDriver, WhatCannotBeListedFailsTheJobAndNoTarget) {
  alone([&] {
    writeFile(path("tree/two\nlines"), "x");
    defineJob({"127.0.0.2"}, path("copy"));
    TargetHost target("127.0.0.2", path("tmp"));
    EXPECT_EQ(run(), -2);
    EXPECT_NE(results().find("\"state\":\"done\""), std::string::npos);
    EXPECT_NE(progressRecord().find("not everything could be listed, see repl.5.log"),
              std::string::npos);
  });
}

// --- one target, called directly ---

class StartClient : public repltest::ReplicationTest {
 protected:
  int startWith(const std::string &reply, int flags = 0) {
    TargetHost::Play play;
    play.reply = reply;
    play.listens = false;
    int result = 0;
    alone([&] {
      TargetHost target("127.0.0.2", path("tmp"), play);
      clearLogs();
      int code = startReplicateClnt("127.0.0.2", "/x", 4, flags);
      writeFile(path("tmp/code"), std::to_string(code >= 0 ? 0 : code) + " " +
                                      std::to_string(shouldEncrypt(2)) + " " +
                                      std::to_string(static_cast<int>(getitimerLeft())));
    });
    std::string text = readFile(path("tmp/code"));
    result = atoi(text.c_str());
    encrypting = text.find(" 1 ") != std::string::npos;
    return result;
  }
  static long getitimerLeft() {
    itimerval timer;
    getitimer(ITIMER_REAL, &timer);
    return timer.it_value.tv_sec;
  }
  void makeScram() {
    writeFile(path("etc/ZULkey"), "k");
    writeFile(path("bin/libscram.so"), "l");
  }
  bool encrypting = false;
};

TEST_F(StartClient, SendsTheRequestLine) {
  EXPECT_EQ(startWith("Rep Flags=n\n", 2), 0);
  // Without key and library nothing is asked for.
  EXPECT_EQ(asked("127.0.0.2"), "TAPE repclnt /x 4 0\n");
  EXPECT_EQ(statusLog(), "INFO:  NO Encryption\n");
  EXPECT_FALSE(encrypting);
}

TEST_F(StartClient, AsksForEncryptionWhereItCan) {
  makeScram();
  EXPECT_EQ(startWith("Rep Flags=e\n", 2), 0);
  EXPECT_EQ(asked("127.0.0.2"), "TAPE repclnt /x 4 2\n");
  EXPECT_EQ(statusLog(), "INFO:  Using Encryption\n");
  EXPECT_TRUE(encrypting);
}

TEST_F(StartClient, AnyOtherReplyIsClear) {
  for (const char *reply :
       {"Rep Flags=n\n", "ERROR:  Command syntax error\n", "\n", "rep flags=e\n"}) {
    EXPECT_EQ(startWith(reply, 2), 0) << reply;
    EXPECT_FALSE(encrypting) << reply;
  }
}

TEST_F(StartClient, AReplyNeedsItsLineFeed) {
  EXPECT_EQ(startWith(std::string(64, 'x')), -4);
  EXPECT_EQ(startWith(std::string(63, 'x') + "\n"), 0);
}

TEST_F(StartClient, AConnectionThatClosesIsToldApart) {
  TargetHost::Play play;
  play.reply = "Rep";
  play.listens = play.tellsEnd = false;
  alone([&] {
    TargetHost target("127.0.0.2", path("tmp"), play);
    for (int stale : {0, ENOENT}) {
      errno = stale;
      support::captureStderr([&] { EXPECT_EQ(startReplicateClnt("127.0.0.2", "/x", 4, 0), -5); });
    }
  });
}

TEST_F(StartClient, AConnectionThatFailsIsToldApart) {
  TargetHost::Play play;
  play.reply = "";
  play.resets = true;
  alone([&] {
    TargetHost target("127.0.0.2", path("tmp"), play);
    support::captureStderr([&] { EXPECT_EQ(startReplicateClnt("127.0.0.2", "/x", 4, 0), -6); });
  });
}

TEST_F(StartClient, NobodyThereIsToldApart) {
  alone([&] {
    support::captureStderr([&] { EXPECT_EQ(startReplicateClnt("127.0.0.2", "/x", 4, 0), -1); });
    support::hostPlay.loginResult = 1;
    TargetHost target("127.0.0.2", path("tmp"));
    EXPECT_EQ(startReplicateClnt("127.0.0.2", "/x", 4, 0), -2);
    EXPECT_EQ(support::hostPlay.calls, "ia");
    EXPECT_EQ(statusLog(), "ERROR:  Cannot start restore agent on remote host\n");
  });
}

TEST_F(StartClient, LeavesNoAlarmBehind) {
  alone([&] {
    TargetHost target("127.0.0.2", path("tmp"));
    int sd = startReplicateClnt("127.0.0.2", "/x", 4, 0);
    EXPECT_GE(sd, 0);
    EXPECT_EQ(getitimerLeft(), 0);
    close(sd);
  });
}

TEST_F(StartClient, NothingGoesInClearThatShouldNotUnderSound) {
  site("behaviour = sound\n");
  // This host cannot: the target is not even asked.
  EXPECT_EQ(startWith("Rep Flags=e\n", 2), -6);
  EXPECT_EQ(asked("127.0.0.2"), "");
  makeScram();
  EXPECT_EQ(startWith("Rep Flags=n\n", 2), -6);
  EXPECT_EQ(startWith("Rep Flags=n\n", 0), 0);
  EXPECT_EQ(startWith("Rep Flags=e\n", 2), 0);
}

TEST_F(StartClient, ARefusalIsNoAgreementUnderSound) {
  site("behaviour = sound\n");
  EXPECT_EQ(startWith("ERROR:  Not permitted\n"), -6);
}

TEST_F(StartClient, AChildWithoutItsTargetFails) {
  alone([&] {
    reprec job{};
    job.job = 5;
    strcpy(job.dest, "/x");
    support::captureStderr([&] { EXPECT_EQ(replicateChld("127.0.0.2", &job), -1); });
    EXPECT_EQ(statusLog(), "ERROR: Unable to start replication client on 127.0.0.2\n");
  });
}

TEST_F(StartClient, TheListBuilderIsStartedAndLeftAlone) {
  site("pause.list-start = 1ms\n");
  offer({});
  EXPECT_EQ(mkRlist(5, 0), 0);
  EXPECT_TRUE(eventually([&] { return exists(path("var/tape/jobids/repl.5")); }));
  EXPECT_TRUE(eventually([&] {
    return statusLog().find("NOTE:  This is the child of mkRlist. It will die\n") !=
               std::string::npos &&
           statusLog().find("NOTE:  This is the child of the child of mkRlist. It will run\n") !=
               std::string::npos;
  }));
}

}  // namespace
