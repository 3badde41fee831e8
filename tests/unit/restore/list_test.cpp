// Restore lists: what a selection by numbers or by names takes from a volume list.
#include <zul/tape.h>

#include "support.h"
#include "tape/restorelist.h"

using support::captureStderr;
using support::exists;
using support::readFile;
using support::writeFile;

namespace {

class RestoreList : public support::HomeTest {
 protected:
  // The restore list that the wanted numbers, one per line, make of a volume list.
  std::string made(const std::string &index, const std::string &volume) {
    writeFile(path("index"), index);
    writeFile(path("vol"), volume);
    std::string index_ = path("index"), vol = path("vol"), list = path("list");
    said = captureStderr([&] { result = mkRestoreList(index_.data(), vol.data(), list.data()); });
    return readFile(list);
  }
  std::string selected(const std::string &names, const std::string &volume) {
    soundSite();
    writeFile(path("select"), names);
    writeFile(path("vol"), volume);
    said = captureStderr([&] {
      result =
          tape::selectByName(path("select").c_str(), path("vol").c_str(), path("list").c_str());
    });
    return readFile(path("list"));
  }
  std::string said;
  int result = 0;
};

constexpr char kNumbered[] =
    "1:alpha:0:/etc/\n2:alpha:0:/etc/big\n2:alpha:1:/etc/big\n2:alpha:2:/etc/big\n3:alpha:0:/etc/"
    "c\n"
    "4:alpha:0:/home/\n5:alpha:0:/home/x\n6:alpha:0:/srv/\n";

TEST_F(RestoreList, OnePickedFileIsOneLine) {
  EXPECT_EQ(made("3\n", kNumbered), "/etc/c\n");
  EXPECT_EQ(result, 0);
}

TEST_F(RestoreList, NumbersAreSortedAndTakenOnce) {
  EXPECT_EQ(made("5\n3\n5\n", kNumbered), "/etc/c\n/home/x\n");
}

TEST_F(RestoreList, APickedLargeFileStandsOncePerSegment) {
  EXPECT_EQ(made("2\n", kNumbered), "/etc/big\n/etc/big\n/etc/big\n");
}

TEST_F(RestoreList, ContinuationsOfFilesNotPickedStayOut) {
  EXPECT_EQ(made("3\n4\n", kNumbered), "/etc/c\n/home/\n/home/x\n");
}

TEST_F(RestoreList, APickedDirectoryTakesWhatFollowsBelowItAndStopsAtTheFirstLineOutside) {
  EXPECT_EQ(made("1\n", kNumbered), "/etc/\n/etc/big\n/etc/big\n/etc/big\n/etc/c\n");
  EXPECT_EQ(made("1\n", "1:a:0:/x/\n2:a:0:/x/1\n3:a:0:/y\n4:a:0:/x/2\n"), "/x/\n/x/1\n");
}

constexpr char kAllZero[] =
    "0:alpha:0:/etc/\n0:beta:0:/etc/\n0:alpha:0:/etc/big\n0:alpha:1:/etc/big\n0:alpha:2:/etc/big\n"
    "0:beta:0:/etc/b\n0:alpha:0:/etc/c\n";

TEST_F(RestoreList, ZeroTakesEveryLineOfTheFirstHostExactlyOnce) {
  EXPECT_EQ(made("0\n", kAllZero), "/etc/\n/etc/big\n/etc/big\n/etc/big\n/etc/c\n");
  soundSite();
  EXPECT_EQ(made("0\n", kAllZero), "#host=alpha\n/etc/\n/etc/big\n/etc/big\n/etc/big\n/etc/c\n");
}

TEST_F(RestoreList, ZeroTakesAllOfTheFirstHostOfANumberedListToo) {
  soundSite();
  EXPECT_EQ(made("0\n", "1:alpha:0:/a\n2:beta:0:/a\n3:alpha:0:/b\n"), "#host=alpha\n/a\n/b\n");
}

TEST_F(RestoreList, ZeroWithAnotherNumberTakesOnlyTheFirstTree) {
  EXPECT_EQ(made("0\n99\n", "0:a:0:/x/\n0:a:0:/x/1\n0:a:0:/y\n0:a:0:/x/2\n"), "/x/\n/x/1\n");
  EXPECT_EQ(made("0\n99\n", "0:a:0:/x\n0:a:0:/y\n"), "/x\n");
}

TEST_F(RestoreList, ClassicTakesHostsAnEvenDistanceApartForTheSame) {
  const char *volume = "0:alpha:0:/a\n0:gamma:0:/g\n0:beta:0:/b\n";
  EXPECT_EQ(made("0\n", volume), "/a\n/g\n");
  soundSite();
  EXPECT_EQ(made("0\n", volume), "#host=alpha\n/a\n");
}

TEST_F(RestoreList, ANameWithAColonIsCutInClassicAndKeptUnderSound) {
  EXPECT_EQ(made("1\n", "1:a:0:/with:colon\n"), "/with\n");
  soundSite();
  EXPECT_EQ(made("1\n", "1:a:0:/with:colon\n"), "#host=a\n/with:colon\n");
}

TEST_F(RestoreList, LongNamesAreCutInClassicAndKeptUnderSound) {
  std::string name = "/" + std::string(250, 'n');
  EXPECT_NE(made("1\n", "1:alpha:0:" + name + "\n"), name + "\n");
  soundSite();
  EXPECT_EQ(made("1\n", "1:alpha:0:" + name + "\n"), "#host=alpha\n" + name + "\n");
}

TEST_F(RestoreList, NumbersOfAnotherHostAndNumbersOfNothingAreNamedAndPassedOverUnderSound) {
  soundSite();
  EXPECT_EQ(made("1\n2\n3\n5\n9\n", "1:a:0:/1\n2:b:0:/2\n3:a:0:/3\n4:a:0:/4\n6:a:0:/6\n"),
            "#host=a\n/1\n/3\n");
  EXPECT_EQ(said,
            "WARNING:  Entry 2 is not restored: it is of another host\n"
            "WARNING:  Entry 5 is not restored: there is none on this volume\n"
            "WARNING:  Entry 9 is not restored: there is none on this volume\n");
}

TEST_F(RestoreList, AnEntryWithinAWantedTreeEndsTheTreeInClassicOnly) {
  const char *volume = "1:a:0:/x/\n2:a:0:/x/1\n3:a:0:/x/2\n4:a:0:/x/3\n5:a:0:/y\n";
  EXPECT_EQ(made("1\n3\n", volume), "/x/\n/x/1\n/x/2\n");
  soundSite();
  EXPECT_EQ(made("1\n3\n", volume), "#host=a\n/x/\n/x/1\n/x/2\n/x/3\n");
}

TEST_F(RestoreList, NothingSelectedIsAFailureUnderSound) {
  EXPECT_EQ(made("7\n", "1:a:0:/1\n"), "");
  EXPECT_EQ(result, 0);
  soundSite();
  made("7\n", "1:a:0:/1\n");
  EXPECT_EQ(result, -1);
  EXPECT_NE(said.find("ERROR:  Nothing of the selection is on this volume: "), std::string::npos);
}

TEST_F(RestoreList, AMalformedLineIsNamedAndPassedOver) {
  EXPECT_EQ(made("1\n", "nonsense\n1:a:0:/x\n"), "/x\n");
  std::string text = "ERROR:  8109  Cannot open restore list file: nonsense\n";
  EXPECT_EQ(said, text);
  EXPECT_EQ(hostLog(), text);
}

TEST_F(RestoreList, OnlyTheFirst128NumbersCount) {
  std::string index, volume;
  for (int at = 1; at <= 130; at++) {
    index += std::to_string(at) + "\n";
    volume += std::to_string(at) + ":a:0:/f" + std::to_string(at) + "\n";
  }
  std::string list = made(index, volume);
  EXPECT_NE(list.find("/f128\n"), std::string::npos);
  EXPECT_EQ(list.find("/f129\n"), std::string::npos);
}

TEST_F(RestoreList, AnEmptyIndexFailsSilently) {
  EXPECT_EQ(made("", kNumbered), "");
  EXPECT_EQ(result, -1);
  EXPECT_EQ(said, "");
}

TEST_F(RestoreList, FilesThatCannotBeOpenedAreNamed) {
  writeFile(path("index"), "1\n");
  std::string none = path("none"), index = path("index"), list = path("list");
  std::string folder = path("tmp");
  auto call = [&](std::string a, std::string b, std::string c) {
    return captureStderr([&] { EXPECT_EQ(mkRestoreList(a.data(), b.data(), c.data()), -1); });
  };
  EXPECT_EQ(call(none, none, list), "ERROR:  8106  Cannot open restore index file: " + none + "\n");
  EXPECT_EQ(call(index, none, list),
            "ERROR:  8107  Cannot open restore catalog file: " + none + "\n");
  EXPECT_EQ(call(index, index, folder),
            "ERROR:  8108  Cannot open restore list file: " + folder + "\n");
}

constexpr char kThreeHosts[] =
    "1:a:0:/etc/\n2:b:0:/etc/\n3:a:0:/etc/passwd\n4:b:0:/etc/passwd\n5:c:0:/etc/passwd\n6:a:0:/srv/"
    "big\n"
    "7:b:0:/etc/x:y\n6:a:1:/srv/big\n8:a:0:/etcetera\n";

TEST_F(RestoreList, NamesSelectFilesOfSeveralHostsInTapeOrder) {
  EXPECT_EQ(selected("b:/etc/passwd\na:/srv/big\n", kThreeHosts),
            "#host=b\n/etc/passwd\n#host=a\n/srv/big\n/srv/big\n");
  EXPECT_EQ(result, 0);
  EXPECT_EQ(said, "");
}

TEST_F(RestoreList, ATrailingSlashTakesTheTree) {
  EXPECT_EQ(selected("a:/etc/\n", kThreeHosts), "#host=a\n/etc/\n/etc/passwd\n");
  EXPECT_EQ(selected("b:/etc/\n", kThreeHosts), "#host=b\n/etc/\n/etc/passwd\n/etc/x:y\n");
}

TEST_F(RestoreList, ADirectoryWithoutTheSlashIsTheDirectoryAlone) {
  EXPECT_EQ(selected("a:/etc\n", kThreeHosts), "#host=a\n/etc/\n");
}

TEST_F(RestoreList, WhatMatchesNothingIsNamed) {
  EXPECT_EQ(selected("c:/etc/passwd\nc:/none\nbad line\n", kThreeHosts), "#host=c\n/etc/passwd\n");
  EXPECT_EQ(
      said,
      "WARNING:  Not \"host:path\", ignored: bad line\nWARNING:  Not on this volume: c:/none\n");
}

TEST_F(RestoreList, ANameThatIsWantedTwiceIsLookedForOnce) {
  EXPECT_EQ(selected("b:/etc/passwd\nb:/etc/passwd\n", kThreeHosts), "#host=b\n/etc/passwd\n");
  EXPECT_EQ(said, "");
}

TEST_F(RestoreList, ASelectionThatMatchesNothingAtAllFails) {
  selected("d:/x\n", kThreeHosts);
  EXPECT_EQ(result, -1);
  EXPECT_NE(said.find("ERROR:  Nothing of the selection is on this volume: "), std::string::npos);
}

}  // namespace
