// Segments taken in by a receiver, and holes asked for.
#include <string.h>

#include "mrepl/repair.h"
#include "mrepl/run.h"
#include "runsupport.h"

namespace {

using mtest::has;
using mtest::ReceiverTest;

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

}  // namespace
