// The login dialogue: fixed vectors worked out with other tools, both sides against each other, and
// what must be refused.
#include "host/login.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <thread>

#include "base/fd.h"
#include "base/pause.h"
#include "support.h"

namespace {

login::Key countingKey(unsigned char from) {
  login::Key key;
  for (unsigned char &byte : key.bytes) byte = from++;
  return key;
}

login::Nonce countingNonce(unsigned char from) {
  login::Nonce nonce;
  for (unsigned char &byte : nonce.bytes) byte = from++;
  return nonce;
}

const login::Nonce kServer = countingNonce(0), kClient = countingNonce(32);
const login::Key kKey = countingKey(64);
const std::string kServerHex = "000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f";
const std::string kClientHex = "202122232425262728292a2b2c2d2e2f303132333435363738393a3b3c3d3e3f";
const std::string kNodeProof = "7be7fea605202d05f0f6bea3ce246d03dc03c37958d5d6cad94f85970ff49849";
const std::string kHostProof = "96da7866a78a8bd7733fec234ae52ef360ebf85ab7190779a7d5dc98369cfc2f";
const std::string kUserProof = "fc69bcf256fad25b165d7a9eca59abf36c5975fc5c0e36d6c7ad1b77bfc0becc";

std::string withoutFeed(std::string line) {
  EXPECT_FALSE(line.empty() || line.back() != '\n');
  line.pop_back();
  return line;
}

TEST(LoginVectors, GreetingIsTheNonceInHex) {
  EXPECT_EQ(login::greeting(kServer), "ZUL1 " + kServerHex + "\n");
}

TEST(LoginVectors, NodeLineCarriesTheProof) {
  EXPECT_EQ(login::claimLine(login::Kind::node, "alpha", kServer, kClient, kKey),
            "NODE alpha " + kClientHex + " " + kNodeProof + "\n");
}

TEST(LoginVectors, UserLineCarriesAProofOfItsOwnKind) {
  EXPECT_EQ(login::claimLine(login::Kind::user, "ann", kServer, kClient, kKey),
            "USER ann " + kClientHex + " " + kUserProof + "\n");
}

TEST(LoginVectors, AcceptanceProvesTheHost) {
  login::Claim claim;
  ASSERT_TRUE(login::parseClaim("NODE alpha " + kClientHex + " " + kNodeProof, claim));
  EXPECT_EQ(login::acceptance(claim, kServer, kKey), "OK " + kHostProof + "\n");
}

TEST(LoginVectors, PasswordsBecomeKeysWithArgon2id) {
  login::Key key;
  std::string why;
  ASSERT_TRUE(login::keyFromPassword("ann", "correct horse", key, why)) << why;
  EXPECT_EQ(login::keyText(key),
            "76eeb3cfeb369f05d5de02f4a6b5c69d7aa95ecc8a61dab76deba8817d2d6ead");
}

TEST(LoginClaim, HoldsWithItsKeyAndGreetingOnly) {
  login::Claim claim;
  ASSERT_TRUE(login::parseClaim("NODE alpha " + kClientHex + " " + kNodeProof, claim));
  EXPECT_TRUE(login::proofHolds(claim, kServer, kKey));
  EXPECT_FALSE(login::proofHolds(claim, kServer, countingKey(65)));
  // The same line again under another greeting: a replay.
  EXPECT_FALSE(login::proofHolds(claim, countingNonce(1), kKey));
}

TEST(LoginClaim, ProofIsBoundToNameAndKind) {
  login::Claim claim;
  ASSERT_TRUE(login::parseClaim("NODE alphb " + kClientHex + " " + kNodeProof, claim));
  EXPECT_FALSE(login::proofHolds(claim, kServer, kKey));
  ASSERT_TRUE(login::parseClaim("USER alpha " + kClientHex + " " + kNodeProof, claim));
  EXPECT_FALSE(login::proofHolds(claim, kServer, kKey));
}

TEST(LoginClaim, EveryBitOfTheProofCounts) {
  for (size_t at = 0; at < kNodeProof.size(); at++) {
    std::string changed = kNodeProof;
    changed[at] = changed[at] == '0' ? '1' : '0';
    login::Claim claim;
    ASSERT_TRUE(login::parseClaim("NODE alpha " + kClientHex + " " + changed, claim));
    EXPECT_FALSE(login::proofHolds(claim, kServer, kKey)) << at;
  }
}

TEST(LoginClaim, MalformedLinesAreNoClaims) {
  login::Claim claim;
  const std::string good = "NODE alpha " + kClientHex + " " + kNodeProof;
  ASSERT_TRUE(login::parseClaim(good, claim));
  for (const std::string &line :
       {std::string(), std::string("NODE"), std::string("NODE alpha"), "NODE alpha " + kClientHex,
        "NODE  alpha " + kClientHex + " " + kNodeProof, good + " ", good + "0", good + "\r",
        " " + good, "node alpha " + kClientHex + " " + kNodeProof,
        "NODE al/pha " + kClientHex + " " + kNodeProof,
        "NODE alpha " + kClientHex.substr(2) + " " + kNodeProof,
        "NODE alpha " + kClientHex + " " + kNodeProof.substr(1),
        "NODE alpha " + kClientHex + " 7BE7" + kNodeProof.substr(4),
        "ROOT alpha " + kClientHex + " " + kNodeProof,
        "NODE " + std::string(65, 'a') + " " + kClientHex + " " + kNodeProof,
        std::string(254, 'x')})
    EXPECT_FALSE(login::parseClaim(line, claim)) << line;
}

TEST(LoginGreeting, MalformedGreetingsAreRefused) {
  login::Nonce nonce;
  EXPECT_TRUE(login::parseGreeting("ZUL1 " + kServerHex, nonce));
  for (const std::string &line :
       {std::string(), std::string("ZUL1 "), "ZUL2 " + kServerHex, "ZUL1 " + kServerHex + "0",
        "ZUL1  " + kServerHex.substr(1), "ZUL1 G" + kServerHex.substr(1)})
    EXPECT_FALSE(login::parseGreeting(line, nonce)) << line;
}

TEST(LoginAcceptance, OnlyTheHostsOwnProofCounts) {
  EXPECT_TRUE(login::acceptanceHolds("OK " + kHostProof, "alpha", kServer, kClient, kKey));
  // A peer that does not know the key can at best send our own proof back.
  EXPECT_FALSE(login::acceptanceHolds("OK " + kNodeProof, "alpha", kServer, kClient, kKey));
  EXPECT_FALSE(login::acceptanceHolds("OK ", "alpha", kServer, kClient, kKey));
  EXPECT_FALSE(login::acceptanceHolds("NO", "alpha", kServer, kClient, kKey));
  EXPECT_FALSE(login::acceptanceHolds("OK " + kHostProof, "beta", kServer, kClient, kKey));
}

TEST(LoginNames, AreWordsOfSafeCharacters) {
  for (const char *name : {"a", "tape-host.example.org", "A_9"})
    EXPECT_TRUE(login::isName(name)) << name;
  for (const char *name : {"", "a b", "a:b", "a\n", "../x", "\xc3\xa4"})
    EXPECT_FALSE(login::isName(name)) << name;
  EXPECT_TRUE(login::isName(std::string(64, 'x')));
  EXPECT_FALSE(login::isName(std::string(65, 'x')));
}

// --- the client on a socket ---

struct Pair {
  base::Fd client, host;
  Pair() {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    client.reset(ends[0]);
    host.reset(ends[1]);
  }
  void say(const std::string &text) const {
    EXPECT_EQ(send(host.get(), text.data(), text.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(text.size()));
  }
  std::string hear() const {
    std::string line;
    for (char byte; recv(host.get(), &byte, 1, 0) == 1;) {
      line += byte;
      if (byte == '\n') break;
    }
    return line;
  }
};

// Plays the host: greets, hears the claim, sends what answer makes of it.
bool dialogue(const std::function<std::string(const login::Claim &, const login::Nonce &)> &answer,
              Pair &pair) {
  login::Nonce server = login::newNonce();
  std::thread played([&] {
    pair.say(login::greeting(server));
    login::Claim claim;
    std::string line = pair.hear();
    if (line.empty() || !login::parseClaim(withoutFeed(line), claim)) return;
    pair.say(answer(claim, server));
  });
  bool result = login::clientLogin(pair.client.get(), login::Kind::node, "alpha", kKey, 2000);
  played.join();
  return result;
}

TEST(ClientLogin, BothSidesAgreeAndNothingElseIsRead) {
  Pair pair;
  EXPECT_TRUE(dialogue(
      [](const login::Claim &claim, const login::Nonce &server) {
        EXPECT_TRUE(login::proofHolds(claim, server, kKey));
        return login::acceptance(claim, server, kKey) + "Rep";
      },
      pair));
  char rest[8];
  ASSERT_EQ(recv(pair.client.get(), rest, sizeof rest, MSG_DONTWAIT), 3);
  EXPECT_EQ(std::string(rest, 3), "Rep");
}

TEST(ClientLogin, RefusesAHostWithAnotherKey) {
  Pair pair;
  EXPECT_FALSE(dialogue(
      [](const login::Claim &claim, const login::Nonce &server) {
        return login::acceptance(claim, server, countingKey(1));
      },
      pair));
}

TEST(ClientLogin, RefusalIsFalse) {
  Pair pair;
  EXPECT_FALSE(dialogue([](const login::Claim &, const login::Nonce &) { return "NO\n"; }, pair));
}

TEST(ClientLogin, TwoDialoguesNeverSendTheSameLine) {
  std::string first, second;
  for (std::string *line : {&first, &second}) {
    Pair pair;
    pair.say(login::greeting(kServer));
    pair.host.get();
    std::thread played([&] {
      *line = pair.hear();
      pair.host.reset();
    });
    EXPECT_FALSE(login::clientLogin(pair.client.get(), login::Kind::node, "alpha", kKey, 2000));
    played.join();
  }
  EXPECT_NE(first, second);
}

TEST(ClientLogin, ClosedConnectionIsFalse) {
  Pair pair;
  pair.host.reset();
  EXPECT_FALSE(login::clientLogin(pair.client.get(), login::Kind::node, "alpha", kKey, 2000));
}

TEST(ClientLogin, SilentHostCostsTheDeadlineAndNoMore) {
  Pair pair;
  long long before = base::nowMs();
  EXPECT_FALSE(login::clientLogin(pair.client.get(), login::Kind::node, "alpha", kKey, 150));
  long long took = base::nowMs() - before;
  EXPECT_GE(took, 140);
  EXPECT_LT(took, 10000);
}

TEST(ClientLogin, DripFeedCannotStretchTheDeadline) {
  Pair pair;
  std::thread drip([&] {
    for (int sent = 0; sent < 500; sent++) {
      if (send(pair.host.get(), "Z", 1, MSG_NOSIGNAL) != 1) break;
      base::sleepMs(20);
    }
  });
  long long before = base::nowMs();
  EXPECT_FALSE(login::clientLogin(pair.client.get(), login::Kind::node, "alpha", kKey, 200));
  EXPECT_LT(base::nowMs() - before, 5000);
  pair.client.reset();
  drip.join();
}

TEST(ClientLogin, EndlessLineIsRefused) {
  Pair pair;
  pair.say(std::string(1000, 'Z'));
  EXPECT_FALSE(login::clientLogin(pair.client.get(), login::Kind::node, "alpha", kKey, 2000));
}

TEST(ClientLogin, WorksOnANonBlockingSocketAndLeavesItsModeAlone) {
  Pair pair;
  fcntl(pair.client.get(), F_SETFL, fcntl(pair.client.get(), F_GETFL) | O_NONBLOCK);
  EXPECT_TRUE(
      dialogue([](const login::Claim &claim,
                  const login::Nonce &server) { return login::acceptance(claim, server, kKey); },
               pair));
  EXPECT_NE(fcntl(pair.client.get(), F_GETFL) & O_NONBLOCK, 0);
}

TEST(ClientLogin, RefusedConnectionIsFalse) {
  int port = 0;
  int listening = support::listenOn(port);
  close(listening);
  base::Fd sd(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  sockaddr_storage storage{};
  auto *address = reinterpret_cast<sockaddr_in *>(&storage);
  address->sin_family = AF_INET;
  address->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address->sin_port = htons(static_cast<uint16_t>(port));
  (void)!connect(sd.get(), reinterpret_cast<sockaddr *>(address), sizeof *address);
  EXPECT_FALSE(login::clientLogin(sd.get(), login::Kind::node, "alpha", kKey, 2000));
}

TEST(ClientLogin, NodesUseTheirNodeName) {
  Pair pair;
  login::Nonce server = kServer;
  std::string line;
  std::thread played([&] {
    pair.say(login::greeting(server));
    line = pair.hear();
    pair.say("NO\n");
  });
  EXPECT_FALSE(login::clientLoginNode(pair.client.get(), kKey, 2000));
  played.join();
  utsname names;
  ASSERT_EQ(uname(&names), 0);
  EXPECT_EQ(line.find(std::string("NODE ") + names.nodename + " "), 0u) << line;
}

// --- the site's secret ---

class Secret : public support::HomeTest {
 protected:
  std::string file() const { return path("etc/ZULsecret"); }
  login::Key key;
  std::string why;
};

TEST_F(Secret, IsWrittenClosedAndReadBack) {
  login::Key made = login::newSecret();
  ASSERT_TRUE(login::writeSecret(file(), made, false, why)) << why;
  EXPECT_EQ(support::readFile(file()), login::keyText(made) + "\n");
  ASSERT_TRUE(login::readSecret(file(), key, why)) << why;
  EXPECT_EQ(login::keyText(key), login::keyText(made));
  struct stat status;
  ASSERT_EQ(stat(file().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600u);
}

TEST_F(Secret, AnExistingOneIsKeptUnlessReplaced) {
  ASSERT_TRUE(login::writeSecret(file(), kKey, false, why));
  EXPECT_FALSE(login::writeSecret(file(), login::newSecret(), false, why));
  EXPECT_NE(why.find("exists"), std::string::npos) << why;
  ASSERT_TRUE(login::readSecret(file(), key, why));
  EXPECT_EQ(login::keyText(key), login::keyText(kKey));
  EXPECT_TRUE(login::writeSecret(file(), countingKey(9), true, why));
  ASSERT_TRUE(login::readSecret(file(), key, why));
  EXPECT_EQ(login::keyText(key), login::keyText(countingKey(9)));
}

TEST_F(Secret, OneThatOthersCanReadIsRefused) {
  for (mode_t mode : {0640u, 0604u, 0620u, 0602u}) {
    support::writeFile(file(), login::keyText(kKey) + "\n");
    chmod(file().c_str(), mode);
    EXPECT_FALSE(login::readSecret(file(), key, why)) << std::oct << mode;
    EXPECT_NE(why.find("chmod 600"), std::string::npos) << why;
  }
}

TEST_F(Secret, LinksFoldersAndPipesAreRefused) {
  support::writeFile(path("etc/real"), login::keyText(kKey) + "\n");
  ASSERT_EQ(symlink(path("etc/real").c_str(), file().c_str()), 0);
  EXPECT_FALSE(login::readSecret(file(), key, why));
  unlink(file().c_str());
  ASSERT_EQ(mkfifo(file().c_str(), 0600), 0);
  EXPECT_FALSE(login::readSecret(file(), key, why));
  EXPECT_NE(why.find("no regular file"), std::string::npos) << why;
  unlink(file().c_str());
  ASSERT_EQ(mkdir(file().c_str(), 0700), 0);
  EXPECT_FALSE(login::readSecret(file(), key, why));
}

TEST_F(Secret, MissingOrDamagedOnesSayWhy) {
  EXPECT_FALSE(login::readSecret(file(), key, why));
  EXPECT_NE(why.find("No such file"), std::string::npos) << why;
  for (const std::string &text :
       {std::string(), std::string("abc\n"), std::string(64, 'g'), std::string(66, 'a'),
        std::string(63, 'a'), std::string(5000, 'a')}) {
    support::writeFile(file(), text);
    EXPECT_FALSE(login::readSecret(file(), key, why)) << text;
    EXPECT_FALSE(why.empty());
  }
}

TEST_F(Secret, NewOnesDiffer) {
  EXPECT_NE(login::keyText(login::newSecret()), login::keyText(login::newSecret()));
}

TEST(Keys, TextsAreReadWithBlanksAroundThem) {
  login::Key key;
  EXPECT_TRUE(login::parseKey("  " + login::keyText(kKey) + "\n", key));
  EXPECT_EQ(login::keyText(key), login::keyText(kKey));
}

}  // namespace
