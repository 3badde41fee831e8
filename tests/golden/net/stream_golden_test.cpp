// The stream byte for byte as installed agents send it and expect it. The bytes are written by hand
// from docs/protocols/stream.md, not by the code under test.
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>
#include <zul/net.h>

#include <thread>

#include "base/alarm.h"
#include "base/fd.h"
#include "goldenbytes.h"
#include "support.h"

using support::assemble;
using support::hex;

namespace {

// "/var/log/syslog" of uid 1000, gid 4, mode 100640, of 3,145,733 bytes, its fourth header.
std::string fileHeader() {
  return assemble(520, {{0, hex("5a 75 4c 21 00 00 00")},
                        {7, "/var/log/syslog"},
                        {264, hex("00 00 03 e8")},
                        {268, hex("00 00 00 04")},
                        {272, hex("00 00 81 a0")},
                        {276, hex("65 53 f1 00")},
                        {280, hex("65 53 f1 3c")},
                        {284, hex("00 30 00 05")},
                        {288, hex("00 00 00 03")},
                        {292, hex("a5 a5 a5 a5")},
                        {296, hex("a5 a5 a5 a5")},
                        {304, hex("03 00 00 00 a5 a5 a5 a5 a5 a5 a5 a5")},
                        {316, "client7"}});
}

// "/dev/sda1" as a block device, number 8:1, seen by a host with the longest node name.
std::string deviceHeader() {
  return assemble(520, {{0, hex("5a 75 4c 21 00 00 04")},
                        {7, "/dev/sda1"},
                        {268, hex("00 00 00 06")},
                        {272, hex("00 00 61 b0")},
                        {276, hex("00 00 00 01")},
                        {280, hex("ff ff ff ff")},
                        {292, hex("00 00 08 01")},
                        {296, hex("a5 a5 a5 a5")},
                        {308, hex("01 08 00 00 a5 a5 a5 a5")},
                        {316, "abcdefghijklmnopqrstuvwxyz-abcdefghijklmnopqrstuvwxyz-abcdefghi"}});
}

// Five gigabytes: the low word of the size in network order, the high one in the sender's.
std::string largeHeader() {
  return assemble(520, {{0, hex("5a 75 4c 21 00 00 00")},
                        {7, "/big"},
                        {272, hex("00 00 81 80")},
                        {284, hex("40 00 00 00")},
                        {292, hex("a5 a5 a5 a5 a5 a5 a5 a5")},
                        {300, hex("01 00 00 00")},
                        {308, hex("a5 a5 a5 a5 a5 a5 a5 a5")},
                        {316, "h"}});
}

class StreamGolden : public support::HomeTest {
 protected:
  void TearDown() override {
    base::setAlarmTimer(0);
    HomeTest::TearDown();
  }
  package unpacked(std::string raw) {
    package header;
    memset(static_cast<void *>(&header), 0x77, sizeof header);
    unpackPackage(raw.data(), &header);
    return header;
  }
  std::string packed(package header) {
    std::string raw(520, '\x77');
    packPackage(raw.data(), &header);
    return raw;
  }
  // What sendFile sends of a file, which it says to be this long.
  std::string sent(std::string file, long length) {
    int sd[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sd), 0);
    std::string bytes;
    std::thread reader([&] {
      char buffer[65536];
      for (ssize_t got; (got = read(sd[1], buffer, sizeof buffer)) > 0;)
        bytes.append(buffer, static_cast<size_t>(got));
    });
    char *none[] = {nullptr, nullptr};
    EXPECT_EQ(sendFile(0, sd[0], file.data(), none), length);
    close(sd[0]);
    reader.join();
    close(sd[1]);
    return bytes;
  }
};

TEST_F(StreamGolden, AFileHeaderIsRead) {
  package header = unpacked(fileHeader());
  EXPECT_EQ(header.magic, 0x5a754c21u);
  EXPECT_EQ(header.squez, 0);
  EXPECT_EQ(header.version, 0);
  EXPECT_EQ(header.type, 0);
  EXPECT_STREQ(header.filename, "/var/log/syslog");
  EXPECT_EQ(header.usrid, 1000u);
  EXPECT_EQ(header.grpid, 4u);
  EXPECT_EQ(header.mode, 0100640u);
  EXPECT_EQ(header.mtime, 1700000000u);
  EXPECT_EQ(header.atime, 1700000060u);
  EXPECT_EQ(header.size, 3145733u);
  EXPECT_EQ(header.sequence, 3);
  EXPECT_EQ(static_cast<uint32_t>(header.unused1), 0xa5a5a5a5u);
  EXPECT_STREQ(header.fromhost, "client7");
}

TEST_F(StreamGolden, HeadersAreWrittenAsTheyWereRead) {
  EXPECT_EQ(packed(unpacked(fileHeader())), fileHeader());
  EXPECT_EQ(packed(unpacked(deviceHeader())), deviceHeader());
  soundSite();
  EXPECT_EQ(packed(unpacked(largeHeader())), largeHeader());
}

TEST_F(StreamGolden, ADeviceHeaderIsRead) {
  package header = unpacked(deviceHeader());
  EXPECT_EQ(header.type, 4);
  EXPECT_EQ(header.unused1, 0x0801);
  EXPECT_EQ(header.atime, 4294967295u);
  EXPECT_EQ(strlen(header.fromhost), 63u);
}

TEST_F(StreamGolden, ALargeFilesSizeHasTwoWords) {
  EXPECT_EQ(unpacked(largeHeader()).size, 0x40000000u);
  soundSite();
  EXPECT_EQ(unpacked(largeHeader()).size, 0x140000000u);
}

TEST_F(StreamGolden, ALinkIsItsHeaderAndItsTarget) {
  ASSERT_EQ(symlink("/usr/bin", path("tmp/bin").c_str()), 0);
  std::string bytes = sent(path("tmp/bin"), 520 + 9);
  ASSERT_EQ(bytes.size(), 529u);
  EXPECT_EQ(bytes.substr(0, 7), hex("5a 75 4c 21 00 00 02"));
  EXPECT_EQ(bytes.substr(7, path("tmp/bin").size() + 1), path("tmp/bin") + '\0');
  EXPECT_EQ(bytes.substr(272, 4), hex("00 00 a1 ff"));
  EXPECT_EQ(bytes.substr(284, 8), hex("00 00 00 09 00 00 00 00"));
  EXPECT_EQ(bytes.substr(520), hex("2f 75 73 72 2f 62 69 6e 00"));
}

TEST_F(StreamGolden, TwoMegabytesHaveThreeHeaders) {
  std::string content(2097152, 'A');
  content[1048575] = 'B';
  content[1048576] = 'C';
  support::writeFile(path("tmp/file"), content, 0600);
  for (const char *behaviour : {"classic", "sound"}) {
    site(std::string("behaviour = ") + behaviour + "\n");
    std::string bytes = sent(path("tmp/file"), 2098712);
    ASSERT_EQ(bytes.size(), 2098712u);
    for (size_t number = 0; number < 3; number++) {
      size_t at = number * 1049096;
      EXPECT_EQ(bytes.substr(at, 7), hex("5a 75 4c 21 00 00 00"));
      EXPECT_EQ(bytes.substr(at + 284, 7), hex("00 20 00 00 00 00 00"));
      EXPECT_EQ(bytes[at + 291], static_cast<char>(number));
      EXPECT_EQ(bytes[at + 304], static_cast<char>(number));
    }
    EXPECT_EQ(bytes[520], 'A');
    EXPECT_EQ(bytes[1049095], 'B');
    EXPECT_EQ(bytes[1049616], 'C');
  }
}

TEST_F(StreamGolden, AnEmptyFileIsOneHeader) {
  support::writeFile(path("tmp/file"), "");
  std::string bytes = sent(path("tmp/file"), 520);
  ASSERT_EQ(bytes.size(), 520u);
  EXPECT_EQ(bytes.substr(284, 8), hex("00 00 00 00 00 00 00 00"));
}

TEST_F(StreamGolden, TheEndOfAListIsItsMagic) {
  support::writeFile(path("tmp/list"), "end\n");
  int status = support::inChild([&] {
    int sd[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, sd) != 0) return 9;
    char *none[] = {nullptr, nullptr};
    if (write(sd[1], "Next\n", 5) != 5) return 8;
    int result = servHandshak(1, sd[0], path("tmp/list").c_str(), none);
    char raw[521];
    if (result != 0 || read(sd[1], raw, sizeof raw) != 520 || read(sd[1], raw + 520, 1) != 0)
      return 7;
    return memcmp(raw, "\x53\x74\x30\x50", 4) == 0 ? 0 : 6;
  });
  EXPECT_EQ(support::exitOf(status), 0);
}

}  // namespace
