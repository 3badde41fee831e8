// The progress record of a backup job.
#include <string.h>
#include <unistd.h>

#include <regex>

#include "jobtest.h"
#include "tape/progress.h"

namespace {

class Progress : public jobtest::JobTest {
 protected:
  std::string field(const std::string &name) const {
    std::smatch found;
    std::string record = progressRecord();
    std::regex pattern("\"" + name + "\":(\"(?:[^\"\\\\]|\\\\.)*\"|[^,}\\]]*)");
    return std::regex_search(record, found, pattern) ? found[1].str() : "missing";
  }
  tape::JobProgress progress;
};

TEST_F(Progress, HasItsFieldsInOneLine) {
  progress.begin(7, "daily", 2, 1000);
  progress.setTape(1, 4, 9);
  progress.setExpected(5000);
  progress.setHosts(2);
  strcpy(progress.host(0).host, "alpha");
  strcpy(progress.host(1).host, "beta");
  progress.addPackage(0, true, 620);
  progress.addPackage(0, false, 1000);
  progress.addUnread(0);
  progress.setAbsent(0, {"/hom/", "/a\"b"});
  progress.hostChanged(0, tape::HostState::done);
  progress.hostChanged(1, tape::HostState::failed, "down");
  progress.finish(true, -993, "1 of 2 hosts failed");
  std::string record = progressRecord();
  record = std::regex_replace(record, std::regex("\"(updated|ended)\":[0-9]+"), "\"$1\":T");
  record = std::regex_replace(record, std::regex("\"rate\":[0-9]+"), "\"rate\":R");
  EXPECT_EQ(
      record,
      "{\"kind\":\"backup\",\"job\":7,\"name\":\"daily\",\"pid\":" + std::to_string(getpid()) +
          ",\"state\":\"failed\",\"started\":1000,\"updated\":T,\"ended\":T,\"drive\":1,\"tape\":4,"
          "\"volume\":9,\"level\":2,\"files\":1,\"bytes\":1620,\"rate\":R,\"expectedBytes\":5000,"
          "\"result\":-993,\"error\":\"1 of 2 hosts failed\",\"hosts\":["
          "{\"host\":\"alpha\",\"state\":\"done\",\"files\":1,\"bytes\":1620,\"rate\":R,"
          "\"error\":\"\",\"unread\":1,\"absent\":[\"/hom/\",\"/a\\\"b\"]},"
          "{\"host\":\"beta\",\"state\":\"failed\",\"files\":0,\"bytes\":0,\"rate\":R,"
          "\"error\":\"down\",\"unread\":0,\"absent\":[]}]}\n");
}

TEST_F(Progress, NamesSomeOfWhatIsAbsent) {
  progress.begin(7, "daily", 0, 1000);
  progress.setHosts(1);
  progress.setAbsent(0, std::vector<std::string>(50, "/x/"));
  progress.finish(false, 0, "");
  EXPECT_EQ(jobtest::count(progressRecord(), "\"/x/\""), 20);
}

TEST_F(Progress, IsRunningWithoutAResultUntilItEnds) {
  progress.begin(7, "daily", 0, 1000);
  EXPECT_EQ(field("state"), "\"running\"");
  EXPECT_EQ(field("result"), "null");
  EXPECT_EQ(field("ended"), "0");
  progress.finish(false, 0, "");
  EXPECT_EQ(field("state"), "\"done\"");
  EXPECT_EQ(field("result"), "0");
}

TEST_F(Progress, EscapesWhatIsNoText) {
  progress.begin(7, "a\"b\\c\n\xff\xc3\xa9", 0, 1000);
  EXPECT_EQ(field("name"), "\"a\\\"b\\\\c\\u000a\\ufffd\xc3\xa9\"");
}

TEST_F(Progress, IsReplacedAtMostTwiceASecondUnlessAHostChanges) {
  progress.begin(7, "daily", 0, 1000);
  progress.setHosts(1);
  EXPECT_FALSE(progress.refresh());
  progress.addPackage(0, true, 100);
  EXPECT_FALSE(progress.refresh());
  EXPECT_EQ(field("bytes"), "0");
  EXPECT_TRUE(support::eventually([&] { return progress.refresh(); }));
  EXPECT_EQ(field("bytes"), "100");
  progress.addPackage(0, true, 100);
  progress.hostChanged(0, tape::HostState::running);
  EXPECT_EQ(field("bytes"), "200");
}

TEST_F(Progress, LeavesNoTemporaryFile) {
  progress.begin(7, "daily", 0, 1000);
  EXPECT_FALSE(support::exists(path("var/tape/jobids/7.status.progress.new")));
}

TEST_F(Progress, ThatCannotBeWrittenDisturbsNobody) {
  rmdir(path("var/tape/jobids").c_str());
  progress.begin(7, "daily", 0, 1000);
  progress.finish(false, 0, "");
  EXPECT_EQ(statusLog() + hostLog(), "");
}

TEST_F(Progress, AnswersForHostsItHasNoRoomFor) {
  progress.begin(7, "daily", 0, 1000);
  progress.hostChanged(5, tape::HostState::failed, "no room");
  progress.addPackage(5, true, 100);
  EXPECT_EQ(field("hosts"), "[");
  EXPECT_FALSE(progress.anyHostFailed());
}

TEST_F(Progress, ThatNeverBeganWritesNothing) {
  progress.setHosts(1);
  progress.hostChanged(0, tape::HostState::done);
  progress.finish(false, 0, "");
  EXPECT_EQ(progressRecord(), "");
}

}  // namespace
