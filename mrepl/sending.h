// One data sender's work: choosing segments, sending them, freeing their slots, answering requests.
#pragma once
#include <netinet/in.h>
#include <sys/types.h>

#include "mrepl/burst.h"
#include "mrepl/pace.h"
#include "mrepl/receivers.h"
#include "mrepl/run.h"

namespace mrepl {

// Which slots are flagged, so that choosing a segment does not mean looking at sixteen thousand
// slots. The flags themselves are in the slots; the packer clears them when it fills a slot again.
class Wanted {
 public:
  void clear();
  void set(mslot *ring, Number number);
  void done(Number number);
  // The first flagged segment from first to last; last + 1 when there is none.
  Number next(mslot *ring, Number first, Number last);

 private:
  uint64_t bits_[MR_SEND_SLOTS / 64];
};

struct Sending {
  msendctrl *ctrl;
  mslot *ring;
  sockaddr_in *to;
  int sd;
  int requestSd;
  pid_t packer;  // 0 when it is not our child, -1 when it has ended
  Wanted wanted;
  Burst burst;
  Pace pace;
  Receivers receivers;
  long long strangerMs;  // when a receiver that does not report asked last
};

// The one run of this process.
extern Sending sending;

// Takes all requests that have arrived.
void takeRequests();
// The pace that a round trip asks for.
void adaptPace(msendctrl *ctrl, int32_t roundTripMicros);

// Sound: the first new segment that may not be sent now.
Number readyTill(const msendctrl &ctrl);
// True when no new segment may be sent now.
bool nothingReady(const msendctrl &ctrl);
// Writes into a slot's datagram what belongs to this transmission of it.
void prepareAgain(mslot &slot, const msendctrl &ctrl, const Moment &now);
void prepareNew(mslot &slot, const msendctrl &ctrl, Number number, const Moment &now);
// Sends a segment again; sends the next new one. 0 or -1.
int sendAgain(mslot &slot, msendctrl *ctrl, sockaddr_in *to, int sd, const Moment &now);
int sendNext(mslot *ring, msendctrl *ctrl, sockaddr_in *to, int sd, const Moment &now);
// Frees what is old enough, from the oldest on, but nothing from `until` on.
void expire(mslot *ring, msendctrl *ctrl, Number until, uint32_t now);

}  // namespace mrepl
