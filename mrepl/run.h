// What sender and receiver of a multicast run share beside the public records: segment numbers as
// one value, the clock of the datagrams, the bits of the control word, quiet logs.
#pragma once
#include <stdint.h>
#include <zul/module.h>
#include <zul/mrepl.h>

#include "base/sharedword.h"
#include "base/site.h"

namespace mrepl {

// A segment's number, both words in one.
using Number = uint64_t;

inline Number joined(uint32_t high, uint32_t low) {
  return static_cast<Number>(high) << 32 | low;
}
inline uint32_t highOf(Number number) {
  return static_cast<uint32_t>(number >> 32);
}
inline uint32_t lowOf(Number number) {
  return static_cast<uint32_t>(number);
}

// A number lies in two words that its reader cannot load at once. The low word is stored first and
// loaded last: while a carry is under way the reader sees a number that is too small, which makes
// it wait, never one that is too large.
inline Number loadNumber(const uint32_t &high, const uint32_t &low) {
  uint32_t upper = base::loadWord(high);
  return joined(upper, base::loadWord(low));
}
inline void storeNumber(uint32_t &high, uint32_t &low, Number number) {
  base::storeWord(low, lowOf(number));
  base::storeWord(high, highOf(number));
}

inline Number filledOf(const msendctrl &ctrl) {
  return loadNumber(ctrl.filledHigh, ctrl.filledLow);
}
inline Number lastSentOf(const msendctrl &ctrl) {
  return loadNumber(ctrl.lastSentHigh, ctrl.lastSentLow);
}
inline Number freeTillOf(const msendctrl &ctrl) {
  return loadNumber(ctrl.freeTillHigh, ctrl.freeTillLow);
}
inline Number contiguousOf(const mrecvctrl &ctrl) {
  return loadNumber(ctrl.contiguousHigh, ctrl.contiguousLow);
}
inline Number extractedOf(const mrecvctrl &ctrl) {
  return loadNumber(ctrl.extractedHigh, ctrl.extractedLow);
}

inline mslot &sendSlot(mslot *ring, Number number) {
  return ring[number % MR_SEND_SLOTS];
}
inline mslot &recvSlot(mslot *ring, Number number) {
  return ring[number % MR_RECV_SLOTS];
}

// States of the four processes.
constexpr uint32_t kRunning = 1;
constexpr uint32_t kEnded = 8;

// Types of file headers.
enum Type : uint8_t {
  kFile = 1,
  kDirectory = 2,
  kLink = 3,
  kNothing = 4,
  kBlockDevice = 5,
  kCharDevice = 6,
  kOther = 7,
  kEnd = 8
};

// Bits of the control word. Installed receivers look at the first only.
constexpr uint32_t kEnciphered = 2;
// A sound sender wants to hear how far its receivers are, and marks the segments that begin with a
// header, so that file content which looks like one is never taken for one. The upper half tells
// its runs apart; receivers repeat it in the upper half of the count of their requests.
constexpr uint32_t kReports = 4;
constexpr uint32_t kHead = 8;
constexpr uint32_t kRunMask = 0xffff0000;

// The control word of the run that this process sends; 0 in classic. Set before the packer is
// forked.
extern uint32_t runWord;

inline bool soundRun() {
  return base::sound(base::Area::multicast);
}

// Per-segment lines. A sound run leaves them out, because one line per segment fills the disk with
// a tenth of the data that is sent and slows receivers down until they lose segments; dlvl brings
// them back.
inline bool debugging() {
  return dlvl != 0 || !soundRun();
}

// The clock of the datagrams: (seconds modulo 256) * 1,000,000 + microseconds.
struct Moment {
  int64_t seconds;
  int32_t micros;
  uint32_t wire() const {
    return static_cast<uint32_t>(seconds % 256) * 1000000u + static_cast<uint32_t>(micros);
  }
};
// A sound run goes by a clock that nobody sets while it runs.
Moment momentNow();
// Microseconds from one time of that clock to another.
int32_t sinceWire(uint32_t then, uint32_t now);

// A wait that came from the network, as long as the clock of the datagrams can tell at most.
inline int64_t boundedWait(int64_t micros) {
  constexpr int64_t kLongestWait = 255000000;
  return micros < 0 || micros > kLongestWait ? kLongestWait : micros;
}
// Sleeps that long, whatever it is.
void sleepMicros(int64_t micros);
// sleepMicros(micros), but at most until word no longer reads seen.
void waitWordMicros(const uint32_t &word, uint32_t seen, int64_t micros);

// True when the process that was our parent when `parent` was noted is gone.
bool orphaned(int parent);

// An IPv4 address of this site's settings, 0 when it is not set or none. Network order.
uint32_t addressOf(const char *text);
// Forgets the attached area, as a process does that becomes the other side of a run.
void forgetArea();

}  // namespace mrepl
