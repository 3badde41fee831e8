// Backup jobs of many hosts: who goes first, who waits, what a host that fails costs the others.
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>
#include <sstream>

#include "backuptest.h"
#include "base/pause.h"

namespace {

using jobtest::AnyBackup;
using jobtest::Backup;
using jobtest::Client;
using jobtest::File;
using jobtest::packages;

TEST_P(AnyBackup, GoesOnWithoutAHostThatIsDown) {
  loadTape();
  defineJob({"127.0.0.2", "127.0.0.3"});
  alone([&] {
    Client beta("127.0.0.3", std::vector<File>{{"/b", "bcd"}});
    EXPECT_EQ(backup(), isSound() ? -993 : 0);
    EXPECT_TRUE(logged("Child exit status = 2\n"));
    EXPECT_TRUE(logged("Completed backup job# 7 at "));
    EXPECT_EQ(logged("ERROR:  Backup of 127.0.0.2 failed: its gatherer could not be reached, see "
                     "var/tape/jobids/127.0.0.2.stat\nERROR:  1 of 2 hosts failed\n"),
              isSound());
    EXPECT_EQ(history()[0].status, isSound() ? 2 : 1);
    EXPECT_EQ(jobtest::contents(packages(readTape()[2]), "/b"), "bcd");
    std::string record = progressRecord();
    EXPECT_NE(record.find("\"state\":\"failed\",\"started\""), std::string::npos);
    EXPECT_NE(record.find("{\"host\":\"127.0.0.3\",\"state\":\"done\",\"files\":1"),
              std::string::npos)
        << record;
    expectNothingLeft();
  });
}

TEST_P(AnyBackup, WithAllHostsDownStillEndsItsDataFile) {
  loadTape();
  defineJob({"127.0.0.2"});
  alone([&] {
    EXPECT_EQ(backup(), isSound() ? -993 : 0);
    EXPECT_EQ(nextVolume(), 3) << "three marks, or no later volume finds its place";
    Client alpha("127.0.0.2", std::vector<File>{{"/a", "abc"}});
    EXPECT_EQ(backup(), 0);
    EXPECT_EQ(listed(3), "client2:0:/a\n");
    EXPECT_EQ(nextVolume(), 5);
  });
}

TEST_P(AnyBackup, EndsWhenAGatheringChildIsKilled) {
  loadTape();
  defineJob({"127.0.0.2", "127.0.0.3"});
  auto dies = [](int sd) {
    char line[5];
    (void)!read(sd, line, sizeof line);
    std::string half = jobtest::header({"/half", std::string(5000, 'h')}, 0);
    (void)!write(sd, half.data(), half.size());
    base::sleepMs(60000);
  };
  alone([&] {
    Client alpha("127.0.0.2", Client::Play{{}, dies, true, true});
    Client beta("127.0.0.3", std::vector<File>{{"/b", "bcd"}});
    pid_t job = startBackup();
    ASSERT_TRUE(support::eventually(
        [&] { return hostLogOf("127.0.0.2").find("Sending:") != std::string::npos; }));
    // Only the children of the job are looked for.
    std::string children = support::readFile("/proc/" + std::to_string(job) + "/task/" +
                                             std::to_string(job) + "/children");
    std::istringstream list(children);
    int killed = 0;
    for (pid_t child; list >> child;) killed += kill(child, SIGKILL) == 0;
    EXPECT_GE(killed, 1);
    EXPECT_EQ(awaitBackup(job), isSound() ? -993 : 0);
    EXPECT_TRUE(logged("Child exit status = 16\n"));
    EXPECT_EQ(logged("was killed by signal 9"), isSound());
    expectNothingLeft();
  });
}

TEST_P(AnyBackup, StartsEightAtOnceAndTheNinthWhenOneIsDone) {
  loadTape();
  std::vector<std::string> hosts;
  for (int at = 2; at <= 11; at++) hosts.push_back("127.0.0." + std::to_string(at));
  defineJob(hosts);
  alone([&] {
    // They wait until the test lets them go on.
    auto waits = [&](int sd) {
      while (!support::exists(path("tmp/go"))) base::sleepMs(5);
      jobtest::serveFiles(sd, {{"/f", "abc"}});
    };
    std::vector<std::unique_ptr<Client>> clients;
    for (const std::string &host : hosts)
      clients.push_back(std::make_unique<Client>(host, Client::Play{{}, waits, true, true}));
    pid_t job = startBackup();
    EXPECT_TRUE(
        support::eventually([&] { return jobtest::count(jobLog(), "FIFO made.\n") == 8; }, 10000));
    base::sleepMs(100);
    EXPECT_EQ(jobtest::count(jobLog(), "Listener for: "), 8);
    EXPECT_EQ(jobtest::count(jobLog(), "Child exit status"), 0);
    support::writeFile(path("tmp/go"), "");
    EXPECT_EQ(awaitBackup(job), 0);
    EXPECT_EQ(jobtest::count(jobLog(), "Child exit status = 8\n"), 10);
    EXPECT_LT(jobLog().find("Stopping gathering"), jobLog().find("Listener for: 127.0.0.10  "));
    EXPECT_EQ(packages(readTape()[2]).size(), 10u);
    EXPECT_EQ(jobtest::count(volumeList(1), "\n"), 10) << "no line twice";
  });
}

TEST_P(AnyBackup, TakesMoreHostsThanTheUsualSegmentHolds) {
  loadTape();
  std::vector<std::string> hosts;
  for (int at = 0; at < 103; at++) hosts.push_back("127.0.1." + std::to_string(at + 1));
  defineJob(hosts);
  alone(
      [&] {
        Client last("127.0.1.103", std::vector<File>{{"/last", "abc"}});
        EXPECT_EQ(awaitBackup(startBackup(), 100), isSound() ? -993 : 0);
        EXPECT_EQ(jobtest::count(jobLog(), "Child exit status = 2\n"), 102);
        EXPECT_EQ(listed(1), "client103:0:/last\n");
      },
      110);
}

TEST_P(AnyBackup, AHostThatAnotherJobGathersIsWaitedForAndOthersGoFirst) {
  loadTape();
  defineJob({"127.0.0.2", "127.0.0.3"});
  alone([&] {
    Client alpha("127.0.0.2", std::vector<File>{{"/a", "abc"}});
    Client beta("127.0.0.3", std::vector<File>{{"/b", "bcd"}});
    // In a process of its own: a job would inherit it.
    pid_t other = fork();
    if (other == 0) {
      int lock = open(path("tmp/gather.127.0.0.2.lock").c_str(), O_RDWR | O_CREAT, 0600);
      if (flock(lock, LOCK_EX) == 0) support::writeFile(path("tmp/held"), "");
      pause();
    }
    ASSERT_TRUE(support::eventually([&] { return support::exists(path("tmp/held")); }));
    pid_t job = startBackup();
    EXPECT_TRUE(
        support::eventually([&] { return logged("Stopping gathering process for 127.0.0.3.\n"); }));
    EXPECT_EQ(jobtest::count(jobLog(), "NOTICE:  127.0.0.2 is being gathered by another job"), 1);
    EXPECT_FALSE(logged("Listener for: 127.0.0.2"));
    kill(other, SIGKILL);
    waitpid(other, nullptr, 0);
    EXPECT_EQ(awaitBackup(job), 0);
    EXPECT_EQ(listed(1), "client3:0:/b\nclient2:0:/a\n");
  });
}

TEST_F(Backup, SoundAHostThatTakesTheNameOfAnotherFailsAlone) {
  behave("sound");
  loadTape();
  defineJob({"127.0.0.2", "127.0.0.3", "127.0.0.4"});
  alone([&] {
    Client alpha("127.0.0.2", {{"/gone", "", 0, ""}, {"/a", "abc"}, {"/gone too", "", 0, ""}});
    Client beta("127.0.0.3", std::vector<File>{{"/b", "bcd", 0, "127.0.0.2"}});
    Client gamma("127.0.0.4", std::vector<File>{{"/c", "cde"}, {"/d", "def", 0, "client2"}});
    EXPECT_EQ(backup(), -993);
    EXPECT_TRUE(logged("ERROR:  Backup of 127.0.0.3 failed: it has the node name of another host"));
    EXPECT_TRUE(logged("ERROR:  Backup of 127.0.0.4 failed: it changed its name"));
    EXPECT_TRUE(logged("3 items, at ")) << "what vanished has no name";
    EXPECT_EQ(jobtest::count(volumeList(1), "client2:0:/a\n"), 1);
    EXPECT_EQ(jobtest::count(jobLog(), "ERROR:  Backup of "), 2);
    EXPECT_EQ(jobtest::count(volumeList(1), "/b\n") + jobtest::count(volumeList(1), "/d\n"), 0);
  });
}

TEST_P(AnyBackup, AHostWhoseNameIsNoFileNameIsLeftOut) {
  loadTape();
  defineJob({"up/../../host", "127.0.0.3"});
  alone([&] {
    Client beta("127.0.0.3", std::vector<File>{{"/b", "bcd"}});
    EXPECT_EQ(backup(), isSound() ? -993 : 0);
    EXPECT_TRUE(logged("ERROR:  Host number 1 of the group cannot be gathered: up/../../host\n"));
    EXPECT_EQ(listed(1), "client3:0:/b\n");
  });
}

TEST_F(Backup, SoundAListThatWasNotStoredFailsItsHost) {
  behave("sound");
  loadTape();
  defineJob({"127.0.0.2"});
  alone([&] {
    Client alpha("127.0.0.2", Client::Play{{{"/a", "abc"}}, nullptr, false, true});
    EXPECT_EQ(backup(), -993);
    EXPECT_TRUE(logged("ERROR:  Backup of 127.0.0.2 failed: backup list not pushed\n"));
    EXPECT_EQ(listed(1), "client2:0:/a\n") << "it is gathered all the same";
    EXPECT_EQ(history()[0].status, 2);
  });
}

}  // namespace
