// A sound receiver against a network that loses, repeats and reorders: whatever the order, every
// segment is put together once, in order, with its own content. Thousands of short runs in one
// process, with time and network played.
#include <string.h>

#include <algorithm>
#include <deque>
#include <random>

#include "mrepl/repair.h"
#include "mrepl/run.h"
#include "runsupport.h"

namespace {

struct Conditions {
  unsigned seed;
  uint64_t segments;
  double loss;
  double twice;
  double late;       // a datagram is held back behind some others
  double slow;       // the extracter does nothing in a round
  bool window;       // the sender goes by reports, as a sound one; else it runs ahead
  bool foreign;      // datagrams of forged numbers are mixed in
  double burst = 0;  // everything is lost for up to a hundred datagrams
};

class Network : public mtest::ReceiverTest {
 protected:
  void SetUp() override {
    ReceiverTest::SetUp();
    soundSite();
  }

  void begin(const Conditions &chosen) {
    now_ = chosen;
    dice_.seed(chosen.seed);
    memset(static_cast<void *>(ctrl), 0, sizeof *ctrl);
    for (int at = 0; at < MR_RECV_SLOTS; at++) memset(static_cast<void *>(&ring[at]), 0, 16);
    repair_.begin(out, &ear.address);
    repair_.setRun(mrepl::kReports | 1 << 16);
    ear.all();
    next_ = starts_;
    extracted_ = 0;
    limit_ = 1 + MR_RECV_SLOTS;
    ms_ = 1000;
    clock_ = 0;
    gone_ = 0;
    inFlight_.clear();
    wanted_.clear();
  }

  bool chance(double probability) {
    return std::uniform_real_distribution<>(0, 1)(dice_) < probability;
  }
  uint64_t below(uint64_t limit) {
    return std::uniform_int_distribution<uint64_t>(0, limit - 1)(dice_);
  }

  void transmit(uint64_t number) {
    if (gone_ == 0 && chance(now_.burst)) gone_ = 1 + below(100);
    if (gone_ > 0) {
      gone_--;
      return;
    }
    if (chance(now_.loss)) return;
    inFlight_.push_back(number);
    if (chance(now_.twice)) inFlight_.push_back(number);
    if (chance(now_.late) && inFlight_.size() > 1)
      std::swap(inFlight_.back(), inFlight_[below(inFlight_.size())]);
  }

  void deliver(uint64_t number, char mark) {
    mseg datagram = mtest::segment(number, "", ++clock_);
    memset(datagram.payload, mark, 4);
    memcpy(datagram.payload + 4, &number, sizeof number);
    ASSERT_GE(processNewSeg(out, &ear.address, ctrl, ring, &datagram), 0);
  }

  // The sender's turn: what was asked for, then new segments, or the last one once more.
  void send() {
    for (uint64_t number : wanted_) transmit(number);
    wanted_.clear();
    uint64_t upTo = std::min(next_ + 1 + below(60), now_.segments);
    bool any = false;
    for (; next_ < upTo && (!now_.window || next_ < limit_); next_++, any = true) transmit(next_);
    if (!any) transmit(next_ - 1);
  }

  void hear() {
    for (const std::string &datagram : ear.all()) {
      mreq asked = mtest::request(datagram);
      uint64_t first = mrepl::joined(asked.high, asked.low);
      uint32_t count = asked.count & 0xffff;
      // Forged numbers make it ask for what will never be, and nothing else.
      if (!now_.foreign) {
        ASSERT_LE(first, now_.segments);
      }
      if (chance(now_.loss)) continue;
      if (count == 0) limit_ = std::max(limit_, first + MR_RECV_SLOTS);
      for (uint64_t number = first; number < first + count && number < next_; number++)
        wanted_.push_back(number);
    }
  }

  // The extracter's turn; it must find each segment with its own content.
  void extract() {
    while (extracted_ < contiguous()) {
      mslot &slot = mrepl::recvSlot(ring, extracted_);
      if (extracted_ > 0) {
        uint64_t found;
        memcpy(&found, slot.seg.payload + 4, sizeof found);
        ASSERT_EQ(slot.state, 1);
        ASSERT_EQ(found, extracted_);
        ASSERT_EQ(mrepl::joined(slot.seg.high, slot.seg.low), extracted_);
      }
      slot.state = 0;
      mrepl::storeNumber(ctrl->extractedHigh, ctrl->extractedLow, ++extracted_);
    }
  }

  // Rounds until everything has come; 0 when it never does.
  int run(const Conditions &chosen) {
    begin(chosen);
    for (int round = 1; round < 20000; round++, ms_ += 5) {
      send();
      std::deque<uint64_t> arriving;
      arriving.swap(inFlight_);
      for (uint64_t number : arriving) deliver(number, 'd');
      if (now_.foreign && chance(0.3)) {
        // Far ahead or long past: nothing that is still to come may suffer.
        deliver(contiguous() - std::min<uint64_t>(contiguous(), below(5000)), 'f');
        deliver(extracted_ + MR_RECV_SLOTS + below(1ULL << 40), 'f');
      }
      if (!chance(now_.slow)) extract();
      if (HasFatalFailure()) return 0;
      if (extracted_ == now_.segments - 1) return round;
      repair_.round(*ctrl, ring, ms_);
      hear();
    }
    return 0;
  }

  Conditions now_{};
  std::mt19937 dice_;
  mrepl::Repair repair_;
  std::deque<uint64_t> inFlight_;
  std::vector<uint64_t> wanted_;
  uint64_t next_ = 1, extracted_ = 0, limit_ = 0;
  long long ms_ = 0;
  uint32_t clock_ = 0;
  uint64_t gone_ = 0;
  uint64_t starts_ = 1;
};

TEST_F(Network, AnyMixtureOfLossRepetitionAndReorderingIsRepaired) {
  std::mt19937 dice(7);
  auto upTo = [&](double most) { return std::uniform_real_distribution<>(0, most)(dice); };
  for (unsigned seed = 1; seed <= 3000; seed++) {
    Conditions chosen{seed,      2 + dice() % 200, seed % 10 == 0 ? 0 : upTo(0.5),
                      upTo(0.3), upTo(0.3),        upTo(0.7),
                      true,      seed % 3 == 0};
    ASSERT_GT(run(chosen), 0) << "seed " << seed << ", " << chosen.segments << " segments, loss "
                              << chosen.loss;
  }
}

TEST_F(Network, RunsLongerThanTheRingAreRepaired) {
  std::mt19937 dice(8);
  for (unsigned seed = 1; seed <= 12; seed++) {
    Conditions chosen{seed, 4000 + dice() % 12000, 0.02 * seed, 0.1, 0.1, 0.5, seed % 4 != 0, true};
    ASSERT_GT(run(chosen), 0) << "seed " << seed << ", " << chosen.segments << " segments, loss "
                              << chosen.loss;
  }
}

TEST_F(Network, BurstsOfLossAreRepaired) {
  std::mt19937 dice(9);
  for (unsigned seed = 1; seed <= 500; seed++) {
    Conditions chosen{seed, 2 + dice() % 600, seed % 2 * 0.05, 0.1, 0.1, 0.3, true, seed % 5 == 0};
    chosen.burst = 0.02;
    ASSERT_GT(run(chosen), 0) << "seed " << seed << ", " << chosen.segments << " segments";
  }
}

// All that it hears at first is ahead of what its ring can hold.
TEST_F(Network, AReceiverThatJoinsLateCompletes) {
  for (uint64_t already : {2u, 4000u, 4095u, 4096u, 4097u, 9000u, 11999u}) {
    for (bool window : {true, false}) {
      starts_ = already;
      EXPECT_GT(run({3, 12000, 0.05, 0.1, 0.1, 0.3, window, false}), 0) << already << window;
    }
  }
}

TEST_F(Network, TheLossOfAnyStretchIsRepaired) {
  constexpr uint64_t kCount = 60;
  auto repaired = [&](uint64_t from, uint64_t to) {
    begin({1, kCount, 0, 0, 0, 0, true, false});
    for (uint64_t number = 1; number < kCount; number++)
      if (number < from || number > to) deliver(number, 'd');
    next_ = kCount;
    for (int round = 0; extracted_ < kCount - 1 && round < 20; round++, ms_ += 5) {
      send();
      std::deque<uint64_t> arriving;
      arriving.swap(inFlight_);
      for (uint64_t number : arriving) deliver(number, 'd');
      extract();
      repair_.round(*ctrl, ring, ms_);
      hear();
    }
    return extracted_ == kCount - 1;
  };
  for (uint64_t lost = 1; lost < kCount; lost++)
    EXPECT_TRUE(repaired(lost, lost)) << "segment " << lost;
  EXPECT_TRUE(repaired(1, 16)) << "the first sixteen";
  EXPECT_TRUE(repaired(kCount - 16, kCount - 1)) << "the last sixteen";
  EXPECT_TRUE(repaired(kCount - 2, kCount - 1)) << "the end records";
  EXPECT_TRUE(repaired(1, kCount - 1)) << "all";
}

}  // namespace
