// The backup history: runs that begin, end, are purged, and what survives when a change fails.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>
#include <zul/tape.h>

#include <algorithm>
#include <filesystem>
#include <vector>

#include "support.h"

namespace fs = std::filesystem;
using support::captureStderr;
using support::exists;
using support::readFile;
using support::writeFile;

namespace {

constexpr int64_t kHalfYear = 15552000;

jobrun makeJob(int job, int retention = 86400) {
  jobrun run;
  memset(&run, 0, sizeof run);
  run.rec.job = job;
  run.rec.group = 3;
  run.rec.retention = retention;
  run.rec.drive = 1;
  run.tape = 2;
  run.volume = 5;
  run.level = 4;
  return run;
}

class History : public support::HomeTest {
 protected:
  std::string file() const { return path("var/tape/bhistory"); }
  std::string copy() const { return file() + ".BAK"; }
  std::vector<histrec> records() const {
    std::string bytes = readFile(file());
    std::vector<histrec> all(bytes.size() / sizeof(histrec));
    if (!all.empty()) memcpy(all.data(), bytes.data(), all.size() * sizeof(histrec));
    return all;
  }
  void begin(int job, time_t start, int retention = 86400) {
    jobrun run = makeJob(job, retention);
    ASSERT_EQ(updateHist(&run, start), 0);
  }
  int complete(int job, time_t start, int status = 1, long kbytes = 100) {
    jobrun run = makeJob(job);
    return modHist(&run, start, status, kbytes);
  }
  // A directory where the file is to be copied to or opened cannot be: also for root.
  void block(const std::string &name) { fs::create_directories(name + "/x"); }
};

class EitherHistory : public History, public ::testing::WithParamInterface<const char *> {
 protected:
  void SetUp() override {
    HomeTest::SetUp();
    site(std::string("behaviour.stores = ") + GetParam() + "\n");
  }
};
INSTANTIATE_TEST_SUITE_P(Both, EitherHistory, ::testing::Values("classic", "sound"),
                         [](const auto &test) { return std::string(test.param); });

TEST_P(EitherHistory, ARunIsAddedAsStarted) {
  begin(7, 1700000000, -5);
  std::vector<histrec> all = records();
  ASSERT_EQ(all.size(), 1U);
  EXPECT_EQ(all[0].magic, PACK_MAGIC);
  EXPECT_EQ(all[0].job, 7);
  EXPECT_EQ(all[0].group, 3);
  EXPECT_EQ(all[0].start, 1700000000);
  EXPECT_EQ(all[0].retention, -5) << "the sign is kept";
  EXPECT_EQ(all[0].kbytes, 0);
  EXPECT_EQ(all[0].status, 0);
  EXPECT_EQ(all[0].drive, 1);
  EXPECT_EQ(all[0].tape, 2);
  EXPECT_EQ(all[0].volume, 5);
  EXPECT_EQ(all[0].level, 4);
  for (char byte : all[0].reserved) EXPECT_EQ(byte, 0);
  EXPECT_TRUE(exists(copy()));
  EXPECT_EQ(readFile(copy()), "");
}

TEST_P(EitherHistory, RunsAreAddedBehindEachOther) {
  begin(7, 1000);
  begin(8, 2000);
  EXPECT_EQ(records().size(), 2U);
  EXPECT_EQ(records()[1].job, 8);
  EXPECT_EQ(readFile(copy()).size(), sizeof(histrec)) << "the copy is the former content";
}

TEST_P(EitherHistory, ARunIsCompletedByItsStartAndJob) {
  begin(7, 1000);
  begin(8, 1000);
  begin(7, 1001);
  EXPECT_EQ(complete(7, 1000, 1, 5000000000L), 0);
  std::vector<histrec> all = records();
  ASSERT_EQ(all.size(), 3U);
  EXPECT_EQ(all[0].status, 1);
  EXPECT_EQ(all[0].kbytes, 5000000000L);
  EXPECT_EQ(all[1].status, 0);
  EXPECT_EQ(all[2].status, 0);
  EXPECT_EQ(statusLog(), "");
}

TEST_P(EitherHistory, RecordsArePurgedHalfAYearPastTheirRetention) {
  begin(1, 1000, 500);
  begin(2, 1001, 500);
  begin(7, 1000 + 500 + kHalfYear);
  EXPECT_EQ(complete(7, 1000 + 500 + kHalfYear), 0);
  std::vector<histrec> all = records();
  ASSERT_EQ(all.size(), 2U);
  EXPECT_EQ(all[0].job, 2) << "one second earlier it is kept";
  EXPECT_EQ(all[1].job, 7);
}

TEST_P(EitherHistory, ThePurgeTakesTheCompletedRecordToo) {
  begin(7, 1000, static_cast<int>(-kHalfYear));
  EXPECT_EQ(complete(7, 1000), 0);
  EXPECT_EQ(records().size(), 0U);
}

TEST_P(EitherHistory, AnUnknownRunLeavesEverythingAsItWas) {
  begin(1, 1000, 500);
  begin(7, 2000);
  std::string before = readFile(file());
  EXPECT_EQ(complete(9, 1000 + 500 + kHalfYear), -6);
  EXPECT_EQ(statusLog(), "ERROR:  8344  Cannot find the desired backup record.\n");
  EXPECT_EQ(readFile(file()), before) << "what would have been purged is there again";
}

TEST_P(EitherHistory, AWrongMagicLeavesEverythingAsItWas) {
  begin(7, 1000);
  std::string before = readFile(file()) + std::string(sizeof(histrec), 'x');
  writeFile(file(), before);
  EXPECT_EQ(complete(7, 1000), -4);
  EXPECT_EQ(statusLog(), "ERROR:  8340  Parse error reading backup history.  Restoring copy.\n");
  EXPECT_EQ(readFile(file()), before);
}

TEST_P(EitherHistory, APartialTailIsDroppedWhenARunIsCompleted) {
  begin(7, 1000);
  writeFile(file(), readFile(file()) + "tail");
  EXPECT_EQ(complete(7, 1000), 0);
  EXPECT_EQ(readFile(file()).size(), sizeof(histrec));
  EXPECT_EQ(records()[0].status, 1);
}

TEST_P(EitherHistory, ACopyThatCannotBeMadeStopsBothChanges) {
  begin(7, 1000);
  std::string before = readFile(file());
  fs::remove(copy());
  block(copy());
  jobrun run = makeJob(8);
  captureStderr([&] { EXPECT_EQ(updateHist(&run, 2000), -1); });
  EXPECT_EQ(statusLog(), "ERROR:  8346  Cannot make a backup copy of the backup history file.\n");
  clearLogs();
  captureStderr([&] { EXPECT_EQ(complete(7, 1000), -1); });
  EXPECT_EQ(statusLog(), "ERROR:  8337  Cannot make a backup copy of the backup history file.\n");
  EXPECT_EQ(readFile(file()), before);
}

TEST_P(EitherHistory, AnUnusableHistoryIsReported) {
  block(file());
  jobrun run = makeJob(8);
  captureStderr([&] { EXPECT_EQ(updateHist(&run, 2000), -1) << "a folder cannot be copied"; });
  captureStderr([&] { EXPECT_EQ(complete(8, 2000), -1); });
}

// Runs body where files cannot grow beyond limit bytes, as on a full disk.
int onAFullDisk(rlim_t bytes, const std::function<int()> &body) {
  return support::exitOf(support::inChild([&] {
    signal(SIGXFSZ, SIG_IGN);
    struct rlimit limit = {bytes, bytes};
    setrlimit(RLIMIT_FSIZE, &limit);
    return body();
  }));
}

TEST_F(History, WhatCannotBeWrittenIsPutBackFromTheCopy) {
  begin(7, 1000);
  std::string before = readFile(file());
  int result = onAFullDisk(sizeof(histrec) + 50, [&] {
    jobrun run = makeJob(8);
    return updateHist(&run, 2000) == -4 ? 0 : 1;
  });
  EXPECT_EQ(result, 0);
  EXPECT_EQ(statusLog(), "ERROR:  8348  Failed to update backup history file\n");
  EXPECT_EQ(readFile(file()), before);
}

TEST_F(History, UnderSoundAFullDiskChangesNothing) {
  site("behaviour.stores = sound\n");
  begin(7, 1000);
  std::string before = readFile(file());
  struct stat status;
  ASSERT_EQ(stat(file().c_str(), &status), 0);
  timespec changed = status.st_ctim;
  captureStderr([&] {
    EXPECT_EQ(onAFullDisk(sizeof(histrec) + 50,
                          [&] {
                            jobrun run = makeJob(8);
                            return updateHist(&run, 2000) == -4 ? 0 : 1;
                          }),
              0);
  });
  EXPECT_NE(statusLog().find("ERROR:  8348"), std::string::npos);
  EXPECT_EQ(readFile(file()), before);
  ASSERT_EQ(stat(file().c_str(), &status), 0);
  EXPECT_EQ(status.st_ctim.tv_sec, changed.tv_sec) << "not even put back: it was never touched";
  EXPECT_EQ(status.st_ctim.tv_nsec, changed.tv_nsec);
}

TEST_F(History, UnderSoundAnAddedRunDropsTheTailOfAnInterruptedOne) {
  begin(7, 1000);
  writeFile(file(), readFile(file()) + "tail");
  site("behaviour.stores = sound\n");
  begin(8, 2000);
  EXPECT_EQ(readFile(file()).size(), 2 * sizeof(histrec));
  EXPECT_EQ(complete(8, 2000), 0);
}

TEST_F(History, UnderSoundTwoJobsAtOnceLoseNothing) {
  site("behaviour.stores = sound\n");
  auto jobs = [&](int job) {
    for (int i = 0; i < 20; i++) {
      jobrun run = makeJob(job);
      if (updateHist(&run, 1000 + i) != 0 || modHist(&run, 1000 + i, 1, i) != 0) return 1;
    }
    return 0;
  };
  fflush(nullptr);
  pid_t other = fork();
  if (other == 0) _exit(jobs(1));
  EXPECT_EQ(jobs(2), 0);
  int status;
  ASSERT_EQ(waitpid(other, &status, 0), other);
  EXPECT_EQ(support::exitOf(status), 0);
  std::vector<histrec> all = records();
  EXPECT_EQ(all.size(), 40U);
  for (const histrec &record : all) EXPECT_EQ(record.status, 1);
}

TEST_F(History, TimesBeyondAllReasonDoNotOverflow) {
  begin(7, 1000);
  std::vector<histrec> all = records();
  all.resize(3, all[0]);
  all[0].start = INT64_MAX;
  all[1].start = INT64_MIN;
  all[1].retention = INT64_MIN;
  all[2].start = 1000;
  all[2].retention = INT64_MAX;
  std::string bytes(reinterpret_cast<char *>(all.data()), all.size() * sizeof(histrec));
  writeFile(file(), bytes);
  EXPECT_EQ(complete(7, 1000), 0);
  EXPECT_EQ(records().size(), 2U) << "only the record before all time is past its retention";
}

// --- the listing ---

class Listing : public History {
 protected:
  void SetUp() override {
    HomeTest::SetUp();
    writeFile(path("var/tape/jobids/group"), "3:h1,h2:web\n4:h2:db\n5:h9:none\n");
  }
  std::string listed(std::string host) {
    return captureStderr([&] { result = dumpHostHist(host.data()); });
  }
  static std::string timeText(time_t when) {
    char text[64];
    ctime_r(&when, text);
    return std::string(text, strlen(text) - 1);
  }
  int result = -5;
};

TEST_F(Listing, ShowsTheRunsOfTheHostsGroups) {
  time_t now = time(nullptr);
  begin(7, now - 100, 1000);
  begin(8, now - 2000, 1000);
  ASSERT_EQ(complete(8, now - 2000, 1, 12345), 0);
  std::string expected = "7,3,4,0,1,1,2,5,0," + timeText(now - 100) + "\n8,3,4,1,0,1,2,5,12345," +
                         timeText(now - 2000) + "\n";
  EXPECT_EQ(listed("h1"), expected);
  EXPECT_EQ(result, 0);
  EXPECT_EQ(listed("h2"), expected);
  EXPECT_EQ(listed("h9"), "");
  EXPECT_EQ(result, 0);
}

TEST_F(Listing, OfAHostInNoGroupIsEmptyEvenWithoutAHistory) {
  EXPECT_EQ(listed("stranger"), "");
  EXPECT_EQ(result, 0);
  EXPECT_EQ(statusLog(), "");
}

TEST_F(Listing, WithoutAHistoryIsReported) {
  EXPECT_EQ(listed("h1"), "");
  EXPECT_EQ(result, -2);
  EXPECT_EQ(statusLog(), "ERROR:  Failed to open master copy of backup history.\n");
}

TEST_F(Listing, EndsAtADamagedRecord) {
  begin(7, 1000);
  std::string whole = readFile(file());
  writeFile(file(), whole + std::string(sizeof(histrec), 'x') + whole);
  std::string text = listed("h1");
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1);
  EXPECT_EQ(result, -4);
  EXPECT_EQ(statusLog(), "ERROR: Parse error reading backup history.  Restoring copy.\n");
}

TEST_F(Listing, EndsQuietlyAtAPartialRecord) {
  begin(7, 1000);
  writeFile(file(), readFile(file()) + "tail");
  std::string text = listed("h1");
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1);
  EXPECT_EQ(result, 0);
}

TEST_F(Listing, OfAStartThatHasNoDateShowsItsNumber) {
  begin(7, 1000);
  std::vector<histrec> all = records();
  all[0].start = INT64_MAX;
  writeFile(file(), std::string(reinterpret_cast<char *>(all.data()), sizeof(histrec)));
  EXPECT_EQ(listed("h1"), "7,3,4,0,1,1,2,5,0,9223372036854775807\n");
}

}  // namespace
