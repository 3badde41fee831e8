// The daemon's first process: accepts connections, gives each a process, and does nothing that
// could wait for a peer.
#pragma once
#include <sys/types.h>

#include <map>
#include <string>

#include "base/fd.h"
#include "host/limits.h"
#include "host/loadmodule.h"
#include "host/pidfile.h"

namespace host {

struct ListenerSettings {
  std::string home;
  std::string address;  // to listen on; empty: all
};

class Listener {
 public:
  explicit Listener(ListenerSettings settings) : settings_(std::move(settings)) {}

  // Takes the home, loads the module, opens both consoles. False says why.
  bool start(std::string &why);
  // Serves until SIGTERM or SIGINT. Sessions that wait for a line end with it; requests and jobs go
  // on.
  void run();

 private:
  static constexpr size_t kMaxLogins = 64;

  bool adoptActivated(std::string &why);
  bool listenTcp(std::string &why);
  bool listenLocal(std::string &why);
  bool watchSignals(std::string &why);
  bool handleSignals();
  void handleNotices();
  void reap();
  void acceptFrom(int listening, bool local);
  void startSession(int sd, bool local, uint32_t address);
  [[noreturn]] void becomeSession(int sd, bool local, uint32_t address);
  void publishCounts(bool coming = false, bool local = false);
  void stop();

  ListenerSettings settings_;
  PidFile pidFile_;
  Module module_;
  Shared *shared_ = nullptr;
  base::Fd tcp_, local_, signals_, noticesIn_, noticesOut_;
  bool localIsOurs_ = false;        // made here, not passed in by a supervisor
  std::map<pid_t, bool> sessions_;  // by process; true once logged in
  size_t logins_ = 0;               // of these, not logged in
  long long resumeAt_ = 0;          // no accepting before, after a shortage
};

}  // namespace host
