// What the data sender does with single segments: sends them, sends them again, frees them, keeps
// the pace. In the process of the sending host.
#include "mrepl/sending.h"

#include <errno.h>
#include <string.h>
#include <sys/time.h>
#include <zul/host.h>

#include "base/log.h"

namespace {

constexpr int kShortestWait = 48;
constexpr uint32_t kKeptBehind = MR_SEND_SLOTS / 2 - 1;
// Older times tell a sound run nothing: of receivers that were stopped, or of none of ours.
constexpr int32_t kLongestTrip = 1000000;
// The clock of the segments tells ages below 255 seconds only; what should become older than that
// would never be freed, and the run would stand still with a full ring.
constexpr int64_t kOldestMicros = 120000000;

int minimumWait = -1;

void stamp(mslot &slot, const msendctrl &ctrl, const mrepl::Moment &now) {
  packul(&slot.seg.sendTime, now.wire());
  packul(&slot.seg.waitTime, static_cast<uint32_t>(ctrl.waitTime));
  uint32_t head = unpackul(&slot.seg.control) & mrepl::kHead;
  packul(&slot.seg.control, base::loadWord(ctrl.controlWord) | head);
}

}  // namespace

namespace mrepl {

Sending sending;

void Wanted::clear() {
  memset(bits_, 0, sizeof bits_);
}

void Wanted::set(mslot *ring, Number number) {
  sendSlot(ring, number).flag = 1;
  size_t at = number % MR_SEND_SLOTS;
  bits_[at / 64] |= uint64_t{1} << (at % 64);
}

void Wanted::done(Number number) {
  size_t at = number % MR_SEND_SLOTS;
  bits_[at / 64] &= ~(uint64_t{1} << (at % 64));
}

Number Wanted::next(mslot *ring, Number first, Number last) {
  while (first <= last) {
    size_t at = first % MR_SEND_SLOTS;
    uint64_t word = bits_[at / 64] >> (at % 64);
    if (word == 0) {
      first += 64 - at % 64;
      continue;
    }
    first += static_cast<unsigned>(__builtin_ctzll(word));
    if (first > last) break;
    if (sendSlot(ring, first).flag != 0) return first;
    done(first);
  }
  return last + 1;
}

void adaptPace(msendctrl *ctrl, int32_t trip) {
  bool sound = soundRun();
  if (sound && trip > kLongestTrip) return;
  ctrl->lastRtt = trip;
  if (trip > ctrl->maxRtt) ctrl->maxRtt = trip;
  int64_t smoothed = ctrl->smoothedRtt;
  ctrl->smoothedRtt =
      trip <= smoothed ? static_cast<int32_t>(smoothed - ((smoothed - trip) >> 4)) : trip;
  int64_t wait = ctrl->smoothedRtt / static_cast<int32_t>(ctrl->ringSlots >> 3);
  // Without a shortest wait every request of a near receiver makes the sender flood the network,
  // and all receivers lose what it sends.
  int64_t shortest = sound && minimumWait < kShortestWait ? kShortestWait : minimumWait;
  ctrl->waitTime = wait < shortest ? shortest : wait;
}

// Not ahead of the packer, nor of the rings of the receivers.
Number readyTill(const msendctrl &ctrl) {
  Number filled = filledOf(ctrl);
  Number limit = sending.receivers.limit();
  return filled < limit ? filled : limit;
}

bool nothingReady(const msendctrl &ctrl) {
  Number filled = filledOf(ctrl);
  Number lastSent = lastSentOf(ctrl);
  // Installed senders send the slot that the packer is about to fill, and on later laps receivers
  // take its old content for the new segment.
  if (soundRun()) return lastSent + 1 >= readyTill(ctrl);
  return highOf(lastSent) > highOf(filled) || lastSent == filled;
}

void prepareAgain(mslot &slot, const msendctrl &ctrl, const Moment &now) {
  stamp(slot, ctrl, now);
  memset(slot.seg.pfin, 0, sizeof slot.seg.pfin);
  memset(slot.seg.sent, 0, sizeof slot.seg.sent);
}

void prepareNew(mslot &slot, const msendctrl &ctrl, Number number, const Moment &now) {
  stamp(slot, ctrl, now);
  packul(&slot.seg.high, highOf(number));
  packul(&slot.seg.low, lowOf(number));
  memcpy(slot.seg.sent, "SeNd", 4);
}

int sendAgain(mslot &slot, msendctrl *ctrl, sockaddr_in *to, int sd, const Moment &now) {
  prepareAgain(slot, *ctrl, now);
  if (sendSeg(&slot, to, sd) != 0) {
    base::print(fplog, "ERROR: Failed to send segment. errno = %i\n", errno);
    return -1;
  }
  slot.flag = slot.state = 0;
  return 0;
}

int sendNext(mslot *ring, msendctrl *ctrl, sockaddr_in *to, int sd, const Moment &now) {
  Number number = lastSentOf(*ctrl) + 1;
  storeNumber(ctrl->lastSentHigh, ctrl->lastSentLow, number);
  mslot &slot = sendSlot(ring, number);
  prepareNew(slot, *ctrl, number, now);
  if (sendSeg(&slot, to, sd) != 0) {
    base::print(fplog, "NOTICE: Failed to send segment. errno = %i\n", errno);
    storeNumber(ctrl->lastSentHigh, ctrl->lastSentLow, number - 1);
    return -1;
  }
  slot.state = 0;
  if (debugging())
    base::print(fplog, "DEBUG:  Sent segment %u:%u, usecs=%u, waittime=%i\n", highOf(number),
                lowOf(number), now.wire(), static_cast<int>(ctrl->waitTime));
  return 0;
}

void expire(mslot *ring, msendctrl *ctrl, Number until, uint32_t now) {
  Number before = freeTillOf(*ctrl);
  for (Number number = before + 1; number < until; number++)
    if (expireOldSegs(ring, ctrl, lowOf(number), now) != 0) break;
  if (soundRun() && freeTillOf(*ctrl) != before) base::wakeWord(&ctrl->freeTillLow);
}

// Whether a receiver of this run may still ask for the segment that would be freed next.
static bool stillNeeded(const msendctrl &ctrl) {
  return freeTillOf(ctrl) + 1 >= sending.receivers.needed();
}

// Where every receiver has told that it has the segment, its age does not matter.
static bool everybodyHas() {
  return sending.receivers.waiting();
}

static bool youngEnough(const mslot &slot, const msendctrl &ctrl, uint32_t now) {
  uint32_t sent = unpackul(&slot.seg.sendTime);
  int64_t age = static_cast<int64_t>(now) - sent;
  if (now <= sent) age += soundRun() ? 256000000 : 255000000;
  int64_t lasting = ctrl.ringSlots * ctrl.waitTime;
  if (soundRun() && lasting > kOldestMicros) lasting = kOldestMicros;
  return age <= lasting;
}

}  // namespace mrepl

int getMinWait(int speed) {
  if (speed != 0 && minimumWait == -1) {
    int wait = 1000000 / speed;
    minimumWait = wait < kShortestWait ? kShortestWait : wait;
  }
  return minimumWait;
}

int newWaitTime(mslot *ring, msendctrl *ctrl, uint32_t reqLow) {
  const mslot &after = mrepl::sendSlot(ring, reqLow + 1);
  uint32_t now = mrepl::momentNow().wire();
  mrepl::adaptPace(ctrl, mrepl::sinceWire(unpackul(&after.seg.sendTime), now));
  return 0;
}

int expireOldSegs(mslot *ring, msendctrl *ctrl, uint32_t segLow, uint32_t now) {
  uint32_t filledHigh = base::loadWord(ctrl->filledHigh);
  uint32_t filledLow = base::loadWord(ctrl->filledLow);
  if (ctrl->lastSentHigh == filledHigh && ctrl->lastSentLow - ctrl->freeTillLow <= kKeptBehind)
    return 1;
  if (filledHigh > ctrl->lastSentHigh && filledLow - ctrl->lastSentLow - 1 <= kKeptBehind) return 1;
  mslot &slot = mrepl::sendSlot(ring, segLow);
  bool sound = mrepl::soundRun();
  if (sound && mrepl::stillNeeded(*ctrl)) return 1;
  if (!(sound && mrepl::everybodyHas()) && mrepl::youngEnough(slot, *ctrl, now)) return 1;
  if (mrepl::debugging())
    base::print(fplog, "DEBUG:  >>>> Segment has expired seg=%i,  \n", segLow);
  packul(&slot.seg.sendTime, 0);
  mrepl::Number next = mrepl::joined(ctrl->freeTillHigh, segLow);
  if (ctrl->freeTillLow > segLow) next += mrepl::Number{1} << 32;
  mrepl::storeNumber(ctrl->freeTillHigh, ctrl->freeTillLow, next);
  return 0;
}

int sendData(mslot *ring, msendctrl *ctrl, struct sockaddr_in *to, int sd, uint32_t choice,
             struct timeval *now) {
  mrepl::Moment moment{now->tv_sec, static_cast<int32_t>(now->tv_usec)};
  if (choice != ctrl->lastSentLow)
    return mrepl::sendAgain(mrepl::sendSlot(ring, choice), ctrl, to, sd, moment);
  if (!mrepl::nothingReady(*ctrl)) return mrepl::sendNext(ring, ctrl, to, sd, moment);
  if (mrepl::debugging()) base::print(fplog, "DEBUG:  No data available.\n");
  mrepl::expire(ring, ctrl, mrepl::lastSentOf(*ctrl), moment.wire());
  mrepl::sleepMicros(ctrl->waitTime);
  return 0;
}
