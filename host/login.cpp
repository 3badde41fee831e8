// The dialogue. The client's side runs inside request processes and jobs of the module as well, on
// whatever socket they have just connected: it keeps to poll and to calls that do not block, so
// that the socket's mode does not matter and a pending alarm of the caller only costs a look at the
// clock.
#include "host/login.h"

#include <errno.h>
#include <poll.h>
#include <sodium.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/utsname.h>

#include "base/pause.h"

namespace login {

namespace {

constexpr size_t kHexNonce = 2 * kNonceBytes;
constexpr std::string_view kGreetingWord = "ZUL1 ";
constexpr std::string_view kAcceptanceWord = "OK ";

std::string_view kindWord(Kind kind) {
  return kind == Kind::node ? "NODE" : "USER";
}

std::string hex(const unsigned char *bytes, size_t count) {
  std::string text(2 * count + 1, '\0');
  sodium_bin2hex(text.data(), text.size(), bytes, count);
  text.pop_back();
  return text;
}

// Exactly count bytes in lower-case digits: one form on the wire, so that a proof has one spelling.
bool unhex(std::string_view text, unsigned char *bytes, size_t count) {
  if (text.size() != 2 * count) return false;
  for (char c : text)
    if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return false;
  return sodium_hex2bin(bytes, count, text.data(), text.size(), nullptr, nullptr, nullptr) == 0;
}

// A keyed hash over parts; each text is followed by a NUL, which no text contains, so that no two
// lists of parts give the same bytes.
class Mac {
 public:
  explicit Mac(const Key &key) {
    crypto_auth_hmacsha256_init(&state_, key.bytes, sizeof key.bytes);
  }
  ~Mac() { sodium_memzero(&state_, sizeof state_); }
  Mac &text(std::string_view part) {
    static constexpr unsigned char kEnd = 0;
    add(part.data(), part.size());
    return add(&kEnd, 1);
  }
  Mac &nonce(const Nonce &part) { return add(part.bytes, sizeof part.bytes); }
  void finish(unsigned char *mac) { crypto_auth_hmacsha256_final(&state_, mac); }

 private:
  Mac &add(const void *bytes, size_t count) {
    crypto_auth_hmacsha256_update(&state_, static_cast<const unsigned char *>(bytes), count);
    return *this;
  }
  crypto_auth_hmacsha256_state state_;
};
static_assert(crypto_auth_hmacsha256_BYTES == kMacBytes);

void clientProof(const Key &key, Kind kind, std::string_view name, const Nonce &server,
                 const Nonce &client, unsigned char *mac) {
  Mac(key).text("zul1-c").text(kindWord(kind)).text(name).nonce(server).nonce(client).finish(mac);
}

void hostProof(const Key &key, std::string_view name, const Nonce &server, const Nonce &client,
               unsigned char *mac) {
  Mac(key).text("zul1-s").text(name).nonce(client).nonce(server).finish(mac);
}

// Cuts the first word off text, which keeps what stands behind one blank.
std::string_view nextWord(std::string_view &text) {
  size_t blank = text.find(' ');
  std::string_view word = text.substr(0, blank);
  text = blank == std::string_view::npos ? std::string_view() : text.substr(blank + 1);
  return word;
}

bool waitFor(int sd, short events, long long deadline) {
  for (;;) {
    long long left = deadline - base::nowMs();
    if (left <= 0) return false;
    pollfd look{sd, events, 0};
    int ready = poll(&look, 1, static_cast<int>(left));
    if (ready > 0) return true;
    if (ready == 0 || errno != EINTR) return false;
  }
}

// One line without its line feed, a byte a call: what stands behind it is the caller's.
bool receiveLine(int sd, long long deadline, std::string &line) {
  line.clear();
  while (line.size() < kMaxLine) {
    if (!waitFor(sd, POLLIN, deadline)) return false;
    char byte;
    ssize_t got = recv(sd, &byte, 1, MSG_DONTWAIT);
    if (got < 0 && (errno == EAGAIN || errno == EINTR)) continue;
    if (got <= 0) return false;
    if (byte == '\n') return true;
    line += byte;
  }
  return false;
}

bool sendLine(int sd, long long deadline, const std::string &line) {
  for (size_t done = 0; done < line.size();) {
    ssize_t put = send(sd, line.data() + done, line.size() - done, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (put > 0) {
      done += static_cast<size_t>(put);
    } else if (put < 0 && errno == EAGAIN) {
      if (!waitFor(sd, POLLOUT, deadline)) return false;
    } else if (put == 0 || errno != EINTR) {
      return false;
    }
  }
  return true;
}

}  // namespace

Nonce newNonce() {
  Nonce nonce;
  (void)!sodium_init();  // without it the generator still works, but chooses its source at every
                         // call
  randombytes_buf(nonce.bytes, sizeof nonce.bytes);
  return nonce;
}

std::string greeting(const Nonce &server) {
  return std::string(kGreetingWord) + hex(server.bytes, sizeof server.bytes) + "\n";
}

bool parseGreeting(std::string_view line, Nonce &server) {
  return line.size() == kGreetingWord.size() + kHexNonce &&
         line.substr(0, kGreetingWord.size()) == kGreetingWord &&
         unhex(line.substr(kGreetingWord.size()), server.bytes, sizeof server.bytes);
}

std::string claimLine(Kind kind, const std::string &name, const Nonce &server, const Nonce &client,
                      const Key &key) {
  unsigned char mac[kMacBytes];
  clientProof(key, kind, name, server, client, mac);
  return std::string(kindWord(kind)) + " " + name + " " + hex(client.bytes, sizeof client.bytes) +
         " " + hex(mac, sizeof mac) + "\n";
}

bool parseClaim(std::string_view line, Claim &claim) {
  if (line.size() >= kMaxLine) return false;
  std::string_view kind = nextWord(line);
  std::string_view name = nextWord(line);
  std::string_view nonce = nextWord(line);
  if (kind == "NODE")
    claim.kind = Kind::node;
  else if (kind == "USER")
    claim.kind = Kind::user;
  else
    return false;
  if (!isName(name)) return false;
  claim.name = name;
  // The rest of the line is the proof, so that nothing may follow it.
  return unhex(nonce, claim.nonce.bytes, sizeof claim.nonce.bytes) &&
         unhex(line, claim.proof, sizeof claim.proof);
}

bool proofHolds(const Claim &claim, const Nonce &server, const Key &key) {
  unsigned char expected[kMacBytes];
  clientProof(key, claim.kind, claim.name, server, claim.nonce, expected);
  return sodium_memcmp(expected, claim.proof, sizeof expected) == 0;
}

std::string acceptance(const Claim &claim, const Nonce &server, const Key &key) {
  unsigned char mac[kMacBytes];
  hostProof(key, claim.name, server, claim.nonce, mac);
  return std::string(kAcceptanceWord) + hex(mac, sizeof mac) + "\n";
}

bool acceptanceHolds(std::string_view line, const std::string &name, const Nonce &server,
                     const Nonce &client, const Key &key) {
  if (line.substr(0, kAcceptanceWord.size()) != kAcceptanceWord) return false;
  unsigned char given[kMacBytes];
  unsigned char expected[kMacBytes];
  if (!unhex(line.substr(kAcceptanceWord.size()), given, sizeof given)) return false;
  hostProof(key, name, server, client, expected);
  return sodium_memcmp(expected, given, sizeof expected) == 0;
}

bool clientLogin(int sd, Kind kind, const std::string &name, const Key &key, int deadlineMs) {
  if (!isName(name)) return false;
  long long deadline = base::nowMs() + deadlineMs;
  std::string line;
  Nonce server;
  if (!receiveLine(sd, deadline, line) || !parseGreeting(line, server)) return false;
  Nonce client = newNonce();
  if (!sendLine(sd, deadline, claimLine(kind, name, server, client, key))) return false;
  return receiveLine(sd, deadline, line) && acceptanceHolds(line, name, server, client, key);
}

bool clientLoginNode(int sd, const Key &secret, int deadlineMs) {
  utsname names;
  if (uname(&names) != 0) return false;
  return clientLogin(sd, Kind::node, names.nodename, secret, deadlineMs);
}

}  // namespace login
