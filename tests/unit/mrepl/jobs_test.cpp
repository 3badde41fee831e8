// Job files of multicast replication: the parse, the requests, the upload, the start of a run.
#include <string.h>
#include <sys/stat.h>
#include <zul/fanout.h>
#include <zul/module.h>
#include <zul/mrepl.h>

#include <filesystem>

#include "support.h"
#include "upload.h"

using support::captureStderr;
using support::readFile;
using support::writeFile;

namespace {

class Jobs : public support::HomeTest {
 protected:
  void SetUp() override {
    HomeTest::SetUp();
    job = {};
  }
  void TearDown() override {
    cncfree(&job);
    HomeTest::TearDown();
  }
  std::string jobPath(const std::string &number) const {
    return path("var/tape/mrepljobs/mrepjob." + number);
  }
  // Parses text as job 5; what was said.
  std::string parse(const std::string &text) {
    cncfree(&job);
    job = {};
    writeFile(jobPath("5"), text);
    return captureStderr([&] { EXPECT_EQ(readMreplJobData(&job, 5), 0); });
  }
  std::string request(std::string line) {
    return captureStderr([&] { result = mreplicate(line.data()); });
  }
  std::string upload(const std::string &line, const std::string &lines,
                     const std::string &end = "UpLoAd_DoNe.\n") {
    std::string request = line;
    return support::withUpload(
        lines, end, [&] { result = mreplicate(request.data()); }, &rest);
  }
  static std::vector<std::string> texts(const strNode &list) {
    std::vector<std::string> found;
    const strNode *node = &list;
    for (; node->next; node = node->next) found.push_back(node->text ? node->text : "(none)");
    EXPECT_EQ(node->text, nullptr) << "a list ends with an empty node";
    return found;
  }
  using Texts = std::vector<std::string>;

  MreplJobData job;
  int result = 99;
  std::string rest;  // of an upload, not read
};

TEST_F(Jobs, TheKeywordsStandInTheirOrderAndAreClosedByNulls) {
  const char *keywords[] = {
      "Host:",        "Request:",   "Exclude:",  "Last:",    "HstGrp:",     "Xform:",
      "Description:", "Prefix:",    "IDnum:",    "Speed:",   "CntrlFlags:", "UserID:",
      "GroupID:",     "FilePerms:", "DirPerms:", "Protocol:"};
  mreplArg handlers[] = {argHost,      argRequest,  argExclude,     argLast,
                         argHostGroup, argXform,    argDescription, argPrefix,
                         argIDnum,     argSpeed,    argCntrlFlags,  argUserID,
                         argGroupID,   argFilePerm, argDirPerm,     argProtocol};
  for (int at = 0; at < 16; at++) {
    EXPECT_STREQ(cmdlist[at].keyword, keywords[at]);
    EXPECT_EQ(cmdlist[at].handler, handlers[at]);
  }
  EXPECT_EQ(cmdlist[16].keyword, nullptr);
  EXPECT_EQ(cmdlist[16].handler, nullptr);
}

TEST_F(Jobs, EveryKeywordFillsItsField) {
  EXPECT_EQ(
      parse("Host: h1\nRequest:/etc/\nExclude:\t /etc/keys\nLast: /x\nHstGrp: 2\nXform: /a /b\n"
            "Description: some free text\nPrefix: /backup\nIDnum: 3\nSpeed: 800\nCntrlFlags: 4\n"
            "UserID: 5\nGroupID: 6\nFilePerms: 0644\nDirPerms: 7\nProtocol: 3\n"),
      "");
  EXPECT_EQ(texts(job.hostList), Texts{"h1"});
  EXPECT_EQ(texts(job.requestList), Texts{"/etc/"});
  EXPECT_EQ(texts(job.excludeList), Texts{"/etc/keys"});
  EXPECT_EQ(texts(job.lastList), Texts{"/x"});
  EXPECT_STREQ(job.xformList.from, "/a");
  EXPECT_STREQ(job.xformList.to, "/b");
  EXPECT_EQ(job.xformList.next->from, nullptr);
  EXPECT_STREQ(job.description, "some free text");
  EXPECT_STREQ(job.prefix, "/backup");
  EXPECT_EQ(job.hostGroup, 2);
  EXPECT_EQ(job.idNum, 3);
  EXPECT_EQ(job.speed, 800);
  EXPECT_EQ(job.cntrlFlags, 4);
  EXPECT_EQ(job.userID, 5);
  EXPECT_EQ(job.groupID, 6);
  EXPECT_EQ(job.filePerms, 644) << "decimal, whatever it looks like";
  EXPECT_EQ(job.dirPerms, 7);
  EXPECT_EQ(job.protocol, 3);
}

TEST_F(Jobs, ListsGrowAndOtherValuesAreReplaced) {
  parse(
      "Host: b\nHost: a\nSpeed: 1\nPrefix: /x\nHost: b\nSpeed: 2\nPrefix: /y\nDescription: "
      "1\nDescription: 2\n");
  EXPECT_EQ(texts(job.hostList), (Texts{"b", "a", "b"}));
  EXPECT_EQ(job.speed, 2);
  EXPECT_STREQ(job.prefix, "/y");
  EXPECT_STREQ(job.description, "2");
}

TEST_F(Jobs, AnEmptyValueLeavesANumberAndIsATextOfItsOwn) {
  EXPECT_EQ(parse("Speed: 7\nSpeed:\nSpeed:   \nHost:\nHost:  \nProtocol:\nDescription:\n"), "");
  EXPECT_EQ(job.speed, 7);
  EXPECT_EQ(texts(job.hostList), (Texts{"", ""}));
  EXPECT_STREQ(job.description, "");
}

TEST_F(Jobs, OnlyLinesThatBeginWithAKeywordAreItems) {
  EXPECT_EQ(parse("# Host: a\n Host: b\nhost: c\nHost : d\n\nx\n#\nHosts: e\nHost:f"), "");
  EXPECT_EQ(texts(job.hostList), Texts{"f"});
}

TEST_F(Jobs, ControlCharactersGoFromTheEndAndBlanksStay) {
  parse("Description: text \t\r\n\nHost: a \r\r\n");
  EXPECT_STREQ(job.description, "text ");
  EXPECT_EQ(texts(job.hostList), Texts{"a "});
}

TEST_F(Jobs, NumbersAreCutToTheirWidthAndGarbageIsNought) {
  parse("Speed: 4294967298\nUserID: -5\nGroupID: x\nIDnum: 12 monkeys\n");
  EXPECT_EQ(job.speed, 2);
  EXPECT_EQ(job.userID, -5);
  EXPECT_EQ(job.groupID, 0);
  EXPECT_EQ(job.idNum, 12);
}

TEST_F(Jobs, AnUnknownProtocolIsStoredAndReported) {
  EXPECT_EQ(parse("Protocol: 7\nHost: a\n"), "NOTICE: Parse error\n");
  EXPECT_EQ(job.protocol, 7);
  EXPECT_EQ(texts(job.hostList), Texts{"a"});
  EXPECT_EQ(parse("Protocol: -1\n"), "NOTICE: Parse error\n");
  EXPECT_EQ(job.protocol, -1);
}

TEST_F(Jobs, ATransformWithoutABlankIsReported) {
  EXPECT_EQ(parse("Xform: /a\nHost: a\n"), "NOTICE: Parse error\n");
  EXPECT_EQ(job.xformList.next, nullptr);
  EXPECT_EQ(parse("Xform: /a \n"), "");
  EXPECT_STREQ(job.xformList.from, "/a");
  EXPECT_STREQ(job.xformList.to, "");
}

TEST_F(Jobs, BlanksBetweenTheWordsOfATransformBelongToTheSecondInClassicOnly) {
  parse("Xform: /a   /b c\n");
  EXPECT_STREQ(job.xformList.to, "  /b c");
  soundSite();
  parse("Xform: /a   /b c\n");
  EXPECT_STREQ(job.xformList.to, "/b c");
}

TEST_F(Jobs, ALongLineComesInPieces) {
  parse("Description: " + std::string(2030, 'x') + "Speed: 9\nHost: a\n");
  EXPECT_STREQ(job.description, std::string(2030, 'x').c_str());
  EXPECT_EQ(job.speed, 9) << "the second piece is a line of its own";
  EXPECT_EQ(texts(job.hostList), Texts{"a"});
}

TEST_F(Jobs, AJobThatIsNotThereCannotBeRead) {
  EXPECT_EQ(readMreplJobData(&job, 4), -1);
}

TEST_F(Jobs, ARecordCanBeReleasedTwice) {
  parse("Host: a\nXform: /a /b\nXform: /c /d\nDescription: x\nPrefix: y\n");
  cncfree(&job);
  EXPECT_EQ(job.hostList.next, nullptr);
  cncfree(&job);
}

// --- requests ---

TEST_F(Jobs, RequestsWithoutSenseAreRefused) {
  EXPECT_EQ(request(""), "ERROR:  8600 Insufficient arguments.\n");
  EXPECT_EQ(result, 1);
  EXPECT_EQ(request("   "), "ERROR:  8600 Insufficient arguments.\n");
  EXPECT_EQ(request("getx jobids"), "ERROR:  8601 Unknown command. >getx<\n");
  EXPECT_EQ(result, -1);
  EXPECT_EQ(request(" getx"), "ERROR:  8601 Unknown command.\n");
  EXPECT_EQ(result, -1);
  for (const char *line : {"get", "get jobid", "get jobidsx", "get jobidx 5", "set jobid",
                           "set jobids 5", "del jobid", "replicate", "mrepclntx", "Get jobids"})
    EXPECT_EQ(request(line).substr(0, 12), "ERROR:  8601") << line;
}

TEST_F(Jobs, TheListHoldsAllNumbers) {
  EXPECT_EQ(request("get jobids"), "\n");
  EXPECT_EQ(result, 0);
  writeFile(jobPath("3"), "");
  EXPECT_EQ(request("get jobids"), "3\n");
  EXPECT_EQ(request("get jobids and more"), "3\n");
  writeFile(path("var/tape/mrepljobs/mrepjob."), "");
  writeFile(path("var/tape/mrepljobs/mrepjobX.3"), "");
  writeFile(path("var/tape/mrepljobs/mrepjob"), "");
  std::string said = request("get jobids");
  EXPECT_TRUE(said == "3,0\n" || said == "0,3\n") << said;
}

TEST_F(Jobs, WithoutTheirFolderThereIsNoList) {
  std::string folder = path("var/tape/mrepljobs");
  std::filesystem::remove_all(folder);
  EXPECT_EQ(request("get jobids"),
            "ERROR:  8607 Replication job directory does not exist: " + folder + "/\n");
  EXPECT_EQ(result, -1);
  writeFile(folder, "");
  EXPECT_EQ(request("get jobids"),
            "ERROR:  8608 Replication job directory does not exist: " + folder + "/\n");
  EXPECT_EQ(result, -1);
}

TEST_F(Jobs, AJobIsPrintedInAFixedOrder) {
  writeFile(jobPath("5"),
            "Host: h1\nXform: /a /b\nLast: l\nHost: h2\nProtocol: 2\nRequest: /r/\nExclude: "
            "/e\nXform: /c \nSpeed: 1\n"
            "IDnum: 2\nCntrlFlags: 3\nUserID: 4\nGroupID: 5\nFilePerms: 6\nDirPerms: 7\nHstGrp: "
            "8\nPrefix: /p\n"
            "Description: d\n");
  std::string head =
      "Description: d\nPrefix: /p\nIDnum: 2\nSpeed: 1\nCntrlFlags: 3\nUserID: 4\nGroupID: "
      "5\nFilePerms: 6\n"
      "DirPerms: 7\nHstGrp: 8\n";
  std::string tail =
      "Exclude: /e\nRequest: /r/\nHost: h1\nHost: h2\nLast: l\nXform: /a /b\nXform: /c \n";
  EXPECT_EQ(request("get jobid 5"), head + tail);
  EXPECT_EQ(result, 0);
  soundSite();
  EXPECT_EQ(request("get jobid 5"), head + "Protocol: 2\n" + tail)
      << "nothing is lost on the way back";
}

TEST_F(Jobs, AnEmptyJobIsPrintedToo) {
  writeFile(jobPath("-7"), "");
  EXPECT_EQ(request("get jobid -7"),
            "Description:  \nPrefix: \nIDnum: 0\nSpeed: 0\nCntrlFlags: 0\nUserID: 0\nGroupID: "
            "0\nFilePerms: 0\n"
            "DirPerms: 0\nHstGrp: 0\n");
}

TEST_F(Jobs, APrintedSoundJobReadsBackTheSame) {
  soundSite();
  writeFile(jobPath("5"), "Host: h1\nProtocol: 2\nXform: /c \nDescription: d \n");
  std::string once = request("get jobid 5");
  writeFile(jobPath("6"), once);
  EXPECT_EQ(request("get jobid 6"), once);
}

TEST_F(Jobs, NumbersThatAreNoneAreRefused) {
  for (const char *number : {"0", "x", "0x5"}) {
    EXPECT_EQ(request("get jobid " + std::string(number)),
              "ERROR:  8603 Invalid replication jobid. jobid=0\n");
    EXPECT_EQ(result, -1);
    EXPECT_EQ(upload("set jobid " + std::string(number), ""),
              "ERROR:  8605 Invalid replication jobid. jobid=0\n");
    EXPECT_EQ(result, -1);
    EXPECT_EQ(request("del jobid " + std::string(number)),
              "ERROR:  8612 Invalid replication jobid. jobid=0\n");
    EXPECT_EQ(result, -1);
    EXPECT_EQ(request("replicate " + std::string(number)),
              "ERROR:  8609 Invalid replication jobid. jobid=0\n");
    EXPECT_EQ(result, -1);
  }
}

TEST_F(Jobs, AJobThatIsNotThereSaysSo) {
  EXPECT_EQ(request("get jobid 9"), "ERROR:  8602 Cannot open multicast replication job: 9\n");
  EXPECT_EQ(result, -1);
  EXPECT_EQ(request("del jobid 9"),
            "ERROR:  8613  Unable to delete replication job: " + jobPath("9") + "\n");
  EXPECT_EQ(result, -1);
  EXPECT_EQ(request("replicate 9"), "ERROR:  8611 Cannot open multicast replication job: 9\n");
  EXPECT_EQ(result, -1);
}

TEST_F(Jobs, ADeletedJobIsGone) {
  writeFile(jobPath("5"), "");
  EXPECT_EQ(request("del jobid 5"), "");
  EXPECT_EQ(result, 0);
  EXPECT_FALSE(support::exists(jobPath("5")));
}

// --- upload ---

class Upload : public Jobs, public testing::WithParamInterface<const char *> {
 protected:
  void SetUp() override {
    Jobs::SetUp();
    site(std::string("behaviour = ") + GetParam() + "\n");
  }
};
INSTANTIATE_TEST_SUITE_P(Both, Upload, testing::Values("classic", "sound"));

TEST_P(Upload, ReplacesTheJobByTheLinesBehindThePrompt) {
  writeFile(jobPath("5"), "Host: of before\n");
  std::string line = "set jobid 5";
  std::string said = support::withInput(
      "ZuL>Host: alpha\nHost: dropped\nZuL>\nZuL>Request: /x\r\nZuL\nUpLoAd_DoNe. now\nTAPE "
      "version\n",
      [&] { result = mreplicate(line.data()); }, &rest);
  EXPECT_EQ(said, "TRANSFER OK\nReplication Job data uploaded\n");
  EXPECT_EQ(result, 0);
  EXPECT_EQ(readFile(jobPath("5")), "Host: alpha\n\nRequest: /x\n");
  EXPECT_EQ(rest, "TAPE version\n") << "what follows is the next request";
}

TEST_P(Upload, TheConsolesOwnEndEndsItToo) {
  EXPECT_EQ(upload("set jobid 5", "Host: a\n", "ZuL_DoNe. 0\n"),
            "TRANSFER OK\nReplication Job data uploaded\n");
  EXPECT_EQ(readFile(jobPath("5")), "Host: a\n");
}

TEST_P(Upload, AJobThatCannotBeWrittenIsRefusedBeforeItIsSent) {
  std::filesystem::create_directory(jobPath("5"));
  std::string said = upload("set jobid 5", "Host: a\n");
  std::string wanted = "ERROR:  8604 Cannot write replication control file " + jobPath("5") + "\n";
  EXPECT_NE(said.find(wanted), std::string::npos) << said;
  EXPECT_EQ(said.find("TRANSFER OK"), std::string::npos);
  EXPECT_EQ(result, -2);
}

TEST_P(Upload, ASecondListOfJobsHoldsTheJobOnce) {
  upload("set jobid 5", "Host: a\n");
  EXPECT_EQ(request("get jobids"), "5\n");
}

TEST_F(Jobs, AnUploadThatEndsWithTheStreamIsStored) {
  EXPECT_EQ(upload("set jobid 5", "Host: a\n", ""), "TRANSFER OK\nReplication Job data uploaded\n");
  EXPECT_EQ(result, 0);
  EXPECT_EQ(readFile(jobPath("5")), "Host: a\n");
}

TEST_F(Jobs, ASoundJobIsNotReplacedByHalfAnUpload) {
  soundSite();
  writeFile(jobPath("5"), "Host: of before\n");
  EXPECT_EQ(upload("set jobid 5", "Host: a\n", ""),
            "TRANSFER OK\nERROR:  The upload ended without its end mark.\nERROR:  Job 5 is as it "
            "was before\n");
  EXPECT_EQ(result, -2);
  EXPECT_EQ(readFile(jobPath("5")), "Host: of before\n");
}

TEST_P(Upload, AFullDiskIsReported) {
  std::filesystem::remove(jobPath("5"));
  // /dev/full takes nothing; a sound store is no device and refuses at once.
  std::filesystem::create_symlink("/dev/full", jobPath("5"));
  std::string said = upload("set jobid 5", "Host: a\n");
  if (std::string(GetParam()) == "classic") {
    EXPECT_EQ(said,
              "TRANSFER OK\n\nERROR:  8606  Unable to write output.  File may be truncated!\n"
              "Replication Job data uploaded\n");
    EXPECT_EQ(result, 0);
  } else {
    EXPECT_EQ(result, -2);
  }
}

// --- runs ---

TEST_F(Jobs, AReceiverIsStartedWhateverFollowsTheWord) {
  // Without an interface for multicast it ends at once, and says so for itself.
  int status = support::inChild([&] {
    support::ownNetwork();
    char line[] = "mrepclnt x y";
    return mreplicate(line);
  });
  EXPECT_EQ(support::exitOf(status), 0);
}

}  // namespace
