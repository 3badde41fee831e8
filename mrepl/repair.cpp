#include "mrepl/repair.h"

#include <errno.h>
#include <string.h>
#include <zul/host.h>

#include "base/log.h"

namespace mrepl {

namespace {

// An answer takes a few milliseconds; the sender knows what is on its way and does not send it
// twice.
constexpr long long kAskAgainMs = 15;
constexpr long long kReportMs = 50;  // at least this often, to be known alive
constexpr long long kMovedMs = 10;   // at most this often while files are put together
constexpr long long kSlowRoundMs = 1000;

}  // namespace

void Repair::begin(int requestSd, sockaddr_in *sender) {
  sd_ = requestSd;
  sender_ = sender;
  run_ = 0;
  slow_ = false;
  roundMs_ = reportedMs_ = 0;
  reported_ = 0;
  memset(asked_, 0, sizeof asked_);
}

void Repair::send(const mrecvctrl &ctrl, Number number, uint32_t count) {
  if (sender_->sin_addr.s_addr == 0) return;
  int result =
      reqresend(ctrl.lastSendTime, highOf(number), lowOf(number), run_ | count, sd_, sender_);
  if (result != 0 && debugging()) base::print(fplog, "DEBUG:  Sendto error errno=%i\n", errno);
}

bool Repair::isDue(const mslot *ring, Number number, long long nowMs) const {
  if (ring[number % MR_RECV_SLOTS].state != 0) return false;
  const Ask &ask = asked_[number % MR_RECV_SLOTS];
  return ask.number != number || nowMs - ask.ms >= kAskAgainMs;
}

void Repair::ask(const mrecvctrl &ctrl, mslot *ring, long long nowMs) {
  Number furthest = joined(ctrl.receivedHigh, ctrl.receivedLow);
  for (Number number = contiguousOf(ctrl) + 1; number < furthest; number++) {
    Number first = number;
    for (; number < furthest && isDue(ring, number, nowMs); number++) {
      recvSlot(ring, number).flag = 1;
      asked_[number % MR_RECV_SLOTS] = Ask{number, nowMs};
    }
    if (number == first) continue;
    if (debugging())
      base::print(fplog, "DEBUG: <<<< Requesting missing %i:%i, num=%i\n", highOf(first),
                  lowOf(first), static_cast<int>(number - first));
    send(ctrl, first, static_cast<uint32_t>(number - first));
  }
}

void Repair::round(const mrecvctrl &ctrl, mslot *ring, long long nowMs) {
  if (nowMs - roundMs_ < (slow_ ? kSlowRoundMs : kRoundMs)) return;
  roundMs_ = nowMs;
  ask(ctrl, ring, nowMs);
  // Installed senders would take a report for a request.
  if (run_ == 0) return;
  Number extracted = extractedOf(ctrl);
  if (nowMs - reportedMs_ < (extracted != reported_ ? kMovedMs : kReportMs)) return;
  reportedMs_ = nowMs;
  reported_ = extracted;
  send(ctrl, extracted, 0);
}

void Repair::reportEnd(const mrecvctrl &ctrl, Number end) {
  if (run_ != 0) send(ctrl, end, 0);
}

}  // namespace mrepl
