// Who may run what, and which nodes may log in from where.
#include "host/authorise.h"

#include <sys/stat.h>

#include "support.h"

namespace {

using host::Peer;

Peer node() {
  return {login::Kind::node, login::Role::none, "alpha", "10.0.0.1"};
}
Peer user(login::Role role) {
  return {login::Kind::user, role, "ann", "10.0.0.2"};
}

bool may(const Peer &peer, std::string_view line) {
  return host::mayRun(peer, host::cutRequest(line));
}

TEST(Authorise, NodesMayAskForTheWorkOfAgentsOnly) {
  for (const char *line : {"TAPE server 7 0", "TAPE resclnt / 4", "TAPE repclnt /x 4 0",
                           "TAPE rsync 7", "MREPL mrepclnt 1234567890", "TAPE  \t server 7 0",
                           "MREPL probe listen ab 3 /", "HOST get var/tape/mrepljobs/received.json",
                           "HOST  get  var/tape/mrepljobs/received.json "})
    EXPECT_TRUE(may(node(), line)) << line;
  for (const char *line : {"TAPE backup 7 0",
                           "TAPE get drives",
                           "TAPE",
                           "TAPE servers 7 0",
                           "TAPE Server 7 0",
                           "TAPE serverx",
                           "MREPL replicate 3",
                           "MREPL set jobid 3",
                           "HOST status",
                           "HOST kill 1",
                           "HOST",
                           "MREPL server 7 0",
                           "TAPE mrepclnt 1",
                           "tape server 7 0",
                           "",
                           "HOST get var/tape/mrepljobs/sent.json",
                           "HOST get",
                           "HOST tail var/tape/mrepljobs/received.json",
                           "HOST get var/tape/mrepljobs/received.json etc/ZULsite",
                           "MREPL fanout",
                           "MREPL measure 3",
                           "HOST get var/tape/mrepljobs/received.json.new"})
    EXPECT_FALSE(may(node(), line)) << line;
}

TEST(Authorise, OperatorsMayAskForEverything) {
  for (const char *line :
       {"TAPE backup 7 0", "MREPL set jobid 3", "HOST kill 1", "TAPE del tape 1 1"})
    EXPECT_TRUE(may(user(login::Role::operatorRole), line)) << line;
}

TEST(Authorise, ViewersMayLook) {
  Peer viewer = user(login::Role::viewer);
  for (const char *line : {"TAPE get drives", "TAPE version", "HOST status json", "HOST ps",
                           "HOST jobs json", "HOST tail var/x", "HOST get var/x"})
    EXPECT_TRUE(may(viewer, line)) << line;
  for (const char *line : {"TAPE add drive 1:x", "TAPE getx", "TAPE backup 7 0", "HOST kill 1",
                           "HOST put etc/x 1", "MREPL get jobids", "MREPL version", "HOST", "TAPE"})
    EXPECT_FALSE(may(viewer, line)) << line;
}

TEST(Authorise, AUserWithoutARoleMayDoNothing) {
  EXPECT_FALSE(may(user(login::Role::none), "TAPE version"));
  EXPECT_FALSE(may(user(login::Role::none), "TAPE server 7 0"));
}

class FanOutRights : public support::HomeTest {};

TEST_F(FanOutRights, NodesMayLookOnlyWhereTheSiteFileSaysSo) {
  for (const char *setting : {"", "fanout.nodes-may = \n", "fanout.nodes-may = all\n"}) {
    site(setting);
    EXPECT_FALSE(may(node(), "TAPE version")) << setting;
    EXPECT_FALSE(may(node(), "HOST status")) << setting;
  }
  site("fanout.nodes-may = look\n");
  EXPECT_TRUE(may(node(), "TAPE version"));
  EXPECT_TRUE(may(node(), "HOST status json"));
  EXPECT_TRUE(may(node(), "TAPE server 7 0"));
  for (const char *line : {"TAPE add drive 1:x", "HOST kill 1", "HOST put etc/x 1",
                           "MREPL set jobid 3", "MREPL fanout", "TAPE backup 7 0"})
    EXPECT_FALSE(may(node(), line)) << line;
}

TEST(RequestLines, AreCutAtTheFirstBlankAndKeepTheRest) {
  host::RequestLine request = host::cutRequest("TAPE  get x ");
  EXPECT_EQ(request.word, "TAPE");
  EXPECT_EQ(request.rest, " get x ");
  request = host::cutRequest("TAPE");
  EXPECT_EQ(request.word, "TAPE");
  EXPECT_EQ(request.rest, "");
  EXPECT_EQ(host::cutRequest(" TAPE").word, "");
}

TEST(RequestLines, BelongToFamilies) {
  EXPECT_EQ(host::familyOf("TAPE"), host::Family::tape);
  EXPECT_EQ(host::familyOf("MREPL"), host::Family::mrepl);
  EXPECT_EQ(host::familyOf("HOST"), host::Family::host);
  for (const char *word : {"tape", "TAPES", "TAP", "", "TAPE\t"})
    EXPECT_EQ(host::familyOf(word), host::Family::unknown) << word;
}

class NodeList : public support::HomeTest {
 protected:
  bool may(const char *name, uint32_t address) {
    why.clear();
    return host::nodeMayLogIn(path("etc/ZULnodes"), name, address, why);
  }
  std::string why;
};

constexpr uint32_t kTen1 = 0x0a000001, kTen2 = 0x0a000002;

TEST_F(NodeList, WithoutAFileEveryNodeMay) {
  EXPECT_TRUE(may("alpha", kTen1));
}

TEST_F(NodeList, ListedNodesMayFromTheirAddresses) {
  support::writeFile(path("etc/ZULnodes"),
                     "# site\nalpha 10.0.0.1,10.0.0.7\nbeta 10.0.0.2 # the tape host\n");
  EXPECT_TRUE(may("alpha", kTen1));
  EXPECT_FALSE(may("alpha", kTen2));
  EXPECT_NE(why.find("ZULnodes"), std::string::npos);
  EXPECT_TRUE(may("beta", kTen2));
  EXPECT_FALSE(may("gamma", kTen1));
}

TEST_F(NodeList, NetworksAnyAndTheStarStandForMore) {
  support::writeFile(path("etc/ZULnodes"), "alpha any\n* 10.0.0.2/31\n");
  EXPECT_TRUE(may("alpha", 0x7f000001));
  EXPECT_TRUE(may("whoever", kTen2));
  EXPECT_TRUE(may("whoever", 0x0a000003));
  EXPECT_FALSE(may("whoever", kTen1));
  support::writeFile(path("etc/ZULnodes"), "* 0.0.0.0/0\n");
  EXPECT_TRUE(may("whoever", kTen1));
}

TEST_F(NodeList, NonsenseAdmitsNobody) {
  support::writeFile(path("etc/ZULnodes"),
                     "alpha\nbeta 10.0.0.1/33 10.0.0.1/x 10.0.0 anyone 10.0.0.1/\n");
  EXPECT_FALSE(may("alpha", kTen1));
  EXPECT_FALSE(may("beta", kTen1));
}

TEST_F(NodeList, AFileThatOthersMayWriteAdmitsNobody) {
  support::writeFile(path("etc/ZULnodes"), "alpha any\n");
  chmod(path("etc/ZULnodes").c_str(), 0666);
  EXPECT_FALSE(may("alpha", kTen1));
}

}  // namespace
