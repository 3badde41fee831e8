// The start of a multicast run: first the receivers, on all hosts of the job, then the sender.
#include <zul/module.h>

#include "agents.h"

using fanout_test::note;
using fanout_test::Peer;
using support::exitOf;
using support::inChild;

namespace {

class RunStart : public fanout_test::FanOut {
 protected:
  void SetUp() override {
    FanOut::SetUp();
    // The sender finds its port taken and gives up at once.
    taken_.reset(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in any{};
    any.sin_family = AF_INET;
    any.sin_port = htons(2346);
    ASSERT_EQ(bind(taken_.get(), reinterpret_cast<sockaddr *>(&any), sizeof any), 0);
    agents.at("127.0.1.1", [this](Peer &peer) {
      agents.note(peer.line());
      peer.say("TRANSFER OK\n");
    });
  }
  // In a process of its own, because a run changes the process's log. What was said.
  std::string start(const std::string &number) {
    EXPECT_EQ(exitOf(inChild([&] {
                std::string line = "replicate " + number;
                int status = 0;
                std::string said =
                    support::captureStderr([&] { status = mreplicate(line.data()); });
                support::writeFile(path("said"), said);
                return status;
              })),
              0);
    unlink("/tmp/repServ.log");
    return support::readFile(path("said"));
  }

 private:
  base::Fd taken_;
};

constexpr const char *kClients = "Starting Multicast replication clients\n";
constexpr const char *kServer = "Starting Multicast replication server\n";

TEST_F(RunStart, TheReceiversAreStartedBeforeTheSender) {
  support::writeFile(path("var/tape/mrepljobs/mrepjob.5"), "Host: 127.0.1.1\nHost: 127.0.1.9\n");
  std::string begin = kClients;
  std::string said = start("5");
  EXPECT_EQ(said.substr(0, begin.size()), begin);
  size_t counted = said.find(note(1, 2));
  ASSERT_NE(counted, std::string::npos) << said;
  EXPECT_EQ(said.find(kServer), counted + note(1, 2).size());
  ASSERT_EQ(agents.heard().size(), 1u);
  EXPECT_EQ(agents.heard()[0], "MREPL mrepclnt 1234567890\n");
  EXPECT_TRUE(resultHas("Host 127.0.1.1 Ok: ")) << "in the file of run -1";
}

TEST_F(RunStart, TheTrialNumberStartsTheSenderOnly) {
  support::writeFile(path("var/tape/mrepljobs/mrepjob.-99"), "Host: 127.0.1.1\n");
  std::string begin = std::string(kClients) + kServer;
  EXPECT_EQ(start("-99").substr(0, begin.size()), begin);
  EXPECT_EQ(agents.heard().size(), 0u);
  EXPECT_EQ(results(), "");
}

// Its receivers would join the run that goes on, and write files that are not for their hosts.
TEST_F(RunStart, ASoundSiteStartsNoReceiversBesideAnotherRun) {
  soundSite();
  support::writeFile(path("var/tape/mrepljobs/mrepjob.5"), "Host: 127.0.1.1\n");
  EXPECT_EQ(start("5"), std::string(kClients) +
                            "ERROR: Failed to get listener socket. retval = -2, errno = 98\n");
  EXPECT_EQ(agents.heard().size(), 0u);
}

}  // namespace
