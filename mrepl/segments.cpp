// Takes single segments into a receiver's ring and keeps account of what is missing. In the getter.
#include <string.h>
#include <zul/host.h>

#include "base/log.h"
#include "mrepl/run.h"

using mrepl::Number;

namespace {

// A reordered datagram is not a lost one: requests wait for so many unexpected segments.
constexpr int kPatience = 5;

int unexpected;  // since the last request

void store(mslot *slot, const mseg &datagram) {
  slot->flag = 0;
  slot->seg = datagram;
  slot->seg.sendTime = unpackul(&datagram.sendTime);
  slot->seg.high = unpackul(&datagram.high);
  slot->seg.low = unpackul(&datagram.low);
  slot->seg.waitTime = unpackul(&datagram.waitTime);
  slot->seg.control = unpackul(&datagram.control);
  memset(slot->seg.pfin, 0, sizeof slot->seg.pfin);
  memset(slot->seg.sent, 0, sizeof slot->seg.sent);
  slot->state = 1;
}

void advance(mrecvctrl *ctrl, Number number) {
  mrepl::storeNumber(ctrl->contiguousHigh, ctrl->contiguousLow, number);
  mrepl::storeNumber(ctrl->extractToHigh, ctrl->extractToLow, number);
}

// From the end of the gap-free run towards `until`: passes what is held, then marks and counts the
// first run of missing segments. Never more than one lap of the ring.
int scanForGap(mrecvctrl *ctrl, mslot *ring, Number until) {
  Number number = mrepl::joined(ctrl->extractToHigh, ctrl->extractToLow);
  int missing = 0;
  for (int steps = 0; number != until && steps < MR_RECV_SLOTS; number++, steps++) {
    mslot &slot = mrepl::recvSlot(ring, number);
    if (slot.state == 1) {
      if (missing > 0) break;
      advance(ctrl, number);
    } else {
      slot.flag = 1;
      missing++;
    }
  }
  return missing;
}

// A sound receiver passes all it holds as soon as a hole is filled. Otherwise the run stands one
// short of a hole that is filled after the last segment has come: nothing new comes then, so
// nothing is asked for and nothing is put together.
void passHeld(mrecvctrl *ctrl, mslot *ring) {
  Number end = mrepl::extractedOf(*ctrl) + MR_RECV_SLOTS;
  Number number = mrepl::contiguousOf(*ctrl);
  Number start = number;
  while (number + 1 < end && mrepl::recvSlot(ring, number + 1).state == 1) number++;
  if (number != start) advance(ctrl, number);
}

// Retransmissions go to all receivers. One that is taken in after its segment was put away stands
// in the way of the segment one lap later, whose place its old content takes.
bool outsideRing(const mrecvctrl &ctrl, Number number) {
  return number <= mrepl::contiguousOf(ctrl) || number >= mrepl::extractedOf(ctrl) + MR_RECV_SLOTS;
}

// What a segment that the ring does not reach tells: all before it was sent, and can be asked for
// as far as there is room. A receiver that joins late hears nothing else.
Number withinRing(const mrecvctrl &ctrl, Number number) {
  Number last = mrepl::extractedOf(ctrl) + MR_RECV_SLOTS - 1;
  return number < last ? number : last;
}

void noteArrival(mrecvctrl *ctrl, Number number, const mseg &datagram) {
  // In a sound run this is the furthest segment, up to where holes are looked for.
  if (!mrepl::soundRun() || number > mrepl::joined(ctrl->receivedHigh, ctrl->receivedLow))
    mrepl::storeNumber(ctrl->receivedHigh, ctrl->receivedLow, number);
  __atomic_store_n(&ctrl->waitTime, static_cast<int64_t>(unpackul(&datagram.waitTime)),
                   __ATOMIC_RELEASE);
  ctrl->lastSendTime = unpackul(&datagram.sendTime);
  if (mrepl::debugging())
    base::print(fplog, "DEBUG: >>>> Received segment %i:%i. waittime=%li, usec=%u\n",
                mrepl::highOf(number), mrepl::lowOf(number), static_cast<long>(ctrl->waitTime),
                ctrl->lastSendTime);
}

void request(int sd, sockaddr_in *sender, const mrecvctrl &ctrl, int count) {
  Number first = mrepl::contiguousOf(ctrl) + 1;
  if (mrepl::debugging())
    base::print(fplog, "DEBUG: <<<< Requesting missing %i:%i, num=%i\n", mrepl::highOf(first),
                mrepl::lowOf(first), count);
  reqresend(ctrl.lastSendTime, mrepl::highOf(first), mrepl::lowOf(first),
            static_cast<uint32_t>(count), sd, sender);
}

}  // namespace

int processNewSeg(int reqSd, struct sockaddr_in *senderAddr, mrecvctrl *ctrl, mslot *ring,
                  mseg *datagram) {
  bool sound = mrepl::soundRun();
  Number number = mrepl::joined(unpackul(&datagram->high), unpackul(&datagram->low));
  bool outside = sound && outsideRing(*ctrl, number);
  noteArrival(ctrl, outside ? withinRing(*ctrl, number) : number, *datagram);
  mslot &slot = mrepl::recvSlot(ring, number);
  if (slot.state == 2) {
    base::print(fplog, "ERROR: Buffer overflow. segment=%i:%i\n", mrepl::highOf(number),
                mrepl::lowOf(number));
    return -2;
  }
  if (outside || slot.state == 1) {
    if (!outside) slot.flag = 0;
    if (mrepl::debugging()) base::print(fplog, "DEBUG:  Have segment already\n");
    return 0;
  }
  store(&slot, *datagram);
  if (sound) {
    passHeld(ctrl, ring);
    return 0;
  }
  if (number == mrepl::contiguousOf(*ctrl) + 1) {
    advance(ctrl, number);
    unexpected = 0;
    return 0;
  }
  unexpected++;
  int missing = scanForGap(ctrl, ring, number);
  if (unexpected < kPatience) return missing;
  unexpected = 0;
  request(reqSd, senderAddr, *ctrl, missing);
  return missing;
}
