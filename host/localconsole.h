// The console on the machine itself, the socket var/console under ZULhome. Its users are known by
// their user id; there is no password. After connecting, read one line: "OK local <role>\n" or
// "NO\n".
#pragma once
#include <string>

namespace login {

// The socket, connected; -1 with errno when there is none or nobody listens. Homes of any length
// work, though the kernel takes only 107 characters of a socket's path.
int connectLocalConsole(const std::string &home);

// A listening socket at that place, replacing what a killed daemon left; for the daemon alone,
// which holds the lock on its pid file. Members of the group `zul`, where there is one, may
// connect. -1 with errno.
int listenLocalConsole(const std::string &home, int backlog);

}  // namespace login
