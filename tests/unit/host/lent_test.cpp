// What the daemon lends the module: splitting, copying, removing a tree.
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zul/host.h>

#include <vector>

#include "support.h"

namespace {

std::vector<std::string> split(std::string text, int separator, int count) {
  std::vector<char *> fields(static_cast<size_t>(count) + 1);
  int found = insplit(fields.data(), text.data(), separator, count);
  EXPECT_LE(found, count + 1);
  return {fields.begin(), fields.begin() + found};
}

using Fields = std::vector<std::string>;

TEST(Insplit, LastFieldKeepsTheRest) {
  EXPECT_EQ(split("a:b:c:d", ':', 2), (Fields{"a", "b", "c:d"}));
  EXPECT_EQ(split("a:b:c:d", ':', 3), (Fields{"a", "b", "c", "d"}));
  EXPECT_EQ(split("a:b:c:d", ':', 9), (Fields{"a", "b", "c", "d"}));
}

TEST(Insplit, WithoutASeparatorThereIsOneField) {
  EXPECT_EQ(split("abc", ':', 5), (Fields{"abc"}));
  EXPECT_EQ(split("", ':', 5), (Fields{""}));
}

TEST(Insplit, NeighbouringSeparatorsGiveEmptyFields) {
  EXPECT_EQ(split(":a::b:", ':', 9), (Fields{"", "a", "", "b", ""}));
}

TEST(Insplit, WorksWithAnySeparator) {
  EXPECT_EQ(split("/a>/b>c", '>', 1), (Fields{"/a", "/b>c"}));
}

class Lent : public support::HomeTest {};

TEST_F(Lent, CopiesAreEqualReplaceTheTargetAndAreClosed) {
  std::string content(200001, 'x');
  content += '\0';
  support::writeFile(path("from"), content, 0644);
  support::writeFile(path("to"), std::string(300000, 'y'));
  EXPECT_EQ(filecopy(path("from").c_str(), path("to").c_str()), 0);
  EXPECT_EQ(support::readFile(path("to")), content);
  EXPECT_EQ(filecpy(path("from").c_str(), path("new").c_str(), 0), 0);
  EXPECT_EQ(support::readFile(path("new")), content);
  struct stat status;
  ASSERT_EQ(stat(path("new").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 077, 0u);
}

TEST_F(Lent, CopyFailuresAreToldAndLeaveTheTargetAlone) {
  support::writeFile(path("to"), "old");
  EXPECT_NE(filecopy(path("missing").c_str(), path("to").c_str()), 0);
  EXPECT_NE(filecopy(path("etc").c_str(), path("to").c_str()), 0);
  EXPECT_EQ(support::readFile(path("to")), "old");
  support::writeFile(path("from"), "new");
  EXPECT_NE(filecopy(path("from").c_str(), path("no/such/folder").c_str()), 0);
  EXPECT_NE(filecopy(path("from").c_str(), "/dev/full"), 0);
}

class Deldir : public Lent {
 protected:
  void SetUp() override {
    Lent::SetUp();
    mkdir(path("var/tape/drive.1").c_str(), 0700);
    mkdir(path("var/tape/drive.1/tape.1").c_str(), 0700);
    mkdir(path("var/tape/drive.1/tape.1/sub").c_str(), 0700);
    support::writeFile(path("var/tape/drive.1/tape.1/header"), "h");
    support::writeFile(path("var/tape/drive.1/tape.1/sub/vol.1"), "v");
  }
  static int remove(const std::string &target) {
    std::string args = "-rf " + target;
    return deldir(args.data(), 1);
  }
  std::string tape() const { return path("var/tape/drive.1/tape.1"); }
};

TEST_F(Deldir, RemovesTheTreeAndNothingElse) {
  EXPECT_EQ(remove(tape()), 0);
  EXPECT_FALSE(support::exists(tape()));
  EXPECT_TRUE(support::exists(path("var/tape/drive.1")));
}

TEST_F(Deldir, AMissingTreeCountsAsRemoved) {
  EXPECT_EQ(remove(path("var/tape/drive.1/tape.9")), 0);
}

TEST_F(Deldir, BlanksBelongToThePath) {
  ASSERT_EQ(rename(tape().c_str(), path("var/tape/drive.1/tape 1; x").c_str()), 0);
  EXPECT_EQ(remove(path("var/tape/drive.1/tape 1; x")), 0);
  EXPECT_FALSE(support::exists(path("var/tape/drive.1/tape 1; x")));
}

TEST_F(Deldir, LinksAreRemovedAndNeverFollowed) {
  support::writeFile(path("etc/precious"), "p");
  ASSERT_EQ(symlink(path("etc").c_str(), (tape() + "/link").c_str()), 0);
  ASSERT_EQ(symlink(path("etc").c_str(), path("var/tape/alias").c_str()), 0);
  EXPECT_EQ(remove(tape()), 0);
  EXPECT_EQ(remove(path("var/tape/alias")), 0);
  EXPECT_FALSE(support::exists(path("var/tape/alias")));
  EXPECT_TRUE(support::exists(path("etc/precious")));
}

TEST_F(Deldir, PathsOutsideTheTapesAreRefused) {
  support::writeFile(path("etc/precious"), "p");
  for (const std::string &target :
       {path("etc"), path("var/tape"), path("var/tape/"), path("var/tape/../../etc"),
        path("var/tape/drive.1/.."), path("var/tape/./drive.1"), path("var/tape//drive.1"),
        path("var/tape/drive.1/."), std::string("/"), std::string("/etc/precious"),
        path("var/tapes/x"), std::string()})
    EXPECT_NE(remove(target), 0) << target;
  std::string noPath = "-rf";
  EXPECT_NE(deldir(noPath.data(), 1), 0);
  EXPECT_TRUE(support::exists(path("etc/precious")));
  EXPECT_TRUE(support::exists(tape() + "/sub/vol.1"));
}

}  // namespace
