// Pushing a backup list to the members of a group, whose agents may be well, slow, gone or
// unwilling.
#include "tape/sync.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/time.h>
#include <unistd.h>
#include <zul/net.h>
#include <zul/tape.h>

#include <filesystem>

#include "base/pause.h"
#include "fakeagent.h"
#include "net/agentlogin.h"
#include "net/timeouts.h"
#include "support.h"

using lists_test::FakeAgent;
using support::captureStderr;
using support::writeFile;

namespace {

class Push : public support::HomeTest {
 protected:
  static void SetUpTestSuite() {
    static bool own = support::ownNetwork();
    (void)own;
  }
  void SetUp() override {
    HomeTest::SetUp();
    signal(SIGPIPE, SIG_DFL);
    jobrec record{};
    record.job = 7;
    record.group = 3;
    writeFile(path("var/tape/jobids/index"),
              std::string(reinterpret_cast<char *>(&record), sizeof record));
    group("127.0.0.1");
    writeFile(list(), "/etc/\n/var/log/\n");
  }
  void TearDown() override {
    alarm(0);
    HomeTest::TearDown();
  }

  std::string list() const { return path("var/tape/jobids/7"); }
  void group(const std::string &members) {
    writeFile(path("var/tape/jobids/group"), "3:" + members + ":web\n");
    // The members of a group are read once per process, so the cache is sent to another one.
    char host[64];
    getGrpMember(9999, 1, host);
  }
  // syncBackupLists, its result in `result`.
  std::string push(int job = 7) {
    return captureStderr([&] { result = syncBackupLists(job); });
  }

  int result = -5;
};

const char kPushed[] = "TAPE rsync 7\n/etc/\n/var/log/\nTRANSFER OK\n";

TEST_F(Push, SendsTheListLineByLineAndItsEndMark) {
  FakeAgent agent("127.0.0.1");
  ASSERT_TRUE(agent.ready());
  push();
  EXPECT_EQ(result, 0);
  EXPECT_TRUE(support::eventually([&] { return agent.text() == kPushed; })) << agent.text();
  EXPECT_EQ(statusLog(), "Synchronizing 127.0.0.1..\n");
  EXPECT_EQ(support::hostPlay.calls, "ia") << "initpass directly before autoLogin";
  EXPECT_TRUE(listWasPushed(1));
  EXPECT_FALSE(listWasPushed(0));
  EXPECT_FALSE(listWasPushed(2));
}

TEST_F(Push, UnderSoundWaitsUntilTheListIsStored) {
  site("behaviour.pace = sound\n");
  std::atomic<bool> stored{false};
  FakeAgent agent("127.0.0.1", [&](FakeAgent &self, int sd) {
    self.receive(sd,
                 [](const std::string &text) { return text.find("OK\n") != std::string::npos; });
    base::sleepMs(150);
    stored = true;
    self.say(sd, "NOTICE: something\nZuL_Do");
    base::sleepMs(20);
    self.say(sd, "Ne. 0\n");
  });
  push();
  EXPECT_TRUE(stored);
  EXPECT_TRUE(listWasPushed(1));
  EXPECT_EQ(statusLog(), "Synchronizing 127.0.0.1..\n");
}

TEST_F(Push, UnderSoundAMemberThatFailedToStoreIsRemembered) {
  site("behaviour.pace = sound\n");
  group("127.0.0.1,127.0.0.2");
  FakeAgent full("127.0.0.1", [](FakeAgent &self, int sd) {
    self.receive(sd,
                 [](const std::string &text) { return text.find("OK\n") != std::string::npos; });
    self.say(sd, "ERROR:  disk full\nZuL_DoNe. 1\n");
  });
  FakeAgent good("127.0.0.2");
  push();
  EXPECT_EQ(result, 0);
  EXPECT_FALSE(listWasPushed(1));
  EXPECT_TRUE(listWasPushed(2));
  EXPECT_EQ(statusLog(),
            "Synchronizing 127.0.0.1..\n127.0.0.1: ERROR:  disk full\n"
            "ERROR:  127.0.0.1 has not stored the backup list, status = 1\n"
            "Synchronizing 127.0.0.2..\n");
}

TEST_F(Push, UnderSoundAMemberThatReadsToTheEndOfTheStreamIsGivenOne) {
  site("behaviour.pace = sound\n");
  FakeAgent agent("127.0.0.1", [](FakeAgent &self, int sd) {
    self.receive(sd, [](const std::string &) { return false; });
    self.say(sd, "ZuL_DoNe. 0\n");
  });
  net::timeouts.storedMs = 3000;
  push();
  net::timeouts.storedMs = 10000;
  EXPECT_TRUE(listWasPushed(1)) << statusLog();
}

TEST_F(Push, UnderSoundAnAgentThatClosesWithoutAWordHasNotStored) {
  site("behaviour.pace = sound\n");
  FakeAgent agent("127.0.0.1", [](FakeAgent &self, int sd) {
    self.receive(sd,
                 [](const std::string &text) { return text.find("OK\n") != std::string::npos; });
  });
  push();
  EXPECT_FALSE(listWasPushed(1));
  EXPECT_NE(statusLog().find("has not stored the backup list, status = -1\n"), std::string::npos);
}

TEST_F(Push, UnderSoundAnAgentThatNeverAnswersIsNotWaitedForForever) {
  EXPECT_EQ(net::timeouts.storedMs, 10000);
  net::timeouts.storedMs = 600;
  site("behaviour.pace = sound\n");
  FakeAgent agent("127.0.0.1", [](FakeAgent &self, int sd) {
    // Words without an end do not prolong the wait.
    while (!self.stopping()) {
      self.say(sd, "still here");
      base::sleepMs(100);
    }
  });
  long long before = base::nowMs();
  push();
  long long took = base::nowMs() - before;
  net::timeouts.storedMs = 10000;
  EXPECT_GE(took, 600);
  EXPECT_LE(took, 9000);
  EXPECT_FALSE(listWasPushed(1));
}

TEST_F(Push, AnUnreachableMemberIsPassedOver) {
  group("127.0.0.9,127.0.0.1");
  FakeAgent agent("127.0.0.1");
  std::string text = push();
  EXPECT_EQ(result, 0);
  EXPECT_EQ(text, "WARNING:  Connection to socket refused!\n");
  EXPECT_EQ(statusLog(),
            "ERROR:  8334  Cannot connect to remote host: 127.0.0.9\nSynchronizing 127.0.0.1..\n");
  EXPECT_TRUE(support::eventually([&] { return agent.text() == kPushed; }));
  EXPECT_FALSE(listWasPushed(1));
  EXPECT_TRUE(listWasPushed(2));
}

TEST_F(Push, ARefusedLoginGoesTheWayOfABrokenConnection) {
  group("127.0.0.1,127.0.0.2");
  support::hostPlay.login = [n = 0](int) mutable { return n++ == 0 ? -1 : 0; };
  FakeAgent unwilling("127.0.0.1");
  FakeAgent agent("127.0.0.2");
  push();
  EXPECT_EQ(result, 0);
  EXPECT_EQ(statusLog(),
            "ERROR:  8335  Cannot start sync on remote host:  127.0.0.1\n"
            "Synchronizing 127.0.0.1\nERROR:  8331  Failed to synchronize 127.0.0.1\n"
            "Synchronizing 127.0.0.2..\n");
  EXPECT_FALSE(listWasPushed(1));
  EXPECT_TRUE(listWasPushed(2));
  EXPECT_EQ(unwilling.text(), "") << "nothing is sent without a login";
}

TEST_F(Push, WithoutALineToSendABrokenConnectionShowsAtTheEndMark) {
  support::hostPlay.loginResult = -1;
  FakeAgent agent("127.0.0.1");
  writeFile(list(), "");
  push();
  EXPECT_EQ(statusLog(),
            "ERROR:  8335  Cannot start sync on remote host:  127.0.0.1\n"
            "Synchronizing 127.0.0.1\n\nERROR:  8332  Failed to synchronize 127.0.0.1\n");
}

TEST_F(Push, AnAgentThatDiesInTheMiddleFailsOnlyItsMember) {
  group("127.0.0.1,127.0.0.2");
  std::string text;
  for (int i = 0; i < 20000; i++)
    text += "/a/long/path/of/some/tree/number/" + std::to_string(i) + "/\n";
  writeFile(list(), text);
  FakeAgent dying("127.0.0.1", [](FakeAgent &self, int sd) {
    self.receive(sd, [](const std::string &got) { return got.size() > 2000; });
    linger reset = {1, 0};
    setsockopt(sd, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
  });
  FakeAgent good("127.0.0.2");
  push();
  EXPECT_EQ(result, 0);
  EXPECT_NE(statusLog().find("\nERROR:  8331  Failed to synchronize 127.0.0.1\n"),
            std::string::npos);
  EXPECT_FALSE(listWasPushed(1));
  EXPECT_TRUE(listWasPushed(2));
  EXPECT_TRUE(support::eventually(
      [&] { return good.text() == "TAPE rsync 7\n" + text + "TRANSFER OK\n"; }));
}

TEST_F(Push, LinesOver255CharactersTravelInPiecesAndArriveAsTheyWere) {
  std::string line = "/" + std::string(599, 'x') + "\n";
  writeFile(list(), line);
  FakeAgent agent("127.0.0.1");
  push();
  EXPECT_TRUE(support::eventually(
      [&] { return agent.text() == "TAPE rsync 7\n" + line + "TRANSFER OK\n"; }));
  EXPECT_EQ(statusLog(), "Synchronizing 127.0.0.1...\n");
}

TEST_F(Push, ALastLineWithoutItsEndSwallowsTheEndMarkUnlessSound) {
  writeFile(list(), "/a\n/b");
  {
    FakeAgent agent("127.0.0.1");
    push();
    EXPECT_TRUE(
        support::eventually([&] { return agent.text() == "TAPE rsync 7\n/a\n/bTRANSFER OK\n"; }));
  }
  site("behaviour.backup = sound\n");
  FakeAgent agent("127.0.0.1");
  push();
  EXPECT_TRUE(
      support::eventually([&] { return agent.text() == "TAPE rsync 7\n/a\n/b\nTRANSFER OK\n"; }));
}

TEST_F(Push, WithoutAListEndsAtTheFirstMember) {
  group("127.0.0.1,127.0.0.2");
  std::filesystem::remove(list());
  FakeAgent first("127.0.0.1"), second("127.0.0.2");
  push();
  EXPECT_EQ(result, -1);
  EXPECT_TRUE(support::eventually([&] { return first.connections() == 1; }));
  EXPECT_EQ(second.connections(), 0);
  EXPECT_FALSE(listWasPushed(1));
  EXPECT_FALSE(listWasPushed(2));
}

TEST_F(Push, OfAGroupWithoutMembersOrAnUnknownJobNeedsNobody) {
  push(8);
  EXPECT_EQ(result, -1);
  writeFile(path("var/tape/jobids/group"), "4:127.0.0.1:web\n");
  char host[64];
  getGrpMember(9999, 1, host);
  push();
  EXPECT_EQ(result, 0);
  EXPECT_FALSE(listWasPushed(1));
}

TEST_F(Push, StartingAReceiverReturnsItsConnection) {
  FakeAgent agent("127.0.0.1");
  char host[] = "127.0.0.1";
  base::Fd sd(startSyncClnt(host, 12));
  EXPECT_TRUE(sd);
  EXPECT_TRUE(support::eventually([&] { return agent.text() == "TAPE rsync 12\n"; }));
}

TEST_F(Push, ARequestThatCannotBeSentIsReported) {
  FakeAgent agent("127.0.0.1");
  support::hostPlay.login = [](int sd) { return shutdown(sd, SHUT_WR); };
  signal(SIGPIPE, SIG_IGN);
  char host[] = "127.0.0.1";
  EXPECT_EQ(startSyncClnt(host, 12), -3);
  EXPECT_EQ(statusLog(),
            "ERROR:  8336  Cannot synchronize backup request on remote host:  127.0.0.1\n");
}

// --- the alarm that is left of connecting ---

volatile sig_atomic_t alarms;

TEST_F(Push, TheAlarmOfTheConnectionIsCancelledAndTheActionAsBefore) {
  FakeAgent agent("127.0.0.1");
  struct sigaction mine {};
  mine.sa_handler = [](int) { alarms = alarms + 1; };
  sigaction(SIGALRM, &mine, nullptr);
  alarms = 0;
  push();
  EXPECT_EQ(alarm(0), 0U) << "nothing is pending";
  struct sigaction now {};
  sigaction(SIGALRM, nullptr, &now);
  EXPECT_EQ(now.sa_handler, mine.sa_handler);
  EXPECT_EQ(alarms, 0);
  signal(SIGALRM, SIG_DFL);
}

TEST_F(Push, AnAlarmDuringTheLoginInterruptsAndDoesNotKill) {
  FakeAgent agent("127.0.0.1");
  signal(SIGALRM, SIG_DFL);
  bool interrupted = false;
  support::hostPlay.login = [&](int) {
    EXPECT_GT(alarm(0), 0U) << "the connection's own is pending";
    itimerval soon{};
    soon.it_value.tv_usec = 20000;
    setitimer(ITIMER_REAL, &soon, nullptr);
    interrupted = poll(nullptr, 0, 5000) < 0 && errno == EINTR;
    return -1;
  };
  char host[] = "127.0.0.1";
  EXPECT_EQ(startSyncClnt(host, 1), -2);
  EXPECT_TRUE(interrupted);
  EXPECT_EQ(alarm(0), 0U);
}

TEST_F(Push, ALoginOnAConnectionMadeElsewhereCancelsItsAlarmToo) {
  alarm(8);
  EXPECT_EQ(net::loginAgent(-1), 0);
  EXPECT_EQ(alarm(0), 0U);
  EXPECT_EQ(net::openAgent("127.0.0.9"), -1);
  EXPECT_EQ(alarm(0), 0U);
}

}  // namespace
