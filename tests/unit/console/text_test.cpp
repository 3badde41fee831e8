// Sizes, durations, and names that would steer a terminal.
#include "console/text.h"

#include <gtest/gtest.h>

using namespace console;

TEST(Sizes, AreReadInBinaryUnits) {
  EXPECT_EQ(parseSize("0"), 0u);
  EXPECT_EQ(parseSize("1048576"), 1048576u);
  EXPECT_EQ(parseSize("8G"), 8ull << 30);
  EXPECT_EQ(parseSize("8g"), 8ull << 30);
  EXPECT_EQ(parseSize("512MiB"), 512ull << 20);
  EXPECT_EQ(parseSize("512MB"), 512ull << 20);
  EXPECT_EQ(parseSize("1.5K"), 1536u);
  EXPECT_EQ(parseSize("2T"), 2ull << 40);
  EXPECT_EQ(parseSize("17B"), 17u);
}

TEST(Sizes, WhatIsNoneIsRefused) {
  for (const char *text : {"", "G", "-1", "+1", " 1", "1 G", "8X", "8GG", "8Gi", "0x10", "1e3",
                           "1.2.3", "8G\n", "nan", "inf", "9E", "99999999999999999999", "17BB"})
    EXPECT_EQ(parseSize(text), std::nullopt) << text;
}

TEST(Sizes, AreWrittenWithOneDigitBehindThePoint) {
  EXPECT_EQ(sizeText(0), "0 B");
  EXPECT_EQ(sizeText(1023), "1023 B");
  EXPECT_EQ(sizeText(1024), "1.0 KiB");
  EXPECT_EQ(sizeText(1536), "1.5 KiB");
  EXPECT_EQ(sizeText(8ull << 30), "8.0 GiB");
  EXPECT_EQ(sizeText(UINT64_MAX), "16.0 EiB");
}

TEST(Sizes, NeverShow1024OfASmallerUnit) {
  EXPECT_EQ(sizeText((1 << 20) - 1), "1.0 MiB");
  EXPECT_EQ(sizeText((1ull << 30) - 1), "1.0 GiB");
}

TEST(Durations, CountHoursBeyondADay) {
  EXPECT_EQ(durationText(0), "0:00:00");
  EXPECT_EQ(durationText(59), "0:00:59");
  EXPECT_EQ(durationText(3661), "1:01:01");
  EXPECT_EQ(durationText(100 * 3600), "100:00:00");
  EXPECT_EQ(durationText(-5), "0:00:00");
}

TEST(Counts, HaveTheirPlural) {
  EXPECT_EQ(countText(0, "file"), "0 files");
  EXPECT_EQ(countText(1, "file"), "1 file");
  EXPECT_EQ(countText(2, "file"), "2 files");
}

TEST(Times, ZeroIsNone) {
  EXPECT_EQ(timeText(0), "-");
}

TEST(TerminalText, PlainTextAndCharactersBeyondAsciiPass) {
  EXPECT_EQ(TerminalFilter()("Grüße\tan 東京 🎉\n"), "Grüße\tan 東京 🎉\n");
}

TEST(TerminalText, ControlBytesBecomeVisible) {
  EXPECT_EQ(TerminalFilter()("\x1b[31mred\x07\r\x7f"), "\\x1b[31mred\\x07\\x0d\\x7f");
  EXPECT_EQ(TerminalFilter()(std::string_view("a\0b", 3)), "a\\x00b");
}

TEST(TerminalText, TheOtherControlCharactersBecomeVisibleInEitherForm) {
  EXPECT_EQ(TerminalFilter()("\xc2\x9b"
                             "31m"),
            "\\xc2\\x9b31m");
  EXPECT_EQ(TerminalFilter()("\x9b"
                             "31m"),
            "\\x9b31m");
}

TEST(TerminalText, BrokenCharactersBecomeVisible) {
  EXPECT_EQ(TerminalFilter()("\xc0\xaf"), "\\xc0\\xaf");           // overlong
  EXPECT_EQ(TerminalFilter()("\xed\xa0\x80"), "\\xed\\xa0\\x80");  // half of a pair
  EXPECT_EQ(TerminalFilter()("\xf5x"), "\\xf5x");
  EXPECT_EQ(TerminalFilter()("\xe2\x82x"), "\\xe2\\x82x");
}

TEST(TerminalText, ACharacterMayArriveInPieces) {
  TerminalFilter filter;
  std::string text;
  for (char byte : std::string("€🎉")) text += filter(std::string_view(&byte, 1));
  EXPECT_EQ(text, "€🎉");
  EXPECT_EQ(filter("\xe2\x82"), "");
  EXPECT_EQ(filter.finish(), "\\xe2\\x82");
  EXPECT_EQ(filter.finish(), "");
}

TEST(TerminalText, OneLineStaysOneLine) {
  EXPECT_EQ(oneLine("a\nb\tc\xe2"), "a\\x0ab\\x09c\\xe2");
}
