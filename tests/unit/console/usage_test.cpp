// The word that was most likely meant.
#include "console/usage.h"

#include <gtest/gtest.h>

namespace {

using console::nearest;

const std::vector<std::string> kCommands = {"init", "up",      "down",   "get",
                                            "put",  "restore", "request"};

TEST(Usage, AWordWithAWrongMissingOrSwappedLetterIsFound) {
  EXPECT_EQ(nearest("inti", kCommands), "init");
  EXPECT_EQ(nearest("resore", kCommands), "restore");
  EXPECT_EQ(nearest("requests", kCommands), "request");
  EXPECT_EQ(nearest("restroe", kCommands), "restore");
}

TEST(Usage, TheOnlyWordThatBeginsSoIsFound) {
  EXPECT_EQ(nearest("req", kCommands), "request");
  EXPECT_EQ(nearest("re", kCommands), "") << "two begin so";
}

TEST(Usage, NothingIsMadeUp) {
  EXPECT_EQ(nearest("volume", kCommands), "");
  EXPECT_EQ(nearest("xyz", kCommands), "");
  EXPECT_EQ(nearest("", kCommands), "");
  EXPECT_EQ(nearest(std::string(100000, 'x'), kCommands), "");
}

}  // namespace
