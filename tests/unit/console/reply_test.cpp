// Answers in whatever pieces a connection brings them.
#include "console/reply.h"

#include <gtest/gtest.h>

#include "console/connection.h"

using namespace console;

namespace {

struct Parsed {
  std::string text;
  bool ended;
  int status;
  bool accepted;
};

// Feeds the stream in pieces of that many bytes.
Parsed parse(const std::string &stream, size_t piece, bool data = false, bool streamEnds = false) {
  ReplyParser parser(data);
  std::string text;
  for (size_t at = 0; at < stream.size() && !parser.ended(); at += piece)
    text += parser.feed(stream.substr(at, piece));
  if (streamEnds) text += parser.finish();
  return Parsed{text, parser.ended(), parser.status(), parser.accepted()};
}

// However a stream is cut, the outcome is the same.
void expectParsed(const std::string &stream, const Parsed &expected, bool data = false,
                  bool streamEnds = false) {
  for (size_t piece = 1; piece <= stream.size() + 1; piece++) {
    Parsed parsed = parse(stream, piece, data, streamEnds);
    EXPECT_EQ(parsed.text, expected.text) << "pieces of " << piece;
    EXPECT_EQ(parsed.ended, expected.ended) << "pieces of " << piece;
    EXPECT_EQ(parsed.status, expected.status) << "pieces of " << piece;
    EXPECT_EQ(parsed.accepted, expected.accepted) << "pieces of " << piece;
  }
}

}  // namespace

TEST(Reply, EndsAtTheEndLineAndLeavesItOut) {
  expectParsed("0:vtape0:/dev/vtape/vtape0:0:0:\nZuL_DoNe. 0\nZuL>",
               {"0:vtape0:/dev/vtape/vtape0:0:0:\n", true, 0, false});
}

TEST(Reply, MayBeEmpty) {
  expectParsed("ZuL_DoNe. 1\nZuL>", {"", true, 1, false});
}

TEST(Reply, HasStatusesAbove255ForSignals) {
  expectParsed("ZuL_DoNe. 265\nZuL>", {"", true, 265, false});
}

TEST(Reply, NeedsNoLineFeedBeforeTheEndLine) {
  expectParsed("Starting RestoreZuL_DoNe. 0\nZuL>", {"Starting Restore", true, 0, false});
}

TEST(Reply, AnEndLineWithoutAPromptBehindItIsText) {
  expectParsed("ZuL_DoNe. 0\na file of that name\nZuL_DoNe. 1\nZuL>",
               {"ZuL_DoNe. 0\na file of that name\n", true, 1, false});
}

TEST(Reply, WhatOnlyLooksLikeAnEndLineIsText) {
  for (std::string text : {"ZuL_DoNe. x\n", "ZuL_DoNe. 1234\n", "ZuL_DoNe.\n", "ZZuL_DoNe \n",
                           "ZuL>\n", "ZuL_DoNe. \n"})
    expectParsed(text + "ZuL_DoNe. 7\nZuL>", {text, true, 7, false});
}

TEST(Reply, TheEndOfTheStreamStandsForThePrompt) {
  expectParsed("text\nZuL_DoNe. 3\n", {"text\n", true, 3, false}, false, true);
  expectParsed("text\nZuL_DoNe. 3\nZu", {"text\n", true, 3, false}, false, true);
}

TEST(Reply, AStreamThatEndsEarlyHasNotEnded) {
  expectParsed("half a li", {"half a li", false, 0, false}, false, true);
  expectParsed("text\nZuL_DoNe. ", {"text\nZuL_DoNe. ", false, 0, false}, false, true);
}

TEST(Reply, IsAcceptedByALineThatBeginsWithTransferOk) {
  expectParsed("Creating a a background process\nTRANSFER OK\nZuL_DoNe. 0\nZuL>",
               {"Creating a a background process\nTRANSFER OK\n", true, 0, true});
  EXPECT_TRUE(parse("TRANSFER OK\n", 99).accepted);
  EXPECT_TRUE(parse("TRANSFER OK and more\n", 99).accepted);
}

TEST(Reply, IsNotAcceptedByTheWordsElsewhere) {
  EXPECT_FALSE(parse("no TRANSFER OK\n", 99).accepted);
  EXPECT_FALSE(parse("TRANSFER O\nK\n", 99).accepted);
  EXPECT_FALSE(parse("TRANSFER OK", 99).accepted) << "the line is not complete";
}

TEST(Reply, RawBytesMayHoldAnything) {
  std::string content = "a\nZuL_DoNe. 9\nZuL>b";
  std::string stream =
      "DATA " + std::to_string(content.size()) + "\n" + content + "ZuL_DoNe. 0\nZuL>";
  expectParsed(stream, {"DATA " + std::to_string(content.size()) + "\n" + content, true, 0, false},
               true);
}

TEST(Reply, AnErrorInsteadOfRawBytesIsText) {
  expectParsed("ERROR:  No such file\nZuL_DoNe. 1\nZuL>",
               {"ERROR:  No such file\n", true, 1, false}, true);
  expectParsed("ZuL_DoNe. 1\nZuL>", {"", true, 1, false}, true);
}

TEST(Reply, RawBytesThatDoNotComeAreMissed) {
  ReplyParser parser(true);
  EXPECT_EQ(parser.feed("DATA 10\nabc"), "DATA 10\nabc");
  EXPECT_EQ(parser.dataMissing(), 7u);
  EXPECT_EQ(parser.feed("defghij"), "defghij");
  EXPECT_EQ(parser.dataMissing(), 0u);
}

TEST(Requests, ThatOnlyShowAreKnownByTheirSecondWord) {
  EXPECT_TRUE(onlyShows("TAPE get dir /x"));
  EXPECT_TRUE(onlyShows("MREPL get jobid 3"));
  EXPECT_FALSE(onlyShows("TAPE backup 7 0"));
  EXPECT_FALSE(onlyShows("TAPE"));
  EXPECT_FALSE(onlyShows("TAPE getx"));
}
