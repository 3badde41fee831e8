// A header as it travels, by hand, before and after the job's transforms, permissions and prefix.
#include <gtest/gtest.h>
#include <string.h>
#include <zul/mrepl.h>

#include "goldenbytes.h"
#include "support.h"

using support::hex;

namespace {

std::string name(const std::string &path) {
  return path + std::string(256 - path.size(), '\0');
}

// What the three steps leave alone stands here once.
std::string header(const std::string &path, const char *type, const char *owned) {
  return hex("64456846") +           // "dEhF"
         name(path) +                //
         hex("000000") +             // reserved
         hex(type) +                 //
         hex(owned) +                // owner, group, mode
         hex("00000000") +           // reserved
         hex("6553f100 00000000") +  // modified 1700000000
         hex("6553f101 00000000") +  // read a second later
         hex("00000102 00000000") +  // 258 bytes
         hex("00000000") +           // no device
         std::string(28, '\0');
}

class GoldenNames : public support::HomeTest {
 protected:
  void TearDown() override {
    setXformDataStruct(nullptr);
    addPrefix(1, nullptr);
    HomeTest::TearDown();
  }
  // The job: /etc/hosts becomes /etc/hosts.master, all below /backup/; files belong to 258:772 and
  // get 0640, folders keep what they have.
  std::string pack(const std::string &before) {
    pairNode last = {};
    pairNode pair = {const_cast<char *>("/etc/hosts"), const_cast<char *>("/etc/hosts.master"),
                     &last};
    setXformDataStruct(&pair);
    char prefix[] = "/backup/";
    addPrefix(1, prefix);
    mfilehead words = {};
    words.owner = 258;
    words.group = 772;
    words.mode = 0640;
    modifyPerms(1, &words);
    words.mode = 4096 + 8192 + 16384;
    modifyPerms(2, &words);
    mfilehead rec;
    EXPECT_EQ(before.size(), sizeof rec);
    memcpy(&rec, before.data(), sizeof rec);
    xformPrefix(rec.name);
    modifyPerms(0, &rec);
    addPrefix(0, rec.name);
    setXformDataStruct(nullptr);
    return std::string(reinterpret_cast<char *>(&rec), sizeof rec);
  }
};

TEST_F(GoldenNames, AFileGetsItsNewNameAndWhatIsImposed) {
  EXPECT_EQ(pack(header("/etc/hosts", "01", "00000007 00000008 000009ed")),
            header("/backup//etc/hosts.master", "01", "00000102 00000304 000001a0"));
}

TEST_F(GoldenNames, AFolderKeepsItsOwn) {
  EXPECT_EQ(pack(header("/etc", "02", "00000007 00000008 000003ed")),
            header("/backup//etc", "02", "00000007 00000008 000003ed"));
}

TEST_F(GoldenNames, AFolderLosesSetUserIdThatNoFileMayHave) {
  EXPECT_EQ(pack(header("/etc", "02", "00000007 00000008 000009ed")),
            header("/backup//etc", "02", "00000007 00000008 000001ed"));
}

TEST_F(GoldenNames, ALongerNameLeavesNothingOfItselfBehind) {
  pairNode last = {};
  pairNode pair = {const_cast<char *>("/a/long/name"), const_cast<char *>("/b"), &last};
  setXformDataStruct(&pair);
  mfilehead rec = {};
  memcpy(rec.name, "/a/long/name", 12);
  EXPECT_EQ(xformPrefix(rec.name), 1);
  EXPECT_EQ(std::string(rec.name, sizeof rec.name), name("/b"));
}

}  // namespace
