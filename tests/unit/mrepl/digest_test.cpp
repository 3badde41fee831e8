// The digest and the records of a run: what is packed and what is put together must agree.
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zul/tape.h>

#include "base/fd.h"
#include "base/hash.h"
#include "mrepl/packed.h"
#include "mrepl/received.h"
#include "mrepl/restoring.h"
#include "mrepl/run.h"
#include "mrepl/sent.h"
#include "runsupport.h"

namespace {

// The value of a member of a record, as it stands there.
std::string member(const std::string &record, const std::string &key) {
  size_t at = record.find("\"" + key + "\":");
  if (at == record.npos) return "none";
  at += key.size() + 3;
  return record.substr(at, record.find_first_of(",}\n", at) - at);
}

uint64_t hashOf(const std::string &bytes) {
  base::Hash hash;
  EXPECT_TRUE(hash.begin()) << "libxxhash.so.0 is wanted";
  hash.add(bytes.data(), bytes.size());
  return hash.value();
}

std::string eight(uint64_t value) {
  std::string bytes;
  for (int shift = 56; shift >= 0; shift -= 8) bytes += static_cast<char>(value >> shift);
  return bytes;
}

// The digest written out by hand.
struct Digest {
  std::string bytes;
  void add(const std::string &name, char type, uint64_t size, uint64_t content) {
    bytes += name + '\0' + type + eight(size) + eight(content);
  }
  std::string text() const {
    char text[24];
    snprintf(text, sizeof text, "\"%016llx\"", static_cast<unsigned long long>(hashOf(bytes)));
    return text;
  }
};

class Records : public mtest::SenderTest {
 protected:
  void SetUp() override {
    SenderTest::SetUp();
    soundSite();
    mrepl::runWord = mrepl::kReports | 0x1234u << 16;
    base::storeWord(ctrl->senderState, mrepl::kRunning);
    job.filePerms = 4096 + 8192 + 16384;
    job.dirPerms = 4096 + 8192 + 16384;
    prefix = path("inbox");
    job.prefix = prefix.data();
    mkdir(path("var/tape").c_str(), 0755);
    mkdir(path("var/tape/mrepljobs").c_str(), 0755);
    mkdir(path("tree").c_str(), 0755);
  }
  void TearDown() override {
    mrepl::packed.end();
    SenderTest::TearDown();
  }
  std::string sentRecord() { return support::readFile(path("var/tape/mrepljobs/sent.json")); }
  std::string receivedRecord() {
    return support::readFile(path("var/tape/mrepljobs/received.json"));
  }
  // Packs a request, the tree where there is none; the sender's record.
  std::string pack(std::string wanted = "") {
    mrepl::sent.begin(5);
    if (wanted.empty()) wanted = path("tree") + "/";
    strNode last{}, list{wanted.data(), &last};
    job.requestList = list;
    EXPECT_EQ(dataPacker(&job), 0);
    setFileList(nullptr, 0);
    setFileList(nullptr, 1);
    receivers.begin();
    receivers.expect("h2", 0x0100007f, 0);
    mrepl::sent.look(receivers, 10000);
    return sentRecord();
  }
  // Puts together what is packed, but for the headers of a name; the receiver's record.
  std::string putTogether(const std::string &without = "") {
    mrepl::received.begin();
    mrepl::beginRestoring();
    bool leaving = false;
    for (uint64_t at = 1; at < mrepl::filledOf(*ctrl); at++) {
      mslot slot = ring[at];
      slot.seg.control = unpackul(&slot.seg.control) | 0x1234u << 16 | mrepl::kReports;
      auto *head = reinterpret_cast<mfilehead *>(slot.seg.payload);
      if ((slot.seg.control & mrepl::kHead) != 0)
        leaving = !without.empty() && std::string(head->name).find(without) != std::string::npos;
      if (!leaving) fileExtractor(&slot);
    }
    mrepl::endRestoring();
    mrepl::received.finish(true);
    return receivedRecord();
  }
  MreplJobData job{};
  std::string prefix;
  mrepl::Receivers receivers{};
};

TEST_F(Records, BothSidesMakeTheSameDigestOfATree) {
  for (size_t length : {0, 1, 687, 688, 689, 1023, 1024, 1025, 4096, 4097, 70000})
    support::writeFile(path("tree/f" + std::to_string(length)), std::string(length, 'x'));
  mkdir(path("tree/d").c_str(), 0750);
  ASSERT_EQ(symlink("nowhere", path("tree/d/link").c_str()), 0);
  ASSERT_EQ(mkfifo(path("tree/pipe").c_str(), 0600), 0);
  std::string sent = pack(), received = putTogether();
  EXPECT_EQ(member(received, "state"), "\"complete\"");
  EXPECT_EQ(member(sent, "digest").size(), 18u) << sent;
  for (const char *key : {"digest", "files", "bytes"})
    EXPECT_EQ(member(sent, key), member(received, key)) << key << received;
  EXPECT_EQ(member(sent, "unsent"), "0") << "nobody wants a pipe";
  EXPECT_EQ(member(sent, "run"), member(received, "run"));
  EXPECT_EQ(support::readFile(path("inbox") + path("tree/f70000")), std::string(70000, 'x'));
}

TEST_F(Records, TheDigestIsTheOneThatIsDescribed) {
  std::string large(5000, 'y'), root = path("tree");
  support::writeFile(path("tree/f"), large);
  Digest byHand;
  std::string ancestors = root.substr(0, root.rfind('/'));
  for (size_t slash = ancestors.find('/', 1);; slash = ancestors.find('/', slash + 1)) {
    byHand.add(prefix + "/" + ancestors.substr(0, slash), 2, 0, 0);
    if (slash == ancestors.npos) break;
  }
  byHand.add(prefix + "/" + root, 2, 0, 0);
  byHand.add(prefix + "/" + root + "/f", 1, large.size(), hashOf(large));
  EXPECT_EQ(member(pack(), "digest"), byHand.text());
  EXPECT_EQ(member(putTogether(), "digest"), byHand.text());
}

TEST_F(Records, LinksCountWithTheirTargets) {
  ASSERT_EQ(symlink("one", path("tree/link").c_str()), 0);
  std::string one = member(pack(), "digest");
  EXPECT_EQ(member(putTogether(), "digest"), one);
  unlink(path("tree/link").c_str());
  ASSERT_EQ(symlink("two", path("tree/link").c_str()), 0);
  mrepl::storeNumber(ctrl->filledHigh, ctrl->filledLow, 0);
  EXPECT_NE(member(pack(), "digest"), one);
}

TEST_F(Records, WhatIsNotThereIsMissingInTheDigest) {
  support::writeFile(path("tree/a"), "a");
  support::writeFile(path("tree/b"), "b");
  std::string sent = pack(), received = putTogether("tree/a");
  EXPECT_NE(member(received, "digest"), member(sent, "digest"));
  EXPECT_EQ(stoi(member(sent, "files")), stoi(member(received, "files")) + 1);
}

TEST_F(Records, AFileThatCannotBeMadeIsNamedAndIsNoEntry) {
  support::writeFile(path("tree/a"), "a");
  support::writeFile(path("tree/b"), "b");
  // A folder that is not empty stands in its place.
  std::string place = path("inbox") + path("tree/a");
  ASSERT_EQ(rmkdir((place + "/full").c_str(), 0755), 0);
  std::string sent = pack(), received = putTogether();
  EXPECT_EQ(member(received, "state"), "\"incomplete\"");
  EXPECT_EQ(member(received, "failed"), "1");
  EXPECT_NE(received.find("\n{\"name\":\"" + path("inbox")), std::string::npos)
      << "on a line of its own: " << received;
  EXPECT_EQ(member(received, "reachedEnd"), "true");
  EXPECT_NE(member(received, "digest"), member(sent, "digest"));
}

TEST_F(Records, TheSenderNamesWhatItCannotSend) {
  support::writeFile(path("tree/good"), "g");
  std::string name(240, 'n');
  support::writeFile(path("tree/" + name), "too long under the prefix");
  std::string sent = pack();
  EXPECT_EQ(member(sent, "unsent"), "1") << sent;
  EXPECT_NE(sent.find(name + "\",\"error\":\"its name or its size does not fit"),
            std::string::npos);
  EXPECT_EQ(member(sent, "packed"), "true");
  EXPECT_EQ(member(putTogether(), "digest"), member(sent, "digest"));
}

TEST_F(Records, TheSenderNamesWhatAJobAsksForInVain) {
  for (const char *end : {"", "/"}) {
    std::string sent = pack(path("nowhere") + end);
    EXPECT_EQ(member(sent, "unsent"), "1") << sent;
    EXPECT_NE(
        sent.find("{\"name\":\"" + path("nowhere") + "\",\"error\":\"No such file or directory\"}"),
        std::string::npos)
        << sent;
    mrepl::storeNumber(ctrl->filledHigh, ctrl->filledLow, 0);
  }
  EXPECT_TRUE(mtest::has(hostLog(), "NOTICE:  Cannot find requested path " + path("nowhere")));
}

TEST_F(Records, TheSenderNamesAFolderThatItCannotList) {
  support::writeFile(path("tree/f"), "x");
  mrepl::sent.begin(5);
  std::string tree = path("tree");
  long total = 0;
  strNode found{};
  addToIncList(1, &found);
  // No descriptor is left for it.
  rlimit all;
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &all), 0);
  rlimit none{0, all.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  int result = scanDirectory(tree.data(), &total, 0);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &all), 0);
  EXPECT_EQ(result, 0);
  mrepl::sent.look(receivers, 10000);
  EXPECT_EQ(member(sentRecord(), "unsent"), "1") << sentRecord();
  EXPECT_NE(sentRecord().find("{\"name\":\"" + tree + "\",\"error\":\"Too many open files\"}"),
            std::string::npos);
  ASSERT_NE(found.next, nullptr);
  free(found.text);
  free(found.next);
  strNode empty{};
  addToIncList(1, &empty);
}

TEST_F(Records, TheSendersRecordHasTheWholeNameOfAHost) {
  std::string name(253, 'h');
  receivers.begin();
  receivers.expect(name.c_str(), 0x0100007f, 0);
  mrepl::sent.begin(5);
  mrepl::sent.look(receivers, 10000);
  EXPECT_NE(sentRecord().find("{\"host\":\"" + name + "\","), std::string::npos) << sentRecord();
}

TEST_F(Records, ARunThatIsRefusedLeavesTheRecordOfTheOneThatGoesOn) {
  support::writeFile(path("var/tape/mrepljobs/mrepjob.-99"), "Request: /etc/hosts\n");
  support::writeFile(path("var/tape/mrepljobs/sent.json"), "of another");
  alone([this] {
    sockaddr_in address;
    base::Fd busy(mkUDPListenerSocket(MR_REQ_PORT, &address));
    EXPECT_TRUE(busy);
    support::captureStderr([] { EXPECT_EQ(mreplstart(-99), 0); });
  });
  EXPECT_EQ(sentRecord(), "of another");
}

TEST_F(Records, TheSendersRecordTellsOfTheHosts) {
  std::string sent = pack();
  EXPECT_EQ(member(sent, "job"), "5");
  EXPECT_EQ(member(sent, "state"), "\"running\"");
  EXPECT_NE(sent.find("{\"host\":\"h2\",\"address\":\"127.0.0.1\",\"state\":\"waiting\""),
            std::string::npos)
      << sent;
  mrepl::sent.look(receivers, 10100);
  mrepl::sent.finish(receivers, true);
  EXPECT_EQ(member(sentRecord(), "state"), "\"done\"");
  EXPECT_NE(member(sentRecord(), "ended"), "0");
}

TEST_F(Records, AReceiverThatIsKilledHasSaidWhichRunItWasIn) {
  support::writeFile(path("tree/a"), "a");
  pack();
  mrepl::received.begin();
  EXPECT_EQ(member(receivedRecord(), "run"), "0");
  mrepl::received.noteRun(0x1234u << 16);
  EXPECT_EQ(member(receivedRecord(), "run"), std::to_string(0x1234));
  EXPECT_EQ(member(receivedRecord(), "state"), "\"running\"");
}

// As one whose sender was killed, and which waits for it still when the next run comes.
TEST_F(Records, AReceiverOfAnEarlierRunLeavesTheRecordOfALaterOne) {
  mrepl::Received early;
  early.begin();
  early.noteRun(0x1111u << 16);
  EXPECT_EQ(member(receivedRecord(), "run"), std::to_string(0x1111));
  mrepl::received.begin();
  mrepl::received.noteRun(0x2222u << 16);
  mrepl::received.finish(true);
  early.finish(false);
  EXPECT_EQ(member(receivedRecord(), "run"), std::to_string(0x2222));
  EXPECT_EQ(member(receivedRecord(), "state"), "\"complete\"");
}

TEST_F(Records, ClassicRunsKeepNone) {
  site("");
  mrepl::runWord = 0;
  mrepl::sent.begin(5);
  mrepl::sent.finish(receivers, true);
  mrepl::received.begin();
  mrepl::received.finish(true);
  EXPECT_FALSE(support::exists(path("var/tape/mrepljobs/sent.json")));
  EXPECT_FALSE(support::exists(path("var/tape/mrepljobs/received.json")));
}

}  // namespace
