// What the tests of multicast runs share; see runsupport.h.
#include "runsupport.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "mrepl/run.h"
#include "mrepl/sending.h"

namespace mtest {

Ear::Ear() {
  sd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  EXPECT_EQ(bind(sd, reinterpret_cast<sockaddr *>(&address), length), 0);
  getsockname(sd, reinterpret_cast<sockaddr *>(&address), &length);
}

Ear::~Ear() {
  close(sd);
}

std::string Ear::next() {
  char bytes[2048];
  ssize_t n = recv(sd, bytes, sizeof bytes, 0);
  return n > 0 ? std::string(bytes, static_cast<size_t>(n)) : "";
}

std::vector<std::string> Ear::all() {
  std::vector<std::string> found;
  for (std::string one; !(one = next()).empty();) found.push_back(one);
  return found;
}

void AreaTest::SetUp() {
  HomeTest::SetUp();
  dlvl = 0;
  mrepl::forgetArea();
  mrepl::runWord = 0;
  mrepl::sending = {};
  shmid = mkShMem(size_);
  ASSERT_GE(shmid, 0);
  memset(getCtrlPtr(shmid), 0, static_cast<size_t>(size_));
  ring = getDataPtr(shmid);
  out = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
}

void AreaTest::TearDown() {
  close(out);
  rmShMem(shmid);
  mrepl::forgetArea();
  shmid = -1;
  HomeTest::TearDown();
}

void SenderTest::SetUp() {
  AreaTest::SetUp();
  ctrl = static_cast<msendctrl *>(getCtrlPtr(shmid));
  ctrl->ringSlots = MR_SEND_SLOTS;
  ctrl->waitTime = 50;
  ctrl->smoothedRtt = 200;
}

void ReceiverTest::SetUp() {
  AreaTest::SetUp();
  ctrl = static_cast<mrecvctrl *>(getCtrlPtr(shmid));
}

int ReceiverTest::take(uint64_t which, const std::string &text) {
  mseg datagram = segment(which, text, static_cast<uint32_t>(which));
  return processNewSeg(out, &ear.address, ctrl, ring, &datagram);
}

uint64_t ReceiverTest::contiguous() const {
  return mrepl::contiguousOf(*ctrl);
}

mseg segment(uint64_t which, const std::string &text, uint32_t sendTime, uint32_t control) {
  mseg made{};
  memcpy(made.magic, "PaCk", 4);
  packul(&made.sendTime, sendTime);
  packul(&made.high, static_cast<uint32_t>(which >> 32));
  packul(&made.low, static_cast<uint32_t>(which));
  packul(&made.waitTime, 77);
  packul(&made.control, control);
  memcpy(made.pfin, "PfIn", 4);
  memcpy(made.sent, "SeNd", 4);
  for (size_t at = 0; at < sizeof made.payload && !text.empty(); at++)
    made.payload[at] = text[at % text.size()];
  return made;
}

uint64_t number(const std::string &datagram) {
  return static_cast<uint64_t>(unpackul(datagram.data() + 8)) << 32 |
         unpackul(datagram.data() + 12);
}

mreq request(const std::string &datagram) {
  return {unpackul(datagram.data()), unpackul(datagram.data() + 4), unpackul(datagram.data() + 8),
          unpackul(datagram.data() + 12)};
}

std::string payload(const Head &head) {
  std::string made(MR_PAYLOAD, '\0');
  mfilehead record{};
  packul(&record.magic, MR_HEAD_MAGIC);
  memcpy(record.name, head.name.data(), std::min(head.name.size(), sizeof record.name));
  record.type = head.type;
  packul(&record.owner, head.owner);
  packul(&record.group, head.group);
  packul(&record.mode, head.mode);
  packul(&record.mtime, head.mtime);
  packul(&record.atime, head.atime);
  packul(&record.size, static_cast<uint32_t>(head.size));
  packul(&record.reserved4, static_cast<uint32_t>(head.size >> 32));
  packul(&record.rdev, head.rdev);
  memcpy(made.data(), &record, sizeof record);
  made.replace(head.at, head.content.size(), head.content);
  return made;
}

mslot slotOf(const std::string &content, uint32_t control) {
  mslot made{};
  made.state = 1;
  made.seg.control = control;
  memcpy(made.seg.payload, content.data(), std::min(content.size(), sizeof made.seg.payload));
  return made;
}

}  // namespace mtest
