// The bytes of the handshake and of records, computed by another implementation for fixed secrets.
// Agents of a site are brought up to date one by one: these bytes cannot change without the version
// in the hello.
#include <gtest/gtest.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include "scram/handshake.h"
#include "scram/stream.h"

namespace {

std::string hex(const void *bytes, size_t n) {
  std::string text(2 * n + 1, '\0');
  sodium_bin2hex(text.data(), text.size(), static_cast<const unsigned char *>(bytes), n);
  text.pop_back();
  return text;
}

std::string bytesOf(const std::string &text) {
  std::string bytes(text.size() / 2, '\0');
  EXPECT_EQ(sodium_hex2bin(reinterpret_cast<unsigned char *>(bytes.data()), bytes.size(),
                           text.data(), text.size(), nullptr, nullptr, nullptr),
            0);
  return bytes;
}

struct End {
  uint8_t secretKey[32], publicKey[32];
  scram::Hello hello;
  explicit End(uint8_t first) {
    for (int at = 0; at < 32; at++) secretKey[at] = static_cast<uint8_t>(first + at);
    crypto_scalarmult_base(publicKey, secretKey);
    scram::makeHello(siteKey(), publicKey, &hello);
  }
  static const uint8_t *siteKey() {
    static uint8_t key[32];
    for (int at = 0; at < 32; at++) key[at] = static_cast<uint8_t>(at);
    return key;
  }
};

constexpr char kHelloA[] =
    "5a554c637279310a358072d6365880d1aeea329adf9121383851ed21a28e3b75e965d0d2cd1662546fc415feb9dfd5"
    "5f98e9670f41306252e622eadb127224b078556f597e5f10e3";
constexpr char kHelloB[] =
    "5a554c637279310a79a631eede1bf9c98f12032cdeadd0e7a079398fc786b88cc846ec89af85a51ad8d02c0663cb39"
    "d7853219791160b2ab8c587449e1d0ae2cfe87f5f856a477b7";
constexpr char kSendA[] = "715cf896e16823ba5be69d95a27f9b1a06f6cd503cbb03d100e26441873511ba";
constexpr char kSendB[] = "56db2b54f9ed905f88d7a8b16c6c20caec8618eab98b6bd0d7bc0c9cbd24bc67";
constexpr char kProofA[] = "62852a0f541d07b5b2a9ac9df04c1084a0ec83d139b84e4e4487b72c3a171175";
constexpr char kProofB[] = "cf328ab9cf33dce5ea72651ef46e5a8a782c6371f9fc79c749ebd07932da0571";
constexpr char kHeader[] = "606162636465666768696a6b6c6d6e6f7071727374757677";
constexpr char kRecords[] =
    "00000016f862c50eb550c4f9be3509e6d8055d20a8d2927984e3"  // Next
    "000000152ce3254b451c7330255d5cdc805244ca6ea5579bdf"    // Get
    "0000001176468324a53083dbcc94cc7afd70108729";           // the end

TEST(GoldenEncryption, AHelloIsTheseBytes) {
  End a(0x20), b(0x40);
  EXPECT_EQ(hex(&a.hello, sizeof a.hello), kHelloA);
  EXPECT_EQ(hex(&b.hello, sizeof b.hello), kHelloB);
  EXPECT_TRUE(scram::isGenuine(End::siteKey(), a.hello));
}

TEST(GoldenEncryption, BothEndsDeriveTheseKeys) {
  End a(0x20), b(0x40);
  scram::SessionKeys ofA, ofB;
  ASSERT_TRUE(scram::agree(End::siteKey(), a.secretKey, a.hello, b.hello, &ofA));
  ASSERT_TRUE(scram::agree(End::siteKey(), b.secretKey, b.hello, a.hello, &ofB));
  EXPECT_EQ(hex(ofA.send, 32), kSendA);
  EXPECT_EQ(hex(ofA.receive, 32), kSendB);
  EXPECT_EQ(hex(ofA.ownProof, 32), kProofA);
  EXPECT_EQ(hex(ofA.peerProof, 32), kProofB);
  EXPECT_EQ(hex(ofB.send, 32), kSendB);
  EXPECT_EQ(hex(ofB.receive, 32), kSendA);
  EXPECT_EQ(hex(ofB.ownProof, 32), kProofB);
  EXPECT_EQ(hex(ofB.peerProof, 32), kProofA);
}

// A stream past its handshake, with one key and one header for both directions.
scram::Stream *openStream() {
  void *memory = mmap(nullptr, sizeof(scram::Stream), PROT_READ | PROT_WRITE,
                      MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  auto *stream = static_cast<scram::Stream *>(memory);
  std::string key = bytesOf(kSendA), header = bytesOf(kHeader);
  const auto *rawKey = reinterpret_cast<const unsigned char *>(key.data());
  const auto *rawHeader = reinterpret_cast<const unsigned char *>(header.data());
  crypto_secretstream_xchacha20poly1305_init_pull(&stream->in.cipher, rawHeader, rawKey);
  // The same state serves for sending: only the header would have been made at random.
  stream->out.cipher = stream->in.cipher;
  stream->stage = scram::Stage::open;
  return stream;
}

TEST(GoldenEncryption, RecordsAreTheseBytes) {
  scram::Stream *stream = openStream();
  int sd[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sd), 0);
  const uint8_t next[] = {'N', 'e', 'x', 't', '\n'}, get[] = {'G', 'e', 't', '\n'};
  EXPECT_EQ(scram::sendText(stream, sd[0], next, 5, 1000), scram::Outcome::done);
  EXPECT_EQ(scram::sendText(stream, sd[0], get, 4, 1000), scram::Outcome::done);
  scram::sendEnd(stream, sd[0]);
  std::string wire(200, '\0');
  ssize_t got = read(sd[1], wire.data(), wire.size());
  ASSERT_GT(got, 0);
  EXPECT_EQ(hex(wire.data(), static_cast<size_t>(got)), kRecords);
  close(sd[0]);
  close(sd[1]);
  munmap(stream, sizeof *stream);
}

TEST(GoldenEncryption, TheseBytesAreReadAsTheirText) {
  scram::Stream *stream = openStream();
  int sd[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sd), 0);
  std::string wire = bytesOf(kRecords);
  ASSERT_EQ(write(sd[1], wire.data(), wire.size()), static_cast<ssize_t>(wire.size()));
  uint8_t text[8] = {};
  size_t count;
  EXPECT_EQ(scram::nextRecord(stream, sd[0], text, sizeof text, &count, 1000),
            scram::Outcome::done);
  EXPECT_EQ(count, 5u);
  EXPECT_EQ(memcmp(text, "Next\n", 5), 0);
  EXPECT_EQ(scram::nextRecord(stream, sd[0], text, 3, &count, 1000), scram::Outcome::done);
  EXPECT_EQ(count, 0u);  // it did not fit: it is kept
  EXPECT_EQ(stream->textEnd, 4u);
  EXPECT_FALSE(stream->ended);
  EXPECT_EQ(scram::nextRecord(stream, sd[0], text, sizeof text, &count, 1000),
            scram::Outcome::ended);
  EXPECT_TRUE(stream->ended);
  close(sd[0]);
  close(sd[1]);
  munmap(stream, sizeof *stream);
}

}  // namespace
