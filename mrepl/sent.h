// What a sender keeps of a run for whoever asks afterwards: var/tape/mrepljobs/sent.json. In the
// data sender's process.
#pragma once
#include <stdio.h>
#include <time.h>

#include "mrepl/receivers.h"

namespace mrepl {

class Sent {
 public:
  // A job is about to run; before the packer is forked.
  void begin(int job);
  // Now and then; writes at most twice a second.
  void look(const Receivers &receivers, long long nowMs);
  // The run is over, or could not be begun.
  void finish(const Receivers &receivers, bool good);
  // It was refused, because another one goes on: that one's record stays.
  void drop();

 private:
  void write(const Receivers &receivers, const char *state);

  int job_ = 0;
  time_t started_ = 0;
  time_t ended_ = 0;
  long long writtenMs_ = 0;
};

extern Sent sent;

}  // namespace mrepl
