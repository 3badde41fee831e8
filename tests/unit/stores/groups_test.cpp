// The tape groups: tape/hostgroups.cpp.
#include "storestest.h"

namespace {

constexpr const char *kTable = "var/tape/jobids/group";
constexpr const char *kBackup = "var/tape/jobids/group.BAK";

// The member cache lives as long as the process, so each test starts with a group that no test has.
void forgetMembers() {
  char host[64];
  (void)getGrpMember(-424242, 1, host);
}

class Groups : public Stores {
 protected:
  void SetUp() override {
    Stores::SetUp();
    forgetMembers();
  }
};
class EveryGroups : public BothStores {
 protected:
  void SetUp() override {
    BothStores::SetUp();
    forgetMembers();
  }
};
IN_BOTH_BEHAVIOURS(EveryGroups);

std::string hostList(int hosts) {
  std::string list;
  for (int host = 1; host <= hosts; host++)
    list += (host > 1 ? ",host" : "host") + std::to_string(host) + ".example";
  return list;
}

TEST_P(EveryGroups, TheFirstAddMakesTheTable) {
  run(addTapeGroup, "1:alpha,beta,gamma:web");
  EXPECT_EQ(result, 0);
  EXPECT_EQ(said, "Added group: web\n");
  EXPECT_EQ(content(kTable), "1:alpha,beta,gamma:web\n");
  EXPECT_EQ(content(kBackup), "");
  run(addTapeGroup, "2:delta:mail");
  EXPECT_EQ(content(kTable), "1:alpha,beta,gamma:web\n2:delta:mail\n");
  EXPECT_EQ(content(kBackup), "1:alpha,beta,gamma:web\n");
}

TEST_P(EveryGroups, AddAndModNeedExactlyThreeFields) {
  run(addTapeGroup, "1:alpha");
  EXPECT_EQ(result, -1);
  EXPECT_EQ(said, "ERROR:  8059  Insufficient arguments.\n");
  run(addTapeGroup, "1:alpha:web:more");
  EXPECT_EQ(said, "ERROR:  8059  Insufficient arguments.\n");
  EXPECT_FALSE(exists(kTable));
  run(modTapeGroup, "1", "1:alpha:web:more");
  EXPECT_EQ(result, -1);
  EXPECT_EQ(said, "ERROR:  8062  Insufficient arguments.\n");
}

TEST_F(Groups, AddSaysWhichStepFailed) {
  block(kBackup);
  run(addTapeGroup, "1:alpha:web");
  EXPECT_EQ(result, -1);
  EXPECT_EQ(said, "ERROR:  8060  Unable to make a work copy of " + path(kBackup) + ". \n");
  std::filesystem::remove(path(kBackup));
  forbidWriting(kTable, "2:beta:mail\n");
  runAsNobody(addTapeGroup, "1:alpha:web");
  EXPECT_EQ(result, -1);
  EXPECT_EQ(said, "ERROR:  8061  Cannot open the temp group file " + path(kTable) + ". \n");
}

TEST_P(EveryGroups, ListingCopiesTheTable) {
  put(kTable, "# groups\n1:alpha:web\n");
  run([] { return getTapeGroup(); });
  EXPECT_EQ(result, 0);
  EXPECT_EQ(said, "# groups\n1:alpha:web\n");
  std::string big = "1:" + hostList(500) + ":big\n";
  put(kTable, big);
  run([] { return getTapeGroup(); });
  EXPECT_EQ(said, big);
}

TEST_P(EveryGroups, AMissingTableIsSaidOnLogAndConsole) {
  clearLogs();
  run([] { return getTapeGroup(); });
  EXPECT_EQ(result, -1);
  EXPECT_EQ(said, "ERROR:  8058  Cannot read tape group \n");
  EXPECT_EQ(hostLog(), said);
  clearLogs();
  char hosts[4096];
  run([&] { return getGroupHosts(1, hosts); });
  EXPECT_EQ(said, "ERROR:  8069  Cannot read tape group \n");
  EXPECT_EQ(hostLog(), said);
  clearLogs();
  int groups[32];
  run([&] { return getHostGrps("alpha", groups); });
  EXPECT_EQ(result, -1);
  EXPECT_EQ(said, "ERROR:  8072  Cannot read tape group \n");
  EXPECT_EQ(hostLog(), said);
}

TEST_P(EveryGroups, ModReplacesEveryMatchAndKeepsTheRest) {
  put(kTable, "# kept\n1:alpha:web\n\n2:beta:mail\n1:gamma:again\n");
  run(modTapeGroup, "1", "3:delta,epsilon:new");
  EXPECT_EQ(result, 0);
  EXPECT_EQ(said, "Modifing group: new\n");
  EXPECT_EQ(content(kTable), "# kept\n3:delta,epsilon:new\n\n2:beta:mail\n3:delta,epsilon:new\n");
  EXPECT_EQ(content(kBackup), "# kept\n1:alpha:web\n\n2:beta:mail\n1:gamma:again\n");
}

TEST_P(EveryGroups, DelDropsEveryMatch) {
  put(kTable, "1:alpha:web\n2:beta:mail\n1:gamma:again\n");
  run(delTapeGroup, "1");
  EXPECT_EQ(result, 0);
  EXPECT_EQ(said, "Modifing group: Deleteme\n");
  EXPECT_EQ(content(kTable), "2:beta:mail\n");
}

TEST_P(EveryGroups, ModOfAnUnknownGroupIsSaid) {
  put(kTable, "2:beta:mail\n");
  run(modTapeGroup, "1", "1:alpha:web");
  EXPECT_EQ(result, -1);
  EXPECT_EQ(said, "ERROR:  8068  The group entry to modify was not found!\n");
  EXPECT_EQ(content(kTable), "2:beta:mail\n");
}

TEST_F(Groups, ModSaysWhichStepFailed) {
  run(modTapeGroup, "1", "1:alpha:web");
  EXPECT_EQ(said, "ERROR:  8063  Unable to make a work copy of " + path(kBackup) + ". \n");
  forbidWriting(kTable, "2:beta:mail\n");
  runAsNobody(modTapeGroup, "2", "1:alpha:web");
  EXPECT_EQ(said, "ERROR:  8065  Cannot open the file " + path(kTable) + ".  Check permissions\n");
  forbidReading(kBackup);
  runAsNobody(modTapeGroup, "2", "1:alpha:web");
  EXPECT_EQ(result, -1);
  EXPECT_EQ(said, "ERROR:  8064  Cannot open the file " + path(kBackup) + ".  Check permissions\n");
  EXPECT_EQ(content(kTable), "2:beta:mail\n");
}

TEST_P(EveryGroups, ModStopsAtAMalformedLine) {
  std::string table = "1:alpha:web\n2:beta\n3:gamma:db\n";
  put(kTable, table);
  run(modTapeGroup, "3", "3:delta:db");
  EXPECT_EQ(result, -1);
  EXPECT_EQ(said, "ERROR:  8067  Format error in tape group file.\n");
  EXPECT_EQ(content(kTable), isSound() ? table : "1:alpha:web\n") << "classic leaves a cut table";
  EXPECT_EQ(content(kBackup), table);
}

TEST_F(Groups, ClassicGroupLineBeyondTheBufferCannotBeModified) {
  put(kTable, "1:" + hostList(103) + ":big\n2:beta:mail\n");
  run(modTapeGroup, "2", "2:gamma:mail");
  EXPECT_EQ(said, "ERROR:  8067  Format error in tape group file.\n");
}

TEST_F(Groups, SoundGroupOf103MembersIsOneLine) {
  soundSite();
  std::string big = "1:" + hostList(103) + ":big\n";
  put(kTable, big + "2:beta:mail\n");
  run(modTapeGroup, "2", "2:gamma:mail");
  EXPECT_EQ(result, 0);
  EXPECT_EQ(content(kTable), big + "2:gamma:mail\n");
}

TEST_F(Groups, SoundNumbersAreDecimal) {
  soundSite();
  run(addTapeGroup, "web:alpha:web");
  EXPECT_EQ(result, -1);
  EXPECT_EQ(said, "ERROR:  web is not a decimal number\n");
  put(kTable, "1:alpha:web\n");
  run(modTapeGroup, "1", "one:alpha:web");
  EXPECT_EQ(said, "ERROR:  one is not a decimal number\n");
  run(delTapeGroup, "1x");
  EXPECT_EQ(said, "ERROR:  1x is not a decimal number\n");
  EXPECT_EQ(content(kTable), "1:alpha:web\n");
}

TEST_P(EveryGroups, MembersAreAnsweredOneByOne) {
  put(kTable, "# 1:no,comment:x\n\n2:delta:mail\n1:alpha,beta,gamma:web\n1:later:x\n");
  char host[64] = "untouched";
  EXPECT_EQ(getGrpMember(1, 0, host), -3);
  EXPECT_EQ(getGrpMember(1, 4, host), -3);
  EXPECT_EQ(getGrpMember(1, -1, host), -3);
  EXPECT_STREQ(host, "untouched");
  EXPECT_EQ(getGrpMember(1, 1, host), 3);
  EXPECT_STREQ(host, "alpha");
  EXPECT_EQ(getGrpMember(1, 2, host), 3);
  EXPECT_STREQ(host, "beta");
  EXPECT_EQ(getGrpMember(1, 3, host), 3);
  EXPECT_STREQ(host, "gamma");
  EXPECT_EQ(getGrpMember(2, 1, host), 1);
  EXPECT_STREQ(host, "delta");
}

TEST_P(EveryGroups, MemberFailuresAreToldByNumberAndSilent) {
  char host[64];
  run([&] { return getGrpMember(1, 1, host); });
  EXPECT_EQ(result, -1) << "no table";
  put(kTable, "1:alpha\n");
  run([&] { return getGrpMember(1, 1, host); });
  EXPECT_EQ(result, -5) << "no third field";
  EXPECT_EQ(getGrpMember(1, 1, host), -5) << "and no cached half of it";
  run([&] { return getGrpMember(7, 1, host); });
  EXPECT_EQ(result, -3) << "no such group";
  EXPECT_EQ(said, "");
}

TEST_P(EveryGroups, AChangedTableChangesNothingForWhoKeepsAsking) {
  put(kTable, "1:alpha,beta:web\n2:delta:mail\n");
  char host[64];
  EXPECT_EQ(getGrpMember(1, 2, host), 2);
  put(kTable, "1:other:web\n2:delta,epsilon:mail\n");
  EXPECT_EQ(getGrpMember(1, 2, host), 2);
  EXPECT_STREQ(host, "beta");
  EXPECT_EQ(getGrpMember(2, 2, host), 2);
  EXPECT_STREQ(host, "epsilon");
  EXPECT_EQ(getGrpMember(1, 1, host), 1);
  EXPECT_STREQ(host, "other");
}

TEST_F(Groups, ClassicNamesAreCutAfter31Characters) {
  std::string name(40, 'n');
  put(kTable, "1:" + name + ":web\n");
  char host[64];
  EXPECT_EQ(getGrpMember(1, 1, host), 1);
  EXPECT_EQ(std::string(host), std::string(31, 'n'));
}

TEST_F(Groups, SoundNamesHave63Characters) {
  soundSite();
  put(kTable, "1:" + std::string(40, 'n') + "," + std::string(80, 'm') + ":web\n");
  char host[64];
  EXPECT_EQ(getGrpMember(1, 1, host), 2);
  EXPECT_EQ(std::string(host), std::string(40, 'n'));
  EXPECT_EQ(getGrpMember(1, 2, host), 2);
  EXPECT_EQ(std::string(host), std::string(63, 'm'));
}

TEST_P(EveryGroups, AGroupMayHaveMoreMembersThanAnyOtherTable) {
  put(kTable, "1:" + hostList(1030) + ":big\n");
  char host[64];
  EXPECT_EQ(getGrpMember(1, 1030, host), 1030);
  EXPECT_STREQ(host, "host1030.example");
}

TEST_P(EveryGroups, EmptyFieldsAndOddLinesDoNoHarm) {
  put(kTable,
      std::string("\n:\nweb\n\t\0\n5::none\n", 18) + std::string(100000, 'x') + "\n6:a,,b:two");
  char host[64];
  EXPECT_EQ(getGrpMember(5, 1, host), 1);
  EXPECT_STREQ(host, "");
  EXPECT_EQ(getGrpMember(6, 3, host), 3);
  EXPECT_STREQ(host, "b");
}

TEST_P(EveryGroups, HostsAreGivenAsText) {
  put(kTable, "# c\n\n2:delta:mail\n1:alpha,beta,gamma:web\n");
  char hosts[4096];
  run([&] { return getGroupHosts(1, hosts); });
  EXPECT_EQ(result, 0);
  EXPECT_STREQ(hosts, "alpha,beta,gamma");
  run([&] { return getGroupHosts(9, hosts); });
  EXPECT_EQ(result, -1);
  EXPECT_EQ(said, "ERROR:  8072  The group entry was not found!\n");
  put(kTable, "2:delta:mail\n1:alpha\n");
  run([&] { return getGroupHosts(1, hosts); });
  EXPECT_EQ(result, -1);
  EXPECT_EQ(said, "ERROR:  8071  Format error in tape group file.\n");
}

TEST_F(Groups, SoundHostsFillTheirFieldAndNoMore) {
  soundSite();
  put(kTable, "1:" + hostList(1000) + ":big\n");
  char hosts[4097];
  hosts[4096] = '!';
  EXPECT_EQ(getGroupHosts(1, hosts), 0);
  EXPECT_EQ(std::string(hosts, 4096), hostList(1000).substr(0, 4096));
  EXPECT_EQ(hosts[4096], '!');
}

TEST_P(EveryGroups, GroupsOfAHostAreFound) {
  put(kTable, "1:alpha,beta:web\n# 2:alpha:x\n3:alphabet:mail\n4:beta,alpha:db\n");
  int groups[32];
  run([&] { return getHostGrps("alpha", groups); });
  EXPECT_EQ(result, 2);
  EXPECT_EQ(groups[0], 1);
  EXPECT_EQ(groups[1], 4);
  run([&] { return getHostGrps("omega", groups); });
  EXPECT_EQ(result, 0);
}

TEST_P(EveryGroups, AHostIsReportedIn32Groups) {
  std::string table;
  for (int group = 1; group <= 40; group++) table += std::to_string(group) + ":alpha,alpha:web\n";
  put(kTable, table);
  int groups[33] = {};
  run([&] { return getHostGrps("alpha", groups); });
  EXPECT_EQ(result, 32);
  EXPECT_EQ(groups[31], 32);
  EXPECT_EQ(groups[32], 0);
}

TEST_P(EveryGroups, AMalformedLineEndsTheSearchForAHost) {
  put(kTable, "1:alpha:web\nbroken\n");
  clearLogs();
  int groups[32];
  run([&] { return getHostGrps("alpha", groups); });
  EXPECT_EQ(result, -1);
  EXPECT_EQ(said, "ERROR:  8074  Format error in tape group file.\n");
  EXPECT_EQ(hostLog(), said);
}

TEST_F(Groups, HostsAreMatchedOver32CharactersAndSoundOver63) {
  std::string common(40, 'n');
  put(kTable, "1:" + common + "x:web\n");
  int groups[32];
  EXPECT_EQ(getHostGrps((common + "y").c_str(), groups), 1);
  soundSite();
  EXPECT_EQ(getHostGrps((common + "y").c_str(), groups), 0);
  EXPECT_EQ(getHostGrps((common + "x").c_str(), groups), 1);
}

TEST_P(EveryGroups, TheSizeOfTheTableIsTold) {
  EXPECT_EQ(getGroupFileSize(), -1);
  put(kTable, "1:alpha:web\n");
  EXPECT_EQ(getGroupFileSize(), 12);
}

}  // namespace
