// The receiver: what it asks for, what it makes of what comes, and what it says when it cannot.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <string.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

#include "base/pause.h"
#include "net/timeouts.h"
#include "replication/target.h"
#include "repltest.h"

using repltest::endOfList;
using repltest::framed;
using repltest::headerOf;
using repltest::packed;
using repltest::pattern;
using support::captureStderr;
using support::exists;
using support::readFile;
using support::writeFile;

namespace {

struct stat statOf(const std::string &path) {
  struct stat status {};
  EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
  return status;
}

std::string linkAt(const std::string &path) {
  char text[512] = "";
  return readlink(path.c_str(), text, sizeof text - 1) < 0 ? "none" : text;
}

package link(const std::string &name, const std::string &text) {
  return headerOf(name, 2, text.size() + 1);
}

// --- one file on a stream ---

class GetFile : public support::HomeTest, public testing::WithParamInterface<const char *> {
 protected:
  void SetUp() override {
    HomeTest::SetUp();
    site(std::string("behaviour = ") + GetParam() + "\n");
    root = path("dest");
    mkdir(root.c_str(), 0755);
    target::begin(root.c_str());
  }
  void TearDown() override {
    target::end();
    HomeTest::TearDown();
  }
  // Has the file at the beginning of stream received; left is what nobody read.
  int take(const std::string &stream, const std::string &name, bool close = true) {
    int pair[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    std::thread feeder([&] {
      send(pair[1], stream.data(), stream.size(), MSG_NOSIGNAL);
      if (close) shutdown(pair[1], SHUT_WR);
    });
    std::string at = root + name;
    int result = 0;
    said = captureStderr([&] { result = getFilefromStream(pair[0], at.data()); });
    char rest[4096];
    left = 0;
    for (ssize_t got; (got = recv(pair[0], rest, sizeof rest, MSG_DONTWAIT)) > 0;)
      left += static_cast<size_t>(got);
    ::close(pair[0]);
    feeder.join();
    ::close(pair[1]);
    return result;
  }
  bool sound() const { return strcmp(GetParam(), "sound") == 0; }
  std::string root, said;
  size_t left = 0;
};

INSTANTIATE_TEST_SUITE_P(, GetFile, testing::Values("classic", "sound"),
                         [](const auto &each) { return std::string(each.param); });

TEST_P(GetFile, AFileGetsContentOwnerModeAndTimes) {
  EXPECT_EQ(take(framed(headerOf("/a/f", 0, 5), "hello"), "/a/f"), 0);
  struct stat status = statOf(root + "/a/f");
  EXPECT_EQ(status.st_mode & 07777, 0640u);
  EXPECT_EQ(status.st_mtime, 1000000000);
  EXPECT_EQ(status.st_atime, 1000000001);
  EXPECT_EQ(readFile(root + "/a/f"), "hello");
  EXPECT_EQ(statOf(root + "/a").st_mode & 0777, 0755u);
}

TEST_P(GetFile, SegmentsAreJoined) {
  for (size_t size : {size_t{0}, size_t{1}, size_t{8191}, size_t{8192}, size_t{8193},
                      size_t{PACK_CHUNK} - 1, size_t{PACK_CHUNK} + 1, size_t{PACK_CHUNK} * 5 / 2}) {
    std::string data = pattern(size);
    EXPECT_EQ(take(framed(headerOf("/f", 0, size), data), "/f"), 0) << size;
    EXPECT_EQ(readFile(root + "/f"), data) << size;
    EXPECT_EQ(left, 0u) << size;
  }
}

TEST_P(GetFile, NothingIsReadBehindTheLastByte) {
  for (size_t size : {size_t{PACK_CHUNK}, size_t{2} * PACK_CHUNK}) {
    EXPECT_EQ(take(framed(headerOf("/f", 0, size), pattern(size)), "/f"), 0);
    EXPECT_EQ(readFile(root + "/f"), pattern(size));
    EXPECT_EQ(left, static_cast<size_t>(PACK_SIZE));
  }
}

TEST_P(GetFile, DirectoriesAreMadeWithTheirParents) {
  EXPECT_EQ(take(packed(headerOf("/d/e/", 1)), "/d/e/"), 0);
  target::end();
  struct stat status = statOf(root + "/d/e");
  EXPECT_EQ(status.st_mode & 0777, 0750u);
  EXPECT_EQ(status.st_mtime, 1000000000);
}

TEST_P(GetFile, AFileInTheWayOfADirectoryIsSaid) {
  writeFile(root + "/d", "file");
  EXPECT_EQ(take(packed(headerOf("/d", 1)), "/d"), -2);
  EXPECT_EQ(statusLog(), "ERROR:  File " + root + "/d should be a directory\n");
  EXPECT_EQ(readFile(root + "/d"), "file");
}

TEST_P(GetFile, ADirectoryThatCannotBeMadeIsSaid) {
  writeFile(root + "/d", "file");
  EXPECT_EQ(take(packed(headerOf("/d/e/f", 1)), "/d/e/f"), -4);
  EXPECT_EQ(statusLog(), "ERROR:  Can't make directory: " + root + "/d/e/f\n");
}

TEST_P(GetFile, AParentThatCannotBeMadeIsSaidForFilesOnly) {
  writeFile(root + "/d", "file");
  EXPECT_EQ(take(framed(headerOf("/d/e/f", 0, 3), "abc"), "/d/e/f"), -4);
  EXPECT_EQ(statusLog(), "ERROR:  Cannot make directory " + root + "/d/e\n");
  clearLogs();
  EXPECT_EQ(take(packed(link("/d/l", "x")) + std::string("x\0", 2), "/d/l"), -4);
  EXPECT_EQ(statusLog(), "");
}

TEST_P(GetFile, AFileThatCannotBeOpenedIsSaidWithItsErrno) {
  mkdir((root + "/f").c_str(), 0755);
  writeFile(root + "/f/in", "");
  EXPECT_EQ(take(framed(headerOf("/f", 0, 3), "abc"), "/f"), -3);
  EXPECT_TRUE(sound() || statusLog() == "ERROR:  Cannot open " + root + "/f.  errno = 21\n");
}

TEST_P(GetFile, LinksAreMadeAndAWrongLengthRefused) {
  EXPECT_EQ(take(packed(link("/l", "/tmp")) + std::string("/tmp\0", 5), "/l"), 0);
  EXPECT_EQ(linkAt(root + "/l"), "/tmp");
  EXPECT_EQ(take(packed(link("/m", "/tmp")) + std::string("/t\0mp", 5), "/m"), -1);
  EXPECT_EQ(statusLog(), "ERROR:  Stream read error.  Got: /t.  Of length 2, expected 5\n");
  EXPECT_FALSE(exists(root + "/m"));
}

TEST_P(GetFile, ALinkThatIsThereStaysInClassicOnly) {
  ASSERT_EQ(symlink("/old", (root + "/l").c_str()), 0);
  EXPECT_EQ(take(packed(link("/l", "/tmp")) + std::string("/tmp\0", 5), "/l"), 0);
  EXPECT_EQ(linkAt(root + "/l"), sound() ? "/tmp" : "/old");
  EXPECT_EQ(statusLog().find("WARNING:  Cannot create link\n") == 0, !sound());
}

TEST_P(GetFile, TimesOfALinkGoToItsTargetInClassic) {
  writeFile(root + "/target", "x");
  take(packed(link("/l", "target")) + std::string("target\0", 7), "/l");
  EXPECT_EQ(statOf(root + "/target").st_mtime == 1000000000, !sound());
  EXPECT_EQ(statOf(root + "/l").st_mtime == 1000000000, sound());
}

TEST_P(GetFile, TimesThatCannotBeSetAreOnlySaid) {
  EXPECT_EQ(take(packed(headerOf("/gone", 5)), "/gone"), 0);
  EXPECT_EQ(statusLog(),
            sound() ? "" : "Warning cannot set file time for: " + root + "/gone. errno = 2 \n");
  EXPECT_EQ(said, "");
}

TEST_P(GetFile, WhatHadVanishedMakesAFileOldInClassic) {
  writeFile(root + "/f", "here");
  package header = headerOf("/f", 5);
  header.mtime = header.atime = 0;
  EXPECT_EQ(take(packed(header), "/f"), 0);
  EXPECT_EQ(statOf(root + "/f").st_mtime == 0, !sound());
  EXPECT_EQ(readFile(root + "/f"), "here");
}

TEST_P(GetFile, DevicesMakeNothing) {
  for (int type : {3, 4, 5, 77}) {
    EXPECT_EQ(take(packed(headerOf("/n", type)), "/n"), 0);
    EXPECT_FALSE(exists(root + "/n"));
  }
}

TEST_P(GetFile, AStreamThatEndsIsTellingWhere) {
  EXPECT_EQ(take("", "/f"), -8);
  EXPECT_EQ(take(packed(headerOf("/f", 0, 5)).substr(0, 519), "/f"), -8);
  EXPECT_EQ(statusLog(), "ERROR:  Can't read package header\nERROR:  Can't read package header\n");
  clearLogs();
  EXPECT_EQ(take(packed(headerOf("/f", 0, 5)) + "hell", "/f"), -10);
  EXPECT_NE(statusLog().find("ERROR:  Socket read error.  Retval = -"), std::string::npos);
  EXPECT_NE(statusLog().find(", got=0, todo=5\n"), std::string::npos) << statusLog();
  clearLogs();
  std::string whole = framed(headerOf("/f", 0, PACK_CHUNK + 9), pattern(PACK_CHUNK + 9));
  EXPECT_EQ(take(whole.substr(0, PACK_SIZE + 20000), "/f"), -10);
  EXPECT_NE(statusLog().find(sound() ? ", size = 262144\n" : ", size = 8192\n"), std::string::npos)
      << statusLog();
  clearLogs();
  EXPECT_EQ(take(whole.substr(0, PACK_SIZE + PACK_CHUNK + 500), "/f"), -9);
  EXPECT_EQ(statusLog(), "ERROR:  Can't read package header\n");
}

TEST_P(GetFile, AFileThatBreaksOffIsLeftHalfInClassicAndNotAtAllUnderSound) {
  writeFile(root + "/f", "the old one");
  std::string whole = framed(headerOf("/f", 0, 50000), pattern(50000));
  EXPECT_EQ(take(whole.substr(0, PACK_SIZE + 20000), "/f"), -10);
  EXPECT_EQ(readFile(root + "/f"), sound() ? "the old one" : pattern(50000).substr(0, 16384));
}

TEST_P(GetFile, AnOwnerThatCannotBeSetIsAnError) {
  if (getuid() != 0) GTEST_SKIP() << "needs a user to be";
  chmod(path("").c_str(), 0755);
  int status = support::inChild([&] {
    chmod(root.c_str(), 0777);
    if (setgid(65534) != 0 || setuid(65534) != 0) return 99;
    package header = headerOf("/f", 0, 5), directory = headerOf("/d", 1);
    header.usrid = directory.usrid = 0;
    int file = take(framed(header, "hello"), "/f");
    int folder = take(packed(directory), "/d");
    return file == -5 && folder == -5 ? 0 : 1;
  });
  EXPECT_EQ(support::exitOf(status), 0);
  EXPECT_NE(statusLog().find("ERROR:  File " + root + "/d should be a directory\n"),
            std::string::npos);
}

class ClassicGetFile : public GetFile {};
INSTANTIATE_TEST_SUITE_P(, ClassicGetFile, testing::Values("classic"));

TEST_P(ClassicGetFile, ALaterSegmentIsAppendedToWhatIsThere) {
  writeFile(root + "/f", "begin ");
  package header = headerOf("/f", 0, PACK_CHUNK + 3, 1);
  EXPECT_EQ(take(packed(header) + "end", "/f", false), 0);
  EXPECT_EQ(readFile(root + "/f"), "begin end");
  unlink((root + "/f").c_str());
  EXPECT_EQ(take(packed(header) + "end", "/f"), -3);
  EXPECT_EQ(statusLog(), "ERROR:  Cannot open " + root + "/f.  errno = 2\n");
}

TEST_P(ClassicGetFile, AForgedSequenceEndsInNothing) {
  writeFile(root + "/f", "there");
  for (int sequence : {5, 2000000000, -1, INT32_MIN}) {
    EXPECT_LE(take(packed(headerOf("/f", 0, 100, sequence)), "/f"), 0) << sequence;
    EXPECT_EQ(readFile(root + "/f").substr(0, 5), "there") << sequence;
  }
}

class SoundGetFile : public GetFile {};
INSTANTIATE_TEST_SUITE_P(, SoundGetFile, testing::Values("sound"));

TEST_P(SoundGetFile, AHeaderThatContinuesNothingIsRefused) {
  EXPECT_EQ(take(packed(headerOf("/f", 0, PACK_CHUNK + 3, 1)) + "end", "/f"), -8);
  package other = headerOf("/f", 0, 5);
  other.magic = 0x12345678;
  EXPECT_EQ(take(packed(other) + "hello", "/f"), -8);
  EXPECT_FALSE(exists(root + "/f"));
}

TEST_P(SoundGetFile, ARepeatThatDoesNotContinueItsFileIsRefused) {
  uint64_t size = 2 * PACK_CHUNK + 5;
  std::string begin = packed(headerOf("/f", 0, size)) + pattern(PACK_CHUNK);
  package wrong[] = {headerOf("/f", 0, size, 0), headerOf("/f", 0, size, 2),
                     headerOf("/f", 0, size + 1, 1), headerOf("/f", 1, size, 1),
                     headerOf("/f", 0, size, 1)};
  wrong[4].magic = PACK_EOL_MAGIC;
  for (const package &repeat : wrong) {
    EXPECT_EQ(take(begin + packed(repeat) + pattern(PACK_CHUNK), "/f"), -9);
    EXPECT_FALSE(exists(root + "/f"));
  }
}

TEST_P(SoundGetFile, WhatCannotBeMadeIsStillTakenFromTheStream) {
  writeFile(root + "/d", "file");
  uint64_t size = 2 * PACK_CHUNK + 5;
  EXPECT_EQ(take(framed(headerOf("/d/f", 0, size), pattern(size)), "/d/f"), -4);
  EXPECT_EQ(left, 0u);
}

TEST_P(SoundGetFile, AFullDiskLeavesTheOldFileAndTakesTheBytes) {
  writeFile(root + "/f", "the old one");
  int status = support::inChild([&] {
    rlimit limit{65536, 65536};
    signal(SIGXFSZ, SIG_IGN);
    setrlimit(RLIMIT_FSIZE, &limit);
    uint64_t size = PACK_CHUNK + 5;
    int result = take(framed(headerOf("/f", 0, size), pattern(size)), "/f");
    return result == target::kShortWrite && left == 0 ? 0 : 1;
  });
  EXPECT_EQ(support::exitOf(status), 0);
  EXPECT_EQ(readFile(root + "/f"), "the old one");
}

TEST_P(SoundGetFile, ARootThatCannotBeOpenedIsNotExchangedForAnother) {
  mkdir(path("outside").c_str(), 0755);
  for (const char *folder : {"", "outside"}) chmod(path(folder).c_str(), 0777);
  ASSERT_EQ(symlink(path("outside").c_str(), (root + "/link").c_str()), 0);
  chmod(root.c_str(), 0333);
  int status = support::inChild([&] {
    if (getuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0)) return 99;
    target::begin(root.c_str());
    package header = headerOf("/link/f", 0, 5);
    int result = take(framed(header, "hello"), "/link/f");
    bool told = strstr(target::lastError(), strerror(EACCES)) != nullptr;
    return result == target::kNoParent && told ? 0 : 1;
  });
  chmod(root.c_str(), 0755);
  EXPECT_EQ(support::exitOf(status), 0);
  EXPECT_FALSE(exists(path("outside/f")));
}

TEST_P(SoundGetFile, ALinkLongerThanAnyIsOutOfStep) {
  EXPECT_EQ(take(packed(headerOf("/l", 2, 1 << 30)) + std::string(9000, 'x'), "/l"), -10);
  EXPECT_FALSE(exists(root + "/l"));
}

// --- the dialogue, with a played sender ---

struct Offer {
  package header;
  std::string data;  // of "Get", headers included; empty: framed from nothing
};

class Handshake : public support::HomeTest, public testing::WithParamInterface<const char *> {
 protected:
  void SetUp() override {
    HomeTest::SetUp();
    behave();
    root = path("dest");
    mkdir(root.c_str(), 0755);
  }
  void behave(const std::string &more = "") {
    site(std::string("behaviour = ") + GetParam() +
         "\nbehaviour.security = classic\npause.receiver-ready = 0\n" + more);
  }
  // Has the files offered to a receiver; last is what is answered behind them.
  int run(const std::vector<Offer> &files, int conflict = 4,
          const std::string &last = endOfList()) {
    int port = 0;
    int listener = support::listenOn(port);
    asked.clear();
    std::thread sender([&] { play(port, files, last); });
    int result = 0;
    said = captureStderr([&] { result = repHandShk(listener, root.data(), conflict); });
    sender.join();
    return result;
  }
  void play(int port, const std::vector<Offer> &files, const std::string &last) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    base::Fd sd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    firstMs = -base::nowMs();
    ASSERT_EQ(connect(sd.get(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    size_t at = 0;
    char line[512];
    while (readnline(sd.get(), line, sizeof line) > 0) {
      if (asked.empty()) firstMs += base::nowMs();
      asked += line;
      std::string answer;
      if (strncmp(line, "Next", 4) == 0)
        answer = at < files.size() ? packed(files[at++].header) : last;
      if (strncmp(line, "Get", 3) == 0)
        answer = files[at - 1].data.empty() ? packed(files[at - 1].header) : files[at - 1].data;
      size_t part = stallMs > 0 ? answer.size() / 3 : 0;
      if (part > 0) {
        send(sd.get(), answer.data(), part, MSG_NOSIGNAL);
        base::sleepMs(stallMs);
        answer.erase(0, part);
      }
      // What the receiver leaves unread must not keep the sender.
      send(sd.get(), answer.data(), answer.size(), MSG_NOSIGNAL);
      if (answer.empty() && strncmp(line, "Next", 4) == 0) return;
    }
  }
  static Offer file(const std::string &name, const std::string &data, bool trailing = true) {
    package header = headerOf(name, 0, data.size());
    return {header, framed(header, data, trailing)};
  }
  bool sound() const { return strcmp(GetParam(), "sound") == 0; }
  std::string root, asked, said;
  long long firstMs = 0;
  int stallMs = 0;  // in the middle of an answer
};

INSTANTIATE_TEST_SUITE_P(, Handshake, testing::Values("classic", "sound"),
                         [](const auto &each) { return std::string(each.param); });

TEST_P(Handshake, AsksForEveryFileAndEndsWithTheList) {
  EXPECT_EQ(run({file("/a", "aa"), file("/b", "")}), 0);
  EXPECT_EQ(asked, "Next\nGet\nNext\nGet\nNext\n");
  EXPECT_EQ(readFile(root + "/a"), "aa");
  EXPECT_TRUE(exists(root + "/b"));
}

TEST_P(Handshake, WaitsBeforeItsFirstQuestion) {
  behave("pause.receiver-ready = 200ms\n");
  EXPECT_EQ(run({}), 0);
  EXPECT_GE(firstMs, 190);
}

TEST_P(Handshake, ABadMagicEndsTheDialogue) {
  EXPECT_EQ(run({}, 4, std::string(PACK_SIZE, 'j')), sound() ? -3 : 0);
  EXPECT_EQ(said, "ERROR:  Bad magic 6a6a6a6ai\n");
}

TEST_P(Handshake, ASenderThatClosesIsAnError) {
  EXPECT_EQ(run({file("/a", "aa")}, 4, ""), -2);
  EXPECT_NE(said.find("ERROR:  Can't read servers response to Next\n"), std::string::npos);
  EXPECT_EQ(readFile(root + "/a"), "aa");
}

TEST_P(Handshake, AHeaderThatComesInPiecesIsPutTogether) {
  net::Timeouts kept = net::timeouts;
  net::timeouts.streamMs = 20;
  stallMs = 100;
  EXPECT_EQ(run({file("/a", "aa"), file("/b", "bb")}), 0) << said;
  net::timeouts = kept;
  EXPECT_EQ(readFile(root + "/a"), "aa");
  EXPECT_EQ(readFile(root + "/b"), "bb");
}

TEST_P(Handshake, WhatIsNotWantedIsNotAskedFor) {
  writeFile(root + "/a", "kept");
  EXPECT_EQ(run({file("/a", "aa"), file("/b", "bb")}, 1), 0);
  EXPECT_EQ(asked, "Next\nNext\nGet\nNext\n");
  EXPECT_EQ(said, "ERROR:  Restore path is null!\n");
  EXPECT_EQ(readFile(root + "/a"), "kept");
}

TEST_P(Handshake, WholeMegabytesArriveWithAndWithoutTheLastHeader) {
  for (bool trailing : {true, false}) {
    for (size_t size : {size_t{PACK_CHUNK}, size_t{2} * PACK_CHUNK, size_t{3} * PACK_CHUNK}) {
      EXPECT_EQ(run({file("/f", pattern(size), trailing), file("/g", "behind it"),
                     file("/h", pattern(size, 7), trailing)}),
                0)
          << trailing << size;
      EXPECT_EQ(readFile(root + "/f"), pattern(size));
      EXPECT_EQ(readFile(root + "/g"), "behind it");
      EXPECT_EQ(readFile(root + "/h"), pattern(size, 7));
    }
  }
}

TEST_P(Handshake, TheLastHeaderBelongsToAFileAlsoAtTheEndOfTheList) {
  for (bool trailing : {true, false}) {
    EXPECT_EQ(run({file("/f", pattern(PACK_CHUNK), trailing)}), 0) << trailing;
    EXPECT_EQ(readFile(root + "/f"), pattern(PACK_CHUNK));
  }
}

TEST_P(Handshake, ALaterFileOfTheSameNameIsNoTrailingHeader) {
  EXPECT_EQ(run({file("/f", pattern(PACK_CHUNK), false), file("/f", "second")}), 0);
  EXPECT_EQ(readFile(root + "/f"), "second");
}

TEST_P(Handshake, AFileThatFailsEndsTheDialogueInClassicOnly) {
  std::filesystem::create_directories(root + "/a/b");
  EXPECT_EQ(run({file("/a", "aa"), file("/b", "bb")}), -4);
  EXPECT_NE(said.find("ERROR:  Got error from getFilefromStream.  retval = -3\n"),
            std::string::npos)
      << said;
  EXPECT_EQ(readFile(root + "/b"), sound() ? "bb" : "");
  EXPECT_EQ(asked.find("Failed -3 ") != std::string::npos, sound()) << asked;
}

TEST_P(Handshake, KeepBothNumbersTheCopies) {
  writeFile(root + "/a", "0");
  writeFile(root + "/a.0", "1");
  EXPECT_EQ(run({file("/a", "new")}, 0), 0);
  EXPECT_EQ(readFile(root + "/a.1"), "new");
}

TEST_P(Handshake, KeepBothDoesNotLitterDirectoriesUnderSound) {
  mkdir((root + "/d").c_str(), 0755);
  EXPECT_EQ(run({{headerOf("/d/", 1), ""}}, 0), 0);
  EXPECT_EQ(exists(root + "/d/.0"), !sound());
}

TEST_P(Handshake, ALaterSegmentWithoutItsBeginningHasNoPath) {
  EXPECT_EQ(run({{headerOf("/a", 0, PACK_CHUNK + 1, 1), "x"}}), sound() ? -3 : 0);
  EXPECT_EQ(asked, sound() ? "Next\n" : "Next\nNext\n");
  EXPECT_FALSE(exists(root + "/a"));
}

TEST_P(Handshake, LongPathsAreNoFilesAndDoNotOverflow) {
  root = path("dest") + "/" + std::string(256 - path("dest").size() - 1, 'r');
  std::string name = "/" + std::string(255, 'n');
  EXPECT_EQ(run({file(name, "x"), file("/short", "y")}), 0);
  EXPECT_EQ(readFile(root + name), "x");
  // Cut to what fits it would be another folder.
  root += "r";
  EXPECT_EQ(run({file("/short", "z")}), sound() ? -4 : 0);
  EXPECT_EQ(asked.find("Get"), std::string::npos);
}

TEST_P(Handshake, AReceiverDoesNotWaitForEver) {
  // Nobody connects, and the console's peer is gone: under "sound" that frees the port at once.
  if (!sound()) return;
  int status = support::inChild([&] {
    int port = 0;
    base::Fd listening(support::listenOn(port));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    int asking = socket(AF_INET, SOCK_STREAM, 0);
    if (connect(asking, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) return 97;
    dup2(accept(listening.get(), nullptr, nullptr), 0);
    int data = 0;
    int listener = support::listenOn(data);
    close(asking);
    return repHandShk(listener, root.data(), 4) == -1 ? 0 : 1;
  });
  EXPECT_EQ(support::exitOf(status), 0);
}

class SoundHandshake : public Handshake {};
INSTANTIATE_TEST_SUITE_P(, SoundHandshake, testing::Values("sound"));

TEST_P(SoundHandshake, NothingLeavesTheRoot) {
  mkdir(path("outside").c_str(), 0755);
  writeFile(path("outside/f"), "precious");
  ASSERT_EQ(symlink(path("outside").c_str(), (root + "/link").c_str()), 0);
  ASSERT_EQ(symlink(path("outside/f").c_str(), (root + "/f").c_str()), 0);
  EXPECT_EQ(run({file("/../outside/f", "new"), file("/link/g", "new"), file("/f", "new"),
                 file("/x/../../y", "new"), file("/fine", "fine")}),
            -4);
  EXPECT_EQ(readFile(path("outside/f")), "precious");
  EXPECT_FALSE(exists(path("outside/g")));
  EXPECT_FALSE(exists(path("y")));
  EXPECT_EQ(readFile(root + "/f"), "new");
  EXPECT_EQ(readFile(root + "/fine"), "fine");
  EXPECT_EQ(repltest::count(asked, "Failed -13 a name that leads outside: "), 2) << asked;
}

TEST_P(SoundHandshake, ADestinationThatCannotBeIsSaidForEveryFile) {
  writeFile(path("file"), "in the way");
  root = path("file");
  EXPECT_EQ(run({file("/a", "aa"), file("/b", "bb")}), -4);
  EXPECT_EQ(repltest::count(asked, "Failed "), 2) << asked;
  EXPECT_EQ(readFile(path("file")), "in the way");
}

TEST_P(SoundHandshake, DirectoriesKeepTheirTimesAlthoughTheyAreFilled) {
  EXPECT_EQ(run({{headerOf("/d/", 1), ""},
                 file("/d/f", "x"),
                 {headerOf("/d/e/", 1), ""},
                 file("/d/e/f", "x")}),
            0);
  EXPECT_EQ(statOf(root + "/d").st_mtime, 1000000000);
  EXPECT_EQ(statOf(root + "/d/e").st_mtime, 1000000000);
  EXPECT_EQ(statOf(root + "/d").st_mode & 07777, 0750u);
}

TEST_P(SoundHandshake, ALinkToADirectoryServesAsThatDirectoryWhateverTheConflictMode) {
  std::filesystem::create_directories(root + "/usr/lib");
  ASSERT_EQ(symlink("usr/lib", (root + "/lib").c_str()), 0);
  for (int conflict : {0, 1, 2, 4, 8}) {
    std::string name = "/lib/" + std::to_string(conflict);
    EXPECT_EQ(run({{headerOf("/lib/", 1), ""}, file(name, "x")}, conflict), 0) << said;
    EXPECT_EQ(readFile(root + "/usr" + name), "x") << conflict;
    EXPECT_EQ(linkAt(root + "/lib"), "usr/lib");
  }
}

TEST_P(SoundHandshake, WholeMegabytesThatCannotBeMadeCostOnlyThemselves) {
  std::filesystem::create_directories(root + "/f/full");
  for (bool trailing : {true, false}) {
    EXPECT_EQ(run({file("/f", pattern(2 * PACK_CHUNK), trailing), file("/g", "behind it")}), -4);
    EXPECT_EQ(readFile(root + "/g"), "behind it");
    unlink((root + "/g").c_str());
  }
}

// The number of a process that has ended.
pid_t pidOfTheDead() {
  pid_t pid = fork();
  if (pid == 0) _exit(0);
  waitpid(pid, nullptr, 0);
  return pid;
}

TEST_P(SoundHandshake, PartsOfReceiversThatWereKilledGoWithTheNextRun) {
  for (int conflict : {4, 1}) {  // the folder is made anew, or kept as it is
    mkdir((root + "/d").c_str(), 0755);
    std::string begin = root + "/d/.zulpart.";
    std::string file = begin + std::to_string(pidOfTheDead());
    std::string link = begin + std::to_string(pidOfTheDead());
    std::string written = begin + std::to_string(pidOfTheDead());
    std::string foreign = begin + std::to_string(pidOfTheDead());
    std::string living = begin + std::to_string(getppid()), other = begin + "1x";
    for (const std::string &part : {file, written, foreign, living, other}) {
      writeFile(part, "half of it");
      chmod(part.c_str(), part == foreign ? 0644 : 0600);
    }
    ASSERT_EQ(symlink("nowhere", link.c_str()), 0);
    // Of a receiver in another container, say: its number means nothing here.
    base::Fd lock(open(written.c_str(), O_WRONLY));
    ASSERT_EQ(flock(lock.get(), LOCK_EX), 0);
    timespec then[2] = {{5, 0}, {5, 0}};
    utimensat(AT_FDCWD, (root + "/d").c_str(), then, 0);
    EXPECT_EQ(run({{headerOf("/d/", 1), ""}}, conflict), 0);
    EXPECT_FALSE(exists(file));
    struct stat gone;
    EXPECT_NE(lstat(link.c_str(), &gone), 0);
    for (const std::string &part : {written, foreign, living, other}) EXPECT_TRUE(exists(part));
    EXPECT_EQ(statOf(root + "/d").st_mtime, conflict == 4 ? 1000000000 : 5);
    std::filesystem::remove_all(root + "/d");
  }
}

TEST_P(SoundHandshake, APartLeftInTheRootGoesToo) {
  std::string part = root + "/.zulpart." + std::to_string(pidOfTheDead());
  writeFile(part, "half of it");
  chmod(part.c_str(), 0600);
  EXPECT_EQ(run({file("/f", "x")}), 0);
  EXPECT_FALSE(exists(part));
}

TEST_P(SoundHandshake, ASecondRunMendsWhatDiffersAndNothingElse) {
  std::vector<Offer> files = {{headerOf("/d/", 1), ""}, file("/d/f", "x"), file("/d/g", "y")};
  EXPECT_EQ(run(files, 2), 0);
  timespec now[2] = {{5, 0}, {5, 0}};
  utimensat(AT_FDCWD, (root + "/d/g").c_str(), now, 0);
  EXPECT_EQ(run(files, 2), 0);
  EXPECT_EQ(asked, "Next\nNext\nNext\nGet\nNext\n");
  EXPECT_EQ(statOf(root + "/d/g").st_mtime, 1000000000);
  EXPECT_EQ(statOf(root + "/d").st_mtime, 1000000000);
}

}  // namespace
