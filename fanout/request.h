// The request "MREPL fanout": an operator's commands on many hosts.
#pragma once

namespace fanout {

// Takes hosts and commands from the console, runs them, and reports each host as a line of JSON. 0
// when every host did as asked, 1 otherwise.
int runRequest();

}  // namespace fanout
