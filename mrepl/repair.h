// How a sound receiver asks for what it lacks, and tells how far it is. In the getter.
//
// Classic receivers ask for the first run of missing segments only, after five unexpected segments
// or whenever nothing came for a moment; with many holes that takes one round trip each. Here all
// holes are asked for in rounds of a few milliseconds, and again when the answer does not come.
#pragma once
#include <netinet/in.h>

#include "mrepl/run.h"

namespace mrepl {

constexpr int kRoundMs = 5;

class Repair {
 public:
  void begin(int requestSd, sockaddr_in *sender);
  // The control word of the datagrams that are taken in: whether their sender wants reports.
  void setRun(uint32_t control) { run_ = (control & kReports) != 0 ? control & kRunMask : 0; }
  // Due every kRoundMs: asks for the holes up to the furthest segment, reports what was put away.
  void round(const mrecvctrl &ctrl, mslot *ring, long long nowMs);
  // At the end of a run: everything before `end` is put away.
  void reportEnd(const mrecvctrl &ctrl, Number end);
  // Nothing has come for a while: rounds become rare.
  void slowDown(bool slow) { slow_ = slow; }

 private:
  void ask(const mrecvctrl &ctrl, mslot *ring, long long nowMs);
  bool isDue(const mslot *ring, Number number, long long nowMs) const;
  void send(const mrecvctrl &ctrl, Number number, uint32_t count);

  int sd_;
  sockaddr_in *sender_;
  uint32_t run_;
  bool slow_;
  long long roundMs_;
  long long reportedMs_;
  Number reported_;
  // When a missing segment was asked for, by slot. A number that was taken in clears its slot.
  struct Ask {
    Number number;
    long long ms;
  } asked_[MR_RECV_SLOTS];
};

}  // namespace mrepl
