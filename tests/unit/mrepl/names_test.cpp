// Transforms, the prefix and permission words on headers as they travel.
#include <arpa/inet.h>
#include <string.h>
#include <zul/mrepl.h>

#include "support.h"

namespace {

// A list of pairs that ends with an empty node, as a job's does.
class Pairs {
 public:
  explicit Pairs(std::initializer_list<std::pair<std::string, std::string>> pairs)
      : texts_(pairs), nodes_(texts_.size() + 1) {
    for (size_t at = 0; at < texts_.size(); at++)
      nodes_[at] = {texts_[at].first.data(), texts_[at].second.data(), &nodes_[at + 1]};
  }
  pairNode *first() { return &nodes_[0]; }

 private:
  std::vector<std::pair<std::string, std::string>> texts_;
  std::vector<pairNode> nodes_;
};

class Names : public support::HomeTest {
 protected:
  void TearDown() override {
    setXformDataStruct(nullptr);
    addPrefix(1, nullptr);
    HomeTest::TearDown();
  }
  std::string transform(const std::string &name) {
    char field[256] = {};
    memcpy(field, name.data(), std::min<size_t>(name.size(), sizeof field));
    result = xformPrefix(field);
    return std::string(field, strnlen(field, sizeof field));
  }
  std::string prefixed(const std::string &name) {
    char field[256] = {};
    memcpy(field, name.data(), std::min<size_t>(name.size(), sizeof field));
    result = addPrefix(0, field);
    return std::string(field, strnlen(field, sizeof field));
  }
  int result = 99;
};

TEST_F(Names, AClassicTransformNeedsTheWholeName) {
  Pairs pairs({{"/etc/hosts", "/etc/hosts.master"}});
  setXformDataStruct(pairs.first());
  EXPECT_EQ(transform("/etc/hosts"), "/etc/hosts.master");
  EXPECT_EQ(result, 1);
  for (const char *name :
       {"/etc/hosts.allow", "/etc/hosts/x", "/etc/host", "/etc", "", "/etc/hostz"}) {
    EXPECT_EQ(transform(name), name);
    EXPECT_EQ(result, 0);
  }
}

TEST_F(Names, OnlyTwoClassicTransformsAreLookedAt) {
  Pairs pairs({{"/a", "/1"}, {"/b", "/2"}, {"/c", "/3"}, {"/d", "/4"}});
  setXformDataStruct(pairs.first());
  EXPECT_EQ(transform("/b"), "/2");
  EXPECT_EQ(result, 1);
  EXPECT_EQ(transform("/c"), "/c");
  EXPECT_EQ(transform("/d"), "/d");
  EXPECT_EQ(result, 0);
}

TEST_F(Names, ASoundTransformTakesPrefixesOfWholeComponentsAndAllPairs) {
  soundSite();
  Pairs pairs({{"/etc", "/1"}, {"/b/", "/2/"}, {"/c", ""}, {"/etc/d", "/never"}});
  setXformDataStruct(pairs.first());
  EXPECT_EQ(transform("/etc"), "/1");
  EXPECT_EQ(transform("/etc/hosts"), "/1/hosts");
  EXPECT_EQ(transform("/etcetera"), "/etcetera");
  EXPECT_EQ(result, 0);
  EXPECT_EQ(transform("/b/x"), "/2/x");
  EXPECT_EQ(transform("/b"), "/b");
  EXPECT_EQ(transform("/c/x"), "/x");
  EXPECT_EQ(transform("/etc/d"), "/1/d") << "the first that matches";
}

TEST_F(Names, TheListIsCopiedAsFarAsItsFirstPair) {
  Pairs pairs({{"/a", "/1"}, {"/b", "/2"}});
  setXformDataStruct(pairs.first());
  pairs.first()->from = pairs.first()->to = nullptr;
  EXPECT_EQ(transform("/a"), "/1");
  Pairs others({{"/x", "/y"}});
  setXformDataStruct(others.first());
  EXPECT_EQ(transform("/a"), "/a");
  EXPECT_EQ(transform("/x"), "/y");
}

TEST_F(Names, PairsAreHandedOutByTheirNumber) {
  char *from, *to;
  EXPECT_EQ(getNextXformPair(0, &from, &to), -1);
  Pairs one({{"/a", "/1"}});
  setXformDataStruct(one.first());
  for (int mode : {0, -1, 1}) {
    EXPECT_EQ(getNextXformPair(mode, &from, &to), 0);
    EXPECT_STREQ(from, "/a");
    EXPECT_STREQ(to, "/1");
  }
  Pairs three({{"/a", "/1"}, {"/b", "/2"}, {"/c", "/3"}});
  setXformDataStruct(three.first());
  for (int time = 0; time < 3; time++) {
    getNextXformPair(1, &from, &to);
    EXPECT_STREQ(from, "/b") << "there is no cursor";
  }
  getNextXformPair(-1, &from, &to);
  EXPECT_STREQ(from, "/a");
}

TEST_F(Names, AJobWithoutTransformsChangesNothing) {
  Pairs none({});
  setXformDataStruct(none.first());
  EXPECT_EQ(transform("/a"), "/a");
  EXPECT_EQ(transform(""), "");
  EXPECT_EQ(result, 0);
}

TEST_F(Names, ANameThatFillsItsFieldIsReadNoFurther) {
  std::string full = "/" + std::string(255, 'x');
  Pairs pairs({{full, "/short"}, {full + "y", "/never"}});
  setXformDataStruct(pairs.first());
  EXPECT_EQ(transform(full), "/short");
}

TEST_F(Names, ATransformedNameThatDoesNotFitIsCutInClassicAndLeftOutInSound) {
  std::string longName(300, 'y');
  Pairs pairs({{"/a", longName}});
  setXformDataStruct(pairs.first());
  EXPECT_EQ(transform("/a"), longName.substr(0, 255));
  EXPECT_EQ(result, 1);
  soundSite();
  EXPECT_EQ(transform("/a"), "/a");
  EXPECT_EQ(result, -1);
}

TEST_F(Names, ThePrefixGetsASlashWhereItHasNone) {
  EXPECT_EQ(prefixed("/etc/x"), "/etc/x");
  EXPECT_EQ(result, 0) << "off";
  char bare[] = "/backup", closed[] = "/backup/";
  EXPECT_EQ(addPrefix(1, bare), 0);
  EXPECT_EQ(prefixed("/etc/x"), "/backup//etc/x");
  EXPECT_EQ(result, 0);
  addPrefix(1, closed);
  EXPECT_EQ(prefixed("etc/x"), "/backup/etc/x");
}

TEST_F(Names, ANameThatBecomesTooLongStaysAsItIsAndSaysSo) {
  char prefix[] = "/backup";
  addPrefix(1, prefix);
  std::string name250(250, 'n');
  EXPECT_EQ(prefixed(name250), name250);
  EXPECT_EQ(result, 1);
  EXPECT_EQ(prefixed(std::string(247, 'n')), "/backup/" + std::string(247, 'n'))
      << "255 characters fit";
  EXPECT_EQ(result, 0);
  EXPECT_EQ(prefixed(std::string(248, 'n')), std::string(248, 'n'));
  EXPECT_EQ(result, 1);
  std::string full(256, 'f');
  EXPECT_EQ(prefixed(full), full);
}

TEST_F(Names, APrefixIsCutTo256Characters) {
  std::string prefix(400, 'p');
  addPrefix(1, prefix.data());
  EXPECT_EQ(prefixed("x"), "x");
  EXPECT_EQ(result, 1);
}

// --- permissions ---

constexpr uint8_t kFile = 1, kDirectory = 2, kLink = 3;

struct Owned {
  uint32_t owner, group, mode;
  bool operator==(const Owned &) const = default;
};
std::ostream &operator<<(std::ostream &out, const Owned &owned) {
  return out << owned.owner << ":" << owned.group << " " << std::oct << owned.mode << std::dec;
}

Owned permissions(uint32_t fileWord, uint32_t dirWord, uint8_t type, uint32_t own) {
  mfilehead rec = {};
  rec.owner = 50;
  rec.group = 60;
  rec.mode = fileWord;
  EXPECT_EQ(modifyPerms(1, &rec), 0);
  rec.owner = 51;
  rec.group = 61;
  rec.mode = dirWord;
  EXPECT_EQ(modifyPerms(2, &rec), 0);
  mfilehead header = {};
  header.type = type;
  header.owner = htonl(7);
  header.group = htonl(8);
  header.mode = htonl(own);
  EXPECT_EQ(modifyPerms(0, &header), 0);
  return {ntohl(header.owner), ntohl(header.group), ntohl(header.mode)};
}

constexpr uint32_t kKeepMode = 4096, kKeepGroup = 8192, kKeepOwner = 16384, kAllow = 32768;

TEST(Permissions, AreImposedWhereNothingIsKept) {
  EXPECT_EQ(permissions(0644, 0755, kFile, 0777), (Owned{50, 60, 0644}));
  EXPECT_EQ(permissions(0644, 0755, kDirectory, 0777), (Owned{51, 61, 0755}));
  EXPECT_EQ(permissions(0644, 0755, kLink, 0777), (Owned{50, 60, 0644}));
}

TEST(Permissions, AreKeptOneByOne) {
  EXPECT_EQ(permissions(kKeepMode, 0, kFile, 0751), (Owned{50, 60, 0751}));
  EXPECT_EQ(permissions(kKeepGroup | 0600, 0, kFile, 0751), (Owned{50, 8, kKeepGroup | 0600}))
      << "the whole word";
  EXPECT_EQ(permissions(kKeepOwner | 0600, 0, kFile, 0751), (Owned{7, 60, kKeepOwner | 0600}));
  EXPECT_EQ(permissions(0, kKeepMode | kKeepGroup | kKeepOwner, kDirectory, 0751),
            (Owned{7, 8, 0751}));
}

TEST(Permissions, SetUserIdIsKeptWhereItIsAllowed) {
  EXPECT_EQ(permissions(kAllow | kKeepMode | 2541, 0, kFile, 04755).mode, 04755u);
  EXPECT_EQ(permissions(kKeepMode | 420, 0, kFile, 04755).mode, 0755u);
  EXPECT_EQ(permissions(kKeepMode | 420, 0, kFile, 06755).mode, 02755u) << "this one only";
}

TEST(Permissions, SetUserIdIsCarriedIntoAnImposedMode) {
  EXPECT_EQ(permissions(kAllow | 0700, 0, kFile, 04755).mode, kAllow | 04700u);
  EXPECT_EQ(permissions(kAllow | 0700, 0, kFile, 0755).mode, kAllow | 0700u);
  EXPECT_EQ(permissions(0700, 0, kFile, 04755).mode, 0700u);
  EXPECT_EQ(permissions(kAllow | 0700, 0711, kDirectory, 04755).mode, 0711u)
      << "not for directories";
}

TEST(Permissions, DirectoriesAskTheFilesWordAboutSetUserId) {
  EXPECT_EQ(permissions(kAllow, kKeepMode, kDirectory, 04755).mode, 04755u);
  EXPECT_EQ(permissions(0, kKeepMode | kAllow, kDirectory, 04755).mode, 0755u);
}

// --- a list in a file ---

TEST_F(Names, TransformsAreReadFromAFile) {
  support::writeFile(path("list"), "/a   /1\nnothing\n/b \n\n/c /3 x\n/d /4");
  soundSite();
  EXPECT_EQ(readXformList(path("list").c_str()), 0);
  EXPECT_EQ(transform("/a"), "/1");
  EXPECT_EQ(transform("/b"), "/b");
  EXPECT_EQ(transform("nothing"), "nothing");
  EXPECT_EQ(transform("/c"), "/3 x");
  EXPECT_EQ(transform("/d"), "/4");
  support::writeFile(path("list"), "/e /5\n");
  EXPECT_EQ(readXformList(path("list").c_str()), 0);
  EXPECT_EQ(transform("/a"), "/a");
  EXPECT_EQ(transform("/e"), "/5");
  EXPECT_EQ(readXformList(path("missing").c_str()), -1);
}

}  // namespace
