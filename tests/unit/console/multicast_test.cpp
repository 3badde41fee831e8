// Multicast runs on the operator's side: names, records, repairs, checks.
#include <gtest/gtest.h>

#include "console/failure.h"
#include "console/multicastcheck.h"
#include "console/multicastjob.h"
#include "console/multicastrecords.h"
#include "console/multicastrepair.h"

using namespace console;
using State = Verdict::State;
using Texts = std::vector<std::string>;

namespace {

bool has(const std::string &text, const std::string &part) {
  return text.find(part) != text.npos;
}

// --- jobs and names ---

MulticastJob job(const std::string &more = "") {
  return parseMulticastJob("Host: h2\nHost: h3\nRequest: /srv/www/\nRequest: /etc/hosts\n" + more);
}

TEST(MulticastJob, IsReadAsAgentsReadIt) {
  MulticastJob read =
      job("# a comment\n Prefix: /no\nPrefix: \t/in\nExclude: /srv/www/x\nXform: /a   /b c\nXform: "
          "/lone\n"
          "UserID: 33\nGroupID: 34\nFilePerms: 420\nDirPerms: 28672\r\nHost:\nDescription: text\n");
  EXPECT_EQ(read.prefix, "/in");
  EXPECT_EQ(read.hosts, (Texts{"h2", "h3"}));
  EXPECT_EQ(read.requests, (Texts{"/srv/www/", "/etc/hosts"}));
  EXPECT_EQ(read.excludes, Texts{"/srv/www/x"});
  ASSERT_EQ(read.transforms.size(), 1u);
  EXPECT_EQ(read.transforms[0], (std::pair<std::string, std::string>("/a", "/b c")));
  EXPECT_EQ(read.userId, 33);
  EXPECT_EQ(read.groupId, 34);
  EXPECT_EQ(read.filePerms, 420);
  EXPECT_EQ(read.dirPerms, 28672);
  EXPECT_EQ(read.description, "text");
}

TEST(MulticastJob, NamesAreTransformedThenPutUnderThePrefix) {
  EXPECT_EQ(nameOnReceivers(job(), "/srv/www/a"), "/srv/www/a");
  MulticastJob shaped = job("Prefix: /in/\nXform: /srv/www /w\nXform: /srv /s\n");
  EXPECT_EQ(nameOnReceivers(shaped, "/srv/www"), "/in/w");
  EXPECT_EQ(nameOnReceivers(shaped, "/srv/www/a"), "/in/w/a");
  EXPECT_EQ(nameOnReceivers(shaped, "/srv/wwwx"), "/in/s/wwwx")
      << "a prefix ends where a component does";
  EXPECT_EQ(nameOnReceivers(shaped, "/etc/hosts"), "/in/etc/hosts");
  EXPECT_EQ(nameOnReceivers(shaped, "/" + std::string(252, 'x')), "") << "no room";
}

TEST(MulticastJob, NamesLeadBackToTheOnePathTheyCanComeFrom) {
  MulticastJob shaped = job("Prefix: /in\nXform: /srv/www /w\n");
  EXPECT_EQ(pathOnSender(shaped, "/in//w/a/b"), "/srv/www/a/b");
  EXPECT_EQ(pathOnSender(shaped, "/in/w"), "/srv/www");
  EXPECT_EQ(pathOnSender(shaped, "/in/etc/hosts"), "/etc/hosts");
  EXPECT_EQ(pathOnSender(shaped, "/in/etc"), "/etc") << "a folder on the way";
  EXPECT_EQ(pathOnSender(shaped, "/in/srv"), "/srv");
  EXPECT_EQ(pathOnSender(shaped, "/in/srv/www/a"), std::nullopt) << "nothing keeps that name";
  EXPECT_EQ(pathOnSender(shaped, "/out/etc/hosts"), std::nullopt);
  EXPECT_EQ(pathOnSender(shaped, "/in"), std::nullopt);
  EXPECT_EQ(pathOnSender(shaped, "/in/etc/passwd"), std::nullopt) << "not asked for";
}

TEST(MulticastJob, ANameOfTwoPathsLeadsNowhere) {
  MulticastJob doubtful = job("Request: /w/\nXform: /srv/www /w\n");
  EXPECT_EQ(pathOnSender(doubtful, "/w/a"), std::nullopt);
}

TEST(MulticastJob, ExcludedIsAPathAndAllBelowIt) {
  MulticastJob excluding = job("Exclude: /srv/www/x/\n");
  EXPECT_TRUE(isExcluded(excluding, "/srv/www/x"));
  EXPECT_TRUE(isExcluded(excluding, "/srv/www/x/y"));
  EXPECT_FALSE(isExcluded(excluding, "/srv/www/xy"));
  EXPECT_TRUE(isExcluded(job("Exclude: /\n"), "/a"));
}

// --- what both sides say about a run ---

const char *kSent =
    R"({"kind":"multicast","state":"done","job":5,"run":7,"pid":9,"started":100,"ended":102,"files":4,)"
    R"("bytes":4096,"digest":"00000000000000aa","packed":true,"unsent":0,"unsentNames":[],"hosts":[)"
    R"({"host":"h2","state":"complete","segments":9},{"host":"h3","state":"incomplete","segments":3},)"
    R"({"host":"h4","state":"never joined","segments":0},{"host":"","state":"complete","segments":9},)"
    R"({"host":"h2","state":"never joined","segments":0}]})";

std::string received(const std::string &state, int run = 7, const std::string &more = "") {
  return R"({"kind":"multicast","state":")" + state + R"(","run":)" + std::to_string(run) +
         R"(,"started":100,"ended":101,"files":4,"bytes":4096,"digest":"00000000000000aa","reachedEnd":true)" +
         (more.empty() ? R"(,"failed":0,"failures":[]})" : "," + more + "}");
}

HostAnswer gave(const std::string &record) {
  return {"ok", "", "DATA " + std::to_string(record.size()) + "\n" + record};
}

class Judging : public testing::Test {
 protected:
  SentRecord sent = *parseSent(kSent);
  Verdict of(const std::string &host, const HostAnswer &answer) {
    for (const SentRecord::Host &each : sent.hosts)
      if (each.host == host) return judge(sent, each, answer);
    ADD_FAILURE() << host;
    return {};
  }
};

TEST_F(Judging, TheSendersRecordNamesEachHostOnce) {
  ASSERT_EQ(sent.hosts.size(), 3u);
  EXPECT_EQ(sent.hosts[0].state, "complete");
  EXPECT_EQ(sent.job, 5);
  EXPECT_TRUE(sent.packed);
}

TEST_F(Judging, EqualDigestsAreComplete) {
  Verdict verdict = of("h2", gave(received("complete")));
  EXPECT_EQ(verdict.state, State::complete);
  EXPECT_EQ(verdict.reason, "");
  EXPECT_EQ(verdict.files, 4u);
  EXPECT_EQ(verdict.seconds, 1);
}

TEST_F(Judging, OtherDigestsAreNot) {
  sent.digest = "00000000000000ab";
  Verdict verdict = of("h2", gave(received("complete")));
  EXPECT_EQ(verdict.state, State::incomplete);
  EXPECT_TRUE(has(verdict.reason, "digests differ"));
  EXPECT_FALSE(verdict.missingKnown) << "all of it must be sent again";
  sent.digest = "00000000000000aa";
  sent.files = 5;
  EXPECT_EQ(of("h2", gave(received("complete"))).state, State::incomplete);
}

TEST_F(Judging, WithoutADigestTheRemarkSaysSo) {
  sent.digest = "";
  Verdict verdict = of("h2", gave(received("complete")));
  EXPECT_EQ(verdict.state, State::complete);
  EXPECT_TRUE(has(verdict.reason, "not compared"));
}

TEST_F(Judging, FailuresAreNamed) {
  std::string failures = R"("failed":1,"failures":[
{"name":"/in/a","code":-5,"error":"No space left on device"}])";
  Verdict verdict = of("h2", gave(received("incomplete", 7, failures)));
  EXPECT_EQ(verdict.state, State::incomplete);
  ASSERT_EQ(verdict.missing.size(), 1u);
  EXPECT_EQ(verdict.missing[0].name, "/in/a");
  EXPECT_TRUE(verdict.missingKnown);
  EXPECT_EQ(verdict.reason, "No space left on device");
  std::string more = R"("failed":3,"failures":[{"name":"/in/a","code":-5,"error":"x"}])";
  EXPECT_FALSE(of("h2", gave(received("incomplete", 7, more))).missingKnown) << "two have no name";
  std::string early = R"("failed":0,"failures":[],"reachedEnd":false)";
  verdict = of("h2", gave(received("incomplete", 7, early)));
  EXPECT_FALSE(verdict.missingKnown);
  EXPECT_TRUE(has(verdict.reason, "before the end"));
}

TEST_F(Judging, AReceiverThatWasKilledIsIncomplete) {
  Verdict verdict = of("h3", gave(received("running")));
  EXPECT_EQ(verdict.state, State::incomplete);
  EXPECT_TRUE(has(verdict.reason, "killed"));
  EXPECT_FALSE(verdict.undecided);
  EXPECT_TRUE(of("h2", gave(received("running"))).undecided) << "the sender has heard its end";
}

TEST_F(Judging, ARecordOfAnotherRunSaysNothing) {
  EXPECT_EQ(of("h4", gave(received("complete", 6))).state, State::neverJoined);
  EXPECT_EQ(of("h3", gave(received("complete", 6))).state, State::incomplete);
  EXPECT_EQ(of("h4", {"failed", "", "ERROR:  Cannot open x\n"}).state, State::neverJoined);
  EXPECT_TRUE(has(of("h4", {"failed", "", "ERROR:  Cannot open x\n"}).reason, "Cannot open x"));
}

TEST_F(Judging, AnAgentThatDoesNotAnswerIsUnreachableWhateverTheSenderKnows) {
  for (const char *result : {"unreachable", "timeout", "refused", "lost", ""})
    EXPECT_EQ(of("h2", {result, "no", ""}).state, State::unreachable) << result;
  EXPECT_TRUE(has(of("h2", {"timeout", "no", ""}).reason, "had reported all"));
  EXPECT_TRUE(has(of("h4", {"timeout", "no", ""}).reason, "never joined"));
  EXPECT_TRUE(has(of("h3", {"timeout", "no", ""}).reason, "not reported all"));
}

TEST_F(Judging, RecordsMayHoldAnything) {
  for (const char *text :
       {"", "{", "[]", "{}", "7", R"({"kind":"backup"})", R"({"kind":7})", "DATA x", "\xff"}) {
    EXPECT_FALSE(parseReceived(text)) << text;
    EXPECT_FALSE(parseSent(text)) << text;
    EXPECT_NE(of("h2", gave(text)).state, State::complete) << text;
  }
  const char *odd =
      R"({"kind":"multicast","state":7,"run":"x","files":-3,"failures":{"a":1},"hosts":[1,"x",{}]})";
  EXPECT_EQ(parseReceived(odd)->files, 0u);
  EXPECT_TRUE(parseSent(odd)->hosts.empty());
}

TEST_F(Judging, AllIsWellOnlyWhenAllWasSentAndAllHaveIt) {
  std::vector<Verdict> both = {of("h2", gave(received("complete")))};
  EXPECT_TRUE(allWell(sent, both));
  EXPECT_FALSE(allWell(sent, {}));
  SentRecord other = sent;
  other.unsent = 1;
  EXPECT_FALSE(allWell(other, both));
  EXPECT_TRUE(has(tableText(other, both), "1 file could not be sent"));
  other = sent;
  other.packed = false;
  std::vector<Verdict> early = {judge(other, other.hosts[0], gave(received("complete")))};
  EXPECT_EQ(early[0].state, State::incomplete) << "the packer has died";
  EXPECT_FALSE(allWell(other, early));
  EXPECT_TRUE(has(tableText(other, early), "The sender did not send everything"));
  EXPECT_TRUE(allWell(other, both)) << "what was repaired does not need the run any more";
  both.push_back(of("h4", {"timeout", "silence", ""}));
  EXPECT_FALSE(allWell(sent, both));
  std::string text = tableText(sent, both);
  EXPECT_TRUE(has(text, "2 hosts: 1 complete, 1 unreachable\n")) << text;
  EXPECT_EQ(tableJson(sent, both)["hosts"][1]["state"], "unreachable");
}

TEST_F(Judging, WhatWasRepairedIsRememberedForItsRun) {
  RepairedRecord record{5, 7, 100, {{"h3", ""}, {"h4", "1 file no longer there"}}};
  std::optional<RepairedRecord> read = parseRepaired(repairedText(record));
  ASSERT_TRUE(read);
  EXPECT_EQ(read->hosts, record.hosts);
  EXPECT_TRUE(read->belongsTo(sent));
  SentRecord later = sent;
  later.started = 101;
  EXPECT_FALSE(read->belongsTo(later));
}

// --- repairs ---

Verdict lacking(const std::string &host, const Texts &names, bool known = true) {
  Verdict verdict;
  verdict.host = host;
  for (const std::string &name : names) verdict.missing.push_back({name, "x"});
  verdict.missingCount = names.size();
  verdict.missingKnown = known;
  return verdict;
}

TEST(Repair, HostsThatLackTheSameShareAnOrder) {
  Verdict done;
  done.state = State::complete;
  std::vector<RepairOrder> orders =
      planRepair(job(), {lacking("h1", {"/srv/www/a"}), done, lacking("h2", {}, false),
                         lacking("h3", {"/srv/www/a"}), lacking("h4", {"/srv/www/b"})});
  ASSERT_EQ(orders.size(), 3u);
  EXPECT_EQ(orders[0].hosts, (std::vector<size_t>{0, 3}));
  EXPECT_EQ(orders[0].paths, Texts{"/srv/www/a"});
  EXPECT_TRUE(orders[1].whole);
  EXPECT_EQ(orders[2].paths, Texts{"/srv/www/b"});
}

TEST(Repair, ANameThatLeadsNowhereMeansAllOfIt) {
  for (const char *name : {"/elsewhere", "/srv/www/a\nb", "/srv/www/\xef\xbf\xbd"})
    EXPECT_TRUE(planRepair(job(), {lacking("h1", {"/srv/www/a", name})})[0].whole) << name;
}

TEST(Repair, OwnerAndPermissionsAreThoseOfTheJob) {
  Texts remarks;
  std::vector<RepairPass> passes = passesOf(job("FilePerms: 61440\nDirPerms: 28672\n"), &remarks);
  ASSERT_EQ(passes.size(), 1u);
  EXPECT_TRUE(passes[0].job.keepsMode() && passes[0].job.keepsOwner() &&
              passes[0].job.keepsGroup());
  EXPECT_TRUE(passes[0].job.keepsSetuid());
  EXPECT_EQ(passes[0].job.conflict, 4);
  EXPECT_EQ(passes[0].job.destination, "/");
  EXPECT_TRUE(remarks.empty());
  passes = passesOf(job("FilePerms: 416\nDirPerms: 488\nUserID: 33\nGroupID: 34\nPrefix: /in/\n"),
                    &remarks);
  ASSERT_EQ(passes.size(), 1u);
  EXPECT_EQ(passes[0].job.filePolicy, 0640);
  EXPECT_EQ(passes[0].job.directoryPolicy, 0750);
  EXPECT_EQ(passes[0].job.owner, 33);
  EXPECT_EQ(passes[0].job.destination, "/in");
  EXPECT_EQ(remarks, Texts{"links keep owner and group over TCP"});
}

TEST(Repair, FilesAndFoldersGoApartWhereTheyAreTreatedDifferently) {
  Texts remarks;
  std::vector<RepairPass> passes = passesOf(job("FilePerms: 28672\nDirPerms: 488\n"), &remarks);
  ASSERT_EQ(passes.size(), 2u);
  EXPECT_TRUE(passes[0].files && !passes[0].folders && passes[0].job.keepsMode());
  EXPECT_TRUE(passes[1].folders && !passes[1].files && !passes[1].job.keepsMode());
}

TEST(Repair, WhatCannotBeTheSameIsSaid) {
  Texts remarks;
  passesOf(job("FilePerms: 2541\nDirPerms: 1517\n"), &remarks);
  EXPECT_TRUE(has(remarks[0], "set-id and sticky"));
  EXPECT_EQ(namesProblem(job("Prefix: /in\nXform: /a /b\n")), "");
  for (const char *line :
       {"Prefix: /a b\n", "Prefix: in\n", "Xform: /a /b c\n", "Xform: /a>x /b\n"})
    EXPECT_NE(namesProblem(job(line)), "") << line;
}

PreviewEntry entry(const std::string &type, const std::string &source,
                   const std::string &target = "") {
  return {type, "644", "0", "0", "10", "0", source, target.empty() ? source : target};
}

TEST(Repair, AListHasWhatIsMissingOrAllButWhatIsExcluded) {
  MulticastJob excluding = job("Exclude: /srv/www/keys\n");
  Preview preview;
  preview.entries = {entry("d", "/srv"),       entry("d", "/srv/www/"),
                     entry("f", "/srv/www/a"), entry("f", "/srv/www/keys/k"),
                     entry("f", "/srv/www/a"), entry("-", "/srv/www/pipe")};
  RepairPass pass;
  RepairOrder whole;
  whole.whole = true;
  RepairList list = listOf(excluding, whole, pass, preview);
  EXPECT_EQ(list.text, "/srv\n/srv/www\n/srv/www/a\n");
  EXPECT_EQ(list.bytes, 10u);
  EXPECT_EQ(list.problem, "");
  RepairOrder some;
  some.paths = {"/srv/www/a", "/srv/www/gone"};
  list = listOf(excluding, some, pass, preview);
  EXPECT_EQ(list.text, "/srv/www/a\n");
  EXPECT_EQ(list.gone, 1u);
  pass.files = false;
  EXPECT_EQ(listOf(excluding, some, pass, preview).text, "/srv\n/srv/www\n")
      << "folders on the way";
}

TEST(Repair, OtherNamesAndDevicesAreNotSent) {
  RepairOrder whole;
  whole.whole = true;
  Preview preview;
  preview.entries = {entry("f", "/srv/www/a", "/srv/other")};
  EXPECT_TRUE(has(listOf(job(), whole, {}, preview).problem, "another name: /srv/www/a"));
  preview.entries = {entry("c", "/srv/www/null")};
  EXPECT_TRUE(has(listOf(job(), whole, {}, preview).problem, "devices"));
}

TEST(Repair, IsDoneWhenTheHostSaysSoTwice) {
  RepResult result;
  result.host = "h2";
  result.state = "done";
  EXPECT_EQ(outcomeOf(result), "");
  result.failed = 2;
  EXPECT_EQ(outcomeOf(result), "2 files could not be made");
  result.failed = 0;
  result.state = "failed";
  EXPECT_EQ(outcomeOf(result), "the replication failed");
  result.reason = "no room";
  EXPECT_EQ(lookedAgain(result, 3), "when looked at again: no room");
  result.state = "done";
  result.kept = 2;
  EXPECT_EQ(lookedAgain(result, 3), "when looked at again: only 2 of 3 are there");
  result.files = 1;
  EXPECT_EQ(lookedAgain(result, 3), "") << "one had changed meanwhile";
  result.files = 0;
  result.kept = 7;
  EXPECT_EQ(lookedAgain(result, 3), "") << "folders on the way count too";
}

// --- the doctor ---

const char *kSender =
    R"({"interface":"eth0","address":"10.0.0.1","problem":"","busy":false,"version":"0.34",)"
    R"("sound":["multicast","receive"]})";

std::string listener(const std::string &changes = "") {
  nlohmann::json said = nlohmann::json::parse(
      R"({"interface":"eth1","problem":"","heard":true,"from":"10.0.0.1","clockMs":3,"sender":"",)"
      R"("folder":"/in","free":1000,"version":"0.34","sound":["multicast","receive"]})");
  if (!changes.empty()) said.update(nlohmann::json::parse(changes));
  return said.dump() + "\n";
}

std::string problemOf(const HostAnswer &answer, const std::string &name) {
  SenderFacts sender = parseSenderFacts(kSender);
  sender.bytes = 1000;
  Examination examination = examine(sender, "h2", answer);
  EXPECT_EQ(examination.checks.size(), 7u);
  for (const Check &check : examination.checks) {
    if (check.name != name) continue;
    EXPECT_EQ(check.advice.empty(), check.problem.empty()) << check.problem;
    return check.problem;
  }
  return "?";
}

std::string problemWith(const std::string &changes, const std::string &name) {
  return problemOf({"ok", "", listener(changes)}, name);
}

TEST(Doctor, AHealthyHostIsHealthy) {
  SenderFacts sender = parseSenderFacts(kSender);
  EXPECT_TRUE(examineSender(sender).well());
  EXPECT_TRUE(examine(sender, "h2", {"ok", "", listener()}).well());
}

TEST(Doctor, EveryTroubleIsFoundAndHasAnAdvice) {
  EXPECT_TRUE(has(problemWith(R"({"problem":"the interface is down"})", "interface"),
                  "eth1: the interface is down"));
  EXPECT_TRUE(has(problemWith(R"({"heard":false})", "multicast"), "does not arrive on eth1"));
  EXPECT_TRUE(
      has(problemWith(R"({"sender":"10.0.0.9"})", "multicast"), "listens to 10.0.0.9 only"));
  EXPECT_EQ(problemWith(R"({"sender":"10.0.0.1"})", "multicast"), "");
  EXPECT_EQ(problemWith(R"({"clockMs":-3600000})", "clock"), "1:00:00 behind");
  EXPECT_EQ(problemWith(R"({"clockMs":6000})", "clock"), "0:00:06 ahead");
  EXPECT_EQ(problemWith(R"({"free":999})", "space"), "999 B free in /in, the job has 1000 B");
  EXPECT_EQ(problemWith(R"({"sound":["multicast","pace"]})", "behaviour"),
            "receive is classic there, pace is sound there only");
  EXPECT_EQ(problemWith(R"({"version":"0.35"})", "version"), "0.35, the sender has 0.34");
}

TEST(Doctor, AgentsThatCannotBeAskedAreToldApart) {
  EXPECT_EQ(problemOf({"unreachable", "Connection refused", ""}, "agent"),
            "unreachable: Connection refused");
  EXPECT_EQ(problemOf({"timeout", "", ""}, "agent"), "timeout");
  EXPECT_EQ(problemOf({"refused", "", ""}, "agent"), "it refuses the login");
  EXPECT_EQ(problemOf({"failed", "", "ERROR:  Not permitted\n"}, "agent"), "ERROR:  Not permitted");
  EXPECT_EQ(problemOf({"ok", "", "nonsense"}, "agent"), "its answer cannot be read");
  Examination down = examine(parseSenderFacts(kSender), "h2", {"timeout", "", ""});
  EXPECT_FALSE(down.well());
  EXPECT_FALSE(down.checks[2].known) << "nobody knows whether it would hear";
}

TEST(Doctor, TheSenderIsCheckedToo) {
  SenderFacts sender =
      parseSenderFacts(R"({"problem":"Network is unreachable","sound":["multicast"]})");
  EXPECT_FALSE(examineSender(sender).well());
  Examination host = examine(sender, "h2", {"ok", "", listener(R"({"heard":false})")});
  EXPECT_EQ(host.checks[2].problem, "") << "the host cannot help it";
  EXPECT_FALSE(examineSender(parseSenderFacts("ERROR:  8601 Unknown command.")).well());
  sender = parseSenderFacts(kSender);
  sender.busy = true;
  EXPECT_FALSE(examineSender(sender).well());
  sender = parseSenderFacts(R"({"interface":"eth0","sound":[]})");
  EXPECT_FALSE(examineSender(sender).well());
}

TEST(Doctor, ShowsATableAndItsAdvices) {
  SenderFacts sender = parseSenderFacts(kSender);
  std::vector<Examination> all = {examineSender(sender),
                                  examine(sender, "h2", {"ok", "", listener()}),
                                  examine(sender, "h3", {"timeout", "", ""})};
  std::string text = examinationText(all);
  EXPECT_TRUE(
      has(text, "HOST      agent  interface  multicast  clock  space  behaviour  version\n"))
      << text;
  EXPECT_TRUE(has(text, "h3        BAD    -          -")) << text;
  EXPECT_TRUE(has(text, "h3: agent: timeout\n     Start it there")) << text;
  nlohmann::ordered_json json = examinationJson(all);
  EXPECT_EQ(json[1]["ok"], true);
  EXPECT_EQ(json[2]["checks"]["clock"]["known"], false);
}

}  // namespace
