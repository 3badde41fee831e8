// The replication jobs: tape/repljobs.cpp.
#include "storestest.h"

namespace {

constexpr const char *kIndex = "var/tape/jobids/repljobs";

class ReplJobs : public Stores {};
class EveryReplJobs : public BothStores {
 protected:
  std::string listed() {
    run([] { return getRepids(); });
    return said;
  }
};
IN_BOTH_BEHAVIOURS(EveryReplJobs);

TEST_P(EveryReplJobs, AddStoresTheFieldsAndTheListingShowsThem) {
  run(addRepids, "5:1:4:100:200:4096:420:8:2:whatever:/dest:web");
  EXPECT_EQ(result, 0);
  EXPECT_EQ(said, "");
  EXPECT_EQ(content(kIndex).size(), 580u);
  EXPECT_EQ(listed(), "5:1:4:100:200:4096:420:8:2:reserved:/dest:web\n");
  EXPECT_EQ(result, 0);
  EXPECT_EQ(statusLog(), "");
}

TEST_P(EveryReplJobs, FailuresGoToTheStatusLogAlone) {
  run(addRepids, "5:1:4:100:200:4096:420:8:2:reserved:/dest");
  EXPECT_EQ(result, -1);
  EXPECT_EQ(said, "");
  EXPECT_EQ(statusLog(), "ERROR:  8537  Insufficient arguments\n");
  clearLogs();
  run(modRepids, "5", "5:1:4:100:200:4096:420:8:2:reserved:/dest:web:more");
  EXPECT_EQ(result, -1);
  EXPECT_EQ(statusLog(), "ERROR:  8540  Insufficient arguments\n");
  clearLogs();
  EXPECT_EQ(listed(), "");
  EXPECT_EQ(result, -1);
  EXPECT_EQ(statusLog(), "ERROR:  8536  Cannot read jobid index\n");
  clearLogs();
  reprec job;
  run([&] { return readRepid(5, &job); });
  EXPECT_EQ(statusLog(), "ERROR:  8546  Cannot read jobid index file\n");
  clearLogs();
  run(addRepids, "5:1:4:100:200:4096:420:8:2:reserved:/dest:web");
  run([&] { return readRepid(6, &job); });
  EXPECT_EQ(result, -1);
  EXPECT_EQ(statusLog(), "ERROR:  8547  Cannot find desired jodid 6\n");
  EXPECT_EQ(said, "");
}

TEST_F(ReplJobs, StepsThatFailAreNamedInTheStatusLog) {
  run(modRepids, "5", "5:1:4:0:0:0:0:0:0:r:/dest:web");
  EXPECT_EQ(result, -1);
  EXPECT_EQ(statusLog(), "ERROR:  8541  Cannot make backup copy of index file\n");
  clearLogs();
  block(kIndex);
  run(addRepids, "5:1:4:0:0:0:0:0:0:r:/dest:web");
  EXPECT_EQ(result, -1);
  EXPECT_EQ(statusLog(), "ERROR:  8538  Cannot read jobid index\n");
  clearLogs();
  std::filesystem::remove(path(kIndex));
  forbidWriting(kIndex, "records");
  runAsNobody(modRepids, "5", "5:1:4:0:0:0:0:0:0:r:/dest:web");
  EXPECT_EQ(statusLog(), "ERROR:  8542  Cannot read jobid index\n");
  clearLogs();
  chmod(path(kIndex).c_str(), 0666);
  forbidReading("var/tape/jobids/repljobs.BAK");
  runAsNobody(modRepids, "5", "5:1:4:0:0:0:0:0:0:r:/dest:web");
  EXPECT_EQ(result, -1);
  EXPECT_EQ(statusLog(), "ERROR:  8543  Cannot read jobid index backup\n");
  EXPECT_EQ(said, "");
}

TEST_P(EveryReplJobs, ModReplacesEveryRecordAndSaysNothing) {
  run(addRepids, "5:1:0:0:0:0:0:0:0:r:/a:first");
  run(addRepids, "6:1:0:0:0:0:0:0:0:r:/b:other");
  run(addRepids, "5:2:0:0:0:0:0:0:0:r:/c:second");
  std::string before = content(kIndex);
  run(modRepids, "5", "5:3:8:0:0:0:0:0:0:r:/d:new");
  EXPECT_EQ(result, 0);
  EXPECT_EQ(said, "");
  EXPECT_EQ(content("var/tape/jobids/repljobs.BAK"), before);
  EXPECT_EQ(listed(),
            "5:3:8:0:0:0:0:0:0:reserved:/d:new\n"
            "6:1:0:0:0:0:0:0:0:reserved:/b:other\n"
            "5:3:8:0:0:0:0:0:0:reserved:/d:new\n");
}

TEST_P(EveryReplJobs, DelDropsTheRecordAndAnUnknownJobIsNoError) {
  run(addRepids, "5:1:0:0:0:0:0:0:0:r:/a:first");
  run(addRepids, "6:1:0:0:0:0:0:0:0:r:/b:other");
  run(delRepids, "5");
  EXPECT_EQ(result, 0);
  EXPECT_EQ(listed(), "6:1:0:0:0:0:0:0:0:reserved:/b:other\n");
  run(delRepids, "5");
  EXPECT_EQ(result, 0);
}

TEST_P(EveryReplJobs, LookUpFindsTheFirstOfTwo) {
  run(addRepids, "5:1:0:0:0:0:0:0:0:r:/a:first");
  run(addRepids, "5:2:0:0:0:0:0:0:0:r:/c:second");
  reprec job;
  EXPECT_EQ(readRepid(5, &job), 0);
  EXPECT_STREQ(job.dest, "/a");
  EXPECT_EQ(job.group, 1);
}

TEST_P(EveryReplJobs, TextsHave255Characters) {
  run(addRepids, "5:1:0:0:0:0:0:0:0:r:" + std::string(300, 'd') + ":" + std::string(300, 'n'));
  reprec job;
  EXPECT_EQ(readRepid(5, &job), 0);
  EXPECT_EQ(std::string(job.dest), std::string(255, 'd'));
  EXPECT_EQ(std::string(job.name), std::string(255, 'n'));
}

TEST_P(EveryReplJobs, TextsOfOthersThatFillTheirFieldAreListedBounded) {
  std::string record(580, '\0');
  record[4] = 5;
  record.replace(36, 256, std::string(256, 'n'));
  record.replace(292, 256, std::string(256, 'd'));
  put(kIndex, record + "partial");
  EXPECT_EQ(listed(), "5:0:0:0:0:0:0:0:0:reserved:" + std::string(256, 'd') + ":" +
                          std::string(256, 'n') + "\n");
}

TEST_F(ReplJobs, SoundNumbersOfJobAndGroupAreDecimal) {
  soundSite();
  run(addRepids, "five:1:0:0:0:0:0:0:0:r:/a:n");
  EXPECT_EQ(result, -1);
  EXPECT_EQ(said, "ERROR:  five is not a decimal number\n");
  run(addRepids, "5:web:0:0:0:0:0:0:0:r:/a:n");
  EXPECT_EQ(said, "ERROR:  web is not a decimal number\n");
  EXPECT_FALSE(exists(kIndex));
  run(delRepids, "x");
  EXPECT_EQ(result, -1);
}

}  // namespace
