// The key file: who may own it, who may read it, what it holds, where it is looked for.
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "scram/keyfile.h"
#include "scramsupport.h"

namespace {

using scramsupport::kSiteKey;
using scramsupport::Pair;

class KeyFile : public scramsupport::ScramTest {
 protected:
  // Why it is refused, without the path; empty when it is taken.
  std::string refusal() {
    char why[4400] = "";
    uint8_t key[32];
    if (scram::readKey(path("etc/ZULkey").c_str(), key, why, sizeof why)) return "";
    std::string text = why;
    size_t at = text.find("ZULkey");
    EXPECT_NE(at, std::string::npos) << text;
    return text.substr(at + 6);
  }
};

TEST_F(KeyFile, HoldsTheKeyInHexadecimal) {
  char why[64];
  uint8_t key[32];
  ASSERT_TRUE(scram::readKey(path("etc/ZULkey").c_str(), key, why, sizeof why));
  for (int at = 0; at < 32; at++) EXPECT_EQ(key[at], at);
}

TEST_F(KeyFile, MayHaveWhiteSpaceAroundItAndCapitals) {
  for (const char *text : {"%s", "%s\n", " \t%s \r\n\n"}) {
    char line[128];
    snprintf(line, sizeof line, text, kSiteKey);
    giveKey(line);
    EXPECT_EQ(refusal(), "") << text;
  }
  giveKey(std::string(64, 'A'));
  EXPECT_EQ(refusal(), "");
}

TEST_F(KeyFile, MayBeStricter) {
  giveKey(kSiteKey, 0400);
  EXPECT_EQ(refusal(), "");
}

TEST_F(KeyFile, IsRefusedWhenOthersMayReadOrWriteIt) {
  for (mode_t mode : {0640, 0604, 0620, 0602, 0610, 0644, 0666}) {
    chmod(path("etc/ZULkey").c_str(), mode);
    EXPECT_EQ(refusal(), " may be read or written by others: chmod 600") << mode;
  }
}

TEST_F(KeyFile, IsRefusedWhenSomebodyElseOwnsIt) {
  if (chown(path("etc/ZULkey").c_str(), 12345, 12345) != 0) {
    // An ordinary user cannot give files away: the other user's file is looked at from here.
    ASSERT_NE(geteuid(), 0u);
    uint8_t key[32];
    char why[256];
    EXPECT_FALSE(scram::readKey("/etc/shadow", key, why, sizeof why));
    return;
  }
  EXPECT_EQ(refusal(), " belongs to another user than root or this one");
}

TEST_F(KeyFile, IsRefusedWhenItHoldsAnythingElse) {
  std::string key = kSiteKey;
  for (const std::string &text :
       {std::string(), std::string("\n"), key.substr(1), key + "0", key.substr(2) + "zz",
        key + " " + key, key.substr(0, 32) + "\n" + key.substr(32), std::string(1000, 'a'),
        key + std::string(1, '\0')}) {
    giveKey(text);
    EXPECT_EQ(refusal(), " does not hold 64 hexadecimal digits") << text;
  }
}

TEST_F(KeyFile, IsRefusedWhenItIsNoFile) {
  std::string key = path("etc/ZULkey");
  unlink(key.c_str());
  EXPECT_EQ(refusal(), ": No such file or directory");
  support::writeFile(path("etc/real"), kSiteKey);
  ASSERT_EQ(symlink("real", key.c_str()), 0);
  EXPECT_EQ(refusal(), ": Too many levels of symbolic links");
  unlink(key.c_str());
  ASSERT_EQ(mkdir(key.c_str(), 0700), 0);
  EXPECT_EQ(refusal(), " is no regular file");
  rmdir(key.c_str());
  ASSERT_EQ(mkfifo(key.c_str(), 0600), 0);
  EXPECT_EQ(refusal(), " is no regular file");
}

TEST_F(KeyFile, HasAFingerprintThatTellsKeysApart) {
  uint8_t key[32];
  for (int at = 0; at < 32; at++) key[at] = static_cast<uint8_t>(at);
  char text[scram::kFingerprintText];
  scram::fingerprint(key, text);
  EXPECT_STREQ(text, "9b3f d1b6 c188 c7b1 e1ee 60bc 31f4 fb43");
  key[31] ^= 1;
  char other[scram::kFingerprintText];
  scram::fingerprint(key, other);
  EXPECT_STRNE(text, other);
}

TEST_F(KeyFile, ThatIsRefusedFailsTheConnectionAndIsSpokenOfOnce) {
  chmod(path("etc/ZULkey").c_str(), 0644);
  Pair pair;
  char text[16] = "";
  std::string said = support::captureStderr([&] {
    for (int call = 0; call < 3; call++) {
      EXPECT_EQ(crywriten(pair.near.get(), text, 5), -1);
      EXPECT_EQ(cryreadn(pair.near.get(), text, 5), -4);
      EXPECT_EQ(cryreadnline(pair.near.get(), text, 5), -3);
    }
  });
  EXPECT_EQ(said, "ERROR:  Encryption: " + path("etc/ZULkey") +
                      " may be read or written by others: chmod 600\n");
  EXPECT_EQ(recv(pair.far.get(), text, 1, MSG_DONTWAIT), -1);  // not a byte went out
}

TEST_F(KeyFile, IsLookedForWhereTheEnvironmentSaysWhenTheHostDoesNot) {
  std::string other = path("elsewhere");
  ASSERT_EQ(mkdir(other.c_str(), 0700), 0);
  ASSERT_EQ(mkdir((other + "/etc").c_str(), 0700), 0);
  support::writeFile(other + "/etc/ZULkey", kSiteKey);
  ZULhome[0] = '\0';
  setenv("ZULHOME", other.c_str(), 1);
  Pair pair;
  scramsupport::shakeHands(pair.near.get(), pair.far.get());
  unsetenv("ZULHOME");
}

TEST_F(KeyFile, IsReadForEveryConnectionAnew) {
  scram::timeouts = {0, 0};
  scramsupport::Wire wire;
  char byte;
  EXPECT_EQ(cryreadn(wire.near(), &byte, 1), -2);
  giveKey(std::string(64, 'b'));
  EXPECT_EQ(cryreadn(wire.far(), &byte, 1), -2);
  wire.toFar(wire.fromNear());
  int result = 0;
  support::captureStderr([&] { result = cryreadn(wire.far(), &byte, 1); });
  EXPECT_EQ(result, -4);
}

}  // namespace
