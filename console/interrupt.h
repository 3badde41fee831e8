// What Ctrl-C leaves behind: whoever watches a job ends, and the job does not.
#pragma once
#include <signal.h>

#include <string>

namespace console {

// While it lives, an interrupt says one sentence on standard error before it ends the command. One
// at a time.
class InterruptNote {
 public:
  explicit InterruptNote(const std::string &text);
  ~InterruptNote();
  InterruptNote(const InterruptNote &) = delete;
  InterruptNote &operator=(const InterruptNote &) = delete;

 private:
  struct sigaction before_;
};

}  // namespace console
