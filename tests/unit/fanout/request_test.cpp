// An operator's commands on many hosts: the upload, the lines of JSON, what counts as done.
#include <zul/module.h>

#include "agents.h"
#include "upload.h"

using fanout_test::Peer;
using support::hostPlay;

namespace {

class FanOutRequest : public fanout_test::FanOut {
 protected:
  std::string ask(const std::string &upload, const std::string &end = "UpLoAd_DoNe.\n") {
    char line[] = "fanout";
    return support::withUpload(upload, end, [&] { result = mreplicate(line); });
  }
  static bool has(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
  }
  // The line about a host without its time.
  static std::string about(const std::string &said, const std::string &host) {
    size_t from = said.find("{\"host\":\"" + host + "\",\"result\"");
    if (from == std::string::npos) return "";
    std::string line = said.substr(from, said.find('\n', from) - from);
    size_t ms = line.find("\"ms\":");
    return line.substr(0, ms) + line.substr(line.find(',', ms) + 1);
  }
};

TEST_F(FanOutRequest, EveryHostIsALineOfJsonAndAllAreSummedUp) {
  agents.at("127.0.1.1", says("0.34\nZuL_DoNe. 0\n"));
  agents.at("127.0.1.2", says("ERROR:  \"no\"\nZuL_DoNe. 1\n"));
  agents.at("127.0.1.3", says("cut"));
  std::string said =
      ask("Host: 127.0.1.1\nHost: 127.0.1.2\nHost: 127.0.1.3\nHost: 127.0.1.9\n"
          "Host: no-such-host.invalid\nCommand: TAPE version\n");
  EXPECT_EQ(result, 1);
  EXPECT_EQ(said.substr(0, 12), "TRANSFER OK\n");
  EXPECT_EQ(about(said, "127.0.1.1"),
            R"({"host":"127.0.1.1","result":"ok","status":0,"why":"","text":"0.34\u000a"})");
  EXPECT_EQ(
      about(said, "127.0.1.2"),
      R"({"host":"127.0.1.2","result":"failed","status":1,"why":"","text":"ERROR:  \"no\"\u000a"})");
  EXPECT_EQ(
      about(said, "127.0.1.3"),
      R"({"host":"127.0.1.3","result":"lost","status":-1,"why":"the connection was lost","text":"cut"})");
  EXPECT_EQ(
      about(said, "127.0.1.9"),
      R"({"host":"127.0.1.9","result":"unreachable","status":-1,"why":"Connection refused","text":""})");
  EXPECT_EQ(
      about(said, "no-such-host.invalid"),
      R"({"host":"no-such-host.invalid","result":"unreachable","status":-1,"why":"the name is not known","text":""})");
  std::string sum =
      R"({"hosts":5,"ok":1,"failed":1,"unreachable":2,"refused":0,"lost":1,"timeout":0})"
      "\n";
  EXPECT_EQ(said.substr(said.size() - sum.size()), sum);
  EXPECT_FALSE(support::exists(path("tmp/mrepl.jobresult.-1"))) << "that is for runs";
}

TEST_F(FanOutRequest, AllWellIsStatus0) {
  agents.at("127.0.1.1", says("ZuL_DoNe. 0\n"));
  ask("Host: 127.0.1.1\nCommand: TAPE version\n");
  EXPECT_EQ(result, 0);
}

TEST_F(FanOutRequest, TimeOutsAreToldFromUnreachableHosts) {
  fanout::limits.connectMs = 1500;
  agents.blackHole("127.0.1.1");
  agents.at("127.0.1.2", saysNothing);
  std::string said = ask("Limit: 1\nHost: 127.0.1.1\nHost: 127.0.1.2\nCommand: TAPE version\n");
  EXPECT_TRUE(has(about(said, "127.0.1.1"),
                  R"("result":"timeout","status":-1,"why":"no connection in time")"));
  EXPECT_TRUE(has(about(said, "127.0.1.2"),
                  R"("result":"timeout","status":-1,"why":"logged in, then no answer in time")"));
}

// Where look-ups have processes of their own, what they found arrives from there.
TEST_F(FanOutRequest, ASoundSiteSaysTheSameOfHostsThatAreNotThere) {
  soundSite();
  std::string said = ask("Host: no-such-host.invalid\nHost: localhost\nCommand: TAPE version\n");
  EXPECT_TRUE(has(about(said, "no-such-host.invalid"),
                  R"("result":"unreachable","status":-1,"why":"the name is not known")"));
  EXPECT_TRUE(has(about(said, "localhost"),
                  R"("result":"unreachable","status":-1,"why":"Connection refused")"));
}

TEST_F(FanOutRequest, ARefusedLoginIsRefused) {
  agents.at("127.0.1.1", saysNothing);
  hostPlay.loginResult = -1;
  EXPECT_TRUE(
      has(about(ask("Host: 127.0.1.1\nCommand: x\n"), "127.0.1.1"), R"("result":"refused")"));
}

TEST_F(FanOutRequest, AcceptedWorkIsDoneUnlessItsEndIsWanted) {
  agents.at("127.0.1.1", says("TRANSFER OK\nmore\nZuL_DoNe. 3\n"));
  EXPECT_TRUE(has(about(ask("Host: 127.0.1.1\nCommand: MREPL mrepclnt 1\n"), "127.0.1.1"),
                  R"("result":"ok","status":0)"));
  EXPECT_EQ(
      about(ask("ToTheEnd:\nHost: 127.0.1.1\nCommand: HOST tail x\n"), "127.0.1.1"),
      R"({"host":"127.0.1.1","result":"failed","status":3,"why":"","text":"TRANSFER OK\u000amore\u000a"})");
}

TEST_F(FanOutRequest, OfSeveralCommandsTheFirstFailureCounts) {
  agents.at("127.0.1.1", [](Peer &peer) {
    peer.line();
    peer.say("one\nZuL_DoNe. 4\n");
    peer.line();
    peer.say("two\nZuL_DoNe. 0\n");
  });
  EXPECT_EQ(
      about(ask("Host: 127.0.1.1\nCommand: a\nCommand: b\n"), "127.0.1.1"),
      R"({"host":"127.0.1.1","result":"failed","status":4,"why":"","text":"one\u000atwo\u000a"})");
}

TEST_F(FanOutRequest, LongTextsComeInSeveralLines) {
  std::string line(1000, 'x'), text;
  for (int number = 0; number < 40; number++) text += line + "\n";
  agents.at("127.0.1.1", says(text + "ZuL_DoNe. 0\n"));
  std::string said = ask("Host: 127.0.1.1\nCommand: a\n");
  EXPECT_TRUE(has(said, R"({"host":"127.0.1.1","text":"xxx)"));
  size_t lines = 0;
  for (size_t at = 0; (at = said.find(line + "\\u000a", at)) != std::string::npos; at++) lines++;
  EXPECT_EQ(lines, 40u);
}

TEST_F(FanOutRequest, WhatAHostSaysCannotBeTakenForAnAnswerOfThisOne) {
  agents.at("127.0.1.1", says("x\rZuL_DoNe. 0 no\n\x1b[2J\"}\xff\n{\"hosts\":1}\nZuL_DoNe. 0\n"));
  std::string said = ask("Host: 127.0.1.1\nCommand: a\n");
  EXPECT_EQ(about(said, "127.0.1.1"),
            R"({"host":"127.0.1.1","result":"ok","status":0,"why":"",)"
            R"("text":"x\u000dZuL_DoNe. 0 no\u000a\u001b[2J\"}\ufffd\u000a{\"hosts\":1}\u000a"})");
}

TEST_F(FanOutRequest, AnOrderThatMakesNoSenseIsRefused) {
  for (const char *order : {"", "Host: a\n", "Command: a\n", "Host: a\nCommand:\n",
                            "Host: a\nCommand: a\nLimit: x\n", "Host: a\nCommand: a\nNonsense\n"}) {
    EXPECT_TRUE(has(ask(order), "TRANSFER OK\nERROR:  ")) << order;
    EXPECT_EQ(result, 1);
  }
  EXPECT_TRUE(
      has(ask("Host: a\nCommand: a\n", ""), "ERROR:  The upload ended without its end mark\n"));
}

}  // namespace
