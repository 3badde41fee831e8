// The front end: every word reaches its handler, with its texts, results and status files.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zul/module.h>
#include <zul/net.h>
#include <zul/tape.h>

#include <thread>

#include "fronttest.h"

using support::captureStderr;
using support::eventually;
using support::exists;
using support::exitOf;
using support::inChild;
using support::readFile;

namespace {

class TapeTool : public RequestTest {
 protected:
  // Runs one request in a process of its own, as a host does; the exit status.
  int runAway(const std::string &line) {
    std::string file = path("tmp/.stderr");
    int status = inChild([&] {
      (void)!freopen(file.c_str(), "w", stderr);
      setvbuf(stderr, nullptr, _IONBF, 0);
      return request(line);
    });
    said = readFile(file);
    return exitOf(status);
  }
};

TEST_F(TapeTool, OpensAndTruncatesTheStatusLogOnEveryCall) {
  support::writeFile(path("var/libtape.status"), "old");
  EXPECT_EQ(run("version"), 0);
  EXPECT_NE(backuplog, nullptr);
  EXPECT_EQ(readFile(path("var/libtape.status")), "");
}

TEST_F(TapeTool, FailsWhenTheStatusLogCannotBeOpened) {
  support::writeFile(path("var2"), "");
  ASSERT_EQ(rename(path("var").c_str(), path("gone").c_str()), 0);
  EXPECT_EQ(run("version"), -9);
  EXPECT_EQ(said, "ERROR:  Fatal error.  Cannot open status log file: " +
                      path("var/libtape.status") + ".  errno = 2\n");
}

TEST_F(TapeTool, EmptyAndBlankLinesHaveNoWord) {
  for (const char *line : {"", "   \t"}) {
    EXPECT_EQ(run(line), 1);
    EXPECT_EQ(said, "ERROR:  8000 Insufficient arguments.\n");
  }
}

TEST_F(TapeTool, VersionIsPrinted) {
  EXPECT_EQ(run("version"), 0);
  EXPECT_EQ(said, "0.34\n");
}

TEST_F(TapeTool, AnUnknownWordEndsTheProcess) {
  for (const char *word : {"versions", "Version", "tape"}) {
    EXPECT_EQ(runAway(word), 255);
    EXPECT_EQ(said, std::string("ERROR:  8001  Tape lib: Unknown request, ") + word + "\n");
  }
}

TEST_F(TapeTool, AgentWorkersNeedAllTheirWords) {
  for (const char *line :
       {"server 12", "repclnt a 5", "resclnt a", "server", "repclnt", "resclnt"}) {
    EXPECT_EQ(run(line), 1) << line;
    EXPECT_EQ(said, "ERROR:  Command syntax error\n") << line;
  }
  char text[] = "12";
  captureStderr([&] { EXPECT_EQ(goServer(text), -1); });
}

TEST_F(TapeTool, WordsWithoutTheirRestGetAnEmptyText) {
  EXPECT_EQ(run("backup"), 1);
  EXPECT_EQ(said, "ERROR:  8005  Insufficient arguments.\n");
  EXPECT_EQ(run("backup 7"), 1);
  EXPECT_EQ(said, "ERROR:  8005  Insufficient arguments.\n");
  EXPECT_EQ(run("get"), 1);
  EXPECT_EQ(said, "ERROR:  8004  Tape lib: Unknown get request, \n");
}

TEST_F(TapeTool, BackupReleasesTheConsoleAndDetaches) {
  EXPECT_EQ(runAway("backup 7abc 0"), 0);
  EXPECT_EQ(said, "Creating a a background process\nSee the backup logs for status\nTRANSFER OK\n");
  // The number is read decimally, so the file is named 7; the job does not exist and says so there.
  EXPECT_TRUE(eventually([&] {
    return readFile(path("var/tape/jobids/7.status")).find("Starting backup job# 7 on ") == 0 &&
           readFile(path("var/tape/jobids/7.status")).find("8046") != std::string::npos;
  })) << readFile(path("var/tape/jobids/7.status"));
}

TEST_F(TapeTool, AnAcceptedJobLeavesNoRecordOfAnEarlierRunToBeMistakenForIts) {
  for (const char *record :
       {"var/tape/jobids/7.status.progress", "var/tape/jobids/replicate.7.stat.progress"})
    support::writeFile(path(record), "{\"state\":\"failed\"}");
  EXPECT_EQ(runAway("backup 7 0"), 0);
  EXPECT_EQ(runAway("replicate 7"), 0);
  for (const char *record :
       {"var/tape/jobids/7.status.progress", "var/tape/jobids/replicate.7.stat.progress"})
    EXPECT_EQ(readFile(path(record)).find("{\"state\":\"failed\"}"), std::string::npos) << record;
}

TEST_F(TapeTool, BackupOfAJobThatIsNotInTheIndexSaysSo) {
  char other[] = "8:1:1:1:1:0:x";
  captureStderr([&] { ASSERT_EQ(addJobids(other), 0); });
  EXPECT_EQ(runAway("backup 7 0"), 0);
  EXPECT_TRUE(eventually([&] {
    return readFile(path("var/tape/jobids/7.status"))
               .find("ERROR:  8047  Cannot find desired jodid 7\n") != std::string::npos;
  }));
}

TEST_F(TapeTool, BackupWithoutAStatusFileEndsWithItsOwnResult) {
  // The detached process cannot be waited for; its result is written where the test can read it.
  ASSERT_EQ(mkdir(path("var/tape/jobids/7.status").c_str(), 0700), 0);
  inChild([&] {
    char rest[] = "7 0";
    (void)!freopen("/dev/null", "w", stderr);
    int result = tapeBackup(rest);
    support::writeFile(path("tmp/result"), std::to_string(result));
    return 0;
  });
  EXPECT_TRUE(eventually([&] { return readFile(path("tmp/result")) == "-997"; }));
}

TEST_F(TapeTool, ReplicateReleasesTheConsoleAndLogsToItsOwnFile) {
  std::string status = path("var/tape/jobids/replicate.5.stat");
  EXPECT_EQ(runAway("replicate 5"), 0);
  EXPECT_EQ(said, "Creating a replication process.\nSee the replication logs for status:  " +
                      status + "\nTRANSFER OK\n");
  std::string end = "ERROR:  ZUL network file gatherer error\n";
  EXPECT_TRUE(eventually([&] {
    std::string text = readFile(status);
    return text.size() >= end.size() && text.substr(text.size() - end.size()) == end;
  }));
}

TEST_F(TapeTool, ServerNeedsItsStatusFile) {
  ASSERT_EQ(mkdir(path("var/tape/jobids/tapeserv.stat").c_str(), 0700), 0);
  char rest[] = "7 0";
  std::string text = captureStderr([&] { EXPECT_EQ(goServer(rest), -2); });
  EXPECT_EQ(text, "ERROR:  Fatal error.  Cannot open status log file: " +
                      path("var/tape/jobids/tapeserv.stat") + ".  errno = 21\n");
}

// Connects to the data port as soon as somebody listens there, and hangs up.
void callAndHangUp() {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(ZULSRV_PORT);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  eventually([&] {
    int sd = socket(AF_INET, SOCK_STREAM, 0);
    bool connected = connect(sd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0;
    close(sd);
    return connected;
  });
}

class Repclnt : public TapeTool {
 protected:
  // One request whose sender hangs up at once; the exit status. encrypting is the switch behind it.
  int receive(const std::string &line) {
    std::string file = path("tmp/.stderr");
    int status = inChild([&] {
      support::ownNetwork();
      (void)!freopen(file.c_str(), "w", stderr);
      setvbuf(stderr, nullptr, _IONBF, 0);
      std::thread caller(callAndHangUp);
      char buffer[4096];
      base::copyText(buffer, sizeof buffer, line.c_str());
      int result = tapetool(buffer);
      support::writeFile(path("tmp/switch"), std::to_string(shouldEncrypt(2)));
      caller.join();
      return result;
    });
    said = readFile(file);
    encrypting = readFile(path("tmp/switch")) == "1";
    return exitOf(status);
  }
  bool encrypting = false;
};

TEST_F(Repclnt, AnswersTheEncryptionQuestionFirst) {
  site("pause.receiver-ready = 0\n");
  EXPECT_EQ(receive("repclnt /nowhere 5 2"), 1);
  EXPECT_EQ(said.find("Rep Flags=n\n"), 0u);
  EXPECT_FALSE(encrypting);
  support::writeFile(path("etc/ZULkey"), "k");
  support::writeFile(path("bin/libscram.so"), "l");
  EXPECT_EQ(receive("repclnt /nowhere 5 1"), 1);
  EXPECT_EQ(said.find("Rep Flags=n\n"), 0u);
  EXPECT_FALSE(encrypting);
  EXPECT_EQ(receive("repclnt /nowhere 5 2"), 1);
  EXPECT_EQ(said.find("Rep Flags=e\n"), 0u);
  EXPECT_TRUE(encrypting);
  EXPECT_NE(said.find("ERROR:  ZUL restore/replication client error\n"), std::string::npos);
}

TEST_F(Repclnt, RefusesToReceiveInClearWhatWasToBeEncrypted) {
  site("behaviour.security = sound\n");
  EXPECT_EQ(run("repclnt /nowhere 5 2"), 1);
  EXPECT_EQ(
      said,
      "Rep Flags=n\nERROR:  Encryption is asked for, and there is no key or no library here\n");
}

TEST_F(TapeTool, ResclntMovesEveryMessageIntoItsLog) {
  site("pause.receiver-ready = 0\n");
  int status = inChild([&] {
    support::ownNetwork();
    std::thread caller(callAndHangUp);
    char rest[] = "/nowhere 4";
    int result = goResclnt(rest);
    fprintf(fplog, "from the host's log\n");
    caller.join();
    return result == -1 ? 0 : 1;
  });
  EXPECT_EQ(exitOf(status), 0);
  std::string log = readFile(path("var/tape/restore.clnt"));
  EXPECT_EQ(log.find("Starting Restore"), 0u);
  EXPECT_NE(log.find("ERROR:  ZUL restore/replication client error\n"), std::string::npos);
  EXPECT_NE(log.find("from the host's log\n"), std::string::npos);
}

TEST_F(TapeTool, AFailedRestoreSaysSoLast) {
  EXPECT_EQ(run("restore 9"), 1);
  std::string end = "ERROR:  Restore failed...\n";
  ASSERT_GE(said.size(), end.size());
  EXPECT_EQ(said.substr(said.size() - end.size()), end);
}

TEST_F(TapeTool, PushingAListOfAnUnknownJobFails) {
  EXPECT_EQ(run("jsync 7"), 1);
  EXPECT_NE(said.find("8046"), std::string::npos);
}

TEST_F(TapeTool, AListThatCannotBeStoredFails) {
  ASSERT_EQ(mkdir(path("var/tape/jobids/7.req").c_str(), 0700), 0);
  EXPECT_EQ(run("rsync 7"), 1);
}

TEST_F(TapeTool, FuntestRunsInTheForeground) {
  EXPECT_EQ(run("funtest"), 0);
}

}  // namespace
