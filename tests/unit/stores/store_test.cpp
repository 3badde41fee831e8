// The helper through which every store is changed, and its line reader: base/store.cpp,
// base/lines.cpp.
#include <base/lines.h>
#include <base/pause.h>
#include <base/store.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "storestest.h"

namespace {

class Store : public Stores {};
class EveryStore : public BothStores {};
IN_BOTH_BEHAVIOURS(EveryStore);

class SoundStore : public Stores {
 protected:
  void SetUp() override {
    Stores::SetUp();
    soundSite();
  }
};

TEST_P(EveryStore, ARewriteReplacesTheContent) {
  put("var/s", "old\n");
  base::Store store(path("var/s").c_str());
  ASSERT_TRUE(store.backUp(filecopy));
  base::File old = store.openBackup();
  ASSERT_TRUE(old);
  ASSERT_TRUE(store.beginRewrite());
  EXPECT_EQ(content("var/s"), isSound() ? "old\n" : "");
  ASSERT_TRUE(store.putText("%s %i\n", "new", 7));
  ASSERT_TRUE(store.commit());
  EXPECT_EQ(content("var/s"), "new 7\n");
  EXPECT_EQ(content("var/s.BAK"), "old\n");
  EXPECT_FALSE(exists("var/s.tmp"));
}

TEST_P(EveryStore, AnAppendMakesTheStoreAndGoesOnBehindIt) {
  for (int round = 0; round < 2; round++) {
    base::Store store(path("var/s").c_str());
    ASSERT_TRUE(store.beginAppend());
    ASSERT_TRUE(store.put("line\n", 5));
    ASSERT_TRUE(store.commit());
  }
  EXPECT_EQ(content("var/s"), "line\nline\n");
}

TEST_F(Store, ClassicContentIsThereAtOnceAndWithoutACommit) {
  put("var/s", "old\n");
  {
    base::Store store(path("var/s").c_str());
    ASSERT_TRUE(store.beginRewrite());
    ASSERT_TRUE(store.put("cut", 3));
    EXPECT_EQ(content("var/s"), "cut");
  }
  EXPECT_EQ(content("var/s"), "cut");
  EXPECT_FALSE(exists("var/s.lock"));
}

TEST_F(SoundStore, WithoutACommitTheOldContentStaysAndNothingIsLeft) {
  put("var/s", "old\n");
  {
    base::Store store(path("var/s").c_str());
    ASSERT_TRUE(store.beginRewrite());
    ASSERT_TRUE(store.put("cut", 3));
    EXPECT_TRUE(exists("var/s.tmp"));
  }
  EXPECT_EQ(content("var/s"), "old\n");
  EXPECT_FALSE(exists("var/s.tmp"));
  EXPECT_TRUE(exists("var/s.lock"));
}

TEST_F(SoundStore, OwnerAndModeOfTheStoreStay) {
  put("var/s", "old\n");
  ASSERT_EQ(chmod(path("var/s").c_str(), 0640), 0);
  {
    base::Store store(path("var/s").c_str());
    ASSERT_TRUE(store.beginAppend() && store.put("x\n", 2) && store.commit());
  }
  struct stat status;
  ASSERT_EQ(stat(path("var/s").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0640u);
}

TEST_F(SoundStore, AStoreThatIsALinkStaysOne) {
  put("tmp/elsewhere", "old\n");
  std::filesystem::create_symlink(path("tmp/elsewhere"), path("var/s"));
  {
    base::Store store(path("var/s").c_str());
    ASSERT_TRUE(store.beginRewrite() && store.put("new\n", 4) && store.commit());
  }
  EXPECT_TRUE(std::filesystem::is_symlink(path("var/s")));
  EXPECT_EQ(content("tmp/elsewhere"), "new\n");
}

TEST_F(SoundStore, ReasonsAreGivenOnceOnConsoleAndLog) {
  block("var/s");
  clearLogs();
  run([&] {
    base::Store store(path("var/s").c_str());
    return store.beginRewrite() || store.put("x", 1) || store.commit() ? 1 : 0;
  });
  EXPECT_EQ(result, 0);
  EXPECT_EQ(said, "ERROR:  " + path("var/s") + " not changed: it is no file: Is a directory\n");
  EXPECT_EQ(hostLog(), said);
}

TEST_F(SoundStore, AFullDiskLeavesTheStoreWhole) {
  std::string old(3000, 'o');
  put("var/s", old);
  put("var/s.BAK", old);
  int status = onFullDisk(4096, [&] {
    base::Store store(path("var/s").c_str(), base::Store::kBytes);
    std::string more(3000, 'm');
    bool failed =
        store.backUp(filecopy) && store.beginAppend() && !store.put(more.data(), more.size());
    return failed && !store.commit() ? 7 : 8;
  });
  EXPECT_EQ(status, 7);
  EXPECT_EQ(content("var/s"), old);
  EXPECT_FALSE(exists("var/s.tmp"));
}

TEST_F(SoundStore, AFailedWriteIsNeverPublishedByALaterCommit) {
  put("var/s", "old\n");
  int status = onFullDisk(10, [&] {
    base::Store store(path("var/s").c_str());
    std::string more(30, 'm');
    (void)!store.beginRewrite();
    (void)!store.put(more.data(), more.size());
    return store.commit() ? 8 : 7;
  });
  EXPECT_EQ(status, 7);
  EXPECT_EQ(content("var/s"), "old\n");
}

TEST_F(SoundStore, OneWaitsForTheOther) {
  put("var/s", "");
  int lock = open(path("var/s.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  ASSERT_EQ(flock(lock, LOCK_EX), 0);
  pid_t pid = fork();
  if (pid == 0) {
    close(lock);
    base::Store store(path("var/s").c_str());
    _exit(store.beginAppend() && store.put("x\n", 2) && store.commit() ? 7 : 8);
  }
  int status = 0;
  base::sleepMs(100);
  EXPECT_EQ(waitpid(pid, &status, WNOHANG), 0) << "it waits";
  close(lock);
  ASSERT_TRUE(support::eventually([&] { return waitpid(pid, &status, WNOHANG) == pid; }));
  EXPECT_EQ(support::exitOf(status), 7);
  EXPECT_EQ(content("var/s"), "x\n");
}

TEST_F(SoundStore, NobodyWaitsForEver) {
  int lock = open(path("var/s.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  ASSERT_EQ(flock(lock, LOCK_EX), 0);
  run([&] {
    base::Store store(path("var/s").c_str(), base::Store::kLines, 50);
    return store.beginAppend() ? 1 : 0;
  });
  close(lock);
  EXPECT_EQ(result, 0);
  EXPECT_EQ(said,
            "ERROR:  " + path("var/s") +
                " not changed: another request holds its lock: Resource temporarily unavailable\n");
  EXPECT_FALSE(exists("var/s"));
}

TEST_F(SoundStore, ChangesAtTheSameTimeAllSurvive) {
  constexpr int kProcesses = 6, kEntries = 15;
  for (int process = 0; process < kProcesses; process++) {
    if (fork() != 0) continue;
    int bad = 0;
    for (int entry = 0; entry < kEntries; entry++) {
      int job = 1 + process * kEntries + entry;
      std::string text = std::to_string(job) + ":1:0:0:0:0:n";
      (void)!freopen("/dev/null", "w", stderr);
      bad += addJobids(text.data()) != 0;
      // Every third job is renamed at once, so that rewrites and appends meet.
      if (entry % 3 == 0) {
        text = std::to_string(job) + ":1:0:0:0:0:renamed";
        bad += modJobids(std::to_string(job).c_str(), text.data()) != 0;
      }
    }
    _exit(bad);
  }
  for (int process = 0; process < kProcesses; process++) {
    int status = -1;
    ASSERT_GT(wait(&status), 0);
    EXPECT_EQ(support::exitOf(status), 0);
  }
  for (int job = 1; job <= kProcesses * kEntries; job++) {
    jobrec record;
    ASSERT_EQ(readJobid(job, &record), 0) << job;
    EXPECT_STREQ(record.name, (job - 1) % kEntries % 3 == 0 ? "renamed" : "n");
  }
  EXPECT_EQ(content("var/tape/jobids/index").size(), 516u * kProcesses * kEntries);
}

TEST_F(SoundStore, TwoAddsOfOneDriveNumberMakeOneDrive) {
  constexpr int kProcesses = 6;
  for (int process = 0; process < kProcesses; process++) {
    if (fork() != 0) continue;
    (void)!freopen("/dev/null", "w", stderr);
    std::string entry = "0:lto" + std::to_string(process) + ":/dev/nst0:a:b";
    _exit(addDrive(entry.data()) == 0 ? 1 : 0);
  }
  int added = 0;
  for (int process = 0; process < kProcesses; process++) {
    int status = -1;
    ASSERT_GT(wait(&status), 0);
    added += support::exitOf(status);
  }
  EXPECT_EQ(added, 1);
  std::string table = content("etc/tapedevs");
  EXPECT_EQ(std::count(table.begin(), table.end(), '\n'), 1);
}

TEST_F(SoundStore, AKillAtAnyMomentLeavesAWholeTable) {
  std::string table;
  for (int drive = 0; drive < 200; drive++)
    table += std::to_string(drive) + ":name:/dev/nst0:a:b:\n";
  put("etc/tapedevs", table);
  for (int round = 0; round < 25; round++) {
    pid_t pid = fork();
    if (pid == 0) {
      (void)!freopen("/dev/null", "w", stderr);
      for (;;) {
        std::string entry = "100:name:/dev/nst0:a:b";
        (void)modDrive("100", entry.data());
      }
    }
    // Not a wait for readiness: the moment of the kill is what varies.
    usleep(static_cast<useconds_t>(1000 + round * 700));
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    ASSERT_EQ(content("etc/tapedevs"), table) << "round " << round;
  }
  run(modDrive, "100", "100:name:/dev/nst0:a:b");
  EXPECT_EQ(result, 0) << "what the killed ones left behind is in nobody's way";
  EXPECT_FALSE(exists("etc/tapedevs.tmp"));
}

TEST_P(EveryStore, PathsThatDoNotFitAreRefused) {
  for (std::string odd : {std::string(), std::string(5000, 'x'), path(std::string(4090, 'y'))}) {
    base::Store store(odd.c_str());
    EXPECT_FALSE(store.backUp(filecopy));
    EXPECT_FALSE(store.openBackup());
    EXPECT_FALSE(store.beginRewrite());
    EXPECT_FALSE(store.beginAppend());
    EXPECT_FALSE(store.commit());
  }
  EXPECT_FALSE(support::exists(".lock"));
}

TEST_F(Store, LinesComeWholeOrInPiecesOfTheLimit) {
  put("var/l", std::string("ab\0cd\n", 6) + "0123456789\n\n#x\nlast");
  for (size_t limit : {base::LineReader::kNoLimit, size_t{4}}) {
    base::File in(fopen(path("var/l").c_str(), "re"));
    base::LineReader lines(in.get(), limit);
    std::string all;
    while (lines.next()) {
      EXPECT_EQ(lines.text()[lines.length()], '\0');
      EXPECT_TRUE(limit == 0 || lines.length() <= limit);
      all.append(lines.text(), lines.length());
    }
    EXPECT_EQ(all, content("var/l"));
    EXPECT_FALSE(lines.outOfMemory());
  }
}

TEST_F(Store, CommentsAndBlanksAreKnown) {
  put("var/l", "#\n\nx\n1");
  base::File in(fopen(path("var/l").c_str(), "re"));
  base::LineReader lines(in.get(), 100);
  std::string kinds;
  while (lines.next()) kinds += lines.isCommentOrBlank() ? 'c' : 'e';
  EXPECT_EQ(kinds, "ccec");
}

}  // namespace
