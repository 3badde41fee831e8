// Keeps the pace of a sound run. The data sender asks it before every call to the kernel, and tells
// it what went out; what receivers lack stands in their list.
#include "mrepl/pace.h"

namespace mrepl {

namespace {

constexpr double kFirstMicros = 48;      // until somebody has reported
constexpr double kLongestMicros = 1000;  // a megabyte a second: whoever loses so much asks in vain
// A pause of less than the kernel's granularity takes twice as long as meant, so short ones are
// saved up and the rate is kept.
constexpr double kSavedMicros = 1000;
constexpr int64_t kLookMicros = 10000;
constexpr double kForget = 0.9;  // of what was counted, at every look
// What random loss takes is sent again, without slowing down for it; a link that is full takes
// more.
constexpr double kMuchLost = 0.35;
constexpr double kFaster = 0.75;
// Where a link was full a moment ago, it is tried again in small steps.
constexpr double kCarefully = 0.97;
constexpr int64_t kCarefulMicros = 1000000;
constexpr int64_t kHoldMicros = 60000;  // until a slower pace shows
constexpr double kEnough = 64;          // segments tell nothing when they are fewer

double larger(double one, double two) {
  return one > two ? one : two;
}

}  // namespace

void Pace::begin(int64_t shortestMicros) {
  *this = Pace{};
  shortest_ = static_cast<double>(shortestMicros);
  own_ = wait_ = larger(kFirstMicros, shortest_);
}

void Pace::guess(bool reporting, int64_t micros) {
  wait_ = larger(shortest_, reporting ? own_ : static_cast<double>(micros));
}

int64_t Pace::ahead(int64_t nowMicros) const {
  double early = due_ - static_cast<double>(nowMicros);
  return early > kSavedMicros ? static_cast<int64_t>(early) : 0;
}

int Pace::allowance(int64_t nowMicros, int most) const {
  double saved = static_cast<double>(nowMicros) + kSavedMicros - due_;
  if (wait_ * most <= saved) return most;
  int allowed = static_cast<int>(saved / wait_);
  return allowed < 1 ? 1 : allowed;
}

void Pace::sent(int64_t nowMicros, int count) {
  due_ = larger(due_, static_cast<double>(nowMicros) - kSavedMicros) + wait_ * count;
  sent_ += count;
}

void Pace::measure(int64_t nowMicros) {
  elapsed_ = elapsed_ * kForget + static_cast<double>(nowMicros - lookedMicros_);
  lookedMicros_ = nowMicros;
}

// To the pace at which the receiver would have got what it did get.
void Pace::slowDown(double lost) {
  double got = 1 - (lost < 0.75 ? lost : 0.75);
  own_ = larger(own_, elapsed_ / sent_ / got);
  if (own_ > kLongestMicros) own_ = kLongestMicros;
}

void Pace::adapt(Receivers *receivers, int64_t nowMicros) {
  if (lookedMicros_ == 0) lookedMicros_ = nowMicros;
  if (nowMicros - lookedMicros_ < kLookMicros) return;
  measure(nowMicros);
  bool held = nowMicros < heldTillMicros_;
  double missed = receivers->mostMissed(held ? 0 : kForget);
  if (held || sent_ < kEnough) {
    if (held) sent_ = elapsed_ = 0;
    return;
  }
  if (missed > kMuchLost * sent_) {
    slowDown(missed / sent_);
    heldTillMicros_ = nowMicros + kHoldMicros;
    sent_ = elapsed_ = 0;
    return;
  }
  bool wasFull = heldTillMicros_ > 0 && nowMicros - heldTillMicros_ < kCarefulMicros;
  own_ *= wasFull ? kCarefully : kFaster;
  if (own_ < 1) own_ = 0;
  sent_ *= kForget;
}

}  // namespace mrepl
