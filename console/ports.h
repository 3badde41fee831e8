// Who listens on a TCP port of this machine.
#pragma once
#include <string>

namespace console {

// "ZULd, pid 4711" or "pid 12 (name hidden)", as far as the caller may see; empty when nobody
// listens there.
std::string listenerOf(int port);

}  // namespace console
