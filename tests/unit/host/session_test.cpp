// Sessions and request processes, against a module that is played here.
#include "host/session.h"

#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "host/console.h"
#include "host/login.h"
#include "host/users.h"
#include "peer.h"
#include "support.h"

namespace {

// Words of the played module. They run in request processes and report what they find there.
int playEcho(char *line) {
  fprintf(stderr, "[%s]\n", line);
  return 0;
}

int playState() {
  sigset_t mask;
  sigprocmask(SIG_SETMASK, nullptr, &mask);
  bool masked = false;
  for (int number = 1; number < NSIG; number++) masked = masked || sigismember(&mask, number) == 1;
  auto dispositionOf = [](int number) {
    struct sigaction action {};
    sigaction(number, nullptr, &action);
    return action.sa_handler == SIG_DFL   ? "default"
           : action.sa_handler == SIG_IGN ? "ignored"
                                          : "caught";
  };
  std::string open;
  for (int fd = 3; fd < 256; fd++)
    if (fcntl(fd, F_GETFD) >= 0 && fd != fileno(fplog)) open += std::to_string(fd) + " ";
  struct stat in, out, error;
  fstat(0, &in);
  fstat(1, &out);
  fstat(2, &error);
  char directory[4096];
  rlimit core{};
  getrlimit(RLIMIT_CORE, &core);
  mode_t mask8 = umask(0);
  fprintf(stderr, "pipe=%s chld=%s term=%s int=%s hup=%s alrm=%s masked=%d\n",
          dispositionOf(SIGPIPE), dispositionOf(SIGCHLD), dispositionOf(SIGTERM),
          dispositionOf(SIGINT), dispositionOf(SIGHUP), dispositionOf(SIGALRM), masked);
  fprintf(stderr, "others=%s sameConsole=%d outIsConsole=%d umask=%03o home=%d leader=%d core=%d\n",
          open.c_str(), in.st_ino == error.st_ino, in.st_ino == out.st_ino, mask8,
          strcmp(getcwd(directory, sizeof directory), ZULhome) == 0, getsid(0) == getpid(),
          core.rlim_cur == 0);
  fprintf(stderr, "PATH=%s LANG=%s HOME=%s backuplog=%d\n", getenv("PATH"), getenv("LANG"),
          getenv("HOME") ? getenv("HOME") : "none", backuplog == stderr);
  return 0;
}

int playTape(char *line) {
  if (strcmp(line, "state") == 0) return playState();
  if (strncmp(line, "exit ", 5) == 0) exit(atoi(line + 5));
  if (strncmp(line, "return ", 7) == 0) return atoi(line + 7);
  if (strcmp(line, "abort") == 0) kill(getpid(), SIGKILL);
  if (strcmp(line, "rsync one") == 0) {  // takes one line of its input
    char text[256] = "";
    fprintf(stderr, "got %s", fgets(text, sizeof text, stdin));
    return 0;
  }
  if (strncmp(line, "touch ", 6) == 0) {  // goes on when nobody listens any more
    for (int times = 0; times < 5; times++) {
      fprintf(stderr, "still here\n");
      base::sleepMs(20);
    }
    close(open(line + 6, O_WRONLY | O_CREAT, 0600));
    return 0;
  }
  if (strncmp(line, "wait ", 5) == 0) {
    fprintf(stderr, "waiting\n");
    while (access(line + 5, F_OK) != 0) base::sleepMs(5);
    return 0;
  }
  if (strcmp(line, "parts") == 0) {
    fprintf(stderr, "Rep Flags=");
    fprintf(stderr, "n\n");
    base::sleepMs(60000);
  }
  if (strcmp(line, "stdout") == 0) {
    printf("diagnosis\n");
    fprintf(stderr, "answer\n");
    return 0;
  }
  return playEcho(line);
}

class Sessions : public support::HomeTest {
 protected:
  void SetUp() override {
    HomeTest::SetUp();
    // As the daemon lends it: on a descriptor behind the standard ones.
    shared_ = host::makeShared();
    ASSERT_NE(shared_, nullptr);
    ASSERT_TRUE(login::writeSecret(path("etc/ZULsecret"), secret_, false, why_)) << why_;
    ASSERT_EQ(pipe2(notices_, O_CLOEXEC), 0);
  }
  void TearDown() override {
    for (pid_t pid : sessions_) {
      kill(pid, SIGKILL);
      waitpid(pid, nullptr, 0);
    }
    close(notices_[0]);
    close(notices_[1]);
    HomeTest::TearDown();
  }

  // Starts a session; the result is its peer.
  support::Peer open(bool local, uint32_t address = 0x7f000001) {
    auto [peer, console] = support::connected();
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
      peer.sd.reset();
      host::catchStop();
      host::Module module{playTape, playEcho};
      host::SessionStart start;
      start.console = console.sd.get();
      start.notices = notices_[1];
      start.local = local;
      start.address = address;
      start.shared = shared_;
      start.module = &module;
      start.patience = patience_;
      host::runSession(start);
      _exit(0);
    }
    sessions_.push_back(pid);
    return std::move(peer);
  }
  support::Peer openLocal() {
    support::Peer peer = open(true);
    EXPECT_EQ(peer.hear("ZuL>"), "OK local operator\nZuL>");
    return peer;
  }
  // Logs in; true when the host proved itself as well.
  bool logIn(const support::Peer &peer, login::Kind kind, const std::string &name,
             const login::Key &key) {
    return login::clientLogin(peer.sd.get(), kind, name, key, 3000);
  }
  support::Peer openNode() {
    support::Peer peer = open(false);
    EXPECT_TRUE(logIn(peer, login::Kind::node, "alpha", secret_));
    return peer;
  }
  bool sessionEnded(int limitMs = 5000) {
    pid_t pid = sessions_.back();
    bool ended =
        support::eventually([&] { return waitpid(pid, nullptr, WNOHANG) == pid; }, limitMs);
    if (ended) sessions_.pop_back();
    return ended;
  }

  login::Key secret_ = login::newSecret();
  host::Shared *shared_ = nullptr;
  host::Patience patience_{1000, 20, 300000};
  std::vector<pid_t> sessions_;
  int notices_[2];
  std::string why_;
};

// --- login ---

TEST_F(Sessions, ANodeIsAnnouncedAndHearsNothingBeforeItsRequest) {
  support::Peer peer = openNode();
  pid_t announced = 0;
  ASSERT_EQ(read(notices_[0], &announced, sizeof announced),
            static_cast<ssize_t>(sizeof announced));
  EXPECT_EQ(announced, sessions_.back());
  EXPECT_EQ(peer.hear("x", 100), "");
  peer.say("TAPE rsync 7\n");
  EXPECT_EQ(peer.hearAll(), "[rsync 7]\nZuL_DoNe. 0\n");
}

TEST_F(Sessions, AWrongProofIsAnsweredNoAndClosed) {
  support::Peer peer = open(false);
  std::string line = peer.hearLine();
  login::Nonce server;
  ASSERT_TRUE(login::parseGreeting(line.substr(0, line.size() - 1), server));
  peer.say(
      login::claimLine(login::Kind::node, "alpha", server, login::newNonce(), login::newSecret()));
  EXPECT_EQ(peer.hear("\n"), "NO\n");
  EXPECT_TRUE(peer.isClosed());
  EXPECT_NE(hostLog().find("login refused from 127.0.0.1: NODE alpha: wrong proof"),
            std::string::npos)
      << hostLog();
}

TEST_F(Sessions, ALineThatWorkedOnceDoesNotWorkAgain) {
  support::Peer first = open(false);
  std::string greeting = first.hearLine();
  login::Nonce server;
  ASSERT_TRUE(login::parseGreeting(greeting.substr(0, greeting.size() - 1), server));
  std::string line =
      login::claimLine(login::Kind::node, "alpha", server, login::newNonce(), secret_);
  first.say(line);
  EXPECT_EQ(first.hearLine().substr(0, 3), "OK ");
  support::Peer second = open(false);
  EXPECT_NE(second.hearLine(), greeting);
  second.say(line);
  EXPECT_EQ(second.hearLine(), "NO\n");
}

TEST_F(Sessions, SilentPeersAreRefusedAtTheDeadline) {
  patience_.loginMs = 100;
  support::Peer peer = open(false);
  long long before = base::nowMs();
  peer.hearLine();
  EXPECT_TRUE(peer.hear("\n") == "NO\n");
  EXPECT_LT(base::nowMs() - before, 10000);
  peer.sd.reset();
  EXPECT_TRUE(sessionEnded());
}

TEST_F(Sessions, GarbageIsRefused) {
  for (const std::string &garbage :
       {std::string("GET / HTTP/1.1\r\n\r\n"), std::string(3000, '\xff') + "\n", std::string("\n"),
        std::string("\0\0\0\n", 4)}) {
    support::Peer peer = open(false);
    peer.hearLine();
    peer.say(garbage);
    EXPECT_EQ(peer.hearAll(), "NO\n");
    peer.sd.reset();
    EXPECT_TRUE(sessionEnded());
  }
}

TEST_F(Sessions, APeerThatVanishesEndsTheSession) {
  support::Peer peer = open(false);
  peer.sd.reset();
  EXPECT_TRUE(sessionEnded());
}

TEST_F(Sessions, ThreeWrongProofsCloseTheDoorForThatAddressOnly) {
  for (int times = 0; times < 3; times++)
    EXPECT_FALSE(logIn(open(false, 0x0a000001), login::Kind::node, "alpha", login::newSecret()));
  EXPECT_FALSE(logIn(open(false, 0x0a000001), login::Kind::node, "alpha", secret_));
  EXPECT_NE(hostLog().find("too many wrong proofs"), std::string::npos);
  EXPECT_TRUE(logIn(open(false, 0x0a000002), login::Kind::node, "alpha", secret_));
}

TEST_F(Sessions, UnknownUsersAndWrongPasswordsLookAlike) {
  ASSERT_TRUE(login::putUser(path("etc/ZULusers"), "ann", "pw", login::Role::operatorRole, why_))
      << why_;
  for (const char *name : {"ann", "nobody"}) {
    support::Peer peer = open(false);
    login::Nonce server;
    std::string line = peer.hearLine();
    ASSERT_TRUE(login::parseGreeting(line.substr(0, line.size() - 1), server));
    peer.say(
        login::claimLine(login::Kind::user, name, server, login::newNonce(), login::newSecret()));
    EXPECT_EQ(peer.hearAll(), "NO\n");
  }
}

TEST_F(Sessions, UsersGetAPromptAndWhatTheirRoleAllows) {
  ASSERT_TRUE(login::putUser(path("etc/ZULusers"), "vic", "pw", login::Role::viewer, why_)) << why_;
  login::Key key;
  ASSERT_TRUE(login::keyFromPassword("vic", "pw", key, why_));
  support::Peer peer = open(false);
  ASSERT_TRUE(logIn(peer, login::Kind::user, "vic", key));
  EXPECT_EQ(peer.hear("ZuL>"), "ZuL>");
  peer.say("TAPE version\n");
  EXPECT_EQ(peer.hear("ZuL>"), "[version]\nZuL_DoNe. 0\nZuL>");
  peer.say("TAPE backup 7 0\n");
  EXPECT_EQ(peer.hear("ZuL>"), "ERROR:  Not permitted\nZuL_DoNe. 1\nZuL>");
}

TEST_F(Sessions, TheSecretOpensNoUserSession) {
  EXPECT_FALSE(logIn(open(false), login::Kind::user, "root", secret_));
}

TEST_F(Sessions, WithoutASecretNodesAreRefusedAndNotCounted) {
  unlink(path("etc/ZULsecret").c_str());
  for (int times = 0; times < 4; times++)
    EXPECT_FALSE(logIn(open(false), login::Kind::node, "alpha", secret_));
  EXPECT_EQ(hostLog().find("too many"), std::string::npos) << hostLog();
  EXPECT_NE(hostLog().find("ZULsecret"), std::string::npos);
}

TEST_F(Sessions, NodesOffTheListAreRefused) {
  support::writeFile(path("etc/ZULnodes"), "alpha 10.0.0.1\n");
  EXPECT_TRUE(logIn(open(false, 0x0a000001), login::Kind::node, "alpha", secret_));
  EXPECT_FALSE(logIn(open(false, 0x0a000002), login::Kind::node, "alpha", secret_));
  EXPECT_FALSE(logIn(open(false, 0x0a000001), login::Kind::node, "beta", secret_));
}

// --- requests ---

TEST_F(Sessions, RequestsFindTheStateTheyWerePromised) {
  support::Peer peer = openLocal();
  peer.say("TAPE state\n");
  EXPECT_EQ(peer.hear("ZuL>"),
            "pipe=ignored chld=default term=default int=default hup=default alrm=default masked=0\n"
            "others= sameConsole=1 outIsConsole=0 umask=022 home=1 leader=1 core=1\n"
            "PATH=/usr/sbin:/usr/bin:/sbin:/bin LANG=C HOME=none backuplog=1\n"
            "ZuL_DoNe. 0\nZuL>");
}

TEST_F(Sessions, TheRestOfTheLineArrivesUntouched) {
  support::Peer peer = openLocal();
  peer.say("TAPE  two  blanks \n");
  EXPECT_EQ(peer.hear("ZuL>"), "[ two  blanks ]\nZuL_DoNe. 0\nZuL>");
  peer.say("TAPE\n");
  EXPECT_EQ(peer.hear("ZuL>"), "[]\nZuL_DoNe. 0\nZuL>");
  peer.say("MREPL mrepclnt 1234567890\r\n");
  EXPECT_EQ(peer.hear("ZuL>"), "[mrepclnt 1234567890]\nZuL_DoNe. 0\nZuL>");
}

TEST_F(Sessions, EndLinesCarryExitStatusesAndSignals) {
  support::Peer peer = openLocal();
  for (auto [line, expected] : {std::pair{"exit 255", "255"},
                                {"exit 0", "0"},
                                {"return 1", "1"},
                                {"return -9", "247"},
                                {"abort", "265"}}) {
    peer.say("TAPE " + std::string(line) + "\n");
    EXPECT_EQ(peer.hear("ZuL>"), "ZuL_DoNe. " + std::string(expected) + "\nZuL>") << line;
  }
}

TEST_F(Sessions, UnknownRequestsAreNamed) {
  support::Peer peer = openLocal();
  peer.say("FOO bar\n");
  EXPECT_EQ(peer.hear("ZuL>"), "ERROR:  Unknown request, FOO\nZuL_DoNe. 1\nZuL>");
  peer.say("HOST foo\n");
  EXPECT_EQ(peer.hear("ZuL>"), "ERROR:  Unknown request, foo\nZuL_DoNe. 1\nZuL>");
}

TEST_F(Sessions, EmptyLinesAndRestsOfUploadsOnlyPrompt) {
  support::Peer peer = openLocal();
  peer.say("\n  \nZuL>Host: alpha\nUpLoAd_DoNe.\nTAPE x\n");
  EXPECT_EQ(peer.hear("0\nZuL>"), "ZuL>ZuL>ZuL>ZuL>[x]\nZuL_DoNe. 0\nZuL>");
}

TEST_F(Sessions, WhatANodeMayNotRunIsRefused) {
  support::Peer peer = openNode();
  peer.say("TAPE backup 7 0\n");
  EXPECT_EQ(peer.hear("1\n"), "ERROR:  Not permitted\nZuL_DoNe. 1\n");
  peer.say("FOO\n");
  EXPECT_EQ(peer.hear("1\n"), "ERROR:  Unknown request, FOO\nZuL_DoNe. 1\n");
}

TEST_F(Sessions, ANodeMayAskMoreThanOnce) {
  support::Peer peer = openNode();
  peer.say("MREPL mrepclnt 1\nTAPE server 7 0\n");
  EXPECT_EQ(peer.hear("ver 7 0]\nZuL_DoNe. 0\n"),
            "[mrepclnt 1]\nZuL_DoNe. 0\n[server 7 0]\nZuL_DoNe. 0\n");
}

TEST_F(Sessions, InputStandsRightBehindTheRequestLine) {
  support::Peer peer = openNode();
  peer.say("TAPE rsync one\n/etc/\n/home/\n");
  EXPECT_EQ(peer.hear("0\n"), "got /etc/\nZuL_DoNe. 0\n");
}

TEST_F(Sessions, WhatAListPushLeavesUnreadIsNoRequest) {
  support::Peer peer = openNode();
  std::string list;
  for (int line = 0; line < 1000; line++) list += "TAPE server " + std::to_string(line) + " 0\n";
  peer.say("TAPE rsync 7\n" + list + "TRANSFER OK\n");
  EXPECT_EQ(peer.hearAll(), "[rsync 7]\nZuL_DoNe. 0\n");
  // Still taken off the connection, so that the sender can go on to its end.
  peer.say(list);
  peer.sd.reset();
  EXPECT_TRUE(sessionEnded());
}

TEST_F(Sessions, ARequestThatComesWithTheEndOfTheStreamIsRun) {
  for (const char *line : {"TAPE server 7 0\n", "TAPE server 7 0"}) {
    support::Peer peer = openNode();
    peer.say(line);
    peer.endSending();
    EXPECT_EQ(peer.hearAll(), "[server 7 0]\nZuL_DoNe. 0\n");
  }
}

TEST_F(Sessions, ADisconnectDoesNotEndTheRequest) {
  support::Peer peer = openLocal();
  peer.say("TAPE touch " + path("tmp/done") + "\n");
  peer.hear("here\n");
  peer.sd.reset();
  EXPECT_TRUE(support::eventually([&] { return support::exists(path("tmp/done")); }));
  EXPECT_TRUE(sessionEnded());
}

TEST_F(Sessions, AnswersAreForwardedAsTheyAreWritten) {
  support::Peer peer = openNode();
  // A request that goes on: nothing of it may wait for its end.
  peer.say("TAPE server 1 1\n");
  EXPECT_EQ(peer.hear("0\n"), "[server 1 1]\nZuL_DoNe. 0\n");
  support::Peer local = openLocal();
  local.say("TAPE parts\n");
  EXPECT_EQ(local.hear("\n", 3000), "Rep Flags=n\n");
}

TEST_F(Sessions, WhatIsPrintedOnStandardOutputGoesToTheLog) {
  support::Peer peer = openLocal();
  peer.say("TAPE stdout\n");
  EXPECT_EQ(peer.hear("ZuL>"), "answer\nZuL_DoNe. 0\nZuL>");
  EXPECT_NE(hostLog().find("diagnosis\n"), std::string::npos);
}

TEST_F(Sessions, LinesOfTheLargestSizeAreServedAndLongerOnesRefused) {
  support::Peer peer = openLocal();
  peer.say("TAPE " + std::string(4090, 'x') + "\n");
  EXPECT_EQ(peer.hear("ZuL>"), "[" + std::string(4090, 'x') + "]\nZuL_DoNe. 0\nZuL>");
  peer.say("TAPE " + std::string(4091, 'x') + "\n");
  EXPECT_EQ(peer.hearAll(), "ERROR:  Line too long\n");
}

TEST_F(Sessions, ANulIsNoText) {
  support::Peer peer = openNode();
  peer.say(std::string("TAPE server\0 1 2\n", 17));
  EXPECT_EQ(peer.hear("1\n"), "ERROR:  Not a line of text\nZuL_DoNe. 1\n");
}

TEST_F(Sessions, SilentNodesAreClosedAndOperatorsAreNot) {
  patience_.nodeSilenceMs = 100;
  support::Peer node = openNode();
  EXPECT_TRUE(node.isClosed());
  support::Peer user = openLocal();
  EXPECT_FALSE(user.isClosed(300));
}

TEST_F(Sessions, AStopEndsSessionsThatWaitForALine) {
  support::Peer peer = openLocal();
  kill(sessions_.back(), SIGTERM);
  EXPECT_TRUE(peer.isClosed());
  peer.sd.reset();
  EXPECT_TRUE(sessionEnded());
}

TEST_F(Sessions, AStopWaitsForTheRequestThatRuns) {
  support::Peer peer = openLocal();
  peer.say("TAPE wait " + path("tmp/go") + "\n");
  EXPECT_EQ(peer.hear("\n"), "waiting\n");
  kill(sessions_.back(), SIGTERM);
  support::writeFile(path("tmp/go"), "");
  EXPECT_EQ(peer.hear("0\n"), "ZuL_DoNe. 0\n");
  EXPECT_EQ(peer.hearAll(), "ZuL>");
}

TEST_F(Sessions, AKilledSessionLeavesItsRequestAlone) {
  support::Peer peer = openLocal();
  peer.say("TAPE wait " + path("tmp/go") + "\n");
  EXPECT_EQ(peer.hear("\n"), "waiting\n");
  kill(sessions_.back(), SIGKILL);
  EXPECT_TRUE(sessionEnded());
  support::writeFile(path("tmp/go"), "");
  // Its console closes when the request itself has ended.
  EXPECT_TRUE(peer.isClosed());
}

TEST_F(Sessions, AVanishedHomeIsToldInWords) {
  support::Peer peer = openLocal();
  std::string elsewhere = home + ".gone";
  ASSERT_EQ(rename(home.c_str(), elsewhere.c_str()), 0);
  peer.say("TAPE x\n");
  std::string answer = peer.hear("ZuL>");
  ASSERT_EQ(rename(elsewhere.c_str(), home.c_str()), 0);
  EXPECT_EQ(answer,
            "ERROR:  Cannot enter " + home + ": No such file or directory\nZuL_DoNe. 1\nZuL>");
}

}  // namespace
