// Transforms and the permission policy: tape/transforms.cpp.
#include "storestest.h"

namespace {

constexpr const char *kFile = "var/tape/jobids/trans.5";
constexpr const char *kBackup = "var/tape/jobids/trans.5.BAK";

class Transforms : public Stores {};
class EveryTransforms : public BothStores {
 protected:
  std::vector<char> buffer = std::vector<char>(9728);
  char *table[32];
};
IN_BOTH_BEHAVIOURS(EveryTransforms);

TEST_P(EveryTransforms, AddAppendsThePair) {
  run(addTrans, "5 /ab>/cd");
  EXPECT_EQ(result, 0);
  EXPECT_EQ(said, "");
  run(addTrans, "5 /a b>/cde");
  EXPECT_EQ(content(kFile), "/ab>/cd\n/a b>/cde\n");
}

TEST_F(Transforms, ClassicAddDropsPairsWhoseLengthsShareNoBit) {
  for (const char *pair : {"5 a>bb", "5 /a>/bbb", "5 /a>/bbbb", "5 /ab>"}) {
    run(addTrans, pair);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(said, "");
    EXPECT_EQ(content(kFile), "");
  }
}

TEST_F(Transforms, SoundAddTakesEveryPairWithAPrefix) {
  soundSite();
  for (const char *pair : {"5 a>bb", "5 /a>/bbb", "5 /ab>", "5 >/x"}) run(addTrans, pair);
  EXPECT_EQ(content(kFile), "a>bb\n/a>/bbb\n/ab>\n");
}

TEST_P(EveryTransforms, AddSaysWhatIsWrongWithItsWords) {
  run(addTrans, "5");
  EXPECT_EQ(result, -1);
  EXPECT_EQ(said, "ERROR:  Command syntax error\n");
  run(addTrans, "5 /ab");
  EXPECT_EQ(result, -1);
  EXPECT_EQ(said, "ERROR:  Command syntax error.  parse error in 2nd arg.  n=1, args=5\n");
  run(addTrans, "5 /ab>/cd>/ef>/gh");
  EXPECT_EQ(said, "ERROR:  Command syntax error.  parse error in 2nd arg.  n=3, args=5\n");
  block(kFile);
  if (!isSound()) {
    run(addTrans, "5 /ab>/cd");
    EXPECT_EQ(said, "ERROR:  Cannot create/append file: " + path(kFile) + "\n");
    EXPECT_EQ(result, -1);
  }
}

TEST_P(EveryTransforms, ListingShowsTheLinesButNoComments) {
  put(kFile, "# comment\n/ab>/cd\r\n/ef>/gh");
  run(getTrans, "5");
  EXPECT_EQ(result, 0);
  EXPECT_EQ(said, "/ab>/cd\n/ef>/gh\n");
  run(getTrans, "6");
  EXPECT_EQ(result, 0);
  EXPECT_EQ(said, "");
}

TEST_F(Transforms, ClassicModMatchesEveryLineThatBeginsWithThePrefix) {
  put(kFile, "#/a\n/a>/1\n/ab>/2\n/a/x>/3\n/b>/4\n");
  run(modTrans, "5", "/a /new>/N");
  EXPECT_EQ(result, 0);
  EXPECT_EQ(content(kFile), "#/a\n/new>/N\n/new>/N\n/new>/N\n/b>/4\n");
  EXPECT_EQ(content(kBackup), "#/a\n/a>/1\n/ab>/2\n/a/x>/3\n/b>/4\n");
}

TEST_F(Transforms, SoundModMatchesTheWholePrefix) {
  soundSite();
  put(kFile, "#/a\n/a>/1\n/ab>/2\n/a/x>/3\n/b>/4\n");
  run(modTrans, "5", "/a /new>/N");
  EXPECT_EQ(result, 0);
  EXPECT_EQ(content(kFile), "#/a\n/new>/N\n/ab>/2\n/a/x>/3\n/b>/4\n");
  EXPECT_EQ(content(kBackup), "#/a\n/a>/1\n/ab>/2\n/a/x>/3\n/b>/4\n");
}

TEST_F(Transforms, ClassicDelTakesLongerPrefixesToo) {
  put(kFile, "/a>/1\n/ab>/2\n/a/x>/3\n/b>/4\n");
  run([] { return delTrans("5", "/a"); });
  EXPECT_EQ(result, 0);
  EXPECT_EQ(content(kFile), "/b>/4\n");
}

TEST_F(Transforms, SoundDelTakesThePrefixAlone) {
  soundSite();
  put(kFile, "/a>/1\n/ab>/2\n/a b>/3\n/b>/4\n");
  run([] { return delTrans("5", "/a"); });
  EXPECT_EQ(result, 0);
  EXPECT_EQ(content(kFile), "/ab>/2\n/a b>/3\n/b>/4\n");
  run([] { return delTrans("5", "/a b"); });
  EXPECT_EQ(result, 0);
  EXPECT_EQ(content(kFile), "/ab>/2\n/b>/4\n");
}

TEST_P(EveryTransforms, ModAndDelWithoutAFileAreSaid) {
  clearLogs();
  run(modTrans, "5", "/a /new>/N");
  EXPECT_EQ(result, -1);
  std::string answer = "ERROR:  Cannot make copy of: " + path(kFile) + "\n";
  EXPECT_NE(said.find(answer), std::string::npos);
  run([] { return delTrans("5", "/a"); });
  EXPECT_EQ(result, -1);
  EXPECT_NE(said.find(answer + "ERROR:  Cannot delete entry: /a\n"), std::string::npos);
  if (!isSound()) {
    EXPECT_EQ(said, answer + "ERROR:  Cannot delete entry: /a\n");
  }
}

TEST_F(Transforms, ModSaysWhichStepFailed) {
  forbidWriting(kFile, "/a>/1\n");
  runAsNobody(modTrans, "5", "/a /new>/N");
  EXPECT_EQ(said, "ERROR:  Cannot create file: " + path(kFile) + "\n");
  chmod(path(kFile).c_str(), 0666);
  forbidReading(kBackup);
  runAsNobody(modTrans, "5", "/a /new>/N");
  EXPECT_EQ(result, -1);
  EXPECT_EQ(said, "ERROR:  Cannot read file: " + path(kBackup) + "\n");
}

TEST_P(EveryTransforms, ModSaysWhatIsWrongWithItsWords) {
  put(kFile, "/a>/1\n");
  run(modTrans, "5", "/a");
  EXPECT_EQ(result, -1);
  EXPECT_EQ(said, "ERROR:  Command syntax error\n");
  run(modTrans, "5", "/a /b");
  EXPECT_EQ(said, "ERROR:  Command syntax error.  parse error in 2nd arg\n");
  EXPECT_EQ(content(kFile), "/a>/1\n");
}

TEST_F(Transforms, ClassicDelOfAPrefixThatDoesNotFitIsRefused) {
  put(kFile, "/a>/1\n");
  std::string prefix(600, 'p');
  run([&] { return delTrans("5", prefix.c_str()); });
  EXPECT_EQ(result, -1);
  EXPECT_EQ(said, "ERROR:  Command syntax error\nERROR:  Cannot delete entry: " + prefix + "\n");
  EXPECT_EQ(content(kFile), "/a>/1\n");
}

TEST_F(Transforms, SoundJobNumbersAreDecimalAndEntriesFitALine) {
  soundSite();
  run(addTrans, "five /ab>/cd");
  EXPECT_EQ(said, "ERROR:  five is not a decimal number\n");
  run(modTrans, "five", "/ab /cd>/ef");
  EXPECT_EQ(said, "ERROR:  five is not a decimal number\n");
  run(addTrans, "5 /ab>" + std::string(600, 'x'));
  EXPECT_EQ(said, "ERROR:  The entry is longer than 510 characters\n");
  EXPECT_FALSE(exists(kFile));
}

TEST_P(EveryTransforms, LoadPairsPrefixAndReplacement) {
  put(kFile, "# comment\n/ab>/cd\n\nno pair here\n/ef>/gh>x\r\nx>y");
  run([&] { return readTransforms(5, buffer.data(), table); });
  EXPECT_EQ(result, 0);
  EXPECT_STREQ(table[0], "/ab");
  EXPECT_STREQ(table[1], "/cd");
  EXPECT_STREQ(table[2], "/ef");
  EXPECT_STREQ(table[3], "/gh>x");
  EXPECT_EQ(table[4], nullptr) << "a last line of three characters is too short";
  EXPECT_EQ(table[5], nullptr);
  EXPECT_EQ(said,
            "Exiting readTransforms\n"
            "transform[0] = /ab\ntransform[1] = /cd\ntransform[2] = /ef\ntransform[3] = /gh>x\n");
}

TEST_P(EveryTransforms, LoadOfAMissingFileIsAnEmptyTable) {
  table[0] = table[1] = buffer.data();
  run([&] { return readTransforms(5, buffer.data(), table); });
  EXPECT_EQ(result, 0);
  EXPECT_EQ(table[0], nullptr);
  EXPECT_EQ(table[1], nullptr);
  EXPECT_EQ(said, "");
}

TEST_P(EveryTransforms, LoadStopsAfter15Pairs) {
  std::string file;
  for (int pair = 0; pair < 20; pair++) file += "/p" + std::to_string(pair) + ">/r\n";
  put(kFile, file);
  run([&] { return readTransforms(5, buffer.data(), table); });
  EXPECT_STREQ(table[28], "/p14");
  EXPECT_EQ(table[30], nullptr);
  EXPECT_EQ(table[31], nullptr);
  EXPECT_EQ(statusLog(), "NOTICE:  Transforms of job 5: only the first 15 are used\n");
  // Without the rest files would go where they are not to go.
  EXPECT_EQ(result, isSound() ? -1 : 0);
}

TEST_P(EveryTransforms, LoadOf15PairsIsAllOfThem) {
  std::string file;
  for (int pair = 0; pair < 15; pair++) file += "/p" + std::to_string(pair) + ">/r\n";
  put(kFile, file + "# a comment\n\nno pair\n");
  run([&] { return readTransforms(5, buffer.data(), table); });
  EXPECT_STREQ(table[28], "/p14");
  EXPECT_EQ(table[30], nullptr);
  EXPECT_EQ(statusLog(), "");
  EXPECT_EQ(result, 0);
}

TEST_P(EveryTransforms, LoadStopsWhenItsBufferIsUsedUp) {
  // Lines without a pair take room as well.
  std::string file = "/a>/b\n";
  for (int line = 0; line < 30; line++) file += std::string(500, 'x') + "\n";
  put(kFile, file + "/c>/d\n");
  run([&] { return readTransforms(5, buffer.data(), table); });
  EXPECT_EQ(result, isSound() ? -1 : 0);
  EXPECT_STREQ(table[0], "/a");
  EXPECT_EQ(table[2], nullptr);
  EXPECT_EQ(statusLog(), "NOTICE:  Transforms of job 5: no room for more than 1 of them\n");
}

TEST_P(EveryTransforms, LoadOfALineThatEndsBehindTheBufferIsTheLast) {
  // Every line takes two bytes more than it has: behind these 18 one is left that just fits.
  std::string file;
  for (int line = 0; line < 17; line++) file += std::string(510, 'x') + "\n";
  file += std::string(492, 'y') + "\n";
  for (int line = 0; line < 3; line++) file += std::string(510, 'z') + "\n";
  put(kFile, file + "/c>/d\n");
  run([&] { return readTransforms(5, buffer.data(), table); });
  EXPECT_EQ(result, isSound() ? -1 : 0);
  EXPECT_EQ(table[0], nullptr);
  EXPECT_EQ(statusLog(), "NOTICE:  Transforms of job 5: no room for more than 0 of them\n");
}

TEST_P(EveryTransforms, LoadOfOddBytesStaysInItsBuffer) {
  put(kFile, std::string(100000, '>') + std::string("\n\0\0\0\n>\n>>>>\n", 12));
  run([&] { return readTransforms(5, buffer.data(), table); });
  EXPECT_EQ(result, isSound() ? -1 : 0);
}

// The policy lives as long as the process; each of these tests has a process of its own.
package asPolicy(const reprec &job, package header) {
  permctrl(1, const_cast<reprec *>(&job));
  EXPECT_EQ(permctrl(0, &header), 0);
  return header;
}
reprec policyJob() {
  reprec job{};
  job.owner = 500;
  job.grp = 600;
  job.dirpolicy = 0750;
  job.filepolicy = 0644;
  return job;
}
package headerOf(uint8_t type, uint32_t mode) {
  package header{};
  header.type = type;
  header.mode = mode;
  header.usrid = 1;
  header.grpid = 2;
  return header;
}

TEST(Policy, WithoutARecordNothingChanges) {
  EXPECT_EQ(support::exitOf(support::inChild([] {
              package header = headerOf(0, 0104755);
              permctrl(0, &header);
              return header.mode == 0104755 && header.usrid == 1 && header.grpid == 2 ? 7 : 8;
            })),
            7);
}

TEST(Policy, FilesAndDirectoriesGetTheirBitsOwnerAndGroup) {
  package file = asPolicy(policyJob(), headerOf(0, 0104755));
  EXPECT_EQ(file.mode, 0644u);
  EXPECT_EQ(file.usrid, 500u);
  EXPECT_EQ(file.grpid, 600u);
  package directory = asPolicy(policyJob(), headerOf(1, 0042777));
  EXPECT_EQ(directory.mode, 0750u);
  EXPECT_EQ(directory.usrid, 500u);
}

TEST(Policy, KeepFlagsHoldForFilesAndDirectories) {
  reprec job = policyJob();
  job.dirpolicy |= 1 << 12;
  EXPECT_EQ(asPolicy(job, headerOf(0, 0100751)).mode, 0100751u);
  EXPECT_EQ(asPolicy(job, headerOf(1, 0042777)).mode, 0042777u);
  EXPECT_EQ(asPolicy(job, headerOf(0, 0106755)).mode, 0102755u)
      << "set-user-id goes, set-group-id stays";
  job = policyJob();
  job.dirpolicy |= 1 << 13;
  EXPECT_EQ(asPolicy(job, headerOf(0, 0100751)).grpid, 2u);
  EXPECT_EQ(asPolicy(job, headerOf(1, 0040751)).usrid, 500u);
  job = policyJob();
  job.dirpolicy |= 1 << 14;
  EXPECT_EQ(asPolicy(job, headerOf(1, 0040751)).usrid, 1u);
  EXPECT_EQ(asPolicy(job, headerOf(0, 0100751)).grpid, 600u);
}

TEST(Policy, KeepFlagsOfTheFileWordHaveNoEffect) {
  reprec job = policyJob();
  job.filepolicy |= 7 << 12;
  package file = asPolicy(job, headerOf(0, 0100751));
  EXPECT_EQ(file.mode, 0644u);
  EXPECT_EQ(file.usrid, 500u);
  EXPECT_EQ(file.grpid, 600u);
}

TEST(Policy, SetUserIdIsKeptWithItsFlagAndThePermissions) {
  reprec job = policyJob();
  job.filepolicy |= 1 << 15;
  EXPECT_EQ(asPolicy(job, headerOf(0, 0104755)).mode, 0644u);
  job.dirpolicy |= 1 << 12;
  EXPECT_EQ(asPolicy(job, headerOf(0, 0104755)).mode, 0104755u);
}

TEST(Policy, OtherKindsLoseOnlySetUserId) {
  for (uint8_t type : {2, 3, 4, 5}) {
    package header = asPolicy(policyJob(), headerOf(type, 0126777));
    EXPECT_EQ(header.mode, 0122777u);
    EXPECT_EQ(header.usrid, 1u);
    EXPECT_EQ(header.grpid, 2u);
  }
}

}  // namespace
