// What a host was asked for and has sent nothing of.
#include "tape/asked.h"

#include <string.h>
#include <sys/stat.h>

#include "jobtest.h"

namespace {

using jobtest::File;
using Names = std::vector<std::string>;

class AskedFor : public jobtest::JobTest {
 protected:
  void ask(const std::string &list, int hosts = 1) {
    support::writeFile(path("var/tape/jobids/7"), list);
    asked.read(7, hosts);
  }
  void saw(const std::string &name, uint8_t type = 1, uint32_t mode = S_IFDIR | 0755, int at = 0) {
    package header{};
    memcpy(header.filename, name.data(), std::min(name.size(), sizeof header.filename));
    header.type = type;
    header.mode = mode;
    asked.saw(at, header);
  }
  tape::Asked asked;
};

TEST_F(AskedFor, ATreeIsThereWithItsFolder) {
  ask("/etc/\n/srv/data/\n/hom/\n/etc/hosts\n");
  saw("/etc/");
  saw("/etc/hosts2", 0, S_IFREG | 0644);
  saw("/srv/");
  saw("/srv/data/x/");
  EXPECT_EQ(asked.unseen(0), (Names{"/etc/hosts", "/hom/", "/srv/data/"}));
  saw("/srv/data/");
  saw("/etc/hosts", 0, S_IFREG | 0644);
  EXPECT_EQ(asked.unseen(0), Names{"/hom/"});
}

TEST_F(AskedFor, EachHostAnswersForItself) {
  ask("/etc/\n/home", 2);
  saw("/etc/", 1, S_IFDIR, 0);
  saw("/home/", 1, S_IFDIR, 1);
  EXPECT_EQ(asked.unseen(0), Names{"/home"});
  EXPECT_EQ(asked.unseen(1), Names{"/etc/"});
}

TEST_F(AskedFor, WhatHadVanishedWasNotSent) {
  ask("/etc/motd\n/etc/locked\n");
  saw("/etc/motd", 5, 0600);
  // It cannot be read, which is said by itself.
  saw("/etc/locked", 5, S_IFREG | 0600);
  EXPECT_EQ(asked.unseen(0), Names{"/etc/motd"});
}

TEST_F(AskedFor, ALineTwiceIsOneName) {
  ask("/etc/\n/etc/\n/etc\n\n");
  EXPECT_EQ(asked.unseen(0).size(), 3u);
  saw("/etc/");
  EXPECT_EQ(asked.unseen(0), Names{});
}

TEST_F(AskedFor, TheRootAndNamesThatFitNoHeaderAreNotMissed) {
  ask("/\n//\n/" + std::string(300, 'n') + "/\n" + std::string(255, 'm') + "\n");
  EXPECT_EQ(asked.unseen(0), Names{std::string(255, 'm')});
  // As long as the field, without its NUL.
  saw(std::string(255, 'm'), 0, S_IFREG);
  EXPECT_EQ(asked.unseen(0), Names{});
}

TEST_F(AskedFor, WithoutAListNothingIsMissed) {
  asked.read(8, 3);
  saw("/etc/", 1, S_IFDIR, 2);
  EXPECT_EQ(asked.unseen(2), Names{});
}

TEST_F(AskedFor, SoundTheRecordOfAFullRunNamesIt) {
  behave("sound");
  loadTape();
  defineJob({"127.0.0.2"});
  alone([&] {
    jobtest::Client alpha("127.0.0.2", std::vector<File>{{"/etc/", "", 1}});
    EXPECT_EQ(backup("0"), 0) << jobLog();
    EXPECT_NE(progressRecord().find("\"error\":\"\",\"unread\":0,\"absent\":[\"/home/\"]}"),
              std::string::npos)
        << progressRecord();
    // A level above it saves what has changed.
    EXPECT_EQ(backup("1"), 0) << jobLog();
    EXPECT_NE(progressRecord().find("\"absent\":[]"), std::string::npos) << progressRecord();
  });
}

TEST_F(AskedFor, ClassicSaysNothing) {
  loadTape();
  defineJob({"127.0.0.2"});
  alone([&] {
    jobtest::Client alpha("127.0.0.2", std::vector<File>{{"/a", "abc"}});
    EXPECT_EQ(backup("0"), 0) << jobLog();
    EXPECT_NE(progressRecord().find("\"absent\":[]"), std::string::npos) << progressRecord();
  });
}

}  // namespace
