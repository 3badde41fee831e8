// What the files of a tape host say about a volume.
#include "console/volume.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <zul/records.h>

using namespace console;

namespace {

std::string historyOf(int job, int64_t start, int status, int volume) {
  histrec record{};
  record.magic = PACK_MAGIC;
  record.job = job;
  record.start = start;
  record.status = status;
  record.volume = volume;
  return std::string(reinterpret_cast<char *>(&record), sizeof record);
}

TEST(History, TheNewestRunThatCameToItsEndIsChosen) {
  std::string bytes = historyOf(7, 100, 1, 1) + historyOf(8, 400, 1, 9) + historyOf(7, 200, 2, 3) +
                      historyOf(7, 300, 0, 5);
  auto runs = parseHistory(bytes);
  ASSERT_EQ(runs.size(), 4u);
  EXPECT_EQ(chooseRun(runs, 7, std::nullopt)->where.volume, 3);
  EXPECT_EQ(chooseRun(runs, 7, 199)->where.volume, 1);
  EXPECT_EQ(chooseRun(runs, 7, 200)->where.volume, 3);
  EXPECT_FALSE(chooseRun(runs, 7, 99));
  EXPECT_FALSE(chooseRun(runs, 9, std::nullopt));
}

TEST(History, EndsAtWhatIsNoRecord) {
  std::string one = historyOf(7, 100, 1, 1);
  EXPECT_EQ(parseHistory(one + std::string(184, 'x') + one).size(), 1u);
  EXPECT_EQ(parseHistory(one + one.substr(0, 183)).size(), 1u);
  EXPECT_TRUE(parseHistory("").empty());
}

TEST(Dates, AreReadAsLocalTime) {
  setenv("TZ", "UTC", 1);
  tzset();
  EXPECT_EQ(parseDate("2026-03-01"), 1772409599);
  EXPECT_EQ(parseDate("2026-03-01 17:20"), 1772385600);
  EXPECT_EQ(parseDate("2026-03-01 17:20:01"), 1772385601);
  EXPECT_EQ(parseDate("2026-03-01T17:20:01"), 1772385601);
  EXPECT_EQ(parseDate("@1772385600"), 1772385600);
  for (const char *text : {"", "@", "@x", "yesterday", "2026-03", "2026-02-30", "2026-03-01 25:00",
                           "2026-03-01 17:20 x"})
    EXPECT_FALSE(parseDate(text)) << text;
}

TEST(Labels, AreReadAndOthersRefused) {
  tapehead head{};
  head.magic = TAPEHEAD_MAGIC;
  memset(head.name, 'n', sizeof head.name);
  std::string bytes(reinterpret_cast<char *>(&head), sizeof head);
  EXPECT_EQ(parseLabel(bytes), std::string(256, 'n'));
  EXPECT_FALSE(parseLabel(bytes.substr(1)));
  EXPECT_FALSE(parseLabel("x" + bytes.substr(1)));
}

TEST(Catalogs, HoldARecordForEveryOddVolume) {
  auto recordOf = [](int job) {
    catlgstru record;
    memset(&record, 0, sizeof record);
    record.magic = CATLG_MAGIC;
    record.created = 1000 + job;
    record.jobnum = job;
    snprintf(record.label, sizeof record.label, "job%i", job);
    return std::string(reinterpret_cast<char *>(&record), CATLG_FIXED) + "/etc/" +
           std::string(CATLG_STRINGS, '\0');
  };
  std::string catalog = recordOf(4) + recordOf(5);
  EXPECT_EQ(findRecord(catalog, 1)->job, 4);
  EXPECT_EQ(findRecord(catalog, 3)->name, "job5");
  for (int volume : {-1, 0, 2, 5}) EXPECT_FALSE(findRecord(catalog, volume)) << volume;
  EXPECT_FALSE(findRecord(catalog.substr(0, 8300), 3));
  EXPECT_FALSE(findRecord("", 1));
}

TEST(VolumeLists, AreCutIntoFields) {
  std::optional<ListLine> line = cutListLine("12:alpha:3:/a:b/");
  ASSERT_TRUE(line);
  EXPECT_EQ(line->host, "alpha");
  EXPECT_EQ(line->sequence, 3);
  EXPECT_EQ(line->name, "/a:b/");
  EXPECT_TRUE(line->isFolder());
  EXPECT_EQ(line->path(), "/a:b");
  for (const char *text : {"", "1:a:0", "1:a:0:", "x:a:0:/f", "1:a:y:/f"})
    EXPECT_FALSE(cutListLine(text)) << text;
}

TEST(Digests, TellTheSizes) {
  std::optional<SumLine> line = cutSumLine("0123456789abcdef:alpha:4711:/a:b");
  ASSERT_TRUE(line);
  EXPECT_EQ(line->size, 4711u);
  EXPECT_EQ(line->name, "/a:b");
  for (const char *text : {"", "#xxh3-64", "1:a:-1:/f", "1:a:"})
    EXPECT_FALSE(cutSumLine(text)) << text;
}

TEST(Lines, AreCutHoweverTheyArrive) {
  for (size_t piece = 1; piece < 12; piece++) {
    std::string bytes = "one\n\ntwo three\nrest", heard;
    LineCutter cutter([&](std::string_view line) { heard += "[" + std::string(line) + "]"; });
    for (size_t at = 0; at < bytes.size(); at += piece) cutter.feed(bytes.substr(at, piece));
    cutter.finish();
    EXPECT_EQ(heard, "[one][][two three][rest]") << piece;
  }
}

}  // namespace
