// Which packages a restore offers from a drive, and what it says of those it cannot.
#include "tape/restoreplan.h"

#include <algorithm>
#include <map>

#include "tape/restorereport.h"
#include "tapes.h"

using support::captureStderr;
using support::readFile;
using support::writeFile;
using tapes::blocksOf;
using tapes::File;
using tapes::pattern;

namespace {

class Plan : public tapes::TapeTest {
 protected:
  // What is offered for a restore list, "host:name/sequence=bytes", one after the other.
  std::vector<std::string> offered(const std::string &list, const std::string &refused = "") {
    writeFile(path("list"), list);
    FILE *file = fopen(path("list").c_str(), "r");
    int fd = openData();
    std::vector<std::string> words;
    tape::beginReport({0, 3, 1, "h", "/", 0});
    said = captureStderr([&] {
      tape::RestorePlan plan(fd, file);
      while (plan.next()) {
        const package &header = plan.header();
        words.push_back(std::string(header.fromhost) + ":" + header.filename + "/" +
                        std::to_string(header.sequence));
        content[header.filename] += std::string(plan.segment(), target_(header));
        if (refused == header.filename) plan.settle();
      }
    });
    whole = tape::endReport(0, "");
    drive::closeDrive(fd);
    fclose(file);
    return words;
  }
  static size_t target_(const package &header) {
    uint64_t left = header.size - static_cast<uint64_t>(header.sequence) * PACK_CHUNK;
    return left < PACK_CHUNK ? left : PACK_CHUNK;
  }
  void faults(const std::string &text) { ASSERT_EQ(drive::setFaults("d0", text), ""); }
  std::string results() const { return readFile(path("var/tape/restore.serv.results")); }
  using Words = std::vector<std::string>;

  std::string said;
  std::map<std::string, std::string> content;
  bool whole = false;
};

TEST_F(Plan, OffersWhatIsOnTheListInTapeOrder) {
  writeTape(blocksOf(std::vector<File>{{"a", "/1", "one"}, {"a", "/2", "two"}, {"a", "/3", ""}}));
  EXPECT_EQ(offered("#host=a\n/1\n/3\n"), (Words{"a:/1/0", "a:/3/0"}));
  EXPECT_EQ(content["/1"], "one");
  EXPECT_TRUE(whole);
  EXPECT_EQ(results(), "");
}

TEST_F(Plan, AnEmptyListOffersNothing) {
  writeTape(blocksOf(std::vector<File>{{"a", "/1", "one"}}));
  EXPECT_EQ(offered(""), Words{});
}

TEST_F(Plan, LargeFilesComePackageByPackage) {
  File big{"a", "/big", pattern(2 * PACK_CHUNK)}, odd{"a", "/odd", pattern(PACK_CHUNK + 1000)};
  writeTape(blocksOf(std::vector<File>{big, odd}));
  EXPECT_EQ(offered("#host=a\n/big\n/big\n/big\n/odd\n/odd\n"),
            (Words{"a:/big/0", "a:/big/1", "a:/big/2", "a:/odd/0", "a:/odd/1"}));
  EXPECT_EQ(content["/big"], big.data);
  EXPECT_EQ(content["/odd"], odd.data);
  EXPECT_TRUE(whole);
}

TEST_F(Plan, TheSamePathOfAnotherHostIsAnotherFile) {
  writeTape(blocksOf(std::vector<File>{
      {"a", "/etc/passwd", "a's"}, {"b", "/etc/passwd", "b's"}, {"c", "/etc/passwd", "c's"}}));
  EXPECT_EQ(offered("#host=b\n/etc/passwd\n"), Words{"b:/etc/passwd/0"});
  EXPECT_EQ(content["/etc/passwd"], "b's");
}

// A receiver joins what follows a file's first package, so packages of two hosts must not
// alternate.
TEST_F(Plan, HostsComeOneAfterTheOtherHoweverTheirPackagesAreMixed) {
  File a{"a", "/big", pattern(PACK_CHUNK + 5, 1)}, b{"b", "/big", pattern(PACK_CHUNK + 5, 2)};
  std::vector<std::string> blocks;
  for (int sequence : {0, 1})
    for (const File &file : {a, b}) tapes::append(blocks, blocksOf(file, sequence));
  writeTape(blocks);
  EXPECT_EQ(offered("#host=a\n/big\n#host=b\n/big\n#host=a\n/big\n#host=b\n/big\n"),
            (Words{"a:/big/0", "a:/big/1", "b:/big/0", "b:/big/1"}));
  EXPECT_EQ(content["/big"], a.data + b.data);
  EXPECT_TRUE(whole);
}

TEST_F(Plan, ANameThatIsNotOnTapeIsToldAndCostsNoOther) {
  writeTape(blocksOf(std::vector<File>{{"a", "/1", "one"}, {"a", "/3", "three"}}));
  EXPECT_EQ(offered("#host=a\n/1\n/2\n/3\n"), (Words{"a:/1/0", "a:/3/0"}));
  EXPECT_FALSE(whole);
  EXPECT_EQ(results(),
            "{\"host\":\"a\",\"path\":\"/2\",\"result\":\"missing\",\"error\":\"not found on "
            "tape\"}\n");
  EXPECT_NE(said.find("ERROR:  Not restored, not found on tape: /2\n"), std::string::npos);
}

TEST_F(Plan, ManyNamesThatAreNotOnTapeCostOneMoreReading) {
  writeTape(blocksOf(std::vector<File>{{"a", "/1", "one"}, {"a", "/2", "two"}}));
  std::string list = "#host=a\n";
  for (int at = 0; at < 1000; at++) list += "/none" + std::to_string(at) + "\n";
  EXPECT_EQ(offered(list + "/2\n"), Words{"a:/2/0"});
  EXPECT_NE(said.find("NOTICE:  Reading the volume again"), std::string::npos);
  EXPECT_EQ(said.find("NOTICE:  Reading the volume again"),
            said.rfind("NOTICE:  Reading the volume again"));
}

// A host that died in the middle of a package: its segment has fewer blocks than its header says.
TEST_F(Plan, APackageThatWasBrokenOffTakesNoOtherAlong) {
  File torn{"a", "/torn", pattern(100000)};
  std::vector<std::string> blocks = blocksOf(torn);
  blocks.resize(4);
  for (int at = 0; at < 20; at++)
    tapes::append(blocks, blocksOf(File{"b", "/f" + std::to_string(at), "x"}, 0));
  writeTape(blocks);
  std::string list = "#host=b\n";
  for (int at = 0; at < 20; at++) list += "/f" + std::to_string(at) + "\n";
  EXPECT_EQ(offered(list).size(), 20u) << said;
  EXPECT_TRUE(whole);
  // Wanted itself, it is not offered; what follows it is, in whichever order.
  Words words = offered("#host=a\n/torn\n#host=b\n/f0\n/f19\n");
  std::sort(words.begin(), words.end());
  EXPECT_EQ(words, (Words{"b:/f0/0", "b:/f19/0"}));
  EXPECT_EQ(results(),
            "{\"host\":\"a\",\"path\":\"/torn\",\"result\":\"failed\",\"error\":\"damaged on tape, "
            "or not all of it is there\"}\n");
}

TEST_F(Plan, BlocksThatBelongToNoPackageArePassedOver) {
  std::vector<std::string> blocks{"garbage", std::string(8192, 'g')};
  tapes::append(blocks, blocksOf(File{"a", "/1", "one"}, 0));
  blocks.push_back(std::string(520, 'g'));
  tapes::append(blocks, blocksOf(File{"a", "/2", "two"}, 0));
  writeTape(blocks);
  EXPECT_EQ(offered("#host=a\n/1\n/2\n"), (Words{"a:/1/0", "a:/2/0"}));
  EXPECT_NE(said.find("WARNING:  Passed over 2 blocks that belong to no package\n"),
            std::string::npos);
  EXPECT_TRUE(whole);
}

TEST_F(Plan, ABlockThatCannotBeReadOnceIsReadAgain) {
  writeTape(blocksOf(std::vector<File>{{"a", "/1", pattern(20000)}, {"a", "/2", "two"}}));
  faults("read 3 EIO\n");
  EXPECT_EQ(offered("#host=a\n/1\n/2\n"), (Words{"a:/2/0", "a:/1/0"}));
  EXPECT_EQ(content["/1"], pattern(20000));
  EXPECT_TRUE(whole) << results();
}

TEST_F(Plan, ADamagedFileIsNeverOffered) {
  // The second package of the file is not on tape at all.
  File big{"a", "/big", pattern(2 * PACK_CHUNK + 9)};
  std::vector<std::string> blocks = blocksOf(big, 0);
  tapes::append(blocks, blocksOf(big, 2));
  tapes::append(blocks, blocksOf(File{"a", "/2", "two"}, 0));
  writeTape(blocks);
  Words words = offered("#host=a\n/big\n/big\n/big\n/2\n");
  EXPECT_EQ(std::count(words.begin(), words.end(), "a:/big/2"), 0);
  EXPECT_EQ(std::count(words.begin(), words.end(), "a:/2/0"), 1);
  EXPECT_NE(results().find("\"path\":\"/big\",\"result\":\"failed\""), std::string::npos);
}

TEST_F(Plan, WhatTheReceiverRefusesIsPassedOverWithAllItsPackages) {
  writeTape(
      blocksOf(std::vector<File>{{"a", "/big", pattern(3 * PACK_CHUNK)}, {"a", "/2", "two"}}));
  EXPECT_EQ(offered("#host=a\n/big\n/big\n/big\n/big\n/2\n", "/big"),
            (Words{"a:/big/0", "a:/2/0"}));
  EXPECT_TRUE(whole);
}

TEST_F(Plan, NamesOnTapeAreComparedAsListsWriteThem) {
  writeTape(blocksOf(std::vector<File>{{"a", "/with\nline", "x"}, {"a", "/with:colon", "y"}}));
  EXPECT_EQ(offered("#host=a\n/with?line\n/with:colon\n").size(), 2u);
}

TEST_F(Plan, AListWithoutHostsTakesTheNameOfAnyHost) {
  writeTape(blocksOf(std::vector<File>{{"a", "/1", "one"}, {"b", "/2", "two"}}));
  EXPECT_EQ(offered("/1\n/2\n"), (Words{"a:/1/0", "b:/2/0"}));
}

TEST_F(Plan, ATapeThatCannotBeReadAtAllIsGivenUp) {
  writeTape(blocksOf(std::vector<File>{{"a", "/1", "one"}}));
  faults("read 1+ EIO\n");
  EXPECT_EQ(offered("#host=a\n/1\n"), Words{});
  EXPECT_FALSE(whole);
}

}  // namespace
