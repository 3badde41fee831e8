// Requests that receivers send to the data sender. They come from the network: whatever they say,
// they flag at most the slots of the ring.
#include <arpa/inet.h>
#include <errno.h>
#include <sys/socket.h>
#include <zul/host.h>

#include "base/log.h"
#include "base/pause.h"
#include "mrepl/sending.h"

namespace mrepl {

namespace {

// Taken in one go; a flood must not keep the sender from sending.
constexpr int kMostAtOnce = 1024;
// A retransmission that has been on its way for longer is asked for again with reason.
constexpr int32_t kUnderwayMicros = 50000;

struct Asked {
  uint32_t echo;  // send time of the last segment that the receiver took in
  Number first;
  uint32_t count;  // 0: nothing is missing, all before first is put away
  uint32_t run;    // of a receiver that reports; else 0
};

void logRequest(const Asked &asked) {
  if (!debugging()) return;
  const msendctrl &ctrl = *sending.ctrl;
  base::print(fplog, "DEBUG:  Got retransmit request. reqseg=%i:%i num=%i New wait=%li\n",
              highOf(asked.first), lowOf(asked.first), asked.count,
              static_cast<long>(ctrl.waitTime));
  base::print(fplog, "DEBUG:  speed = %f KBytes/sec\n",
              1000000.0 / static_cast<double>(ctrl.waitTime));
}

void outOfBuffer(const Asked &asked, Number filled) {
  base::print(fplog, "ERROR:  Flow-control request out of buffer!  FileID=%i:%i  Packed=%i:%i\n",
              highOf(asked.first), lowOf(asked.first), highOf(filled), lowOf(filled));
}

// A segment that went out after the receiver had taken in what it tells us about is on its way to
// it.
bool underway(const mslot &slot, const Asked &asked, uint32_t now) {
  int32_t sent = sinceWire(unpackul(&slot.seg.sendTime), now);
  return sent < sinceWire(asked.echo, now) && sent < kUnderwayMicros;
}

// Tells a receiver that what it needs is gone: it would ask in vain.
void refuse(const sockaddr_in &from, Number freeTill) {
  sockaddr_in to = from;
  reqresend(runWord & kRunMask, highOf(freeTill + 1), lowOf(freeTill + 1), 0, sending.requestSd,
            &to);
}

void answer(const Asked &asked) {
  msendctrl *ctrl = sending.ctrl;
  Number filled = filledOf(*ctrl);
  if (asked.first >= filled) return outOfBuffer(asked, filled);
  newWaitTime(sending.ring, ctrl, lowOf(asked.first));
  logRequest(asked);
  uint32_t count = asked.count < MR_SEND_SLOTS ? asked.count : MR_SEND_SLOTS;
  for (uint32_t at = 0; at < count; at++) sending.wanted.set(sending.ring, asked.first + at);
}

// Flags only what is there to be sent again: the slot of a segment that was freed holds a later
// one, and one that was not yet sent will come by itself.
void answerSound(const Asked &asked, const sockaddr_in &from, Receiver *receiver) {
  msendctrl *ctrl = sending.ctrl;
  Number freeTill = freeTillOf(*ctrl);
  Number lastSent = lastSentOf(*ctrl);
  uint32_t now = momentNow().wire();
  if (asked.first >= filledOf(*ctrl)) {
    if (debugging()) outOfBuffer(asked, filledOf(*ctrl));
    return;
  }
  if (asked.first <= freeTill) {
    if (debugging())
      base::print(fplog, "NOTICE:  Requested segment %i:%i is no longer there\n",
                  highOf(asked.first), lowOf(asked.first));
    return refuse(from, freeTill);
  }
  adaptPace(ctrl, sinceWire(asked.echo, now));
  logRequest(asked);
  uint32_t count = asked.count < MR_SEND_SLOTS ? asked.count : MR_SEND_SLOTS;
  for (Number number = asked.first; number < asked.first + count && number <= lastSent; number++) {
    const mslot &slot = sendSlot(sending.ring, number);
    if (slot.flag != 0 || underway(slot, asked, now)) continue;
    sending.wanted.set(sending.ring, number);
    if (receiver) receiver->missed += 1;
  }
}

void takeSound(Asked asked, const sockaddr_in &from) {
  long long nowMs = base::nowMs();
  // Without this anybody could have the whole ring sent again and again.
  if (base::sound(base::Area::security) && !sending.receivers.admits(from.sin_addr.s_addr)) return;
  asked.run = asked.count & kRunMask;
  if (asked.run != (runWord & kRunMask) || runWord == 0) {
    // The count of an installed receiver has nothing there; what is left asks for another run.
    if (asked.run != 0 && asked.count != UINT32_MAX) return;
    // Nor is one that asks beside a receiver that reports: it would slow the run down, and hold up
    // its end.
    if (sending.receivers.joinedFrom(from.sin_addr.s_addr)) return;
    sending.strangerMs = nowMs;
    return answerSound(asked, from, nullptr);
  }
  asked.count &= ~kRunMask;
  Number freeTill = freeTillOf(*sending.ctrl);
  Receiver *receiver = sending.receivers.heard(from, freeTill, nowMs);
  if (asked.count > 0) return answerSound(asked, from, receiver);
  // Nobody can have put away what was never laid down.
  if (asked.first > filledOf(*sending.ctrl)) return;
  if (receiver) sending.receivers.reported(receiver, asked.first, freeTill, nowMs);
  if (asked.first <= freeTill) refuse(from, freeTill);
}

}  // namespace

void takeRequests() {
  for (int taken = 0; taken < kMostAtOnce; taken++) {
    // One byte more than a request has, to tell a longer datagram from it.
    unsigned char datagram[sizeof(mreq) + 1];
    sockaddr_in from{};
    socklen_t length = sizeof from;
    ssize_t n = recvfrom(sending.requestSd, datagram, sizeof datagram, MSG_DONTWAIT,
                         reinterpret_cast<sockaddr *>(&from), &length);
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
    if (n != sizeof(mreq)) {
      if (debugging())
        base::print(fplog, "NOTICE:  recvfrom:  Read error!  errno=%i n=%i len=%i\n", errno,
                    static_cast<int>(n), static_cast<int>(length));
      continue;
    }
    Asked asked{unpackul(datagram), joined(unpackul(datagram + 4), unpackul(datagram + 8)),
                unpackul(datagram + 12), 0};
    if (soundRun())
      takeSound(asked, from);
    else
      answer(asked);
  }
}

}  // namespace mrepl
