// Runs in every process that asks another host's agent for something: job processes, their
// children, requests.
#include "net/agentlogin.h"

#include <unistd.h>
#include <zul/host.h>
#include <zul/net.h>

#include "base/alarm.h"

namespace net {

namespace {

// An alarm that comes now is only to interrupt a blocked call. Ours replaces the action of
// mkZULagentSD too: what that puts back when it returns is then an empty action, and not the one
// that ends the process.
class HarmlessAlarm {
 public:
  HarmlessAlarm() {
    caught_ = base::catchAlarm([](int) {}, &previous_) == 0;
  }
  ~HarmlessAlarm() {
    alarm(0);
    if (caught_) sigaction(SIGALRM, &previous_, nullptr);
  }
  HarmlessAlarm(const HarmlessAlarm &) = delete;
  HarmlessAlarm &operator=(const HarmlessAlarm &) = delete;

 private:
  struct sigaction previous_;
  bool caught_;
};

}  // namespace

int loginAgent(int sd) {
  HarmlessAlarm harmless;
  initpass();
  return autoLogin(sd);
}

int openAgent(const char *host) {
  HarmlessAlarm harmless;
  int sd = mkZULagentSD(host);
  if (sd < 0) return -1;
  if (loginAgent(sd) != 0) {
    close(sd);
    return -2;
  }
  return sd;
}

}  // namespace net
