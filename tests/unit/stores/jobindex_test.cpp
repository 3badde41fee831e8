// The job index and the backup lists: tape/jobindex.cpp.
#include "storestest.h"

namespace {

constexpr const char *kIndex = "var/tape/jobids/index";
constexpr const char *kBackup = "var/tape/jobids/index.BAK";

class JobIndex : public Stores {};
class EveryJobIndex : public BothStores {
 protected:
  std::string listed() {
    run([] { return getJobids(); });
    return said;
  }
};
IN_BOTH_BEHAVIOURS(EveryJobIndex);
class BackupLists : public Stores {};
class EveryBackupLists : public BothStores {};
IN_BOTH_BEHAVIOURS(EveryBackupLists);

TEST_P(EveryJobIndex, AddStoresTheFieldsAndTheListingShowsThem) {
  run(addJobids, "7:1:86400:0:3:99:daily");
  EXPECT_EQ(result, 0);
  EXPECT_EQ(said, "Added job: daily\n");
  EXPECT_EQ(content(kIndex).size(), 516u);
  EXPECT_EQ(listed(), "7:1:86400:0:3:0:daily\n");
}

TEST_P(EveryJobIndex, AddNeedsExactlySevenFields) {
  clearLogs();
  run(addJobids, "7:1:86400:0:3:0");
  EXPECT_EQ(result, -1);
  EXPECT_EQ(said, "ERROR:  8037  Insufficient arguments: 6\n");
  EXPECT_NE(hostLog().find("ERROR:  8037  Insufficient arguments\n"), std::string::npos);
  run(addJobids, "7:1:86400:0:3:0:dai:ly");
  EXPECT_EQ(said, "ERROR:  8037  Insufficient arguments: 8\n");
  EXPECT_FALSE(exists(kIndex));
}

TEST_F(JobIndex, ClassicTextThatIsNoNumberReadsAsZero) {
  run(addJobids, "x:one:12abc::-3:0:odd");
  EXPECT_EQ(result, 0);
  run([] { return getJobids(); });
  EXPECT_EQ(said, "0:0:12:0:-3:0:odd\n");
}

TEST_F(JobIndex, SoundNumbersOfJobGroupAndDriveAreDecimal) {
  soundSite();
  for (std::string text :
       {"x:1:0:0:0:0:n", "7:web:0:0:0:0:n", "7:1:0:lto:0:0:n", "-9:1:0:0:0:0:n"}) {
    run(addJobids, text);
    EXPECT_EQ(result, -1) << text;
    EXPECT_NE(said.find(" is not a decimal number\n"), std::string::npos);
  }
  EXPECT_FALSE(exists(kIndex));
  run(addJobids, "7:1:0:0:0:0:n");
  run(modJobids, "7", "-9999:1:0:0:0:0:n");
  EXPECT_EQ(result, 0) << "the record that stands for a deletion";
  EXPECT_EQ(content(kIndex), "");
}

TEST_P(EveryJobIndex, AMissingIndexIsSaidOnLogAndConsole) {
  clearLogs();
  EXPECT_EQ(listed(), "ERROR:  8036  Cannot read jobid index\n");
  EXPECT_EQ(result, -1);
  EXPECT_EQ(hostLog(), "ERROR:  8036  Cannot read jobid index\n");
  jobrec job;
  run([&] { return readJobid(7, &job); });
  EXPECT_EQ(said, "ERROR:  8046  Cannot read jobid index file\n");
  EXPECT_EQ(result, -1);
}

TEST_F(JobIndex, AddSaysWhenTheIndexCannotBeOpened) {
  block(kIndex);
  run(addJobids, "7:1:86400:0:3:0:daily");
  EXPECT_EQ(result, -1);
  EXPECT_EQ(said, "ERROR:  8038  Cannot read jobid index\n");
}

TEST_P(EveryJobIndex, LookUpFindsTheFirstOfTwo) {
  run(addJobids, "7:1:0:0:0:0:first");
  run(addJobids, "8:1:0:0:0:0:other");
  run(addJobids, "7:2:0:0:0:0:second");
  jobrec job;
  run([&] { return readJobid(7, &job); });
  EXPECT_EQ(result, 0);
  EXPECT_STREQ(job.name, "first");
  clearLogs();
  run([&] { return readJobid(9, &job); });
  EXPECT_EQ(result, -1);
  EXPECT_EQ(said, "ERROR:  8047  Cannot find desired jodid 9\n");
  EXPECT_EQ(hostLog(), said);
}

TEST_P(EveryJobIndex, ModReplacesEveryRecordOfTheNumber) {
  run(addJobids, "7:1:0:0:0:0:first");
  run(addJobids, "8:1:0:0:0:0:other");
  run(addJobids, "7:2:0:0:0:0:second");
  std::string before = content(kIndex);
  run(modJobids, "7", "9:3:5:1:2:0:new");
  EXPECT_EQ(result, 0);
  EXPECT_EQ(said, "Modified job: new\n");
  EXPECT_EQ(content(kBackup), before);
  EXPECT_EQ(listed(), "9:3:5:1:2:0:new\n8:1:0:0:0:0:other\n9:3:5:1:2:0:new\n");
}

TEST_P(EveryJobIndex, ModOfAnUnknownNumberSucceedsAndChangesNothing) {
  run(addJobids, "8:1:0:0:0:0:other");
  std::string before = content(kIndex);
  run(modJobids, "7", "7:3:5:1:2:0:new");
  EXPECT_EQ(result, 0);
  EXPECT_EQ(said, "Modified job: new\n");
  EXPECT_EQ(content(kIndex), before);
}

TEST_P(EveryJobIndex, DelDropsTheRecordAndConfirmsEvenWhatWasNotThere) {
  run(addJobids, "7:1:0:0:0:0:first");
  run(addJobids, "8:1:0:0:0:0:other");
  run(delJobids, "7");
  EXPECT_EQ(result, 0);
  EXPECT_EQ(said, "Modified job: Delete Me\n");
  EXPECT_EQ(listed(), "8:1:0:0:0:0:other\n");
  run(delJobids, "7");
  EXPECT_EQ(result, 0);
  EXPECT_EQ(said, "Modified job: Delete Me\n");
}

TEST_P(EveryJobIndex, ModNeedsExactlySevenFields) {
  run(modJobids, "7", "7:1:0");
  EXPECT_EQ(result, -1);
  EXPECT_EQ(said, "ERROR:  8040  Insufficient arguments: 3\n");
  EXPECT_NE(hostLog().find("ERROR:  8040  Insufficient arguments\n"), std::string::npos);
}

TEST_F(JobIndex, ModSaysWhichStepFailed) {
  clearLogs();
  run(modJobids, "7", "7:1:0:0:0:0:n");
  EXPECT_EQ(said, "ERROR:  8041  Cannot make backup copy of index file\n");
  EXPECT_EQ(hostLog(), said);
  EXPECT_EQ(result, -1);

  forbidWriting(kIndex, "records");
  runAsNobody(modJobids, "7", "7:1:0:0:0:0:n");
  EXPECT_EQ(said, "ERROR:  8042  Cannot read jobid index\n");
  EXPECT_EQ(content(kIndex), "records");
  chmod(path(kIndex).c_str(), 0666);
  forbidReading(kBackup);
  runAsNobody(modJobids, "7", "7:1:0:0:0:0:n");
  EXPECT_EQ(result, -1);
  EXPECT_EQ(said, "ERROR:  8043  Cannot read jobid index backup\n");
  EXPECT_EQ(content(kIndex), "") << "it was opened first";
  EXPECT_EQ(content(kBackup), "records");
}

TEST_F(JobIndex, SoundIndexIsWholeWhateverStepFails) {
  soundSite();
  put(kIndex, "records");
  chmod(path(kIndex).c_str(), 0666);
  forbidReading(kBackup);
  runAsNobody(modJobids, "7", "7:1:0:0:0:0:n");
  EXPECT_EQ(result, -1);
  EXPECT_NE(said.find("ERROR:  8043  Cannot read jobid index backup\n"), std::string::npos);
  EXPECT_EQ(content(kIndex), "records");
}

TEST_P(EveryJobIndex, APartialRecordAtTheEndIsNoRecordAndGoesWithARewrite) {
  run(addJobids, "7:1:0:0:0:0:first");
  std::string whole = content(kIndex);
  put(kIndex, whole + whole.substr(0, 300));
  EXPECT_EQ(listed(), "7:1:0:0:0:0:first\n");
  jobrec job;
  run([&] { return readJobid(8, &job); });
  EXPECT_EQ(result, -1);
  run(modJobids, "8", "8:1:0:0:0:0:new");
  EXPECT_EQ(content(kIndex), whole);
}

TEST_F(JobIndex, SoundAddCutsAPartialRecordThatWouldSwallowTheNewOne) {
  soundSite();
  run(addJobids, "7:1:0:0:0:0:first");
  put(kIndex, content(kIndex) + "half a record");
  clearLogs();
  run(addJobids, "8:1:0:0:0:0:second");
  EXPECT_EQ(result, 0);
  run([] { return getJobids(); });
  EXPECT_EQ(said, "7:1:0:0:0:0:first\n8:1:0:0:0:0:second\n");
  EXPECT_EQ(hostLog(),
            "NOTICE:  " + path(kIndex) + " ended in a partial record, which was dropped\n");
}

TEST_P(EveryJobIndex, ANameOf256CharactersIsKeptAndListedWhole) {
  std::string name(256, 'n');
  run(addJobids, "7:1:0:0:0:0:" + name + "cut");
  EXPECT_EQ(said, "Added job: " + name + "\n");
  EXPECT_EQ(content(kIndex).substr(25, 256), name);
  EXPECT_EQ(content(kIndex)[281], '\0');
  EXPECT_EQ(listed(), "7:1:0:0:0:0:" + name + "\n");
}

TEST_P(EveryJobIndex, AFullDiskIsSaidWithTheNumberOfTheJob) {
  run(addJobids, "7:1:0:0:0:0:first");
  std::string before = content(kIndex);
  std::string told = path("tmp/told");
  EXPECT_EQ(onFullDisk(600,
                       [&] {
                         std::string entry = "8:1:0:0:0:0:second";
                         int code = 0;
                         std::string text =
                             support::captureStderr([&] { code = addJobids(entry.data()); });
                         bool named =
                             text.find("ERROR:  8039  Failed to update the jobid index for 8\n") !=
                                 std::string::npos ||
                             text.find("ERROR:  8038") != std::string::npos;
                         return code == -1 && named ? 7 : 8;
                       }),
            7);
  if (isSound()) {
    EXPECT_EQ(content(kIndex), before);
  }
  EXPECT_EQ(content(kIndex).substr(0, 516), before);
}

TEST_P(EveryBackupLists, AddAppendsTheRestOfTheLineAsOneEntry) {
  run(addBackupList, "7 /etc/");
  EXPECT_EQ(result, 0);
  run(addBackupList, "  7\t /a b");
  EXPECT_EQ(result, 0);
  EXPECT_EQ(said, "");
  EXPECT_EQ(content("var/tape/jobids/7"), "/etc/\n/a b\n");
}

TEST_P(EveryBackupLists, AddAndDelNeedTwoWords) {
  clearLogs();
  run(addBackupList, "7");
  EXPECT_EQ(result, -1);
  EXPECT_EQ(said, "ERROR:  8048  Insufficient arguments: 1\n");
  EXPECT_EQ(hostLog(), "ERROR:  8048  Insufficient arguments\n");
  clearLogs();
  run(delBackupList, "");
  EXPECT_EQ(said, "ERROR:  8051  Insufficient arguments: 0\n");
  EXPECT_EQ(hostLog(), "ERROR:  8051  Insufficient arguments\n");
}

TEST_P(EveryBackupLists, ListingShowsTheFileAndNothingOfAMissingOne) {
  put("var/tape/jobids/7", "/etc/\n/home\nlast");
  run(getBackupList, "7");
  EXPECT_EQ(result, 0);
  EXPECT_EQ(said, "/etc/\n/home\nlast");
  run(getBackupList, "8");
  EXPECT_EQ(result, 0);
  EXPECT_EQ(said, "");
}

TEST_P(EveryBackupLists, DelDropsTheLineAndKeepsTheCopy) {
  put("var/tape/jobids/7", "/etc\n/etc/ssh\n/et\n/etc\n");
  run(delBackupList, "7 /etc");
  EXPECT_EQ(result, 0);
  EXPECT_EQ(content("var/tape/jobids/7"), "/etc/ssh\n/et\n");
  EXPECT_EQ(content("var/tape/jobids/7.BAK"), "/etc\n/etc/ssh\n/et\n/etc\n");
  run(delBackupList, "7 /nowhere");
  EXPECT_EQ(result, 0);
  EXPECT_EQ(content("var/tape/jobids/7"), "/etc/ssh\n/et\n");
}

TEST_F(BackupLists, ClassicDelDropsALastLineThatIsTheBeginningOfTheEntry) {
  put("var/tape/jobids/7", "/home\n/etc");
  run(delBackupList, "7 /etc/ssh");
  EXPECT_EQ(result, 0);
  EXPECT_EQ(content("var/tape/jobids/7"), "/home\n");
}

TEST_F(BackupLists, SoundDelDropsOnlyTheEntryItself) {
  soundSite();
  put("var/tape/jobids/7", "/home\n/etc");
  run(delBackupList, "7 /etc/ssh");
  EXPECT_EQ(content("var/tape/jobids/7"), "/home\n/etc");
  run(delBackupList, "7 /etc");
  EXPECT_EQ(content("var/tape/jobids/7"), "/home\n");
}

TEST_F(BackupLists, SoundAddEndsALastLineThatHasNoLineFeed) {
  soundSite();
  put("var/tape/jobids/7", "/home\n/etc");
  run(addBackupList, "7 /usr");
  EXPECT_EQ(content("var/tape/jobids/7"), "/home\n/etc\n/usr\n");
}

TEST_F(BackupLists, StepsThatFailAreNamed) {
  clearLogs();
  run(delBackupList, "7 /etc");
  EXPECT_EQ(result, -1);
  EXPECT_EQ(said, "ERROR:  8052  Cannot make backup copy of backup list file\n");
  EXPECT_EQ(hostLog(), said);
  block("var/tape/jobids/8");
  run(addBackupList, "8 /etc");
  EXPECT_EQ(result, -1);
  EXPECT_EQ(said, "ERROR:  8049  Cannot read backup list # 8\n");
  forbidWriting("var/tape/jobids/9", "/etc\n");
  runAsNobody(delBackupList, "9 /etc");
  EXPECT_EQ(said, "ERROR:  8053  Cannot write backup list for job 9\n");
  EXPECT_EQ(content("var/tape/jobids/9"), "/etc\n");
  chmod(path("var/tape/jobids/9").c_str(), 0666);
  forbidReading("var/tape/jobids/9.BAK");
  runAsNobody(delBackupList, "9 /etc");
  EXPECT_EQ(result, -1);
  EXPECT_EQ(said, "ERROR:  8054  Cannot read backup list for job 9\n");
  EXPECT_EQ(content("var/tape/jobids/9"), "") << "it was opened first";
}

TEST_F(BackupLists, AFullDiskIsSaidWithTheNumberOfTheList) {
  put("var/tape/jobids/7", "/etc\n/home\n");
  put("tmp/said", "");
  EXPECT_EQ(
      onFullDisk(
          0,
          [&] {
            std::string entry = "7 /usr";
            int code = 0;
            std::string text;
            int pipes[2];
            if (pipe(pipes) != 0) return 9;
            // A pipe takes the messages, since no file can grow here.
            dup2(pipes[1], 2);
            code = addBackupList(entry.data());
            char line[4096];
            text.assign(
                line, static_cast<size_t>(std::max<ssize_t>(read(pipes[0], line, sizeof line), 0)));
            return code == -1 &&
                           text == "ERROR:  8050  Failed to update the backuplist for jobid 7\n"
                       ? 7
                       : 8;
          }),
      7);
}

TEST_F(BackupLists, WordsThatLeadElsewhereAreRefused) {
  put("etc/shadow", "secret\n");
  run(getBackupList, "../../../etc/shadow");
  EXPECT_EQ(said, "");
  EXPECT_EQ(result, 0);
  run(addBackupList, "../../../etc/shadow intruder");
  EXPECT_EQ(result, -1);
  EXPECT_EQ(said, "ERROR:  8049  Cannot read backup list # ../../../etc/shadow\n");
  run(delBackupList, "../../../etc/shadow secret");
  EXPECT_EQ(result, -1);
  EXPECT_EQ(content("etc/shadow"), "secret\n");
}

TEST_F(BackupLists, SoundListsAreThoseOfJobsOnly) {
  soundSite();
  put("var/tape/jobids/group", "1:alpha:web\n");
  run(addBackupList, "group /etc");
  EXPECT_EQ(result, -1);
  EXPECT_EQ(said, "ERROR:  group is not a decimal number\n");
  run(delBackupList, "group 1:alpha:web");
  EXPECT_EQ(result, -1);
  EXPECT_EQ(content("var/tape/jobids/group"), "1:alpha:web\n");
}

TEST_F(BackupLists, SoundAddRefusesAnEntryThatWouldBeReadInPieces) {
  soundSite();
  run(addBackupList, "7 /" + std::string(254, 'x'));
  EXPECT_EQ(said, "ERROR:  The entry is longer than 254 characters\n");
  EXPECT_FALSE(exists("var/tape/jobids/7"));
  run(addBackupList, "7 /" + std::string(253, 'x'));
  EXPECT_EQ(result, 0);
}

TEST_P(EveryBackupLists, LoadFillsTheSlotsInOrderAndEmptiesTheRest) {
  put("var/tape/jobids/7", "/etc/\n/home\r\nlast");
  char *slots[128];
  run([&] { return readBackupList(7, slots); });
  EXPECT_EQ(result, 0);
  EXPECT_STREQ(slots[0], "/etc/");
  EXPECT_STREQ(slots[1], "/home");
  EXPECT_STREQ(slots[2], "last");
  EXPECT_EQ(slots[1], slots[0] + 6) << "packed one behind the other";
  for (int slot = 3; slot < 128; slot++) EXPECT_STREQ(slots[slot], "");
  EXPECT_EQ(slots[127], slots[0] + 127 * 256);
}

TEST_P(EveryBackupLists, LoadOfAShorterListLeavesNothingOfTheLongerOne) {
  std::string longList;
  for (int line = 0; line < 128; line++) longList += std::string(254, 'x') + "\n";
  put("var/tape/jobids/7", longList);
  char *slots[128];
  clearLogs();
  EXPECT_EQ(readBackupList(7, slots), 0);
  EXPECT_EQ(std::string(slots[127]), std::string(254, 'x'));
  EXPECT_EQ(hostLog(), "");
  put("var/tape/jobids/8", "/a\n");
  EXPECT_EQ(readBackupList(8, slots), 0);
  EXPECT_STREQ(slots[0], "/a");
  for (int slot = 1; slot < 128; slot++) EXPECT_STREQ(slots[slot], "");
}

TEST_P(EveryBackupLists, LoadTakes128LinesAndSaysThatThereAreMore) {
  std::string list;
  for (int line = 0; line < 200; line++) list += "/" + std::to_string(line) + "\n";
  put("var/tape/jobids/7", list);
  char *slots[128];
  clearLogs();
  EXPECT_EQ(readBackupList(7, slots), 0);
  EXPECT_STREQ(slots[127], "/127");
  EXPECT_EQ(hostLog(), "NOTICE:  Backup list for job# 7: only its first 128 lines are used here\n");
}

TEST_P(EveryBackupLists, LoadTakesALineOf100000CharactersInPieces) {
  put("var/tape/jobids/7", std::string(100000, 'x') + "\n");
  char *slots[128];
  EXPECT_EQ(readBackupList(7, slots), 0);
  EXPECT_EQ(std::string(slots[127]), std::string(255, 'x'));
}

TEST_P(EveryBackupLists, LoadOfAMissingListIsSaid) {
  char *slots[128];
  clearLogs();
  run([&] { return readBackupList(7, slots); });
  EXPECT_EQ(result, -1);
  EXPECT_EQ(said, "ERROR:  8057  Cannot read backuplist for job# 7\n");
  EXPECT_EQ(hostLog(), said);
}

TEST_P(EveryBackupLists, LinesWithNulsAreKeptByADeletion) {
  std::string odd("/a\0b\n", 5);
  put("var/tape/jobids/7", odd + "/etc\n");
  run(delBackupList, "7 /etc");
  EXPECT_EQ(content("var/tape/jobids/7"), odd);
}

}  // namespace
