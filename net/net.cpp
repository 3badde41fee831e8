// Connections to the agents of other hosts, and the console's listening socket. They run in the
// process that wants work done elsewhere: a gathering child, a job, the fan-out.
#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>
#include <zul/net.h>
#include <zul/records.h>

#include "base/alarm.h"
#include "base/log.h"
#include "base/site.h"
#include "net/service.h"
#include "net/timeouts.h"

namespace net {

sockaddr_in serviceAddress(const char *service) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_ANY);
  if (servent *entry = getservbyname(service, "tcp"))
    address.sin_port = static_cast<in_port_t>(entry->s_port);
  else
    address.sin_port = htons(strcmp(service, kDataService) == 0 ? ZULSRV_PORT : ZUL_PORT);
  return address;
}

int streamSocket() {
  protoent *tcp = getprotobyname("tcp");
  return socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, tcp ? tcp->p_proto : 0);
}

void noticeDeath(int sd) {
  int on = 1, idleS = 300, intervalS = 60, tries = 5;
  setsockopt(sd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
  setsockopt(sd, IPPROTO_TCP, TCP_KEEPIDLE, &idleS, sizeof idleS);
  setsockopt(sd, IPPROTO_TCP, TCP_KEEPINTVL, &intervalS, sizeof intervalS);
  setsockopt(sd, IPPROTO_TCP, TCP_KEEPCNT, &tries, sizeof tries);
}

bool resolveHost(const char *host, sockaddr_in *address) {
  hostent *entry = gethostbyname(host);
  if (!entry || entry->h_addrtype != AF_INET || entry->h_length != sizeof address->sin_addr)
    return false;
  memcpy(&address->sin_addr, entry->h_addr_list[0], sizeof address->sin_addr);
  return true;
}

}  // namespace net

namespace {

int connectTo(int sd, const sockaddr_in &address) {
  return connect(sd, reinterpret_cast<const sockaddr *>(&address), sizeof address);
}

}  // namespace

// Nothing: that it is called is what interrupts a blocked connect.
void mkZULagentSD_alarm(int) {}

int mkZULagentSD(const char *host) {
  sockaddr_in address = net::serviceAddress(net::kConsoleService);
  int sd = net::streamSocket();
  if (sd < 0) {
    base::print(stderr, "WARNING:  Unable to open socket!\n");
    return -1;
  }
  struct sigaction previous;
  if (base::catchAlarm(mkZULagentSD_alarm, &previous) != 0) {
    base::print(stderr, "ERROR:  3209  Failed to install signal handler.\n");
    close(sd);
    return -1;
  }
  // The alarm is left pending behind the connection, where it bounds the login too; openAgent
  // cancels it.
  alarm(static_cast<unsigned>(net::timeouts.connectS));
  bool connected = false;
  if (!net::resolveHost(host, &address))
    base::print(stderr, "WARNING:  Could not resolve host name: %s\n", host);
  else if (connectTo(sd, address) != 0)
    base::print(stderr, "WARNING:  Connection to socket refused!\n");
  else
    connected = true;
  sigaction(SIGALRM, &previous, nullptr);
  if (connected) return sd;
  // Left open it goes with the process; but a job asks every host of its group, and when many are
  // down it runs out of descriptors.
  if (base::sound(base::Area::stream)) close(sd);
  return -1;
}

int mkZULagentSD_nb_Real(const char *host, int msgs) {
  FILE *messages = msgs ? stderr : nullptr;
  sockaddr_in address = net::serviceAddress(net::kConsoleService);
  int sd = net::streamSocket();
  if (sd < 0) {
    base::print(messages, "Host[%s]  Unable to open socket!\n", host);
    return -1;
  }
  if (!net::resolveHost(host, &address)) {
    base::print(messages, "Host[%s]  Could not resolve host name: %s\n", host, host);
    close(sd);
    return -1;
  }
  fcntl(sd, F_SETFL, fcntl(sd, F_GETFL) | O_NONBLOCK);
  if (connectTo(sd, address) == 0 || errno == EINPROGRESS) return sd;
  base::print(messages, "Host[%s]  Cannot connect\n", host);
  close(sd);
  return -1;
}

int mkZULagentSD_nb(const char *host) {
  return mkZULagentSD_nb_Real(host, 1);
}

int mkZulSrvSD(void) {
  sockaddr_in address = net::serviceAddress(net::kConsoleService);
  int sd = socket(AF_INET, SOCK_STREAM, 0);
  if (sd < 0) return -1;
  if (bind(sd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) {
    base::print(stderr, "Errno = %i\n", errno);
    close(sd);
    return -2;
  }
  nagleOnOff(sd, 0);
  if (listen(sd, 8) != 0) {
    close(sd);
    return -4;
  }
  return sd;
}
