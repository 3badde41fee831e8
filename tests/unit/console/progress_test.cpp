// Progress records as jobs of any version leave them, and the lines that are made of them.
#include "console/progress.h"

#include <gtest/gtest.h>

#include "console/screen.h"

using namespace console;

namespace {

constexpr const char *kRecord =
    R"({"kind":"backup","job":7,"name":"daily","pid":1234,"state":"running","started":1000,"updated":1010,)"
    R"("ended":0,"drive":0,"tape":2,"volume":1,"level":0,"files":30,"bytes":1048576,"rate":104857,)"
    R"("expectedBytes":4194304,"result":null,"error":"","hosts":[)"
    R"({"host":"h1","state":"done","files":10,"bytes":524288,"rate":0,"error":""},)"
    R"({"host":"h2","state":"running","files":20,"bytes":524288,"rate":104857,"error":""},)"
    R"({"host":"h3","state":"waiting","files":0,"bytes":0,"rate":0,"error":""}]})";

Progress record() {
  return parseProgress(kRecord).value();
}

Progress ended(const char *state) {
  Progress progress = record();
  progress.state = state;
  progress.updated = progress.ended = 1060;
  for (HostProgress &host : progress.hosts) host.state = "done";
  return progress;
}

bool contains(const std::string &text, const std::string &part) {
  return text.find(part) != text.npos;
}

}  // namespace

TEST(ProgressRecord, IsReadWhole) {
  Progress progress = record();
  EXPECT_EQ(progress.kind, "backup");
  EXPECT_EQ(progress.job, 7);
  EXPECT_EQ(progress.name, "daily");
  EXPECT_EQ(progress.pid, 1234);
  EXPECT_TRUE(progress.running());
  EXPECT_EQ(progress.started, 1000);
  EXPECT_EQ(progress.updated, 1010);
  EXPECT_EQ(progress.tape, 2);
  EXPECT_EQ(progress.files, 30u);
  EXPECT_EQ(progress.bytes, 1048576u);
  EXPECT_EQ(progress.expectedBytes, 4194304u);
  EXPECT_FALSE(progress.result.has_value());
  ASSERT_EQ(progress.hosts.size(), 3u);
  EXPECT_EQ(progress.hosts[1].host, "h2");
  EXPECT_EQ(progress.hosts[1].rate, 104857u);
}

TEST(ProgressRecord, WhatIsNoneIsRefused) {
  for (const char *text : {"", "{", "[]", "7", "null", "{}", R"({"state":"running"})",
                           R"({"started":5})", R"({"state":7,"started":5})"})
    EXPECT_FALSE(parseProgress(text).has_value()) << text;
}

TEST(ProgressRecord, MembersOfAnotherTypeKeepTheirDefaults) {
  std::optional<Progress> progress = parseProgress(
      R"({"state":"running","started":5,"files":-3,"bytes":"many","rate":1e300,"hosts":[1,{"host":[]}],"result":"x"})");
  ASSERT_TRUE(progress.has_value());
  EXPECT_EQ(progress->files, 0u);
  EXPECT_EQ(progress->bytes, 0u);
  EXPECT_EQ(progress->rate, 0u);
  EXPECT_FALSE(progress->result.has_value());
  ASSERT_EQ(progress->hosts.size(), 1u);
  EXPECT_EQ(progress->hosts[0].host, "");
}

TEST(ProgressRecord, LiesBesideTheStatusFile) {
  EXPECT_EQ(progressPath("backup", "7"), "var/tape/jobids/7.status.progress");
  EXPECT_EQ(progressPath("replication", "3"), "var/tape/jobids/replicate.3.stat.progress");
  EXPECT_EQ(progressPath("restore", "0"), "var/tape/restore.serv.progress");
  EXPECT_EQ(progressPath("verify", ""), "var/tape/verify.status.progress");
  EXPECT_EQ(progressPath("dream", "1"), "");
}

TEST(WantedRun, TheRecordFromBeforeTheRequestIsNever) {
  RunWanted wanted;
  wanted.begun = 1005;
  wanted.previous = RunWanted::Previous{1000, 1234};
  EXPECT_FALSE(isWanted(record(), wanted));
  Progress next = record();
  next.pid = 1235;
  EXPECT_TRUE(isWanted(next, wanted)) << "a run in the same second has another process";
  next.pid = 1234;
  next.started = 1001;
  EXPECT_TRUE(isWanted(next, wanted)) << "a process number may come again";
}

TEST(WantedRun, SinceAsksForTheStart) {
  RunWanted wanted;
  wanted.begun = 2000;
  wanted.since = 1001;
  EXPECT_FALSE(isWanted(record(), wanted)) << "an older run, though it still goes on";
  wanted.since = 1000;
  EXPECT_TRUE(isWanted(record(), wanted));
  EXPECT_TRUE(isWanted(ended("done"), wanted)) << "it may have ended long ago";
}

TEST(WantedRun, WithoutAWishARunningOneIsMeantAndOneThatHasJustEnded) {
  RunWanted wanted;
  wanted.begun = 5000;
  EXPECT_TRUE(isWanted(record(), wanted));
  wanted.begun = 1070;
  EXPECT_TRUE(isWanted(ended("done"), wanted));
  wanted.begun = 1071;
  EXPECT_FALSE(isWanted(ended("done"), wanted)) << "yesterday's result is not today's";
}

TEST(TimeLeft, FollowsTheMeanPace) {
  EXPECT_EQ(secondsLeft(record()), 30);
}

TEST(TimeLeft, IsUnknownWithoutAGoalOrBeyondIt) {
  Progress progress = record();
  progress.expectedBytes = 0;
  EXPECT_EQ(secondsLeft(progress), -1);
  progress.expectedBytes = progress.bytes;
  EXPECT_EQ(secondsLeft(progress), -1);
  progress = record();
  progress.bytes = 0;
  EXPECT_EQ(secondsLeft(progress), -1);
}

TEST(Bar, ShowsTheShareOfTheGoal) {
  EXPECT_EQ(drawBar(record(), 22), "[#####---------------]  25 %");
}

TEST(Bar, IsFullOnlyWhenTheJobIsDone) {
  Progress progress = record();
  progress.bytes = progress.expectedBytes * 2;
  EXPECT_EQ(drawBar(progress, 22), "[###################-]  99 %");
  EXPECT_EQ(drawBar(ended("done"), 22), "[####################] 100 %");
}

TEST(Bar, IsLeftOutWithoutAGoal) {
  Progress progress = record();
  progress.expectedBytes = 0;
  EXPECT_EQ(drawBar(progress, 22), "");
}

TEST(Total, NamesFilesBytesRateAndTimes) {
  EXPECT_EQ(totalText(record()),
            "30 files, 1.0 MiB of about 4.0 MiB, 102.4 KiB/s, 0:00:10, 0:00:30 left");
  EXPECT_EQ(totalText(ended("done")), "30 files, 1.0 MiB, 0:01:00");
}

TEST(Drawing, HasAHeadATotalAndALineForEachHost) {
  std::vector<std::string> lines = drawProgress(record(), 100, 24);
  ASSERT_EQ(lines.size(), 5u);
  EXPECT_EQ(lines[0], "backup 7 (daily)  level 0  drive 0  tape 2  volume 1  running");
  EXPECT_TRUE(contains(lines[1], "25 %"));
  EXPECT_TRUE(contains(lines[2], "h2")) << "running hosts come before those that wait or are done";
  EXPECT_TRUE(contains(lines[3], "h3"));
  EXPECT_TRUE(contains(lines[4], "h1"));
}

TEST(Drawing, FitsTheTerminal) {
  Progress progress = record();
  progress.name = "ein sehr langer Name für größere Läufe mit Umlauten und noch mehr";
  for (int at = 0; at < 100; at++)
    progress.hosts.push_back({"host" + std::to_string(at), "waiting", 0, 0, 0, ""});
  for (int width : {1, 20, 40, 80, 200})
    for (int height : {1, 5, 24}) {
      std::vector<std::string> lines = drawProgress(progress, width, height);
      EXPECT_LE(lines.size(), static_cast<size_t>(std::max(height - 1, 4)));
      for (const std::string &line : lines) {
        size_t columns = 0;
        for (char byte : line) columns += (byte & 0xc0) != 0x80;
        EXPECT_LT(columns, static_cast<size_t>(std::max(width, 20)));
      }
    }
}

TEST(Drawing, HostsThatDoNotFitAreCounted) {
  Progress progress = record();
  for (int at = 0; at < 10; at++)
    progress.hosts.push_back({"w" + std::to_string(at), "waiting", 0, 0, 0, ""});
  progress.hosts.push_back({"bad", "failed", 0, 0, 0, "login refused"});
  std::vector<std::string> lines = drawProgress(progress, 100, 8);
  EXPECT_TRUE(contains(lines[2], "bad")) << "who needs attention comes first";
  EXPECT_TRUE(contains(lines[2], "login refused"));
  EXPECT_EQ(lines.back(), "  and 10 more hosts: 11 waiting, 1 done in all");
}

TEST(Drawing, TextsOfOthersAreHarmless) {
  Progress progress = record();
  progress.name = "\x1b[2J";
  progress.hosts[0].error = "\x9b\n";
  for (const std::string &line : drawProgress(progress, 200, 24))
    for (char byte : line) EXPECT_FALSE(byte == '\x1b' || byte == '\n' || byte == '\x9b') << line;
}

TEST(Changes, TheFirstRecordTellsTheStartAndAllHosts) {
  std::vector<std::string> lines = describeChange(nullptr, record());
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_TRUE(contains(lines[0], "pid 1234"));
  EXPECT_EQ(lines[1], "host h1: done, 10 files, 512.0 KiB");
  EXPECT_EQ(lines[2], "host h2: running");
}

TEST(Changes, LaterRecordsTellWhichHostsChanged) {
  Progress before = record(), now = record();
  EXPECT_TRUE(describeChange(&before, now).empty());
  now.bytes += 100;
  EXPECT_TRUE(describeChange(&before, now).empty()) << "amounts alone are no news";
  now.hosts[1].state = "failed";
  now.hosts[1].error = "no route";
  std::vector<std::string> lines = describeChange(&before, now);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0], "host h2: failed, 20 files, 512.0 KiB, no route");
}

TEST(Ends, TellHowManyHostsAreDone) {
  EXPECT_EQ(describeEnd(ended("done")),
            std::vector<std::string>{"done, 3 of 3 hosts, 30 files, 1.0 MiB, 0:01:00"});
}

TEST(Ends, OfFailedJobsNameResultAndError) {
  Progress progress = ended("failed");
  progress.hosts[0].state = "failed";
  progress.result = -993;
  progress.error = "one host failed";
  std::vector<std::string> lines = describeEnd(progress);
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0], "failed, 2 of 3 hosts, 30 files, 1.0 MiB, 0:01:00");
  EXPECT_EQ(lines[1], "the job ended with -993");
  EXPECT_EQ(lines[2], "one host failed");
}

TEST(Ends, OfBackupsTellWhatWasNotSaved) {
  Progress progress =
      parseProgress(
          R"({"kind":"backup","job":7,"state":"done","started":1000,"updated":1002,"ended":1002,"hosts":[)"
          R"({"host":"h1","state":"done","unread":2,"absent":["/hom/"]},)"
          R"({"host":"h2","state":"done","unread":0,"absent":["/a\u001bb/","/hom/",7]},)"
          R"({"host":"h3","state":"done","unread":1,"absent":"none"}]})")
          .value();
  std::vector<std::string> lines = describeEnd(progress);
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_EQ(lines[1], "WARNING: nothing of /a\\x1bb/ came from h2; is it there?");
  EXPECT_EQ(lines[2], "WARNING: nothing of /hom/ came from h1, h2; is it there?");
  EXPECT_EQ(lines[3],
            "WARNING: 3 files cannot be read on h1, h3; for the names: "
            "zul get var/tape/jobids/7.status");
  HostProgress more = progress.hosts[0];
  for (const char *name : {"h4", "h5", "h6", "h7"}) {
    more.host = name;
    progress.hosts.push_back(more);
  }
  EXPECT_EQ(describeEnd(progress)[2],
            "WARNING: nothing of /hom/ came from h1, h2, h4, h5, h6 and 1 more host; is it there?");
}

TEST(Replications, NameFilesAndFoldersApart) {
  Progress progress =
      parseProgress(
          R"({"kind":"replication","job":5,"pid":5,"state":"done","started":1000,"updated":1002,)"
          R"("ended":1002,"files":5718,"folders":1083,"bytes":1048576,"hosts":[)"
          R"({"host":"h2","state":"done","files":1,"folders":0,"bytes":1048576}]})")
          .value();
  EXPECT_EQ(totalText(progress), "5718 files, 1083 folders, 1.0 MiB, 0:00:02");
  EXPECT_EQ(describeChange(nullptr, progress)[1], "host h2: done, 1 file, 0 folders, 1.0 MiB");
  std::vector<std::string> screen = drawProgress(progress, 100, 20);
  EXPECT_NE(screen[2].find("1 file       0 folders     1.0 MiB"), std::string::npos) << screen[2];
}

TEST(Restores, HaveABarByPackagesAndNameTheDestination) {
  Progress progress =
      parseProgress(
          R"({"kind":"restore","pid":5,"state":"running","started":1000,"updated":1002,"ended":0,)"
          R"("drive":0,"tape":0,"volume":1,"host":"h2","destination":"/back","wantedPackages":10,)"
          R"("packages":5,"files":5,"bytes":2048,"rate":1024,"result":null,"error":""})")
          .value();
  EXPECT_EQ(jobText(progress), "restore (to h2:/back)");
  EXPECT_EQ(drawBar(progress, 22), "[##########----------]  50 %");
}

TEST(Restores, TellWhatFailedAndWhatWasNotOnTheTape) {
  Progress progress = ended("failed");
  progress.hosts.clear();
  progress.failed = 1;
  progress.missing = 2;
  std::vector<std::string> lines = describeEnd(progress);
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[1], "1 file failed");
  EXPECT_EQ(lines[2], "2 files not on the tape");
  // Not twice; but why one ended before its time is told behind the numbers.
  progress.result = 0;
  progress.error = "1 files failed, 2 were not found on tape";
  EXPECT_EQ(describeEnd(progress).size(), 3u);
  progress.result = -1;
  progress.error = "the destination broke off";
  EXPECT_EQ(describeEnd(progress).back(), "the destination broke off");
}

TEST(Verifications, TellHowManyProblemsWereFound) {
  Progress progress = ended("failed");
  progress.problems = 3;
  EXPECT_EQ(describeEnd(progress).back(), "3 problems found");
}
