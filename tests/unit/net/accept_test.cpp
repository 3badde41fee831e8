// Who is let in on the data port.
#include "net/accept.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>

#include "base/pause.h"
#include "netsupport.h"

namespace {

class Accept : public netsupport::NetTest {
 protected:
  void SetUp() override {
    NetTest::SetUp();
    port = 0;
    listening.reset(support::listenOn(port));
  }
  // A connection to the listener that comes from another address of this machine.
  base::Fd from(const char *address) {
    base::Fd sd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in own{};
    own.sin_family = AF_INET;
    inet_pton(AF_INET, address, &own.sin_addr);
    EXPECT_EQ(bind(sd.get(), reinterpret_cast<sockaddr *>(&own), sizeof own), 0);
    sockaddr_in peer = own;
    peer.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    peer.sin_port = htons(static_cast<uint16_t>(port));
    EXPECT_EQ(connect(sd.get(), reinterpret_cast<sockaddr *>(&peer), sizeof peer), 0);
    return sd;
  }
  // Descriptor 0 becomes the agent's end of a console connection from this address, for a child.
  void consoleFrom(const char *address) {
    console = from(address);
    int agent = accept(listening.get(), nullptr, nullptr);
    dup2(agent, 0);
    close(agent);
  }
  std::string peerOf(int sd) {
    sockaddr_in peer{};
    socklen_t length = sizeof peer;
    char text[64] = "";
    if (getpeername(sd, reinterpret_cast<sockaddr *>(&peer), &length) == 0)
      inet_ntop(AF_INET, &peer.sin_addr, text, sizeof text);
    return text;
  }
  int port;
  base::Fd listening, console;
};

TEST_F(Accept, TakesWhoeverComesFirst) {
  base::Fd peer = from("127.0.0.5");
  base::Fd sd(net::acceptPeer(listening.get(), 1000));
  EXPECT_EQ(peerOf(sd.get()), "127.0.0.5");
  EXPECT_TRUE(fcntl(sd.get(), F_GETFD) & FD_CLOEXEC);
  int value = 0;
  socklen_t length = sizeof value;
  getsockopt(sd.get(), IPPROTO_TCP, TCP_NODELAY, &value, &length);
  EXPECT_EQ(value, 1);
  // One that loses its power is noticed.
  getsockopt(sd.get(), SOL_SOCKET, SO_KEEPALIVE, &value, &length);
  EXPECT_EQ(value, 1);
  getsockopt(sd.get(), IPPROTO_TCP, TCP_KEEPIDLE, &value, &length);
  EXPECT_EQ(value, 300);
}

TEST_F(Accept, GivesUpAfterItsLimit) {
  long long begin = base::nowMs();
  EXPECT_EQ(net::acceptPeer(listening.get(), 80), -1);
  EXPECT_GE(base::nowMs() - begin, 70);
  EXPECT_EQ(net::acceptPeer(-1, 80), -1);
}

TEST_F(Accept, ASignalDoesNotEndItsLimit) {
  int status = support::inChild([&] {
    // A wait for a connection ends with every signal, an accept begins anew.
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    action.sa_flags = SA_RESTART;
    sigaction(SIGUSR1, &action, nullptr);
    pid_t waiter = getpid();
    pid_t caller = fork();
    // Until the waiter is gone: it may be anywhere when a single one comes.
    if (caller == 0)
      while (getppid() == waiter) {
        kill(waiter, SIGUSR1);
        base::sleepMs(5);
      }
    if (caller == 0) _exit(0);
    return net::acceptPeer(listening.get(), 200) == -1 ? 0 : 1;
  });
  EXPECT_EQ(support::exitOf(status), 0);
}

TEST_F(Accept, TakesOnlyTheConsolesPeerOnASoundSite) {
  soundSite();
  int status = support::inChild([&] {
    consoleFrom("127.0.0.2");
    base::Fd stranger = from("127.0.0.3"), again = from("127.0.0.3"), other = from("127.0.0.4");
    base::Fd friendly = from("127.0.0.2");
    base::Fd sd(net::acceptPeer(listening.get(), 2000));
    EXPECT_EQ(peerOf(sd.get()), "127.0.0.2");
    char byte;
    EXPECT_EQ(read(stranger.get(), &byte, 1), 0);  // was closed
    EXPECT_EQ(
        statusLog(),
        "WARNING:  Data connection from ::ffff:127.0.0.3 refused: not the peer of the console\n"
        "WARNING:  Data connection from ::ffff:127.0.0.4 refused: not the peer of the console\n");
    return HasFailure() ? 1 : 0;
  });
  EXPECT_EQ(support::exitOf(status), 0);
}

TEST_F(Accept, StrangersDoNotProlongTheWait) {
  soundSite();
  int status = support::inChild([&] {
    consoleFrom("127.0.0.2");
    base::Fd stranger = from("127.0.0.3");
    EXPECT_EQ(net::acceptPeer(listening.get(), 100), -1);
    return HasFailure() ? 1 : 0;
  });
  EXPECT_EQ(support::exitOf(status), 0);
}

TEST_F(Accept, LetsNobodyInWithoutAConsoleOnASoundSite) {
  soundSite();
  int status = support::inChild([&] {
    dup2(open("/dev/null", O_RDONLY), 0);
    base::Fd peer = from("127.0.0.1");
    EXPECT_EQ(net::acceptPeer(listening.get(), 1000), -1);
    EXPECT_EQ(statusLog(),
              "ERROR:  The console's peer is unknown: no data connection can be accepted\n");
    return HasFailure() ? 1 : 0;
  });
  EXPECT_EQ(support::exitOf(status), 0);
}

TEST_F(Accept, KnowsAConsolePeerByItsIpv6FormToo) {
  soundSite();
  int status = support::inChild([&] {
    // A console that listens on both kinds of address sees IPv4 peers in their IPv6 form.
    base::Fd both(socket(AF_INET6, SOCK_STREAM, 0));
    int off = 0;
    setsockopt(both.get(), IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof off);
    sockaddr_in6 any{};
    any.sin6_family = AF_INET6;
    socklen_t length = sizeof any;
    if (bind(both.get(), reinterpret_cast<sockaddr *>(&any), length) != 0 ||
        listen(both.get(), 1) != 0)
      return 99;
    getsockname(both.get(), reinterpret_cast<sockaddr *>(&any), &length);
    sockaddr_in target{};
    target.sin_family = AF_INET;
    target.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    target.sin_port = any.sin6_port;
    base::Fd caller(socket(AF_INET, SOCK_STREAM, 0));
    if (connect(caller.get(), reinterpret_cast<sockaddr *>(&target), sizeof target) != 0) return 98;
    dup2(accept(both.get(), nullptr, nullptr), 0);
    base::Fd peer = from("127.0.0.1");
    base::Fd sd(net::acceptPeer(listening.get(), 2000));
    EXPECT_GE(sd.get(), 0);
    return HasFailure() ? 1 : 0;
  });
  EXPECT_EQ(support::exitOf(status), 0);
}

}  // namespace
