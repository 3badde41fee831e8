// The daemon's own requests, "HOST word ...": they run in a request process like the module's and
// answer on its standard error.
#pragma once
#include <string_view>

#include "host/limits.h"

namespace host {

// What "HOST status" tells of the daemon; filled by the listener before it forks.
struct Facts {
  const Shared *shared = nullptr;
  int port = 0;
};
extern Facts facts;

// Runs one, given the text behind HOST. Its exit status.
int runHostWord(std::string_view rest);

}  // namespace host
