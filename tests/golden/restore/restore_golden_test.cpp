// A restore as it always went: from the volume list of two hosts, over the tape's blocks, to a file
// in place. Lists and bytes are written by hand from docs/formats and docs/protocols, not by the
// code under test.
#include <fcntl.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zul/net.h>
#include <zul/tape.h>

#include <thread>

#include "goldenbytes.h"
#include "support.h"

using support::assemble;
using support::hex;

namespace {

constexpr size_t kMegabyte = 1048576;

// A header of 2001-09-09 01:46:40 UTC, of owner 0x1234 and group 0x5678.
std::string header(const char *host, const char *name, const char *kind, const char *mode,
                   const char *size, const char *sequence) {
  return assemble(520, {{0, "ZuL!"},
                        {6, hex(kind)},
                        {7, name},
                        {264, hex("00 00 12 34 00 00 56 78")},
                        {272, hex(mode)},
                        {276, hex("3b 9a ca 00 3b 9a ca 00")},
                        {284, hex(size)},
                        {288, hex("00 00 00") + hex(sequence)},
                        {292, hex("a5 a5 a5 a5 a5 a5 a5 a5")},
                        {304, hex(sequence) + hex("00 00 00 a5 a5 a5 a5 a5 a5 a5 a5")},
                        {316, host}});
}

std::string folder(const char *host, const char *name) {
  return header(host, name, "01", "00 00 41 e8", "00 00 00 00", "00");
}
std::string file(const char *host, const char *name, const char *size, const char *sequence) {
  return header(host, name, "00", "00 00 81 a0", size, sequence);
}

// What lies between two tape marks: alpha and beta were gathered at once. "/etc/big" has two
// megabytes and 5 bytes, so it takes three packages; short blocks are filled up to 512 bytes.
const char *kVolumeList =
    "0:alpha:0:/etc/\n"
    "0:beta:0:/etc/\n"
    "0:alpha:0:/etc/big\n"
    "0:beta:0:/etc/b\n"
    "0:alpha:1:/etc/big\n"
    "0:alpha:2:/etc/big\n"
    "0:alpha:0:/etc/c\n";

std::string tapeFile() {
  std::string filled = std::string("three") + std::string(507, '#');
  return folder("alpha", "/etc/") + folder("beta", "/etc/") +
         file("alpha", "/etc/big", "00 20 00 05", "00") + std::string(kMegabyte, '1') +
         file("beta", "/etc/b", "00 00 00 04", "00") + "beta" + std::string(508, '#') +
         file("alpha", "/etc/big", "00 20 00 05", "01") + std::string(kMegabyte, '2') +
         file("alpha", "/etc/big", "00 20 00 05", "02") + filled +
         file("alpha", "/etc/c", "00 00 00 00", "00");
}

std::string endOfList() {
  return assemble(520, {{0, "St0P"}});
}

class Golden : public support::HomeTest {
 protected:
  void SetUp() override {
    HomeTest::SetUp();
    site("pause.receiver-start = 0\npause.receiver-ready = 0\n");
  }

  std::string listFor(const char *entries) {
    support::writeFile(path("index"), entries);
    support::writeFile(path("volume"), kVolumeList);
    EXPECT_EQ(mkRestoreList(path("index").data(), path("volume").data(), path("list").data()), 0);
    return support::readFile(path("list"));
  }
};

TEST_F(Golden, TheListOfEverythingNamesEachPackageOfTheFirstHostOnce) {
  EXPECT_EQ(listFor("0\n"), "/etc/\n/etc/big\n/etc/big\n/etc/big\n/etc/c\n");
  // The second number matches nothing: what the first one has selected is a folder and what follows
  // below it.
  EXPECT_EQ(listFor("0\n7\n"), "/etc/\n/etc/big\n/etc/big\n/etc/big\n/etc/c\n");
  EXPECT_EQ(listFor("5\n2\n5\n"), "");
}

std::string hear(int sd, size_t wanted) {
  if (wanted == 0) return "";  // even of nothing a read waits for something
  std::string bytes(wanted, '\0');
  ssize_t got = recv(sd, bytes.data(), wanted, MSG_WAITALL);
  bytes.resize(got > 0 ? static_cast<size_t>(got) : 0);
  return bytes;
}

TEST_F(Golden, TheTapeHostAnswersPackageByPackage) {
  support::writeFile(path("list"), "/etc/\n/etc/big\n/etc/big\n/etc/big\n/etc/c\n");
  support::writeFile(path("tape"), tapeFile());
  int status = support::inChild([&] {
    support::ownNetwork();
    int port = ZULSRV_PORT;
    int listener = support::listenOn(port);
    std::string heard;
    std::thread receiver([&] {
      int sd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
      for (size_t length : {size_t{0}, kMegabyte, kMegabyte, size_t{5}, size_t{0}}) {
        (void)!write(sd, "Next\n", 5);
        heard += hear(sd, 520);
        (void)!write(sd, "Get\n", 4);
        heard += hear(sd, length);
      }
      (void)!write(sd, "Next\n", 5);
      heard += hear(sd, 521);  // nothing comes behind the end
      close(sd);
    });
    int tape = open(path("tape").c_str(), O_RDONLY | O_CLOEXEC);
    int result = 1;
    support::captureStderr(
        [&] { result = restoreServ(tape, "127.0.0.1", "/any", path("list").c_str()); });
    receiver.join();
    close(tape);
    close(listener);
    std::string wanted =
        folder("alpha", "/etc/") + file("alpha", "/etc/big", "00 20 00 05", "00") +
        std::string(kMegabyte, '1') + file("alpha", "/etc/big", "00 20 00 05", "01") +
        std::string(kMegabyte, '2') + file("alpha", "/etc/big", "00 20 00 05", "02") + "three" +
        file("alpha", "/etc/c", "00 00 00 00", "00") + endOfList();
    if (result != 0) return 1;
    return heard == wanted ? 0 : 2;
  });
  EXPECT_EQ(support::exitOf(status), 0);
}

TEST_F(Golden, TheReceiverAsksPackageByPackageAndPutsTheFileTogether) {
  mkdir(path("dest").c_str(), 0755);
  int port = 0;
  int listener = support::listenOn(port);
  std::string asked;
  std::thread tapeHost([&] {
    int sd = support::dial(port);
    const std::pair<std::string, std::string> answers[] = {
        {folder("alpha", "/etc/"), ""},
        {file("alpha", "/etc/big", "00 20 00 05", "00"), std::string(kMegabyte, '1')},
        {file("alpha", "/etc/big", "00 20 00 05", "01"), std::string(kMegabyte, '2')},
        {file("alpha", "/etc/big", "00 20 00 05", "02"), "three"},
        {endOfList(), ""},
    };
    for (const auto &[first, content] : answers) {
      asked += hear(sd, 5);
      (void)!send(sd, first.data(), first.size(), MSG_NOSIGNAL);
      if (first[0] == 'S') break;
      asked += hear(sd, 4);
      (void)!send(sd, content.data(), content.size(), MSG_NOSIGNAL);
    }
    asked += hear(sd, 1);
    close(sd);
  });
  int result = 1;
  std::string root = path("dest");
  support::captureStderr([&] { result = restHandShk(listener, root.data(), 4); });
  tapeHost.join();
  EXPECT_EQ(result, 0);
  EXPECT_EQ(asked, "Next\nGet\nNext\nGet\nNext\nGet\nNext\nGet\nNext\n");
  EXPECT_TRUE(support::readFile(path("dest/etc/big")) ==
              std::string(kMegabyte, '1') + std::string(kMegabyte, '2') + "three");
  struct stat found;
  ASSERT_EQ(stat(path("dest/etc/big").c_str(), &found), 0);
  EXPECT_EQ(found.st_mode, 0100640u);
  EXPECT_EQ(found.st_uid, 0x1234u);
  EXPECT_EQ(found.st_gid, 0x5678u);
  EXPECT_EQ(found.st_mtime, 1000000000);
  ASSERT_EQ(stat(path("dest/etc").c_str(), &found), 0);
  EXPECT_EQ(found.st_mode, 040750u);
}

}  // namespace
