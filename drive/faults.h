// Faults on demand: a text file "faults" in a drive's folder makes the nth call of a kind fail or
// wait, or the tape end early. For tests and for rehearsing what an operator does about them.
#pragma once
#include <stddef.h>
#include <stdint.h>

namespace drive {

enum class FaultKind : uint32_t { read, write, mark, rewind, space };
constexpr size_t kFaultKinds = 5;

struct Fault {
  FaultKind kind;
  uint32_t nth;    // counted from when the file was written
  bool isLasting;  // every call from the nth on
  int error;       // 0: none
  int delayMs;     // waits before the call, or before the error
};

// Plain data: it is looked at in calls that an alarm may jump over.
struct Faults {
  static constexpr size_t kMax = 16;
  Fault list[kMax];
  size_t count;
  int64_t endAfter;  // early warning after so many bytes; -1: where the cartridge has it
  uint64_t stamp;    // tells one version of the file from another; 0: there is none
};

// Reads one line: true when it is a fault, a comment or blank.
bool parseFault(const char *line, Faults *faults);
// Reads the drive's fault file; lines that cannot be read are named in the host's log and left out.
void loadFaults(const char *drive, Faults *faults);

}  // namespace drive
