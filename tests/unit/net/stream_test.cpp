// The byte streams: how much is read and written, what each failure is called, what is printed.
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

#include "base/pause.h"
#include "net/gatherchild.h"
#include "net/stream.h"
#include "netsupport.h"
#include "tape/tapeio.h"

namespace {

using netsupport::Pair;
using netsupport::readAll;
using support::pattern;

class Stream : public netsupport::NetTest {};

// Lowered elsewhere in these tests; installed peers count on them.
TEST_F(Stream, TheLimitsOfSilenceAreTheseLengths) {
  EXPECT_EQ(net::timeouts.streamMs, 60000);
  EXPECT_EQ(net::timeouts.lineMs, 30000);
  EXPECT_EQ(net::timeouts.connectS, 8);
  EXPECT_EQ(net::timeouts.stepMs, 300000);
  EXPECT_EQ(net::timeouts.fileMs, 600000);
  EXPECT_EQ(net::timeouts.startMs, 10000);
  EXPECT_EQ(net::gatherLimits.stepS, 300);
  EXPECT_EQ(net::gatherLimits.takenMs, 100000);
  EXPECT_EQ(tape::readLimitMs, 60000);
}

TEST_F(Stream, WritenWritesTheWholeBuffer) {
  Pair pair;
  std::string sent = pattern(3 << 20), seen;
  std::thread reader([&] { seen = readAll(pair.far.get()); });
  EXPECT_EQ(writen(pair.near.get(), sent.data(), sent.size()), static_cast<ssize_t>(sent.size()));
  pair.near.reset();
  reader.join();
  EXPECT_TRUE(seen == sent);
}

TEST_F(Stream, WritenToAPipeWritesTheWholeBuffer) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  std::string sent = pattern(300000), seen;
  std::thread reader([&] { seen = readAll(ends[0]); });
  EXPECT_EQ(writen(ends[1], sent.data(), sent.size()), 300000);
  close(ends[1]);
  reader.join();
  close(ends[0]);
  EXPECT_TRUE(seen == sent);
}

TEST_F(Stream, WritenToAFileWritesTheWholeBuffer) {
  std::string file = path("tmp/file");
  base::Fd fd(open(file.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  std::string sent = pattern(100000);
  EXPECT_EQ(writen(fd.get(), sent.data(), sent.size()), 100000);
  EXPECT_TRUE(support::readFile(file) == sent);
}

TEST_F(Stream, NothingIsWrittenOrReadForLengthZero) {
  EXPECT_EQ(writen(-1, "", 0), 0);
  char none;
  EXPECT_EQ(readn(-1, &none, 0), 0);
}

TEST_F(Stream, WritenToAClosedPeerFailsAndTheProcessLives) {
  for (bool socket : {true, false}) {
    int ends[2];
    ASSERT_EQ(socket ? socketpair(AF_UNIX, SOCK_STREAM, 0, ends) : pipe(ends), 0);
    close(ends[0]);
    int status = support::inChild([&] {
      signal(SIGPIPE, SIG_DFL);
      std::string much = pattern(1 << 20);
      return writen(ends[1], much.data(), much.size()) == -1 ? 42 : 1;
    });
    EXPECT_EQ(support::exitOf(status), 42) << (socket ? "socket" : "pipe");
    close(ends[1]);
  }
}

TEST_F(Stream, WritenGivesUpAPeerThatTakesNothing) {
  net::timeouts.streamMs = 100;
  std::string much = pattern(8 << 20);
  Pair pair;
  EXPECT_EQ(writen(pair.near.get(), much.data(), much.size()), -1);
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  long long begin = base::nowMs();
  EXPECT_EQ(writen(ends[1], much.data(), much.size()), -1);
  EXPECT_GE(base::nowMs() - begin, 90);
  close(ends[0]);
  close(ends[1]);
}

TEST_F(Stream, TheTimeOutOfWritenBeginsAnewWithProgress) {
  net::timeouts.streamMs = 1500;
  Pair pair;
  std::string much = pattern(4 << 20);
  size_t seen = 0;
  std::thread reader([&] {
    std::string part(512 << 10, '\0');
    for (ssize_t got = 1; got > 0;) {
      base::sleepMs(250);  // slower than one time-out in all, never silent for one
      got = recv(pair.far.get(), part.data(), part.size(), 0);
      if (got > 0) seen += static_cast<size_t>(got);
    }
  });
  EXPECT_EQ(writen(pair.near.get(), much.data(), much.size()), static_cast<ssize_t>(much.size()));
  pair.near.reset();
  reader.join();
  EXPECT_EQ(seen, much.size());
}

TEST_F(Stream, BadDescriptorsAreFailuresOfTheWait) {
  char byte = 0;
  for (int fd : {-1, -3, 9999}) {
    EXPECT_EQ(writen(fd, &byte, 1), -1) << fd;
    EXPECT_EQ(readn(fd, &byte, 1), -1) << fd;
    char line[8];
    EXPECT_EQ(readnline(fd, line, sizeof line), -1) << fd;
  }
}

TEST_F(Stream, BothPartsArriveInOrderAndAreCounted) {
  Pair pair;
  std::string head = pattern(520), data = pattern(2 << 20), seen;
  std::thread reader([&] { seen = readAll(pair.far.get()); });
  size_t done = 0;
  EXPECT_TRUE(
      net::writeBoth(pair.near.get(), head.data(), head.size(), data.data(), data.size(), &done));
  EXPECT_EQ(done, head.size() + data.size());
  EXPECT_TRUE(net::writeBoth(pair.near.get(), head.data(), head.size(), nullptr, 0, &done));
  EXPECT_EQ(done, head.size());
  pair.near.reset();
  reader.join();
  EXPECT_TRUE(seen == head + data + head);
}

TEST_F(Stream, AFailedWriteOfBothPartsTellsHowMuchWentOut) {
  net::timeouts.streamMs = 50;
  Pair pair;
  std::string head = pattern(520), data = pattern(8 << 20);
  size_t done = 0;
  EXPECT_FALSE(
      net::writeBoth(pair.near.get(), head.data(), head.size(), data.data(), data.size(), &done));
  EXPECT_GT(done, head.size());
  EXPECT_LT(done, data.size());
  pair.far.reset();
  EXPECT_FALSE(
      net::writeBoth(pair.near.get(), head.data(), head.size(), data.data(), data.size(), &done));
  EXPECT_EQ(done, 0u);
}

TEST_F(Stream, ReadnWaitsUntilAllPiecesAreThere) {
  Pair pair;
  std::thread writer([&] {
    for (const char *piece : {"ab", "cde", "f", "ghij"}) {
      base::sleepMs(20);
      EXPECT_GT(write(pair.far.get(), piece, strlen(piece)), 0);
    }
  });
  char text[10];
  EXPECT_EQ(readn(pair.near.get(), text, sizeof text), 10);
  EXPECT_EQ(memcmp(text, "abcdefghij", 10), 0);
  writer.join();
}

TEST_F(Stream, ReadnReadsPipesAndFilesToo) {
  support::writeFile(path("tmp/file"), pattern(100000));
  base::Fd fd(open(path("tmp/file").c_str(), O_RDONLY | O_CLOEXEC));
  std::string seen(100000, '\0');
  EXPECT_EQ(readn(fd.get(), seen.data(), seen.size()), 100000);
  EXPECT_TRUE(seen == pattern(100000));
  errno = 0;
  EXPECT_EQ(readn(fd.get(), seen.data(), 1), -4);
}

TEST_F(Stream, ReadnNeverReturnsAPartAtTheEndOfTheStream) {
  Pair pair;
  ASSERT_EQ(write(pair.far.get(), "abc", 3), 3);
  pair.far.reset();
  char text[10];
  errno = 0;
  EXPECT_EQ(readn(pair.near.get(), text, sizeof text), -4);
}

TEST_F(Stream, AStaleEintrDoesNotMakeReadnReadAnEndedStreamForEver) {
  Pair pair;
  pair.far.reset();
  char text[10];
  errno = EINTR;
  EXPECT_EQ(readn(pair.near.get(), text, sizeof text), -4);
}

TEST_F(Stream, ReadnCallsAPeerGoneWhenErrnoHoldsEnoent) {
  Pair pair;
  ASSERT_EQ(write(pair.far.get(), "abc", 3), 3);
  // The end comes while readn already waits: the try before the wait must not disturb errno.
  std::thread closer([&] {
    base::sleepMs(50);
    pair.far.reset();
  });
  char text[10], expected[256];
  std::string printed = support::captureStderr([&] {
    errno = ENOENT;
    EXPECT_EQ(readn(pair.near.get(), text, sizeof text), -3);
  });
  closer.join();
  snprintf(expected, sizeof expected,
           "ERROR:  No Socket.  Connection closed from other end. nread=0, nleft= 7, fd=%i, "
           "ptr=%p, errno = 2\n",
           pair.near.get(), static_cast<void *>(text + 3));
  EXPECT_EQ(printed, expected);
}

TEST_F(Stream, ReadnGivesUpASilentPeer) {
  net::timeouts.streamMs = 80;
  Pair pair;
  char text[10];
  long long begin = base::nowMs();
  EXPECT_EQ(readn(pair.near.get(), text, sizeof text), -2);
  EXPECT_GE(base::nowMs() - begin, 70);
}

TEST_F(Stream, ReadnlineReadsALineAndNothingBehindIt) {
  Pair pair;
  ASSERT_EQ(write(pair.far.get(), "Next\nbinary", 11), 11);
  char line[512];
  EXPECT_EQ(readnline(pair.near.get(), line, sizeof line), 5);
  EXPECT_STREQ(line, "Next\n");
  char rest[6];
  EXPECT_EQ(read(pair.near.get(), rest, sizeof rest), 6);
  EXPECT_EQ(memcmp(rest, "binary", 6), 0);
}

TEST_F(Stream, ReadnlineCutsALongLine) {
  Pair pair;
  std::string longLine(600, 'x');
  ASSERT_EQ(write(pair.far.get(), longLine.data(), longLine.size()), 600);
  char line[512];
  EXPECT_EQ(readnline(pair.near.get(), line, sizeof line), 512);
  EXPECT_EQ(strlen(line), 511u);
  char next;
  EXPECT_EQ(read(pair.near.get(), &next, 1), 1);  // 89 are left
  EXPECT_EQ(next, 'x');
}

TEST_F(Stream, ReadnlineLeavesALineFeedThatDoesNotFit) {
  Pair pair;
  std::string text = std::string(511, 'y') + "\nZ";
  ASSERT_EQ(write(pair.far.get(), text.data(), text.size()), 513);
  char line[512];
  EXPECT_EQ(readnline(pair.near.get(), line, sizeof line), 512);
  EXPECT_EQ(readnline(pair.near.get(), line, sizeof line), 1);
  EXPECT_STREQ(line, "\n");
}

TEST_F(Stream, ReadnlineCountsOneMoreWhenTheStreamEndsInsideALine) {
  Pair pair;
  ASSERT_EQ(write(pair.far.get(), "Ab", 2), 2);
  pair.far.reset();
  char line[512];
  EXPECT_EQ(readnline(pair.near.get(), line, sizeof line), 3);
  EXPECT_STREQ(line, "Ab");
  EXPECT_EQ(readnline(pair.near.get(), line, sizeof line), 0);
}

TEST_F(Stream, ReadnlineWithoutRoomReadsNothing) {
  Pair pair;
  ASSERT_EQ(write(pair.far.get(), "a\n", 2), 2);
  char line[2] = {'q', 'q'};
  EXPECT_EQ(readnline(pair.near.get(), line, 1), 1);
  EXPECT_EQ(line[0], '\0');
  line[0] = 'q';
  EXPECT_EQ(readnline(pair.near.get(), line, 0), 1);
  EXPECT_EQ(line[0], 'q');
  EXPECT_EQ(read(pair.near.get(), line, 1), 1);
}

TEST_F(Stream, ReadnlineGivesUpAfterALineTimeOutPerByte) {
  net::timeouts.lineMs = 1000;
  Pair pair;
  std::thread writer([&] {
    for (const char *byte : {"N", "e", "x"}) {
      base::sleepMs(400);
      EXPECT_EQ(write(pair.far.get(), byte, 1), 1);
    }
  });
  char line[16] = {};
  long long begin = base::nowMs();
  EXPECT_EQ(readnline(pair.near.get(), line, sizeof line), -2);
  EXPECT_GE(base::nowMs() - begin, 2000);
  EXPECT_EQ(memcmp(line, "Nex", 3), 0);
  writer.join();
}

TEST_F(Stream, ReadnlineNamesAConnectionThatWasReset) {
  int port = 0;
  base::Fd listening(support::listenOn(port));
  sockaddr_in address{};
  socklen_t length = sizeof address;
  getsockname(listening.get(), reinterpret_cast<sockaddr *>(&address), &length);
  base::Fd near(socket(AF_INET, SOCK_STREAM, 0));
  ASSERT_EQ(connect(near.get(), reinterpret_cast<sockaddr *>(&address), length), 0);
  base::Fd far(accept(listening.get(), nullptr, nullptr));
  linger now{1, 0};
  setsockopt(far.get(), SOL_SOCKET, SO_LINGER, &now, sizeof now);
  far.reset();
  char line[16];
  EXPECT_EQ(readnline(near.get(), line, sizeof line), -3);
}

TEST_F(Stream, TheLocalLineReaderReadsFilesWithTheSameCounts) {
  support::writeFile(path("tmp/lines"), "one\n\nlongish\ntail");
  base::Fd fd(open(path("tmp/lines").c_str(), O_RDONLY | O_CLOEXEC));
  char line[6];
  EXPECT_EQ(zul_getline(fd.get(), line, sizeof line), 4);
  EXPECT_STREQ(line, "one\n");
  EXPECT_EQ(zul_getline(fd.get(), line, sizeof line), 1);
  EXPECT_STREQ(line, "\n");
  EXPECT_EQ(zul_getline(fd.get(), line, sizeof line), 6);
  EXPECT_STREQ(line, "longi");
  EXPECT_EQ(zul_getline(fd.get(), line, sizeof line), 3);
  EXPECT_STREQ(line, "sh\n");
  EXPECT_EQ(zul_getline(fd.get(), line, sizeof line), 5);
  EXPECT_STREQ(line, "tail");
  EXPECT_EQ(zul_getline(fd.get(), line, sizeof line), 0);
  EXPECT_EQ(zul_getline(fd.get(), line, 1), 1);
  EXPECT_EQ(zul_getline(-1, line, sizeof line), -1);
}

TEST_F(Stream, WritefRetriesAFullPipe) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
  std::string sent = pattern(200000), seen;
  std::thread reader([&] {
    fcntl(ends[0], F_SETFL, 0);
    seen = readAll(ends[0]);
  });
  EXPECT_EQ(writef(ends[1], sent.data(), sent.size()), 200000);
  close(ends[1]);
  reader.join();
  close(ends[0]);
  EXPECT_TRUE(seen == sent);
  EXPECT_EQ(writef(-1, "x", 1), -1);
  EXPECT_EQ(writef(-1, "x", 0), 0);
}

TEST_F(Stream, NagleOnOffSetsTheOption) {
  base::Fd sd(socket(AF_INET, SOCK_STREAM, 0));
  for (int wanted : {1, 0}) {
    EXPECT_EQ(nagleOnOff(sd.get(), wanted), 0);
    int value = -1;
    socklen_t length = sizeof value;
    getsockopt(sd.get(), IPPROTO_TCP, TCP_NODELAY, &value, &length);
    EXPECT_EQ(value, wanted);
  }
  EXPECT_EQ(nagleOnOff(-1, 1), -1);
}

// What the detached process found, written to a file by itself.
std::string accountOfDaemon() {
  std::string account;
  account += getsid(0) == getpid() ? "session " : "no-session ";
  mode_t mask = umask(0);
  account += "mask " + std::to_string(mask) + " ";
  char folder[4096] = "";
  account += std::string("in ") + (getcwd(folder, sizeof folder) ? folder : "?") + " ";
  struct stat null, status;
  stat("/dev/null", &null);
  for (int fd = 0; fd < 256; fd++) {
    if (fstat(fd, &status) != 0) continue;
    account += std::to_string(fd) + (status.st_rdev == null.st_rdev ? "=null:" : "=other:") +
               std::to_string(fcntl(fd, F_GETFL) & O_ACCMODE) + " ";
  }
  return account;
}

TEST_F(Stream, MkDaemonDetachesAndTheCallerEndsWithZero) {
  std::string account = path("tmp/account");
  int status = support::inChild([&] {
    int result = mkDaemon();
    support::writeFile(account + ".new", std::to_string(result) + " " + accountOfDaemon());
    rename((account + ".new").c_str(), account.c_str());
    return 7;  // of the daemon; the caller is gone
  });
  EXPECT_EQ(support::exitOf(status), 0);
  ASSERT_TRUE(support::eventually([&] { return support::exists(account); }));
  EXPECT_EQ(support::readFile(account),
            "0 session mask 27 in " + home + " 0=null:0 1=null:1 2=null:2 ");
}

}  // namespace
