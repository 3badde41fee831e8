// A whole receiver, its getter and its extracter in processes of their own, and how it ends.
#include <netinet/udp.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <functional>

#include "base/sharedword.h"
#include "mrepl/run.h"
#include "runsupport.h"

namespace {

using mtest::has;
using mtest::kMarked;
using mtest::ReceiverTest;

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
    // They may have ended by then.
    EXPECT_TRUE(support::eventually([this] { return base::loadWord(ctrl->extracterState) != 0; }));
    EXPECT_TRUE(support::eventually([this] { return base::loadWord(ctrl->getterState) != 0; }));
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
    if (waitTime != 0) packul(&datagram.waitTime, waitTime);
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
  uint32_t waitTime = 0;  // instead of the usual one
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

TEST_F(Whole, AWaitTimeOfAnHourHoldsUpNothing) {
  int result = receive([&](int sd) {
    waitTime = UINT32_MAX;
    put(sd, 1, mtest::payload({.name = path("d"), .type = mrepl::kDirectory, .mode = 0700}));
    EXPECT_TRUE(support::eventually([&] { return base::loadWord(ctrl->extractedLow) == 1; }));
    put(sd, 2, end());
    EXPECT_TRUE(support::eventually([&] { return support::exists(path("d")); }));
    put(sd, 3, end());
  });
  EXPECT_EQ(result, 0);
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
