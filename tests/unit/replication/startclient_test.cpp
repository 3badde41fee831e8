// The processes of a job called directly: one target is asked, the list builder is started.
#include <errno.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include "net/delivery.h"
#include "repltest.h"

using repltest::TargetHost;
using support::eventually;
using support::exists;
using support::readFile;
using support::writeFile;

namespace {

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

TEST_F(StartClient, WhatATargetSaysCannotSteerATerminal) {
  site("behaviour = sound\n");
  net::keepAccount(nullptr);
  TargetHost::Play play;
  play.reply = "ERROR:  \033[2Jgone\n";
  play.listens = false;
  alone([&] {
    TargetHost target("127.0.0.2", path("tmp"), play);
    EXPECT_EQ(startReplicateClnt("127.0.0.2", "/x", 4, 0), -6);
    EXPECT_STREQ(net::delivery()->reason, "its agent refuses: ERROR:  ?[2Jgone");
  });
}

TEST(Receiver, ThatNeverStopsTalkingIsNotHeardForEver) {
  int pair[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, pair), 0);
  int room = 8 << 20, unread = 0;  // the system gives as much as it may
  setsockopt(pair[1], SOL_SOCKET, SO_SNDBUF, &room, sizeof room);
  std::string noise(32 << 10, 'n');
  while (send(pair[1], noise.data(), noise.size(), MSG_NOSIGNAL) > 0) {
  }
  net::watchReceiver("talker", pair[0]);
  EXPECT_FALSE(net::receiverEnded());
  ioctl(pair[0], FIONREAD, &unread);
  EXPECT_GT(unread, 0);
  net::watchReceiver("", -1);
  close(pair[0]);
  close(pair[1]);
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
