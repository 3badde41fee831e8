// How fast a sound sender sends. In the data sender's process.
//
// The wait between two segments that the datagrams tell serves receivers which do not report: it is
// a guess from round trips, and never below what keeps a slow network alive. Receivers that report
// hold the sender back themselves, by the room in their rings, so it may go as fast as they follow;
// slower only when one of them loses much of what is sent to it: then something on the way to it
// carries less.
#pragma once
#include <stdint.h>

#include "mrepl/receivers.h"

namespace mrepl {

class Pace {
 public:
  // shortest: of the job's speed, microseconds; 0 when it sets none.
  void begin(int64_t shortestMicros);
  // The wait that holds now: what receivers who report allow, or this one.
  void guess(bool reporting, int64_t micros);

  // How long nothing may be sent yet, and how many segments then.
  int64_t ahead(int64_t nowMicros) const;
  int allowance(int64_t nowMicros, int most) const;
  void sent(int64_t nowMicros, int count);
  // Compares what was sent with what the receivers lack of it.
  void adapt(Receivers *receivers, int64_t nowMicros);

  double waitMicros() const { return wait_; }

 private:
  void measure(int64_t nowMicros);
  void slowDown(double lost);

  double shortest_;
  double own_;   // what the receivers allow
  double wait_;  // what holds
  double due_;
  int64_t lookedMicros_;
  int64_t heldTillMicros_;
  double sent_;     // in the last tenth of a second or so
  double elapsed_;  // in which they were
};

}  // namespace mrepl
