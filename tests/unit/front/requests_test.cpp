// Configuration requests: which word reaches which store, and what is said when none does.
#include <string.h>
#include <sys/stat.h>
#include <zul/module.h>
#include <zul/tape.h>

#include "fronttest.h"

using support::captureStderr;
using support::exists;
using support::readFile;

namespace {

class Requests : public RequestTest {
 protected:
  void expect(const std::string &line, int result, const std::string &text) {
    EXPECT_EQ(run(line), result) << line;
    EXPECT_EQ(said, text) << line;
  }
};

TEST_F(Requests, GetWithoutArgumentListsStores) {
  support::writeFile(path("etc/tapedevs"), "0:lto:/dev/nst0:a:b:\n");
  expect("get drives", 0, "0:lto:/dev/nst0:a:b:\n");
  expect("get drivesX", 0, "0:lto:/dev/nst0:a:b:\n");
  expect("get drive", 1, "ERROR:  8004  Tape lib: Unknown get request, drive\n");
  expect("get foo", 1, "ERROR:  8004  Tape lib: Unknown get request, foo\n");
}

TEST_F(Requests, AFailingListingFailsTheRequest) {
  EXPECT_EQ(run("get jobids"), 1);
  EXPECT_EQ(said, "ERROR:  8036  Cannot read jobid index\n");
  EXPECT_EQ(run("get group"), 1);
  EXPECT_EQ(said, "ERROR:  8058  Cannot read tape group \n");
  EXPECT_EQ(run("get repids"), 1);
  fflush(backuplog);
  EXPECT_EQ(readFile(path("var/libtape.status")), "ERROR:  8536  Cannot read jobid index\n");
}

TEST_F(Requests, GetWithAnArgumentReachesItsHandler) {
  EXPECT_EQ(run("get tapes 3"), 1);
  EXPECT_NE(said.find("8031"), std::string::npos);
  EXPECT_EQ(run("get tape 3"), 1);
  EXPECT_NE(said.find("8031"), std::string::npos);
  EXPECT_EQ(run("get header 0"), 1);
  EXPECT_NE(said.find("8023"), std::string::npos);
  EXPECT_EQ(run("get backuplist 1"), 0);
  EXPECT_EQ(run("get vols 0"), 1);
  EXPECT_NE(said.find("8085"), std::string::npos);
  EXPECT_EQ(run("get hhist h"), 0);
  EXPECT_NE(said.find("8072"), std::string::npos);
  EXPECT_EQ(run("get catalog 0 0"), 1);
  EXPECT_NE(said.find("8086"), std::string::npos);
  EXPECT_EQ(run("get trans 1"), 0);
  support::writeFile(path("tmp/one"), "");
  EXPECT_EQ(run("get dir " + path("tmp")), 0);
  EXPECT_NE(said.find("one\n"), std::string::npos);
}

TEST_F(Requests, OnlyABlankSeparatesAnArgument) {
  expect("get tape\t3", 1, "ERROR:  8004  Tape lib: Unknown get request, tape\t3\n");
  expect("get drives ", 1, "ERROR:  8002  Insufficient arguments.\n");
  expect("get foo 1", 1, "ERROR:  8003  Tape lib: Unknown get request, foo\n");
}

TEST_F(Requests, AddReachesEveryStore) {
  expect("add", 1, "ERROR:  8006  Insufficient arguments.\n");
  expect("add jobids", 1, "ERROR:  8006  Insufficient arguments.\n");
  expect("add foo x", 1, "ERROR:  8007  Tape lib: Unknown add request, foo\n");
  const struct {
    const char *line;
    const char *answer;
  } cases[] = {{"add jobids x", "ERROR:  8037  Insufficient arguments: 1\n"},
               {"add tape a", "ERROR:  8012  Insufficient arguements (1)\n"},
               {"add tapes a", "ERROR:  8012  Insufficient arguements (1)\n"},
               {"add backuplist 7", "ERROR:  8048  Insufficient arguments: 1\n"},
               {"add group x", "ERROR:  8059  Insufficient arguments.\n"},
               {"add drive x", "ERROR:  8204  Insufficient arguments.\n"},
               {"add trans 4", "ERROR:  Command syntax error\n"}};
  for (const auto &each : cases) expect(each.line, 1, each.answer);
  EXPECT_EQ(run("add repids x"), 1);
  fflush(backuplog);
  EXPECT_EQ(readFile(path("var/libtape.status")), "ERROR:  8537  Insufficient arguments\n");
}

TEST_F(Requests, ModReachesEveryStore) {
  expect("mod jobids 5", 1, "ERROR:  8008  Insufficient arguments.\n");
  expect("mod tapes 3", 1, "ERROR:  8008  Insufficient arguments.\n");
  expect("mod tapes 3 x", 0, "");
  expect("mod tape 3 x", 1, "ERROR:  8009  Tape lib: Unknown mod request, tape\n");
  expect("mod backuplist 1 x", 1, "ERROR:  8009  Tape lib: Unknown mod request, backuplist\n");
  expect("mod jobids 5 a:b c", 1, "ERROR:  8040  Insufficient arguments: 2\n");
  expect("mod group 5 a:b", 1, "ERROR:  8062  Insufficient arguments.\n");
  expect("mod drive 5 a:b", 1, "ERROR:  8207  Insufficient arguments.\n");
  expect("mod trans 5 a", 1, "ERROR:  Command syntax error\n");
}

TEST_F(Requests, DelReachesEveryStore) {
  expect("del trans", 1, "ERROR:  8010  Insufficient arguments.\n");
  expect("del trans 4", 1, "ERROR:  8010  Insufficient arguments.\n");
  expect("del foo 1", 1, "ERROR:  8011  Tape lib: Unknown del request, foo\n");
  EXPECT_EQ(run("del tape 0"), 1);
  EXPECT_EQ(said, "ERROR:  8021  Insufficient arguments\n");
  EXPECT_EQ(run("del group 1"), 1);
  EXPECT_EQ(run("del drive 1"), 1);
  EXPECT_NE(said.find("8208"), std::string::npos);
}

TEST_F(Requests, DelTransHandsBothKeysOn) {
  expect("add trans 4 /usr>/opt", 0, "");
  EXPECT_EQ(readFile(path("var/tape/jobids/trans.4")), "/usr>/opt\n");
  expect("del trans 4 /usr", 0, "");
  EXPECT_EQ(readFile(path("var/tape/jobids/trans.4")), "");
}

TEST_F(Requests, ResultsOfTheFourFunctionsThemselves) {
  auto call = [](int (*function)(char *), const char *text) {
    char buffer[256];
    base::copyText(buffer, sizeof buffer, text);
    int result = 0;
    captureStderr([&] { result = function(buffer); });
    return result;
  };
  EXPECT_EQ(call(tapeGet, "foo"), 1);
  EXPECT_EQ(call(tapeGet, "drives"), -1);
  EXPECT_EQ(call(tapeGet, "x "), -1);
  EXPECT_EQ(call(tapeAdd, "x"), -1);
  EXPECT_EQ(call(tapeAdd, "jobids x"), 1);
  EXPECT_EQ(call(tapeMod, "x"), -1);
  EXPECT_EQ(call(tapeMod, "jobids 5 x"), -1);
  EXPECT_EQ(call(tapeMod, "trans 5 x"), 1);
  EXPECT_EQ(call(tapeMod, "foo 5 x"), 1);
  EXPECT_EQ(call(tapeDel, "x"), -1);
  EXPECT_EQ(call(tapeDel, "drive 5"), -1);
  EXPECT_EQ(call(tapeDel, "foo 5"), 1);
}

}  // namespace
