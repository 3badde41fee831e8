// Getting from a host's name to its agent's request line.
//
// mkZULagentSD leaves its 8-second alarm pending, and a SIGALRM that nobody expects ends the
// process: the tape writer of a running job, for one. Whoever opens an agent connection to log in
// and send a request does it with these, which make that alarm harmless and cancel it.
#pragma once

namespace net {

// Logs in on a connected console socket: initpass, autoLogin, and the leftover alarm is cancelled.
// 0 when logged in, anything else when refused; the socket stays open. The process's SIGALRM action
// is as before.
int loginAgent(int sd);

// mkZULagentSD and loginAgent, with the alarm harmless from its first second on. The socket, ready
// for one request line; -1 when there is no connection (said on stderr), -2 when the login is
// refused.
int openAgent(const char *host);

}  // namespace net
