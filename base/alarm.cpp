#include "base/alarm.h"

#include <sys/time.h>

namespace base {

int setAlarmTimer(int seconds) {
  return setAlarmTimerMs(seconds * 1000);
}

int setAlarmTimerMs(int ms) {
  itimerval timer{};
  timer.it_value.tv_sec = ms / 1000;
  timer.it_value.tv_usec = ms % 1000 * 1000L;
  timer.it_interval = timer.it_value;
  return setitimer(ITIMER_REAL, &timer, nullptr);
}

int catchAlarm(void (*handler)(int), struct sigaction *previous) {
  struct sigaction action {};
  action.sa_handler = handler;
  sigemptyset(&action.sa_mask);
  return sigaction(SIGALRM, &action, previous);
}

}  // namespace base
