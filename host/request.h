// The process of one request.
#pragma once
#include <initializer_list>
#include <string>

#include "host/loadmodule.h"

namespace host {

// Turns the calling process, a fresh child of a session, into that of the request and never
// returns: descriptors 0 and 2 are the console, 1 the log, the directory is the home, and nothing
// else of the session is left.
[[noreturn]] void becomeRequest(int console, const Module &module, const std::string &line);

// Closes every descriptor of 3 and above but these.
void closeAllBut(std::initializer_list<int> kept);

}  // namespace host
