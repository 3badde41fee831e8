// One console connection, in a process of its own: login, then request after request.
#pragma once
#include <netinet/in.h>

#include "host/limits.h"
#include "host/loadmodule.h"

namespace host {

// How long a session waits for its peer.
struct Patience {
  int loginMs = 10000;
  int refusalMs = 1000;  // before "NO", which takes the fun out of guessing
  int nodeSilenceMs = 300000;
};

struct SessionStart {
  int console = -1;      // the connection
  int notices = -1;      // where the listener hears that the login is over
  bool local = false;    // the socket in the home
  uint32_t address = 0;  // of a network peer, in host byte order
  Shared *shared = nullptr;
  const Module *module = nullptr;
  Patience patience = {};
};

// Serves the connection to its end. The caller, a fresh child of the listener, exits afterwards.
void runSession(const SessionStart &start);

}  // namespace host
