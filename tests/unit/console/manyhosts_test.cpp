// Lists of hosts as operators write them, and job files with mistakes in them.
#include "console/manyhosts.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "console/hostlist.h"

using namespace console;
using Names = std::vector<std::string>;

namespace {

Names expand(const std::string &text, const std::string &groups = "") {
  return expandHosts(text, [&] { return groups; });
}

TEST(HostLists, AreNamesAndRanges) {
  EXPECT_EQ(expand("h1"), Names{"h1"});
  EXPECT_EQ(expand("b,a.example.org,10.0.0.1"), (Names{"b", "a.example.org", "10.0.0.1"}));
  EXPECT_EQ(expand("h[8-11]"), (Names{"h8", "h9", "h10", "h11"}));
  EXPECT_EQ(expand("h[08-10,20]x,y"), (Names{"h08x", "h09x", "h10x", "h20x", "y"}));
  EXPECT_EQ(expand("h[000-002]"), (Names{"h000", "h001", "h002"}));
  EXPECT_EQ(expand("h[0-1]"), (Names{"h0", "h1"}));
}

TEST(HostLists, HoldEveryHostOnce) {
  EXPECT_EQ(expand("b,a,h[1-2],a,h2,b"), (Names{"b", "a", "h1", "h2"}));
}

TEST(HostLists, TakeTapeGroupsByTheirNumber) {
  std::string groups = "# 3:no,group:x\n2:a,b:two\n3:c,d:three\n33:e:thirty\n";
  EXPECT_EQ(expand("x,@3,@2", groups), (Names{"x", "c", "d", "a", "b"}));
  EXPECT_THROW(expand("@4", groups), Failure);
  bool asked = false;
  expandHosts("h1", [&] {
    asked = true;
    return "";
  });
  EXPECT_FALSE(asked) << "only where one is wanted";
}

TEST(HostLists, WhatIsNoneIsRefused) {
  for (const char *text :
       {"",        ",",      "a,",  "a b",   "a\nb",    "h[1-2",          "h1-2]",
        "h[2-1]",  "h[a-b]", "h[]", "h[1-]", "h[-1]",   "h[1-100000]",    "h[[1-2]]",
        "h[1][2]", "@",      "@x",  "a;b",   "h[1-2]]", "h[1-9999999999]"})
    EXPECT_THROW(expand(text, "1:a:b\n"), Failure) << text;
}

TEST(MulticastJobs, TheExampleIsWithoutMistakes) {
  std::ifstream file(EXAMPLES "/multicast.job");
  std::stringstream text;
  text << file.rdbuf();
  EXPECT_GT(text.str().size(), 1000u);
  EXPECT_EQ(checkMulticastJob(text.str()), Names{});
}

TEST(MulticastJobs, EveryMistakeHasItsLine) {
  std::string good = "Request: /x\nHost: h\n";
  EXPECT_EQ(checkMulticastJob(good), Names{});
  EXPECT_EQ(checkMulticastJob(good + "\r\n#x\n\nSpeed:\nUserID: -1\nXform: /a \nProtocol: 3"),
            Names{});
  for (const char *line :
       {"Hosts: a", " Host: a", "host: a", "Host:", "Speed: x", "Speed: 1 2", "FilePerms: 0644",
        "Xform: /a", "Protocol: 4", "Protocol: -1", "Protocol: 12", "UserID: -"}) {
    Names problems = checkMulticastJob(good + line + std::string("\n"));
    ASSERT_EQ(problems.size(), 1u) << line;
    EXPECT_EQ(problems[0].substr(0, 8), "line 3: ") << line;
  }
  EXPECT_EQ(checkMulticastJob(good + "Description: " + std::string(2027, 'x')).size(), 1u);
  EXPECT_EQ(checkMulticastJob(good + "Description: " + std::string(2026, 'x')).size(), 0u);
  EXPECT_EQ(checkMulticastJob("").size(), 2u) << "nothing to send, and nobody to receive it";
}

}  // namespace
