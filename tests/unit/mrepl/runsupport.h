// What the tests of multicast runs share: areas of both sides, sockets on loopback, segments.
#pragma once
#include <netinet/in.h>
#include <zul/mrepl.h>

#include <string>
#include <vector>

#include "mrepl/run.h"
#include "support.h"

namespace mtest {

inline bool has(const std::string &text, const std::string &part) {
  return text.find(part) != std::string::npos;
}

// The control word of a segment that a sound sender marks as the first of a file.
constexpr uint32_t kMarked = mrepl::kReports | mrepl::kHead;

// A UDP socket on loopback that hears what the code under test sends.
class Ear {
 public:
  Ear();
  ~Ear();
  sockaddr_in address{};
  int sd = -1;
  // The next datagram; empty when none has arrived.
  std::string next();
  std::vector<std::string> all();
};

// A fixture with the shared area of one side, zeroed, and its log in a file of its own.
class AreaTest : public support::HomeTest {
 protected:
  explicit AreaTest(int size) : size_(size) {}
  void SetUp() override;
  void TearDown() override;
  mslot *ring = nullptr;
  Ear ear;
  int out = -1;  // a socket to send from

 private:
  int size_;
};

class SenderTest : public AreaTest {
 protected:
  SenderTest() : AreaTest(MR_SEND_AREA) {}
  void SetUp() override;
  msendctrl *ctrl = nullptr;
};

class ReceiverTest : public AreaTest {
 protected:
  ReceiverTest() : AreaTest(MR_RECV_AREA) {}
  void SetUp() override;
  // Takes in the segment with this number; payload is repeated to fill it.
  int take(uint64_t number, const std::string &payload = "x");
  uint64_t contiguous() const;
  mrecvctrl *ctrl = nullptr;
};

// A datagram as it travels.
mseg segment(uint64_t number, const std::string &payload, uint32_t sendTime = 1000,
             uint32_t control = 0);
uint64_t number(const std::string &datagram);
mreq request(const std::string &datagram);  // host order

// A header as it travels, in a payload of 1024 bytes.
struct Head {
  std::string name = {};
  uint8_t type = 1;
  uint64_t size = 0;
  std::string content = {};  // behind the header, at offset
  size_t at = MR_INLINE_OFF;
  uint32_t mode = 0640;
  uint32_t owner = 0, group = 0, mtime = 1700000000, atime = 1700000001, rdev = 0;
};
std::string payload(const Head &head);
mslot slotOf(const std::string &payload, uint32_t control = 0);

}  // namespace mtest
