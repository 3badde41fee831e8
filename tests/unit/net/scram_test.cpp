// The encryption switch, the hooks, and streams that run through them.
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "net/stream.h"
#include "netsupport.h"

namespace {

class Scram : public netsupport::NetTest {
 protected:
  void SetUp() override {
    NetTest::SetUp();
    unsetenv("FAKE_SCRAM_CALLS");
  }
  // The tests run in children: a library that was loaded once stays for the life of a process.
  void install(const char *library) {
    ASSERT_EQ(symlink(library, path("bin/libscram.so").c_str()), 0);
  }
};

TEST_F(Scram, TheSwitchStartsOffAndAnswersQuestions) {
  EXPECT_EQ(shouldEncrypt(2), 0);
  EXPECT_EQ(shouldEncrypt(1), 1);
  EXPECT_EQ(shouldEncrypt(5), 1);
  EXPECT_EQ(shouldEncrypt(-1), 1);
  EXPECT_EQ(shouldEncrypt(0), 0);
  EXPECT_EQ(shouldEncrypt(2), 0);
}

TEST_F(Scram, NeedsTheKeyAndTheLibrary) {
  EXPECT_EQ(hasScram(), 0);
  support::writeFile(path("etc/ZULkey"), "k");
  EXPECT_EQ(hasScram(), 0);
  ASSERT_EQ(symlink("nowhere", path("bin/libscram.so").c_str()), 0);
  EXPECT_EQ(hasScram(), 1);  // that it is there is all that is asked
  unlink(path("etc/ZULkey").c_str());
  EXPECT_EQ(hasScram(), 0);
}

TEST_F(Scram, HandsOutNoHookWhileItIsOff) {
  install(FAKE_SCRAM);
  for (int type : {0, 1, 2, 3, 4}) EXPECT_EQ(getScramPtrs(type), nullptr);
}

TEST_F(Scram, WithoutALibraryEveryTransferFails) {
  shouldEncrypt(1);
  char byte = 0;
  std::string printed = support::captureStderr([&] { EXPECT_EQ(writen(-1, &byte, 1), -9); });
  EXPECT_EQ(printed.substr(0, 17), "ERROR: DLerror:  ");
  EXPECT_NE(printed.find("libscram.so"), std::string::npos);
  EXPECT_EQ(printed.back(), '\n');
  support::captureStderr([&] {
    EXPECT_EQ(readn(-1, &byte, 1), -9);
    EXPECT_EQ(readnline(-1, &byte, 1), -9);
    EXPECT_EQ(writen(-1, &byte, 0), -9);
    EXPECT_EQ(readn(-1, &byte, 0), -9);
    for (int type : {1, 2, 3}) EXPECT_EQ(getScramPtrs(type), nullptr);
  });
}

TEST_F(Scram, AnIncompleteLibraryGivesNoHookAtAll) {
  install(HALF_SCRAM);
  int status = support::inChild([&] {
    shouldEncrypt(1);
    bool none = true;
    std::string printed = support::captureStderr([&] {
      for (int type : {1, 2, 3, 4}) none = none && getScramPtrs(type) == nullptr;
    });
    bool said = printed.find("ERROR: ") == 0 && printed.find("cryreadn") != std::string::npos;
    return none && said ? 0 : 1;
  });
  EXPECT_EQ(support::exitOf(status), 0);
}

TEST_F(Scram, HandsOutOneHookForEachKindOfTransfer) {
  install(FAKE_SCRAM);
  int status = support::inChild([&] {
    shouldEncrypt(1);
    scramfn read = getScramPtrs(1), write = getScramPtrs(2), line = getScramPtrs(3);
    bool three = read && write && line && read != write && write != line && read != line;
    return three && !getScramPtrs(4) && !getScramPtrs(0) ? 0 : 1;
  });
  EXPECT_EQ(support::exitOf(status), 0);
}

TEST_F(Scram, TransfersGoThroughTheHooksWithTheirArguments) {
  install(FAKE_SCRAM);
  int status = support::inChild([&] {
    shouldEncrypt(1);
    netsupport::Pair pair;
    char text[8];
    if (writen(pair.near.get(), "abc\nZ", 5) != 5) return 1;
    if (readnline(pair.far.get(), text, sizeof text) != 4 || strcmp(text, "abc\n") != 0) return 2;
    pair.near.reset();
    if (readn(pair.far.get(), text, 2) != -77) return 3;  // an int, widened
    return strcmp(getenv("FAKE_SCRAM_CALLS"), "w5 l8 r2 ") == 0 ? 0 : 4;
  });
  EXPECT_EQ(support::exitOf(status), 0);
}

// The calls that a header of 520 bytes and 20,000 bytes behind it become.
std::string callsOfWriteBoth() {
  base::Fd sink(open("/dev/null", O_WRONLY | O_CLOEXEC));
  std::string head(520, 'h'), data(20000, 'd');
  size_t done;
  bool all = net::writeBoth(sink.get(), head.data(), head.size(), data.data(), data.size(), &done);
  return all && done == 20520 ? getenv("FAKE_SCRAM_CALLS") : "";
}

TEST_F(Scram, SealedContentsKeepThePiecesTheyAreReadIn) {
  install(FAKE_SCRAM);
  int status = support::inChild([&] {
    shouldEncrypt(1);
    return callsOfWriteBoth() == "w520 w8192 w8192 w3616 " ? 0 : 1;
  });
  EXPECT_EQ(support::exitOf(status), 0);
}

TEST_F(Scram, OnASoundSiteContentsAreHandedOverWhole) {
  install(FAKE_SCRAM);
  soundSite();
  int status = support::inChild([&] {
    shouldEncrypt(1);
    return callsOfWriteBoth() == "w520 w20000 " ? 0 : 1;
  });
  EXPECT_EQ(support::exitOf(status), 0);
}

}  // namespace
