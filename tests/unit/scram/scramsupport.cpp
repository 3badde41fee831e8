// The peer calls the cipher by itself and shares no code with the library's key agreement, so that
// a mistake in one is not in the other.
#include "scramsupport.h"

#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

namespace scramsupport {

void ScramTest::SetUp() {
  HomeTest::SetUp();
  ASSERT_GE(sodium_init(), 0);
  unsetenv("ZULHOME");
  giveKey(std::string(kSiteKey) + "\n");
  scram::timeouts = {5000, 5000};
}

void ScramTest::TearDown() {
  scram::timeouts = {60000, 30000};
  HomeTest::TearDown();
}

void ScramTest::giveKey(const std::string &text, mode_t mode) {
  unlink(path("etc/ZULkey").c_str());
  support::writeFile(path("etc/ZULkey"), text, mode);
}

std::string textOf(size_t n) {
  std::string text(n, '\0');
  uint32_t state = 12345;
  for (char &byte : text) {
    state = state * 1664525 + 1013904223;
    byte = static_cast<char>(state >> 24);
  }
  return text;
}

int put(int fd, const std::string &text) {
  return crywriten(fd, const_cast<char *>(text.data()), text.size());
}

std::string take(int fd, size_t n, int *result) {
  std::string text(n, '\0');
  int got = cryreadn(fd, text.data(), n);
  if (result) *result = got;
  return got == static_cast<int>(n) ? text : "";
}

std::string takeLine(int fd, size_t size, int *result) {
  std::string line(size, 'x');
  int got = cryreadnline(fd, line.data(), size);
  if (result) *result = got;
  return got >= 0 ? line.c_str() : "";
}

Pair::Pair() {
  int sd[2];
  EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sd), 0);
  near.reset(sd[0]);
  far.reset(sd[1]);
}

static std::string drain(int fd) {
  std::string text;
  char bytes[65536];
  for (ssize_t got; (got = recv(fd, bytes, sizeof bytes, MSG_DONTWAIT)) > 0;)
    text.append(bytes, static_cast<size_t>(got));
  return text;
}

void shakeHands(int near, int far) {
  scram::Timeouts kept = scram::timeouts;
  scram::timeouts = {0, 0};
  char byte;
  for (int round = 0; round < 3; round++) {
    EXPECT_EQ(cryreadn(near, &byte, 1), -2);
    EXPECT_EQ(cryreadn(far, &byte, 1), -2);
  }
  scram::timeouts = kept;
}

std::string Wire::fromNear() {
  return drain(first_.far.get());
}
std::string Wire::fromFar() {
  return drain(second_.near.get());
}
void Wire::toFar(const std::string &bytes) {
  sendRaw(second_.near.get(), bytes);
}
void Wire::toNear(const std::string &bytes) {
  sendRaw(first_.far.get(), bytes);
}
void Wire::endToFar() {
  shutdown(second_.near.get(), SHUT_WR);
}

void Wire::shakeHands() {
  scram::Timeouts kept = scram::timeouts;
  scram::timeouts = {0, 0};
  char byte;
  for (int round = 0; round < 3; round++) {
    EXPECT_EQ(cryreadn(near(), &byte, 1), -2);
    std::string said = fromNear();
    toFar(said);
    nearSaid += said;
    EXPECT_EQ(cryreadn(far(), &byte, 1), -2);
    said = fromFar();
    toNear(said);
    farSaid += said;
  }
  scram::timeouts = kept;
}

HandPeer::HandPeer(int descriptor, const std::string &siteKey) : fd(descriptor) {
  EXPECT_EQ(sodium_hex2bin(site, 32, siteKey.data(), 64, nullptr, nullptr, nullptr), 0);
  randombytes_buf(secretKey, sizeof secretKey);
  randombytes_buf(header_, sizeof header_);
  crypto_scalarmult_base(publicKey, secretKey);
}

static std::string hashed(const std::string &text, const unsigned char *key) {
  std::string hash(32, '\0');
  crypto_generichash(reinterpret_cast<unsigned char *>(hash.data()), 32,
                     reinterpret_cast<const unsigned char *>(text.data()), text.size(), key, 32);
  return hash;
}

static std::string bytesOf(const unsigned char *bytes, size_t n) {
  return std::string(reinterpret_cast<const char *>(bytes), n);
}

static const unsigned char *raw(const std::string &text) {
  return reinterpret_cast<const unsigned char *>(text.data());
}

std::string HandPeer::hello() const {
  std::string head = "ZULcry1\n" + bytesOf(publicKey, 32);
  return head + hashed(head, site);
}

bool HandPeer::hear(const std::string &peerHello) {
  if (peerHello.size() != 72 || hashed(peerHello.substr(0, 40), site) != peerHello.substr(40))
    return false;
  std::string own = bytesOf(publicKey, 32), peer = peerHello.substr(8, 32);
  unsigned char shared[32];
  if (crypto_scalarmult(shared, secretKey, raw(peer)) != 0) return false;
  bool lower = own < peer;
  std::string master =
      hashed("ZULkeys1" + bytesOf(shared, 32) + (lower ? own + peer : peer + own), site);
  crypto_kdf_derive_from_key(send_, 32, lower ? 1 : 2, "ZULcry1", raw(master));
  crypto_kdf_derive_from_key(receive_, 32, lower ? 2 : 1, "ZULcry1", raw(master));
  crypto_kdf_derive_from_key(ownProof_, 32, lower ? 3 : 4, "ZULcry1", raw(master));
  crypto_kdf_derive_from_key(peerProof_, 32, lower ? 4 : 3, "ZULcry1", raw(master));
  crypto_secretstream_xchacha20poly1305_init_push(&out_, header_, send_);
  return true;
}

std::string HandPeer::proof() const {
  return bytesOf(ownProof_, 32) + bytesOf(header_, 24);
}

bool HandPeer::check(const std::string &peerProof) {
  if (peerProof.size() != 56 || peerProof.substr(0, 32) != bytesOf(peerProof_, 32)) return false;
  return crypto_secretstream_xchacha20poly1305_init_pull(&in_, raw(peerProof) + 32, receive_) == 0;
}

bool HandPeer::shakeHands() {
  sendRaw(fd, hello());
  if (!hear(readRaw(fd, 72))) return false;
  sendRaw(fd, proof());
  return check(readRaw(fd, 56));
}

std::string HandPeer::record(const std::string &text, unsigned char tag) {
  std::string sealed(text.size() + 17, '\0');
  crypto_secretstream_xchacha20poly1305_push(&out_,
                                             reinterpret_cast<unsigned char *>(sealed.data()),
                                             nullptr, raw(text), text.size(), nullptr, 0, tag);
  std::string length(4, '\0');
  for (int at = 0; at < 4; at++) length[at] = static_cast<char>(sealed.size() >> (24 - 8 * at));
  return length + sealed;
}

std::string HandPeer::open(const std::string &sealed, unsigned char *tag) {
  std::string text(sealed.size() - 17, '\0');
  bool genuine = crypto_secretstream_xchacha20poly1305_pull(
                     &in_, reinterpret_cast<unsigned char *>(text.data()), nullptr, tag,
                     raw(sealed), sealed.size(), nullptr, 0) == 0;
  EXPECT_TRUE(genuine);
  return text;
}

void sendRaw(int fd, const std::string &bytes) {
  EXPECT_EQ(send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
}

std::string readRaw(int fd, size_t n) {
  std::string text(n, '\0');
  size_t at = 0;
  for (ssize_t got; at < n && (got = read(fd, text.data() + at, n - at)) > 0;)
    at += static_cast<size_t>(got);
  text.resize(at);
  return text;
}

}  // namespace scramsupport
