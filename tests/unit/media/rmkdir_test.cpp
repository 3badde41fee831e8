// Directories with their missing parents.
#include "media.h"

using media::exists;

namespace {

class Rmkdir : public media::MediaTest {
 protected:
  int make(const std::string &relative) { return rmkdir(path(relative).c_str(), 0700); }
};

TEST_F(Rmkdir, ADirectoryThatIsThereIsEnough) {
  EXPECT_EQ(make("var"), 0);
  EXPECT_EQ(make("var/"), 0);
  ASSERT_EQ(symlink(path("var").c_str(), path("link").c_str()), 0);
  EXPECT_EQ(make("link"), 0);
}

TEST_F(Rmkdir, SomethingElseByThatNameFails) {
  media::writeFile(path("file"), "x");
  EXPECT_EQ(make("file"), -1);
  EXPECT_EQ(make("file/below"), -1);
  ASSERT_EQ(symlink("/nowhere/at/all", path("dangling").c_str()), 0);
  EXPECT_EQ(make("dangling"), -1);
}

TEST_F(Rmkdir, MissingParentsAreMadeWithTheSameMode) {
  EXPECT_EQ(make("a/b/c"), 0);
  for (const char *made : {"a", "a/b", "a/b/c"}) {
    struct stat status;
    ASSERT_EQ(stat(path(made).c_str(), &status), 0) << made;
    EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFDIR | 0700)) << made;
  }
}

TEST_F(Rmkdir, ATrailingSlashNamesTheSameDirectory) {
  EXPECT_EQ(make("x/y/"), 0);
  EXPECT_TRUE(exists(path("x/y")));
  EXPECT_EQ(make("x/y//z"), 0);
  EXPECT_TRUE(exists(path("x/y/z")));
}

TEST_F(Rmkdir, APathWithoutAParentFails) {
  EXPECT_EQ(rmkdir("", 0700), -1);
  EXPECT_EQ(rmkdir("/proc/zul-no-such-folder/x", 0700), -1);
}

TEST_F(Rmkdir, ParentsOfLongPathsAreMadeOnlyUnderSound) {
  std::string deep;
  for (int at = 0; at < 4; at++) deep += std::string(100, static_cast<char>('a' + at)) + "/";
  EXPECT_EQ(make(deep + "end"), -1);
  behave("sound");
  EXPECT_EQ(make(deep + "end"), 0);
  EXPECT_TRUE(exists(path(deep + "end")));
}

TEST_F(Rmkdir, APathBeyondTheSystemsLimitFails) {
  behave("sound");
  std::string deep;
  for (int at = 0; at < 60; at++) deep += std::string(100, 'a') + "/";
  EXPECT_EQ(make(deep), -1);
}

}  // namespace
