// Somebody on the way, or on the other end, who must get nothing and change nothing: an error is
// the most he can do.
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "scramsupport.h"

namespace {

using scramsupport::HandPeer;
using scramsupport::Pair;
using scramsupport::put;
using scramsupport::sendRaw;
using scramsupport::take;
using scramsupport::takeLine;
using scramsupport::Wire;

constexpr size_t kHello = 72, kProof = 56;
constexpr char kAnother[] = "ff0102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f";

class Attack : public scramsupport::ScramTest {
 protected:
  void SetUp() override {
    ScramTest::SetUp();
    // Nobody answers in most of these tests.
    scram::timeouts = {0, 0};
  }

  // What the far end makes of bytes: nothing but failures, also when it is asked again.
  void refused(int far) {
    for (int call = 0; call < 3; call++) {
      int result;
      EXPECT_EQ(take(far, 5, &result), "");
      EXPECT_EQ(result, -4);
      takeLine(far, 16, &result);
      EXPECT_EQ(result, -3);
    }
  }
  // The same, saying why once.
  void refusedSaying(int far, const std::string &why) {
    EXPECT_EQ(support::captureStderr([&] { refused(far); }), "ERROR:  Encryption: " + why + "\n");
  }
};

constexpr char kNoKey[] = "the peer does not encrypt, or has another etc/ZULkey";
constexpr char kRecorded[] = "the peer cannot prove that it has the key: a recorded connection?";
constexpr char kHungUp[] = "the peer hung up before it had proved that it has the key";
constexpr char kForged[] = "what arrives is not what the peer sent";
constexpr char kNoRecord[] = "what arrives is no record: not what the peer sent";

// --- on the way ---

TEST_F(Attack, AHandshakeCutAnywhereIsNone) {
  for (size_t keep = 0; keep < kHello + kProof; keep++) {
    Wire wire;
    char byte;
    EXPECT_EQ(cryreadn(wire.near(), &byte, 1), -2);
    std::string hello = wire.fromNear();
    ASSERT_EQ(hello.size(), kHello);
    EXPECT_EQ(cryreadn(wire.far(), &byte, 1), -2);
    wire.toNear(wire.fromFar());
    EXPECT_EQ(cryreadn(wire.near(), &byte, 1), -2);
    wire.toFar((hello + wire.fromNear()).substr(0, keep));
    wire.endToFar();
    refusedSaying(wire.far(), kHungUp);
  }
}

TEST_F(Attack, AChangedByteOfTheHandshakeIsNoticedBeforeAnyText) {
  for (size_t at = 0; at < kHello + kProof; at++) {
    Wire wire;
    char byte;
    EXPECT_EQ(cryreadn(wire.near(), &byte, 1), -2);
    std::string said = wire.fromNear();
    EXPECT_EQ(cryreadn(wire.far(), &byte, 1), -2);
    wire.toNear(wire.fromFar());
    EXPECT_EQ(cryreadn(wire.near(), &byte, 1), -2);
    said += wire.fromNear();
    ASSERT_EQ(said.size(), kHello + kProof);
    said[at] = static_cast<char>(said[at] ^ 1);
    wire.toFar(said);
    if (at < kHello + 32) {
      refusedSaying(wire.far(), at < kHello ? kNoKey : kRecorded);
    } else {
      // The beginning of the records is bound by the first of them.
      EXPECT_EQ(cryreadn(wire.far(), &byte, 1), -2);
      wire.toNear(wire.fromFar());
      EXPECT_EQ(put(wire.near(), "Next\n"), 5);
      wire.toFar(wire.fromNear());
      refusedSaying(wire.far(), kForged);
    }
  }
}

TEST_F(Attack, AChangedByteOfARecordIsNoticed) {
  constexpr size_t kRecord = 4 + 5 + 17;
  for (size_t at = 0; at < kRecord; at++) {
    for (int bit : {1, 128}) {
      Wire wire;
      wire.shakeHands();
      put(wire.near(), "Next\n");
      std::string record = wire.fromNear();
      ASSERT_EQ(record.size(), kRecord);
      record[at] = static_cast<char>(record[at] ^ bit);
      // A length that claims more is waited for.
      wire.toFar(record + std::string(400, 'x'));
      std::string said = support::captureStderr([&] {
        int result;
        EXPECT_EQ(take(wire.far(), 5, &result), "");
        EXPECT_TRUE(result == -4 || (at < 4 && result == -2)) << at << ": " << result;
      });
      if (at >= 4) {
        EXPECT_EQ(said, std::string("ERROR:  Encryption: ") + kForged + "\n");
      }
      wire.endToFar();
      support::captureStderr([&] { refused(wire.far()); });
    }
  }
}

TEST_F(Attack, ARecordCutAnywhereIsNone) {
  for (size_t keep = 1; keep < 4 + 5 + 17; keep++) {
    Wire wire;
    wire.shakeHands();
    put(wire.near(), "Next\n");
    wire.toFar(wire.fromNear().substr(0, keep));
    wire.endToFar();
    refused(wire.far());
  }
}

TEST_F(Attack, AStreamCutBetweenRecordsHasNotEnded) {
  Wire wire;
  wire.shakeHands();
  put(wire.near(), "Next\nQui");
  wire.toFar(wire.fromNear());
  put(wire.near(), "t\n");
  wire.endToFar();
  EXPECT_EQ(takeLine(wire.far()), "Next\n");
  refused(wire.far());
}

TEST_F(Attack, RecordsInAnotherOrderAreNoticed) {
  Wire wire;
  wire.shakeHands();
  put(wire.near(), "first");
  std::string first = wire.fromNear();
  put(wire.near(), "later");
  wire.toFar(wire.fromNear() + first);
  refusedSaying(wire.far(), kForged);
}

TEST_F(Attack, AMissingRecordIsNoticed) {
  Wire wire;
  wire.shakeHands();
  for (const char *text : {"one..", "two..", "three"}) {
    put(wire.near(), text);
    std::string record = wire.fromNear();
    if (strcmp(text, "two..") != 0) wire.toFar(record);
  }
  EXPECT_EQ(take(wire.far(), 5), "one..");
  refusedSaying(wire.far(), kForged);
}

TEST_F(Attack, ARepeatedRecordIsNoticed) {
  Wire wire;
  wire.shakeHands();
  put(wire.near(), "Get..");
  std::string record = wire.fromNear();
  wire.toFar(record + record);
  EXPECT_EQ(take(wire.far(), 5), "Get..");
  refusedSaying(wire.far(), kForged);
}

TEST_F(Attack, ARecordedConnectionIsRefusedBeforeAnyText) {
  Wire wire;
  wire.shakeHands();
  put(wire.near(), "Next\n");
  std::string recorded = wire.nearSaid + wire.fromNear();
  Pair replay;
  sendRaw(replay.near.get(), recorded);
  refusedSaying(replay.far.get(), kRecorded);
}

TEST_F(Attack, WhatAnEndSendsDoesNotServeAsItsPeer) {
  Wire wire;
  char byte;
  EXPECT_EQ(cryreadn(wire.near(), &byte, 1), -2);
  wire.toNear(wire.fromNear());
  refusedSaying(wire.near(), "the peer sends back what it gets");
}

TEST_F(Attack, ARecordSentBackIsRefused) {
  Wire wire;
  wire.shakeHands();
  put(wire.near(), "Next\n");
  wire.toNear(wire.fromNear());
  refusedSaying(wire.near(), kForged);
}

TEST_F(Attack, ARecordOfAnotherConnectionIsRefused) {
  Wire wire, other;
  wire.shakeHands();
  other.shakeHands();
  put(other.near(), "Next\n");
  wire.toFar(other.fromNear());
  refusedSaying(wire.far(), kForged);
}

TEST_F(Attack, BytesInClearBetweenRecordsAreRefused) {
  Wire wire;
  wire.shakeHands();
  wire.toFar("Quit\n");
  refusedSaying(wire.far(), kNoRecord);
}

// What was read before an attack is what was sent; nothing follows it.
TEST_F(Attack, TextBeforeATamperedRecordIsGivenAndNoneBehindIt) {
  Wire wire;
  wire.shakeHands();
  std::string bytes;
  for (int number = 0; number < 10; number++) {
    put(wire.near(), std::string(5, static_cast<char>('0' + number)));
    bytes += wire.fromNear();
  }
  bytes[7 * (4 + 5 + 17) + 12] ^= 4;
  wire.toFar(bytes);
  for (int number = 0; number < 7; number++)
    EXPECT_EQ(take(wire.far(), 5), std::string(5, static_cast<char>('0' + number)));
  refusedSaying(wire.far(), kForged);
}

// --- on the other end ---

TEST_F(Attack, APeerWithAnotherKeyIsRefusedOnBothSides) {
  Pair pair;
  HandPeer stranger(pair.near.get(), kAnother);
  sendRaw(pair.near.get(), stranger.hello());
  refusedSaying(pair.far.get(), kNoKey);
  EXPECT_FALSE(stranger.hear(scramsupport::readRaw(pair.near.get(), kHello)));
  EXPECT_EQ(put(pair.far.get(), "text"), -1);
  char byte;
  EXPECT_EQ(recv(pair.near.get(), &byte, 1, MSG_DONTWAIT), -1);  // not a byte of it went out
}

TEST_F(Attack, APeerInClearIsRefused) {
  Pair pair;
  sendRaw(pair.near.get(), std::string(kHello, 'N'));
  refusedSaying(pair.far.get(), kNoKey);
}

TEST_F(Attack, AHelloOfSomebodyElseIsOfNoUse) {
  Wire wire;
  wire.shakeHands();
  Pair pair;
  sendRaw(pair.near.get(), wire.nearSaid.substr(0, kHello) + std::string(kProof, 'p'));
  refusedSaying(pair.far.get(), kRecorded);
  EXPECT_EQ(put(pair.far.get(), "text"), -1);
}

TEST_F(Attack, APublicKeyThatLendsNoSecretIsRefused) {
  Pair pair;
  HandPeer peer(pair.near.get());
  memset(peer.publicKey, 0, sizeof peer.publicKey);
  sendRaw(pair.near.get(), peer.hello());
  refusedSaying(pair.far.get(), "the peer sends back what it gets");
}

class OtherImplementation : public Attack {
 protected:
  // The library's end is asked between the peer's steps.
  void shakeHands() {
    char byte;
    EXPECT_EQ(cryreadn(pair.far.get(), &byte, 1), -2);
    ASSERT_TRUE(peer.hear(scramsupport::readRaw(peer.fd, kHello)));
    sendRaw(peer.fd, peer.hello() + peer.proof());
    EXPECT_EQ(cryreadn(pair.far.get(), &byte, 1), -2);
    ASSERT_TRUE(peer.check(scramsupport::readRaw(peer.fd, kProof)));
  }
  Pair pair;
  HandPeer peer{pair.near.get()};
};

TEST_F(OtherImplementation, IsUnderstoodAndUnderstands) {
  shakeHands();
  sendRaw(peer.fd, peer.record("Next\nand"));
  EXPECT_EQ(takeLine(pair.far.get()), "Next\n");
  EXPECT_EQ(take(pair.far.get(), 3), "and");
  put(pair.far.get(), std::string(65536, 'a') + "b");
  unsigned char tag = 9;
  EXPECT_EQ(scramsupport::readRaw(peer.fd, 4), std::string("\0\1\0\x11", 4));
  EXPECT_EQ(peer.open(scramsupport::readRaw(peer.fd, 65553), &tag), std::string(65536, 'a'));
  EXPECT_EQ(tag, 0);
  EXPECT_EQ(scramsupport::readRaw(peer.fd, 4), std::string("\0\0\0\x12", 4));
  EXPECT_EQ(peer.open(scramsupport::readRaw(peer.fd, 18), &tag), "b");
}

TEST_F(OtherImplementation, EndsTheStreamByItsLastRecord) {
  shakeHands();
  sendRaw(peer.fd, peer.record("Ab"));
  sendRaw(peer.fd, peer.record("", 3));
  sendRaw(peer.fd, peer.record("more\n"));
  int result;
  EXPECT_EQ(takeLine(pair.far.get(), 512, &result), "Ab");
  EXPECT_EQ(result, 3);
  takeLine(pair.far.get(), 512, &result);
  EXPECT_EQ(result, 0);
  take(pair.far.get(), 1, &result);
  EXPECT_EQ(result, -4);
}

TEST_F(OtherImplementation, ARecordOfTheLargestSizeIsRead) {
  shakeHands();
  sendRaw(peer.fd, peer.record(std::string(65536, 'm')));
  EXPECT_EQ(take(pair.far.get(), 65536), std::string(65536, 'm'));
}

TEST_F(OtherImplementation, ARecordThatIsTooLargeIsRefused) {
  shakeHands();
  sendRaw(peer.fd, peer.record(std::string(65537, 'm')));
  refusedSaying(pair.far.get(), kNoRecord);
}

TEST_F(OtherImplementation, ARecordThatIsTooSmallIsRefused) {
  for (int length : {0, 1, 16}) {
    Pair again;
    HandPeer hand(again.near.get());
    char byte;
    EXPECT_EQ(cryreadn(again.far.get(), &byte, 1), -2);
    ASSERT_TRUE(hand.hear(scramsupport::readRaw(hand.fd, kHello)));
    sendRaw(hand.fd, hand.hello() + hand.proof());
    sendRaw(hand.fd, std::string("\0\0\0", 3) + static_cast<char>(length) + std::string(64, 'x'));
    refusedSaying(again.far.get(), kNoRecord);
  }
}

TEST_F(OtherImplementation, RecordsOfKindsThatDoNotExistAreRefused) {
  struct Kind {
    const char *text;
    unsigned char tag;
  };
  for (const Kind &kind :
       {Kind{"", 0}, Kind{"text", 1}, Kind{"text", 2}, Kind{"text", 3}, Kind{"", 1}}) {
    Pair again;
    HandPeer hand(again.near.get());
    char byte;
    EXPECT_EQ(cryreadn(again.far.get(), &byte, 1), -2);
    ASSERT_TRUE(hand.hear(scramsupport::readRaw(hand.fd, kHello)));
    sendRaw(hand.fd, hand.hello() + hand.proof() + hand.record(kind.text, kind.tag));
    refusedSaying(again.far.get(), kForged);
  }
}

}  // namespace
