// Accepting the one data connection of a worker.
#pragma once

namespace net {

// Waits for the connection on a listening socket, at most limitMs (-1: without limit). On a site
// with the security remedies only the host that asked for this worker on its console, descriptor 0,
// is let in; others are closed and the wait goes on. The socket, close-on-exec and without delay of
// small packets; -1 on failure or time-out. whileAsked: also -1 as soon as that host has closed the
// console, as a sender does that has died: the port is free then for the next one. No SIGALRM may
// jump out of it, unless the process holds nothing but plain data.
int acceptPeer(int listening, int limitMs, bool whileAsked = false);

}  // namespace net
