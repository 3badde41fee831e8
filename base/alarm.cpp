#include "base/alarm.h"

#include <sys/time.h>

namespace base {

int setAlarmTimer(int seconds) {
  itimerval timer{};
  timer.it_value.tv_sec = seconds;
  timer.it_interval.tv_sec = seconds;
  return setitimer(ITIMER_REAL, &timer, nullptr);
}

int catchAlarm(void (*handler)(int), struct sigaction *previous) {
  struct sigaction action {};
  action.sa_handler = handler;
  sigemptyset(&action.sa_mask);
  return sigaction(SIGALRM, &action, previous);
}

}  // namespace base
