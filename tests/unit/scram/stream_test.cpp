// Encrypted streams between honest ends: what is written arrives, in order, whole, whoever begins.
#include <fcntl.h>
#include <setjmp.h>
#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <set>
#include <vector>

#include "base/alarm.h"
#include "base/pause.h"
#include "scramsupport.h"

namespace {

using scramsupport::Pair;
using scramsupport::put;
using scramsupport::shakeHands;
using scramsupport::take;
using scramsupport::takeLine;
using scramsupport::textOf;

class EncryptedStream : public scramsupport::ScramTest {
 protected:
  // The far end's part runs in a child, which ends with its result; the near end's here.
  void bothEnds(const std::function<bool(int)> &far, const std::function<void(int)> &near) {
    Pair pair;
    pid_t pid = fork();
    if (pid == 0) {
      pair.near.reset();
      _exit(far(pair.far.get()) ? 0 : 1);
    }
    pair.far.reset();
    near(pair.near.get());
    int status = -1;
    bool ended = support::eventually([&] { return waitpid(pid, &status, WNOHANG) == pid; }, 20000);
    if (!ended) kill(pid, SIGKILL);
    EXPECT_TRUE(ended);
    EXPECT_EQ(status, 0) << "the far end failed";
  }
};

const std::vector<size_t> kSizes = {1,     2,     511,    520,     8192,    65535,
                                    65536, 65537, 131072, 1048575, 1048576, 1048576 + 1};

TEST_F(EncryptedStream, WhatIsWrittenArrivesWhateverItsSize) {
  bothEnds(
      [](int fd) {
        for (size_t size : kSizes)
          if (put(fd, textOf(size)) != static_cast<int>(size)) return false;
        return true;
      },
      [](int fd) {
        for (size_t size : kSizes) EXPECT_EQ(take(fd, size), textOf(size)) << size;
      });
}

TEST_F(EncryptedStream, ItIsReadInOtherPiecesThanItWasWritten) {
  std::string text = textOf(300000);
  bothEnds(
      [&](int fd) {
        for (size_t at = 0; at < text.size(); at += 7001)
          if (put(fd, text.substr(at, 7001)) < 1) return false;
        return true;
      },
      [&](int fd) {
        std::string got;
        for (size_t size = 1; got.size() < text.size(); size = size * 3 + 1)
          got += take(fd, std::min(size, text.size() - got.size()));
        EXPECT_TRUE(got == text);
      });
}

TEST_F(EncryptedStream, BothEndsMayWriteFirst) {
  bothEnds([](int fd) { return put(fd, "from far") == 8 && take(fd, 9) == "from near"; },
           [](int fd) {
             EXPECT_EQ(put(fd, "from near"), 9);
             EXPECT_EQ(take(fd, 8), "from far");
           });
}

TEST_F(EncryptedStream, BothEndsMayReadFirst) {
  scram::timeouts = {300, 300};
  int nearIsDone[2];  // the far end must not answer while the near end still reads
  ASSERT_EQ(pipe2(nearIsDone, O_CLOEXEC), 0);
  bothEnds(
      [&](int fd) {
        char byte;
        int first = cryreadn(fd, &byte, 1);
        scram::timeouts = {5000, 5000};
        return first == -2 && read(nearIsDone[0], &byte, 1) == 1 && put(fd, "answer") == 6 &&
               take(fd, 3) == "yes";
      },
      [&](int fd) {
        char byte;
        EXPECT_EQ(cryreadn(fd, &byte, 1), -2);
        EXPECT_EQ(write(nearIsDone[1], "!", 1), 1);
        scram::timeouts = {5000, 5000};
        EXPECT_EQ(take(fd, 6), "answer");
        EXPECT_EQ(put(fd, "yes"), 3);
      });
  close(nearIsDone[0]);
  close(nearIsDone[1]);
}

TEST_F(EncryptedStream, OneEndMayReadAndTheOtherWriteFirst) {
  bothEnds([](int fd) { return takeLine(fd) == "Next\n" && put(fd, textOf(1 << 20)) == 1 << 20; },
           [](int fd) {
             EXPECT_EQ(put(fd, "Next\n"), 5);
             EXPECT_TRUE(take(fd, 1 << 20) == textOf(1 << 20));
           });
}

// A megabyte is more than the socket holds: neither end could go on if one had to read to write.
TEST_F(EncryptedStream, LargeWritesPassEachOtherWhenEachDirectionHasItsProcess) {
  auto duplex = [](int fd) {
    if (put(fd, "!") != 1 || take(fd, 1) != "!") return false;
    pid_t pid = fork();
    if (pid == 0) _exit(put(fd, textOf(3 << 20)) == 3 << 20 ? 0 : 1);
    bool good = take(fd, 3 << 20) == textOf(3 << 20);
    int status = -1;
    waitpid(pid, &status, 0);
    return good && status == 0;
  };
  bothEnds(duplex, [&](int fd) { EXPECT_TRUE(duplex(fd)); });
}

TEST_F(EncryptedStream, LargeWritesFollowEachOther) {
  std::string text = textOf(2 << 20);
  auto length = static_cast<int>(text.size());
  bothEnds([&](int fd) { return take(fd, text.size()) == text && put(fd, text) == length; },
           [&](int fd) {
             EXPECT_EQ(put(fd, text), length);
             EXPECT_TRUE(take(fd, text.size()) == text);
           });
}

TEST_F(EncryptedStream, NothingIsSaidForNothing) {
  Pair pair;
  char byte = 'x';
  EXPECT_EQ(crywriten(pair.near.get(), &byte, 0), 0);
  EXPECT_EQ(cryreadn(pair.near.get(), &byte, 0), 0);
  EXPECT_EQ(cryreadnline(pair.near.get(), &byte, 1), 1);
  EXPECT_EQ(byte, '\0');
  EXPECT_EQ(cryreadnline(pair.near.get(), nullptr, 0), 1);
  EXPECT_EQ(recv(pair.far.get(), &byte, 1, MSG_DONTWAIT), -1);
}

TEST_F(EncryptedStream, ALengthThatNoResultCanTellIsRefused) {
  Pair pair;
  char byte;
  EXPECT_EQ(crywriten(pair.near.get(), &byte, size_t{1} << 31), -1);
  EXPECT_EQ(cryreadn(pair.near.get(), &byte, size_t{1} << 31), -1);
}

TEST_F(EncryptedStream, TheWireShowsNothingOfTheText) {
  scramsupport::Wire wire;
  wire.shakeHands();
  EXPECT_EQ(put(wire.near(), "a secret that everybody knows\n"), 30);
  std::string bytes = wire.fromNear();
  EXPECT_EQ(bytes.size(), 4u + 30 + 17);
  for (const char *part : {"sec", "tha", "kno"}) EXPECT_EQ(bytes.find(part), std::string::npos);
  wire.toFar(bytes);
  EXPECT_EQ(takeLine(wire.far()), "a secret that everybody knows\n");
}

TEST_F(EncryptedStream, TheSameTextIsNeverTheSameOnTheWire) {
  scramsupport::Wire one, two;
  one.shakeHands();
  two.shakeHands();
  EXPECT_NE(one.nearSaid, two.nearSaid);
  std::vector<std::string> seen;
  for (int fd : {one.near(), one.near(), two.near()}) {
    EXPECT_EQ(put(fd, "again"), 5);
    seen.push_back(fd == one.near() ? one.fromNear() : two.fromNear());
  }
  EXPECT_NE(seen[0], seen[1]);
  EXPECT_NE(seen[0], seen[2]);
}

TEST_F(EncryptedStream, EveryDirectionOfEveryConnectionHasItsOwnNonces) {
  constexpr size_t kPublicKey = 8, kHeader = 72 + 32;  // where they stand in a handshake
  constexpr int kConnections = 10;
  std::set<std::string> publicKeys, headers, records;
  for (int connection = 0; connection < kConnections; connection++) {
    scramsupport::Wire wire;
    wire.shakeHands();
    for (const std::string &said : {wire.nearSaid, wire.farSaid}) {
      publicKeys.insert(said.substr(kPublicKey, 32));
      headers.insert(said.substr(kHeader, 24));
    }
    // Two records in each direction: the same text four times.
    for (int record = 0; record < 2; record++) {
      put(wire.near(), "again");
      put(wire.far(), "again");
      records.insert(wire.fromNear());
      records.insert(wire.fromFar());
    }
  }
  EXPECT_EQ(publicKeys.size(), 2u * kConnections);
  EXPECT_EQ(headers.size(), 2u * kConnections);
  EXPECT_EQ(records.size(), 4u * kConnections);
}

// --- lines ---

TEST_F(EncryptedStream, ALineLeavesWhatFollowsIt) {
  Pair pair;
  shakeHands(pair.near.get(), pair.far.get());
  EXPECT_EQ(put(pair.near.get(), "Next\nGet\nbytes"), 14);
  int result;
  EXPECT_EQ(takeLine(pair.far.get(), 512, &result), "Next\n");
  EXPECT_EQ(result, 5);
  EXPECT_EQ(takeLine(pair.far.get(), 512, &result), "Get\n");
  EXPECT_EQ(result, 4);
  EXPECT_EQ(take(pair.far.get(), 5), "bytes");
}

TEST_F(EncryptedStream, ALineMayComeInManyPieces) {
  Pair pair;
  shakeHands(pair.near.get(), pair.far.get());
  for (const char *piece : {"N", "ex", "t", "\n"}) put(pair.near.get(), piece);
  int result;
  EXPECT_EQ(takeLine(pair.far.get(), 512, &result), "Next\n");
  EXPECT_EQ(result, 5);
}

TEST_F(EncryptedStream, ALineThatIsTooLongIsCut) {
  Pair pair;
  shakeHands(pair.near.get(), pair.far.get());
  put(pair.near.get(), std::string(600, 'a') + "\n");
  int result;
  EXPECT_EQ(takeLine(pair.far.get(), 512, &result), std::string(511, 'a'));
  EXPECT_EQ(result, 512);
  EXPECT_EQ(takeLine(pair.far.get(), 90, &result), std::string(89, 'a'));
  EXPECT_EQ(result, 90);
  EXPECT_EQ(takeLine(pair.far.get(), 512, &result), "\n");
  EXPECT_EQ(result, 1);
}

TEST_F(EncryptedStream, ALineThatJustFitsIsWhole) {
  Pair pair;
  shakeHands(pair.near.get(), pair.far.get());
  put(pair.near.get(), "abc\nrest");
  int result;
  EXPECT_EQ(takeLine(pair.far.get(), 5, &result), "abc\n");
  EXPECT_EQ(result, 4);
  EXPECT_EQ(takeLine(pair.far.get(), 3, &result), "re");
  EXPECT_EQ(result, 3);
}

// --- ends ---

TEST_F(EncryptedStream, AProcessThatEndsInGoodOrderSaysSo) {
  Pair pair;
  pid_t pid = fork();
  if (pid == 0) {
    // exit, not _exit: that is what good order is.
    exit(put(pair.far.get(), "last words") == 10 ? 0 : 1);
  }
  pair.far.reset();
  int result;
  EXPECT_EQ(takeLine(pair.near.get(), 512, &result), "last words");
  EXPECT_EQ(result, 11);
  EXPECT_EQ(takeLine(pair.near.get(), 512, &result), "");
  EXPECT_EQ(result, 0);
  take(pair.near.get(), 1, &result);
  EXPECT_EQ(result, -4);
  int status;
  waitpid(pid, &status, 0);
  EXPECT_EQ(status, 0);
}

TEST_F(EncryptedStream, AChildThatEndsLeavesTheStreamOfItsParentOpen) {
  Pair pair;
  shakeHands(pair.near.get(), pair.far.get());
  put(pair.near.get(), "one");
  pid_t pid = fork();
  if (pid == 0) exit(0);
  int status;
  waitpid(pid, &status, 0);
  put(pair.near.get(), "two");
  EXPECT_EQ(take(pair.far.get(), 6), "onetwo");
}

// --- time-outs ---

TEST_F(EncryptedStream, ASilentPeerEndsEveryCall) {
  scram::timeouts = {120, 60};
  Pair pair;
  char line[16];
  long long begin = base::nowMs();
  EXPECT_EQ(cryreadn(pair.near.get(), line, 5), -2);
  EXPECT_GE(base::nowMs() - begin, 120);
  begin = base::nowMs();
  EXPECT_EQ(cryreadnline(pair.near.get(), line, sizeof line), -2);
  EXPECT_GE(base::nowMs() - begin, 60);
  EXPECT_EQ(crywriten(pair.near.get(), line, 5), -1);
}

TEST_F(EncryptedStream, TheHandshakeGoesOnAfterATimeOut) {
  scram::timeouts = {0, 0};
  Pair pair;
  char line[16];
  EXPECT_EQ(cryreadnline(pair.near.get(), line, sizeof line), -2);
  EXPECT_EQ(cryreadnline(pair.near.get(), line, sizeof line), -2);
  shakeHands(pair.near.get(), pair.far.get());
  put(pair.far.get(), "late\n");
  EXPECT_EQ(takeLine(pair.near.get()), "late\n");
}

TEST_F(EncryptedStream, ARecordThatComesSlowlyIsReadAfterATimeOut) {
  scramsupport::Wire wire;
  wire.shakeHands();
  scram::timeouts = {20, 20};
  put(wire.near(), "header");
  std::string bytes = wire.fromNear();
  wire.toFar(bytes.substr(0, 9));
  int result;
  take(wire.far(), 6, &result);
  EXPECT_EQ(result, -2);
  wire.toFar(bytes.substr(9));
  EXPECT_EQ(take(wire.far(), 6), "header");
}

TEST_F(EncryptedStream, ATimeOutInTheMiddleOfAReadGivesTheStreamUp) {
  Pair pair;
  shakeHands(pair.near.get(), pair.far.get());
  scram::timeouts = {20, 20};
  put(pair.near.get(), "half");
  int result;
  take(pair.far.get(), 8, &result);
  EXPECT_EQ(result, -2);
  put(pair.near.get(), "half");
  take(pair.far.get(), 8, &result);
  EXPECT_EQ(result, -4);  // four bytes are lost; what comes now is not what the caller takes it for
}

TEST_F(EncryptedStream, APeerThatReadsNothingEndsTheWriter) {
  Pair pair;
  shakeHands(pair.near.get(), pair.far.get());
  scram::timeouts = {50, 50};
  EXPECT_EQ(put(pair.near.get(), textOf(16 << 20)), -1);
  EXPECT_EQ(put(pair.near.get(), "more"), -1);  // it would follow half a record
}

// --- descriptors ---

TEST_F(EncryptedStream, WhatIsNoConnectionIsRefused) {
  char byte = 0;
  int pipes[2];
  ASSERT_EQ(pipe2(pipes, O_CLOEXEC), 0);
  for (int fd : {-1, 999, pipes[0], pipes[1]}) {
    EXPECT_EQ(crywriten(fd, &byte, 1), -1);
    EXPECT_EQ(cryreadn(fd, &byte, 1), -1);
    EXPECT_EQ(cryreadnline(fd, &byte, 2), -1);
  }
  close(pipes[0]);
  close(pipes[1]);
}

TEST_F(EncryptedStream, APeerThatHasGoneEndsTheWriter) {
  Pair pair;
  shakeHands(pair.near.get(), pair.far.get());
  pair.far.reset();
  EXPECT_EQ(put(pair.near.get(), "anybody?"), -1);
}

TEST_F(EncryptedStream, ADescriptorUsedAgainBeginsAnew) {
  for (int round = 0; round < 3; round++) {
    Pair pair;
    static int near = pair.near.get();
    EXPECT_EQ(pair.near.get(), near);
    shakeHands(pair.near.get(), pair.far.get());
    put(pair.near.get(), "unread bytes and lines\n");
    EXPECT_EQ(take(pair.far.get(), 6), "unread");
  }
}

TEST_F(EncryptedStream, AConnectionMayMoveToAnotherDescriptor) {
  Pair pair;
  shakeHands(pair.near.get(), pair.far.get());
  put(pair.near.get(), "one two");
  EXPECT_EQ(take(pair.far.get(), 4), "one ");
  base::Fd moved(dup(pair.far.get()));
  pair.far.reset();
  EXPECT_EQ(take(moved.get(), 3), "two");
}

TEST_F(EncryptedStream, ManyConnectionsOneAfterTheOtherLeaveNothing) {
  for (int round = 0; round < 200; round++) {
    Pair pair;
    shakeHands(pair.near.get(), pair.far.get());
    put(pair.near.get(), "x");
    ASSERT_EQ(take(pair.far.get(), 1), "x") << round;
  }
}

TEST_F(EncryptedStream, MoreConnectionsThanCanBeKeptAreRefusedAndTheOthersGoOn) {
  std::vector<Pair> pairs(33);
  for (int at = 0; at < 32; at++) shakeHands(pairs[at].near.get(), pairs[at].far.get());
  std::string said = support::captureStderr([&] { EXPECT_EQ(put(pairs[32].near.get(), "x"), -1); });
  EXPECT_EQ(said, "ERROR:  Encryption: too many connections at once\n");
  put(pairs[7].near.get(), "still");
  EXPECT_EQ(take(pairs[7].far.get(), 5), "still");
  pairs[0] = Pair();
  shakeHands(pairs[32].near.get(), pairs[32].far.get());
}

// --- processes and alarms ---

TEST_F(EncryptedStream, AChildGoesOnWhereItsParentStoppedAndBack) {
  Pair pair;
  shakeHands(pair.near.get(), pair.far.get());
  put(pair.near.get(), "parent ");
  for (int round = 0; round < 3; round++) {
    int status = support::inChild([&] { return put(pair.near.get(), "child ") == 6 ? 0 : 1; });
    EXPECT_EQ(status, 0);
    put(pair.near.get(), "parent ");
  }
  EXPECT_EQ(take(pair.far.get(), 46), "parent child parent child parent child parent ");
}

TEST_F(EncryptedStream, AChildReadsWhatItsParentHadTakenOffTheWire) {
  Pair pair;
  shakeHands(pair.near.get(), pair.far.get());
  put(pair.near.get(), "one\ntwo\nthree\n");
  EXPECT_EQ(takeLine(pair.far.get()), "one\n");
  EXPECT_EQ(support::inChild([&] { return takeLine(pair.far.get()) == "two\n" ? 0 : 1; }), 0);
  EXPECT_EQ(takeLine(pair.far.get()), "three\n");
}

TEST_F(EncryptedStream, SiblingsHaveConnectionsOfTheirOwn) {
  Pair pair;
  shakeHands(pair.near.get(), pair.far.get());
  auto sibling = [&] {
    Pair own;
    shakeHands(own.near.get(), own.far.get());
    put(own.near.get(), "own");
    return take(own.far.get(), 3) == "own" ? 0 : 1;
  };
  EXPECT_EQ(support::inChild(sibling), 0);
  EXPECT_EQ(support::inChild(sibling), 0);
  put(pair.near.get(), "mine");
  EXPECT_EQ(take(pair.far.get(), 4), "mine");
}

base::AlarmGuard guard;

void jump(int) {
  if (!guard.mustWait()) siglongjmp(guard.back, 1);
}

// Runs a call that waits for ever, and jumps out of it. True when the jump was taken.
bool jumpOutOf(const std::function<void()> &call) {
  struct sigaction before;
  EXPECT_EQ(base::catchAlarm(jump, &before), 0);
  guard.reset();
  volatile bool jumped = false;
  if (sigsetjmp(guard.back, 1) == 0) {
    guard.armed = 1;
    base::setAlarmTimerMs(50);
    call();
  } else {
    jumped = true;
  }
  guard.reset();
  base::setAlarmTimer(0);
  sigaction(SIGALRM, &before, nullptr);
  return jumped;
}

TEST_F(EncryptedStream, ACallThatWasJumpedOutOfGivesUpItsHalfOnly) {
  Pair pair;
  shakeHands(pair.near.get(), pair.far.get());
  static int fd;
  fd = pair.near.get();
  static char text[64];
  EXPECT_TRUE(jumpOutOf([] { cryreadn(fd, text, 8); }));
  int result;
  put(pair.far.get(), "whatever");
  take(fd, 8, &result);
  EXPECT_EQ(result, -4);
  takeLine(fd, 16, &result);
  EXPECT_EQ(result, -3);
  EXPECT_EQ(put(fd, "goodbye"), 7);
  EXPECT_EQ(take(pair.far.get(), 7), "goodbye");
}

TEST_F(EncryptedStream, AWriteThatWasJumpedOutOfCannotBeFollowed) {
  Pair pair;
  shakeHands(pair.near.get(), pair.far.get());
  static int fd;
  fd = pair.near.get();
  static char bytes[4 << 20];
  EXPECT_TRUE(jumpOutOf([] { crywriten(fd, bytes, sizeof bytes); }));
  EXPECT_EQ(put(fd, "more"), -1);
}

TEST_F(EncryptedStream, AHandshakeThatWasJumpedOutOfIsOver) {
  Pair pair;
  static int fd;
  fd = pair.near.get();
  static char byte;
  EXPECT_TRUE(jumpOutOf([] { cryreadn(fd, &byte, 1); }));
  EXPECT_EQ(put(fd, "x"), -1);
  int result;
  take(fd, 1, &result);
  EXPECT_EQ(result, -4);
  Pair next;  // and the next connection is none the worse
  shakeHands(next.near.get(), next.far.get());
}

}  // namespace
