// One file on the stream: what is framed how, and what becomes of files that are not what they
// were.
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/time.h>
#include <unistd.h>
#include <zul/tape.h>

#include <thread>

#include "base/alarm.h"
#include "base/pause.h"
#include "base/process.h"
#include "net/gatherer.h"
#include "netsupport.h"

namespace {

using netsupport::Framed;
using netsupport::Pair;
using support::pattern;

class SendFile : public netsupport::NetTest {
 protected:
  void TearDown() override {
    base::setAlarmTimer(0);
    NetTest::TearDown();
  }
  std::string make(const std::string &content) {
    std::string file = path("tmp/file");
    support::writeFile(file, content, 0640);
    return file;
  }
  // Everything sendFile sends, and its result.
  std::string sent(std::string file, int repmode = 0, std::vector<std::string> transforms = {}) {
    std::vector<char *> table;
    for (std::string &text : transforms) table.push_back(text.data());
    table.resize(table.size() + 2, nullptr);
    Pair pair;
    std::string seen;
    std::thread reader([&] { seen = netsupport::readAll(pair.far.get()); });
    result = sendFile(repmode, pair.near.get(), file.data(), table.data());
    pair.near.reset();
    reader.join();
    return seen;
  }
  long result = 0;
};

// Each test of what does not differ runs in both behaviours.
class SendFileBoth : public SendFile, public testing::WithParamInterface<const char *> {
 protected:
  void SetUp() override {
    SendFile::SetUp();
    site(std::string("behaviour = ") + GetParam() + "\n");
  }
  void expectFramed(size_t size) {
    std::string content = pattern(size);
    std::string stream = sent(make(content));
    size_t headers = size / PACK_CHUNK + 1;
    ASSERT_EQ(stream.size(), size + headers * PACK_SIZE) << size;
    EXPECT_EQ(result, static_cast<long>(stream.size()));
    std::string first = stream.substr(0, PACK_SIZE), seen;
    for (size_t number = 0, at = 0; number < headers; number++) {
      std::string head = stream.substr(at, PACK_SIZE);
      package header = netsupport::unpacked(head);
      EXPECT_EQ(header.sequence, static_cast<int>(number));
      EXPECT_EQ(header.size, size);
      // A repeated header differs in its number alone, which stands in two places.
      first.replace(288, 4, head.substr(288, 4));
      first.replace(304, 4, head.substr(304, 4));
      EXPECT_TRUE(head == first);
      seen += stream.substr(at + PACK_SIZE, PACK_CHUNK);
      at += PACK_SIZE + PACK_CHUNK;
    }
    EXPECT_TRUE(seen == content);
  }
};
INSTANTIATE_TEST_SUITE_P(, SendFileBoth, testing::Values("classic", "sound"),
                         [](const auto &given) { return std::string(given.param); });

TEST_P(SendFileBoth, FramesRegularFilesByTheMegabyte) {
  for (size_t size : {0, 1, 8191, 8192, 8193, 16384, 262143, 262144, 262145, 1048575, 1048576,
                      1048577, 1056768, 2097151, 2097152, 3145728, 3333333})
    expectFramed(size);
  EXPECT_EQ(statusLog(), "");
}

TEST_P(SendFileBoth, HeadersTellWhatTheFileIs) {
  std::string file = make("hello");
  timeval times[2] = {{1000000000, 0}, {1111111111, 0}};
  utimes(file.c_str(), times);
  package header = netsupport::unpacked(sent(file).substr(0, PACK_SIZE));
  EXPECT_EQ(header.magic, PACK_MAGIC);
  EXPECT_EQ(header.type, 0);
  EXPECT_EQ(netsupport::name(header), file);
  EXPECT_EQ(header.usrid, geteuid());
  EXPECT_EQ(header.grpid, getegid());
  EXPECT_EQ(header.mode, 0100640u);
  EXPECT_EQ(header.mtime, 1111111111u);
  EXPECT_EQ(header.size, 5u);
  EXPECT_EQ(header.unused1, PACK_FILLER);
  EXPECT_EQ(header.unused2, PACK_FILLER);
  char node[256] = "";
  gethostname(node, sizeof node - 1);
  EXPECT_EQ(std::string(header.fromhost), std::string(node).substr(0, 63));
}

TEST_P(SendFileBoth, DirectoriesAreHeadersAlone) {
  std::string stream = sent(path("tmp/"));
  ASSERT_EQ(stream.size(), static_cast<size_t>(PACK_SIZE));
  EXPECT_EQ(result, PACK_SIZE);
  package header = netsupport::unpacked(stream);
  EXPECT_EQ(header.type, 1);
  EXPECT_EQ(header.size, 0u);
  EXPECT_EQ(netsupport::name(header), path("tmp/"));
}

TEST_P(SendFileBoth, LinksCarryTheirTargetAndItsNul) {
  std::string link = path("tmp/link");
  ASSERT_EQ(symlink("/tmp", link.c_str()), 0);
  std::string stream = sent(link);
  ASSERT_EQ(stream.size(), PACK_SIZE + 5u);
  EXPECT_EQ(result, PACK_SIZE + 5);
  package header = netsupport::unpacked(stream.substr(0, PACK_SIZE));
  EXPECT_EQ(header.type, 2);
  EXPECT_EQ(header.size, 5u);
  EXPECT_EQ(stream.substr(PACK_SIZE), std::string("/tmp\0", 5));
}

TEST_P(SendFileBoth, LinksThatDangleAreLinks) {
  std::string link = path("tmp/link");
  ASSERT_EQ(symlink("no/where", link.c_str()), 0);
  package header = netsupport::unpacked(sent(link).substr(0, PACK_SIZE));
  EXPECT_EQ(header.type, 2);
  EXPECT_EQ(header.size, 9u);
  EXPECT_EQ(statusLog(), "");
}

TEST_P(SendFileBoth, LongTargetsTravelWhole) {
  std::string link = path("tmp/link"), target(3000, 't');
  ASSERT_EQ(symlink(target.c_str(), link.c_str()), 0);
  std::string stream = sent(link);
  EXPECT_EQ(netsupport::unpacked(stream.substr(0, PACK_SIZE)).size, 3001u);
  EXPECT_EQ(stream.substr(PACK_SIZE), target + std::string(1, '\0'));
}

TEST_P(SendFileBoth, DevicesAreHeadersWithTheirNumber) {
  struct stat status;
  ASSERT_EQ(stat("/dev/null", &status), 0);
  package header = netsupport::unpacked(sent("/dev/null"));
  EXPECT_EQ(header.type, 3);
  EXPECT_EQ(header.unused1, static_cast<int32_t>(status.st_rdev));
  std::string block = path("tmp/block");
  if (mknod(block.c_str(), S_IFBLK | 0600, makedev(240, 7)) != 0)
    return;  // only root makes devices
  header = netsupport::unpacked(sent(block));
  EXPECT_EQ(header.type, 4);
  EXPECT_EQ(header.unused1, static_cast<int32_t>(makedev(240, 7)));
}

TEST_P(SendFileBoth, WhatIsNoFileIsSentAsMissing) {
  std::string pipe = path("tmp/pipe");
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  for (const std::string &file : {pipe, path("tmp/vanished")}) {
    clearLogs();
    std::string stream;
    support::captureStderr([&] { stream = sent(file); });
    EXPECT_EQ(result, PACK_SIZE);
    package header = netsupport::unpacked(stream);
    EXPECT_EQ(header.type, 5);
    EXPECT_EQ(header.size, 0u);
    std::string text =
        "WARNING:  3030  File " + file + " appears to have been deleted befor backup, skipping.\n";
    EXPECT_NE(statusLog().find(text), std::string::npos);
  }
  package header = netsupport::unpacked([&] {
    std::string stream;
    support::captureStderr([&] { stream = sent(path("tmp/vanished")); });
    return stream;
  }());
  EXPECT_EQ(header.usrid, 65535u);
  EXPECT_EQ(header.grpid, 0xfffffffeU);
  EXPECT_EQ(header.mode, 0600u);
}

TEST_P(SendFileBoth, NamesAreTransformed) {
  std::string file = make("x");
  package header =
      netsupport::unpacked(sent(file, 0, {path("tmp"), "/elsewhere"}).substr(0, PACK_SIZE));
  EXPECT_EQ(netsupport::name(header), "/elsewhere/file");
}

TEST_P(SendFileBoth, ThePolicyHoldsInReplicationOnly) {
  reprec job{};
  job.owner = 4711;
  job.grp = 4712;
  job.filepolicy = 0604;
  std::string file = make("x");
  int status = support::inChild([&] {  // the policy stays for the life of a process
    package before = netsupport::unpacked(sent(file, 1).substr(0, PACK_SIZE));
    EXPECT_EQ(before.mode, 0100640u);
    permctrl(1, &job);
    package plain = netsupport::unpacked(sent(file, 0).substr(0, PACK_SIZE));
    EXPECT_EQ(plain.usrid, geteuid());
    package ruled = netsupport::unpacked(sent(file, 1).substr(0, PACK_SIZE));
    EXPECT_EQ(ruled.usrid, 4711u);
    EXPECT_EQ(ruled.grpid, 4712u);
    EXPECT_EQ(ruled.mode, 0604u);
    return HasFailure() ? 1 : 0;
  });
  EXPECT_EQ(support::exitOf(status), 0);
}

TEST_P(SendFileBoth, AGonePeerIsAFailureWithItsNumber) {
  base::ignoreSigpipe();
  std::string link = path("tmp/link");
  ASSERT_EQ(symlink("/tmp", link.c_str()), 0);
  struct {
    std::string file;
    const char *severity;
    int number;
  } cases[] = {{make("x"), "WARNING:", 3018},
               {path("tmp"), "WARNING", 3023},
               {link, "WARNING:", 3026},
               {"/dev/null", "WARNING:", 3028},
               {path("tmp/gone"), "WARNING:", 3031}};
  for (auto &c : cases) {
    clearLogs();
    Pair pair;
    pair.far.reset();
    char *none[] = {nullptr, nullptr};
    support::captureStderr(
        [&] { EXPECT_EQ(sendFile(0, pair.near.get(), c.file.data(), none), -2); });
    char text[512];
    snprintf(text, sizeof text, "%s  %i  Write to tape server failed on %s, skipping.\n",
             c.severity, c.number, c.file.c_str());
    EXPECT_NE(statusLog().find(text), std::string::npos) << statusLog();
  }
}

TEST_P(SendFileBoth, APeerThatStopsReadingIsAFailureInsideTheFile) {
  net::timeouts.streamMs = 50;
  std::string file = make(pattern(8 << 20));
  Pair pair;
  char *none[] = {nullptr, nullptr};
  EXPECT_EQ(sendFile(0, pair.near.get(), file.data(), none), -2);
  EXPECT_EQ(statusLog(),
            "WARNING:  3019  Write to tape server failed on " + file + ", skipping.\n");
}

TEST_P(SendFileBoth, TheFilesTimerIsArmed) {
  sent(make("x"));
  itimerval timer{};
  getitimer(ITIMER_REAL, &timer);
  EXPECT_GT(timer.it_value.tv_sec, 590);
  EXPECT_EQ(timer.it_interval.tv_sec, 600);
}

TEST_F(SendFile, AnUnreadableFileIsNotSentAtAll) {
  std::string file = make("secret");
  chmod(file.c_str(), 0);
  int status = support::inChild([&] {
    if (geteuid() == 0 &&
        (chmod(home.c_str(), 0755) != 0 || chmod(path("tmp").c_str(), 0755) != 0 ||
         setegid(65534) != 0 || seteuid(65534) != 0))
      return 99;
    EXPECT_EQ(sent(file), "");
    EXPECT_EQ(result, -1);
    EXPECT_EQ(statusLog(), "WARNING:  3017  Open failed: " + file + ", skipping.\n");
    return HasFailure() ? 1 : 0;
  });
  EXPECT_EQ(support::exitOf(status), 0);
}

TEST_F(SendFile, AnUnreadableFileIsSentAsMissingOnASoundSite) {
  soundSite();
  std::string file = make("secret");
  chmod(file.c_str(), 0);
  int status = support::inChild([&] {
    if (geteuid() == 0 &&
        (chmod(home.c_str(), 0755) != 0 || chmod(path("tmp").c_str(), 0755) != 0 ||
         chmod(path("etc").c_str(), 0755) != 0 || chmod(path("etc/ZULsite").c_str(), 0644) != 0 ||
         setegid(65534) != 0 || seteuid(65534) != 0))
      return 99;
    std::string stream = sent(file);
    EXPECT_EQ(result, PACK_SIZE);
    package header = netsupport::unpacked(stream);
    EXPECT_EQ(header.type, 5);
    EXPECT_EQ(header.size, 0u);
    EXPECT_EQ(statusLog(), "WARNING:  3017  Open failed: " + file + ", skipping.\n");
    return HasFailure() ? 1 : 0;
  });
  EXPECT_EQ(support::exitOf(status), 0);
}

TEST_F(SendFile, AFileThatHoldsMoreThanItSaysSendsMore) {
  // Announced with no size at all, as all of its kind.
  std::string stream = sent("/proc/version");
  EXPECT_EQ(netsupport::unpacked(stream.substr(0, PACK_SIZE)).size, 0u);
  EXPECT_GT(stream.size(), static_cast<size_t>(PACK_SIZE));
}

TEST_F(SendFile, AFileThatHoldsMoreThanItSaysSendsWhatItSaysOnASoundSite) {
  soundSite();
  EXPECT_EQ(sent("/proc/version").size(), static_cast<size_t>(PACK_SIZE));
}

// A file whose contents were pinned by "Next", and what is sent of it afterwards.
class Pinned : public SendFile {
 protected:
  void SetUp() override {
    SendFile::SetUp();
    soundSite();
  }
  void TearDown() override {
    net::releaseSource(&source);
    SendFile::TearDown();
  }
  void announce(const std::string &file) {
    char *none[] = {nullptr, nullptr};
    ASSERT_EQ(net::describeSource(&source, 0, file.c_str(), none), 0);
    size = source.header.size;
  }
  Framed get() {
    Pair pair;
    Framed framed;
    std::string rest;
    std::thread reader([&] {
      framed = netsupport::readFramed(pair.far.get(), size);
      rest = netsupport::readAll(pair.far.get());
    });
    result = net::sendSource(&source, pair.near.get());
    pair.near.reset();
    reader.join();
    EXPECT_EQ(rest, "");
    EXPECT_EQ(framed.contents.size(), size);
    return framed;
  }
  net::Source source{};
  uint64_t size = 0;
};

TEST_F(Pinned, AFileThatGrowsIsCut) {
  std::string file = make(pattern(1500000));
  announce(file);
  support::writeFile(file, pattern(4000000));
  EXPECT_TRUE(get().contents == pattern(1500000));
  EXPECT_EQ(statusLog(),
            "NOTICE:  File " + file + " grew while it was sent, the rest is left out\n");
}

TEST_F(Pinned, AFileThatShrinksIsFilledWithZeros) {
  for (size_t left : {0u, 1u, 700000u, 1048576u, 2097151u}) {
    clearLogs();
    std::string file = make(pattern(2097152));
    announce(file);
    ASSERT_EQ(truncate(file.c_str(), static_cast<off_t>(left)), 0);
    Framed framed = get();
    EXPECT_EQ(framed.headers.size(), 3u);
    EXPECT_TRUE(framed.contents == pattern(left) + std::string(2097152 - left, '\0')) << left;
    EXPECT_EQ(statusLog(),
              "NOTICE:  File " + file +
                  " became shorter while it was sent, the rest is filled with zeros\n");
    net::releaseSource(&source);
  }
}

TEST_F(Pinned, AFileThatVanishesIsSentAllTheSame) {
  std::string file = make(pattern(100000));
  announce(file);
  unlink(file.c_str());
  EXPECT_TRUE(get().contents == pattern(100000));
  EXPECT_EQ(statusLog(), "");
}

TEST_F(Pinned, AFileThatIsReplacedIsSentAsItWas) {
  std::string file = make("the old one");
  announce(file);
  unlink(file.c_str());
  support::writeFile(file, "another, and longer than before");
  EXPECT_EQ(get().contents, "the old one");
}

TEST_F(Pinned, AFileCanBeAskedForTwice) {
  announce(make(pattern(1200000)));
  EXPECT_TRUE(get().contents == pattern(1200000));
  EXPECT_TRUE(get().contents == pattern(1200000));
}

TEST_F(Pinned, ALinkThatVanishesIsSentAllTheSame) {
  std::string link = path("tmp/link");
  ASSERT_EQ(symlink("target", link.c_str()), 0);
  announce(link);
  unlink(link.c_str());
  EXPECT_EQ(get().contents, std::string("target\0", 7));
}

TEST_F(Pinned, APipeInTheFilesPlaceIsSentAsMissing) {
  // What lstat called a file and open finds to be a pipe must not block the gatherer: played by a
  // name whose kind changes between the two, over and over.
  std::string file = path("tmp/turning");
  bool stop = false;
  std::thread turner([&] {
    while (!__atomic_load_n(&stop, __ATOMIC_ACQUIRE)) {
      support::writeFile(path("tmp/a"), "x");
      rename(path("tmp/a").c_str(), file.c_str());
      mkfifo(path("tmp/b").c_str(), 0600);
      rename(path("tmp/b").c_str(), file.c_str());
    }
  });
  ASSERT_TRUE(support::eventually([&] { return support::exists(file); }));
  for (int count = 0; count < 300; count++) {
    announce(file);
    EXPECT_TRUE(source.header.type == 5 ? size == 0 : size == 1);
    net::releaseSource(&source);
  }
  __atomic_store_n(&stop, true, __ATOMIC_RELEASE);
  turner.join();
}

TEST_F(Pinned, ALinkInTheFilesPlaceIsNotFollowed) {
  std::string file = path("tmp/turning");
  support::writeFile(path("tmp/secret"), "secret");
  bool stop = false;
  std::thread turner([&] {
    while (!__atomic_load_n(&stop, __ATOMIC_ACQUIRE)) {
      support::writeFile(path("tmp/a"), "x");
      rename(path("tmp/a").c_str(), file.c_str());
      (void)!symlink("secret", path("tmp/b").c_str());
      rename(path("tmp/b").c_str(), file.c_str());
    }
  });
  ASSERT_TRUE(support::eventually([&] { return support::exists(file); }));
  for (int count = 0; count < 200; count++) {
    announce(file);
    if (source.header.type == 0) {
      EXPECT_LE(size, 1u);
    }
    net::releaseSource(&source);
  }
  __atomic_store_n(&stop, true, __ATOMIC_RELEASE);
  turner.join();
}

TEST_F(Pinned, NeverSendsAByteMoreOrLessWhileTheFileChanges) {
  std::string file = make(pattern(3000000));
  bool stop = false;
  std::thread writer([&] {
    unsigned seed = 1;
    while (!__atomic_load_n(&stop, __ATOMIC_ACQUIRE))
      (void)!truncate(file.c_str(), static_cast<off_t>(rand_r(&seed) % 5000000));
  });
  for (int count = 0; count < 20; count++) {
    announce(file);
    Framed framed = get();  // checks the count
    EXPECT_EQ(framed.headers.size(), size / PACK_CHUNK + 1);
    EXPECT_EQ(result, static_cast<long>(size + framed.headers.size() * PACK_SIZE));
    net::releaseSource(&source);
  }
  __atomic_store_n(&stop, true, __ATOMIC_RELEASE);
  writer.join();
}

TEST_F(Pinned, ReadErrorsAreFilledWithZerosAndSaid) {
  announce(make(pattern(50000)));
  // A descriptor that cannot be read stands for a bad sector.
  int broken = open(path("tmp/file").c_str(), O_WRONLY);
  ASSERT_GE(dup2(broken, source.fd), 0);
  close(broken);
  EXPECT_EQ(get().contents, std::string(50000, '\0'));
  EXPECT_EQ(statusLog(),
            "NOTICE:  File " + path("tmp/file") +
                " could not be read while it was sent, the rest is filled with zeros\n");
}

TEST(StreamForm, IsTooSmallForFilesOfFourGigabytes) {
  package header{};
  header.size = 4292838415u;
  EXPECT_FALSE(net::tooLargeForStream(header));
  header.size++;
  EXPECT_TRUE(net::tooLargeForStream(header));
  header.size = 1ULL << 40;
  EXPECT_TRUE(net::tooLargeForStream(header));
  header.type = 3;  // the size of a device is no count of bytes
  EXPECT_FALSE(net::tooLargeForStream(header));
}

}  // namespace
