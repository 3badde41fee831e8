// The data port answers whoever connects: without a look at the peer, an intruder that is faster
// than the tape host reads every file of a list as root, or writes one. The console connection
// behind this process was authenticated, so its peer is the one to expect.
#include "net/accept.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>
#include <zul/host.h>
#include <zul/net.h>

#include "base/pause.h"
#include "base/site.h"
#include "net/gatherer.h"
#include "net/service.h"

namespace net {

namespace {

// IPv4 addresses are compared in their IPv6 form, because a console may listen on both.
bool plainAddress(const sockaddr_storage &from, in6_addr *to) {
  if (from.ss_family == AF_INET6) {
    *to = reinterpret_cast<const sockaddr_in6 &>(from).sin6_addr;
    return true;
  }
  if (from.ss_family != AF_INET) return false;
  memset(to, 0, sizeof *to);
  to->s6_addr[10] = to->s6_addr[11] = 0xff;
  memcpy(to->s6_addr + 12, &reinterpret_cast<const sockaddr_in &>(from).sin_addr, 4);
  return true;
}

bool peerOf(int sd, in6_addr *address) {
  sockaddr_storage peer;
  socklen_t length = sizeof peer;
  return getpeername(sd, reinterpret_cast<sockaddr *>(&peer), &length) == 0 &&
         plainAddress(peer, address);
}

// 1 ready, 0 the limit has passed, -1 failure, or the peer of console (-1: none) is gone. endMs of
// -1: no limit.
int waitForConnection(int listening, int console, long long endMs) {
  for (;;) {
    long long left = endMs < 0 ? -1 : endMs - base::nowMs();
    if (endMs >= 0 && left <= 0) return 0;
    pollfd asked[2] = {{listening, POLLIN, 0}, {console, POLLRDHUP, 0}};
    int ready = poll(asked, 2, static_cast<int>(left));
    // An accept that finds nobody would wait without a limit.
    if (ready < 0 && errno == EINTR) continue;
    return ready > 0 && !(asked[0].revents & POLLIN) ? -1 : ready;
  }
}

}  // namespace

int acceptPeer(int listening, int limitMs, bool whileAsked) {
  bool anyone = !base::sound(base::Area::security);
  in6_addr expected;
  if (!anyone && !peerOf(0, &expected)) {
    note("ERROR:  The console's peer is unknown: no data connection can be accepted\n");
    return -1;
  }
  in6_addr asking;
  int console = whileAsked && peerOf(0, &asking) ? 0 : -1;
  long long endMs = limitMs < 0 ? -1 : base::nowMs() + limitMs;
  in6_addr refused = {};
  for (;;) {
    if (waitForConnection(listening, console, endMs) <= 0) return -1;
    int sd = accept4(listening, nullptr, nullptr, SOCK_CLOEXEC);
    // A connection that was gone before it could be taken says nothing about the next one.
    if (sd < 0 && (errno == EINTR || errno == ECONNABORTED || errno == EAGAIN)) continue;
    if (sd < 0) return -1;
    in6_addr peer = {};
    if (anyone || (peerOf(sd, &peer) && memcmp(&peer, &expected, sizeof peer) == 0)) {
      nagleOnOff(sd, 1);  // headers and commands are answers somebody waits for
      noticeDeath(sd);
      return sd;
    }
    close(sd);
    // Said once per stranger: one that knocks for ever must not fill the log.
    if (memcmp(&peer, &refused, sizeof peer) != 0) {
      char text[INET6_ADDRSTRLEN] = "";
      inet_ntop(AF_INET6, &peer, text, sizeof text);
      note("WARNING:  Data connection from %s refused: not the peer of the console\n", text);
    }
    refused = peer;
  }
}

}  // namespace net
