// The gatherer's dialogue as the tape host sees it, in both behaviours.
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>
#include <zul/tape.h>

#include <filesystem>

#include "base/pause.h"
#include "base/process.h"
#include "net/gatherer.h"
#include "netsupport.h"

namespace fs = std::filesystem;

namespace {

using netsupport::Framed;
using netsupport::Gatherer;

class Dialogue : public netsupport::NetTest {
 protected:
  void SetUp() override {
    NetTest::SetUp();
    list = path("var/tape/jobids/request.7");
    file = path("tmp/file");
    support::writeFile(file, "contents");
  }
  // A complete list of these paths, good for both behaviours.
  void offer(const std::vector<std::string> &paths) {
    std::string text;
    for (const std::string &entry : paths) text += std::to_string(number++) + " " + entry + "\n";
    support::writeFile(list, text + "end\n");
  }
  void classicSite(const std::string &more = "") {
    site("behaviour = classic\npause.idle = 200ms\npause.empty-read = 5ms\n" + more);
  }
  std::string errors() const { return support::readFile(path("tmp/.err")); }
  std::string output() const { return support::readFile(path("tmp/.out")); }
  int number = 0;
  std::string list, file;
};

class DialogueBoth : public Dialogue, public testing::WithParamInterface<const char *> {
 protected:
  void SetUp() override {
    Dialogue::SetUp();
    // The peer's address is looked at in a test of its own.
    site(std::string("behaviour = ") + GetParam() +
         "\nbehaviour.security = classic\npause.idle = 200ms\npause.empty-read = 5ms\n");
  }
};
INSTANTIATE_TEST_SUITE_P(, DialogueBoth, testing::Values("classic", "sound"),
                         [](const auto &given) { return std::string(given.param); });

TEST_P(DialogueBoth, AnEmptyListIsAnsweredByItsEnd) {
  offer({});
  Gatherer gatherer(home, list);
  std::string raw = gatherer.rawNext();
  ASSERT_EQ(raw.size(), static_cast<size_t>(PACK_SIZE));
  EXPECT_EQ(raw.substr(0, 4), "St0P");
  EXPECT_EQ(raw.substr(4), std::string(516, '\0'));  // no leftovers of memory travel
  EXPECT_TRUE(gatherer.atEnd());
  EXPECT_EQ(gatherer.result(), 0);
  EXPECT_EQ(statusLog(), "Nothing more to backup/replicate\n");
}

TEST_P(DialogueBoth, NextShowsAFileAndGetSendsIt) {
  offer({file, path("tmp/"), file});
  Gatherer gatherer(home, list);
  package first = gatherer.next();
  EXPECT_EQ(netsupport::name(first), file);
  EXPECT_EQ(first.size, 8u);
  EXPECT_EQ(first.sequence, 0);
  EXPECT_EQ(gatherer.get(first).contents, "contents");
  package second = gatherer.next();
  EXPECT_EQ(second.type, 1);
  EXPECT_EQ(netsupport::name(gatherer.get(second).headers[0]), path("tmp/"));
  EXPECT_EQ(netsupport::name(gatherer.next()), file);  // and is not asked for
  EXPECT_EQ(gatherer.next().magic, PACK_EOL_MAGIC);
  EXPECT_EQ(gatherer.result(), 0);
}

TEST_P(DialogueBoth, CommandsAreKnownByTheirFirstLetters) {
  offer({file});
  Gatherer gatherer(home, list);
  gatherer.say("Nextfile\n");
  EXPECT_EQ(netsupport::unpacked(support::readBytes(gatherer.sd(), PACK_SIZE)).size, 8u);
  gatherer.say("Getaway\n");
  EXPECT_EQ(netsupport::readFramed(gatherer.sd(), 8).contents, "contents");
  gatherer.say("Quitter\n");
  EXPECT_EQ(gatherer.result(), 0);
}

TEST_P(DialogueBoth, UnknownCommandsAreSaidAndTheDialogueGoesOn) {
  offer({file});
  Gatherer gatherer(home, list);
  gatherer.say("next\n");
  gatherer.say("\n");
  EXPECT_EQ(gatherer.next().size, 8u);
  gatherer.say("Quit\n");
  EXPECT_EQ(gatherer.result(), 0);
  EXPECT_EQ(statusLog(),
            "WARNING:  3014  Command error, continuing anyway got: next\n \n"
            "WARNING:  3014  Command error, continuing anyway got: \n \n");
}

TEST_P(DialogueBoth, ALongLineIsTakenInParts) {
  offer({file});
  Gatherer gatherer(home, list);
  std::string junk(599, 'z');
  gatherer.say(junk + "\n");
  EXPECT_EQ(gatherer.next().size, 8u);
  gatherer.say("Quit\n");
  EXPECT_EQ(gatherer.result(), 0);
  std::string text = "WARNING:  3014  Command error, continuing anyway got: ";
  EXPECT_EQ(statusLog(), text + junk.substr(0, 511) + " \n" + text + junk.substr(0, 88) + "\n \n");
}

TEST_P(DialogueBoth, SilenceIsSaidAsAnEmptyCommand) {
  net::timeouts.lineMs = 60;
  offer({file});
  Gatherer gatherer(home, list);
  ASSERT_TRUE(support::eventually([&] { return statusLog().size() > 120; }));
  EXPECT_EQ(statusLog().substr(0, 56), "WARNING:  3014  Command error, continuing anyway got:  \n");
  EXPECT_EQ(gatherer.next().size, 8u);
  gatherer.say("Quit\n");
  EXPECT_EQ(gatherer.result(), 0);
}

TEST_P(DialogueBoth, QuitPrintsTheLastHeader) {
  offer({file});
  Gatherer gatherer(home, list);
  gatherer.next();
  gatherer.say("Quit\n");
  EXPECT_EQ(gatherer.result(), 0);
  EXPECT_EQ(output().substr(0, 12 + file.size()), "Filename = " + file + "\n");
  EXPECT_TRUE(gatherer.atEnd());
}

TEST_P(DialogueBoth, IdleDelaysTheNextAnswer) {
  offer({file});
  Gatherer gatherer(home, list);
  gatherer.next();
  long long begin = base::nowMs();
  gatherer.say("Idle\n");
  gatherer.next();
  EXPECT_GE(base::nowMs() - begin, 190);
  EXPECT_EQ(gatherer.result(), 0);
}

TEST_P(DialogueBoth, GetBeforeAnyNextIsAnsweredAsMissing) {
  offer({file});
  Gatherer gatherer(home, list);
  gatherer.say("Get\n");
  package header = netsupport::unpacked(support::readBytes(gatherer.sd(), PACK_SIZE));
  EXPECT_EQ(header.type, 5);
  EXPECT_EQ(netsupport::name(header), "");
  EXPECT_EQ(gatherer.next().size, 8u);
  gatherer.say("Quit\n");
  EXPECT_EQ(gatherer.result(), 0);
}

TEST_P(DialogueBoth, AMissingFileIsShownAndSentAsSuch) {
  offer({path("tmp/gone"), file});
  Gatherer gatherer(home, list);
  package header = gatherer.next();
  EXPECT_EQ(header.type, 5);
  EXPECT_EQ(header.usrid, 65535u);
  EXPECT_EQ(gatherer.get(header).headers[0].type, 5);
  EXPECT_EQ(gatherer.next().type, 0);
  gatherer.say("Quit\n");
  EXPECT_EQ(gatherer.result(), 0);
  EXPECT_NE(statusLog().find("WARNING:  3030  File " + path("tmp/gone") +
                             " appears to have been deleted befor backup, skipping.\n"),
            std::string::npos);
}

TEST_P(DialogueBoth, NamesWithOddBytesTravelAsTheyAre) {
  std::string odd = path("tmp/\x01\xff \xc3\xa4%s%n");
  support::writeFile(odd, "odd");
  offer({odd});
  Gatherer gatherer(home, list);
  package header = gatherer.next();
  EXPECT_EQ(netsupport::name(header), odd);
  EXPECT_EQ(gatherer.get(header).contents, "odd");
  gatherer.say("Quit\n");
  EXPECT_EQ(gatherer.result(), 0);
}

TEST_P(DialogueBoth, ALongPathIsSkippedAndNotCut) {
  std::string folder = path("tmp/") + std::string(200, 'd');
  fs::create_directory(folder);
  std::string stem = folder + "/";
  std::string fits = stem + std::string(256 - stem.size(), 'f');
  std::string tooLong = fits + "x";
  support::writeFile(fits, "fits");
  support::writeFile(tooLong, "does not");
  std::string shorter = fits.substr(0, 255);
  support::writeFile(shorter, "shorter");
  offer({tooLong, fits, tooLong, shorter, tooLong});
  Gatherer gatherer(home, list);
  package header = gatherer.next();
  EXPECT_EQ(netsupport::name(header), fits);
  EXPECT_EQ(gatherer.get(header).contents, "fits");
  header = gatherer.next();
  EXPECT_EQ(netsupport::name(header), shorter);
  EXPECT_EQ(gatherer.get(header).contents, "shorter");
  EXPECT_EQ(gatherer.next().magic, PACK_EOL_MAGIC);
  EXPECT_EQ(gatherer.result(), 0);
  std::string text = "NOTICE:  Path is longer than 256 characters, skipping: " + tooLong + "\n";
  EXPECT_EQ(statusLog(), text + text + text + "Nothing more to backup/replicate\n");
}

TEST_P(DialogueBoth, ReplicationUsesTheConnectionItIsGivenAndThePolicy) {
  offer({file});
  Gatherer::Options options;
  options.repmode = 1;
  options.transforms = {path("tmp"), "/moved"};
  options.before = [] {
    reprec job{};
    job.owner = 4711;
    job.filepolicy = 0600;
    permctrl(1, &job);
  };
  Gatherer gatherer(home, list, options);
  package shown = gatherer.next();
  EXPECT_EQ(shown.usrid, 4711u);
  EXPECT_EQ(shown.mode, 0600u);
  EXPECT_EQ(netsupport::name(shown), "/moved/file");
  Framed framed = gatherer.get(shown);
  EXPECT_EQ(framed.headers[0].usrid, 4711u);
  EXPECT_EQ(framed.headers[0].mode, 0600u);
  EXPECT_EQ(netsupport::name(framed.headers[0]), "/moved/file");
  EXPECT_EQ(framed.contents, "contents");
  EXPECT_EQ(gatherer.next().magic, PACK_EOL_MAGIC);
  EXPECT_EQ(gatherer.result(), 0);
}

TEST_P(DialogueBoth, ThePolicyDoesNotTouchABackup) {
  offer({file});
  Gatherer::Options options;
  options.before = [] {
    reprec job{};
    job.owner = 4711;
    permctrl(1, &job);
  };
  Gatherer gatherer(home, list, options);
  package shown = gatherer.next();
  EXPECT_EQ(shown.usrid, geteuid());
  EXPECT_EQ(gatherer.get(shown).headers[0].usrid, geteuid());
  gatherer.say("Quit\n");
  EXPECT_EQ(gatherer.result(), 0);
}

TEST_P(DialogueBoth, AnAbsentListIsAFailure) {
  net::timeouts.listMs = 50;
  Gatherer gatherer(home, list);
  EXPECT_EQ(gatherer.result(), -1);
  EXPECT_EQ(statusLog(), "WARNING: 3006  Can't open request list: " + list + "\n");
}

TEST_P(DialogueBoth, APeerThatClosesWithoutQuitEndsTheDialogueByItsTimerOrAtOnce) {
  const bool isSound = std::string(GetParam()) == "sound";
  // The killed job's gatherer would stay for five minutes.
  net::timeouts.stepMs = isSound ? 60000 : 1500;
  offer({file});
  itimerval timer{};
  bool handlerKept = false;
  Gatherer::Options options;
  options.after = [&](int) {
    getitimer(ITIMER_REAL, &timer);
    struct sigaction now;
    sigaction(SIGALRM, nullptr, &now);
    handlerKept = now.sa_handler == stimo_handler;
    if (handlerKept) raise(SIGALRM);  // a late alarm jumps to nothing
    support::writeFile(path("tmp/after"), std::to_string((timer.it_value.tv_sec + 1) / 10 * 10) +
                                              (handlerKept ? " kept" : " gone"));
  };
  Gatherer gatherer(home, list, options);
  gatherer.next();
  gatherer.hangUp();
  EXPECT_EQ(gatherer.result(), isSound ? -8 : -7);
  const std::string tired =
      "ERROR:  3032  The ZULd file gatherer has grown tired of waiting.  Exiting\n";
  EXPECT_EQ(errors(), isSound ? "" : tired);
  EXPECT_EQ(support::readFile(path("tmp/after")), isSound ? "0 gone" : "600 kept");
  const std::string lost =
      "ERROR:  The tape host closed the connection before the end of the list\n";
  EXPECT_EQ(statusLog().find(lost) != std::string::npos, isSound);
}

TEST_P(DialogueBoth, ATapeHostThatNeverConnectsIsGivenUp) {
  net::timeouts.stepMs = 200;
  offer({file});
  Gatherer::Options options;
  options.connect = false;
  Gatherer gatherer(home, list, options);
  EXPECT_EQ(gatherer.result(), -7);
  EXPECT_EQ(errors(),
            "ERROR:  3032  The ZULd file gatherer has grown tired of waiting.  Exiting\n");
}

TEST_P(DialogueBoth, ASilentPeerThatStaysIsNotGivenUp) {
  net::timeouts.stepMs = 1500;
  net::timeouts.lineMs = 200;
  offer({file});
  Gatherer gatherer(home, list);
  base::sleepMs(2500);  // longer than a step: each silence begins the timer anew
  EXPECT_EQ(gatherer.next().size, 8u);
  gatherer.say("Quit\n");
  EXPECT_EQ(gatherer.result(), 0);
}

TEST_P(DialogueBoth, NothingIsLeftBehindAfterANormalEnd) {
  offer({});
  Gatherer::Options options;
  options.before = [] { signal(SIGALRM, SIG_IGN); };
  options.after = [this](int) {
    itimerval timer{};
    getitimer(ITIMER_REAL, &timer);
    struct sigaction now;
    sigaction(SIGALRM, nullptr, &now);
    support::writeFile(path("tmp/after"), timer.it_value.tv_sec == 0 &&
                                                  timer.it_value.tv_usec == 0 &&
                                                  now.sa_handler == SIG_IGN
                                              ? "clean"
                                              : "left");
  };
  Gatherer gatherer(home, list, options);
  gatherer.next();
  EXPECT_EQ(gatherer.result(), 0);
  EXPECT_EQ(support::readFile(path("tmp/after")), "clean");
}

TEST_P(DialogueBoth, APeerMayLeaveAtEveryByteOfACommand) {
  const bool isSound = std::string(GetParam()) == "sound";
  net::timeouts.stepMs = isSound ? 60000 : 1500;
  offer({file, file});
  std::vector<std::unique_ptr<Gatherer>> gatherers;
  std::string commands = "Next\nGet\n";
  for (size_t length = 0; length <= commands.size(); length++) {
    gatherers.push_back(std::make_unique<Gatherer>(home, list));
    gatherers.back()->say(commands.substr(0, length));
    gatherers.back()->hangUp();
  }
  const int lost = isSound ? -8 : -7;
  for (auto &gatherer : gatherers) EXPECT_EQ(gatherer->result(), lost);
}

TEST_P(DialogueBoth, APeerThatLeavesInsideAFileEndsOnlyThatFile) {
  const bool isSound = std::string(GetParam()) == "sound";
  net::timeouts.stepMs = isSound ? 60000 : 1500;
  support::writeFile(file, std::string(8 << 20, 'x'));
  offer({file});
  Gatherer gatherer(home, list);
  gatherer.next();
  gatherer.say("Get\n");
  support::readBytes(gatherer.sd(), 5000);
  gatherer.hangUp();
  EXPECT_EQ(gatherer.result(), isSound ? -8 : -7);
  EXPECT_NE(statusLog().find("Write to tape server failed on " + file), std::string::npos);
}

TEST_P(DialogueBoth, ALargeFileIsSkippedOrSentWhole) {
  std::string large = path("tmp/large");
  support::writeFile(large, "");
  ASSERT_EQ(truncate(large.c_str(), 4292838416), 0);
  offer({large, file});
  Gatherer gatherer(home, list);
  package shown = gatherer.next();
  bool sound = std::string(GetParam()) == "sound";
  EXPECT_EQ(netsupport::name(shown), sound ? large : file);
  EXPECT_EQ(shown.size, sound ? 4292838416u : 8u);
  std::string text = "NOTICE:  File " + large + " is too large for the stream form, skipping.\n";
  EXPECT_EQ(statusLog(), sound ? "" : text);
  gatherer.say("Quit\n");
  EXPECT_EQ(gatherer.result(), 0);
}

TEST_F(Dialogue, ABrokenConnectionIsSaidOnceAndLeftToTheTimer) {
  net::timeouts.stepMs = 200;
  classicSite();
  offer({file});
  Gatherer::Options options;
  // Encryption without its library fails every read at once.
  options.before = [] { shouldEncrypt(1); };
  Gatherer gatherer(home, list, options);
  EXPECT_EQ(gatherer.result(), -7);
  EXPECT_EQ(statusLog(), "WARNING:  3014  Command error, continuing anyway got:  \n");
}

TEST_F(Dialogue, AFileThatVanishesAfterNextIsSentAsMissing) {
  classicSite();
  offer({file});
  Gatherer gatherer(home, list);
  EXPECT_EQ(gatherer.next().size, 8u);
  unlink(file.c_str());
  gatherer.say("Get\n");
  EXPECT_EQ(netsupport::unpacked(support::readBytes(gatherer.sd(), PACK_SIZE)).type, 5);
  gatherer.say("Quit\n");
  EXPECT_EQ(gatherer.result(), 0);
  EXPECT_TRUE(gatherer.atEnd());
}

TEST_F(Dialogue, AFileThatGrowsAfterNextIsSentAsItIs) {
  classicSite();
  offer({file});
  Gatherer gatherer(home, list);
  EXPECT_EQ(gatherer.next().size, 8u);
  support::writeFile(file, "more contents");
  gatherer.say("Get\n");
  EXPECT_EQ(netsupport::unpacked(support::readBytes(gatherer.sd(), PACK_SIZE)).size, 13u);
  EXPECT_EQ(support::readBytes(gatherer.sd(), 13), "more contents");
  gatherer.say("Quit\n");
  EXPECT_EQ(gatherer.result(), 0);
}

TEST_F(Dialogue, AListIsReadOnceAndItsEndBelieved) {
  classicSite();
  support::writeFile(list, "0 " + file + "\n");
  Gatherer gatherer(home, list);
  gatherer.next();
  EXPECT_EQ(gatherer.next().magic, PACK_EOL_MAGIC);
  EXPECT_EQ(gatherer.result(), 0);
}

class SoundDialogue : public Dialogue {
 protected:
  void SetUp() override {
    Dialogue::SetUp();
    site("behaviour = sound\nbehaviour.security = classic\npause.empty-read = 5ms\n");
  }
  // A list that its generator, this test, is still writing.
  void beginList(const std::string &text) {
    support::writeFile(list, text);
    writer.reset(open(list.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
    ASSERT_EQ(flock(writer.get(), LOCK_EX | LOCK_NB), 0);
  }
  void append(const std::string &text) {
    ASSERT_EQ(write(writer.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }
  // The lock belongs to the open file, and a forked gatherer holds it too.
  Gatherer::Options apart() {
    Gatherer::Options options;
    options.before = [this] { close(writer.get()); };
    return options;
  }
  base::Fd writer;
};

TEST_F(SoundDialogue, WhatNextAnnouncedIsWhatGetSends) {
  offer({file});
  Gatherer gatherer(home, list);
  package shown = gatherer.next();
  support::writeFile(file, "much more contents than before");
  Framed framed = gatherer.get(shown);
  EXPECT_EQ(framed.contents, "much mor");
  EXPECT_EQ(framed.headers[0].size, 8u);
  EXPECT_EQ(gatherer.next().magic, PACK_EOL_MAGIC);  // the stream is in step
  EXPECT_EQ(gatherer.result(), 0);
}

TEST_F(SoundDialogue, AFileThatVanishesAfterNextIsSentWhole) {
  offer({file});
  Gatherer gatherer(home, list);
  package shown = gatherer.next();
  unlink(file.c_str());
  EXPECT_EQ(gatherer.get(shown).contents, "contents");
  EXPECT_EQ(gatherer.next().magic, PACK_EOL_MAGIC);
  EXPECT_EQ(gatherer.result(), 0);
}

TEST_F(SoundDialogue, AGrowingListIsFollowedToItsEnd) {
  beginList("0 " + file + "\n");
  Gatherer gatherer(home, list, apart());
  gatherer.next();
  gatherer.say("Next\n");
  base::sleepMs(100);
  append("1 " + path("tmp/") + "\n");
  EXPECT_EQ(netsupport::unpacked(support::readBytes(gatherer.sd(), PACK_SIZE)).type, 1);
  append("end\n");
  EXPECT_EQ(gatherer.next().magic, PACK_EOL_MAGIC);
  EXPECT_EQ(gatherer.result(), 0);
}

TEST_F(SoundDialogue, ATapeHostThatCameForAnotherJobIsNotServed) {
  offer({file});
  Gatherer::Options options;
  options.before = [] { net::expectRequest(7, 0); };
  for (const char *line : {"Job 8 0\n", "Job 7 1700000000\n"}) {
    clearLogs();
    Gatherer gatherer(home, list, options);
    gatherer.say(line);
    EXPECT_TRUE(gatherer.atEnd()) << line;
    EXPECT_EQ(gatherer.result(), -1) << line;
    EXPECT_NE(statusLog().find("this gatherer was started for job 7 since 0\n"), std::string::npos);
  }
}

TEST_F(SoundDialogue, ATapeHostThatNamesItsJobIsServed) {
  offer({file});
  Gatherer::Options options;
  options.before = [] { net::expectRequest(7, 0); };
  Gatherer gatherer(home, list, options);
  gatherer.say("Job 7 0\n");
  EXPECT_EQ(netsupport::name(gatherer.next()), file);
  gatherer.say("Quit\n");
  EXPECT_EQ(gatherer.result(), 0);
}

TEST_P(DialogueBoth, ATapeHostThatNamesItsJobIsUnderstoodEverywhere) {
  offer({file});
  Gatherer gatherer(home, list);
  gatherer.say("Job 7 0\n");
  EXPECT_EQ(netsupport::name(gatherer.next()), file);
  gatherer.say("Quit\n");
  EXPECT_EQ(gatherer.result(), 0);
}

TEST_F(SoundDialogue, ATapeHostThatNeverConnectsFreesThePortSoon) {
  net::timeouts.greetMs = 150;
  offer({});
  Gatherer::Options options;
  options.connect = false;
  Gatherer gatherer(home, list, options);
  EXPECT_EQ(gatherer.result(), -7);
}

TEST_F(SoundDialogue, AKilledGeneratorIsNoEndOfTheList) {
  beginList("0 " + file + "\n");
  Gatherer gatherer(home, list, apart());
  gatherer.next();
  gatherer.say("Next\n");
  base::sleepMs(50);
  writer.reset();
  EXPECT_EQ(gatherer.result(), -1);
  EXPECT_TRUE(gatherer.atEnd());  // and no end-of-list header came
  EXPECT_EQ(statusLog(),
            "ERROR:  The request list is incomplete, its generator failed: " + list + "\n");
}

TEST_F(SoundDialogue, AListThatTakesLongKeepsThePeerWaitingWithADirectoryItHas) {
  net::timeouts.nudgeMs = 60;
  net::timeouts.stepMs = 3000;
  beginList("0 " + path("tmp/") + "\n1 " + file + "\n");
  Gatherer gatherer(home, list, apart());
  EXPECT_EQ(gatherer.next().type, 1);
  EXPECT_EQ(gatherer.next().type, 0);
  for (int count = 0; count < 3; count++) {
    package again = gatherer.next();
    EXPECT_EQ(netsupport::name(again), path("tmp/"));
    EXPECT_EQ(gatherer.get(again).headers[0].type, 1);
  }
  append("2 " + file + "\nend\n");
  EXPECT_EQ(gatherer.next().type, 0);
  EXPECT_EQ(gatherer.next().magic, PACK_EOL_MAGIC);
  EXPECT_EQ(gatherer.result(), 0);
}

TEST_F(SoundDialogue, AGeneratorAtWorkIsNoStepThatHangs) {
  net::timeouts.stepMs = 1200;
  beginList("");
  Gatherer gatherer(home, list, apart());
  gatherer.say("Next\n");
  base::sleepMs(1800);
  append("end\n");
  EXPECT_EQ(netsupport::unpacked(support::readBytes(gatherer.sd(), PACK_SIZE)).magic,
            PACK_EOL_MAGIC);
  EXPECT_EQ(gatherer.result(), 0);
}

TEST_F(SoundDialogue, APeerThatLeavesIsNoticedWhileTheListIsAwaited) {
  beginList("");
  Gatherer gatherer(home, list, apart());
  gatherer.say("Next\n");
  gatherer.hangUp();
  EXPECT_EQ(gatherer.result(), -1);
  EXPECT_EQ(statusLog(),
            "ERROR:  The peer closed the connection while the request list was being written\n");
}

TEST_F(SoundDialogue, TheListeningSocketIsClosedOnceSomebodyIsServed) {
  offer({file});
  Gatherer gatherer(home, list);
  gatherer.next();
  std::string sockets;
  for (auto &entry : fs::directory_iterator("/proc/" + std::to_string(gatherer.pid()) + "/fd")) {
    std::error_code gone;
    std::string target = fs::read_symlink(entry, gone).string();
    if (target.rfind("socket:", 0) == 0) sockets += "s";
  }
  // The data connection, and the test's own end of nothing else: the peer's end is made after the
  // fork.
  EXPECT_EQ(sockets, "s");
  gatherer.say("Quit\n");
  EXPECT_EQ(gatherer.result(), 0);
}

TEST(StimoHandler, DoesNothingWithoutADialogue) {
  EXPECT_EQ(support::captureStderr([] { stimo_handler(SIGALRM); }), "");
}

}  // namespace
