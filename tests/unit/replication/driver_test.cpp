// The job driver: its texts, its order, its list, its records.
#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <regex>

#include "base/pause.h"
#include "drivertest.h"

using repltest::ClassicDriver;
using repltest::count;
using repltest::Driver;
using repltest::SoundDriver;
using repltest::TargetHost;
using support::eventually;
using support::exists;
using support::readFile;
using support::writeFile;

namespace {

INSTANTIATE_TEST_SUITE_P(, Driver, testing::Values("classic", "sound"),
                         [](const auto &each) { return std::string(each.param); });
INSTANTIATE_TEST_SUITE_P(, ClassicDriver, testing::Values("classic"));
INSTANTIATE_TEST_SUITE_P(, SoundDriver, testing::Values("sound"));

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
    // Counts itself in, and leaves when the test lets it.
    play.receive = [&](int listening) {
      base::Fd sd(accept(listening, nullptr, nullptr));
      writeFile(path("tmp/in." + std::to_string(getpid())), "");
      while (!exists(path("tmp/go"))) base::sleepMs(5);
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
    auto served = [&] {
      std::filesystem::directory_iterator folder(path("tmp"));
      return std::count_if(begin(folder), end(folder), [](const auto &entry) {
        return entry.path().filename().string().rfind("in.", 0) == 0;
      });
    };
    pid_t job = start();
    EXPECT_TRUE(eventually([&] { return served() == 8; }, 15000)) << jobLog();
    EXPECT_EQ(count(jobLog(), "Starting listener for: "), 8);
    writeFile(path("tmp/go"), "");
    EXPECT_EQ(await(job), 0);
    EXPECT_EQ(served(), 12);
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

TEST_P(Driver, WithoutAListOfItsOwnNothingIsSentAndUnderSoundThatIsSaid) {
  alone([&] {
    defineJob({"127.0.0.2"}, path("copy"));
    unlink(path("var/tape/jobids/5").c_str());
    TargetHost target("127.0.0.2", path("tmp"));
    EXPECT_EQ(run(), sound() ? -1 : 0);
    EXPECT_EQ(jobLog().find("ERROR:  Unable to construct replication request list, exiting.\n") !=
                  std::string::npos,
              sound());
    EXPECT_FALSE(exists(path("copy") + path("tree"))) << jobLog();
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

TEST_P(ClassicDriver, AHandshakeThatFailsIsSaid) {
  alone([&] {
    defineJob({"127.0.0.2"}, path("copy"));
    TargetHost::Play play;
    play.awaitsList = false;
    TargetHost target("127.0.0.2", path("tmp"), play);
    // No list can be made there, nor read.
    ASSERT_EQ(symlink(path("none/list").c_str(), path("var/tape/jobids/repl.5").c_str()), 0);
    EXPECT_EQ(run(), 0);
    EXPECT_NE(jobLog().find("ERROR:  Unable to handshake with 127.0.0.2.  Got error -1\n"),
              std::string::npos)
        << jobLog();
  });
}

TEST_P(SoundDriver, WhatIsNotThereWasNeverPromised) {
  alone([&] {
    offer({path("tree") + "/", path("none")});
    defineJob({"127.0.0.2"}, path("copy"));
    TargetHost target("127.0.0.2", path("tmp"));
    EXPECT_EQ(run(), 0) << jobLog() << readFile(path("var/tape/jobids/repl.5.log"));
    EXPECT_NE(results().find("\"state\":\"done\""), std::string::npos) << results();
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

}  // namespace
