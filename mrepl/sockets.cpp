// The sockets of a multicast run.
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <net/if.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <zul/host.h>
#include <zul/module.h>

#include "base/fd.h"
#include "base/log.h"
#include "base/site.h"
#include "base/text.h"
#include "mrepl/run.h"

namespace {

constexpr int kReuse = 0x7fffffff;
constexpr int kListBytes = 800;

sockaddr_in addressFor(uint32_t host, int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = host;
  return address;
}

// Failures of sockets are told at high debug levels only, and in every sound run: whoever reads the
// log of a run that did not start looks for just this.
bool tells() {
  return dlvl > 4 || mrepl::soundRun();
}

bool addressOfInterface(int sd, const char *name, in_addr *found) {
  ifreq request{};
  base::copyText(request.ifr_name, sizeof request.ifr_name, name);
  if (ioctl(sd, SIOCGIFADDR, &request) != 0) return false;
  sockaddr_in address;
  memcpy(&address, &request.ifr_addr, sizeof address);
  *found = address.sin_addr;
  return true;
}

// Where the datagrams of a run leave the sender: the site's values where they are set, else the
// route of the group and one hop, as everywhere.
void applySiteValues(int sd) {
  in_addr local;
  const char *name = base::siteValue("multicast.interface");
  if (*name) {
    if (!addressOfInterface(sd, name, &local) ||
        setsockopt(sd, IPPROTO_IP, IP_MULTICAST_IF, &local, sizeof local) != 0)
      base::print(stderr, "WARNING:  multicast.interface %s cannot be used: %s\n", name,
                  strerror(errno));
  }
  int hops = base::decimal(base::siteValue("multicast.ttl"));
  if (hops > 0 && hops < 256) setsockopt(sd, IPPROTO_IP, IP_MULTICAST_TTL, &hops, sizeof hops);
}

int join(int sd, const in_addr &group) {
  char name[IFNAMSIZ] = "";
  base::copyText(name, sizeof name, base::siteValue("multicast.interface"));
  int found = getIfName(name);
  if (found != 0) {
    if (tells())
      base::print(fplog, "ERROR: getIfName:  Failed to get interfaces!  errno=%i, retval = %i\n",
                  errno, found);
    return -5;
  }
  ip_mreq membership{};
  membership.imr_multiaddr = group;
  if (!addressOfInterface(sd, name, &membership.imr_interface)) {
    if (tells())
      base::print(fplog, "ERROR: mkMulticListener:  Failed to get Interface IP!  errno=%i\n",
                  errno);
    return -6;
  }
  if (setsockopt(sd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof membership) != 0) {
    if (tells())
      base::print(fplog, "ERROR: mkMulticListener:  Failed to join multicast group!  errno=%i\n",
                  errno);
    return -7;
  }
  return 0;
}

}  // namespace

int mkUDPSenderSocket(int port, char *addr, struct sockaddr_in *to) {
  in_addr host;
  if (inet_aton(addr, &host) == 0) {
    base::print(stderr, "WARNING:  Failed to resolve: %s\n", addr);
    return -1;
  }
  *to = addressFor(host.s_addr, port);
  int sd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (sd < 0) {
    base::print(stderr, "WARNING:  Unable to open socket!\n");
    return -2;
  }
  if (IN_MULTICAST(ntohl(host.s_addr))) applySiteValues(sd);
  return sd;
}

int mkUDPListenerSocket(int port, struct sockaddr_in *addr) {
  base::Fd sd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!sd) {
    if (tells()) base::print(fplog, "ERROR:  mkUDPListenerSocket:  Unable to open socket!\n");
    return -1;
  }
  *addr = addressFor(htonl(INADDR_ANY), port);
  if (bind(sd.get(), reinterpret_cast<sockaddr *>(addr), sizeof *addr) != 0) {
    if (tells())
      base::print(fplog, "ERROR:  mkUDPListenerSocket:  UDP Bind Failed!  errno=%i\n", errno);
    return -2;
  }
  if (setsockopt(sd.get(), SOL_SOCKET, SO_REUSEADDR, &kReuse, sizeof kReuse) != 0) {
    if (tells())
      base::print(fplog, "ERROR:  mkUDPListenerSocket:  Failed to set socket option!  errno=%i\n",
                  errno);
    return -3;
  }
  if (fcntl(sd.get(), F_SETFL, O_NONBLOCK) != 0) {
    if (tells())
      base::print(fplog,
                  "ERROR:  mkUDPListenerSocket:  Failed to set socket non-blocking!  errno=%i\n",
                  errno);
    return -4;
  }
  return sd.release();
}

int mkMulticListener(int port, char *group, struct sockaddr_in *addr) {
  in_addr host;
  if (inet_aton(group, &host) == 0) {
    base::print(fplog, "ERROR: mkMulticListener: Failed to resolve: %s\n", group);
    return -1;
  }
  *addr = addressFor(host.s_addr, port);
  base::Fd sd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!sd) return -1;
  if (setsockopt(sd.get(), SOL_SOCKET, SO_REUSEADDR, &kReuse, sizeof kReuse) != 0) return -3;
  // Such a socket hears nothing, and the run waits with it: the one trace of it is this line.
  if (bind(sd.get(), reinterpret_cast<sockaddr *>(addr), sizeof *addr) != 0)
    base::print(fplog, "ERROR: mkMulticListener:  Bind failed!  errno=%i\n", errno);
  int joined = join(sd.get(), host);
  return joined == 0 ? sd.release() : joined;
}

int getIfName(char *name) {
  base::Fd sd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!sd) return sd.get();
  char *list = static_cast<char *>(calloc(1, kListBytes));
  if (!list) return -2;
  ifconf request{};
  request.ifc_len = kListBytes;
  request.ifc_buf = list;
  int result = ioctl(sd.get(), SIOCGIFCONF, &request) == 0 ? 1 : -3;
  int count = result == 1 ? request.ifc_len / static_cast<int>(sizeof(ifreq)) : 0;
  for (int at = 0; at < count && result == 1; at++) {
    const char *found = request.ifc_req[at].ifr_name;
    bool fits = *name ? strncmp(found, name, strlen(name)) == 0 : strncmp(found, "lo", 2) != 0;
    if (!fits) continue;
    base::copyText(name, IFNAMSIZ, found);
    result = 0;
  }
  free(list);
  return result;
}
