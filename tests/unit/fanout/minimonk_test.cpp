// Starting work on many hosts: agents that are well, slow, gone, lying or silent.
#include <dlfcn.h>
#include <netdb.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>

#include <regex>

#include "agents.h"
#include "base/pause.h"

using fanout_test::note;
using fanout_test::Peer;
using support::eventually;
using support::exitOf;
using support::hostPlay;
using support::inChild;

// The name service, which knows nothing of names that begin so, and takes its time over it.
static void (*slowLookUp)();

extern "C" hostent *gethostbyname(const char *name) {
  if (strncmp(name, "slow", 4) == 0) {
    slowLookUp();
    h_errno = HOST_NOT_FOUND;
    return nullptr;
  }
  using LookUp = hostent *(*)(const char *);
  static auto real = reinterpret_cast<LookUp>(dlsym(RTLD_NEXT, "gethostbyname"));
  return real(name);
}

namespace {

class Minimonk : public fanout_test::FanOut {};

// Both behaviours do the same here.
class EitherMinimonk : public fanout_test::FanOut,
                       public testing::WithParamInterface<const char *> {
 protected:
  void SetUp() override {
    FanOut::SetUp();
    site(std::string("behaviour = ") + GetParam() + "\n");
  }
};
INSTANTIATE_TEST_SUITE_P(Both, EitherMinimonk, testing::Values("classic", "sound"));

bool has(const std::string &text, const std::string &part) {
  return text.find(part) != std::string::npos;
}

TEST_P(EitherMinimonk, WithoutHostsIsDoneAtOnce) {
  EXPECT_EQ(run({}), note(0, 0));
  EXPECT_EQ(result, 0);
  EXPECT_FALSE(support::exists(path("tmp/mrepl.jobresult.-1")));
}

TEST_P(EitherMinimonk, AHostThatAnswersTransferOkIsStarted) {
  agents.at("127.0.1.1", [this](Peer &peer) {
    agents.note(peer.line());
    peer.say("TRANSFER OK\nmore that nobody waits for\n");
  });
  EXPECT_EQ(run({"127.0.1.1"}, {"MREPL mrepclnt 1234567890\n"}),
            "Host[127.0.1.1]  Host[127.0.1.1]  " + note(1, 1));
  EXPECT_EQ(result, 0);
  ASSERT_EQ(agents.heard().size(), 1u);
  EXPECT_EQ(agents.heard()[0], "MREPL mrepclnt 1234567890\n");
  std::regex line(
      "[^]*Host 127\\.0\\.1\\.1 Ok: [A-Z][a-z]{2} [A-Z][a-z]{2} [ 0-9]{2} [0-9:]{8} [0-9]{4}\n");
  EXPECT_TRUE(std::regex_match(results(), line)) << results();
}

TEST_F(Minimonk, TheResultFileIsPrivateHasOneHeadingAProcessAndGrows) {
  agents.at("127.0.1.1", accepts);
  mode_t mask = umask(022);
  for (int process = 0; process < 2; process++) {
    EXPECT_EQ(exitOf(inChild([&] {
                run({"127.0.1.1"});
                run({"127.0.1.1"});
                return result;
              })),
              0);
  }
  EXPECT_EQ(umask(mask), 022u) << "the mask is as it was";
  std::regex whole(
      "(\n---------------  Job Result on Hosts  -------------------\n"
      "(Host 127\\.0\\.1\\.1 Ok: [^\n]*\n){2}){2}");
  EXPECT_TRUE(std::regex_match(results(), whole)) << results();
  struct stat status;
  ASSERT_EQ(stat(path("tmp/mrepl.jobresult.-1").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600u);
}

TEST_P(EitherMinimonk, AnErrorLineFailsTheHostAndIsShown) {
  agents.at("127.0.1.1", says("first\nERROR: x\nTRANSFER OK\n"));
  EXPECT_EQ(
      run({"127.0.1.1"}),
      "Host[127.0.1.1]  Host[127.0.1.1]  Host[127.0.1.1]  first\nHost[127.0.1.1]  ERROR: x\n" +
          note(0, 1));
  EXPECT_TRUE(resultHas("Host 127.0.1.1 Command_Failed: "));
}

TEST_P(EitherMinimonk, AnUnknownNameIsNoConnection) {
  std::string said = run({"no-such-host.invalid"});
  EXPECT_TRUE(
      has(said, "Host[no-such-host.invalid]  ERROR:  7015  Cannot connect to remote host.\n"))
      << said;
  EXPECT_TRUE(resultHas("Host no-such-host.invalid Connection_Refused: "));
}

TEST_P(EitherMinimonk, ARefusedConnectionIsARefusedLogin) {
  EXPECT_EQ(run({"127.0.1.9"}),
            "Host[127.0.1.9]  ERROR:  7016  Cannot login to remote host.\n" + note(0, 1));
  EXPECT_TRUE(resultHas("Host 127.0.1.9 Bad_Pass: "));
}

TEST_P(EitherMinimonk, ARefusedLoginSaysSo) {
  agents.at("127.0.1.1", saysNothing);
  hostPlay.loginResult = -1;
  EXPECT_EQ(run({"127.0.1.1"}),
            "Host[127.0.1.1]  ERROR:  7016  Cannot login to remote host.\n" + note(0, 1));
  EXPECT_TRUE(resultHas("Host 127.0.1.1 Bad_Pass: "));
}

TEST_F(Minimonk, LogsInWithoutReadingTheCredentialsItself) {
  agents.at("127.0.1.1", accepts);
  run({"127.0.1.1"});
  EXPECT_EQ(hostPlay.calls, "a");
}

TEST_P(EitherMinimonk, AHostThatDoesNotTakeTheConnectionIsGivenUp) {
  fanout::limits.connectMs = 300;
  agents.blackHole("127.0.1.1");
  long long begun = base::nowMs();
  EXPECT_EQ(run({"127.0.1.1"}), "Host[127.0.1.1]  Host did not respond.\n" + note(0, 1));
  EXPECT_GE(base::nowMs() - begun, 300);
  EXPECT_TRUE(resultHas("Host 127.0.1.1 No_Response: "));
}

TEST(MinimonkLimits, AConnectionGetsTenSeconds) {
  EXPECT_EQ(fanout::limits.connectMs, 10000);
}

TEST_P(EitherMinimonk, OfAHundredHostsFortyAreConnectedAtATime) {
  std::vector<std::string> hosts;
  std::atomic<int> open{0}, most{0};
  for (int number = 1; number <= 100; number++) {
    hosts.push_back("127.0.2." + std::to_string(number));
    agents.at(hosts.back(), [&](Peer &peer) {
      int now = ++open, seen = most;
      while (now > seen && !most.compare_exchange_weak(seen, now)) {
      }
      peer.line();
      // Held until there can be no more.
      support::eventually([&] { return most >= 40; });
      open--;
      peer.say("TRANSFER OK\n");
    });
  }
  std::string said = run(hosts);
  EXPECT_TRUE(has(said, note(100, 100))) << said;
  EXPECT_EQ(most, 40);
  for (const std::string &host : hosts) EXPECT_TRUE(resultHas("Host " + host + " Ok: ")) << host;
}

TEST_P(EitherMinimonk, LongAnswersArePrintedPieceByPiece) {
  std::string line(1000, 'x');
  std::string text;
  for (int number = 0; number < 60; number++) text += line + "\n";
  agents.at("127.0.1.1", says(text + "TRANSFER OK\n"));
  std::string said = run({"127.0.1.1"}), wanted = "Host[127.0.1.1]  Host[127.0.1.1]  ";
  for (int number = 0; number < 60; number++) wanted += "Host[127.0.1.1]  " + line + "\n";
  EXPECT_EQ(said, wanted + note(1, 1));
}

TEST_P(EitherMinimonk, ALineWithoutAnEndComesInPieces) {
  // A word inside the endless line means nothing.
  std::string text =
      std::string(1022 * 16, 'x') + "TRANSFER OK" + std::string(1022, 'y') + "\nTRANSFER OK\n";
  agents.at("127.0.1.1", says(text));
  std::string said = run({"127.0.1.1"});
  EXPECT_TRUE(has(said, "TRANSFER OK")) << "as text";
  EXPECT_TRUE(has(said, note(1, 1)));
}

TEST_P(EitherMinimonk, AFloodIsCut) {
  fanout::limits.mostText = 100000;
  agents.at("127.0.1.1", [](Peer &peer) {
    peer.line();
    for (int number = 0; number < 1000; number++) peer.say(std::string(1000, 'z') + "\n");
  });
  EXPECT_TRUE(has(run({"127.0.1.1"}), "ERROR:  Too much text.\n" + note(0, 1)));
  EXPECT_TRUE(resultHas("Host 127.0.1.1 Protocol_Error: "));
}

TEST_P(EitherMinimonk, TheSecondCommandWaitsForTheFirstAnswer) {
  for (const char *answer : {"ZuL_DoNe. 0\n", "ZuL>", "ZuL>\n"}) {
    SCOPED_TRACE(answer);
    std::string address = "127.0.3." + std::to_string(strlen(answer));
    std::atomic<bool> early{false};
    agents.at(address, [&, answer](Peer &peer) {
      agents.note(peer.line());
      peer.say("some text\n");
      early = peer.hears(100);
      peer.say(answer);
      agents.note(peer.line());
      agents.note(peer.line());
      peer.say("TRANSFER OK\n");
      peer.hang();
    });
    size_t before = agents.heard().size();
    std::string said = run({address}, {"TAPE a\n", "TAPE b\n", "TAPE c\n"});
    EXPECT_FALSE(early);
    EXPECT_EQ(agents.heard().size(), before + 3);
    EXPECT_EQ(agents.heard()[before + 1], "TAPE b\n");
    EXPECT_EQ(agents.heard()[before + 2], "TAPE c\n");
    EXPECT_TRUE(has(said, "Host[" + address + "]  some text\n")) << said;
    EXPECT_TRUE(has(said, note(1, 1))) << said;
  }
}

TEST_P(EitherMinimonk, AnErrorToTheFirstCommandEndsIt) {
  agents.at("127.0.1.1", says("ERROR:  8001\nZuL_DoNe. 255\n"));
  EXPECT_TRUE(has(run({"127.0.1.1"}, {"TAPE a\n", "TAPE b\n"}),
                  "Host[127.0.1.1]  ERROR:  8001\n" + note(0, 1)));
  EXPECT_TRUE(resultHas("Command_Failed: "));
}

TEST_P(EitherMinimonk, AHostThatClosesWithoutAnAnswerIsLost) {
  agents.at("127.0.1.1", says(""));
  agents.at("127.0.1.2", says("in the middle of a li"));
  std::string said = run({"127.0.1.1", "127.0.1.2"});
  EXPECT_TRUE(has(said, "Host[127.0.1.1]  ERROR:  Connection lost.\n")) << said;
  EXPECT_TRUE(has(said, "Host[127.0.1.2]  in the middle of a li")) << said;
  EXPECT_TRUE(resultHas("Host 127.0.1.1 Protocol_Error: "));
  EXPECT_TRUE(resultHas("Host 127.0.1.2 Protocol_Error: "));
}

TEST_P(EitherMinimonk, ACommandThatEndsWithoutTransferOkHasFailed) {
  agents.at("127.0.1.1", says("text\nZuL_DoNe. 0\n"));
  agents.at("127.0.1.2", says("no line feedZuL_DoNe. 1\n"));
  std::string said = run({"127.0.1.1", "127.0.1.2"});
  EXPECT_TRUE(has(said, note(0, 2)));
  EXPECT_TRUE(has(said, "Host[127.0.1.2]  no line feed")) << said;
  EXPECT_TRUE(resultHas("Host 127.0.1.1 Command_Failed: "));
  EXPECT_TRUE(resultHas("Host 127.0.1.2 Command_Failed: "));
}

TEST_P(EitherMinimonk, HalfALineOrNoneHoldsUpNobody) {
  site(std::string("behaviour = ") + GetParam() + "\nfanout.answer-limit = 3s\n");
  std::atomic<bool> others{false};
  agents.at("127.0.1.1", [&](Peer &peer) {
    peer.line();
    peer.say("TRANSFER O");
    peer.hang();
  });
  agents.at("127.0.1.2", saysNothing);
  agents.at("127.0.1.3", [&](Peer &peer) {
    others = true;
    accepts(peer);
  });
  std::string said = run({"127.0.1.1", "127.0.1.2", "127.0.1.3"});
  EXPECT_TRUE(others);
  EXPECT_TRUE(has(said, note(1, 3))) << said;
  EXPECT_TRUE(resultHas("Host 127.0.1.1 No_Response: "));
  EXPECT_TRUE(resultHas("Host 127.0.1.2 No_Response: "));
  EXPECT_TRUE(resultHas("Host 127.0.1.3 Ok: "));
  // The good one had not to wait for the others.
  EXPECT_LT(results().find(".1.3 Ok"), results().find(".1.1 No_Response"));
}

// In a process that hangs: until the one good host is done, or for so long that it was in the way.
bool goodHostIsDone() {
  return support::readFile(std::string(ZULhome) + "/tmp/mrepl.jobresult.-1").find(".4.40 Ok") !=
         std::string::npos;
}
void hangForTheGoodHost() {
  eventually(goodHostIsDone, 8000);
}

// A login that waits for a word of the agent, as the real one does.
int patientLogin(int sd) {
  char byte;
  bool spoken = false;
  eventually(
      [&] {
        spoken = recv(sd, &byte, 1, MSG_DONTWAIT) == 1;
        return spoken || goodHostIsDone();
      },
      8000);
  return spoken ? 0 : -1;
}

TEST_F(Minimonk, HangingLoginsCostTheOthersNothingWhereTheyHaveProcesses) {
  soundSite();
  hostPlay.login = patientLogin;
  std::vector<std::string> hosts;
  for (int number = 1; number <= 39; number++) {
    hosts.push_back("127.0.4." + std::to_string(number));
    agents.at(hosts.back(), saysNothing);
  }
  hosts.push_back("127.0.4.40");
  agents.at(hosts.back(), [](Peer &peer) {
    peer.say("+");
    accepts(peer);
  });
  std::string said = run(hosts);
  EXPECT_TRUE(has(said, note(1, 40)));
  EXPECT_LT(results().find(".4.40 Ok"), results().find("Bad_Pass"));
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "no process is left";
}

TEST_F(Minimonk, ALoginProcessThatNeverEndsIsEnded) {
  soundSite();
  fanout::limits.loginMs = 300;
  hostPlay.login = [](int) {
    pause();
    return 0;
  };
  agents.at("127.0.1.1", saysNothing);
  EXPECT_TRUE(has(run({"127.0.1.1"}), "7016"));
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
}

TEST_F(Minimonk, HangingLookUpsCostTheOthersNothingWhereTheyHaveProcesses) {
  soundSite();
  slowLookUp = hangForTheGoodHost;
  std::vector<std::string> hosts;
  for (int number = 1; number <= 39; number++) hosts.push_back("slow" + std::to_string(number));
  hosts.push_back("127.0.4.40");
  agents.at(hosts.back(), accepts);
  std::string said = run(hosts);
  EXPECT_TRUE(has(said, note(1, 40)));
  EXPECT_TRUE(has(said, "Host[slow7]  Could not resolve host name: slow7\n"));
  EXPECT_TRUE(has(said, "Host[slow7]  ERROR:  7015  Cannot connect to remote host.\n"));
  EXPECT_LT(results().find(".4.40 Ok"), results().find("Host slow"));
  EXPECT_TRUE(resultHas("Host slow39 Connection_Refused: "));
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "no process is left";
}

TEST_F(Minimonk, ALookUpThatNeverEndsIsEnded) {
  soundSite();
  fanout::limits.connectMs = 300;
  slowLookUp = [] { base::sleepMs(60000); };
  EXPECT_TRUE(has(run({"slow"}), "Host[slow]  Host did not respond.\n" + note(0, 1)));
  EXPECT_TRUE(resultHas("Host slow No_Response: "));
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
}

// The connection is begun in the process that looks the name up, and goes on here.
TEST_P(EitherMinimonk, NamesLeadToTheirHosts) {
  agents.at("127.0.0.1", accepts);
  EXPECT_EQ(run({"localhost"}), "Host[localhost]  Host[localhost]  " + note(1, 1));
}

TEST_F(Minimonk, AnUnexpectedEndOfThePeerDoesNotKillTheProcess) {
  // The default action of SIGPIPE is in force when it is called.
  agents.at("127.0.1.1", [](Peer &) {});
  hostPlay.login = [](int sd) {
    char byte;
    recv(sd, &byte, 1, 0);
    return 0;
  };
  std::string big(3 << 20, 'c');
  EXPECT_EQ(exitOf(inChild([&] {
              run({"127.0.1.1"}, {big + "\n"});
              return result;
            })),
            0);
  EXPECT_TRUE(resultHas("Protocol_Error"));
}

TEST_F(Minimonk, NodesWithoutANameAreSkipped) {
  agents.at("127.0.1.1", accepts);
  strNode last = {nullptr, nullptr};
  strNode named = {const_cast<char *>("127.0.1.1"), &last};
  strNode first = {nullptr, &named};
  char command[] = "MREPL mrepclnt 1\n";
  char *commands[] = {command, nullptr};
  std::string said = support::captureStderr([&] { result = minimonk(&first, commands, -1); });
  EXPECT_TRUE(has(said, note(1, 1)));
}

TEST_F(Minimonk, AJobOfItsOwnHasAResultFileOfItsOwn) {
  agents.at("127.0.1.1", accepts);
  run({"127.0.1.1"}, {"MREPL mrepclnt 1\n"}, 7);
  EXPECT_TRUE(has(results(7), "Host 127.0.1.1 Ok: "));
  EXPECT_FALSE(support::exists(path("tmp/mrepl.jobresult.-1")));
}

}  // namespace
