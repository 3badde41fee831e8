// The daemon's own pieces: limits on guessing, the pid file, the local socket, the log, the
// module's loading.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "base/fd.h"
#include "host/hostlog.h"
#include "host/limits.h"
#include "host/loadmodule.h"
#include "host/localconsole.h"
#include "host/pidfile.h"
#include "peer.h"
#include "support.h"

namespace {

TEST(WrongProofs, AreForgottenAfterAMinute) {
  host::Shared *shared = host::makeShared();
  ASSERT_NE(shared, nullptr);
  host::WrongProofs &wrong = shared->wrongProofs;
  for (int64_t second : {100, 101, 130}) {
    EXPECT_FALSE(wrong.exceeded(1, 130)) << second;
    wrong.record(1, second);
  }
  EXPECT_TRUE(wrong.exceeded(1, 130));
  EXPECT_TRUE(wrong.exceeded(1, 159));
  EXPECT_FALSE(wrong.exceeded(1, 160));
  EXPECT_FALSE(wrong.exceeded(2, 130));
  wrong.record(1, 160);
  EXPECT_TRUE(wrong.exceeded(1, 160));
}

TEST(WrongProofs, CountAcrossProcesses) {
  host::Shared *shared = host::makeShared();
  ASSERT_NE(shared, nullptr);
  support::inChild([&] {
    for (int times = 0; times < 3; times++) shared->wrongProofs.record(7, 50);
    return 0;
  });
  EXPECT_TRUE(shared->wrongProofs.exceeded(7, 50));
}

class Daemon : public support::HomeTest {
 protected:
  std::string why;
};

TEST_F(Daemon, OnePidFileHasOneHolder) {
  host::PidFile first, second;
  ASSERT_TRUE(first.take(home, why)) << why;
  EXPECT_EQ(support::readFile(path("var/ZULd.pid")), std::to_string(getpid()) + "\n");
  EXPECT_FALSE(second.take(home, why));
  EXPECT_EQ(why, "Another ZULd serves " + home + " already: process " + std::to_string(getpid()));
  first.release();
  EXPECT_FALSE(support::exists(path("var/ZULd.pid")));
  EXPECT_TRUE(second.take(home, why)) << why;
  second.release();
}

TEST_F(Daemon, APidFileLeftByAKilledDaemonIsTakenOver) {
  support::writeFile(path("var/ZULd.pid"), "1\n and much more that somebody wrote there\n");
  host::PidFile file;
  ASSERT_TRUE(file.take(home, why)) << why;
  EXPECT_EQ(support::readFile(path("var/ZULd.pid")), std::to_string(getpid()) + "\n");
  file.release();
}

TEST_F(Daemon, TheLocalSocketReplacesAStaleOne) {
  int first = login::listenLocalConsole(home, 4);
  ASSERT_GE(first, 0);
  close(first);
  EXPECT_LT(login::connectLocalConsole(home), 0);
  int second = login::listenLocalConsole(home, 4);
  ASSERT_GE(second, 0);
  int client = login::connectLocalConsole(home);
  EXPECT_GE(client, 0);
  struct stat status;
  ASSERT_EQ(stat(path("var/console").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0660u);
  close(client);
  close(second);
}

TEST_F(Daemon, TheLocalSocketOfALongHomeIsReachedAsWell) {
  std::string deep = home + "/" + std::string(150, 'x');
  ASSERT_EQ(mkdir(deep.c_str(), 0700), 0);
  ASSERT_EQ(mkdir((deep + "/var").c_str(), 0700), 0);
  int listening = login::listenLocalConsole(deep, 4);
  ASSERT_GE(listening, 0);
  int client = login::connectLocalConsole(deep);
  EXPECT_GE(client, 0);
  close(client);
  close(listening);
}

TEST_F(Daemon, WithoutAHomeThereIsNoLocalSocket) {
  EXPECT_LT(login::connectLocalConsole(home + "/nothing"), 0);
  EXPECT_LT(login::listenLocalConsole(home + "/nothing", 4), 0);
}

TEST_F(Daemon, ALogThatWasRotatedIsOpenedAgainOnTheSameDescriptor) {
  FILE *kept = fplog;
  ASSERT_TRUE(host::openLog(path("var/log"), why)) << why;
  FILE *log = fplog;
  int fd = fileno(log);
  EXPECT_GE(fd, 3);
  host::logEvent("first %s", "line");
  ASSERT_EQ(rename(path("var/log").c_str(), path("var/log.1").c_str()), 0);
  host::reopenLog();
  EXPECT_EQ(fileno(fplog), fd);
  host::logEvent("second line");
  EXPECT_NE(support::readFile(path("var/log.1")).find("first line\n"), std::string::npos);
  EXPECT_EQ(support::readFile(path("var/log.1")).find("second"), std::string::npos);
  EXPECT_NE(support::readFile(path("var/log")).find("second line\n"), std::string::npos);
  fplog = kept;
  fclose(log);
}

TEST_F(Daemon, LogLinesOfAnyLengthEndInOneLineFeed) {
  host::logEvent("%s", std::string(5000, 'x').c_str());
  std::string log = hostLog();
  EXPECT_EQ(log.find('\n'), log.size() - 1);
  EXPECT_LT(log.size(), 1025u);
}

TEST(Printable, HidesWhatDoesNotPrint) {
  EXPECT_EQ(host::printable("a\nb\x1b[2J\xff"), "a?b?[2J?");
  EXPECT_EQ(host::printable("abcdef", 3), "abc...");
}

TEST_F(Daemon, AMissingModuleIsNamed) {
  host::Module module;
  EXPECT_FALSE(host::loadModule(home, module, why));
  EXPECT_NE(why.find(home + "/bin/libtape.so"), std::string::npos) << why;
  EXPECT_NE(why.find("zul init"), std::string::npos);
}

TEST_F(Daemon, AModuleThatIsNoneOrThatOthersMayChangeIsRefused) {
  host::Module module;
  support::writeFile(path("bin/libtape.so"), "no library", 0755);
  EXPECT_FALSE(host::loadModule(home, module, why));
  EXPECT_NE(why.find("Cannot load"), std::string::npos) << why;
  chmod(path("bin/libtape.so").c_str(), 0777);
  EXPECT_FALSE(host::loadModule(home, module, why));
  EXPECT_NE(why.find("changed by others"), std::string::npos) << why;
}

}  // namespace
