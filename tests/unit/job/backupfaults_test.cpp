// Backup jobs whose drive, tape, catalog or disk fails.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "backuptest.h"
#include "base/pause.h"
#include "drive/cartridge.h"
#include "drive/drive.h"
#include "net/gatherchild.h"

namespace {

using jobtest::AnyBackup;
using jobtest::Client;
using jobtest::File;

TEST_P(AnyBackup, AFullTapeStopsTheHostOrTheJob) {
  net::gatherLimits.takenMs = 2000;
  loadTape(1 << 20);
  defineJob({"127.0.0.2"});
  alone([&] {
    std::vector<File> files;
    for (int at = 0; at < 4; at++)
      files.push_back({"/f" + std::to_string(at), jobtest::pattern(600000)});
    Client alpha("127.0.0.2", files);
    EXPECT_EQ(backup(), isSound() ? -994 : 0) << jobLog();
    EXPECT_TRUE(logged("Fatal error.  Can't write to tape."));
    EXPECT_EQ(logged("Completed backup job# 7 at "), !isSound());
    EXPECT_EQ(logged("ERROR:  Backup job# 7 failed on drive 1, tape 0, volume 1: No space left on "
                     "device.  The tape is full: load another one and run the job again.\n"),
              isSound());
    EXPECT_EQ(history()[0].status, isSound() ? 0 : 1);
    EXPECT_NE(progressRecord().find("\"state\":\"failed\""), std::string::npos);
    expectNothingLeft();
  });
  net::gatherLimits.takenMs = 100000;
}

TEST_P(AnyBackup, AFailedWriteOfOneHeaderIsReportedOnce) {
  net::gatherLimits.takenMs = 2000;
  loadTape();
  defineJob({"127.0.0.2"});
  // The catalog copy takes nine.
  ASSERT_EQ(drive::setFaults("d1", "write 12 EIO\n"), "");
  alone([&] {
    Client alpha("127.0.0.2", std::vector<File>{{"/a", "abc"}, {"/b", "bcd"}});
    EXPECT_EQ(backup(), isSound() ? -994 : 0);
    EXPECT_EQ(jobtest::count(jobLog(),
                             "ERROR:  8320  Fatal error.  Can't write to tape.  "
                             "retval=-1, errno=5\n"),
              1);
    EXPECT_EQ(nextVolume(), 3) << "what was written stands between its marks";
  });
  net::gatherLimits.takenMs = 100000;
}

TEST_P(AnyBackup, ACatalogCopyThatFailsEndsTheJob) {
  loadTape();
  defineJob({"127.0.0.2"});
  ASSERT_EQ(drive::setFaults("d1", "write 1 EIO\n"), "");
  alone([&] {
    EXPECT_EQ(backup(), -1);
    EXPECT_TRUE(logged("ERROR:  8323  Short write!, errno = 5\n"));
    EXPECT_EQ(catalog().empty(), isSound()) << "a sound job takes its volume out again";
    EXPECT_EQ(logged("ERROR:  8330  "), isSound());
    if (isSound()) {
      EXPECT_EQ(nextVolume(), 1);
    }
    EXPECT_NE(progressRecord().find("\"result\":-1,"), std::string::npos);
  });
}

TEST_P(AnyBackup, ADriveThatCannotBeOpenedForTheDataTakesTheVolumeBack) {
  loadTape();
  defineJob({"127.0.0.2"});
  alone([&] {
    Client alpha("127.0.0.2", std::vector<File>{});
    // The job logs in to push its list when the catalog copy is written and the data are not.
    support::hostPlay.login = [login = support::hostPlay.login](int sd) {
      (void)drive::unloadCartridge("d1");
      return login(sd);
    };
    int result = backup();
    EXPECT_EQ(result, isSound() ? -994 : 0);
    EXPECT_TRUE(logged("ERROR:  8310  Can't open tape device: /dev/vtape/d1\nERROR:  8330  "));
    EXPECT_EQ(catalog(), "");
    EXPECT_EQ(history()[0].status, isSound() ? 0 : 1);
    EXPECT_EQ(history()[0].kbytes, isSound() ? 0 : -1);
  });
}

TEST_P(AnyBackup, ABusyDriveIsWaitedFor) {
  loadTape();
  defineJob({"127.0.0.2"});
  alone([&] {
    Client alpha("127.0.0.2", std::vector<File>{{"/a", "abc"}});
    // In a process of its own: a job would inherit it.
    pid_t holder = fork();
    if (holder == 0) {
      (void)drive::openDrive(device, O_RDONLY);
      support::writeFile(path("tmp/held"), "");
      pause();
    }
    ASSERT_TRUE(support::eventually([&] { return support::exists(path("tmp/held")); }));
    pid_t job = startBackup();
    base::sleepMs(50);
    EXPECT_EQ(waitpid(job, nullptr, WNOHANG), 0);
    kill(holder, SIGKILL);
    waitpid(holder, nullptr, 0);
    EXPECT_EQ(awaitBackup(job), 0);
  });
}

TEST_P(AnyBackup, ADriveThatIsNoDeviceCannotBePositioned) {
  loadTape();
  defineJob({"127.0.0.2"});
  support::writeFile(path("etc/tapedevs"), "1:d1:" + path("tmp/file") + ":a:b:\n");
  support::writeFile(path("tmp/file"), "");
  int result = backup();
  // Without a label on it, or as a path that is no device: it cannot be positioned either way.
  EXPECT_TRUE(result == -12 || result == -11) << result;
  EXPECT_TRUE(logged("ERROR:  8306  Fatal error.  Cannot position tape.\n"));
  EXPECT_NE(support::readFile(path("tmp/console")).find("TRANSFER OK\n"), std::string::npos);
  EXPECT_TRUE(history().empty());
}

TEST_P(AnyBackup, ADriveThatCannotBeReadEndsTheJob) {
  loadTape();
  defineJob({"127.0.0.2"});
  ASSERT_EQ(drive::unloadCartridge("d1"), "");
  EXPECT_EQ(backup(), -11);
  EXPECT_TRUE(logged("ERROR:  8306  Fatal error.  Cannot position tape.\n"));
}

TEST_P(AnyBackup, AHistoryThatCannotBeWrittenEndsTheJob) {
  loadTape();
  defineJob({"127.0.0.2"});
  mkdir(path("var/tape/bhistory").c_str(), 0700);
  EXPECT_EQ(backup(), -9);
  EXPECT_TRUE(logged("ERROR:  8307  Fatal error.  Aborting backup.\n"));
  EXPECT_EQ(catalog(), "");
}

TEST_P(AnyBackup, AVolumeListThatCannotBeOpenedTakesTheVolumeBack) {
  loadTape();
  defineJob({"127.0.0.2"});
  mkdir(tapeFilePath("vol.1").c_str(), 0700);
  EXPECT_EQ(backup(), -995);
  EXPECT_TRUE(logged("ERROR:  8309  Fatal error.  Cannot open backup volume list: " +
                     tapeFilePath("vol.1") + ".  errno = 21\n"));
  EXPECT_EQ(catalog(), "");
  EXPECT_EQ(nextVolume(), 1);
}

TEST_P(AnyBackup, ACatalogThatCannotBeCopiedEndsTheJob) {
  loadTape();
  defineJob({"127.0.0.2"});
  mkdir(tapeFilePath("catalog.Old").c_str(), 0700);
  EXPECT_EQ(backup(), -998);
  EXPECT_TRUE(logged("ERROR:  8308  Cannot make a backup copy of the tape catalog.\n"));
}

TEST_P(AnyBackup, AJobWithoutAListTakesItsVolumeBack) {
  loadTape();
  defineJob({"127.0.0.2"});
  unlink(path("var/tape/jobids/7").c_str());
  EXPECT_EQ(backup(), -1);
  EXPECT_TRUE(logged("ERROR:  8330  "));
  EXPECT_EQ(catalog(), "");
}

}  // namespace
