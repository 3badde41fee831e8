// Whole backup jobs on a virtual drive, with client hosts that are played: what a job says, writes
// and knows.
#include <string.h>
#include <unistd.h>
#include <zul/module.h>

#include <map>
#include <regex>

#include "backuptest.h"
#include "tape/pending.h"

namespace {

using jobtest::AnyBackup;
using jobtest::Backup;
using jobtest::Client;
using jobtest::File;
using jobtest::packages;

INSTANTIATE_TEST_SUITE_P(Behaviour, AnyBackup, ::testing::Values("classic", "sound"),
                         [](const auto &one) { return std::string(one.param); });

std::string anonymous(std::string text) {
  text = std::regex_replace(
      text, std::regex("[A-Z][a-z]{2} [A-Z][a-z]{2} [ 0-9]{2} [0-9:]{8} [0-9]{4}"), "DATE");
  text = std::regex_replace(text, std::regex("at [0-9]+ KB/s"), "at R KB/s");
  return std::regex_replace(text, std::regex("NOTICE:  libxxhash[^\n]*\n"), "");
}

TEST_P(AnyBackup, PutsEveryFileOfEveryHostOnTape) {
  loadTape();
  defineJob({"127.0.0.2", "127.0.0.3"});
  std::vector<File> first = {{"/etc/", "", 1, "alpha"},
                             {"/etc/passwd", jobtest::pattern(1000, 2), 0, "alpha"},
                             {"/big", jobtest::pattern(2 * PACK_CHUNK + 77, 3), 0, "alpha"},
                             {"/link", std::string("/etc\0", 5), 2, "alpha"}};
  std::vector<File> second = {{"/home/empty", "", 0, "beta"},
                              {"/home/exact", jobtest::pattern(PACK_CHUNK, 4), 0, "beta"}};
  alone([&] {
    Client alpha("127.0.0.2", first), beta("127.0.0.3", second);
    EXPECT_EQ(backup(), 0) << jobLog();
    auto tape = readTape();
    ASSERT_EQ(tape.size(), 3u);
    EXPECT_EQ(tape[0].size(), 1u);
    EXPECT_EQ(tape[0][0].size(), 2056u);
    EXPECT_EQ(tape[1].size(), 9u);
    auto all = packages(tape[2]);
    for (const File &file : first) EXPECT_EQ(jobtest::contents(all, file.name), file.data);
    for (const File &file : second) EXPECT_EQ(jobtest::contents(all, file.name), file.data);
    EXPECT_EQ(all.size(), 9u);
    // The volume list has a line for each package, in the order of the tape, and no other.
    // Sound lists number the files.
    std::string list;
    std::map<std::string, int> entries;
    int files = 0;
    for (const auto &one : all) {
      if (one.header.sequence == 0 && isSound()) entries[one.header.fromhost] = ++files;
      list += std::to_string(entries[one.header.fromhost]) + ":" + one.header.fromhost + ":" +
              std::to_string(one.header.sequence) + ":" + one.header.filename + "\n";
    }
    EXPECT_EQ(volumeList(1), list);
    ASSERT_EQ(history().size(), 1u);
    EXPECT_EQ(history()[0].status, 1);
    EXPECT_EQ(history()[0].volume, 1);
    long long alphaBytes = 1000 + 2 * PACK_CHUNK + 77 + 5 + 6 * 520;
    long long betaBytes = PACK_CHUNK + 3 * 520;
    EXPECT_EQ(history()[0].kbytes, alphaBytes / 1024 + betaBytes / 1024);
    EXPECT_EQ(nextVolume(), 3);
    EXPECT_FALSE(tape::isPending(1, 0));
    expectNothingLeft();
  });
}

TEST_P(AnyBackup, SaysWhatItDoesInThisOrder) {
  loadTape();
  defineJob({"127.0.0.2"});
  alone([&] {
    Client alpha("127.0.0.2", std::vector<File>{{"/a", std::string(2000, 'a')}});
    EXPECT_EQ(backup(), 0);
    EXPECT_EQ(anonymous(support::readFile(path("tmp/console"))),
              "Starting backup job# 7 on DATE\nPositioning tape.\n"
              "Closing connection.  Backup will continue silently.\n"
              "Logging to " +
                  home + "/var/tape/jobids/___.stat\nTRANSFER OK\n");
    std::string log = anonymous(jobLog());
    std::string before = log.substr(0, log.find("Child exit status"));
    EXPECT_EQ(before,
              "Starting backup job# 7 on DATE\nReading tape header.\n"
              "NOTE:   Positioning tape to volume 1\n"
              "Writing to tape number: 0\nWrote backup ID to tape.\n"
              "Synchronizing backup request lists.\nSynchronizing 127.0.0.2..\n"
              "Starting gathering processes\nListener for: 127.0.0.2  started\n"
              "Making FIFO for: 127.0.0.2\nFIFO made.\n");
    EXPECT_EQ(log.substr(before.size()),
              "Child exit status = 8\nBacked-up 2 KB in 1 items, at R KB/s from 127.0.0.2.\n"
              "Stopping gathering process for 127.0.0.2.\nINFO:  Backup finished..\n"
              "Completed backup job# 7 at DATE\n\n\n")
        << log;
  });
}

TEST_P(AnyBackup, KeepsTheFormerCatalogAndAppendsItsVolume) {
  loadTape();
  defineJob({"127.0.0.2"});
  alone([&] {
    Client alpha("127.0.0.2", std::vector<File>{{"/a", "abc"}});
    EXPECT_EQ(backup("0"), 0);
    std::string one = catalog();
    EXPECT_EQ(support::readFile(tapeFilePath("catalog.Old")), "");
    EXPECT_EQ(one.size(), 8200 + 128 + strlen("/etc/") + strlen("/home/"));
    EXPECT_EQ(backup("4"), 0);
    EXPECT_EQ(support::readFile(tapeFilePath("catalog.Old")), one);
    EXPECT_EQ(catalog().size(), 2 * one.size());
    auto tape = readTape();
    ASSERT_EQ(tape.size(), 5u);
    EXPECT_EQ(packages(tape[4]).size(), 1u);
    ASSERT_EQ(history().size(), 2u);
    EXPECT_EQ(history()[1].volume, 3);
    EXPECT_EQ(history()[1].level, 4);
    EXPECT_EQ(listed(3), "client2:0:/a\n");
  });
}

TEST_P(AnyBackup, WithoutMembersEndsAtOnce) {
  loadTape();
  defineJob({});
  alone([&] {
    // A group without members has one without a name.
    EXPECT_EQ(backup(), isSound() ? -993 : 0) << jobLog();
    EXPECT_EQ(nextVolume(), 3);
  });
}

TEST_P(AnyBackup, AJobThatIsNotThereIsNotStarted) {
  loadTape();
  EXPECT_EQ(backup(), -1);
}

TEST_F(Backup, ClassicItsSegmentStays) {
  loadTape();
  defineJob({"127.0.0.2"});
  alone([&] {
    int before = jobtest::segments();
    EXPECT_EQ(backup(), 0);
    EXPECT_EQ(jobtest::segments(), before + 1);
  });
}

TEST_F(Backup, SoundItsSegmentGoesWithIt) {
  behave("sound");
  loadTape();
  defineJob({"127.0.0.2"});
  alone([&] {
    int before = jobtest::segments();
    EXPECT_EQ(backup(), -993);
    EXPECT_EQ(jobtest::segments(), before);
  });
}

TEST_F(Backup, KnowsWhatTheLastRunWrote) {
  loadTape();
  defineJob({"127.0.0.2"});
  alone([&] {
    Client alpha("127.0.0.2", std::vector<File>{{"/a", std::string(5000, 'a')}});
    EXPECT_EQ(backup(), 0);
    EXPECT_EQ(backup(), 0);
    EXPECT_NE(progressRecord().find("\"expectedBytes\":5120,"), std::string::npos)
        << progressRecord();
  });
}

TEST_F(Backup, GatheringAloneGivesTheKilobytes) {
  loadTape();
  defineJob({"127.0.0.2"});
  alone([&] {
    Client alpha("127.0.0.2", std::vector<File>{{"/a", std::string(5000, 'a')}});
    jobrun run;
    memset(&run, 0, sizeof run);
    ASSERT_EQ(readJobid(7, &run.rec), 0);
    run.volume = 1;
    std::string name = device;
    support::captureStderr([&] { mtFSF(name.data(), 1); });
    tpshmid = tpmkShMem(IPC_SHM_SIZE);
    FILE *list = fopen(path("tmp/list").c_str(), "w");
    EXPECT_EQ(processHostData(&run, 0, name.data(), list), 5.0);
    fclose(list);
    EXPECT_EQ(support::readFile(path("tmp/list")), "0:client2:0:/a\n");
    tprmShMem(tpshmid);
    // Without a drive, and without a segment.
    std::string none = "/dev/vtape/none";
    EXPECT_EQ(processHostData(&run, 0, none.data(), nullptr), -1.0);
    EXPECT_NE(hostLog().find("ERROR:  8310  Can't open tape device: /dev/vtape/none\n"),
              std::string::npos);
    tpgetShMemPtr(-1);
    tpshmid = -1;
    EXPECT_EQ(processHostData(&run, 0, name.data(), nullptr), -1.0);
    EXPECT_NE(statusLog().find("ERROR:  8315  Fatal error.  Failed to find shared memory buffer."),
              std::string::npos);
  });
}

}  // namespace
