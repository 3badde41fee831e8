// Single segments sent, sent again and freed; requests; whole runs of a data sender.
#include <arpa/inet.h>
#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zul/host.h>
#include <zul/module.h>

#include "base/fd.h"
#include "base/pause.h"
#include "mrepl/packing.h"
#include "mrepl/sending.h"
#include "runsupport.h"

namespace {

using mrepl::sending;
using mtest::Ear;
using mtest::SenderTest;

class Sender : public SenderTest {
 protected:
  void SetUp() override {
    SenderTest::SetUp();
    base::storeWord(ctrl->senderState, mrepl::kRunning);
    base::storeWord(ctrl->packerState, mrepl::kRunning);
    sending.ctrl = ctrl;
    sending.ring = ring;
    sending.to = &ear.address;
    sending.sd = out;
    sending.requestSd = requests.sd;
  }
  void fill(uint64_t from, uint64_t count) {
    mrepl::storeNumber(ctrl->filledHigh, ctrl->filledLow, from);
    for (uint64_t at = 0; at < count; at++) {
      mseg content{};
      snprintf(content.payload, sizeof content.payload, "segment %llu",
               static_cast<unsigned long long>(from + at));
      mrepl::placeSegment(ctrl, ring, content);
    }
  }
  void sent(uint64_t number) { mrepl::storeNumber(ctrl->lastSentHigh, ctrl->lastSentLow, number); }
  void freed(uint64_t number) { mrepl::storeNumber(ctrl->freeTillHigh, ctrl->freeTillLow, number); }
  int send(uint64_t choice) {
    timeval now{1000, 123};
    return sendData(ring, ctrl, &ear.address, out, static_cast<uint32_t>(choice), &now);
  }
  // A request as it arrives; from another socket than ours.
  void ask(uint64_t first, uint32_t count, uint32_t echo = 0) {
    reqresend(echo, static_cast<uint32_t>(first >> 32), static_cast<uint32_t>(first), count,
              asker.sd, &requests.address);
    mrepl::takeRequests();
  }
  bool wanted(uint64_t number) { return mrepl::sendSlot(ring, number).flag != 0; }
  int allWanted() {
    int count = 0;
    for (int at = 0; at < MR_SEND_SLOTS; at++) count += ring[at].flag;
    return count;
  }
  Ear requests, asker;
};

// --- the pace ---

TEST(MinimumWait, IsDecidedByTheFirstSpeedAndNeverBelow48) {
  for (auto [speed, wait] : {std::pair{100000, 48}, {1000, 1000}, {3, 333333}, {-5, 48}}) {
    int status = support::inChild([speed = speed, wait = wait] {
      if (getMinWait(0) != -1) return 1;
      if (getMinWait(speed) != wait) return 2;
      return getMinWait(7) == wait && getMinWait(0) == wait ? 0 : 3;
    });
    EXPECT_EQ(support::exitOf(status), 0) << speed;
  }
}

TEST_F(Sender, TheRoundTripRisesAtOnceAndFallsByASixteenth) {
  mrepl::adaptPace(ctrl, 409600);
  EXPECT_EQ(ctrl->smoothedRtt, 409600);
  EXPECT_EQ(ctrl->waitTime, 200);
  EXPECT_EQ(ctrl->maxRtt, 409600);
  mrepl::adaptPace(ctrl, 1600);
  EXPECT_EQ(ctrl->smoothedRtt, 409600 - 408000 / 16);
  EXPECT_EQ(ctrl->lastRtt, 1600);
  EXPECT_EQ(ctrl->maxRtt, 409600);
  EXPECT_EQ(ctrl->waitTime, 384100 / 2048);
}

TEST_F(Sender, NearReceiversMakeAClassicSenderFloodAndASoundOneNot) {
  mrepl::adaptPace(ctrl, 300);
  EXPECT_EQ(ctrl->waitTime, 0);
  soundSite();
  mrepl::adaptPace(ctrl, 300);
  EXPECT_EQ(ctrl->waitTime, 48);
}

TEST_F(Sender, ARequestOfAReceiverThatWasStoppedDoesNotStopASoundRun) {
  mrepl::adaptPace(ctrl, 200000000);
  EXPECT_EQ(ctrl->waitTime, 97656);
  soundSite();
  ctrl->smoothedRtt = 200;
  ctrl->waitTime = 50;
  mrepl::adaptPace(ctrl, 200000000);
  EXPECT_EQ(ctrl->waitTime, 50) << "that tells nothing about the network";
  mrepl::adaptPace(ctrl, 1000000);
  EXPECT_EQ(ctrl->waitTime, 488);
}

TEST_F(Sender, TheSampleIsTheAgeOfTheSegmentBehindTheMissingOne) {
  uint32_t now = mrepl::momentNow().wire();
  packul(&ring[8].seg.sendTime, now < 500000 ? 0 : now - 500000);
  newWaitTime(ring, ctrl, 7);
  EXPECT_GE(ctrl->lastRtt, now < 500000 ? 0 : 500000);
  EXPECT_LE(ctrl->lastRtt, 500000 + mrepl::sinceWire(now, mrepl::momentNow().wire()));
}

// --- single segments ---

TEST_F(Sender, AFirstTransmissionIsMarkedAndCounted) {
  fill(0, 5);
  ASSERT_EQ(send(0), 0);
  std::string datagram = ear.next();
  ASSERT_EQ(datagram.size(), 1056u);
  EXPECT_EQ(datagram.substr(0, 4), "PaCk");
  EXPECT_EQ(unpackul(datagram.data() + 4), 1000u % 256 * 1000000 + 123);
  EXPECT_EQ(mtest::number(datagram), 1u) << "segment 0 is never sent";
  EXPECT_EQ(unpackul(datagram.data() + 16), 50u);
  EXPECT_EQ(datagram.substr(24, 8), "PfInSeNd");
  EXPECT_STREQ(datagram.data() + 32, "segment 1");
  EXPECT_EQ(ctrl->lastSentLow, 1u);
  EXPECT_NE(hostLog().find("DEBUG:  Sent segment 0:1, usecs=232000123, waittime=50\n"),
            std::string::npos);
}

TEST_F(Sender, ARetransmissionIsNotMarkedAndClearsTheFlag) {
  fill(0, 5);
  sent(4);
  ring[2].flag = ring[2].state = 1;
  ASSERT_EQ(send(2), 0);
  std::string datagram = ear.next();
  EXPECT_EQ(mtest::number(datagram), 2u);
  EXPECT_EQ(datagram.substr(24, 8), std::string(8, '\0'));
  EXPECT_EQ(ring[2].flag + ring[2].state, 0);
  EXPECT_EQ(ctrl->lastSentLow, 4u);
}

TEST_F(Sender, WhatCannotBeSentDoesNotCountAndKeepsItsFlag) {
  fill(0, 5);
  timeval now{1, 1};
  ring[0].flag = 1;
  sent(3);
  EXPECT_EQ(sendData(ring, ctrl, &ear.address, -1, 0, &now), -1);
  EXPECT_EQ(ring[0].flag, 1);
  EXPECT_EQ(sendData(ring, ctrl, &ear.address, -1, 3, &now), -1);
  EXPECT_EQ(ctrl->lastSentLow, 3u);
  EXPECT_NE(hostLog().find("ERROR: Failed to send segment. errno = 9\n"), std::string::npos);
  EXPECT_NE(hostLog().find("NOTICE: Failed to send segment. errno = 9\n"), std::string::npos);
}

TEST_F(Sender, AClassicSenderSendsTheSlotThatIsNotYetFilled) {
  fill(0, 3);
  sent(2);
  EXPECT_EQ(send(2), 0);
  std::string datagram = ear.next();
  EXPECT_EQ(mtest::number(datagram), 3u);
  EXPECT_EQ(datagram.substr(0, 4), std::string(4, '\0')) << "receivers drop it";
  EXPECT_EQ(send(3), 0);
  EXPECT_EQ(ear.next(), "");
  EXPECT_NE(hostLog().find("DEBUG:  No data available.\n"), std::string::npos);
}

TEST_F(Sender, ASoundSenderDoesNot) {
  soundSite();
  fill(0, 3);
  sent(2);
  EXPECT_TRUE(mrepl::nothingReady(*ctrl));
  EXPECT_EQ(send(2), 0);
  EXPECT_EQ(ear.next(), "");
  EXPECT_EQ(ctrl->lastSentLow, 2u);
}

TEST_F(Sender, ASoundSenderDoesNotRunAheadOfTheSlowestRing) {
  soundSite();
  fill(0, 9000);
  sending.receivers.begin();
  sent(5000);
  EXPECT_FALSE(mrepl::nothingReady(*ctrl)) << "nobody reports";
  auto *one = sending.receivers.heard(asker.address, 0, base::nowMs());
  sending.receivers.reported(one, 905, 0, base::nowMs());
  sent(4999);
  EXPECT_FALSE(mrepl::nothingReady(*ctrl));
  sent(5000);
  EXPECT_TRUE(mrepl::nothingReady(*ctrl)) << "905 + 4096 is one too many";
}

TEST_F(Sender, NumbersCarryWhenSent) {
  fill(0xfffffffe, 4);
  sent(0xffffffff);
  EXPECT_EQ(send(0xffffffff), 0);
  EXPECT_EQ(mtest::number(ear.next()), 0x100000000u);
  EXPECT_EQ(ctrl->lastSentHigh, 1u);
  EXPECT_EQ(ctrl->lastSentLow, 0u);
}

// --- freeing ---

class Expiry : public Sender {
 protected:
  // Age of the slot in microseconds.
  int ask(uint64_t number, uint32_t age) {
    packul(&mrepl::sendSlot(ring, number).seg.sendTime, kNow - age);
    return expireOldSegs(ring, ctrl, static_cast<uint32_t>(number), kNow);
  }
  static constexpr uint32_t kNow = 200000000;
  static constexpr uint32_t kLimit = 16384 * 50;
};

TEST_F(Expiry, NothingIsFreedWithin8191SegmentsOfTheTransmission) {
  mrepl::storeNumber(ctrl->filledHigh, ctrl->filledLow, 9000);
  sent(8191);
  EXPECT_EQ(ask(1, kLimit + 1), 1);
  sent(8192);
  EXPECT_EQ(ask(1, kLimit + 1), 0);
  EXPECT_EQ(ctrl->freeTillLow, 1u);
  EXPECT_EQ(unpackul(&ring[1].seg.sendTime), 0u);
  EXPECT_NE(hostLog().find("DEBUG:  >>>> Segment has expired seg=1,  \n"), std::string::npos);
}

TEST_F(Expiry, NorWhileThePackerIsJustAcrossACarry) {
  mrepl::storeNumber(ctrl->filledHigh, ctrl->filledLow, 0x100000010);
  sent(0xffffffff);
  freed(0xffff0000);
  EXPECT_EQ(ask(0xffff0001, kLimit + 1), 1);
}

TEST_F(Expiry, NorBeforeItsAge) {
  mrepl::storeNumber(ctrl->filledHigh, ctrl->filledLow, 9000);
  sent(9000);
  EXPECT_EQ(ask(1, kLimit), 1);
  EXPECT_EQ(ask(1, kLimit + 1), 0);
}

TEST_F(Expiry, TheNumberCarries) {
  mrepl::storeNumber(ctrl->filledHigh, ctrl->filledLow, 0x100009000);
  sent(0x100008000);
  freed(0xffffffff);
  EXPECT_EQ(ask(0x100000000, kLimit + 1), 0);
  EXPECT_EQ(ctrl->freeTillHigh, 1u);
  EXPECT_EQ(ctrl->freeTillLow, 0u);
}

TEST_F(Expiry, ASlowSenderFreesItsRingOnSoundSitesOnly) {
  ctrl->waitTime = 20000;
  mrepl::storeNumber(ctrl->filledHigh, ctrl->filledLow, 9000);
  sent(9000);
  EXPECT_EQ(ask(1, 121000000), 1) << "no age of this clock reaches 327 seconds";
  soundSite();
  EXPECT_EQ(ask(1, 121000000), 0);
}

TEST_F(Expiry, ASoundSenderKeepsWhatAReceiverLacksHoweverOld) {
  soundSite();
  mrepl::storeNumber(ctrl->filledHigh, ctrl->filledLow, 9000);
  sent(9000);
  sending.receivers.begin();
  auto *one = sending.receivers.heard(asker.address, 0, base::nowMs());
  sending.receivers.reported(one, 3, 0, base::nowMs());
  EXPECT_EQ(ask(1, 0), 0) << "everybody has it: its age does not matter";
  EXPECT_EQ(ask(2, 0), 0);
  EXPECT_EQ(ask(3, kLimit + 1), 1);
}

// --- requests ---

class Requests : public Sender {};

TEST_F(Requests, FlagTheirSegments) {
  fill(0, 100);
  sent(99);
  ask(10, 3);
  EXPECT_TRUE(wanted(10) && wanted(11) && wanted(12));
  EXPECT_EQ(allWanted(), 3);
  EXPECT_EQ(sending.wanted.next(ring, 1, 99), 10u);
  EXPECT_NE(hostLog().find("DEBUG:  Got retransmit request. reqseg=0:10 num=3 New wait="),
            std::string::npos);
}

TEST_F(Requests, ForWhatIsNotPackedAreErrors) {
  fill(0, 100);
  sent(99);
  for (uint64_t number : {uint64_t{100}, uint64_t{1} << 32}) {
    clearLogs();
    ask(number, 1);
    EXPECT_EQ(hostLog(), "ERROR:  Flow-control request out of buffer!  FileID=" +
                             std::to_string(number >> 32) + ":" +
                             std::to_string(static_cast<uint32_t>(number)) + "  Packed=0:100\n");
  }
  EXPECT_EQ(allWanted(), 0);
}

TEST_F(Requests, CountAcrossTheCarry) {
  fill(0xfffffff0, 100);
  sent(0x100000050);
  ask(0xfffffffe, 3);
  EXPECT_TRUE(ring[0x3ffe].flag && ring[0x3fff].flag && ring[0].flag);
  EXPECT_EQ(allWanted(), 3);
}

TEST_F(Requests, OfAnySizeEndWithTheRing) {
  fill(0, 100);
  sent(50);
  ask(10, 0xffffffff);
  EXPECT_EQ(allWanted(), MR_SEND_SLOTS);
}

TEST_F(Requests, OfASoundRunFlagOnlyWhatIsThere) {
  soundSite();
  fill(0, 100);
  sent(50);
  freed(5);
  ask(10, 0xffffffff);
  EXPECT_EQ(allWanted(), 41);
  EXPECT_FALSE(wanted(51)) << "it was not sent yet";
  ask(3, 90);
  EXPECT_FALSE(wanted(3)) << "its slot may hold a later segment";
}

TEST_F(Requests, OfAnyOtherLengthAreDropped) {
  fill(0, 100);
  sent(99);
  for (size_t length : {0, 1, 15, 17, 32, 1056}) {
    std::string bytes(length, '\0');
    sendto(asker.sd, bytes.data(), length, 0, reinterpret_cast<sockaddr *>(&requests.address),
           sizeof requests.address);
    mrepl::takeRequests();
  }
  EXPECT_EQ(allWanted(), 0);
  EXPECT_NE(hostLog().find("NOTICE:  recvfrom:  Read error!"), std::string::npos);
}

TEST_F(Requests, OfAFloodAreTakenInPortions) {
  fill(0, 100);
  sent(99);
  for (int at = 0; at < 200; at++)
    reqresend(0, 0, static_cast<uint32_t>(at % 99), 1, asker.sd, &requests.address);
  mrepl::takeRequests();
  EXPECT_GT(allWanted(), 50);
}

// What a receiver asks for after its answer was sent is on its way.
TEST_F(Requests, ForASegmentUnderwayAreNotAnsweredTwice) {
  soundSite();
  fill(0, 100);
  sent(99);
  uint32_t now;
  bool inTime;
  // A processor that stood still in the midst makes a lost segment of one that is underway.
  do {
    now = mrepl::momentNow().wire();
    for (int at = 0; at < 100; at++) packul(&ring[at].seg.sendTime, now - 1000);
    ring[10].flag = 0;
    ask(10, 1, now - 2000);
    inTime = mrepl::sinceWire(now, mrepl::momentNow().wire()) < 40000;
  } while (!inTime);
  EXPECT_EQ(allWanted(), 0);
  ask(10, 1, now - 500);
  EXPECT_EQ(allWanted(), 1) << "the receiver has heard later ones: it is lost";
}

TEST_F(Requests, OfReceiversThatReportMoveTheWindow) {
  soundSite();
  mrepl::runWord = mrepl::kReports | 0x77 << 16;
  fill(0, 100);
  sent(99);
  sending.receivers.begin();
  ask(40, 0x77 << 16);
  EXPECT_EQ(sending.receivers.count(), 1);
  EXPECT_EQ(sending.receivers.needed(), 40u);
  EXPECT_EQ(allWanted(), 0);
  ask(41, 0x77 << 16 | 2);
  EXPECT_EQ(allWanted(), 2);
  ask(60, 0x78 << 16);
  EXPECT_EQ(sending.receivers.needed(), 40u) << "that one is of another run";
  ask(50, 0x78 << 16 | 1);
  EXPECT_EQ(allWanted(), 2);
  ask(101, 0x77 << 16);
  EXPECT_EQ(sending.receivers.needed(), 40u) << "nobody can have what was not packed";
  ask(100, 0x77 << 16);
  EXPECT_EQ(sending.receivers.needed(), 100u);
}

TEST_F(Requests, OfThoseWhoCameTooLateAreRefused) {
  soundSite();
  mrepl::runWord = mrepl::kReports | 0x77 << 16;
  fill(0, 100);
  sent(99);
  freed(20);
  ask(5, 0x77 << 16);
  mreq answer = mtest::request(asker.next());
  EXPECT_EQ(answer.sendTime, 0x77u << 16);
  EXPECT_EQ(answer.low, 21u);
  EXPECT_EQ(answer.count, 0u);
}

// A host whose receiver reports has no installed one beside it.
TEST_F(Requests, BesideAReceiverThatReportsAreNotAnswered) {
  soundSite();
  mrepl::runWord = mrepl::kReports | 0x77 << 16;
  fill(0, 100);
  sent(99);
  sending.receivers.begin();
  ask(10, 3);
  EXPECT_EQ(allWanted(), 3) << "it may be an installed receiver";
  EXPECT_NE(sending.strangerMs, 0);
  sending.strangerMs = 0;
  ask(5, 0x77 << 16);
  for (uint32_t count : {1u, 0xffffu, UINT32_MAX}) ask(20, count);
  EXPECT_EQ(allWanted(), 3);
  EXPECT_EQ(sending.strangerMs, 0);
  ask(20, 0x77 << 16 | 2);
  EXPECT_EQ(allWanted(), 5);
  EXPECT_EQ(sending.receivers.at(0).missed, 2);
  EXPECT_STREQ(sending.receivers.at(0).name, "127.0.0.1");
}

TEST_F(Requests, OfStrangersAreDroppedOnSoundSites) {
  soundSite();
  fill(0, 100);
  sent(99);
  sending.receivers.begin();
  sending.receivers.expect("elsewhere", htonl(0x0a4d0002), base::nowMs());
  ask(10, 3);
  EXPECT_EQ(allWanted(), 0);
  sending.receivers.expect("here", htonl(INADDR_LOOPBACK), base::nowMs());
  ask(10, 3);
  EXPECT_EQ(allWanted(), 3);
}

// --- receivers ---

class ReceiverList : public support::HomeTest {
 protected:
  static sockaddr_in at(uint32_t host, uint16_t port = 4000) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(0x0a000000 + host);
    address.sin_port = htons(port);
    return address;
  }
  void SetUp() override {
    HomeTest::SetUp();
    list.begin();
  }
  mrepl::Receivers list{};
};

TEST_F(ReceiverList, ExpectedHostsHoldTheRunUntilTheyJoinOrTimeIsUp) {
  EXPECT_EQ(list.limit(), mrepl::Receivers::kUnlimited);
  list.expect("h2", at(2).sin_addr.s_addr, 1000);
  list.expect("unknown", 0, 1000);
  EXPECT_EQ(list.limit(), 1u + 4096);
  list.giveUp(10999);
  EXPECT_TRUE(list.waiting());
  list.giveUp(11000);
  EXPECT_FALSE(list.waiting());
  EXPECT_FALSE(list.at(0).joined);
}

TEST_F(ReceiverList, TheSlowestSetsTheLimit) {
  for (uint32_t host : {2, 3, 4}) list.reported(list.heard(at(host), 0, 1000), host * 100, 0, 1000);
  EXPECT_EQ(list.needed(), 200u);
  list.reported(list.heard(at(2), 0, 1001), 150, 0, 1001);
  EXPECT_EQ(list.needed(), 200u) << "reports may overtake each other";
  list.reported(list.heard(at(2), 0, 1002), 350, 0, 1002);
  EXPECT_EQ(list.needed(), 300u);
}

TEST_F(ReceiverList, TheSilentAndTheStuckAreGivenUp) {
  list.reported(list.heard(at(2), 0, 1000), 10, 0, 1000);
  list.reported(list.heard(at(3), 0, 1000), 20, 0, 1000);
  for (long long now = 2000; now < 61000; now += 1000) {
    list.reported(list.heard(at(2), 0, now), 10, 0, now);
    list.giveUp(now);
  }
  EXPECT_EQ(list.at(1).state, mrepl::ReceiverState::lost) << "silent for ten seconds";
  EXPECT_EQ(list.at(0).state, mrepl::ReceiverState::served);
  list.giveUp(61000);
  EXPECT_EQ(list.at(0).state, mrepl::ReceiverState::lost) << "it has stood still for a minute";
}

TEST_F(ReceiverList, OneThatComesBackIsServedWhenAllItNeedsIsThere) {
  list.reported(list.heard(at(2), 0, 1000), 10, 0, 1000);
  list.giveUp(20000);
  list.reported(list.heard(at(2), 0, 20001), 10, 15, 20001);
  EXPECT_FALSE(list.waiting());
  list.reported(list.heard(at(2), 0, 20002), 16, 15, 20002);
  EXPECT_TRUE(list.waiting());
}

TEST_F(ReceiverList, OneThatCameTooLateUnaskedHoldsNothingUp) {
  list.reported(list.heard(at(2), 5, 1000), 1, 5, 1000);
  EXPECT_FALSE(list.waiting()) << "what it needs is gone";
  EXPECT_EQ(list.at(0).state, mrepl::ReceiverState::lost);
  // A host of the job is waited for, and what it needs is kept.
  list.expect("h3", at(3).sin_addr.s_addr, 1000);
  list.reported(list.heard(at(3), 0, 1001), 1, 0, 1001);
  EXPECT_TRUE(list.waiting());
  // One whose address has changed is known again by what it has.
  list.reported(list.heard(at(4), 5, 1002), 6, 5, 1002);
  EXPECT_EQ(list.at(2).state, mrepl::ReceiverState::served);
}

TEST_F(ReceiverList, TheRunEndsWhenAllHaveIt) {
  list.reported(list.heard(at(2), 0, 1000), 50, 0, 1000);
  list.reported(list.heard(at(3), 0, 1000), 49, 0, 1000);
  list.ended(50);
  EXPECT_TRUE(list.waiting());
  EXPECT_EQ(list.at(0).state, mrepl::ReceiverState::complete);
  list.reported(list.heard(at(3), 0, 1001), 50, 0, 1001);
  list.ended(50);
  EXPECT_FALSE(list.waiting());
}

TEST_F(ReceiverList, TwoReceiversOfOneHostAreTwo) {
  list.expect("h2", at(2).sin_addr.s_addr, 1000);
  list.reported(list.heard(at(2, 4000), 0, 1000), 10, 0, 1000);
  list.reported(list.heard(at(2, 4001), 0, 1000), 20, 0, 1000);
  EXPECT_EQ(list.count(), 2);
  EXPECT_EQ(list.needed(), 10u);
  EXPECT_STREQ(list.at(0).name, "h2");
}

TEST_F(ReceiverList, MoreThanFitAreNotKept) {
  for (uint32_t host = 0; host < 1024; host++) EXPECT_NE(list.heard(at(host), 0, 1), nullptr);
  EXPECT_EQ(list.heard(at(5000), 0, 1), nullptr);
}

// --- whole runs ---

class Runs : public SenderTest {
 protected:
  // Packs by hand, runs the data sender in this process with one receiver that only listens.
  std::vector<std::string> run(uint64_t segments) {
    mrepl::storeNumber(ctrl->filledHigh, ctrl->filledLow, 0);
    pid_t pid = fork();
    if (pid == 0) {
      base::storeWord(ctrl->packerState, mrepl::kRunning);
      while (base::loadWord(ctrl->senderState) == 0) base::sleepMs(1);
      for (uint64_t at = 0; at + 2 < segments; at++) mrepl::placeSegment(ctrl, ring, mseg{});
      mrepl::placeEndRecords(ctrl, ring);
      // As a packer that pauses between its batches: the sender has seen it run.
      while (base::loadWord(ctrl->lastSentLow) == 0) base::sleepMs(1);
      base::storeWord(ctrl->packerState, mrepl::kEnded);
      _exit(0);
    }
    int room = 16 << 20;
    setsockopt(ear.sd, SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof room);
    result = dataSender(&ear.address, out, nullptr, requests.sd);
    waitpid(pid, nullptr, 0);
    return ear.all();
  }
  Ear requests;
  int result = -99;
};

TEST_F(Runs, ClassicSendsFromSegment1ToTheUnfilledOneAndRepeatsTheLast1024Times) {
  std::vector<std::string> sent = run(20);
  EXPECT_EQ(result, 0);
  EXPECT_EQ(ctrl->senderState, mrepl::kEnded);
  std::vector<uint64_t> first;
  size_t repeats = 0;
  for (const std::string &datagram : sent) {
    if (datagram.substr(28, 4) == "SeNd")
      first.push_back(mtest::number(datagram));
    else if (mtest::number(datagram) == 19)
      repeats++;
  }
  ASSERT_EQ(first.size(), 20u);
  for (size_t at = 0; at < first.size(); at++) EXPECT_EQ(first[at], at + 1);
  EXPECT_EQ(sent[19].substr(0, 4), std::string(4, '\0')) << "segment 20 was never filled";
  EXPECT_EQ(repeats, 1023u) << "the pass that ends the run sends nothing";
  EXPECT_EQ(sent.size(), 20u + 1023);
}

TEST_F(Runs, SoundSendsWhatIsThereAndEndsWhenNobodyAsks) {
  soundSite();
  mrepl::runWord = mrepl::kReports | 1 << 16;
  std::vector<std::string> sent = run(20);
  EXPECT_EQ(result, 0);
  std::vector<uint64_t> first;
  for (const std::string &datagram : sent) {
    EXPECT_EQ(datagram.substr(0, 4), "PaCk");
    EXPECT_LT(mtest::number(datagram), 20u);
    if (datagram.substr(28, 4) == "SeNd") first.push_back(mtest::number(datagram));
  }
  ASSERT_EQ(first.size(), 19u);
  EXPECT_EQ(mtest::number(sent.back()), 19u) << "the end is repeated";
}

// A host that asks for everything all the time gets most of what goes out, but not all of it.
TEST_F(Runs, RequestsForEverythingDoNotKeepNewSegmentsBack) {
  site("behaviour = sound\nmulticast.drain = 100ms\n");
  mrepl::runWord = mrepl::kReports | 1 << 16;
  Ear asker;
  constexpr long long kAskingMs = 60000;
  long long begun = base::nowMs();
  pid_t noise = fork();
  if (noise == 0) {
    while (base::nowMs() - begun < kAskingMs) {
      reqresend(mrepl::momentNow().wire(), 0, 1, 0xffff, asker.sd, &requests.address);
      mrepl::sleepMicros(500);
    }
    _exit(0);
  }
  run(2000);
  EXPECT_EQ(result, 0);
  EXPECT_EQ(ctrl->lastSentLow, 1999u);
  EXPECT_LT(base::nowMs() - begun, kAskingMs) << "it has to end while it is asked";
  kill(noise, SIGKILL);
  waitpid(noise, nullptr, 0);
}

TEST_F(Runs, ANetworkThatTakesNothingEndsASoundRun) {
  site("behaviour = sound\nmulticast.drain = 200ms\n");
  mrepl::runWord = mrepl::kReports | 1 << 16;
  base::storeWord(ctrl->packerState, mrepl::kRunning);
  for (int at = 0; at < 50; at++) mrepl::placeSegment(ctrl, ring, mseg{});
  sockaddr_in nowhere = ear.address;
  nowhere.sin_addr.s_addr = INADDR_BROADCAST;  // which the socket may not send to
  EXPECT_EQ(dataSender(&nowhere, out, nullptr, requests.sd), 0);
  EXPECT_EQ(ctrl->lastSentLow, 0u);
  EXPECT_EQ(hostLog(),
            "NOTICE: Failed to send segment. errno = 13\n"
            "ERROR:  Nothing could be sent for 0 seconds: the run is given up\n");
}

TEST_F(Runs, ANetworkThatGoesAtTheEndFillsNoLog) {
  site("behaviour = sound\nmulticast.drain = 200ms\n");
  mrepl::runWord = mrepl::kReports | 1 << 16;
  mrepl::storeNumber(ctrl->filledHigh, ctrl->filledLow, 0);
  for (int at = 0; at < 50; at++) mrepl::placeSegment(ctrl, ring, mseg{});
  base::storeWord(ctrl->packerState, mrepl::kRunning);
  pid_t pid = fork();
  if (pid == 0) {
    support::eventually([&] { return base::loadWord(ctrl->lastSentLow) == 49; });
    connect(out, reinterpret_cast<sockaddr *>(&requests.address), sizeof requests.address);
    shutdown(out, SHUT_WR);
    support::eventually([&] { return hostLog().find("Failed to send") != std::string::npos; });
    base::storeWord(ctrl->packerState, mrepl::kEnded);
    _exit(0);
  }
  EXPECT_EQ(dataSender(&ear.address, out, nullptr, requests.sd), 0);
  waitpid(pid, nullptr, 0);
  std::string log = hostLog();
  EXPECT_EQ(log.find("Failed to send"), log.rfind("Failed to send")) << log;
  EXPECT_NE(log.find("Failed to send"), std::string::npos);
}

TEST_F(Runs, WithoutAPackerThereIsNone) {
  base::storeWord(ctrl->packerState, mrepl::kEnded);
  EXPECT_EQ(dataSender(&ear.address, out, nullptr, requests.sd), -1);
  EXPECT_EQ(ctrl->senderState, mrepl::kEnded);
}

TEST_F(Runs, HostsThatAreTooManyToBeFollowedAreTold) {
  site("behaviour = sound\nmulticast.patience = 50ms\nmulticast.drain = 200ms\n");
  std::vector<std::string> names;
  for (int at = 0; at < 1026; at++)
    names.push_back("10.0." + std::to_string(at / 200) + "." + std::to_string(1 + at % 200));
  std::vector<strNode> nodes(names.size() + 1);
  for (size_t at = 0; at < names.size(); at++) nodes[at] = {names[at].data(), &nodes[at + 1]};
  MreplJobData job{};
  job.hostList = nodes[0];
  alone([&] {
    std::string said = support::captureStderr([&] { EXPECT_EQ(repServStart(&job), 0); });
    EXPECT_NE(said.find("WARNING:  Only 1024 receivers are followed: nobody will know of the "
                        "other 2\n"),
              std::string::npos);
  });
}

TEST_F(Runs, ABusyRequestPortEndsTheStart) {
  MreplJobData job{};
  std::string said = support::captureStderr([&] {
    int status = support::inChild([&] {
      support::ownNetwork();
      sockaddr_in address;
      base::Fd busy(mkUDPListenerSocket(MR_REQ_PORT, &address));
      return repServStart(&job) == -2 ? 0 : 1;
    });
    EXPECT_EQ(support::exitOf(status), 0);
  });
  EXPECT_EQ(said, "ERROR: Failed to get listener socket. retval = -2, errno = 98\n");
  unlink("/tmp/repServ.log");
}

}  // namespace
