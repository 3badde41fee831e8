// Files rebuilt from the segments of a run.
#include <signal.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>

#include "mrepl/received.h"
#include "mrepl/restoring.h"
#include "mrepl/run.h"
#include "runsupport.h"

namespace {

namespace fs = std::filesystem;
using mtest::has;
using mtest::Head;
using mtest::kMarked;
using mtest::ReceiverTest;
using support::pattern;

class Building : public ReceiverTest {
 protected:
  void SetUp() override {
    ReceiverTest::SetUp();
    mask_ = umask(0);
    drop();
    mrepl::received.begin();
  }
  void TearDown() override {
    drop();
    mrepl::endRestoring();
    umask(mask_);
    ReceiverTest::TearDown();
  }
  // Forgets a file that a test has left unfinished.
  void drop() {
    mslot end = mtest::slotOf(mtest::payload({.name = "end", .type = mrepl::kEnd}),
                              mrepl::kReports | mrepl::kHead);
    std::string kept = support::readFile(path("etc/ZULsite"));
    soundSite();
    fileExtractor(&end);
    site(kept);
  }
  int feed(const std::string &payload, uint32_t control = 0) {
    mslot slot = mtest::slotOf(payload, control);
    return fileExtractor(&slot);
  }
  int file(const std::string &name, const std::string &content, uint32_t control = 0,
           Head head = {}) {
    head.name = path(name);
    head.size = content.size();
    bool small = content.size() <= 688 && head.at == MR_INLINE_OFF;
    if (small || content.size() < 336) head.content = content;
    int result = feed(mtest::payload(head), control);
    for (size_t at = 0; at < content.size() && !small && head.content.empty(); at += 1024)
      feed(content.substr(at, 1024), control & ~mrepl::kHead);
    return result;
  }
  struct stat look(const std::string &name) {
    struct stat status = {};
    EXPECT_EQ(lstat(path(name).c_str(), &status), 0) << name;
    return status;
  }
  // All of both behaviours that the areas can be in.
  void both(const std::function<void(bool)> &body) {
    body(false);
    drop();
    clearLogs();
    soundSite();
    body(true);
  }

 private:
  mode_t mask_ = 0;
};

TEST_F(Building, AFileComesBackWithContentOwnerPermissionsAndTimes) {
  both([this](bool sound) {
    for (size_t length : {689, 1023, 1024, 1025, 4095, 4096, 4097, 100000}) {
      std::string name = "new/dir" + std::to_string(sound) + "/f";
      EXPECT_EQ(file(name, pattern(length), sound ? kMarked : 0,
                     {.mode = 04751, .owner = getuid(), .group = getgid()}),
                0);
      EXPECT_EQ(look(name).st_mode & 07777, 04751u);
      EXPECT_EQ(look(name).st_mtime, 1700000000);
      EXPECT_EQ(look(name).st_atime, 1700000001);
      EXPECT_EQ(support::readFile(path(name)), pattern(length)) << length;
    }
  });
}

TEST_F(Building, SmallFilesAreReadWhereInstalledReceiversLookInClassic) {
  EXPECT_EQ(file("f", "right", 0, {.content = "", .at = 688}), 0);
  EXPECT_EQ(support::readFile(path("f")), "right");
  EXPECT_EQ(file("g", std::string(400, 'c')), 0);
  EXPECT_EQ(support::readFile(path("g")), std::string(48, 'c') + std::string(352, '\0'))
      << "what would lie behind the segment is zero";
  EXPECT_EQ(look("g").st_size, 400);
  EXPECT_NE(look("g").st_mtime, 1700000000) << "without its times";
}

TEST_F(Building, SmallFilesAreReadWhereTheyAreInASoundRun) {
  soundSite();
  for (size_t length : {0, 1, 335, 336, 337, 687, 688}) {
    EXPECT_EQ(file("f", pattern(length), kMarked), 0);
    EXPECT_EQ(support::readFile(path("f")), pattern(length)) << length;
    EXPECT_EQ(look("f").st_mtime, 1700000000);
    EXPECT_EQ(look("f").st_mode & 07777, 0640u);
  }
}

TEST_F(Building, AFileOf688BytesIsAwaitedInFurtherSegmentsInClassic) {
  Head head{.name = path("f"), .size = 688, .content = pattern(688)};
  EXPECT_EQ(feed(mtest::payload(head)), 0);
  EXPECT_EQ(feed(std::string(1024, 'n')), 0);
  EXPECT_EQ(support::readFile(path("f")), std::string(688, 'n'));
}

TEST_F(Building, AnEmptyFileReplacesWhatWasThere) {
  both([this](bool sound) {
    support::writeFile(path("f"), "was here");
    EXPECT_EQ(file("f", "", sound ? kMarked : 0), 0);
    EXPECT_EQ(look("f").st_size, 0);
    EXPECT_EQ(look("f").st_mode & 07777, 0640u);
  });
}

TEST_F(Building, LinksAreFollowedInClassicAndReplacedOnSoundSites) {
  both([this](bool sound) {
    support::writeFile(path("victim"), "kept");
    fs::remove(path("f"));
    fs::create_symlink(path("victim"), path("f"));
    EXPECT_EQ(file("f", pattern(2000), sound ? kMarked : 0), 0);
    EXPECT_EQ(support::readFile(path("victim")), sound ? "kept" : pattern(2000));
    EXPECT_EQ(support::readFile(path("f")), pattern(2000));
  });
}

TEST_F(Building, NamesThatLeadElsewhereAreRefusedOnSoundSites) {
  soundSite();
  for (std::string name : {"relative", "/a/../b", "/..", ""}) {
    EXPECT_EQ(feed(mtest::payload({.name = name, .size = 3, .content = "abc"}), kMarked), -4)
        << name;
    EXPECT_EQ(feed(mtest::payload({.name = name, .type = mrepl::kDirectory}), kMarked), -4) << name;
    EXPECT_EQ(feed(mtest::payload({.name = name, .type = mrepl::kLink, .size = 2, .content = "x"}),
                   kMarked),
              -9 + 5)
        << name;
    EXPECT_EQ(feed(mtest::payload({.name = name, .type = mrepl::kCharDevice}), kMarked), -4)
        << name;
  }
  EXPECT_FALSE(support::exists("relative"));
}

TEST_F(Building, ADirectoryIsMadeAndMayTakeAFilesPlaceInClassic) {
  support::writeFile(path("d"), "in the way");
  EXPECT_EQ(feed(mtest::payload({.name = path("d"), .type = mrepl::kDirectory, .mode = 0710})), 0);
  EXPECT_TRUE(S_ISDIR(look("d").st_mode));
  EXPECT_EQ(look("d").st_mode & 07777, 0710u);
  EXPECT_EQ(look("d").st_mtime, 1700000000);
  support::writeFile(path("d/f"), "kept");
  EXPECT_EQ(feed(mtest::payload({.name = path("d"), .type = mrepl::kDirectory, .mode = 0755})), 0);
  EXPECT_TRUE(support::exists(path("d/f")));
}

TEST_F(Building, ADirectoryOnASoundSiteGetsItsTimesWhenAllIsThere) {
  soundSite();
  mrepl::beginRestoring();
  EXPECT_EQ(
      feed(mtest::payload({.name = path("d"), .type = mrepl::kDirectory, .mode = 0500}), kMarked),
      0);
  EXPECT_EQ(file("d/f", "x", kMarked), 0);
  mrepl::endRestoring();
  EXPECT_EQ(look("d").st_mode & 07777, 0500u);
  EXPECT_EQ(look("d").st_mtime, 1700000000);
  support::writeFile(path("f"), "in the way");
  EXPECT_EQ(feed(mtest::payload({.name = path("f"), .type = mrepl::kDirectory}), kMarked), -3);
  EXPECT_TRUE(has(hostLog(), "NOTICE:  Failed to replicate >" + path("f") +
                                 "< a file with that name already exists!\n"));
}

TEST_F(Building, ADirectoryWhoseParentIsAFileCannotBeMade) {
  both([this](bool sound) {
    support::writeFile(path("f"), "x");
    EXPECT_EQ(
        feed(mtest::payload({.name = path("f/d"), .type = mrepl::kDirectory}), sound ? kMarked : 0),
        -4);
    EXPECT_TRUE(has(hostLog(), "NOTICE:  Failed to replicate >" + path("f/d") +
                                   "< could not create directory for it!\n"));
  });
}

TEST_F(Building, ALinkIsMade) {
  both([this](bool sound) {
    std::string name = "sub" + std::to_string(sound) + "/l";
    EXPECT_EQ(feed(mtest::payload(
                       {.name = path(name), .type = mrepl::kLink, .size = 6, .content = "there"}),
                   sound ? kMarked : 0),
              0);
    EXPECT_EQ(fs::read_symlink(path(name)), "there");
    int again = feed(
        mtest::payload({.name = path(name), .type = mrepl::kLink, .size = 5, .content = "here"}),
        sound ? kMarked : 0);
    EXPECT_EQ(again, sound ? 0 : -9);
    EXPECT_EQ(fs::read_symlink(path(name)), sound ? "here" : "there");
    EXPECT_EQ(has(hostLog(), "ERROR:  The symlink size is: 6\n"), !sound);
  });
}

TEST_F(Building, AnImpossibleLinkSizeIsBounded) {
  both([this](bool sound) {
    std::string long_(1024 - MR_INLINE_OFF, 't');
    EXPECT_EQ(feed(mtest::payload({.name = path("l" + std::to_string(sound)),
                                   .type = mrepl::kLink,
                                   .size = 0xffffffff,
                                   .content = long_}),
                   sound ? kMarked : 0),
              0);
    EXPECT_EQ(fs::read_symlink(path("l" + std::to_string(sound))), long_);
    EXPECT_EQ(
        feed(mtest::payload({.name = path("empty"), .type = mrepl::kLink}), sound ? kMarked : 0),
        -9);
    EXPECT_TRUE(has(hostLog(), "ERROR:  The symlink size is 0\n"));
  });
}

TEST_F(Building, DevicesAreMadeAndAnotherNumberIsTold) {
  if (getuid() != 0) return;
  both([this](bool sound) {
    uint32_t control = sound ? kMarked : 0;
    fs::remove(path("n"));
    EXPECT_EQ(
        feed(mtest::payload(
                 {.name = path("n"), .type = mrepl::kCharDevice, .mode = 0666, .rdev = 0x103}),
             control),
        0);
    EXPECT_TRUE(S_ISCHR(look("n").st_mode));
    EXPECT_EQ(look("n").st_rdev, 0x103u);
    EXPECT_EQ(look("n").st_mode & 07777, 0666u);
    EXPECT_EQ(look("n").st_mtime, 1700000000);
    EXPECT_EQ(feed(mtest::payload({.name = path("n"), .type = mrepl::kCharDevice, .rdev = 0x105}),
                   control),
              -8);
    EXPECT_TRUE(has(hostLog(), "device file already exists with different major/minor!\n"));
    fs::remove(path("b"));
    EXPECT_EQ(feed(mtest::payload({.name = path("b"), .type = mrepl::kBlockDevice, .rdev = 0x700}),
                   control),
              0);
    EXPECT_TRUE(S_ISBLK(look("b").st_mode));
  });
  support::writeFile(path("plain"), "x");
  EXPECT_EQ(feed(mtest::payload({.name = path("plain"), .type = mrepl::kBlockDevice, .rdev = 0}),
                 kMarked),
            -8)
      << "a file is no device, whatever its number";
}

TEST_F(Building, OtherTypesMakeNothing) {
  for (uint8_t type : {mrepl::kNothing, mrepl::kOther}) {
    EXPECT_EQ(feed(mtest::payload({.name = path("o"), .type = type})), 0);
    EXPECT_FALSE(support::exists(path("o")));
  }
  EXPECT_EQ(feed(mtest::payload({.name = path("o"), .type = 'Q'})), 0);
  EXPECT_TRUE(has(hostLog(), "INFO:  Unknown file type: >Q<\n"));
}

TEST_F(Building, TheEndRecordEnds) {
  std::string end(1024, '\0');
  makeEOTPkt(end.data());
  EXPECT_EQ(feed(end), -11);
}

TEST_F(Building, ADamagedHeaderIsDumpedAndTheStreamResynchronises) {
  EXPECT_EQ(feed(std::string(1024, 'A')), -10);
  std::string log = hostLog(), line = "DEBUG:  DUMP: ";
  for (int at = 0; at < 16; at++) line += " 41";
  line += "  AAAAAAAAAAAAAAAA\n";
  size_t lines = 0;
  for (size_t at = log.find(line); at != std::string::npos; at = log.find(line, at + 1)) lines++;
  EXPECT_EQ(lines, 17u);
  EXPECT_TRUE(has(log, "NOTICE:  Failed to replicate >u5e6hjytrsjn<.  Data stream error!\n"));
  EXPECT_EQ(file("f", pattern(3000)), 0);
  EXPECT_EQ(support::readFile(path("f")), pattern(3000));
}

TEST_F(Building, ContentOfAFileThatCouldNotBeMadeFailsSegmentBySegmentInClassic) {
  support::writeFile(path("f"), "x");
  clearLogs();
  Head head{.name = path("f/below"), .size = 2000};
  EXPECT_EQ(feed(mtest::payload(head)), -4);
  EXPECT_EQ(feed(std::string(1024, 'A')), -10);
  EXPECT_EQ(feed(std::string(1024, 'A')), -10);
  EXPECT_EQ(file("g", pattern(1000)), 0);
}

TEST_F(Building, ContentThatLooksLikeAHeaderIsContentInASoundRun) {
  support::writeFile(path("f"), "x");
  std::string trap = mtest::payload({.name = path("trapped"), .size = 4, .content = "evil"});
  EXPECT_EQ(feed(trap), 0);
  EXPECT_TRUE(support::exists(path("trapped"))) << "an installed receiver goes by the look of it";
  fs::remove(path("trapped"));
  soundSite();
  EXPECT_EQ(feed(mtest::payload({.name = path("f/below"), .size = 2000}), kMarked), -4);
  EXPECT_EQ(feed(trap, mrepl::kReports), 0);
  EXPECT_FALSE(support::exists(path("trapped")));
}

TEST_F(Building, AFileThatTheSenderGaveUpIsNotPutInPlace) {
  soundSite();
  support::writeFile(path("f"), "the good old one");
  EXPECT_EQ(feed(mtest::payload({.name = path("f"), .size = 5000}), kMarked), 0);
  EXPECT_EQ(feed(pattern(1024), mrepl::kReports), 0);
  EXPECT_EQ(file("g", pattern(10), kMarked), 0);
  EXPECT_EQ(support::readFile(path("f")), "the good old one");
  EXPECT_EQ(support::readFile(path("g")), pattern(10));
  EXPECT_TRUE(has(hostLog(), "NOTICE:  Failed to replicate >" + path("f") +
                                 "< its content did not arrive whole!\n"));
  for (const auto &entry : fs::directory_iterator(home))
    EXPECT_FALSE(has(entry.path().filename(), "zulpart")) << entry.path();
}

TEST_F(Building, AFullDiskCostsTheFileInASoundRunAndTheRestInClassic) {
  int status = support::inChild([this] {
    // Larger files than this cannot be written.
    rlimit limit{4096, 4096};
    setrlimit(RLIMIT_FSIZE, &limit);
    signal(SIGXFSZ, SIG_IGN);
    Head head{.name = path("big"), .size = 9000};
    if (feed(mtest::payload(head)) != -5) return 1;  // there is no room to reserve
    soundSite();
    if (feed(mtest::payload(head), kMarked) != 0) return 2;
    for (size_t at = 0; at < 9000; at += 1024) feed(pattern(1024), mrepl::kReports);
    if (support::exists(path("big")) && look("big").st_size == 9000) return 3;
    return file("g", pattern(10), kMarked) == 0 && support::readFile(path("g")) == pattern(10) ? 0
                                                                                               : 4;
  });
  EXPECT_EQ(support::exitOf(status), 0);
}

TEST_F(Building, LargeSizesAreWholeInASoundRunOnly) {
  mfilehead header{};
  header.size = 5;
  header.reserved4 = 1;
  EXPECT_EQ(mrepl::sizeOf(header), 5u);
  soundSite();
  EXPECT_EQ(mrepl::sizeOf(header), 0x100000005u);
}

// --- messages and byte order ---

TEST_F(Building, EveryFailureHasItsMessage) {
  mfilehead header{};
  snprintf(header.name, sizeof header.name, "/n");
  for (int code = -1; code >= -10; code--) logError(&header, code);
  logError(&header, -77);
  memset(header.name, 0, sizeof header.name);
  logError(&header, -78);
  memset(header.name, 'n', sizeof header.name);
  logError(&header, -79);
  EXPECT_EQ(
      hostLog(),
      "NOTICE:  File >/n< replicated, but failed to set ownership.\n"
      "NOTICE:  File >/n< replicated, but failed to set permissions.\n"
      "NOTICE:  Failed to replicate >/n< a file with that name already exists!\n"
      "NOTICE:  Failed to replicate >/n< could not create directory for it!\n"
      "NOTICE:  Failed to replicate >/n< could not mmap file!\n"
      "NOTICE:  Failed to replicate >/n< could not open file!\n"
      "NOTICE:  Failed to replicate >/n< could not make device!\n"
      "NOTICE:  Failed to replicate >/n< device file already exists with different major/minor!\n"
      "NOTICE:  Failed to replicate >/n< could not make symbolic link!\n"
      "NOTICE:  Failed to replicate >u5e6hjytrsjn<.  Data stream error!\n"
      "NOTICE:  Failed to replicate >/n< unknown error number -77!\n"
      "NOTICE:  Failed to replicate >" +
          std::string(256, 'n') + "< unknown error number -79!\n");
}

TEST_F(Building, OnlyTheNumbersOfAHeaderAreTurned) {
  std::string raw = mtest::payload({.name = "/n",
                                    .type = 3,
                                    .size = 9,
                                    .owner = 1,
                                    .group = 2,
                                    .mtime = 4,
                                    .atime = 5,
                                    .rdev = 6});
  mfilehead header;
  memcpy(&header, raw.data(), sizeof header);
  convertFileEndian(&header);
  EXPECT_EQ(header.magic, MR_HEAD_MAGIC);
  EXPECT_STREQ(header.name, "/n");
  EXPECT_EQ(header.type, 3);
  EXPECT_EQ(header.owner, 1u);
  EXPECT_EQ(header.group, 2u);
  EXPECT_EQ(header.mtime, 4u);
  EXPECT_EQ(header.atime, 5u);
  EXPECT_EQ(header.size, 9u);
  EXPECT_EQ(header.rdev, 6u);
  EXPECT_EQ(decryptHeader(&header), 0);
  EXPECT_EQ(decryptBlock(raw.data(), 1024), 0);
}

}  // namespace
