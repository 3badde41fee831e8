// Segments taken in, holes asked for, files rebuilt, and the end of a receiver.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/udp.h>
#include <signal.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zul/host.h>
#include <zul/module.h>

#include <filesystem>

#include "base/pause.h"
#include "mrepl/received.h"
#include "mrepl/repair.h"
#include "mrepl/restoring.h"
#include "mrepl/run.h"
#include "runsupport.h"

namespace {

namespace fs = std::filesystem;
using mtest::Head;
using mtest::ReceiverTest;

bool has(const std::string &text, const std::string &part) {
  return text.find(part) != std::string::npos;
}

class Taking : public ReceiverTest {
 protected:
  uint64_t extractTo() { return mrepl::joined(ctrl->extractToHigh, ctrl->extractToLow); }
  mslot &slot(uint64_t number) { return mrepl::recvSlot(ring, number); }
  // As the extracter does with all it may take.
  void extract() {
    while (mrepl::extractedOf(*ctrl) < contiguous()) {
      slot(mrepl::extractedOf(*ctrl)).state = 0;
      mrepl::storeNumber(ctrl->extractedHigh, ctrl->extractedLow, mrepl::extractedOf(*ctrl) + 1);
    }
  }
};

TEST_F(Taking, AnExpectedSegmentIsKeptInHostOrder) {
  EXPECT_EQ(take(1, "abc"), 0);
  EXPECT_EQ(contiguous(), 1u);
  EXPECT_EQ(extractTo(), 1u);
  EXPECT_EQ(ctrl->receivedLow, 1u);
  EXPECT_EQ(ctrl->waitTime, 77);
  EXPECT_EQ(ctrl->lastSendTime, 1u);
  EXPECT_EQ(slot(1).state, 1);
  EXPECT_EQ(slot(1).seg.low, 1u);
  EXPECT_EQ(slot(1).seg.waitTime, 77u);
  EXPECT_EQ(memcmp(slot(1).seg.magic, "PaCk", 4), 0);
  EXPECT_EQ(std::string(slot(1).seg.pfin, 8), std::string(8, '\0'));
  EXPECT_EQ(std::string(slot(1).seg.payload, 3), "abc");
}

TEST_F(Taking, ADuplicateChangesNothingButItsFlag) {
  take(1, "abc");
  slot(1).flag = 1;
  clearLogs();
  EXPECT_EQ(take(1, "xyz"), 0);
  EXPECT_EQ(slot(1).flag, 0);
  EXPECT_EQ(std::string(slot(1).seg.payload, 3), "abc");
  EXPECT_TRUE(has(hostLog(), "DEBUG:  Have segment already\n"));
}

TEST_F(Taking, ARingThatOverranEndsTheGetter) {
  slot(3).state = 2;
  EXPECT_EQ(take(3), -2);
  EXPECT_TRUE(has(hostLog(), "ERROR: Buffer overflow. segment=0:3\n"));
}

TEST_F(Taking, NumbersShareASlotEvery4096) {
  take(4095, "a");
  EXPECT_EQ(ring[4095].state, 1);
  take(4096, "b");
  EXPECT_EQ(ring[0].state, 1);
}

TEST_F(Taking, TheFifthUnexpectedSegmentAsksForTheFirstHole) {
  for (uint64_t number : {1, 2, 5, 6, 8}) take(number);
  EXPECT_EQ(take(9), 2);
  EXPECT_EQ(ear.next(), "");
  EXPECT_EQ(slot(3).flag + slot(4).flag + slot(7).flag, 2) << "only the first hole is marked";
  EXPECT_EQ(take(10), 2);
  mreq asked = mtest::request(ear.next());
  EXPECT_EQ(asked.sendTime, 10u);
  EXPECT_EQ(asked.high, 0u);
  EXPECT_EQ(asked.low, 3u);
  EXPECT_EQ(asked.count, 2u);
  EXPECT_TRUE(has(hostLog(), "DEBUG: <<<< Requesting missing 0:3, num=2\n"));
  EXPECT_EQ(take(11), 2);
  EXPECT_EQ(ear.next(), "") << "counted anew";
}

TEST_F(Taking, HeldSegmentsArePassedWhenTheNextUnexpectedOneComes) {
  for (uint64_t number : {1, 2, 4, 5}) take(number);
  take(3);
  EXPECT_EQ(contiguous(), 3u) << "classic passes the repaired one only";
  take(6);
  EXPECT_EQ(contiguous(), 5u);
  take(7);
  EXPECT_EQ(contiguous(), 6u);
}

TEST_F(Taking, NumbersCarry) {
  for (auto *word : {&ctrl->contiguousLow, &ctrl->extractToLow}) *word = 0xffffffff;
  mrepl::storeNumber(ctrl->extractedHigh, ctrl->extractedLow, 0xffffffff);
  slot(0xffffffff).state = 1;
  EXPECT_EQ(take(0x100000000), 0);
  EXPECT_EQ(ctrl->contiguousHigh, 1u);
  EXPECT_EQ(ctrl->contiguousLow, 0u);
}

TEST_F(Taking, AnOldNumberStopsTheSearchAfterOneLap) {
  for (uint64_t number = 1; number <= 10; number++) take(number);
  extract();
  EXPECT_EQ(take(3), 4088) << "from 11 to the slot that 3 lies in now";
}

TEST_F(Taking, ALateRetransmissionPoisonsTheRingInClassicOnly) {
  auto run = [this] {
    for (uint64_t number = 1; number <= 10; number++) take(number, "old");
    extract();
    take(3, "old");
    for (uint64_t number = 11; number <= 4099; number++) {
      take(number, "new");
      extract();
    }
    return std::string(slot(4099).seg.payload, 3);
  };
  EXPECT_EQ(run(), "old") << "segment 3 is taken for 4099";
  memset(static_cast<void *>(ctrl), 0, MR_RECV_AREA);
  soundSite();
  EXPECT_EQ(run(), "new");
}

TEST_F(Taking, ASoundRunPassesWhatItHoldsAsSoonAsAHoleIsFilled) {
  soundSite();
  for (uint64_t number : {1, 2, 4, 5, 7}) take(number);
  EXPECT_EQ(contiguous(), 2u);
  take(3);
  EXPECT_EQ(contiguous(), 5u);
  take(6);
  EXPECT_EQ(contiguous(), 7u);
  EXPECT_EQ(ear.next(), "") << "holes are asked for in rounds";
}

TEST_F(Taking, ASoundRunTakesNothingTheRingDoesNotReach) {
  soundSite();
  for (uint64_t number = 1; number <= 100; number++) take(number);
  extract();  // up to 99: slot 100 % 4096 stays full
  EXPECT_EQ(mrepl::extractedOf(*ctrl), 100u);
  take(100 + 4096);
  EXPECT_EQ(std::string(slot(100).seg.payload, 1), "x");
  EXPECT_EQ(slot(100).seg.low, 100u);
  EXPECT_EQ(ctrl->receivedLow, 4195u) << "all before it was sent: so far there is room for it";
  take(0xffffffffffffffff);
  EXPECT_EQ(ctrl->receivedLow, 4195u) << "nothing up there is asked for";
  take(100 + 4095);
  EXPECT_EQ(slot(4195).state, 1);
}

// --- asking in rounds ---

class Rounds : public Taking {
 protected:
  void SetUp() override {
    Taking::SetUp();
    soundSite();
    repair.begin(out, &ear.address);
  }
  std::vector<mreq> round(long long ms) {
    repair.round(*ctrl, ring, ms);
    std::vector<mreq> found;
    for (const std::string &one : ear.all()) found.push_back(mtest::request(one));
    return found;
  }
  mrepl::Repair repair;
};

TEST_F(Rounds, AskForEveryHoleAndAgainWhenNoAnswerComes) {
  for (uint64_t number : {1, 2, 5, 6, 8, 12}) take(number);
  std::vector<mreq> asked = round(1000);
  ASSERT_EQ(asked.size(), 3u);
  EXPECT_EQ(asked[0].low, 3u);
  EXPECT_EQ(asked[0].count, 2u);
  EXPECT_EQ(asked[1].low, 7u);
  EXPECT_EQ(asked[2].low, 9u);
  EXPECT_EQ(asked[2].count, 3u);
  EXPECT_EQ(asked[2].sendTime, 12u);
  EXPECT_TRUE(round(1005).empty());
  take(7);
  take(10);
  asked = round(1030);
  ASSERT_EQ(asked.size(), 3u);
  EXPECT_EQ(asked[1].low, 9u);
  EXPECT_EQ(asked[1].count, 1u);
  EXPECT_EQ(asked[2].low, 11u);
}

TEST_F(Rounds, TellAReportingSenderHowFarThingsAre) {
  repair.setRun(mrepl::kReports | 0x55 << 16);
  for (uint64_t number = 1; number <= 10; number++) take(number);
  extract();
  std::vector<mreq> told = round(1000);
  ASSERT_EQ(told.size(), 1u);
  EXPECT_EQ(told[0].low, 10u) << "the tenth is not put together yet";
  EXPECT_EQ(told[0].count, 0x55u << 16);
  EXPECT_TRUE(round(1040).empty());
  EXPECT_EQ(round(1060).size(), 1u) << "to be known alive";
  take(11);
  extract();
  EXPECT_EQ(round(1072).size(), 1u);
}

TEST_F(Rounds, TellAnInstalledSenderNothing) {
  repair.setRun(0);
  take(1);
  EXPECT_TRUE(round(1000).empty());
}

TEST_F(Rounds, BecomeRareWhenNothingComes) {
  take(1);
  take(3);
  EXPECT_EQ(round(1000).size(), 1u);
  repair.slowDown(true);
  EXPECT_TRUE(round(1900).empty());
  EXPECT_EQ(round(2000).size(), 1u);
}

TEST_F(Rounds, WithoutASenderNobodyIsAsked) {
  ear.address.sin_addr.s_addr = 0;
  take(1);
  take(3);
  EXPECT_TRUE(round(1000).empty());
}

// --- rebuilding ---

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
  std::string pattern(size_t length) {
    std::string made;
    for (size_t at = 0; at < length; at++) made += static_cast<char>(at * 13 >> 2);
    return made;
  }

 private:
  mode_t mask_ = 0;
};

constexpr uint32_t kMarked = mrepl::kReports | mrepl::kHead;

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

// --- both processes ---

class Whole : public ReceiverTest {
 protected:
  // The getter in a child, as the other process; the extracter too. Returns what the getter
  // returned.
  int receive(const std::function<void(int)> &send) {
    group = ear.address;
    pid_t extracterPid = fork();
    if (extracterPid == 0) {
      extracter();
      _exit(0);
    }
    pid_t getterPid = fork();
    if (getterPid == 0) {
      sockaddr_in none = requests.address;
      int result = getter(ear.sd, &group, out, &none);
      base::storeWord(ctrl->getterState, mrepl::kEnded);
      _exit(result == 0 ? 0 : 1);
    }
    EXPECT_TRUE(support::eventually([this] { return base::loadWord(ctrl->extracterState) == 1; }));
    EXPECT_TRUE(support::eventually([this] { return base::loadWord(ctrl->getterState) == 1; }));
    int sd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    send(sd);
    close(sd);
    int status = -1;
    EXPECT_TRUE(support::eventually(
        [&] { return waitpid(getterPid, &status, WNOHANG) == getterPid; }, 10000));
    EXPECT_TRUE(support::eventually(
        [&] { return waitpid(extracterPid, nullptr, WNOHANG) == extracterPid; }, 10000));
    return support::exitOf(status);
  }
  void put(int sd, uint64_t number, const std::string &payload, size_t length = sizeof(mseg),
           uint32_t control = 0) {
    mseg datagram = mtest::segment(number, "", 7, control);
    memcpy(datagram.payload, payload.data(), std::min(payload.size(), sizeof datagram.payload));
    char bytes[sizeof datagram + 1] = {};
    memcpy(bytes, &datagram, sizeof datagram);
    sendto(sd, bytes, length, 0, reinterpret_cast<sockaddr *>(&group), sizeof group);
  }
  std::string end() {
    std::string record(1024, '\0');
    makeEOTPkt(record.data());
    return record;
  }
  std::string content = std::string(1500, 'q');
  sockaddr_in group{};
  mtest::Ear requests;
};

TEST_F(Whole, ARunWithoutLossEndsWithTheSecondEndRecordInClassic) {
  mtest::Head head{.name = path("f"), .size = 1500};
  int result = receive([&](int sd) {
    put(sd, 1, mtest::payload(head));
    put(sd, 1, "too short", 1055);
    put(sd, 1, "too long", 1057);
    put(sd, 2, content.substr(0, 1024));
    put(sd, 3, content.substr(1024));
    put(sd, 4, end());
    EXPECT_TRUE(
        support::eventually([&] { return support::exists(path("f")) && ctrl->extractedLow == 4; }));
    EXPECT_EQ(base::loadWord(ctrl->extracterState), mrepl::kRunning)
        << "it stops one short of what has come";
    put(sd, 5, end());
  });
  EXPECT_EQ(result, 0);
  EXPECT_EQ(support::readFile(path("f")), content);
  EXPECT_EQ(ctrl->extracterState, mrepl::kEnded);
  EXPECT_EQ(ctrl->extractedLow, 4u);
  EXPECT_EQ(ctrl->ringWord, 16384u);
  std::string log = hostLog();
  EXPECT_TRUE(has(log, "DEBUG:  Getter running!\n"));
  EXPECT_TRUE(has(log, "DEBUG:  extracter:  Extracting 0:1\n"));
  size_t damaged = log.find("Data stream error!");
  EXPECT_NE(damaged, std::string::npos) << "segment 0 is never sent, its slot is empty";
  EXPECT_EQ(log.find("Data stream error!", damaged + 1), std::string::npos);
}

TEST_F(Whole, AGapIsAskedForAgainWhenNothingMoreComes) {
  int result = receive([&](int sd) {
    put(sd, 1, mtest::payload({.name = path("d"), .type = mrepl::kDirectory, .mode = 0700}));
    put(sd, 3, end());
    std::string asked;
    EXPECT_TRUE(support::eventually([&] { return requests.all().size() > 2; }))
        << "again and again";
    put(sd, 2, end());
    put(sd, 4, end());
  });
  EXPECT_EQ(result, 0);
  EXPECT_TRUE(support::exists(path("d")));
}

TEST_F(Whole, ASoundReceiverEndsByItselfWhenNothingComesAnyMore) {
  site("behaviour = sound\nmulticast.idle-limit = 100ms\n");
  int result = receive([&](int sd) {
    put(sd, 1, mtest::payload({.name = path("d"), .type = mrepl::kDirectory}), 1056, kMarked);
  });
  EXPECT_EQ(result, 1);
  EXPECT_TRUE(has(hostLog(), "NOTICE:  Nothing was received for"));
  EXPECT_TRUE(
      has(support::readFile(path("var/tape/mrepljobs/received.json")), "\"state\":\"incomplete\""));
}

TEST_F(Whole, ASoundReceiverTakesOneRunOnlyAndSaysFarewell) {
  soundSite();
  uint32_t run = kMarked | 9 << 16;
  int result = receive([&](int sd) {
    put(sd, 1, mtest::payload({.name = path("d"), .type = mrepl::kDirectory}), 1056, run);
    put(sd, 2, mtest::payload({.name = path("other"), .type = mrepl::kDirectory}), 1056,
        kMarked | 8 << 16);
    put(sd, 2, mtest::payload({.name = path("other"), .type = mrepl::kDirectory}), 1056, 0);
    put(sd, 2, mtest::payload({.name = path("e"), .type = mrepl::kDirectory}), 1056, run);
    put(sd, 3, end(), 1056, run);
    put(sd, 4, end(), 1056, run);
  });
  EXPECT_EQ(result, 0);
  EXPECT_TRUE(support::exists(path("d")) && support::exists(path("e")));
  EXPECT_FALSE(support::exists(path("other")));
  std::vector<std::string> told = requests.all();
  ASSERT_FALSE(told.empty());
  mreq last = mtest::request(told.back());
  EXPECT_EQ(last.low, 5u) << "everything before segment 5";
  EXPECT_EQ(last.count, 9u << 16);
  EXPECT_TRUE(has(support::readFile(path("var/tape/mrepljobs/received.json")),
                  "\"state\":\"complete\",\"run\":9"));
}

// Segments that one call sent may arrive in one piece; what else arrives so is none of ours.
TEST_F(Whole, SegmentsOfOnePieceAreTakenOneByOne) {
  soundSite();
  int on = 1;
  ASSERT_EQ(setsockopt(ear.sd, SOL_UDP, UDP_GRO, &on, sizeof on), 0);
  int result = receive([&](int sd) {
    std::string piece;
    auto add = [&](uint64_t number, const std::string &payload, uint32_t control) {
      mseg datagram = mtest::segment(number, "", 7, control | 9 << 16);
      memcpy(datagram.payload, payload.data(), std::min(payload.size(), sizeof datagram.payload));
      piece.append(reinterpret_cast<char *>(&datagram), sizeof datagram);
    };
    add(1, mtest::payload({.name = path("f"), .size = 1500}), kMarked);
    add(2, content.substr(0, 1024), mrepl::kReports);
    add(3, content.substr(1024), mrepl::kReports);
    add(4, end(), kMarked);
    add(5, end(), kMarked);
    for (int length : {1000, 1057, 528, static_cast<int>(sizeof(mseg))}) {
      // The last one is cut short, and sent whole only at the end.
      size_t bytes = length == sizeof(mseg) ? piece.size() : piece.size() - 3;
      setsockopt(sd, SOL_UDP, UDP_SEGMENT, &length, sizeof length);
      EXPECT_EQ(
          sendto(sd, piece.data(), bytes, 0, reinterpret_cast<sockaddr *>(&group), sizeof group),
          static_cast<ssize_t>(bytes));
    }
  });
  EXPECT_EQ(result, 0);
  EXPECT_EQ(support::readFile(path("f")), content);
}

TEST_F(Whole, WithoutTheOtherProcessNeitherRuns) {
  base::storeWord(ctrl->extracterState, mrepl::kEnded);
  sockaddr_in sender = requests.address;
  EXPECT_EQ(getter(ear.sd, &group, out, &sender), -1);
  EXPECT_EQ(ctrl->getterState, mrepl::kEnded);
  EXPECT_EQ(extracter(), -1);
  EXPECT_EQ(ctrl->extracterState, mrepl::kEnded);
}

}  // namespace
