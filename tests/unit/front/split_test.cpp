// Splitting a request line and cutting the control characters of lines that were read.
#include <string.h>
#include <zul/tape.h>

#include "support.h"

namespace {

struct Split {
  char line[256];
  char *argv[8];
  int count;
  Split(const char *text, int max) {
    for (char *&slot : argv) slot = untouched;
    strcpy(line, text);
    count = wssplit(argv, line, max);
  }
  static char untouched[];
};
char Split::untouched[] = "untouched";

TEST(WsSplit, EmptyLineHasNoWordsAndTouchesNothing) {
  Split split("", 2);
  EXPECT_EQ(split.count, 0);
  EXPECT_EQ(split.argv[0], Split::untouched);
}

TEST(WsSplit, LastWordKeepsTheRestOfTheLine) {
  Split split("backup 12 full /home", 2);
  EXPECT_EQ(split.count, 2);
  EXPECT_STREQ(split.argv[0], "backup");
  EXPECT_STREQ(split.argv[1], "12 full /home");
}

TEST(WsSplit, SlotsBehindTheLastWordAreNotTouched) {
  Split split("one two three", 7);
  EXPECT_EQ(split.count, 3);
  EXPECT_STREQ(split.argv[2], "three");
  EXPECT_EQ(split.argv[3], Split::untouched);
}

TEST(WsSplit, LeadingBlanksAreOverwritten) {
  Split split("  word", 2);
  EXPECT_EQ(split.count, 1);
  EXPECT_STREQ(split.argv[0], "word");
  EXPECT_EQ(split.line[0], '\0');
}

TEST(WsSplit, AllWhiteSpaceGivesNoWordAndIsOverwritten) {
  Split split(" \t\r\n", 2);
  EXPECT_EQ(split.count, 0);
  EXPECT_EQ(memcmp(split.line, "\0\0\0\0", 4), 0);
}

TEST(WsSplit, TabsAndLineEndsSplitLikeBlanks) {
  Split split("a\tb\rc\nd", 7);
  EXPECT_EQ(split.count, 4);
  EXPECT_STREQ(split.argv[3], "d");
}

TEST(WsSplit, LastStoredWordKeepsTrailingBlanks) {
  Split split("a b  ", 2);
  EXPECT_STREQ(split.argv[1], "b  ");
}

TEST(WsSplit, OneWordAtMostIsTheWholeRest) {
  Split split("  a b c", 1);
  EXPECT_EQ(split.count, 1);
  EXPECT_STREQ(split.argv[0], "a b c");
}

TEST(WsSplit, BytesThatAreNoTextAreWords) {
  Split split("\xff\xfe \x80", 2);
  EXPECT_EQ(split.count, 2);
  EXPECT_STREQ(split.argv[1], "\x80");
}

std::string stripped(const char *text, int expected = 1) {
  char buffer[64];
  strcpy(buffer, text);
  EXPECT_EQ(stripCtrl(buffer), expected);
  return buffer;
}

TEST(StripCtrl, EmptyTextIsReported) {
  EXPECT_EQ(stripped("", 0), "");
}
TEST(StripCtrl, ASingleControlCharacterIsCleared) {
  EXPECT_EQ(stripped("\n"), "");
}
TEST(StripCtrl, ASingleLetterStays) {
  EXPECT_EQ(stripped("x"), "x");
}
TEST(StripCtrl, CrLfGoesAtOnce) {
  EXPECT_EQ(stripped("abc\r\n"), "abc");
}
TEST(StripCtrl, LineFeedGoes) {
  EXPECT_EQ(stripped("abc\n"), "abc");
}
TEST(StripCtrl, ATabBeforeTheLastLetterCutsToo) {
  EXPECT_EQ(stripped("a\tb"), "a");
}
TEST(StripCtrl, OnlyTwoPositionsAreLookedAt) {
  EXPECT_EQ(stripped("abc\n\n\n"), "abc\n");
}

}  // namespace
