// How fast a sound sender goes, and how it hands over several segments at once.
#include "mrepl/pace.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/udp.h>
#include <sys/socket.h>

#include <algorithm>
#include <deque>

#include "mrepl/burst.h"
#include "mrepl/packing.h"
#include "runsupport.h"

namespace {

using mtest::Ear;

// --- pace ---

class Pacing : public support::HomeTest {
 protected:
  void SetUp() override {
    HomeTest::SetUp();
    list.begin();
    sockaddr_in address{};
    address.sin_family = AF_INET;
    for (uint32_t host = 0; host < 4; host++) {
      address.sin_addr.s_addr = htonl(0x0a000001 + host);
      receivers[host] = list.heard(address, 0, 1);
    }
  }

  // The sender's loop for so long: it sends what the pace allows, at most `most` segments a
  // second; what is lost is asked for twenty milliseconds later. Segments that went out.
  template <typename Lost>
  double run(int milliseconds, double most, Lost lost) {
    double total = 0;
    std::deque<double> missed(20, 0);
    for (int round = 0; round < milliseconds; round++, now += 1000) {
      pace.adapt(&list, now);
      pace.guess(true, 48);
      double went = 0;
      while (pace.ahead(now) == 0 && went < most / 1000) {
        int count = pace.allowance(now, mrepl::Burst::kMost);
        pace.sent(now, count);
        went += count;
      }
      total += went;
      missed.push_back(lost(went));
      receivers[2]->missed += missed.front();
      missed.pop_front();
    }
    return total;
  }

  mrepl::Receivers list{};
  mrepl::Receiver *receivers[4];
  mrepl::Pace pace{};
  int64_t now = 5000000;
};

constexpr double kFast = 200000;

TEST_F(Pacing, AReceiverThatLacksNothingIsSentToAsFastAsItTakes) {
  pace.begin(0);
  pace.guess(true, 48);
  EXPECT_EQ(pace.waitMicros(), 48) << "before anybody has reported";
  run(500, kFast, [](double) { return 0.0; });
  EXPECT_EQ(pace.waitMicros(), 0);
}

TEST_F(Pacing, WhatIsLostAtRandomIsNoReasonToGoSlower) {
  pace.begin(0);
  run(2000, kFast, [](double went) { return went * 0.2; });
  EXPECT_EQ(pace.waitMicros(), 0);
}

TEST_F(Pacing, ALinkThatCarriesLessIsFilledAndNotFlooded) {
  pace.begin(0);
  // 12 segments a millisecond, and room for some.
  double room = 100, queue = 0;
  auto link = [&](double went) {
    queue += went;
    double lost = std::max(0.0, queue - 12 - room);
    queue = std::max(0.0, queue - lost - 12);
    return lost;
  };
  run(500, kFast, link);
  double sent = run(2000, kFast, link) / 2000;
  EXPECT_GT(sent, 12 * 0.9);
  EXPECT_LT(sent, 12 * 1.6);
}

TEST_F(Pacing, ALinkThatRecoversIsUsedAgain) {
  pace.begin(0);
  run(500, kFast, [](double went) { return went * 0.8; });
  EXPECT_GT(pace.waitMicros(), 10);
  run(2500, kFast, [](double) { return 0.0; });
  EXPECT_EQ(pace.waitMicros(), 0);
}

TEST_F(Pacing, EvenWhereAlmostAllIsLostTheRunGoesOn) {
  pace.begin(0);
  double sent = run(5000, kFast, [](double went) { return went * 0.95; });
  EXPECT_LE(pace.waitMicros(), 1000);
  EXPECT_GT(sent, 4000);
}

TEST_F(Pacing, TheSpeedOfAJobIsNeverExceeded) {
  pace.begin(100);
  double sent = run(1000, kFast, [](double) { return 0.0; });
  EXPECT_NEAR(sent, 10000, 100);
}

TEST_F(Pacing, ReceiversThatDoNotReportAreSentToByRoundTrips) {
  pace.begin(0);
  run(500, kFast, [](double) { return 0.0; });
  pace.guess(false, 77);
  EXPECT_EQ(pace.waitMicros(), 77);
}

TEST_F(Pacing, ShortPausesAreSavedUpForAMillisecond) {
  pace.begin(100);
  EXPECT_EQ(pace.ahead(now), 0);
  EXPECT_EQ(pace.allowance(now, 32), 32) << "nothing was sent for long";
  pace.sent(now, 10);
  EXPECT_EQ(pace.allowance(now, 32), 10);
  pace.sent(now, 20);
  EXPECT_EQ(pace.ahead(now), 2000);
  EXPECT_EQ(pace.ahead(now + 1000), 0);
}

// --- several segments in one call ---

class Bursts : public mtest::SenderTest {
 protected:
  void SetUp() override {
    SenderTest::SetUp();
    for (int at = 0; at < 40; at++) mrepl::placeSegment(ctrl, ring, mseg{});
  }
  mrepl::Burst of(int count) {
    mrepl::Burst burst{};
    for (int at = 0; at < count; at++) burst.add(&ring[at]);
    return burst;
  }
  void expectAll(int count) {
    std::vector<std::string> heard = ear.all();
    ASSERT_EQ(heard.size(), static_cast<size_t>(count));
    for (int at = 0; at < count; at++) {
      EXPECT_EQ(heard[at].size(), sizeof(mseg));
      EXPECT_EQ(mtest::number(heard[at]), static_cast<uint64_t>(at));
    }
  }
};

TEST_F(Bursts, ArriveAsSingleDatagramsInTheirOrder) {
  for (int count : {1, 2, 32}) {
    mrepl::Burst burst = of(count);
    EXPECT_EQ(burst.send(out, ear.address), count);
    expectAll(count);
  }
}

TEST_F(Bursts, GoSinglyWhereTheKernelTakesNoPieces) {
  // A socket without checksums is one that the kernel cuts nothing for.
  int on = 1;
  ASSERT_EQ(setsockopt(out, SOL_SOCKET, SO_NO_CHECK, &on, sizeof on), 0);
  mrepl::Burst burst = of(32);
  EXPECT_EQ(burst.send(out, ear.address), 32);
  expectAll(32);
  EXPECT_EQ(burst.send(out, ear.address), 32) << "and stay so";
  expectAll(32);
}

TEST_F(Bursts, SayWhenNothingWentOut) {
  sockaddr_in nowhere = ear.address;
  nowhere.sin_addr.s_addr = INADDR_BROADCAST;
  mrepl::Burst burst = of(4);
  EXPECT_EQ(burst.send(out, nowhere), 0);
  EXPECT_EQ(errno, EACCES) << "this socket may not broadcast";
  EXPECT_EQ(of(0).send(out, ear.address), 0);
}

}  // namespace
