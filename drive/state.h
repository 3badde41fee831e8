// What a drive remembers between calls, opens and processes: one page of a file, mapped by every
// process that has the drive open. A parent and its children share one open as they would share a
// kernel drive's; what they find here is where the tape stands, whoever moved it.
//
// Only the holder of the drive's lock changes it, with plain stores: the interface is not meant
// for two calls at the same time.
#pragma once
#include <stddef.h>
#include <stdint.h>

#include "drive/faults.h"
#include "drive/place.h"

namespace drive {

// What the tape has just passed, as far as a read at the end of the data needs to know.
enum class Passed : uint32_t {
  data,  // or nothing: a read at the end of the data fails
  mark,  // a file mark: a read at the end of the data gives 0 once
  end    // the end of the data
};

struct State {
  char magic[8];
  char cartridge[kNameRoom];  // whose positions these are; empty once it was ejected
  uint64_t inode;             // of its image
  int64_t seenSize;           // the image's length when the drive was last at rest
  int64_t offset;             // the position, in the image
  int64_t durable;            // what lies before it is whole and on disk
  int32_t fileNo, blockNo;    // the position as the driver counts; -1: not known
  Passed passed;
  uint32_t isWritten;  // blocks were written and no mark since
  uint32_t isWarned;   // a write crossed the early warning: the next one is refused
  uint32_t blockSize;  // of fixed-block mode; 0: variable
  int32_t holder;      // the process that opened the drive last
  uint32_t faultCounts[kFaultKinds];
  uint64_t faultStamp;  // of the fault file that the counts belong to
  uint64_t faultBytes;  // written since then
};
constexpr size_t kStateSize = 4096;
static_assert(offsetof(State, inode) == 72 && offsetof(State, fileNo) == 104 &&
              offsetof(State, faultCounts) == 132 && offsetof(State, faultStamp) == 152 &&
              sizeof(State) == 168 && sizeof(State) <= kStateSize);

// Maps the state of a drive; makes a fresh one where there is none or it is not one. nullptr with
// errno. The file is written, not just extended, so that a full disk fails here and not at a store
// into the page.
State *mapState(const char *drive);
void unmapState(State *state);
// At the beginning of a cartridge.
void resetState(State *state, const char *cartridge, int image);
// On disk.
void syncState(State *state);

}  // namespace drive
