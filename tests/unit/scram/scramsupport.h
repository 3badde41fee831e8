// What the tests of the encryption library share: a home with a key, lowered time-outs, a wire that
// can be tampered with, and a peer that is another implementation of the protocol.
#pragma once
#include <sodium.h>

#include <string>

#include "base/fd.h"
#include "scram/scram.h"
#include "support.h"

namespace scramsupport {

constexpr char kSiteKey[] = "000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f";

class ScramTest : public support::HomeTest {
 protected:
  void SetUp() override;
  void TearDown() override;
  void giveKey(const std::string &text, mode_t mode = 0600);
};

// Bytes without a pattern that a mistake in their order would keep.
std::string textOf(size_t n);

// The calls, with strings. take gives nothing unless all n bytes came; result has the call's
// result.
int put(int fd, const std::string &text);
std::string take(int fd, size_t n, int *result = nullptr);
std::string takeLine(int fd, size_t size = 512, int *result = nullptr);

struct Pair {
  base::Fd near, far;
  Pair();
};

// Both ends of one stream in this process: each is asked in turn, so that neither waits.
void shakeHands(int near, int far);

// Near end - tampering hands - far end. Bytes move only when a test moves them.
class Wire {
 public:
  int near() const { return first_.near.get(); }
  int far() const { return second_.far.get(); }
  std::string fromNear();  // what near has sent since
  std::string fromFar();
  void toFar(const std::string &bytes);
  void toNear(const std::string &bytes);
  void endToFar();  // the far end sees the end of the stream
  // The handshake, untouched. What each end has sent for it is kept.
  void shakeHands();
  std::string nearSaid, farSaid;

 private:
  Pair first_, second_;
};

// Speaks the protocol by the primitives alone, on a descriptor whose other end the library has.
class HandPeer {
 public:
  HandPeer(int fd, const std::string &siteKey = kSiteKey);
  // The steps of the handshake.
  std::string hello() const;
  bool hear(const std::string &peerHello);  // false for one that this peer refuses
  std::string proof() const;
  bool check(const std::string &peerProof);
  // All of them.
  bool shakeHands();
  // A record with any tag, and one as the other end sent it.
  std::string record(const std::string &text, unsigned char tag = 0);
  std::string open(const std::string &sealed, unsigned char *tag);

  int fd;
  unsigned char site[32], secretKey[32], publicKey[32];

 private:
  unsigned char send_[32], receive_[32], ownProof_[32], peerProof_[32], header_[24];
  crypto_secretstream_xchacha20poly1305_state out_, in_;
};

void sendRaw(int fd, const std::string &bytes);
std::string readRaw(int fd, size_t n);

}  // namespace scramsupport
