// The two TCP services and the addresses of hosts.
#pragma once
#include <netinet/in.h>

namespace net {

constexpr const char *kConsoleService = "zul";
constexpr const char *kDataService = "zulsrv";

// The address "any" with the port of a service from /etc/services, or with its usual one.
sockaddr_in serviceAddress(const char *service);

// A stream socket, close-on-exec; -1 when there is none.
int streamSocket();

// A host that loses its power closes nothing. With this the kernel asks it now and then whether it
// is still there, and a connection that is waited on without a limit ends when it is not.
void noticeDeath(int sd);

// Fills in the first address of a host; false when its name is not known.
bool resolveHost(const char *host, sockaddr_in *address);

}  // namespace net
