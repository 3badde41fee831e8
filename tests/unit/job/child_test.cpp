// The gathering child from its start to its end; the test is the tape writer.
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zul/module.h>

#include <thread>

#include "base/pause.h"
#include "base/sharedword.h"
#include "jobtest.h"
#include "net/gatherchild.h"
#include "tape/segment.h"

namespace {

using jobtest::Client;
using jobtest::File;

constexpr const char *kHost = "127.0.0.2";

class Child : public jobtest::SlotTest {
 protected:
  Child() : SlotTest(kHost) {}

  pid_t startChild() {
    fflush(nullptr);
    pid_t pid = fork();
    if (pid != 0) return pid;
    _exit(goBackupChld(0, kHost, 7, 0) & 0x3f);  // -1 is 63 here, an exit with -1 is 255
  }
  // Takes packages until the child has ended: its exit status.
  int finish(pid_t pid) {
    int status = 0;
    bool ended = support::eventually(
        [&] {
          base::storeWord(slot->consumed, base::loadWord(slot->produced));
          base::wakeWord(&slot->consumed);
          return waitpid(pid, &status, WNOHANG) == pid;
        },
        10000);
    EXPECT_TRUE(ended);
    return support::exitOf(status);
  }
  std::string log() const { return hostLogOf(kHost); }
  bool logged(const std::string &text) const { return log().find(text) != std::string::npos; }
};

TEST_F(Child, GathersItsHostAndSaysSo) {
  alone([&] {
    Client client(kHost, std::vector<File>{{"/a", "abc"}, {"/b", ""}});
    mkFIFO(0, 1);
    EXPECT_EQ(finish(startChild()), 0);
    EXPECT_EQ(slot->cst.flags, 8);
    EXPECT_EQ(slot->items, 2u);
    char addresses[128], flag[64];
    snprintf(addresses, sizeof addresses, "IPC ipc->pst.flags = %p    ipc->cst.flags = %p \n",
             static_cast<void *>(&slot->pst.flags), static_cast<void *>(&slot->cst.flags));
    snprintf(flag, sizeof flag, "Flag pointer = %p\n", static_cast<void *>(&slot->cst.flags));
    std::string before = std::string("Starting backup TCP server on client: ") + kHost +
                         "\nSignal parent we are ready to get data from remote client: " + kHost +
                         "\n" + addresses + "Parent says it is ready to receive data\n" +
                         "Using FIFO in: " + path("tmp/ipc.") + kHost + "\n" +
                         "Server port: 2346, Server name " + kHost + "\nHost name: " + kHost +
                         "\nOfficial name: " + kHost + "\nHost address: 200007f\n" +
                         "Connection to: " + kHost + "\nSocket Descriptor = ";
    EXPECT_EQ(log().substr(0, before.size()), before);
    EXPECT_NE(log().find(std::string(flag) + "Finished with " + kHost + "\n"), std::string::npos);
    close(slot->fd);
  });
}

TEST_F(Child, SaysThatItIsReadyBeforeItConnects) {
  alone([&] {
    Client client(kHost, std::vector<File>{});
    pid_t pid = startChild();
    EXPECT_TRUE(support::eventually([&] { return base::loadWord(slot->cst.flags) == 1; }));
    base::sleepMs(100);
    EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), 0) << "it waits for the mailbox";
    EXPECT_FALSE(logged("Parent says"));
    mkFIFO(0, pid);
    EXPECT_EQ(finish(pid), 0);
    EXPECT_EQ(slot->cst.flags, 8);
    close(slot->fd);
  });
}

TEST_F(Child, LeavesWithoutConnectingWhenTheParentSaysStop) {
  alone([&] {
    Client client(kHost, std::vector<File>{});
    slot->pst.flags = 2;
    EXPECT_EQ(finish(startChild()), 0);
    EXPECT_FALSE(logged("Server port"));
    EXPECT_EQ(slot->cst.flags, 1);
  });
}

TEST_F(Child, LeavesWithItsMailboxWhenTheJobIsGone) {
  alone([&] {
    Client client(kHost, std::vector<File>{});
    fflush(nullptr);
    pid_t job = fork();
    if (job == 0) {
      mkFIFO(0, 1);
      base::storeWord(slot->pst.flags, 0);
      startChild();
      support::eventually([&] { return base::loadWord(slot->cst.flags) == 1; });
      _exit(0);
    }
    waitpid(job, nullptr, 0);
    EXPECT_TRUE(support::eventually([&] { return logged("The backup job is gone, leaving\n"); }));
    EXPECT_TRUE(support::eventually([&] { return !support::exists(path("tmp/ipc.") + kHost); }));
  });
}

TEST_F(Child, LeavesWhenTheJobDoesNotTakeItsPackageBecauseItIsGone) {
  alone([&] {
    Client client(kHost, std::vector<File>{{"/a", "abc"}});
    fflush(nullptr);
    pid_t job = fork();
    if (job == 0) {
      mkFIFO(0, 1);
      startChild();
      support::eventually([&] { return base::loadWord(slot->produced) == 1; });
      _exit(0);
    }
    waitpid(job, nullptr, 0);
    EXPECT_TRUE(support::eventually([&] { return !support::exists(path("tmp/ipc.") + kHost); }));
    EXPECT_TRUE(logged("The backup job is gone, leaving\n"));
  });
}

TEST_F(Child, SoundStopsTryingARefusedPortWhenTheJobIsGone) {
  behave("sound");
  alone([&] {
    Client client(kHost, Client::Play{{}, nullptr, true, false});
    fflush(nullptr);
    pid_t job = fork();
    if (job == 0) {
      mkFIFO(0, 1);
      startChild();
      support::eventually([&] { return logged("Connection to: "); });
      _exit(0);
    }
    waitpid(job, nullptr, 0);
    EXPECT_TRUE(support::eventually([&] { return logged("The backup job is gone, leaving\n"); }));
    EXPECT_TRUE(support::eventually([&] { return !support::exists(path("tmp/ipc.") + kHost); }));
  });
}

TEST_F(Child, ReportsAMailboxThatIsMissing) {
  alone([&] {
    Client client(kHost, std::vector<File>{});
    slot->pst.flags = 1;
    EXPECT_EQ(finish(startChild()), 255);
    EXPECT_EQ(slot->cst.flags, 2);
    EXPECT_TRUE(logged("ERROR:  3203  Unable to open FIFO\n"));
  });
}

TEST_F(Child, ReportsADataPortThatRefuses) {
  alone([&] {
    Client client(kHost, Client::Play{{}, nullptr, true, false});
    mkFIFO(0, 1);
    EXPECT_EQ(finish(startChild()), 255);
    EXPECT_EQ(slot->cst.flags, 2);
    EXPECT_TRUE(
        logged("ERROR:  3208  Connection to socket refused!\n"
               "ERROR:  3204  Unable to open socket to client\n"));
    close(slot->fd);
  });
}

TEST_F(Child, ReportsADialogueThatFails) {
  alone([&] {
    Client client(kHost, Client::Play{{}, [](int) {}, true, true});
    mkFIFO(0, 1);
    EXPECT_EQ(finish(startChild()), 255);
    EXPECT_EQ(slot->cst.flags, 16);
    EXPECT_TRUE(logged("ERROR:  3205  Client handshaking error -"));
    close(slot->fd);
  });
}

TEST_F(Child, ReportsAHostThatIsDown) {
  alone([&] {
    support::captureStderr([&] { EXPECT_EQ(goBackupChld(0, kHost, 7, 0), -1); });
    EXPECT_EQ(slot->cst.flags, 2);
    EXPECT_TRUE(logged(std::string("ERROR:  3201  Failed to start backup TCP server on client: ") +
                       kHost + "\n"));
    EXPECT_STREQ(cmdname, "zultlisten");
  });
}

TEST_F(Child, NeedsItsStatusFile) {
  int result = 0;
  std::string said =
      support::captureStderr([&] { result = goBackupChld(0, "up/../../host", 7, 0); });
  EXPECT_EQ(result, -2);
  EXPECT_EQ(said, "ERROR:  3200  Fatal error.  Cannot open status log file: " +
                      path("var/tape/jobids/up/../../host.stat") + ".  errno = 22\n");
}

TEST_F(Child, EndsWithoutASegment) {
  int status = support::inChild([&] {
    tpgetShMemPtr(-1);
    tpshmid = 0x7fffffff;
    goBackupChld(0, kHost, 7, 0);
    return 0;
  });
  EXPECT_EQ(support::exitOf(status), 255);
}

TEST_F(Child, AsksTheAgentWithJobAndReferenceTime) {
  alone([&] {
    int port = 2345;
    base::Fd listening(support::listenOn(port));
    std::string line;
    std::thread agent([&] {
      base::Fd sd(accept(listening.get(), nullptr, nullptr));
      char bytes[256];
      for (ssize_t got; (got = read(sd.get(), bytes, sizeof bytes)) > 0;)
        line.append(bytes, static_cast<size_t>(got));
    });
    support::hostPlay.calls = "";
    EXPECT_EQ(startBackupServ("127.0.0.1", 7, 1234), 0);
    agent.join();
    EXPECT_EQ(line, "TAPE server 7 1234\n") << "and the connection is closed";
    EXPECT_EQ(support::hostPlay.calls, "ia");
    EXPECT_EQ(alarm(0), 0u) << "no alarm may be left to end the child";
  });
}

TEST_F(Child, ReportsALoginThatIsRefused) {
  alone([&] {
    int port = 2345;
    base::Fd listening(support::listenOn(port));
    support::hostPlay.loginResult = 1;
    EXPECT_EQ(startBackupServ("127.0.0.1", 7, 0), -2);
    EXPECT_EQ(statusLog(), "ERROR:  3224  Cannot start restore agent on remote host\n");
  });
}

TEST_F(Child, ReportsAnUnknownName) {
  EXPECT_EQ(mkClientSD("no-such-host.invalid"), -1);
  EXPECT_EQ(statusLog(),
            "Server port: 2346, Server name no-such-host.invalid\n"
            "ERROR:  3207  Could not resolv host name: no-such-host.invalid\n");
}

TEST_F(Child, PacedByReadinessARefusedPortIsTriedAgain) {
  behave("sound");
  alone([&] {
    base::Fd listening;
    std::thread late([&] {
      base::sleepMs(150);
      int port = 2346;
      listening.reset(support::listenOn(port));
    });
    base::Fd sd(mkClientSD("127.0.0.1"));
    late.join();
    EXPECT_GE(sd.get(), 0);
    EXPECT_NE(statusLog().find("Socket Descriptor = "), std::string::npos);
    int value = 0;
    socklen_t length = sizeof value;
    getsockopt(sd.get(), SOL_SOCKET, SO_KEEPALIVE, &value, &length);
    EXPECT_EQ(value, 1) << "a gatherer without power is noticed";
  });
}

TEST_F(Child, PacedByReadinessARefusedPortIsGivenUpInTheEnd) {
  behave("sound");
  alone([&] {
    net::gatherLimits.refusedMs = 60;
    EXPECT_EQ(mkClientSD("127.0.0.1"), -1);
    EXPECT_NE(statusLog().find("ERROR:  3208  Connection to socket refused!\n"), std::string::npos);
  });
}

}  // namespace
