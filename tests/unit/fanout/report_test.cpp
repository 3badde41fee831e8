// What is kept and reported about a host: its response buffer, its line in the result file.
#include <string.h>
#include <sys/socket.h>

#include <filesystem>
#include <vector>

#include "agents.h"

using support::captureStderr;
using support::exitOf;
using support::inChild;

namespace {

constexpr const char *kHeading = "\n---------------  Job Result on Hosts  -------------------\n";

class Report : public fanout_test::FanOut {
 protected:
  hostEntry entry(const char *host) {
    hostEntry made = {};
    made.sd = -1;
    made.host = const_cast<char *>(host);
    return made;
  }
  // In a process of its own: the heading comes once a process.
  void log(int status) {
    EXPECT_EQ(exitOf(inChild([&] {
                hostEntry host = entry("h1");
                return logHostStatus(3, status, &host) == 0 ? 0 : 1;
              })),
              0);
  }
};

TEST_F(Report, EveryStatusHasItsLine) {
  const char *words[] = {
      "Ok", "Connection_Refused", "Bad_Pass", "Protocol_Error", "Command_Failed", "No_Response"};
  for (int status = 1; status <= 6; status++) {
    std::filesystem::remove(path("tmp/mrepl.jobresult.3"));
    log(status);
    std::string begin = std::string(kHeading) + "Host h1 " + words[status - 1] + ": ";
    EXPECT_EQ(results(3).substr(0, begin.size()), begin);
    EXPECT_EQ(results(3).size(), begin.size() + 25) << "the time, which ends the line";
    EXPECT_EQ(results(3).back(), '\n');
  }
}

TEST_F(Report, AnUnknownStatusWritesTheHeadingOnly) {
  for (int status : {0, 7, 9, -1}) {
    std::filesystem::remove(path("tmp/mrepl.jobresult.3"));
    log(status);
    EXPECT_EQ(results(3), kHeading);
  }
}

TEST_F(Report, AResultFileThatCannotBeOpenedSaysSo) {
  std::filesystem::create_directory(path("tmp/mrepl.jobresult.3"));
  hostEntry host = entry("h1");
  std::string said = captureStderr([&] { result = logHostStatus(3, 1, &host); });
  EXPECT_EQ(result, -1);
  EXPECT_EQ(said, "ERROR:  7071  Cannot open the file " + path("tmp/mrepl.jobresult.3") +
                      ".  Check permissions\n");
}

TEST_F(Report, TheResponseGrowsAndIsBounded) {
  std::vector<char> buffer(fanout::kBufferBytes);
  hostEntry host = entry("h1");
  EXPECT_EQ(saveResponse(&host, "nowhere to put it"), -1);
  host.buf = buffer.data();
  EXPECT_EQ(saveResponse(&host, "ab"), 0);
  EXPECT_EQ(saveResponse(&host, "cd\n"), 0);
  EXPECT_EQ(host.fill, 5);
  EXPECT_STREQ(host.buf, "abcd\n");
  EXPECT_EQ(saveResponse(&host, std::string(20000, 'x').c_str()), -1);
  EXPECT_EQ(host.fill, fanout::kBufferBytes - 1);
  EXPECT_EQ(host.buf[host.fill], '\0');
}

TEST_F(Report, AFinishedHostIsPrintedClosedAndHandsItsBufferOn) {
  std::vector<char> buffer(fanout::kBufferBytes);
  hostEntry hosts[5];
  for (hostEntry &host : hosts) host = entry("h");
  int pair[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
  hosts[3].buf = buffer.data();
  hosts[3].sd = pair[0];
  hosts[3].state = 1 | 2 | 4 | 8 | 16 | 32;
  saveResponse(&hosts[3], "its words\n");
  hosts[0].state = 1 | 2;         // under way
  hosts[1].state = 1 | 64 | 256;  // done
  hosts[4].state = 1 | 256;
  EXPECT_EQ(captureStderr([&] { result = hostFinished(5, 3, hosts); }), "its words\n");
  EXPECT_EQ(result, 0);
  EXPECT_EQ(hosts[3].state & (1u | 256u), 1u | 256u);
  EXPECT_EQ(hosts[3].sd, -1);
  char byte;
  EXPECT_EQ(read(pair[1], &byte, 1), 0) << "closed";
  close(pair[1]);
  // Searched from the finished host on, then from the start.
  EXPECT_EQ(hosts[2].buf, buffer.data());
  EXPECT_EQ(hosts[2].fill, 0);
  EXPECT_EQ(buffer, std::vector<char>(fanout::kBufferBytes));
  EXPECT_EQ(hosts[3].buf, nullptr);
}

TEST_F(Report, WithNobodyWaitingTheBufferIsKeptByNobody) {
  std::vector<char> buffer(fanout::kBufferBytes);
  hostEntry host = entry("h");
  host.buf = buffer.data();
  EXPECT_EQ(captureStderr([&] { hostFinished(1, 0, &host); }), "");
  EXPECT_EQ(host.buf, nullptr);
}

}  // namespace
