// Connections to agents and the console's listening socket. Ports are fixed, so these tests run in
// a network of their own.
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include "base/pause.h"
#include "net/service.h"
#include "netsupport.h"

namespace {

using Connect = netsupport::NetTest;

int alarms = 0;
void countAlarm(int) {
  alarms++;
}

TEST_F(Connect, UnknownServicesHaveTheirUsualPorts) {
  EXPECT_EQ(ntohs(net::serviceAddress("zul").sin_port), 2345);
  EXPECT_EQ(ntohs(net::serviceAddress("zulsrv").sin_port), 2346);
  EXPECT_EQ(net::serviceAddress("zul").sin_addr.s_addr, htonl(INADDR_ANY));
}

TEST_F(Connect, ReachesAnAgentAndLeavesTheAlarmPending) {
  alone([] {
    int port = 2345;
    base::Fd listening(support::listenOn(port));
    ASSERT_GE(listening.get(), 0);
    signal(SIGALRM, countAlarm);
    std::string printed = support::captureStderr([] {
      base::Fd sd(mkZULagentSD("127.0.0.1"));
      EXPECT_GE(sd.get(), 0);
    });
    EXPECT_EQ(printed, "");
    unsigned left = alarm(0);
    EXPECT_GT(left, 0u);
    EXPECT_LE(left, 8u);
    struct sigaction now;
    sigaction(SIGALRM, nullptr, &now);
    EXPECT_EQ(now.sa_handler, countAlarm);
  });
}

TEST_F(Connect, SaysThatAnAgentRefused) {
  alone([] {
    std::string printed = support::captureStderr([] { EXPECT_EQ(mkZULagentSD("127.0.0.1"), -1); });
    EXPECT_EQ(printed, "WARNING:  Connection to socket refused!\n");
    EXPECT_GT(alarm(0), 0u);
  });
}

TEST_F(Connect, SaysThatANameIsUnknown) {
  alone([] {
    std::string printed =
        support::captureStderr([] { EXPECT_EQ(mkZULagentSD("no-such-host.invalid"), -1); });
    alarm(0);
    EXPECT_EQ(printed, "WARNING:  Could not resolve host name: no-such-host.invalid\n");
  });
}

TEST_F(Connect, SaysThatThereIsNoSocket) {
  alone([] {
    std::string printed = support::captureStderr([] {
      rlimit usual;
      getrlimit(RLIMIT_NOFILE, &usual);
      rlimit none{0, usual.rlim_max};
      setrlimit(RLIMIT_NOFILE, &none);
      EXPECT_EQ(mkZULagentSD("127.0.0.1"), -1);
      EXPECT_EQ(mkZULagentSD_nb_Real("127.0.0.1", 1), -1);
      EXPECT_EQ(mkZULagentSD_nb_Real("127.0.0.1", 0), -1);
      EXPECT_EQ(mkZulSrvSD(), -1);
      setrlimit(RLIMIT_NOFILE, &usual);
    });
    EXPECT_EQ(printed,
              "WARNING:  Unable to open socket!\nHost[127.0.0.1]  Unable to open socket!\n");
  });
}

TEST_F(Connect, GivesUpAnAgentThatDoesNotAnswer) {
  alone([] {
    net::timeouts.connectS = 1;
    // A full backlog on loopback answers nothing, as a host behind a firewall.
    int sd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = net::serviceAddress("zul");
    ASSERT_EQ(bind(sd, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    ASSERT_EQ(listen(sd, 0), 0);
    std::vector<int> waiting;
    for (int count = 0; count < 4; count++) waiting.push_back(mkZULagentSD_nb_Real("127.0.0.1", 0));
    long long begin = base::nowMs();
    std::string printed = support::captureStderr([] { EXPECT_EQ(mkZULagentSD("127.0.0.1"), -1); });
    EXPECT_EQ(printed, "WARNING:  Connection to socket refused!\n");
    EXPECT_GE(base::nowMs() - begin, 900);
    EXPECT_LE(base::nowMs() - begin, 5000);
  });
}

TEST_F(Connect, TheAlarmsHandlerDoesNothing) {
  errno = 17;
  mkZULagentSD_alarm(SIGALRM);
  EXPECT_EQ(errno, 17);
}

TEST_F(Connect, StartsConnectionsWithoutBlocking) {
  alone([] {
    int port = 2345;
    base::Fd listening(support::listenOn(port));
    base::Fd sd(mkZULagentSD_nb("127.0.0.1"));
    ASSERT_GE(sd.get(), 0);
    EXPECT_TRUE(fcntl(sd.get(), F_GETFL) & O_NONBLOCK);
    pollfd asked{sd.get(), POLLOUT, 0};
    EXPECT_EQ(poll(&asked, 1, 30000), 1);
    int error = -1;
    socklen_t length = sizeof error;
    getsockopt(sd.get(), SOL_SOCKET, SO_ERROR, &error, &length);
    EXPECT_EQ(error, 0);
  });
}

TEST_F(Connect, SaysWhichOfManyHostsIsUnknown) {
  alone([] {
    std::string printed = support::captureStderr([] {
      EXPECT_EQ(mkZULagentSD_nb_Real("no.invalid", 1), -1);
      EXPECT_EQ(mkZULagentSD_nb("no.invalid"), -1);
    });
    std::string line = "Host[no.invalid]  Could not resolve host name: no.invalid\n";
    EXPECT_EQ(printed, line + line);
    EXPECT_EQ(support::captureStderr([] { EXPECT_EQ(mkZULagentSD_nb_Real("no.invalid", 0), -1); }),
              "");
  });
}

TEST_F(Connect, SaysWhichOfManyHostsCannotBeReachedAtOnce) {
  alone([] {
    // This network has no route but to itself.
    std::string printed = support::captureStderr([] {
      EXPECT_EQ(mkZULagentSD_nb_Real("192.0.2.1", 1), -1);
      EXPECT_EQ(mkZULagentSD_nb_Real("192.0.2.1", 0), -1);
    });
    EXPECT_EQ(printed, "Host[192.0.2.1]  Cannot connect\n");
  });
}

TEST_F(Connect, ListensOnTheConsoleServiceOnce) {
  alone([] {
    base::Fd sd(mkZulSrvSD());
    ASSERT_GE(sd.get(), 0);
    sockaddr_in address{};
    socklen_t length = sizeof address;
    getsockname(sd.get(), reinterpret_cast<sockaddr *>(&address), &length);
    EXPECT_EQ(ntohs(address.sin_port), 2345);
    int listening = 0;
    length = sizeof listening;
    getsockopt(sd.get(), SOL_SOCKET, SO_ACCEPTCONN, &listening, &length);
    EXPECT_EQ(listening, 1);
    std::string printed = support::captureStderr([] { EXPECT_EQ(mkZulSrvSD(), -2); });
    EXPECT_EQ(printed, "Errno = " + std::to_string(EADDRINUSE) + "\n");
  });
}

}  // namespace
