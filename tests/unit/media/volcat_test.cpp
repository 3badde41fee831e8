// One directory of a volume, from its volume list.
#include <zul/host.h>

#include <filesystem>

#include "media.h"

using media::writeFile;

namespace {

class VolumeList : public media::MediaTest {
 protected:
  void SetUp() override {
    MediaTest::SetUp();
    std::filesystem::create_directories(tapeDir(0, 3));
    file = tapeDir(0, 3) + "/vol.5";
  }
  // What is listed of directory for host h.
  std::string list(const std::string &lines, const std::string &directory) {
    writeFile(file, lines);
    EXPECT_EQ(run(getVolCat, "0 3 5 h " + directory), 0);
    EXPECT_EQ(printed, "");
    return said;
  }
  std::string file;
};

TEST_F(VolumeList, ShowsOneLevelOfOneHost) {
  EXPECT_EQ(list("0:h:0:/home/\n0:h:0:/home/a\n0:h:0:/home/d/x\n0:h:0:/home/d/y\n"
                 "0:h:1:/home/a\n0:g:0:/home/b\n",
                 "/home/"),
            "0:.\n0:a\n0:d/\n");
}

TEST_F(VolumeList, TheDirectoryMayComeWithoutItsSlash) {
  EXPECT_EQ(list("7:h:0:/home/\n8:h:0:/home/a\n9:h:0:/home\n", "/home"), "7:.\n8:a\n9:.\n");
}

TEST_F(VolumeList, TheRootShowsItsTrees) {
  EXPECT_EQ(list("0:h:0:/\n0:h:0:/etc/passwd\n0:h:0:/etc/group\n0:h:0:/x\n0:h:0:/etc/hosts\n", "/"),
            "0:.\n0:etc/\n0:x\n");
}

TEST_F(VolumeList, ASubdirectoryIsShownAgainOnlyAfterAnother) {
  EXPECT_EQ(list("0:h:0:/d/a/1\n0:h:0:/d/b/1\n0:h:0:/d/a/2\n", "/d"), "0:a/\n0:b/\n0:a/\n");
}

TEST_F(VolumeList, NamesMayHoldColonsAndBlanks) {
  EXPECT_EQ(list("0:h:0:/home/a:b: c\n0:h:0:/my dir/x\n", "/home"), "0:a:b: c\n");
  EXPECT_EQ(list("0:h:0:/my dir/x\n", "/my dir"), "0:x\n");
}

TEST_F(VolumeList, HostsAreComparedWhole) {
  EXPECT_EQ(list("0:hh:0:/a\n0:H:0:/b\n0::0:/c\n0:h:0:/d\n", "/"), "0:d\n");
}

TEST_F(VolumeList, EveryPartOfALargeFileButTheFirstIsLeftOut) {
  EXPECT_EQ(list("0:h:0:/a\n0:h:1:/a\n0:h:2:/a\n0:h:10:/a\n0:h:01:/b\n0:h::/c\n", "/"),
            "0:a\n0:b\n");
}

TEST_F(VolumeList, MalformedLinesAreNamedAndPassedOver) {
  EXPECT_EQ(list("0:h:0:/a\nnonsense\n0:h:/b\n\n0:h:0:/c\n", "/"),
            "0:a\nERROR:  8088  Line malformed in " + file +
                ".  Got 1 vals, lastarg = nonsense\nERROR:  8088  Line malformed in " + file +
                ".  Got 3 vals, lastarg = /b\nERROR:  8088  Line malformed in " + file +
                ".  Got 1 vals, lastarg = \n0:c\n");
}

TEST_F(VolumeList, LineEndsOfOtherSystemsAreTaken) {
  EXPECT_EQ(list("0:h:0:/a\r\n0:h:0:/b", "/"), "0:a\n0:b\n");
}

TEST_F(VolumeList, BinaryAndEndlessLinesDoNoHarm) {
  std::string binary = "0:h:0:/a";
  binary += '\0';
  binary += "tail\n0:h:0:/b\n";
  EXPECT_EQ(list(binary, "/"), "0:a\n0:b\n");
  std::string all;
  for (int at = 0; at < 5000; at++) all += static_cast<char>(at * 7);
  list(all, "/");
  list(std::string(100000, ':'), "/");
  list("0:h:0:/" + std::string(100000, 'x'), "/");
  list("", "/");
  EXPECT_EQ(said, "");
}

TEST_F(VolumeList, LongNamesAreCutUnlessSound) {
  std::string directory = std::string(100, 'd');
  std::string name = directory + "/" + std::string(200, 'n');
  std::string lines = "0:h:0:/" + name + "\n0:h:0:/z\n";
  std::string cut = ("0:h:0:/" + name).substr(285);
  EXPECT_EQ(list(lines, "/"), "0:" + directory + "/\nERROR:  8088  Line malformed in " + file +
                                  ".  Got 1 vals, lastarg = " + cut + "\n0:z\n");
  behave("sound");
  EXPECT_EQ(list(lines, "/"), "0:" + directory + "/\n0:z\n");
  EXPECT_EQ(list(lines, "/" + directory), "0:" + std::string(200, 'n') + "\n");
}

TEST_F(VolumeList, ASubdirectoryThatFillsItsRoomIsShownOnce) {
  behave("sound");
  std::string sub = std::string(255, 's') + "/";
  EXPECT_EQ(list("0:h:0:/" + sub + "a\n0:h:0:/" + sub + "b\n", "/"), "0:" + sub + "\n");
}

TEST_F(VolumeList, ANeighbourWithALongerNameIsShownUnlessSound) {
  std::string lines = "0:h:0:/home/a\n0:h:0:/homework\n";
  EXPECT_EQ(list(lines, "/home"), "0:a\n0:ork\n");
  behave("sound");
  EXPECT_EQ(list(lines, "/home"), "0:a\n");
}

TEST_F(VolumeList, ThatIsNotThereIsReported) {
  EXPECT_EQ(run(getVolCat, "0 3 7 h /"), -1);
  std::string line = "ERROR:  8087  Cannot read volume catalog: " + tapeDir(0, 3) + "/vol.7\n";
  EXPECT_EQ(said, line);
  EXPECT_EQ(hostLog(), line);
  EXPECT_EQ(run(getVolCat, "../0 3 5 h /"), -1);
  EXPECT_EQ(run(getVolCat, "0 . 5 h /"), -1);
}

TEST_F(VolumeList, NeedsFiveWords) {
  EXPECT_EQ(run(getVolCat, "0 3 5 h"), 1);
  EXPECT_EQ(said, "ERROR:  8086 Insufficient arguments.\n");
  EXPECT_EQ(run(getVolCat, ""), 1);
}

}  // namespace
