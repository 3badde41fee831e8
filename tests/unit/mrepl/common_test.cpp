// Byte order, shared areas, sockets and the log of multicast runs.
#include <arpa/inet.h>
#include <fcntl.h>
#include <net/if.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zul/host.h>
#include <zul/module.h>

#include "base/fd.h"
#include "mrepl/run.h"
#include "runsupport.h"

namespace {

using mtest::Ear;

class Common : public support::HomeTest {
 protected:
  void SetUp() override {
    HomeTest::SetUp();
    dlvl = 0;
  }
};

TEST_F(Common, NumbersTravelBigEndian) {
  unsigned char bytes[4];
  packul(bytes, 0x01020304);
  EXPECT_EQ(memcmp(bytes, "\1\2\3\4", 4), 0);
  EXPECT_EQ(unpackul(bytes), 0x01020304u);
  packul(bytes, 0xffffffff);
  EXPECT_EQ(unpackul(bytes), 0xffffffffu);
}

TEST_F(Common, ModesTravelAsTwelveBits) {
  EXPECT_EQ(host2netmode(0104755), 0x9edu);
  EXPECT_EQ(net2hostmode(0x9ed), 04755u);
  for (uint32_t mode = 0; mode < 010000; mode++) {
    ASSERT_EQ(host2netmode(mode), mode);
    ASSERT_EQ(net2hostmode(0xfffff000 | mode), mode) << "the type does not travel";
  }
}

TEST_F(Common, NumbersOfSegmentsCarryIntoTheHighWord) {
  uint32_t high = 3, low = 0xffffffff;
  mrepl::storeNumber(high, low, mrepl::loadNumber(high, low) + 1);
  EXPECT_EQ(high, 4u);
  EXPECT_EQ(low, 0u);
}

TEST_F(Common, TimesAreTakenModuloTheirClockWithOneSecondLessInClassic) {
  EXPECT_EQ(mrepl::sinceWire(1000, 1500), 500);
  EXPECT_EQ(mrepl::sinceWire(255999000, 1000), 2000 - 1000000);
  soundSite();
  EXPECT_EQ(mrepl::sinceWire(255999000, 1000), 2000);
}

TEST_F(Common, ASharedAreaHasItsRingBehindTheControlBlockOfItsSide) {
  for (auto [size, ahead] : {std::pair{MR_SEND_AREA, 72}, std::pair{MR_RECV_AREA, 64}}) {
    mrepl::forgetArea();
    int id = mkShMem(size);
    ASSERT_GE(id, 0);
    char *ctrl = static_cast<char *>(getCtrlPtr(id));
    ASSERT_NE(ctrl, nullptr);
    EXPECT_EQ(getCtrlPtr(id), ctrl) << "attached once";
    mslot *ring = getDataPtr(id);
    ctrl[ahead + 9] = 7;
    EXPECT_EQ(ring[0].state, 7) << "both see the same area";
    EXPECT_EQ(rmShMem(id), 1);
    EXPECT_EQ(getDataPtr(id), ring) << "usable as long as it is attached";
    mrepl::forgetArea();
    EXPECT_EQ(rmShMem(id), 0);
    EXPECT_EQ(getCtrlPtr(id), nullptr);
  }
  EXPECT_NE(hostLog().find("ERROR:  Function shmctl failed!  Unable to free shared memory\n"),
            std::string::npos);
  EXPECT_NE(hostLog().find("ERROR:  Function shmat failed!  Unable to get pointer to shared "
                           "memory.  errno = 22 \n"),
            std::string::npos);
}

TEST_F(Common, AnImpossibleAreaIsRefused) {
  EXPECT_LT(mkShMem(-1), 0);
  EXPECT_EQ(hostLog(), "ERROR:  Function shmget failed!  errno = 22\n");
}

TEST_F(Common, ASenderSocketGoesToTheAddressAndPort) {
  sockaddr_in to;
  char good[] = "127.0.0.1", bad[] = "no.address";
  base::Fd sd(mkUDPSenderSocket(4711, good, &to));
  ASSERT_TRUE(sd);
  EXPECT_EQ(to.sin_family, AF_INET);
  EXPECT_EQ(ntohs(to.sin_port), 4711);
  EXPECT_EQ(ntohl(to.sin_addr.s_addr), INADDR_LOOPBACK);
  std::string said =
      support::captureStderr([&] { EXPECT_EQ(mkUDPSenderSocket(4711, bad, &to), -1); });
  EXPECT_EQ(said, "WARNING:  Failed to resolve: no.address\n");
}

TEST_F(Common, AListenerDoesNotBlockAndItsPortIsItsOwn) {
  sockaddr_in address;
  base::Fd sd(mkUDPListenerSocket(0, &address));
  ASSERT_TRUE(sd);
  EXPECT_NE(fcntl(sd.get(), F_GETFL) & O_NONBLOCK, 0);
  int reuse = 0;
  socklen_t length = sizeof reuse;
  getsockopt(sd.get(), SOL_SOCKET, SO_REUSEADDR, &reuse, &length);
  EXPECT_NE(reuse, 0);
  length = sizeof address;
  getsockname(sd.get(), reinterpret_cast<sockaddr *>(&address), &length);
  EXPECT_EQ(address.sin_addr.s_addr, htonl(INADDR_ANY));
  sockaddr_in again;
  EXPECT_EQ(mkUDPListenerSocket(ntohs(address.sin_port), &again), -2);
  EXPECT_EQ(hostLog(), "") << "said at high debug levels only";
  dlvl = 5;
  EXPECT_EQ(mkUDPListenerSocket(ntohs(address.sin_port), &again), -2);
  EXPECT_EQ(hostLog(), "ERROR:  mkUDPListenerSocket:  UDP Bind Failed!  errno=98\n");
}

TEST_F(Common, AMulticastListenerNeedsAGroupAndAnInterface) {
  sockaddr_in address;
  char bad[] = "nonsense", group[] = MR_GROUP;
  EXPECT_EQ(mkMulticListener(2345, bad, &address), -1);
  EXPECT_EQ(hostLog(), "ERROR: mkMulticListener: Failed to resolve: nonsense\n");
  int status = support::inChild([&] {
    if (!support::ownNetwork()) return 0;
    dlvl = 1911;
    return mkMulticListener(2345, group, &address) == -5 ? 0 : 1;
  });
  EXPECT_EQ(support::exitOf(status), 0);
}

TEST_F(Common, TheFirstInterfaceThatIsNoLoopbackIsTaken) {
  int status = support::inChild([&] {
    if (!support::ownNetwork()) return 0;
    char any[IFNAMSIZ] = "", loopback[IFNAMSIZ] = "l", none[IFNAMSIZ] = "eth7";
    if (getIfName(any) != 1 || getIfName(none) != 1) return 1;
    return getIfName(loopback) == 0 && strcmp(loopback, "lo") == 0 ? 0 : 2;
  });
  EXPECT_EQ(support::exitOf(status), 0);
}

TEST_F(Common, ALogBeginsAnewForEveryRun) {
  for (int server : {1, 0}) {
    std::string name = server ? "/tmp/repServ.log" : "/tmp/repClnt.log";
    int status = support::inChild([&] {
      openLog(server);
      fputs("more\n", fplog);
      return support::readFile(name) == "Replication processes starting\nmore\n" ? 0 : 1;
    });
    EXPECT_EQ(support::exitOf(status), 0);
    struct stat found;
    ASSERT_EQ(lstat(name.c_str(), &found), 0);
    EXPECT_EQ(found.st_mode & 0777, 0600u);
    unlink(name.c_str());
  }
}

// With what stands in the place of the log, which is removed then.
void expectNoLog() {
  std::string said = support::captureStderr([] {
    int status = support::inChild([] {
      openLog(1);
      return 0;
    });
    EXPECT_EQ(support::exitOf(status), 255);
  });
  unlink("/tmp/repServ.log");
  EXPECT_EQ(said, "ERROR:  Cannot open ZULd log file\n");
}

TEST_F(Common, ALinkInTheWayOfTheLogIsNotFollowed) {
  unlink("/tmp/repServ.log");
  support::writeFile(path("precious"), "kept");
  ASSERT_EQ(symlink(path("precious").c_str(), "/tmp/repServ.log"), 0);
  expectNoLog();
  EXPECT_EQ(support::readFile(path("precious")), "kept");
}

TEST_F(Common, APipeInTheWayOfTheLogHoldsNobodyUp) {
  unlink("/tmp/repServ.log");
  ASSERT_EQ(mkfifo("/tmp/repServ.log", 0600), 0);
  expectNoLog();
}

TEST_F(Common, ASoundSiteKeepsTheLogInItsHome) {
  soundSite();
  unlink("/tmp/repServ.log");
  int status = support::inChild([] {
    openLog(1);
    return 0;
  });
  EXPECT_EQ(support::exitOf(status), 0);
  EXPECT_EQ(support::readFile(path("var/repServ.log")), "Replication processes starting\n");
  EXPECT_FALSE(support::exists("/tmp/repServ.log"));
}

TEST_F(Common, ASegmentTravelsAsItLiesInItsSlot) {
  Ear ear;
  mslot slot = {};
  memset(&slot, 0xee, offsetof(mslot, seg));
  slot.seg = mtest::segment(0x100000002, "abc");
  base::Fd out(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  EXPECT_EQ(sendSeg(&slot, &ear.address, out.get()), 0);
  std::string arrived = ear.next();
  ASSERT_EQ(arrived.size(), 1056u);
  EXPECT_EQ(memcmp(arrived.data(), reinterpret_cast<char *>(&slot) + 12, 1056), 0);
  EXPECT_LT(sendSeg(&slot, &ear.address, -1), 0);
}

TEST_F(Common, ARequestIsFourNumbers) {
  Ear ear;
  base::Fd out(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  EXPECT_EQ(reqresend(0x01020304, 5, 0xfffffffe, 3, out.get(), &ear.address), 0);
  EXPECT_EQ(ear.next(), std::string("\1\2\3\4\0\0\0\5\xff\xff\xff\xfe\0\0\0\3", 16));
  EXPECT_LT(reqresend(1, 2, 3, 4, -1, &ear.address), 0);
}

}  // namespace
