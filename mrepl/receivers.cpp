// Follows the receivers of a sound run by their reports. Runs in the data sender's process.
#include "mrepl/receivers.h"

#include <arpa/inet.h>
#include <string.h>
#include <zul/host.h>

#include "base/log.h"
#include "base/site.h"
#include "base/text.h"

namespace mrepl {

namespace {

// For the first report, and between two: reports come many times a second.
constexpr int kPatienceMs = 10000;
constexpr long long kStillMs = 60000;  // a disk that takes nothing

bool waitedFor(const Receiver &receiver) {
  return receiver.state == ReceiverState::expected || receiver.state == ReceiverState::served;
}

const char *addressText(const Receiver &receiver, char *text) {
  inet_ntop(AF_INET, &receiver.address.sin_addr, text, INET_ADDRSTRLEN);
  return text;
}

}  // namespace

void Receivers::begin() {
  count_ = expected_ = 0;
  waiting_ = false;
}

void Receivers::expect(const char *name, uint32_t address, long long nowMs) {
  if (count_ == kMost) return;
  Receiver &fresh = list_[count_++];
  fresh = Receiver{};
  base::copyText(fresh.name, sizeof fresh.name, name);
  fresh.address.sin_family = AF_INET;
  fresh.address.sin_addr.s_addr = address;
  fresh.extracted = 1;
  fresh.heardMs = fresh.movedMs = nowMs;
  // A host whose name means nothing cannot be waited for.
  fresh.state = address != 0 ? ReceiverState::expected : ReceiverState::lost;
  expected_++;
  recount();
}

bool Receivers::admits(uint32_t address) const {
  for (int at = 0; at < expected_; at++)
    if (list_[at].address.sin_addr.s_addr == address) return true;
  return expected_ == 0;
}

bool Receivers::joinedFrom(uint32_t address) const {
  for (int at = 0; at < count_; at++)
    if (list_[at].joined && list_[at].address.sin_addr.s_addr == address) return true;
  return false;
}

Receiver *Receivers::find(const sockaddr_in &from) {
  for (int at = 0; at < count_; at++) {
    Receiver &known = list_[at];
    if (known.address.sin_addr.s_addr != from.sin_addr.s_addr) continue;
    // The port of an expected host becomes known with its first report.
    if (known.address.sin_port == from.sin_port || !known.joined) return &known;
  }
  return nullptr;
}

Receiver *Receivers::heard(const sockaddr_in &from, Number freeTill, long long nowMs) {
  Receiver *known = find(from);
  if (!known) {
    if (count_ == kMost) return nullptr;
    known = &list_[count_++];
    *known = Receiver{};
    inet_ntop(AF_INET, &from.sin_addr, known->name, sizeof known->name);
    known->extracted = 1;
    // It can never complete: to wait for it would stop the run for all others.
    known->state = freeTill > 0 ? ReceiverState::lost : ReceiverState::expected;
  }
  if (!known->joined) {
    known->address = from;
    known->joined = true;
    known->movedMs = nowMs;
    if (known->state == ReceiverState::expected) known->state = ReceiverState::served;
    recount();
  }
  known->heardMs = nowMs;
  return known;
}

void Receivers::reported(Receiver *receiver, Number extracted, Number freeTill, long long nowMs) {
  if (extracted > receiver->extracted) {
    receiver->extracted = extracted;
    receiver->movedMs = nowMs;
  }
  // One that was given up and is back can go on when all it needs is still there.
  if (receiver->state == ReceiverState::lost && receiver->extracted > freeTill) {
    receiver->state = ReceiverState::served;
    receiver->movedMs = nowMs;
  }
  recount();
}

void Receivers::ended(Number end) {
  for (int at = 0; at < count_; at++) {
    Receiver &each = list_[at];
    if (each.joined && each.extracted >= end) each.state = ReceiverState::complete;
  }
  recount();
}

double Receivers::mostMissed(double kept) {
  double most = 0;
  for (int at = 0; at < count_; at++) {
    Receiver &each = list_[at];
    if (each.state == ReceiverState::served && each.missed > most) most = each.missed;
    each.missed *= kept;
  }
  return most;
}

void Receivers::giveUp(long long nowMs) {
  int patience = base::siteLength("multicast.patience", kPatienceMs);
  for (int at = 0; at < count_; at++) {
    Receiver &each = list_[at];
    if (!waitedFor(each)) continue;
    if (nowMs - each.heardMs < patience && nowMs - each.movedMs < kStillMs) continue;
    each.state = ReceiverState::lost;
    char text[INET_ADDRSTRLEN];
    base::print(fplog, "WARNING:  Receiver %s %s: %s\n", each.name, addressText(each, text),
                each.joined ? "no longer waited for" : "has not joined");
    recount();
  }
}

Number Receivers::limit() const {
  return waiting_ ? needed_ + MR_RECV_SLOTS : kUnlimited;
}

void Receivers::recount() {
  needed_ = kUnlimited;
  for (int at = 0; at < count_; at++)
    if (waitedFor(list_[at]) && list_[at].extracted < needed_) needed_ = list_[at].extracted;
  waiting_ = needed_ != kUnlimited;
}

}  // namespace mrepl
