// Targets that fail, fall silent or say too much: what they cost a job, and that the others are
// served.
#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <regex>

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
    EXPECT_EQ(run("5", 25), sound() ? -2 : 0);
    EXPECT_NE(jobLog().find("Listner failed for 127.0.0.2\n"), std::string::npos);
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
    EXPECT_EQ(run("5", 25), -2);
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
    behave("sound", "replication.silence = 3s\n");
    defineJob({"127.0.0.2", "127.0.0.3"}, path("copy"));
    TargetHost::Play play;
    play.receive = [](int listening) {
      base::Fd sd(accept(listening, nullptr, nullptr));
      pause();
      return 0;
    };
    TargetHost silent("127.0.0.2", path("tmp"), play);
    TargetHost living("127.0.0.3", path("tmp"));
    EXPECT_EQ(run("5", 25), -2);
    EXPECT_NE(results().find("it said nothing for too long"), std::string::npos) << results();
    EXPECT_EQ(count(results(), "\"state\":\"done\""), 1);
  });
}

TEST_P(SoundDriver, ATargetThatStallsInAFileIsGivenUpForThat) {
  alone([&] {
    behave("sound", "replication.silence = 3s\n");
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
    EXPECT_EQ(run("5", 25), -2);
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

}  // namespace
