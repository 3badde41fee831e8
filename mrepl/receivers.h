// The receivers that a sound sender knows of: how far each is, who is still waited for, who has it
// all. In the data sender's process.
//
// A sender that hears nothing of its receivers frees segments by their age, and whoever stops for a
// second longer can never complete. Receivers of a sound run report how far they have put files
// together, so the sender keeps what somebody lacks and does not run further ahead than the
// slowest ring reaches. A receiver that stays silent, or stands still, is given up: one dead host
// must not hold up the others.
#pragma once
#include <netinet/in.h>
#include <stdint.h>

#include "mrepl/run.h"

namespace mrepl {

enum class ReceiverState { expected, served, complete, lost };

struct Receiver {
  char name[256];  // as in the job; the address when it came unasked
  sockaddr_in address;
  ReceiverState state;
  bool joined;       // it has reported
  Number extracted;  // it needs nothing before this segment
  long long heardMs;
  long long movedMs;
  double missed;  // segments that it asked for lately
};

class Receivers {
 public:
  static constexpr Number kUnlimited = ~Number{0};
  static constexpr int kMost = 1024;

  void begin();
  // A host of the job; it has a while to join.
  void expect(const char *name, uint32_t address, long long nowMs);
  // Whether requests from there are for us to answer: where the hosts of the job are known, theirs.
  bool admits(uint32_t address) const;
  // Whether a receiver there has reported.
  bool joinedFrom(uint32_t address) const;
  // A receiver that says it lives, and one that needs nothing before a segment. Null when there is
  // no room for one more. One that nobody expected and that needs what was freed is not waited for.
  Receiver *heard(const sockaddr_in &from, Number freeTill, long long nowMs);
  void reported(Receiver *receiver, Number extracted, Number freeTill, long long nowMs);
  // A receiver that has the segments up to the end of the run needs nothing more.
  void ended(Number end);
  // The segments that the worst of those who are served has asked for lately; of the older ones so
  // much is kept.
  double mostMissed(double kept);
  // Gives up who has been silent or has stood still for too long.
  void giveUp(long long nowMs);

  // The first segment that somebody still needs; kUnlimited when nobody is waited for.
  Number needed() const { return waiting_ ? needed_ : kUnlimited; }
  // The first segment that must not be sent yet.
  Number limit() const;
  bool waiting() const { return waiting_; }
  int count() const { return count_; }
  const Receiver &at(int index) const { return list_[index]; }

 private:
  Receiver *find(const sockaddr_in &from);
  void recount();

  int count_;
  int expected_;  // of these, hosts of the job
  bool waiting_;  // for anybody
  Number needed_;
  Receiver list_[kMost];
};

}  // namespace mrepl
