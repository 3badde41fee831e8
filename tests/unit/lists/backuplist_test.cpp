// From a backup list to a request list: which lines, in which order, and what a reader may conclude
// meanwhile.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>
#include <zul/tape.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <memory>
#include <regex>
#include <sstream>
#include <thread>

#include "base/fd.h"
#include "base/site.h"
#include "base/text.h"
#include "support.h"
#include "tape/treewalk.h"

namespace fs = std::filesystem;
using support::exists;
using support::readFile;
using support::writeFile;

namespace {

class Lists : public support::HomeTest {
 protected:
  void SetUp() override {
    HomeTest::SetUp();
    tree = path("tmp/tree");
    fs::create_directory(tree);
  }

  int make(const std::string &requests, time_t newer = 0) {
    writeFile(input(), requests);
    return makeFromInput(newer);
  }
  int makeFromInput(time_t newer = 0) {
    std::string in = input(), out = output();
    return mkBackupList(in.data(), out.data(), newer);
  }
  std::string input() const { return path("var/tape/jobids/7.req"); }
  std::string output() const { return path("var/tape/jobids/request.7"); }
  std::string list() const { return readFile(output()); }

  // The lines that the ancestors of the test's tree take, the tree itself not among them.
  std::string ancestors(int &number) const {
    std::string lines;
    for (size_t at = tree.find('/', 1); at != std::string::npos; at = tree.find('/', at + 1))
      lines += std::to_string(number++) + " " + tree.substr(0, at) + "/\n";
    return lines;
  }
  void setTime(const std::string &name, time_t when) const {
    timespec times[2] = {{when, 0}, {when, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, name.c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << name;
  }
  // One ScanDir of its own; returns what it wrote.
  std::string scan(const std::string &from, time_t newer = 0, long *bytes = nullptr) {
    char buffer[base::kPathMax];
    base::copyText(buffer, sizeof buffer, from.c_str());
    long seen = 0;
    int count = 0;
    std::string to = path("tmp/scan");
    base::Fd fd(open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    EXPECT_EQ(ScanDir(fd.get(), buffer, &seen, newer, &count), 0);
    EXPECT_STREQ(buffer, from.c_str()) << "the caller's buffer is restored";
    if (bytes) *bytes = seen;
    return readFile(to);
  }

  std::string tree;
};

TEST_F(Lists, APlainPathGivesItsAncestorsAndItself) {
  EXPECT_EQ(make("/etc/passwd\n"), 0);
  EXPECT_EQ(list(), "0 /etc/\n1 /etc/passwd\n");
}

TEST_F(Lists, ATreeGivesItsAncestorsItselfAndItsContents) {
  writeFile(tree + "/file", "x");
  EXPECT_EQ(make("/etc/passwd\n" + tree + "/\n"), 0);
  int number = 2;
  std::string expected = "0 /etc/\n1 /etc/passwd\n" + ancestors(number);
  expected += std::to_string(number) + " " + tree + "/\n";
  expected += std::to_string(number + 1) + " " + tree + "/file\n";
  EXPECT_EQ(list(), expected);
}

TEST_F(Lists, AncestorsAreListedForEachRequestAndTheRootNever) {
  EXPECT_EQ(make("/home/user/x\n/home/user/y\n/z\n"), 0);
  EXPECT_EQ(
      list(),
      "0 /home/\n1 /home/user/\n2 /home/user/x\n3 /home/\n4 /home/user/\n5 /home/user/y\n6 /z\n");
}

TEST_F(Lists, AMissingPathIsListedButAMissingTreeOnlyByItsAncestors) {
  EXPECT_EQ(make("/nowhere/file\n/nowhere/tree/\n"), 0);
  EXPECT_EQ(list(), "0 /nowhere/\n1 /nowhere/file\n2 /nowhere/\n");
}

TEST_F(Lists, WithAReferenceTimeOfNowATreeYieldsOnlyItsAncestors) {
  writeFile(tree + "/file", "x");
  EXPECT_EQ(make(tree + "/\n" + tree + "/file\n", time(nullptr) + 10), 0);
  int number = 0;
  std::string expected = ancestors(number);
  expected += ancestors(number);
  expected += std::to_string(number) + " " + tree + "/\n";
  expected += std::to_string(number + 1) + " " + tree + "/file\n";
  EXPECT_EQ(list(), expected);
}

TEST_F(Lists, NewFilesInOldDirectoriesAreFoundAndTheSameSecondIsOld) {
  fs::create_directory(tree + "/old");
  writeFile(tree + "/old/new", "x");
  writeFile(tree + "/old/same", "x");
  setTime(tree + "/old/new", 2001);
  setTime(tree + "/old/same", 2000);
  setTime(tree + "/old", 1000);
  setTime(tree, 1000);
  EXPECT_EQ(scan(tree, 2000), "0 " + tree + "/old/new\n");
}

TEST_F(Lists, UnderSoundWhatCameWithAnOlderTimeIsNewAndSoIsTheSameSecond) {
  fs::create_directory(tree + "/old");
  writeFile(tree + "/old/came", "x");  // its own time is old, its place is new
  setTime(tree + "/old/came", 1000);
  setTime(tree + "/old", 1000);
  setTime(tree, 1000);
  time_t now = time(nullptr);
  std::string all = "0 " + tree + "/\n1 " + tree + "/old/\n2 " + tree + "/old/came\n";
  EXPECT_EQ(scan(tree, now - 1000), "");
  writeFile(tree + "/old/same", "x");
  setTime(tree + "/old/same", now + 2000);
  setTime(tree + "/old", 1000);
  EXPECT_EQ(scan(tree, now + 2000), "");
  soundSite();
  EXPECT_EQ(scan(tree, now + 2000), "0 " + tree + "/old/same\n");
  EXPECT_EQ(scan(tree, now + 2001), "");
  fs::remove(tree + "/old/same");
  setTime(tree + "/old", 1000);
  EXPECT_EQ(scan(tree, now - 1000), all);
}

TEST_F(Lists, UnderSoundEverythingMeansFilesOfAnyTime) {
  writeFile(tree + "/first", "x");
  setTime(tree + "/first", 0);
  setTime(tree, -1);
  EXPECT_EQ(scan(tree, 0), "");
  soundSite();
  EXPECT_EQ(scan(tree, 0), "0 " + tree + "/\n1 " + tree + "/first\n");
}

TEST_F(Lists, UnderSoundADirectoryBelowTheRootIsListedWhateverItsTime) {
  // While a walk finds nothing new, the gatherer keeps its peer waiting with a directory.
  time_t ahead = time(nullptr) + 100000;
  EXPECT_EQ(make("/etc/\n", ahead), 0);
  EXPECT_EQ(list(), "");
  soundSite();
  EXPECT_EQ(make("/etc/\n", ahead), 0);
  EXPECT_EQ(list(), "0 /etc/\nend\n");
}

TEST_F(Lists, CarriageReturnsEndNamesTooSoEachLineGivesAnEmptyEntry) {
  EXPECT_EQ(make("/a\r\n/b\r\n"), 0);
  EXPECT_EQ(list(), "0 /a\n1 \n2 /b\n3 \n");
}

TEST_F(Lists, TabsAndOtherControlCharactersEndNames) {
  EXPECT_EQ(make("/a\t/b\x01/c\x7f"), 0);
  EXPECT_EQ(list(), "0 /a\n1 /b\n2 /c\n");
}

TEST_F(Lists, NamesMayHoldBlanksAndBytesOutsideAscii) {
  EXPECT_EQ(make("/a b/\xc3\xa4 \xff\n"), 0);
  EXPECT_EQ(list(), "0 /a b/\n1 /a b/\xc3\xa4 \xff\n");
}

TEST_F(Lists, ANameOf255CharactersIsTakenAndOneOf256EndsTheList) {
  std::string longest = "/" + std::string(254, 'n');
  EXPECT_EQ(make(longest + "\n/b\n"), 0);
  EXPECT_EQ(list(), "0 " + longest + "\n1 /b\n");
  EXPECT_EQ(make("/first\n" + longest + "n\n/b\n"), -3);
  EXPECT_EQ(list(), "0 /first\n");
  EXPECT_EQ(statusLog(), "ERROR:  8306  mkBackupList:  File name + path is too long.\n");
}

TEST_F(Lists, AListThatCannotBeCreatedIsReported) {
  fs::create_directory(output());
  EXPECT_EQ(make("/a\n"), -1);
  EXPECT_EQ(statusLog(),
            "ERROR:  8304  mkBackupList:  Cannot open output file: " + output() + "\n");
  clearLogs();
  soundSite();
  EXPECT_EQ(make("/a\n"), -1);
  EXPECT_EQ(statusLog(),
            "ERROR:  8304  mkBackupList:  Cannot open output file: " + output() + "\n");
  EXPECT_EQ(std::distance(fs::directory_iterator(path("var/tape/jobids")), {}), 2)
      << "no temporary is left";
}

TEST_F(Lists, AMissingBackupListIsReportedAndLeavesAnEmptyRequestList) {
  EXPECT_EQ(makeFromInput(), -2);
  EXPECT_EQ(statusLog(), "ERROR:  8305  mkBackupList:  Cannot open input file: " + input() + "\n");
  EXPECT_TRUE(exists(output()));
  EXPECT_EQ(list(), "");
}

TEST_F(Lists, ABackupListThatCannotBeReadIsNoEmptyOne) {
  fs::create_directory(input());
  EXPECT_EQ(makeFromInput(), -2);
  EXPECT_EQ(statusLog(), "ERROR:  mkBackupList:  Cannot read input file: " + input() + "\n");
}

TEST_F(Lists, TheRequestListIsForItsOwnerAlone) {
  for (const char *behaviour : {"behaviour = classic\n", "behaviour = sound\n"}) {
    site(behaviour);
    fs::remove(output());
    EXPECT_EQ(make("/a\n"), 0);
    struct stat status;
    ASSERT_EQ(stat(output().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600U) << behaviour;
  }
}

TEST_F(Lists, AFullDiskIsNoCompleteList) {
  std::string in = input(), full = "/dev/full";
  writeFile(in, "/a\n");
  EXPECT_EQ(mkBackupList(in.data(), full.data(), 0), -1);
  EXPECT_EQ(statusLog(), "ERROR:  mkBackupList:  Cannot write output file: /dev/full\n");
}

TEST_F(Lists, ALastLineWithoutItsEndCountsOnlyUnderSound) {
  EXPECT_EQ(make("/a\n/b"), 0);
  EXPECT_EQ(list(), "0 /a\n");
  soundSite();
  EXPECT_EQ(make("/a\n/b"), 0);
  EXPECT_EQ(list(), "0 /a\n1 /b\nend\n");
  EXPECT_EQ(make("/a\n"), 0);
  EXPECT_EQ(list(), "0 /a\nend\n");
}

TEST_F(Lists, TheRootAsATreeIsWalkedOnlyUnderSound) {
  // The whole machine is no test: the kernel's answer for an empty name is what classic hosts get.
  EXPECT_EQ(make("/\n"), 0);
  EXPECT_EQ(list(), "");
  soundSite();
  int status = support::inChild([&] {
    // A list that cannot grow ends the walk early, and by then it has begun.
    signal(SIGXFSZ, SIG_IGN);
    struct rlimit limit = {65536, 65536};
    setrlimit(RLIMIT_FSIZE, &limit);
    return make("/\n") == -1 ? 0 : 1;
  });
  EXPECT_EQ(support::exitOf(status), 0);
  EXPECT_EQ(list().substr(0, 3), "0 /");
  EXPECT_NE(list().substr(0, 4), "0 /\n") << "the root itself is never listed";
  EXPECT_EQ(list().find(" //"), std::string::npos);
}

// --- the walk ---

TEST_F(Lists, EachDirectoryStandsBeforeItsContents) {
  fs::create_directories(tree + "/a/b");
  writeFile(tree + "/a/b/c", "x");
  std::string base = tree;
  EXPECT_EQ(scan(tree),
            "0 " + base + "/\n1 " + base + "/a/\n2 " + base + "/a/b/\n3 " + base + "/a/b/c\n");
}

TEST_F(Lists, LinksAreListedAndNotFollowed) {
  fs::create_directory_symlink("/etc", tree + "/link");
  EXPECT_EQ(scan(tree), "0 " + tree + "/\n1 " + tree + "/link\n");
  EXPECT_EQ(scan(tree + "/link"), "0 " + tree + "/link\n");
}

TEST_F(Lists, AnEntryNamedProcIsAnEntry) {
  fs::create_directory(tree + "/proc");
  writeFile(tree + "/proc/x", "");
  EXPECT_EQ(scan(tree), "0 " + tree + "/\n1 " + tree + "/proc/\n2 " + tree + "/proc/x\n");
}

TEST_F(Lists, SizesOfAllThatIsSeenAddUp) {
  writeFile(tree + "/a", std::string(1000, 'x'));
  writeFile(tree + "/b", std::string(23, 'x'));
  struct stat status;
  ASSERT_EQ(stat(tree.c_str(), &status), 0);
  long bytes = 0;
  EXPECT_EQ(scan(tree, time(nullptr) + 10, &bytes), "");
  EXPECT_EQ(bytes, 1023 + status.st_size);
}

TEST_F(Lists, AFileAsATreeIsItsOwnLine) {
  writeFile(tree + "/a", "");
  EXPECT_EQ(scan(tree + "/a"), "0 " + tree + "/a\n");
  EXPECT_EQ(scan(tree + "/missing"), "");
}

TEST_F(Lists, NamesWithControlCharactersAreLeftOutAndLogged) {
  writeFile(tree + "/x\n0 ", "");
  fs::create_directory(tree + "/d\r");
  writeFile(tree + "/d\r/inside", "");
  writeFile(tree + "/good", "");
  for (const char *behaviour : {"behaviour = classic\n", "behaviour = sound\n"}) {
    site(behaviour);
    clearLogs();
    EXPECT_EQ(scan(tree), "0 " + tree + "/\n1 " + tree + "/good\n");
    EXPECT_NE(statusLog().find("NOTICE:  Not listed: " + tree +
                               "/x?0  has control characters in its name"),
              std::string::npos)
        << statusLog();
    EXPECT_NE(statusLog().find("/d? has control"), std::string::npos);
  }
}

TEST_F(Lists, ATreeDeeperThanAnyPathIsListedAsFarAsPathsReach) {
  std::string name(200, 'd');
  int at = open(tree.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  for (int depth = 0; depth < 30; depth++) {
    ASSERT_EQ(mkdirat(at, name.c_str(), 0700), 0);
    int below = openat(at, name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    close(at);
    at = below;
  }
  close(at);
  std::istringstream lines(scan(tree));
  size_t longest = 0, count = 0;
  for (std::string line; std::getline(lines, line); count++)
    longest = std::max(longest, line.size() - line.find('/'));
  size_t fitting = (4094 - tree.size()) / (name.size() + 1);
  EXPECT_EQ(count, 1 + fitting);
  EXPECT_LE(longest, 4095U);
  EXPECT_NE(statusLog().find("too long a path"), std::string::npos);
}

TEST_F(Lists, APathMayHave4094CharactersAndOneSlash) {
  constexpr size_t kLongest = 4094;
  int at = open(tree.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  size_t length = tree.size();
  for (std::string name(200, 'd'); length + 1 + name.size() < kLongest - 100; length += 201) {
    ASSERT_EQ(mkdirat(at, name.c_str(), 0700), 0);
    int below = openat(at, name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    close(at);
    at = below;
  }
  size_t room = kLongest - length - 1;
  ASSERT_EQ(mkdirat(at, std::string(room, 'f').c_str(), 0700), 0);
  ASSERT_EQ(mkdirat(at, std::string(room + 1, 'g').c_str(), 0700), 0);
  close(at);
  std::string lines = scan(tree);
  EXPECT_NE(lines.find("/" + std::string(room, 'f') + "/\n"), std::string::npos);
  EXPECT_EQ(lines.find("/g"), std::string::npos);
}

TEST_F(Lists, MoreLevelsThanDescriptorsAreWalked) {
  int depth = 0;
  int at = open(tree.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  for (; depth < 1500; depth++) {
    ASSERT_EQ(mkdirat(at, "d", 0700), 0);
    int below = openat(at, "d", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    close(at);
    at = below;
  }
  close(at);
  int status = support::inChild([&] {
    struct rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = 1024;
    setrlimit(RLIMIT_NOFILE, &limit);
    return make(tree + "/\n");
  });
  EXPECT_EQ(support::exitOf(status), 0);
  std::string made = list();
  int number = 0;
  std::string above = ancestors(number);
  EXPECT_EQ(std::count(made.begin(), made.end(), '\n'), number + 1 + depth);
}

// Runs body without the rights of root.
int asNobody(const std::function<int()> &body) {
  return support::exitOf(support::inChild([&] {
    if (geteuid() == 0 && seteuid(65534) != 0) return 99;
    return body();
  }));
}

TEST_F(Lists, AnUnreadableDirectoryIsPassedOverAndUnderSoundLogged) {
  fs::create_directory(tree + "/shut");
  writeFile(tree + "/open", "");
  chmod((tree + "/shut").c_str(), 0);
  for (const std::string &name : {home, path("tmp"), tree}) chmod(name.c_str(), 0777);
  EXPECT_EQ(asNobody([&] {
              std::string text = scan(tree);
              return text.find("/shut/\n") != std::string::npos &&
                             text.find("/open\n") != std::string::npos && !HasFailure()
                         ? 0
                         : 1;
            }),
            0);
  EXPECT_EQ(statusLog(), "");
  soundSite();
  base::sound(base::Area::stream);
  EXPECT_EQ(asNobody([&] { return scan(tree).empty() ? 1 : 0; }), 0);
  EXPECT_EQ(statusLog(), "NOTICE:  Not listed: " + tree + "/shut cannot be read, errno = 13\n");
}

TEST_F(Lists, AMissingTreeIsLoggedUnderSound) {
  EXPECT_EQ(scan(tree + "/gone"), "");
  EXPECT_EQ(statusLog(), "");
  soundSite();
  EXPECT_EQ(scan(tree + "/gone"), "");
  EXPECT_EQ(statusLog(), "NOTICE:  Not listed: " + tree + "/gone cannot be examined, errno = 2\n");
}

TEST_F(Lists, TheKernelsFileSystemsAreWalkedInClassicOnly) {
  // The mount point is listed, so that a restored machine has it; what it shows is not.
  EXPECT_NE(scan("/proc/self/attr").find("/proc/self/attr/current\n"), std::string::npos);
  soundSite();
  EXPECT_EQ(scan("/proc/self/attr"), "0 /proc/self/attr/\n");
  EXPECT_EQ(
      statusLog(),
      "NOTICE:  Not listed: /proc/self/attr belongs to the kernel and is left out, errno = 0\n");
}

TEST_F(Lists, ATreeThatChangesUnderTheWalkGivesWholeLinesAndAnEnd) {
  for (int i = 0; i < 50; i++) fs::create_directories(tree + "/d" + std::to_string(i) + "/e");
  std::atomic<bool> stop{false};
  std::thread changer([&] {
    for (int i = 0; !stop; i = (i + 1) % 50) {
      std::string at = tree + "/d" + std::to_string(i);
      std::error_code ignored;
      fs::remove_all(at, ignored);
      fs::create_directory_symlink("/", at, ignored);
      fs::remove(at, ignored);
      fs::create_directories(at + "/e", ignored);
      fs::create_directories(at + "/f" + std::to_string(i), ignored);
    }
  });
  std::regex whole("[0-9]+ " + tree + "(/|/d[0-9]+/?|/d[0-9]+/(e|f[0-9]+)/)");
  for (int round = 0; round < 100; round++) {
    std::istringstream lines(scan(tree));
    for (std::string line; std::getline(lines, line);)
      EXPECT_TRUE(std::regex_match(line, whole)) << line;
  }
  stop = true;
  changer.join();
}

// --- while the list is written ---

TEST_F(Lists, LinesDoNotWaitForTheEndOfTheWalk) {
  std::string to = path("tmp/scan");
  base::Fd fd(open(to.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  int count = 5;
  auto lines = std::make_unique<lists::LineWriter>(fd.get(), &count);
  EXPECT_TRUE(lines->add("/a", 2, true));
  EXPECT_EQ(count, 6);
  EXPECT_TRUE(support::eventually([&] { return lines->settle() && readFile(to) == "5 /a/\n"; }));
}

TEST_F(Lists, ManyLinesAreWrittenWholeAndInOrder) {
  std::string to = path("tmp/scan");
  base::Fd fd(open(to.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  int count = 0;
  auto lines = std::make_unique<lists::LineWriter>(fd.get(), &count);
  for (int i = 0; i < 3000; i++) {
    std::string name = "/" + std::string(static_cast<size_t>(i % 4094), 'n');
    ASSERT_TRUE(lines->add(name.c_str(), name.size(), i % 2 == 0));
  }
  ASSERT_TRUE(lines->flush());
  std::istringstream in(readFile(to));
  int number = 0;
  for (std::string line; std::getline(in, line); number++) {
    size_t length = static_cast<size_t>(number % 4094) + 1;
    ASSERT_EQ(line.size(), std::to_string(number).size() + 1 + length + (number % 2 == 0 ? 1 : 0));
    ASSERT_EQ(line.compare(0, line.find(' '), std::to_string(number)), 0);
  }
  EXPECT_EQ(number, 3000);
}

// The generator, held in the middle of its work: its backup list is a pipe.
class HeldGenerator : public Lists {
 protected:
  void SetUp() override {
    Lists::SetUp();
    soundSite();
    ASSERT_EQ(mkfifo(input().c_str(), 0600), 0);
    fflush(nullptr);
    pid = fork();
    if (pid == 0) _exit(makeFromInput() & 0xff);
    feed.reset(open(input().c_str(), O_WRONLY | O_CLOEXEC));
  }
  void TearDown() override {
    feed.reset();
    if (pid > 0) {
      kill(pid, SIGKILL);
      waitpid(pid, nullptr, 0);
    }
    Lists::TearDown();
  }
  // As the gatherer looks: a list with a lock on it grows.
  bool locked() {
    base::Fd fd(open(output().c_str(), O_RDONLY | O_CLOEXEC));
    return fd && flock(fd.get(), LOCK_EX | LOCK_NB) != 0;
  }
  int end() {
    int status;
    waitpid(pid, &status, 0);
    pid = -1;
    return support::exitOf(status);
  }

  pid_t pid = -1;
  base::Fd feed;
};

TEST_F(HeldGenerator, LocksItsListFromItsFirstAppearanceToItsEndMark) {
  ASSERT_TRUE(support::eventually([&] { return exists(output()); }));
  EXPECT_TRUE(locked());
  ASSERT_EQ(write(feed.get(), "/etc/passwd\n", 12), 12);
  EXPECT_TRUE(locked());
  EXPECT_EQ(list().find("end"), std::string::npos);
  feed.reset();
  EXPECT_EQ(end(), 0);
  EXPECT_FALSE(locked());
  EXPECT_EQ(list(), "0 /etc/\n1 /etc/passwd\nend\n");
}

TEST_F(HeldGenerator, WhenKilledLeavesAnUnlockedListWithoutTheEndMark) {
  ASSERT_TRUE(support::eventually([&] { return exists(output()); }));
  ASSERT_EQ(write(feed.get(), "/etc/passwd\n", 12), 12);
  kill(pid, SIGKILL);
  EXPECT_EQ(end(), 1000 + SIGKILL);
  EXPECT_FALSE(locked());
  EXPECT_EQ(list().find("end"), std::string::npos);
}

TEST_F(Lists, AFailedListHasNoEndMark) {
  soundSite();
  EXPECT_EQ(makeFromInput(), -2);
  EXPECT_EQ(list(), "");
  EXPECT_EQ(make("/first\n/" + std::string(300, 'n') + "\n"), -3);
  EXPECT_EQ(list(), "0 /first\n");
}

TEST_F(Lists, UnderSoundAReaderOfTheFormerListKeepsIt) {
  soundSite();
  EXPECT_EQ(make("/a\n"), 0);
  base::File reader(fopen(output().c_str(), "re"));
  EXPECT_EQ(make("/b\n"), 0);
  char line[16];
  EXPECT_STREQ(fgets(line, sizeof line, reader.get()), "0 /a\n");
  EXPECT_EQ(list(), "0 /b\nend\n");
}

}  // namespace
