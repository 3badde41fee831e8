// The gatherer as a whole: its list generator, its port, its end. In a network of its own, the port
// being fixed.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <pthread.h>
#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "base/pause.h"
#include "netsupport.h"

namespace fs = std::filesystem;

namespace {

class Server : public netsupport::NetTest, public testing::WithParamInterface<const char *> {
 protected:
  void SetUp() override {
    NetTest::SetUp();
    tree = path("tmp/tree");
    fs::create_directories(tree);
    support::writeFile(tree + "/one", "1");
    support::writeFile(path("var/tape/jobids/7.req"), tree + "/\n");
    setPauses("");
  }
  void setPauses(const std::string &more) {
    site(std::string("behaviour = ") + GetParam() +
         "\nbehaviour.security = classic\npause.list-start = 10ms\npause.list-grace = 200ms\n" +
         more);
  }
  bool isSound() const { return std::string(GetParam()) == "sound"; }
  std::string request() const { return path("var/tape/jobids/request.7"); }
  std::string tree;
};
INSTANTIATE_TEST_SUITE_P(, Server, testing::Values("classic", "sound"),
                         [](const auto &given) { return std::string(given.param); });

TEST_P(Server, StartsAListGeneratorThatOutlivesIt) {
  support::writeFile(request(), "0 stale\nend\n");
  signal(SIGCHLD, SIG_IGN);  // as a careless host leaves it
  long long begin = base::nowMs();
  EXPECT_EQ(mkFlist(7, 0), 0);
  EXPECT_LT(base::nowMs() - begin, net::timeouts.startMs / 2);
  EXPECT_TRUE(support::eventually(
      [&] { return support::readFile(request()).find(tree + "/one\n") != std::string::npos; }));
  EXPECT_EQ(support::readFile(request()).find("stale"), std::string::npos);
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);  // no child is left
}

TEST_P(Server, ListsOnlyWhatIsNewer) {
  EXPECT_EQ(mkFlist(7, 2000000000), 0);
  ASSERT_TRUE(support::eventually(
      [&] { return support::readFile(request()).find(home + "/tmp/") != std::string::npos; }));
  base::sleepMs(50);
  EXPECT_EQ(support::readFile(request()).find("/one"), std::string::npos);
}

TEST_P(Server, AGeneratorThatCannotBeStartedIsSaid) {
  int status = support::inChild([&] {
    // The first process never ends in time when the limit is over at once.
    net::timeouts.startMs = 0;
    std::string printed = support::captureStderr([] { EXPECT_EQ(mkFlist(7, 0), -1); });
    EXPECT_EQ(printed, "ERROR:  3034  Parent timesout \n");
    support::captureStderr([] { EXPECT_EQ(server(7, 0), -1); });
    EXPECT_EQ(statusLog(),
              "INFO:  Building Backup list\nWARNING:  3000  Cannot make the request list!\n");
    return HasFailure() ? 1 : 0;
  });
  EXPECT_EQ(support::exitOf(status), 0);
}

TEST_P(Server, AGeneratorThatIsKilledIsNotWaitedFor) {
  int status = support::inChild([&] {
    pthread_atfork(nullptr, nullptr, [] { raise(SIGKILL); });
    long long begin = base::nowMs();
    std::string printed = support::captureStderr([] { EXPECT_EQ(mkFlist(7, 0), -1); });
    EXPECT_LT(base::nowMs() - begin, net::timeouts.startMs / 2);
    EXPECT_EQ(printed, "ERROR:  3034  Parent timesout \n");
    return HasFailure() ? 1 : 0;
  });
  EXPECT_EQ(support::exitOf(status), 0);
}

TEST_P(Server, ListensOnTheDataPort) {
  alone([&] {
    base::Fd sd(mkServerSD());
    base::Fd peer(support::dial(2346));
    EXPECT_GE(peer.get(), 0);
    int reuse = -1;
    socklen_t length = sizeof reuse;
    getsockopt(sd.get(), SOL_SOCKET, SO_REUSEADDR, &reuse, &length);
    EXPECT_EQ(reuse, isSound() ? 1 : 0);
  });
}

TEST_P(Server, WaitsForAPortThatIsGivenBackOnASoundSiteOnly) {
  alone([&] {
    base::Fd sd(mkServerSD());
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
      sd.reset();
      mkServerSD();
      _exit(0);
    }
    base::sleepMs(isSound() ? 300 : 0);
    int status = 0;
    if (isSound()) {
      EXPECT_EQ(waitpid(pid, &status, WNOHANG), 0);
      sd.reset();
    }
    waitpid(pid, &status, 0);
    EXPECT_EQ(support::exitOf(status), isSound() ? 0 : 255);
  });
}

TEST_P(Server, EndsTheProcessWhenThePortIsTaken) {
  net::timeouts.portMs = 100;
  alone([&] {
    base::Fd sd(mkServerSD());
    int status = support::inChild([] {
      mkServerSD();
      return 0;
    });
    EXPECT_EQ(support::exitOf(status), 255);
    EXPECT_EQ(statusLog(), "WARNING:  3003  Bind Failed!\n");
  });
}

// A gatherer in a child, and the tape host's conversation with it.
void serve(const std::function<void(int)> &talk, const std::function<void(int)> &ended) {
  fflush(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
    server(7, 0);
    _exit(77);  // it does not return
  }
  int sd = -1;
  EXPECT_TRUE(support::eventually([&] { return (sd = support::dial(2346)) >= 0; }));
  talk(sd);
  close(sd);
  int status = 0;
  EXPECT_TRUE(support::eventually([&] { return waitpid(pid, &status, WNOHANG) == pid; }));
  ended(support::exitOf(status));
}

std::string nextName(int sd) {
  EXPECT_EQ(write(sd, "Next\n", 5), 5);
  package header = netsupport::unpacked(support::readBytes(sd, PACK_SIZE));
  return header.magic == PACK_EOL_MAGIC ? "end" : netsupport::name(header);
}

TEST_P(Server, ServesItsListAndEndsWithZero) {
  alone([&] {
    long long begin = base::nowMs();
    std::vector<std::string> names;
    serve(
        [&](int sd) {
          while (names.empty() || names.back() != "end") {
            names.push_back(nextName(sd));
            EXPECT_GE(base::nowMs() - begin, 190);  // the list has its head start
            if (names.size() > 100) break;
          }
        },
        [](int status) { EXPECT_EQ(status, 0); });
    ASSERT_GE(names.size(), 4u);
    EXPECT_EQ(names[names.size() - 2], tree + "/one");
    EXPECT_EQ(statusLog(),
              "INFO:  Building Backup list\nINFO:  Starting servHandshak\nNothing more to "
              "backup/replicate\n");
  });
}

TEST_P(Server, AFailedDialogueEndsTheProcessWith255) {
  net::timeouts.stepMs = isSound() ? 60000 : 1500;
  alone([&] {
    support::captureStderr(
        [&] { serve([](int sd) { nextName(sd); }, [](int status) { EXPECT_EQ(status, 255); }); });
    std::string said = isSound() ? "WARNING:  3001  Server handshaking error -8\n"
                                 : "WARNING:  3001  Server handshaking error -7\n";
    EXPECT_NE(statusLog().find(said), std::string::npos);
  });
}

TEST_P(Server, ASecondGathererCanFollowAtOnceOnASoundSiteOnly) {
  alone([&] {
    for (int run = 0; run < 2; run++) {
      clearLogs();
      if (run == 1 && !isSound()) {
        // The port of the first rests, because the gatherer closed first.
        int status = support::inChild([] {
          mkServerSD();
          return 0;
        });
        EXPECT_EQ(support::exitOf(status), 255);
        return;
      }
      serve(
          [](int sd) {
            while (nextName(sd) != "end") {
            }
            char byte;
            EXPECT_EQ(read(sd, &byte, 1), 0);
          },
          [](int status) { EXPECT_EQ(status, 0); });
    }
  });
}

// The name another process of this program shows.
std::string nameOf(pid_t pid) {
  char name[16] = "";
  iovec here{name, sizeof name - 1}, there{cmdname, sizeof name - 1};
  process_vm_readv(pid, &here, 1, &there, 1, 0);
  return name;
}

TEST_P(Server, ShowsWhatItIsDoing) {
  alone([&] {
    setPauses("pause.list-start = 100ms\n");
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) server(7, 0);
    EXPECT_TRUE(support::eventually([&] { return nameOf(pid) == "zulcatlg"; }));
    EXPECT_TRUE(support::eventually([&] { return nameOf(pid) == "zultserv"; }));
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
  });
}

TEST_P(Server, MissesNothingOfASlowList) {
  if (!isSound()) setPauses("pause.list-grace = 500ms\n");
  for (int count = 0; count < 3000; count++)
    support::writeFile(tree + "/f" + std::to_string(count), "");
  alone([&] {
    int files = 0;
    serve(
        [&](int sd) {
          for (std::string name; (name = nextName(sd)) != "end";)
            files += name.rfind(tree + "/", 0) == 0;
        },
        [](int status) { EXPECT_EQ(status, 0); });
    EXPECT_GE(files, 3001);
  });
}

TEST_P(Server, AListThatCannotBeMadeFailsTheGatherer) {
  if (!isSound()) return;  // a classic gatherer takes an empty list for all there is
  net::timeouts.listMs = 200;
  unlink(path("var/tape/jobids/7.req").c_str());
  alone([&] {
    serve(
        [](int sd) {
          EXPECT_EQ(write(sd, "Next\n", 5), 5);
          char byte;
          EXPECT_EQ(read(sd, &byte, 1), 0);
        },
        [](int status) { EXPECT_EQ(status, 255); });
    EXPECT_NE(statusLog().find("WARNING:  3001  Server handshaking error -1\n"), std::string::npos);
  });
}

}  // namespace
