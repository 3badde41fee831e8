// The HOST words: what they answer, and what paths they refuse.
#include "host/hostwords.h"

#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "host/files.h"
#include "host/processes.h"
#include "peer.h"
#include "support.h"

namespace {

using nlohmann::json;

class HostWords : public support::HomeTest {
 protected:
  void SetUp() override {
    HomeTest::SetUp();
    host::facts.shared = host::makeShared();
    host::facts.port = 2345;
  }
  void TearDown() override {
    if (child_ > 0) {
      kill(child_, SIGKILL);
      waitpid(child_, nullptr, 0);
    }
    HomeTest::TearDown();
  }

  // Starts a word in a process of its own, its console on the other end of the peer.
  support::Peer start(const std::string &line) {
    auto [peer, console] = support::connected();
    fflush(nullptr);
    child_ = fork();
    if (child_ == 0) {
      peer.sd.reset();
      dup2(console.sd.get(), 0);
      dup2(console.sd.get(), 2);
      console.sd.reset();
      signal(SIGPIPE, SIG_IGN);
      _exit(host::runHostWord(line));
    }
    return std::move(peer);
  }
  int exitStatus() {
    int status = 0;
    EXPECT_TRUE(support::eventually([&] { return waitpid(child_, &status, WNOHANG) == child_; }));
    child_ = 0;
    return support::exitOf(status);
  }
  std::string ask(const std::string &line, int expected = 0) {
    support::Peer peer = start(line);
    std::string text = peer.hearAll();
    EXPECT_EQ(exitStatus(), expected) << line;
    return text;
  }
  json askJson(const std::string &line) {
    std::string text = ask(line);
    EXPECT_EQ(text.find('\n'), text.size() - 1) << text;
    return json::parse(text);
  }

  pid_t child_ = 0;
};

TEST_F(HostWords, StatusTellsOfTheDaemon) {
  json status = askJson("status json");
  EXPECT_EQ(status["home"], home);
  EXPECT_EQ(status["pid"], getpid());
  EXPECT_EQ(status["port"], 2345);
  EXPECT_EQ(status["secret"], false);
  EXPECT_EQ(status["version"], "0.34");
  EXPECT_NE(ask("status").find("home: " + home + "\n"), std::string::npos);
}

TEST_F(HostWords, UnknownOnesAndBadUseAreErrors) {
  EXPECT_EQ(ask("foo", 1), "ERROR:  Unknown request, foo\n");
  EXPECT_EQ(ask("", 1), "ERROR:  Unknown request, \n");
  EXPECT_EQ(ask("status x", 1), "ERROR:  Use: HOST status [json]\n");
  EXPECT_EQ(ask("ps 1 json", 1), "ERROR:  Use: HOST ps [json]\n");
  EXPECT_EQ(ask("get", 1), "ERROR:  Use: HOST get PATH\n");
  EXPECT_EQ(ask("tail var/x y", 1), "ERROR:  Use: HOST tail PATH [LINES] [follow]\n");
  EXPECT_EQ(ask("tail var/x -1", 1), "ERROR:  Use: HOST tail PATH [LINES] [follow]\n");
  EXPECT_EQ(ask("put etc/x", 1), "ERROR:  Use: HOST put PATH BYTES\n");
  EXPECT_EQ(ask("put etc/x 1x", 1), "ERROR:  Use: HOST put PATH BYTES\n");
  EXPECT_EQ(ask("kill", 1), "ERROR:  Use: HOST kill PID [SIGNAL]\n");
  EXPECT_EQ(ask("kill -1", 1), "ERROR:  Use: HOST kill PID [SIGNAL]\n");
  EXPECT_EQ(ask("kill 1", 1), "ERROR:  Use: HOST kill PID [SIGNAL]\n");
}

TEST_F(HostWords, KillTouchesNoForeignProcess) {
  pid_t stranger = fork();
  if (stranger == 0) {
    pause();
    _exit(0);
  }
  std::string pid = std::to_string(stranger);
  EXPECT_EQ(ask("kill " + pid, 1),
            "ERROR:  Process " + pid + " is no request or job of this home\n");
  EXPECT_EQ(ask("kill " + pid + " NOSUCH", 1), "ERROR:  Unknown signal NOSUCH\n");
  EXPECT_EQ(ask("kill " + pid + " 65", 1), "ERROR:  Unknown signal 65\n");
  EXPECT_EQ(kill(stranger, 0), 0);
  EXPECT_EQ(waitpid(stranger, nullptr, WNOHANG), 0);
  kill(stranger, SIGKILL);
  waitpid(stranger, nullptr, 0);
}

TEST_F(HostWords, PsIsEmptyWithoutProcesses) {
  EXPECT_EQ(askJson("ps json"), json::array());
}

// --- jobs ---

TEST_F(HostWords, JobsAreTheProgressRecordsThatCanBeRead) {
  support::writeFile(
      path("var/tape/jobids/7.status.progress"),
      R"({"kind":"backup","job":7,"name":"daily","pid":999999,"state":"done","files":12,"bytes":3456})");
  support::writeFile(path("var/tape/jobids/8.status.progress"), R"({"kind":"backup","job":8)");
  support::writeFile(path("var/tape/jobids/9.status.progress"), "[1,2]");
  support::writeFile(path("var/tape/jobids/9.status"), "{}");
  json jobs = askJson("jobs json");
  ASSERT_EQ(jobs.size(), 1u);
  EXPECT_EQ(jobs[0]["job"], 7);
  EXPECT_EQ(jobs[0]["alive"], false);
  EXPECT_EQ(jobs[0]["file"], "var/tape/jobids/7.status.progress");
  std::string text = ask("jobs");
  EXPECT_NE(text.find("backup        7 done     no"), std::string::npos) << text;
  EXPECT_NE(text.find("daily\n"), std::string::npos);
}

TEST_F(HostWords, StrangeRecordsDoNoHarm) {
  support::writeFile(path("var/tape/jobids/1.progress"),
                     "{\"pid\":\"x\",\"updated\":[],\"name\":\"\xc3\xa4\\n\",\"files\":{\"a\":1}}");
  support::writeFile(path("var/tape/jobids/2.progress"), "{\"pid\":-1}");
  support::writeFile(path("var/tape/jobids/3.progress"), "{\"pid\":1e300,\"updated\":\"x\"}");
  support::writeFile(path("var/tape/jobids/4.progress"), std::string(3 << 20, '['));
  ASSERT_EQ(symlink("/etc/passwd", path("var/tape/jobids/5.progress").c_str()), 0);
  EXPECT_EQ(askJson("jobs json").size(), 3u);
  ask("jobs");
}

TEST_F(HostWords, NoJobsIsAnEmptyList) {
  EXPECT_EQ(askJson("jobs json"), json::array());
  ASSERT_EQ(rmdir(path("var/tape/jobids").c_str()), 0);
  EXPECT_EQ(askJson("jobs json"), json::array());
}

// --- get ---

TEST_F(HostWords, GetSendsAFileWhole) {
  std::string content = std::string("line\n\0\xff", 7) + std::string(200000, 'x');
  support::writeFile(path("var/tape/bhistory"), content);
  EXPECT_EQ(ask("get var/tape/bhistory"),
            "DATA " + std::to_string(content.size()) + "\n" + content);
  support::writeFile(path("etc/empty"), "");
  EXPECT_EQ(ask("get etc/empty"), "DATA 0\n");
}

TEST_F(HostWords, PathsThatLeadOutsideAreRefused) {
  support::writeFile(path("tmp/ipc.alpha"), "x");
  support::writeFile(path("bin/tool"), "x");
  for (const char *bad :
       {"/etc/passwd", "../etc/passwd", "etc/../../x", "etc/./x", "etc//x", "etc/", "var/..", ".",
        "tmp/ipc.alpha", "bin/tool", "etc", "var", "etcx/y"}) {
    std::string text = ask(std::string("get ") + bad, 1);
    EXPECT_EQ(text.substr(0, 8), "ERROR:  ") << bad;
    EXPECT_NE(text.find(bad), std::string::npos) << text;
  }
}

TEST_F(HostWords, LinksAreNotFollowed) {
  ASSERT_EQ(symlink("/etc", path("var/out").c_str()), 0);
  ASSERT_EQ(symlink("/etc/passwd", path("var/passwd").c_str()), 0);
  EXPECT_EQ(ask("get var/out/passwd", 1).substr(0, 7), "ERROR: ");
  EXPECT_EQ(ask("get var/passwd", 1).substr(0, 7), "ERROR: ");
  EXPECT_EQ(ask("put etc/x 0").substr(0, 11), "TRANSFER OK");
  ASSERT_EQ(symlink("/tmp", path("var/tape/out").c_str()), 0);
  EXPECT_EQ(ask("put var/tape/out/zulprobe 0", 1).substr(0, 7), "ERROR: ");
  EXPECT_FALSE(support::exists("/tmp/zulprobe"));
}

TEST_F(HostWords, CredentialsAreClosedToEverybody) {
  for (const char *name : {"etc/ZULsecret", "etc/ZULusers", "etc/ZULkey", "etc/ZULusers.lock",
                           "etc/ZULsecret.new.abc", "etc/.ZULkey.swp"}) {
    support::writeFile(path(name), "secret");
    EXPECT_EQ(ask(std::string("get ") + name, 1),
              std::string("ERROR:  Credentials cannot be read or written here: ") + name + "\n");
    EXPECT_EQ(ask(std::string("put ") + name + " 3", 1).substr(0, 6), "ERROR:");
    EXPECT_EQ(support::readFile(path(name)), "secret");
  }
}

TEST_F(HostWords, PipesAndFoldersAreNoFiles) {
  ASSERT_EQ(mkfifo(path("var/pipe").c_str(), 0600), 0);
  EXPECT_EQ(ask("get var/pipe", 1), "ERROR:  No regular file: var/pipe\n");
  EXPECT_EQ(ask("get var/tape", 1), "ERROR:  No regular file: var/tape\n");
  EXPECT_EQ(ask("get var/nothing", 1),
            "ERROR:  Cannot read var/nothing: No such file or directory\n");
}

// --- tail ---

TEST_F(HostWords, TailSendsTheLastLines) {
  support::writeFile(path("var/log"), "1\n2\n3\n4\n");
  EXPECT_EQ(ask("tail var/log 2"), "3\n4\n");
  EXPECT_EQ(ask("tail var/log 0"), "");
  EXPECT_EQ(ask("tail var/log 99"), "1\n2\n3\n4\n");
  support::writeFile(path("var/open"), "1\n2\n3");
  EXPECT_EQ(ask("tail var/open 2"), "2\n3");
  support::writeFile(path("var/none"), "");
  EXPECT_EQ(ask("tail var/none"), "");
}

TEST_F(HostWords, TailSendsTwentyLinesOfItself) {
  std::string all, last;
  for (int line = 0; line < 50; line++) {
    all += std::to_string(line) + "\n";
    if (line >= 30) last += std::to_string(line) + "\n";
  }
  support::writeFile(path("var/log"), all);
  EXPECT_EQ(ask("tail var/log"), last);
}

TEST_F(HostWords, TailFindsLinesAcrossBuffers) {
  std::string longLine(100000, 'x');
  support::writeFile(path("var/log"), "first\n" + longLine + "\nlast\n");
  EXPECT_EQ(ask("tail var/log 2"), longLine + "\nlast\n");
}

void append(const std::string &file, const std::string &text) {
  int fd = open(file.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
  EXPECT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  close(fd);
}

TEST_F(HostWords, FollowSendsWhatIsAddedUntilALineArrives) {
  support::writeFile(path("var/log"), "1\n2\n");
  support::Peer peer = start("tail var/log 1 follow");
  EXPECT_EQ(peer.hear("2\n"), "2\n");
  append(path("var/log"), "3\n");
  EXPECT_EQ(peer.hear("3\n"), "3\n");
  peer.say("\nTAPE next\n");
  EXPECT_EQ(exitStatus(), 0);
}

TEST_F(HostWords, FollowEndsWithItsPeer) {
  support::writeFile(path("var/log"), "1\n");
  support::Peer peer = start("tail var/log follow");
  EXPECT_EQ(peer.hear("1\n"), "1\n");
  peer.sd.reset();
  EXPECT_EQ(exitStatus(), 0);
}

TEST_F(HostWords, FollowGoesOnWithAFileBegunAnewOrReplaced) {
  support::writeFile(path("var/log"), "old old\n");
  support::Peer peer = start("tail var/log 1 follow");
  EXPECT_EQ(peer.hear("\n"), "old old\n");
  ASSERT_EQ(truncate(path("var/log").c_str(), 0), 0);
  append(path("var/log"), "new\n");
  EXPECT_EQ(peer.hear("new\n"), "new\n");
  support::writeFile(path("var/log.tmp"), "replaced\n");
  ASSERT_EQ(rename(path("var/log.tmp").c_str(), path("var/log").c_str()), 0);
  EXPECT_EQ(peer.hear("replaced\n"), "replaced\n");
  peer.sd.reset();
  EXPECT_EQ(exitStatus(), 0);
}

// --- put ---

TEST_F(HostWords, PutStoresAFileWholeAndReadsNoByteMore) {
  auto [peer, console] = support::connected();
  fflush(nullptr);
  child_ = fork();
  if (child_ == 0) {
    dup2(console.sd.get(), 0);
    dup2(console.sd.get(), 2);
    _exit(host::runHostWord("put var/tape/jobids/select.x 6"));
  }
  EXPECT_EQ(peer.hearLine(), "TRANSFER OK\n");
  peer.say(std::string("ab\n\0cdNEXT", 10));
  EXPECT_EQ(exitStatus(), 0);
  EXPECT_EQ(support::readFile(path("var/tape/jobids/select.x")), std::string("ab\n\0cd", 6));
  char rest[8];
  ASSERT_EQ(recv(console.sd.get(), rest, sizeof rest, MSG_DONTWAIT), 4);
  EXPECT_EQ(std::string(rest, 4), "NEXT");
}

TEST_F(HostWords, PutKeepsModeAndReplacesAtOnce) {
  support::writeFile(path("etc/ZULsite"), "old", 0644);
  chmod(path("etc/ZULsite").c_str(), 0644);
  support::Peer peer = start("put etc/ZULsite 200000");
  EXPECT_EQ(peer.hearLine(), "TRANSFER OK\n");
  peer.say(std::string(100000, 'a'));
  EXPECT_EQ(support::readFile(path("etc/ZULsite")), "old");
  peer.say(std::string(100000, 'b'));
  EXPECT_EQ(peer.hearAll(), "");
  EXPECT_EQ(exitStatus(), 0);
  EXPECT_EQ(support::readFile(path("etc/ZULsite")),
            std::string(100000, 'a') + std::string(100000, 'b'));
  struct stat status;
  ASSERT_EQ(stat(path("etc/ZULsite").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0644u);
  ask("put etc/fresh 0");
  ASSERT_EQ(stat(path("etc/fresh").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600u);
}

TEST_F(HostWords, AnUploadThatBreaksOffChangesNothing) {
  support::writeFile(path("etc/ZULsite"), "old");
  support::Peer peer = start("put etc/ZULsite 100");
  EXPECT_EQ(peer.hearLine(), "TRANSFER OK\n");
  peer.say("half");
  peer.endSending();
  EXPECT_EQ(peer.hearAll(),
            "ERROR:  The upload ended after 4 of 100 bytes; etc/ZULsite is as it was\n");
  EXPECT_EQ(exitStatus(), 1);
  EXPECT_EQ(support::readFile(path("etc/ZULsite")), "old");
}

TEST_F(HostWords, PutWritesOnlyWhereItMay) {
  EXPECT_EQ(ask("put var/libtape.status 1", 1),
            "ERROR:  Only files below etc/ and var/tape/ can be written: var/libtape.status\n");
  EXPECT_EQ(ask("put bin/libtape.so 1", 1).substr(0, 6), "ERROR:");
  EXPECT_EQ(ask("put var/tape 1", 1).substr(0, 6), "ERROR:");
  EXPECT_EQ(ask("put etc/x 99999999999", 1).substr(0, 6), "ERROR:");
  EXPECT_EQ(ask("put etc/x -1", 1).substr(0, 6), "ERROR:");
  EXPECT_EQ(ask("put etc/no/such 1", 1),
            "ERROR:  Cannot write etc/no/such: No such file or directory\n");
  EXPECT_EQ(ask("put var/tape/jobids 0", 1),
            "TRANSFER OK\nERROR:  Cannot write var/tape/jobids: Is a directory\n");
}

}  // namespace
