// Backup jobs that were told to stop or killed, and the next job on their tape.
#include <signal.h>
#include <sys/wait.h>

#include <regex>

#include "backuptest.h"
#include "base/pause.h"
#include "tape/pending.h"

namespace {

using jobtest::AnyBackup;
using jobtest::Backup;
using jobtest::Client;
using jobtest::File;
using jobtest::packages;

TEST_F(Backup, SoundToldToStopEndsInOrder) {
  behave("sound");
  loadTape();
  defineJob({"127.0.0.2", "127.0.0.3"});
  alone([&] {
    Client alpha("127.0.0.2", std::vector<File>{{"/a", "abc"}});
    Client beta("127.0.0.3", Client::Play{{}, [](int) { base::sleepMs(60000); }, true, true});
    pid_t job = startBackup();
    ASSERT_TRUE(
        support::eventually([&] { return logged("Stopping gathering process for 127.0.0.2.\n"); }));
    kill(job, SIGTERM);
    EXPECT_EQ(awaitBackup(job), -994);
    EXPECT_TRUE(
        logged("ERROR:  Backup job# 7 was told to stop.  Volume 1 of tape 0 holds what was "
               "written until then.\n"));
    EXPECT_EQ(history()[0].status, 0);
    EXPECT_EQ(nextVolume(), 3);
    expectNothingLeft();
  });
}

// A job that is killed leaves its children, its mailboxes, its volume. Whatever the moment, the
// next job must find a catalog that agrees with the tape.
class KilledBackup : public Backup, public ::testing::WithParamInterface<const char *> {};
INSTANTIATE_TEST_SUITE_P(When, KilledBackup,
                         ::testing::Values("Writing to tape number", "Wrote backup ID", "FIFO made",
                                           "Stopping gathering process"),
                         [](const auto &one) {
                           return std::regex_replace(std::string(one.param), std::regex(" "), "");
                         });

TEST_P(KilledBackup, SoundLeavesATapeThatTheNextJobCanUse) {
  behave("sound");
  loadTape();
  defineJob({"127.0.0.2", "127.0.0.3"});
  alone([&] {
    {
      Client alpha("127.0.0.2", std::vector<File>{{"/a", "abc"}});
      Client beta("127.0.0.3", Client::Play{{}, [](int) { base::sleepMs(60000); }, true, true});
      pid_t job = startBackup();
      ASSERT_TRUE(support::eventually([&] { return logged(GetParam()); }));
      kill(job, SIGKILL);
      waitpid(job, nullptr, 0);
    }
    EXPECT_TRUE(tape::isPending(1, 0));
    // The children go by themselves; the drive is free when the last one has.
    Client alpha("127.0.0.2", std::vector<File>{{"/a", "abc"}});
    Client beta("127.0.0.3", std::vector<File>{{"/b", "bcd"}});
    EXPECT_EQ(backup(), 0) << jobLog();
    EXPECT_TRUE(logged("NOTICE:  An earlier backup to this tape was interrupted")) << jobLog();
    EXPECT_FALSE(tape::isPending(1, 0));
    int volume = history().back().volume;
    auto tape = readTape();
    ASSERT_EQ(tape.size(), static_cast<size_t>(volume + 2));
    EXPECT_EQ(packages(tape.back()).size(), 2u);
    EXPECT_EQ(nextVolume(), volume + 2);
    expectNothingLeft();
  });
}

// The tape still holds a volume that was taken back out of the catalog when a later job is killed
// between its record and its catalog copy: that old volume must not pass for the new one.
TEST_F(Backup, SoundAKilledJobsVolumeIsNotMistakenForAnOlderOne) {
  behave("sound");
  loadTape();
  defineJob({"127.0.0.2"});
  alone([&] {
    Client alpha("127.0.0.2", std::vector<File>{{"/a", "abc"}});
    ASSERT_EQ(backup(), 0) << jobLog();
    std::string folder = path("var/tape/drive.1/tape.0/");
    std::string catalog = support::readFile(folder + "catalog");
    support::writeFile(folder + "catalog.Old", "");
    int64_t created = 1;
    catalog.replace(offsetof(catlgstru, created), sizeof created,
                    reinterpret_cast<const char *>(&created), sizeof created);
    support::writeFile(folder + "catalog", catalog);
    ASSERT_TRUE(tape::notePending(1, 0, 1));
  });
  alone([&] {
    Client alpha("127.0.0.2", std::vector<File>{{"/b", "bcd"}});
    EXPECT_EQ(backup(), 0) << jobLog();
    EXPECT_EQ(history().back().volume, 1);
    EXPECT_EQ(readTape().size(), 3u);
    EXPECT_EQ(nextVolume(), 3);
  });
}

// Restored from an old copy, say: the tape knows better.
TEST_P(AnyBackup, ACatalogThatLostItsLastVolume) {
  loadTape();
  defineJob({"127.0.0.2"});
  alone([&] {
    Client alpha("127.0.0.2", std::vector<File>{{"/a", "abc"}});
    ASSERT_EQ(backup(), 0) << jobLog();
    support::writeFile(path("one"), catalog());
  });
  alone([&] {
    Client alpha("127.0.0.2", std::vector<File>{{"/b", "bcd"}});
    ASSERT_EQ(backup(), 0) << jobLog();
    support::writeFile(path("two"), catalog());
    support::writeFile(tapeFilePath("catalog"), support::readFile(path("one")));
  });
  alone([&] {
    Client alpha("127.0.0.2", std::vector<File>{{"/c", "cde"}});
    EXPECT_EQ(backup(), isSound() ? -11 : 0) << jobLog();
    EXPECT_EQ(packages(readTape().back()).size(), 1u);
    const std::string kept = "ERROR:  The tape holds volume 3, which its catalog does not know.";
    EXPECT_EQ(logged(kept), isSound()) << jobLog();
  });
  if (!isSound()) return;
  alone([&] {
    Client alpha("127.0.0.2", std::vector<File>{{"/c", "cde"}});
    support::writeFile(tapeFilePath("catalog"), support::readFile(path("two")));
    EXPECT_EQ(backup(), 0) << jobLog();
    EXPECT_EQ(history().back().volume, 5);
  });
}

TEST_F(Backup, ClassicAKilledJobsChildrenLeave) {
  loadTape();
  defineJob({"127.0.0.2"});
  alone([&] {
    Client alpha("127.0.0.2", std::vector<File>{{"/a", "abc"}});
    behave("classic", "pause.gather-child = 200ms\n");
    pid_t job = startBackup();
    ASSERT_TRUE(support::eventually([&] { return logged("FIFO made"); }));
    kill(job, SIGKILL);
    waitpid(job, nullptr, 0);
    EXPECT_TRUE(support::eventually([&] { return !support::exists(path("tmp/ipc.127.0.0.2")); }));
  });
}

}  // namespace
