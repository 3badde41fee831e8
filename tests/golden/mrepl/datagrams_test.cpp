// Datagrams, slots and control blocks byte for byte, as installed senders and receivers lay them
// out. The bytes are written by hand from docs/protocols/multicast.md, not by the code under test.
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>
#include <zul/mrepl.h>

#include <vector>

#include "base/fd.h"
#include "goldenbytes.h"
#include "mrepl/packing.h"
#include "mrepl/run.h"
#include "support.h"

using support::assemble;
using support::hex;

namespace {

// A file of five bytes, uid 0, gid 0, mode 4751, in segment 2.
std::string smallFile(const std::string &name, const char *marks) {
  return assemble(1056, {{0, "PaCk"},
                         {4, hex("0d d4 0a 7b")},  // 232 s, 123 us
                         {8, hex("00 00 00 00 00 00 00 02")},
                         {16, hex("00 00 00 32")},
                         {24, std::string(marks, 8)},
                         {32, hex("64 45 68 46")},
                         {36, name},
                         {295, hex("01")},
                         {304, hex("00 00 09 e9")},
                         {312, hex("65 53 f1 00")},
                         {320, hex("65 53 f1 3c")},
                         {328, hex("00 00 00 05")},
                         {368, "hello"}});
}

std::string endRecord() {
  return assemble(336, {{0, hex("64 45 68 46")},
                        {4, "EnD_Of_TrAnSmIsSiOn"},
                        {263, hex("08")},
                        {264, hex("00 00 ff ff ff ff ff fe")}});
}

class MulticastGolden : public support::HomeTest {
 protected:
  void SetUp() override {
    HomeTest::SetUp();
    mrepl::forgetArea();
    mrepl::runWord = 0;
    shmid = mkShMem(MR_SEND_AREA);
    area = static_cast<char *>(getCtrlPtr(shmid));
    memset(area, 0, MR_SEND_AREA);
    ctrl = static_cast<msendctrl *>(getCtrlPtr(shmid));
    ring = getDataPtr(shmid);
    file = path("hello");
    support::writeFile(file, "hello");
    chmod(file.c_str(), 04751);
    timespec times[2] = {{0x6553f13c, 0}, {0x6553f100, 0}};
    utimensat(AT_FDCWD, file.c_str(), times, 0);
    sockets = {base::Fd(socket(AF_INET, SOCK_DGRAM, 0)), base::Fd(socket(AF_INET, SOCK_DGRAM, 0))};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ASSERT_EQ(bind(sockets.in.get(), reinterpret_cast<sockaddr *>(&address), length), 0);
    getsockname(sockets.in.get(), reinterpret_cast<sockaddr *>(&address), &length);
  }
  void TearDown() override {
    rmShMem(shmid);
    mrepl::forgetArea();
    HomeTest::TearDown();
  }
  std::string arrived() {
    char bytes[2000];
    pollfd readable{sockets.in.get(), POLLIN, 0};
    if (poll(&readable, 1, 10000) != 1) return "";
    ssize_t n = recv(sockets.in.get(), bytes, sizeof bytes, 0);
    return n > 0 ? std::string(bytes, static_cast<size_t>(n)) : "";
  }
  void place() {
    mseg content{};
    int type;
    uint64_t size, stored;
    mrepl::placeSegment(ctrl, ring, content);
    mrepl::placeSegment(ctrl, ring, content);
    ASSERT_EQ(storeFileHeader(file.c_str(), &content, &type, &size), 0);
    ASSERT_EQ(storeNewFileData(file.c_str(), &content, type, &stored, size), 0);
    mrepl::placeSegment(ctrl, ring, content);
    mrepl::storeNumber(ctrl->filledHigh, ctrl->filledLow, 4);
  }
  std::string file;
  char *area = nullptr;
  msendctrl *ctrl = nullptr;
  mslot *ring = nullptr;
  struct {
    base::Fd in, out;
  } sockets;
  sockaddr_in address{};
};

TEST_F(MulticastGolden, ASmallFileInItsFirstTransmissionAndItsSecond) {
  if (getuid() != 0) GTEST_SKIP() << "the file would belong to somebody else";
  place();
  ctrl->waitTime = 50;
  mrepl::storeNumber(ctrl->lastSentHigh, ctrl->lastSentLow, 1);
  timeval now{1000, 123};
  ASSERT_EQ(sendData(ring, ctrl, &address, sockets.out.get(), 1, &now), 0);
  EXPECT_EQ(arrived(), smallFile(file, "PfInSeNd"));
  mrepl::storeNumber(ctrl->lastSentHigh, ctrl->lastSentLow, 3);
  ASSERT_EQ(sendData(ring, ctrl, &address, sockets.out.get(), 2, &now), 0);
  EXPECT_EQ(arrived(), smallFile(file, "\0\0\0\0\0\0\0\0"));
}

TEST_F(MulticastGolden, TheSlotOfASegmentThatWasNotSentYet) {
  if (getuid() != 0) GTEST_SKIP() << "the file would belong to somebody else";
  place();
  std::string slot = hex("02 00 00 00 00 00 00 00 00 00 00 00") + smallFile(file, "PfInErR!");
  slot.replace(12 + 4, 4, std::string(4, '\0'));
  slot.replace(12 + 16, 4, std::string(4, '\0'));
  EXPECT_EQ(std::string(area + 72 + 2 * 1068, 1068), slot);
}

TEST_F(MulticastGolden, TheEndOfARun) {
  std::string record(336, 'x');
  makeEOTPkt(record.data());
  EXPECT_EQ(record, endRecord());
}

TEST_F(MulticastGolden, ARequest) {
  ASSERT_EQ(reqresend(0x0dd40c7b, 1, 0xfffffffe, 3, sockets.out.get(), &address), 0);
  EXPECT_EQ(arrived(), hex("0d d4 0c 7b 00 00 00 01 ff ff ff fe 00 00 00 03"));
}

TEST_F(MulticastGolden, TheSendersControlBlock) {
  *ctrl = msendctrl{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};
  std::string bytes =
      hex("01 00 00 00 02 00 00 00 03 00 00 00 04 00 00 00 05 00 00 00 06 00 00 00 07 00 00 00") +
      std::string(area + 28, 4) +
      hex("08 00 00 00 00 00 00 00 09 00 00 00 0a 00 00 00 0b 00 00 00 0c 00 00 00 0d 00 00 00 "
          "0e 00 00 00 0f 00 00 00") +
      std::string(area + 68, 4);
  EXPECT_EQ(std::string(area, 72), bytes);
}

TEST_F(MulticastGolden, TheReceiversControlBlock) {
  alignas(8) char block[64] = {};
  *reinterpret_cast<mrecvctrl *>(block) = mrecvctrl{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13};
  std::string bytes =
      hex("01 00 00 00 02 00 00 00 03 00 00 00 04 00 00 00 05 00 00 00 06 00 00 00 07 00 00 00") +
      std::string(block + 28, 4) +
      hex("08 00 00 00 00 00 00 00 09 00 00 00 0a 00 00 00 0b 00 00 00 0c 00 00 00 0d 00 00 00") +
      std::string(block + 60, 4);
  EXPECT_EQ(std::string(block, 64), bytes);
}

// A receiver keeps what it has taken in with its numbers in host order, without the marks.
TEST_F(MulticastGolden, AReceiversSlot) {
  alignas(8) static char room[64 + 4096 * 1068];
  auto *control = reinterpret_cast<mrecvctrl *>(room);
  auto *slots = reinterpret_cast<mslot *>(room + 64);
  std::string datagram = smallFile("/golden", "PfInSeNd");
  mseg segment;
  memcpy(&segment, datagram.data(), sizeof segment);
  control->contiguousLow = 1;
  EXPECT_EQ(processNewSeg(-1, &address, control, slots, &segment), 0);
  std::string expected = hex("00 00 00 00 00 00 00 00 00 01 00 00") + datagram;
  expected.replace(12 + 4, 4, hex("7b 0a d4 0d"));
  expected.replace(12 + 12, 4, hex("02 00 00 00"));
  expected.replace(12 + 16, 4, hex("32 00 00 00"));
  expected.replace(12 + 24, 8, std::string(8, '\0'));
  EXPECT_EQ(std::string(room + 64 + 2 * 1068, 1068), expected);
}

}  // namespace
