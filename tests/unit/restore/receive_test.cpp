// The restore agent: what it asks for, where files go, what is said when one cannot be made.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zul/net.h>
#include <zul/replication.h>
#include <zul/tape.h>

#include <filesystem>
#include <thread>
#include <vector>

#include "base/pause.h"
#include "net/timeouts.h"
#include "replication/target.h"
#include "support.h"

using support::captureStderr;
using support::exists;
using support::readFile;
using support::writeFile;

namespace {

package headerOf(const std::string &name, uint8_t type, uint64_t size = 0, int sequence = 0) {
  package header{};
  header.magic = PACK_MAGIC;
  header.type = type;
  snprintf(header.filename, sizeof header.filename, "%s", name.c_str());
  header.usrid = getuid();
  header.grpid = getgid();
  header.mode = (type == 1 ? S_IFDIR | 0750 : S_IFREG | 0640);
  header.mtime = 1000000000;
  header.atime = 1000000001;
  header.size = size;
  header.sequence = sequence;
  snprintf(header.fromhost, sizeof header.fromhost, "h1");
  return header;
}

struct stat statOf(const std::string &path) {
  struct stat status {};
  EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
  return status;
}

class Receive : public support::HomeTest, public ::testing::WithParamInterface<const char *> {
 protected:
  void SetUp() override {
    HomeTest::SetUp();
    if (GetParam()) site(std::string("behaviour = ") + GetParam() + "\npause.receiver-ready = 0\n");
    root = path("dest");
    mkdir(root.c_str(), 0755);
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    target::begin(root.c_str());
  }
  void TearDown() override {
    target::end();
    close(pair[0]);
    close(pair[1]);
    HomeTest::TearDown();
  }
  // Feeds data and has one segment taken.
  int take(package header, const std::string &data, const std::string &at) {
    std::thread feeder([&] { (void)!write(pair[1], data.data(), data.size()); });
    int result = 0;
    std::string file = root + at;
    said = captureStderr([&] { result = getFilefromStream2(pair[0], &header, file.data()); });
    feeder.join();
    return result;
  }
  bool sound() const { return GetParam() && strcmp(GetParam(), "sound") == 0; }
  std::string root, said;
  int pair[2];
};

INSTANTIATE_TEST_SUITE_P(BothBehaviours, Receive, ::testing::Values("classic", "sound"));

TEST_P(Receive, AFileGetsContentOwnerModeAndTimes) {
  EXPECT_EQ(take(headerOf("/a/f", 0, 5), "hello", "/a/f"), 0);
  struct stat status = statOf(root + "/a/f");  // before reading it changes the access time
  EXPECT_EQ(readFile(root + "/a/f"), "hello");
  EXPECT_EQ(status.st_mode & 07777, 0640u);
  EXPECT_EQ(status.st_mtime, 1000000000);
  EXPECT_EQ(status.st_atime, 1000000001);
  EXPECT_EQ(statOf(root + "/a").st_mode & 0777, 0755u);
}

TEST_P(Receive, SegmentsOfOneFileAreJoined) {
  std::string first(PACK_CHUNK, 'a'), second(1000, 'b');
  uint64_t size = first.size() + second.size();
  EXPECT_EQ(take(headerOf("/f", 0, size, 0), first, "/f"), 0);
  EXPECT_EQ(take(headerOf("/f", 0, size, 1), second, "/f"), 0);
  EXPECT_EQ(readFile(root + "/f"), first + second);
  EXPECT_EQ(statOf(root + "/f").st_mtime, 1000000000);
}

TEST_P(Receive, AFileOfAFullMegabyteHasOneMoreEmptySegment) {
  std::string data(PACK_CHUNK, 'x');
  EXPECT_EQ(take(headerOf("/f", 0, data.size(), 0), data, "/f"), 0);
  EXPECT_EQ(take(headerOf("/f", 0, data.size(), 1), "", "/f"), 0);
  EXPECT_EQ(readFile(root + "/f"), data);
}

TEST_P(Receive, AnEmptySegmentWithoutItsFileIsAFailureInClassicOnly) {
  EXPECT_EQ(take(headerOf("/f", 0, PACK_CHUNK, 1), "", "/f"), sound() ? 0 : -3);
  EXPECT_EQ(said.find("ERROR:  Cannot open ") == 0, !sound()) << said;
  EXPECT_FALSE(std::filesystem::exists(root + "/f"));
}

TEST_P(Receive, AnEmptyFileIsMade) {
  EXPECT_EQ(take(headerOf("/f", 0, 0), "", "/f"), 0);
  EXPECT_EQ(statOf(root + "/f").st_size, 0);
}

TEST_P(Receive, SizesAroundTheBlocks) {
  for (size_t size : {1u, 511u, 512u, 513u, 8191u, 8192u, 8193u, 1048575u}) {
    std::string data(size, 'q');
    EXPECT_EQ(take(headerOf("/f", 0, size), data, "/f"), 0) << size;
    EXPECT_EQ(readFile(root + "/f"), data) << size;
  }
}

TEST_P(Receive, DirectoriesAreMadeWithTheirParents) {
  EXPECT_EQ(take(headerOf("/d/e/", 1), "", "/d/e/"), 0);
  EXPECT_EQ(take(headerOf("/d/e/f", 0, 1), "x", "/d/e/f"), 0);
  target::end();
  struct stat status = statOf(root + "/d/e");
  EXPECT_EQ(status.st_mode & 0777, 0750u & ~(sound() ? 0u : 022u));
  // Classic sets the times before the contents come; only the remedy keeps them.
  if (sound()) {
    EXPECT_EQ(status.st_mtime, 1000000000);
  }
}

TEST_P(Receive, ADirectoryOverAFileIsRefused) {
  writeFile(root + "/d", "file");
  EXPECT_EQ(take(headerOf("/d", 1), "", "/d"), -2);
  EXPECT_EQ(said, "");
  EXPECT_EQ(readFile(root + "/d"), "file");
}

TEST_P(Receive, AFileOverADirectoryIsRefused) {
  mkdir((root + "/f").c_str(), 0755);
  EXPECT_NE(take(headerOf("/f", 0, 3), "abc", "/f"), 0);
  EXPECT_TRUE(S_ISDIR(statOf(root + "/f").st_mode));
}

TEST_P(Receive, LinksAreMade) {
  package header = headerOf("/l", 2, 5);
  EXPECT_EQ(take(header, std::string("/tmp\0", 5), "/l"), 0);
  char text[64] = "";
  ASSERT_EQ(readlink((root + "/l").c_str(), text, sizeof text), 4);
  EXPECT_STREQ(text, "/tmp");
}

TEST_P(Receive, AnExistingLinkIsKeptInClassicAndReplacedUnderSound) {
  ASSERT_EQ(symlink("/old", (root + "/l").c_str()), 0);
  EXPECT_EQ(take(headerOf("/l", 2, 5), std::string("/tmp\0", 5), "/l"), 0);
  char text[64] = "";
  (void)!readlink((root + "/l").c_str(), text, sizeof text);
  EXPECT_STREQ(text, sound() ? "/tmp" : "/old");
  EXPECT_EQ(said, sound() ? "" : "WARNING:  Cannot create link\n");
}

TEST_P(Receive, ALinkWhoseLengthDisagreesIsRefused) {
  EXPECT_EQ(take(headerOf("/l", 2, 6), std::string("/t\0mp\0", 6), "/l"), -1);
  EXPECT_EQ(said, "ERROR:  Stream read error.  Got: /t.  Of length 2, expected 6\n");
}

TEST_P(Receive, AStreamThatEndsInsideAFileIsAnError) {
  package header = headerOf("/f", 0, 100);
  (void)!write(pair[1], "short", 5);
  close(pair[1]);
  std::string file = root + "/f";
  captureStderr([&] { EXPECT_EQ(getFilefromStream2(pair[0], &header, file.data()), -4); });
  pair[1] = open("/dev/null", O_RDONLY);
}

TEST_P(Receive, ALinkInTheWayOfAFileIsFollowedInClassicOnly) {
  writeFile(path("outside"), "precious");
  ASSERT_EQ(symlink(path("outside").c_str(), (root + "/f").c_str()), 0);
  EXPECT_EQ(take(headerOf("/f", 0, 3), "new", "/f"), 0);
  EXPECT_EQ(readFile(path("outside")), sound() ? "precious" : "new");
  EXPECT_EQ(readFile(root + "/f"), "new");
}

TEST_P(Receive, DevicesAndTheVanishedCreateNothing) {
  for (uint8_t type : {3, 4, 5}) {
    EXPECT_EQ(take(headerOf("/n", type), "", "/n"), 0);
    EXPECT_FALSE(exists(root + "/n"));
  }
}

TEST_P(Receive, OtherKindsSetTheTimesOfWhatIsThereInClassicOnly) {
  writeFile(root + "/n", "there");
  EXPECT_EQ(take(headerOf("/n", 5), "", "/n"), 0);
  EXPECT_EQ(statOf(root + "/n").st_mtime == 1000000000, !sound());
  EXPECT_EQ(take(headerOf("/none", 5), "", "/none"), 0);
  EXPECT_EQ(said, sound() ? "" : "Warning cannot set file time \n");
}

class SoundReceive : public Receive {};
INSTANTIATE_TEST_SUITE_P(Sound, SoundReceive, ::testing::Values("sound"));

TEST_P(SoundReceive, ALinkedParentThatLeadsOutsideTakesNothingThere) {
  mkdir(path("elsewhere").c_str(), 0755);
  ASSERT_EQ(symlink(path("elsewhere").c_str(), (root + "/d").c_str()), 0);
  take(headerOf("/d/f", 0, 3), "new", "/d/f");
  EXPECT_FALSE(exists(path("elsewhere/f")));
}

TEST_P(SoundReceive, ALinkThatTookTheDirectorysPlaceKeepsItsTargetAsItWas) {
  mkdir(path("elsewhere").c_str(), 0700);
  EXPECT_EQ(take(headerOf("/d/", 1), "", "/d/"), 0);
  ASSERT_EQ(rmdir((root + "/d").c_str()), 0);
  ASSERT_EQ(symlink(path("elsewhere").c_str(), (root + "/d").c_str()), 0);
  std::string told = captureStderr([] { EXPECT_FALSE(target::end()); });
  EXPECT_NE(told.find("ERROR:  Permissions or times of directory "), std::string::npos);
  EXPECT_EQ(statOf(path("elsewhere")).st_mode & 07777, 0700u);
}

TEST_P(SoundReceive, AFileThatCannotBeWrittenLeavesTheOldOneWhole) {
  writeFile(root + "/f", "old content");
  package header = headerOf("/f", 0, 2 * PACK_CHUNK);
  EXPECT_EQ(take(header, std::string(PACK_CHUNK, 'x'), "/f"), 0);
  EXPECT_EQ(readFile(root + "/f"), "old content");
  EXPECT_FALSE(target::end()) << "an unfinished file must be told";
  EXPECT_EQ(readFile(root + "/f"), "old content");
  EXPECT_FALSE(exists(root + "/.zulpart"));
}

TEST_P(SoundReceive, TheRestOfAFileWhoseBeginningIsMissingIsRefusedAndDrained) {
  EXPECT_EQ(take(headerOf("/f", 0, 2 * PACK_CHUNK, 1), std::string(PACK_CHUNK, 'x'), "/f"),
            target::kUnfinished);
  EXPECT_FALSE(exists(root + "/f"));
}

class WantFile : public support::HomeTest {
 protected:
  // The path a header gets below root(), or "" when it is not wanted.
  std::string placed(const char *name, int conflict, uint64_t mtime = 100, uint8_t type = 0) {
    package header = headerOf(name, type);
    header.mtime = mtime;
    char chosen[256] = "untouched";
    std::string root = path("dest");
    int result = wantFile(&header, root.data(), conflict, chosen);
    EXPECT_EQ(result, chosen[0] ? 0 : -1);
    return chosen[0] ? std::string(chosen).substr(root.size()) : "";
  }
  void make(const char *name, time_t mtime = 50) {
    mkdir(path("dest").c_str(), 0755);
    writeFile(path(std::string("dest") + name), "x");
    timespec times[2] = {{mtime, 0}, {mtime, 0}};
    utimensat(AT_FDCWD, path(std::string("dest") + name).c_str(), times, 0);
  }
};

TEST_F(WantFile, WhatIsNotThereIsWanted) {
  EXPECT_EQ(placed("/a", 1), "/a");
}

TEST_F(WantFile, KeepBothTakesTheFirstFreeNumber) {
  make("/a");
  make("/a.0");
  EXPECT_EQ(placed("/a", 0), "/a.1");
}

TEST_F(WantFile, KeepBothEndsAfter256Copies) {
  make("/a");
  for (int copy = 0; copy < 256; copy++) make(("/a." + std::to_string(copy)).c_str());
  EXPECT_EQ(placed("/a", 0), "");
}

TEST_F(WantFile, DirectoriesAreCopiedInClassicAndKeptUnderSound) {
  mkdir(path("dest").c_str(), 0755);
  mkdir(path("dest/d").c_str(), 0755);
  EXPECT_EQ(placed("/d/", 0, 100, 1), "/d/.0");
  soundSite();
  EXPECT_EQ(placed("/d/", 0, 100, 1), "");
}

TEST_F(WantFile, ReplacesByTime) {
  make("/a", 50);
  EXPECT_EQ(placed("/a", 2, 50), "");
  EXPECT_EQ(placed("/a", 2, 49), "/a");
  EXPECT_EQ(placed("/a", 8, 50), "");
  EXPECT_EQ(placed("/a", 8, 51), "/a");
  EXPECT_EQ(placed("/a", 4, 1), "/a");
  EXPECT_EQ(placed("/a", 1, 999), "");
}

TEST_F(WantFile, ANameThatDoesNotFitIsNoFile) {
  EXPECT_EQ(placed(("/" + std::string(255, 'n')).c_str(), 4), "");
}

TEST_F(WantFile, ANameThatClimbsOutIsRefusedUnderSound) {
  EXPECT_EQ(placed("/../x", 4), "/../x");
  soundSite();
  for (const char *name : {"/../x", "..", "/a/..", "/a/../../b"})
    EXPECT_EQ(placed(name, 4), "") << name;
  for (const char *name : {"/..x", "/x..", "/a/..."}) EXPECT_EQ(placed(name, 4), name);
}

// Plays the tape host on a socket of its own: answers every "Next" with the next header, every
// "Get" with data.
struct Played {
  package header;
  std::string data;
};

class Agent : public support::HomeTest {
 protected:
  void SetUp() override {
    HomeTest::SetUp();
    mkdir(path("dest").c_str(), 0755);
  }
  int run(const std::vector<Played> &files, int conflict, const std::string &lastHeader = "") {
    int port = 0;
    int listener = support::listenOn(port);
    std::thread host([&] { play(port, files, lastHeader); });
    int result = 0;
    std::string root = path("dest");
    said = captureStderr([&] { result = restHandShk(listener, root.data(), conflict); });
    host.join();
    return result;
  }
  void play(int port, const std::vector<Played> &files, const std::string &lastHeader) {
    sd = support::dial(port);
    size_t at = 0;
    char line[512];
    for (;;) {
      ssize_t got = readnline(sd, line, sizeof line);
      if (got <= 0) break;
      asked += line;
      if (strncmp(line, "Next", 4) == 0) {
        char raw[PACK_SIZE] = {};
        if (at < files.size()) {
          package header = files[at++].header;
          packPackage(raw, &header);
        } else if (!lastHeader.empty()) {
          memcpy(raw, lastHeader.data(), lastHeader.size());
        } else {
          package end{};
          end.magic = PACK_EOL_MAGIC;
          packPackage(raw, &end);
        }
        size_t part = stallMs > 0 ? sizeof raw / 3 : 0;
        writen(sd, raw, part);
        base::sleepMs(stallMs);
        writen(sd, raw + part, sizeof raw - part);
      } else if (strncmp(line, "Get", 3) == 0) {
        writen(sd, files[at - 1].data.data(), files[at - 1].data.size());
      }
    }
    close(sd);
  }
  int sd = -1;
  int stallMs = 0;  // in the middle of a header
  std::string asked, said;
};

TEST_F(Agent, AsksForEveryFileAndEndsWithTheList) {
  site("behaviour = classic\npause.receiver-ready = 0\n");
  EXPECT_EQ(run({{headerOf("/a", 0, 2), "aa"}, {headerOf("/b", 0, 0), ""}}, 4), 0);
  EXPECT_EQ(asked, "Next\nGet\nNext\nGet\nNext\n");
  EXPECT_EQ(readFile(path("dest/a")), "aa");
  EXPECT_TRUE(exists(path("dest/b")));
}

TEST_F(Agent, AHeaderThatComesInPiecesIsPutTogether) {
  site("pause.receiver-ready = 0\n");
  net::Timeouts kept = net::timeouts;
  net::timeouts.streamMs = 20;
  stallMs = 100;
  EXPECT_EQ(run({{headerOf("/a", 0, 0), ""}, {headerOf("/b", 0, 0), ""}}, 4), 0) << said;
  net::timeouts = kept;
  EXPECT_EQ(asked, "Next\nGet\nNext\nGet\nNext\n");
  EXPECT_TRUE(exists(path("dest/a")));
}

TEST_F(Agent, WaitsBeforeItsFirstQuestionInClassic) {
  site("behaviour = classic\npause.receiver-ready = 150\n");
  auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(run({}, 4), 0);
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(150));
}

TEST_F(Agent, DoesNotAskForWhatIsNotWanted) {
  site("pause.receiver-ready = 0\n");
  writeFile(path("dest/a"), "kept");
  EXPECT_EQ(run({{headerOf("/a", 0, 2), "aa"}}, 1), 0);
  EXPECT_EQ(asked, "Next\nNext\n");
  EXPECT_EQ(said, "ERROR:  Restore path is null!\n");
  EXPECT_EQ(readFile(path("dest/a")), "kept");
}

TEST_F(Agent, SegmentsKeepThePathOfTheirFirst) {
  site("pause.receiver-ready = 0\n");
  writeFile(path("dest/f"), "old");
  std::string first(PACK_CHUNK, '1'), second(7, '2');
  uint64_t size = PACK_CHUNK + 7;
  EXPECT_EQ(run({{headerOf("/f", 0, size, 0), first}, {headerOf("/f", 0, size, 1), second}}, 0), 0);
  EXPECT_EQ(readFile(path("dest/f.0")), first + second);
  EXPECT_EQ(readFile(path("dest/f")), "old");
}

TEST_F(Agent, ABadMagicIsShownWithItsBytes) {
  site("pause.receiver-ready = 0\n");
  EXPECT_EQ(run({}, 4, std::string(520, 'j')), 0);
  EXPECT_EQ(said, "ERROR:  Bad magic 6a6a6a6ai\nRaw header:" + std::string(520, 'j'));
  site("behaviour.receive = sound\npause.receiver-ready = 0\n");
  EXPECT_EQ(run({}, 4, std::string(520, 'j')), -3);
}

TEST_F(Agent, AFileThatCannotBeMadeEndsTheDialogueInClassic) {
  site("pause.receiver-ready = 0\n");
  mkdir(path("dest/a").c_str(), 0755);
  EXPECT_EQ(run({{headerOf("/a", 0, 2), "aa"}, {headerOf("/b", 0, 1), "b"}}, 4), -4);
  EXPECT_NE(said.find("ERROR:  Got error from getFilefromStream2.  retval = -3\n"),
            std::string::npos);
  EXPECT_FALSE(exists(path("dest/b")));
}

TEST_F(Agent, AFileThatCannotBeMadeCostsOnlyItselfUnderSound) {
  site("behaviour = sound\nbehaviour.security = classic\n");
  mkdir(path("dest/a").c_str(), 0755);
  EXPECT_EQ(run({{headerOf("/a", 0, 2), "aa"}, {headerOf("/b", 0, 1), "b"}}, 4), -4);
  EXPECT_EQ(readFile(path("dest/b")), "b");
  EXPECT_NE(asked.find("Failed -3 "), std::string::npos);
}

TEST_F(Agent, AParentThatCannotBeMadeCostsOnlyItsFileUnderSound) {
  site("behaviour = sound\nbehaviour.security = classic\n");
  writeFile(path("dest/d"), "a file");
  EXPECT_EQ(
      run({{headerOf("/d/a", 0, 2), "aa"}, {headerOf("/d/e/", 1), ""}, {headerOf("/b", 0, 1), "b"}},
          4),
      -4);
  EXPECT_EQ(readFile(path("dest/b")), "b");
  EXPECT_EQ(readFile(path("dest/d")), "a file");
  EXPECT_NE(asked.find("Failed -4 "), std::string::npos);
}

TEST_F(Agent, ANameThatClimbsOutIsToldAsAFailureUnderSound) {
  site("behaviour = sound\nbehaviour.security = classic\n");
  EXPECT_EQ(run({{headerOf("/../b", 0, 1), "x"}, {headerOf("/b", 0, 1), "b"}}, 4), -4);
  EXPECT_EQ(
      asked,
      "Next\nFailed -13 a name that leads outside: /../b: Invalid argument\nNext\nGet\nNext\n");
  EXPECT_FALSE(exists(path("b")));
}

TEST_F(Agent, PackagesThatDoNotFollowEachOtherMakeNoFileUnderSound) {
  site("behaviour = sound\nbehaviour.security = classic\n");
  std::string mib(PACK_CHUNK, 'm');
  uint64_t size = 2 * PACK_CHUNK + 1;
  writeFile(path("dest/f"), "precious");
  // The second package is missing; then one of another file comes behind a first one.
  EXPECT_EQ(run({{headerOf("/f", 0, size, 0), mib}, {headerOf("/f", 0, size, 2), "x"}}, 4), -4);
  EXPECT_EQ(readFile(path("dest/f")), "precious");
  EXPECT_EQ(run({{headerOf("/f", 0, size, 0), mib}, {headerOf("/g", 0, size, 1), mib}}, 4), -4);
  EXPECT_EQ(readFile(path("dest/f")), "precious");
  EXPECT_NE(asked.find("a part is missing of"), std::string::npos);
}

TEST_F(Agent, AFileCanHaveTheNameOfAPart) {
  site("behaviour = sound\nbehaviour.security = classic\n");
  EXPECT_EQ(run({{headerOf("/.zulpart", 0, 1), "p"}, {headerOf("/b", 0, 1), "b"}}, 4), 0);
  EXPECT_EQ(readFile(path("dest/.zulpart")), "p");
}

TEST_F(Agent, WhatIsThereIsLookedAtBeneathTheRootUnderSound) {
  site("behaviour = sound\nbehaviour.security = classic\n");
  // Beneath the root this link leads to a folder of the root, where there is no such file.
  writeFile(path("f"), "outside");
  std::filesystem::create_directories(path("dest" + home));
  ASSERT_EQ(symlink(home.c_str(), path("dest/d").c_str()), 0);
  EXPECT_EQ(run({{headerOf("/d/f", 0, 3), "new"}}, 1), 0);
  EXPECT_EQ(readFile(path("f")), "outside");
  EXPECT_EQ(readFile(path("dest" + home + "/f")), "new");
}

TEST_F(Agent, AFullDiskCostsTheFileAndSaysSoUnderSound) {
  site("behaviour = sound\nbehaviour.security = classic\n");
  int status = support::inChild([&] {
    rlimit limit{4096, 4096};
    signal(SIGXFSZ, SIG_IGN);
    setrlimit(RLIMIT_FSIZE, &limit);
    int result =
        run({{headerOf("/a", 0, 9000), std::string(9000, 'a')}, {headerOf("/b", 0, 1), "b"}}, 4);
    bool good = result == -4 && !exists(path("dest/a")) && readFile(path("dest/b")) == "b" &&
                asked.find("Failed -11 ") != std::string::npos;
    return good ? 0 : 1;
  });
  EXPECT_EQ(support::exitOf(status), 0);
}

TEST_F(Agent, ATapeHostThatIsGoneIsAnError) {
  site("pause.receiver-ready = 0\n");
  int port = 0;
  int listener = support::listenOn(port);
  std::thread host([&] {
    sd = support::dial(port);
    close(sd);
  });
  std::string root = path("dest");
  captureStderr([&] {
    int result = restHandShk(listener, root.data(), 4);
    EXPECT_TRUE(result == -1 || result == -2) << result;
  });
  host.join();
}

}  // namespace
