// The guard of a dialogue that a SIGALRM may jump out of.
//
// The handlers jump with siglongjmp. A jump out of stdio or malloc would leave their locks held, so
// code that prints or allocates inside a dialogue does it between hold() and release(): an alarm
// that comes meanwhile is remembered and delivered by release(). One dialogue per process at a
// time.
#pragma once
#include <setjmp.h>
#include <signal.h>

namespace base {

// Objects are static: they begin as zeros, and an initialiser here would make a constructor run at
// load time.
struct AlarmGuard {
  sigjmp_buf back;                // where the dialogue resumes, filled by sigsetjmp(back, 1)
  volatile sig_atomic_t armed;    // a dialogue is active: back is alive
  volatile sig_atomic_t held;     // depth of hold()
  volatile sig_atomic_t pending;  // an alarm came while held

  void hold() { held = held + 1; }
  void release() {
    held = held - 1;
    if (held == 0 && pending) {
      pending = 0;
      raise(SIGALRM);
    }
  }
  // For handlers: true when the jump must not be taken now. Nothing is lost: either there is no
  // dialogue, or release() raises the signal again.
  bool mustWait() {
    if (!armed) return true;
    if (!held) return false;
    pending = 1;
    return true;
  }
  void reset() {
    armed = 0;
    held = 0;
    pending = 0;
  }
};

// Sets the real-time interval timer: first expiry and interval, in seconds; 0 stops it. 0 or -1.
int setAlarmTimer(int seconds);
// The same in milliseconds.
int setAlarmTimerMs(int ms);

// Installs a SIGALRM action without SA_RESTART, so that an alarm always wakes a blocked call. 0 or
// -1.
int catchAlarm(void (*handler)(int), struct sigaction *previous);

}  // namespace base
