// The gathering child's dialogue with a gatherer and its hand-over to the tape writer, both played
// by threads of the test.
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>
#include <zul/module.h>

#include <atomic>
#include <thread>

#include "base/alarm.h"
#include "base/pause.h"
#include "base/sharedword.h"
#include "jobtest.h"
#include "net/gatherchild.h"

namespace {

using jobtest::File;

class Dialogue : public jobtest::JobTest {
 protected:
  void SetUp() override {
    JobTest::SetUp();
    kept_ = net::gatherLimits;
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    near.reset(ends[0]);
    far.reset(ends[1]);
    memset(static_cast<void *>(&slot), 0, sizeof slot);
    strcpy(slot.host, "alpha");
    slot.pst.flags = 1;
    slot.wfd = open(path("tmp/ipc.alpha").c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
  }
  void TearDown() override {
    done_ = true;
    near.reset();  // ends the gatherer's reading
    for (std::thread &one : threads_) one.join();
    base::setAlarmTimer(0);
    if (slot.wfd >= 0) close(slot.wfd);
    net::gatherLimits = kept_;
    JobTest::TearDown();
  }

  // The alarm is for the thread that holds the dialogue.
  void play(std::function<void()> body) {
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &before);
    threads_.emplace_back(std::move(body));
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
  }
  void serve(const std::vector<File> &files) {
    play([this, files] {
      jobtest::serveFiles(far.get(), files, &heard);
      shutdown(far.get(), SHUT_WR);
    });
  }
  // Sends these bytes and closes.
  void sendOnly(const std::string &bytes) {
    play([this, bytes] {
      (void)!send(far.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
      shutdown(far.get(), SHUT_WR);
    });
  }
  // The tape writer: takes every package and keeps what it found.
  void take() {
    play([this] {
      while (!done_) {
        uint32_t produced = base::loadWord(slot.produced);
        if (produced == base::loadWord(slot.consumed)) {
          base::sleepMs(1);
          continue;
        }
        uint64_t before = static_cast<uint64_t>(slot.pack.sequence) * PACK_CHUNK;
        size_t length = PACK_SIZE + std::min<uint64_t>(slot.pack.size - before, PACK_CHUNK);
        taken.push_back(support::readFile(path("tmp/ipc.alpha")).substr(0, length));
        base::storeWord(slot.consumed, produced);
        base::wakeWord(&slot.consumed);
      }
    });
  }
  int talk() {
    int result = 99;
    printed = support::captureStdout([&] { result = clientHandshak(near.get(), &slot); });
    return result;
  }
  bool logged(const std::string &text) { return statusLog().find(text) != std::string::npos; }

  base::Fd near, far;
  ipc slot;
  std::string heard;               // by the gatherer
  std::vector<std::string> taken;  // by the tape writer
  std::string printed;

 private:
  std::atomic<bool> done_{false};
  std::vector<std::thread> threads_;
  net::GatherLimits kept_;
};

TEST_F(Dialogue, AnEmptyListIsAskedForOnce) {
  serve({});
  EXPECT_EQ(talk(), 0);
  EXPECT_EQ(heard, "Next\n");
  EXPECT_EQ(statusLog(),
            "INFO:  Sending:  Next\n\n"
            "Total read = 0.000000 KBytes, at an average of 0 KBytes/s\n");
  EXPECT_EQ(slot.produced, 0u);
  EXPECT_EQ(slot.items, 0u);
}

TEST_F(Dialogue, AnEmptyFileIsOneBareHeader) {
  serve({{"/etc/empty", ""}});
  take();
  EXPECT_EQ(talk(), 0);
  EXPECT_EQ(heard, "Next\nGet\nNext\n");
  EXPECT_EQ(slot.produced, 1u);
  ASSERT_EQ(taken.size(), 1u);
  EXPECT_EQ(taken[0], jobtest::header({"/etc/empty", ""}, 0));
}

TEST_F(Dialogue, ThreeMebibytesAreFourPackages) {
  File file{"/big", jobtest::pattern(3 * PACK_CHUNK)};
  serve({file});
  take();
  EXPECT_EQ(talk(), 0);
  EXPECT_EQ(slot.produced, 4u);
  ASSERT_EQ(taken.size(), 4u);
  EXPECT_EQ(taken[0] + taken[1] + taken[2] + taken[3], jobtest::framed(file));
  EXPECT_EQ(taken[3].size(), static_cast<size_t>(PACK_SIZE));
  EXPECT_EQ(slot.items, 1u);
  EXPECT_EQ(slot.kbytes, (3 * PACK_CHUNK + 4 * 520) / 1024);
}

TEST_F(Dialogue, SoundBehavesTheSameTowardsASoundPeer) {
  behave("sound");
  File file{"/big", jobtest::pattern(2 * PACK_CHUNK + 9)};
  serve({file, {"/link", std::string("/target\0", 8), 2}, {"/gone", "", 5}});
  take();
  EXPECT_EQ(talk(), 0);
  EXPECT_EQ(slot.produced, 5u);
  EXPECT_EQ(slot.items, 3u);
}

TEST_F(Dialogue, CountsFilesAndKilobytes) {
  serve({{"/a", std::string(100, 'a')}, {"/d", "", 1}, {"/b", std::string(5000, 'b')}});
  take();
  EXPECT_EQ(talk(), 0);
  EXPECT_EQ(slot.items, 3u);
  EXPECT_EQ(slot.kbytes, (100 + 5000 + 3 * 520) / 1024);
  EXPECT_TRUE(logged("Total read = 6.503906 KBytes, at an average of "));
  EXPECT_EQ(jobtest::count(statusLog(), "INFO:  Sending:  Next\n\n"), 4);
}

TEST_F(Dialogue, NothingIsFetchedBeforeAPackageIsTaken) {
  File file{"/big", jobtest::pattern(PACK_CHUNK + 10)};
  serve({file});
  std::string first = jobtest::framed(file).substr(0, PACK_SIZE + PACK_CHUNK);
  bool kept = false;
  play([&] {
    support::eventually([&] { return base::loadWord(slot.produced) == 1; });
    base::sleepMs(50);
    kept = base::loadWord(slot.produced) == 1 && support::readFile(path("tmp/ipc.alpha")) == first;
    base::storeWord(slot.consumed, 1u);
    support::eventually([&] { return base::loadWord(slot.produced) == 2; });
    base::storeWord(slot.consumed, 2u);
  });
  EXPECT_EQ(talk(), 0);
  EXPECT_TRUE(kept);
}

class AskingAhead : public Dialogue {
 protected:
  // What a gatherer hears between the header of its only file and the moment the file is taken from
  // the mailbox; flags: what the tape writer has said by then.
  std::string heardMeanwhile(uint32_t flags) {
    File file{"/a", "abc"};
    std::string early;
    play([&, file, flags] {
      hearLine();
      base::storeWord(slot.pst.flags, flags);
      say(jobtest::header(file, 0));
      say(jobtest::framed(file));
      support::eventually([&] { return base::loadWord(slot.produced) == 1; });
      char lines[64];
      ssize_t got = recv(far.get(), lines, sizeof lines, MSG_DONTWAIT);
      early.assign(lines, got > 0 ? static_cast<size_t>(got) : 0);
      base::storeWord(slot.pst.flags, 1);
      base::storeWord(slot.consumed, 1u);
      base::wakeWord(&slot.consumed);
      if (early == "Get\n") hearLine();
      say(endOfList());
    });
    EXPECT_EQ(talk(), 0);
    EXPECT_EQ(jobtest::count(statusLog(), "INFO:  Sending:  Next\n\n"), 2);
    return early;
  }

 private:
  void say(const std::string &bytes) {
    (void)!send(far.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
  }
  void hearLine() {
    for (char byte = 0; byte != '\n' && recv(far.get(), &byte, 1, 0) == 1;) {
    }
  }
  static std::string endOfList() {
    std::string raw(PACK_SIZE, '\0');
    package end{};
    end.magic = PACK_EOL_MAGIC;
    packPackage(raw.data(), &end);
    return raw;
  }
};

TEST_F(AskingAhead, ClassicAsksForTheNextFileWhenThisOneIsTaken) {
  EXPECT_EQ(heardMeanwhile(1), "Get\n");
}

TEST_F(AskingAhead, SoundAsksForTheNextFileTogetherWithThisOne) {
  behave("sound");
  EXPECT_EQ(heardMeanwhile(1), "Get\nNext\n");
}

TEST_F(AskingAhead, NotWhereAStreamOutOfStepWouldGoUnnoticed) {
  site("behaviour = sound\nbehaviour.stream = classic\n");
  EXPECT_EQ(heardMeanwhile(1), "Get\n");
}

TEST_F(AskingAhead, NotWhileTheTapeWriterWantsAPause) {
  behave("sound");
  EXPECT_EQ(heardMeanwhile(9), "Get\n");
}

TEST_F(Dialogue, ATapeWriterThatTakesNothingIsGivenUp) {
  net::gatherLimits.takenMs = 80;
  serve({{"/a", "abc"}});
  EXPECT_EQ(talk(), -6);
  EXPECT_TRUE(logged("ERROR:  3221  Parent did not respond fast enough!\n"));
}

TEST_F(Dialogue, IdlesWhileTheTapeWriterAsksForIt) {
  slot.pst.flags = 9;
  serve({});
  play([&] {
    support::eventually([&] { return logged("INFO:  Idle call\n"); });
    base::storeWord(slot.pst.flags, 1);
  });
  EXPECT_EQ(talk(), 0);
  EXPECT_EQ(heard.substr(0, 5), "Idle\n");
  EXPECT_EQ(heard.substr(heard.size() - 5), "Next\n");
}

TEST_F(Dialogue, ClassicACorruptHeaderEndsTheList) {
  std::string bad = jobtest::header({"/a", "abc"}, 0);
  bad[0] = 'X';
  sendOnly(bad);
  EXPECT_EQ(talk(), 0);
  EXPECT_TRUE(logged("ERROR:  3223  Package header is corrupt!\n"));
  EXPECT_FALSE(logged("Total read"));
  EXPECT_NE(printed.find("/a"), std::string::npos);
}

TEST_F(Dialogue, SoundACorruptHeaderFailsTheHost) {
  behave("sound");
  std::string bad = jobtest::header({"/a", "abc"}, 0);
  bad[0] = 'X';
  sendOnly(bad);
  EXPECT_EQ(talk(), -8);
  EXPECT_TRUE(logged("ERROR:  3223  Package header is corrupt!\n"));
}

TEST_F(Dialogue, SoundASizeThatNoFileHasFailsTheHost) {
  behave("sound");
  std::string bad = jobtest::header({"/a", "abc"}, 0);
  bad.replace(300, 4, "\xff\xff\xff\xff");
  sendOnly(bad);
  EXPECT_EQ(talk(), -8);
}

// What a reader of the tape would stumble over: names without an end, kinds that do not exist, a
// directory with contents.
class ImpossibleHeader : public Dialogue, public ::testing::WithParamInterface<int> {
 protected:
  static std::string header() {
    std::string raw = jobtest::header({"/a", GetParam() == 3 ? "abc" : ""}, 0);
    if (GetParam() == 0) raw.replace(7, 257, std::string(257, 'f'));
    if (GetParam() == 1) raw.replace(316, 64, std::string(64, 'h'));
    if (GetParam() == 2) raw[6] = 6;
    if (GetParam() == 3) raw[6] = 1;
    return raw;
  }
};

TEST_P(ImpossibleHeader, SoundFailsTheHost) {
  behave("sound");
  sendOnly(header());
  EXPECT_EQ(talk(), -8);
  EXPECT_EQ(heard, "");
  EXPECT_EQ(slot.produced, 0u);
}

TEST_P(ImpossibleHeader, ClassicIsPassedOn) {
  std::string end(PACK_SIZE, '\0');
  end.replace(0, 4, "St0P");
  sendOnly(header() + header() + (GetParam() == 3 ? "abc" : "") + end);
  take();
  EXPECT_EQ(talk(), 0);
  EXPECT_EQ(taken.size(), 1u);
}
INSTANTIATE_TEST_SUITE_P(NameHostKindDirectory, ImpossibleHeader, ::testing::Range(0, 4));

TEST_F(Dialogue, SoundAHeaderOfAnotherHostInTheSecondPlaceFailsTheHost) {
  behave("sound");
  std::string other = jobtest::header({"/a", "abc"}, 0);
  other.replace(316, 2, "x\0", 2);
  sendOnly(jobtest::header({"/a", "abc"}, 0) + other + "abc");
  EXPECT_EQ(talk(), -8);
}

// A file that changed between its two headers, or a stream out of step.
class OtherPackage : public Dialogue, public ::testing::WithParamInterface<int> {};

TEST_P(OtherPackage, SoundFailsTheHost) {
  behave("sound");
  File announced{"/a", "abc"};
  std::string sent[] = {jobtest::header({"/a", "abcd"}, 0), jobtest::header({"/b", "abc"}, 0),
                        jobtest::header({"/a", "abc", 5}, 0), jobtest::header(announced, 1)};
  sendOnly(jobtest::header(announced, 0) + sent[GetParam()] + "abc");
  EXPECT_EQ(talk(), -8);
  EXPECT_EQ(slot.produced, 0u);
}
INSTANTIATE_TEST_SUITE_P(SizeNameTypeSequence, OtherPackage, ::testing::Range(0, 4));

TEST_F(Dialogue, ClassicWhatStandsInARepeatedHeaderIsPassedOn) {
  std::string end(PACK_SIZE, '\0');
  end.replace(0, 4, "St0P");
  sendOnly(jobtest::header({"/a", "abc"}, 0) + jobtest::header({"/b", "xyz!"}, 4) + "abc" + end);
  take();
  EXPECT_EQ(talk(), 0);
  ASSERT_EQ(taken.size(), 1u);
  EXPECT_EQ(taken[0], jobtest::header({"/b", "xyz!"}, 4) + "abc");
}

TEST_F(Dialogue, APeerThatClosesInsteadOfAnAnswerIsReported) {
  sendOnly("half a header");
  EXPECT_EQ(talk(), -2);
  EXPECT_TRUE(logged("ERROR:  3212  Can't read servers response to Next.  Retval=-4 Errno=0\n"));
}

TEST_F(Dialogue, APeerThatClosesBeforeAPackageIsReported) {
  sendOnly(jobtest::header({"/a", "abc"}, 0));
  EXPECT_EQ(talk(), -4);
  EXPECT_TRUE(logged("ERROR:  3214  Socket read error.  retval = -4\n"));
}

TEST_F(Dialogue, APeerThatClosesInTheDataIsReported) {
  File file{"/a", jobtest::pattern(20000)};
  sendOnly(jobtest::header(file, 0) + jobtest::framed(file).substr(0, 520 + 10000));
  EXPECT_EQ(talk(), -4);
  EXPECT_TRUE(logged("ERROR:  3217  Socket read error  tread= 20000, bread= 8192, retval=-4\n"));
  EXPECT_EQ(slot.produced, 0u);
}

TEST_F(Dialogue, APeerThatClosesInTheLastPieceIsReported) {
  File file{"/a", jobtest::pattern(10000)};
  sendOnly(jobtest::header(file, 0) + jobtest::framed(file).substr(0, 520 + 9999));
  EXPECT_EQ(talk(), -4);
  EXPECT_TRUE(
      logged("ERROR:  3218  Socket read error  tread = 10000, bread = 8192, retval = -4\n"));
}

TEST_F(Dialogue, APeerThatIsGoneIsReportedAtNext) {
  far.reset();
  EXPECT_EQ(talk(), -1);
  EXPECT_TRUE(logged("ERROR:  3211  Write failure clientHandshak\n"));
  slot.pst.flags = 8;
  EXPECT_EQ(talk(), -1);
  EXPECT_TRUE(logged("ERROR:  3210  Write failure clientHandshak (idle)\n"));
}

TEST_F(Dialogue, AMailboxThatTakesNoHeaderIsReported) {
  close(slot.wfd);
  slot.wfd = open(path("tmp/ipc.alpha").c_str(), O_RDONLY);
  serve({{"/a", "abc"}});
  EXPECT_EQ(talk(), -5);
  EXPECT_TRUE(logged("ERROR:  3216  Trying to write 520 bytes  errno = 9\n"));
}

TEST_F(Dialogue, AMailboxThatTakesNoDataIsReported) {
  File file{"/a", jobtest::pattern(10000)};
  sendOnly(jobtest::header(file, 0) + jobtest::framed(file));
  int status = support::inChild([&] {
    signal(SIGXFSZ, SIG_IGN);
    rlimit most{9000, 9000};
    setrlimit(RLIMIT_FSIZE, &most);
    return clientHandshak(near.get(), &slot) == -5 ? 0 : 1;
  });
  EXPECT_EQ(support::exitOf(status), 0);
  EXPECT_TRUE(logged("ERROR:  3219  Trying to write 1808 bytes  errno = 0\n")) << statusLog();
}

TEST_F(Dialogue, ASilentPeerIsGivenUpByTheAlarm) {
  net::gatherLimits.stepS = 1;
  EXPECT_EQ(talk(), -7);
  EXPECT_TRUE(logged("SIGALRM exit \n"));
  // The timer goes on as before, and what it brings is harmless.
  clearLogs();
  raise(SIGALRM);
  EXPECT_EQ(statusLog(), "");
}

TEST_F(Dialogue, AMailboxWithoutAPositionIsTriedUntilTheAlarm) {
  behave("classic", "pause.mailbox-retry = 20ms\n");
  net::gatherLimits.stepS = 1;
  close(slot.wfd);
  slot.wfd = -1;
  serve({{"/a", "abc"}});
  EXPECT_EQ(talk(), -7);
  EXPECT_GE(jobtest::count(statusLog(), "ERROR:  3215  Child:  Seek error!\n"), 3);
}

TEST_F(Dialogue, TheTimerIsStoppedAtTheEnd) {
  serve({});
  EXPECT_EQ(talk(), 0);
  EXPECT_EQ(alarm(0), 0u);
}

TEST_F(Dialogue, NamesThatFillTheirFieldsEndInThem) {
  std::string raw = jobtest::header({"/a", ""}, 0), end(PACK_SIZE, '\0');
  raw.replace(7, 257, std::string(257, 'f'));
  raw.replace(316, 64, std::string(64, 'h'));
  end.replace(0, 4, "St0P");
  end.replace(7, 257, std::string(257, 'f'));
  sendOnly(raw + raw + end);
  take();
  EXPECT_EQ(talk(), 0);
  EXPECT_EQ(slot.pack.filename[256], '\0');
}

}  // namespace
