// Reading a volume back: what is found whole, and what is complained about.
#include "tape/verify.h"

#include <fstream>

#include "base/hash.h"
#include "tape/volumelist.h"
#include "tapes.h"

using support::captureStderr;
using support::exists;
using support::readFile;
using support::writeFile;
using tapes::blocksOf;
using tapes::File;
using tapes::pattern;

namespace {

class Verify : public tapes::TapeTest {
 protected:
  // The volume as a backup leaves it: tape, catalog, list of packages and digests.
  void writeVolume(const std::vector<File> &written) {
    files = written;
    std::string texts(CATLG_STRINGS, '\0');
    writeFile(path("var/tape/drive.0/tape.3/catalog"), catalogRecord() + texts);
    tape::beginVolume(volumePath().c_str(), 1);
    std::string list;
    for (const File &file : files) {
      for (int sequence = 0; sequence < tapes::packagesOf(file); sequence++) {
        int entry = tape::beginPackage(0, tapes::headerOf(file, sequence));
        std::string segment =
            file.data.substr(static_cast<size_t>(sequence) * PACK_CHUNK, PACK_CHUNK);
        tape::addData(0, segment.data(), segment.size());
        tape::endPackage(0);
        list += std::to_string(entry) + ":" + file.host + ":" + std::to_string(sequence) + ":" +
                file.name + "\n";
      }
    }
    EXPECT_TRUE(tape::endVolume());
    writeFile(volumePath(), list);
    writeTape(blocksOf(files));
  }
  void ordinaryVolume() {
    writeVolume({{"h", "/d/", "", 1},
                 {"h", "/d/big", pattern(PACK_CHUNK + 3000)},
                 {"h", "/d/mib", pattern(PACK_CHUNK, 2)},
                 {"h", "/d/empty", ""},
                 {"h", "/d/small", "small"}});
  }

  // The findings; "" when the volume is whole.
  std::string findings() {
    std::string said;
    support::inChild([&] {
      char words[] = "0 3 1";
      int result = goVerify(words);
      return result == 0 ? 0 : 1;
    });
    std::string progress = path("var/tape/verify.status.progress");
    EXPECT_TRUE(support::eventually([&] {
      std::string text = readFile(progress);
      return text.find("\"state\":\"done\"") != text.npos ||
             text.find("\"state\":\"failed\"") != text.npos;
    }));
    whole = readFile(progress).find("\"state\":\"done\"") != std::string::npos;
    EXPECT_EQ(exists(volumePath(".verified")), whole);
    std::ifstream status(path("var/tape/verify.status"));
    std::string problems;
    for (std::string line; std::getline(status, line);) {
      if (line.find("VERIFIED:  ") != line.npos) last = line;
      if (line.rfind("PROBLEM:  ", 0) == 0) problems += line.substr(10) + "\n";
    }
    unlink(progress.c_str());
    return problems;
  }

  std::vector<File> files;
  std::string last;
  bool whole = false;
};

TEST_F(Verify, AVolumeAsItWasWrittenIsWhole) {
  ordinaryVolume();
  EXPECT_EQ(findings(), "");
  EXPECT_TRUE(whole);
  EXPECT_EQ(last, "VERIFIED:  drive 0, tape 3, volume 1: 7 packages, 5 files, " +
                      std::to_string(2 * PACK_CHUNK + 3005) + " bytes, " +
                      (base::Hash::available() ? "4" : "0") + " digests compared, 0 problems");
}

TEST_F(Verify, AFlippedByteIsNamedWithItsFile) {
  ASSERT_TRUE(base::Hash::available());
  ordinaryVolume();
  files[1].data[70000] ^= 1;
  writeTape(blocksOf(files));
  std::string problems = findings();
  EXPECT_EQ(problems.rfind("h:/d/big: content on tape is not what was backed up (digest ", 0), 0u)
      << problems;
  EXPECT_EQ(std::count(problems.begin(), problems.end(), '\n'), 1);
  EXPECT_FALSE(whole);
}

TEST_F(Verify, ALaterFailureTakesTheMarkAway) {
  ordinaryVolume();
  EXPECT_EQ(findings(), "");
  files.pop_back();
  writeTape(blocksOf(files));
  EXPECT_EQ(findings(), "the tape ends before 5:h:0:/d/small\n");
  EXPECT_FALSE(exists(volumePath(".verified")));
}

TEST_F(Verify, AFileThatTheListDoesNotKnowIsOneProblem) {
  ordinaryVolume();
  std::vector<File> more = files;
  more.insert(more.begin() + 2, File{"h", "/d/extra", ""});
  writeTape(blocksOf(more));
  std::string problems = findings();
  EXPECT_NE(problems.find(":0:/d/extra is on tape and not in the volume list here\n"),
            std::string::npos)
      << problems;
  EXPECT_EQ(problems.find("/d/small"), std::string::npos);
}

TEST_F(Verify, AFileThatIsNotOnTapeIsOneProblem) {
  ordinaryVolume();
  std::vector<File> fewer = files;
  fewer.erase(fewer.begin() + 3);
  writeTape(blocksOf(fewer));
  EXPECT_EQ(findings(),
            "block 263: 1 packages of the volume list are not on tape here, from 4:h:0:/d/empty "
            "on\n");
}

TEST_F(Verify, ATornPackageTakesNoOtherAlong) {
  ordinaryVolume();
  std::vector<std::string> blocks = blocksOf(std::vector<File>{files[0]});
  std::vector<std::string> torn = blocksOf(files[1], 0);
  torn.resize(10);
  tapes::append(blocks, torn);
  tapes::append(blocks, blocksOf(files[1], 1));
  tapes::append(blocks, blocksOf(std::vector<File>{files[2], files[3], files[4]}));
  writeTape(blocks);
  std::string problems = findings();
  EXPECT_NE(problems.find("h:/d/big breaks off: a block of another length\n"), std::string::npos);
  EXPECT_EQ(problems.find("/d/mib"), std::string::npos) << problems;
  EXPECT_EQ(problems.find("/d/small"), std::string::npos) << problems;
}

TEST_F(Verify, ABlockThatCannotBeReadIsToldAndTheRestIsRead) {
  ordinaryVolume();
  // Label, two reads of the catalog's file, then the data: a block within the first large file.
  ASSERT_EQ(drive::setFaults("d0", "read 20 EIO\n"), "");
  std::string problems = findings();
  EXPECT_NE(problems.find("breaks off: Input/output error\n"), std::string::npos) << problems;
  EXPECT_EQ(problems.find("/d/small"), std::string::npos) << problems;
}

TEST_F(Verify, AFileWithoutItsLastPackageIsNotComplete) {
  for (bool digests : {true, false}) {
    ordinaryVolume();
    if (!digests) unlink(volumePath(".sum").c_str());
    std::vector<std::string> blocks = blocksOf(files[1], 0);
    tapes::append(blocks, blocksOf(files[4], 0));
    writeTape(blocks);
    writeFile(volumePath(), "1:h:0:/d/big\n2:h:0:/d/small\n");
    EXPECT_EQ(findings(), "h:/d/big is not complete\n");
  }
}

TEST_F(Verify, WithoutDigestsContentsAreReadAndNotCompared) {
  ordinaryVolume();
  unlink(volumePath(".sum").c_str());
  EXPECT_EQ(findings(), "");
  EXPECT_TRUE(whole);
  EXPECT_NE(readFile(path("var/tape/verify.status")).find("NOTICE:  No digests were recorded"),
            std::string::npos);
}

TEST_F(Verify, AMissingVolumeListIsAProblem) {
  ordinaryVolume();
  unlink(volumePath().c_str());
  EXPECT_NE(findings().find("the volume list " + volumePath() + " is missing\n"),
            std::string::npos);
}

TEST_F(Verify, ACatalogThatDiffersIsAProblem) {
  ordinaryVolume();
  std::string record = catalogRecord();
  record[5000] = 'x';
  writeFile(path("var/tape/drive.0/tape.3/catalog"), record + std::string(CATLG_STRINGS, '\0'));
  EXPECT_EQ(findings(), "the catalog copy on tape differs from the catalog\n");
}

TEST_F(Verify, AVolumeThatIsWrittenAnewLosesItsMark) {
  ordinaryVolume();
  EXPECT_EQ(findings(), "");
  ordinaryVolume();
  EXPECT_FALSE(exists(volumePath(".verified")));
}

TEST_F(Verify, AnotherTapeIsNotRead) {
  ordinaryVolume();
  char words[] = "0 4 1";
  std::string said = captureStderr([&] { EXPECT_EQ(goVerify(words), -1); });
  EXPECT_NE(said.find("ERROR:  8111  Please insert tape 4"), std::string::npos);
  char few[] = "0 4";
  said = captureStderr([&] { EXPECT_EQ(goVerify(few), 1); });
  EXPECT_EQ(said, "ERROR:  Insufficient arguments: verify DRIVE TAPE VOLUME\n");
}

}  // namespace
