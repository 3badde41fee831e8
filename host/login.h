// The login dialogue of the console, both sides, and the site's secret.
//
// Both sides prove that they hold the same key without sending it: the site's secret for agents
// (NODE), a key derived from a password for operators (USER). docs/protocols/console.md gives the
// dialogue byte by byte. The daemon, the functions it lends the module, and the operator's command
// all use this one implementation.
//
// Nothing here prints, installs a signal handler or throws anything but what memory exhaustion
// throws. Functions that return false say why in a text for the operator.
#pragma once
#include <stddef.h>

#include <string>
#include <string_view>

namespace login {

constexpr size_t kKeyBytes = 32;
constexpr size_t kNonceBytes = 32;
constexpr size_t kMacBytes = 32;
constexpr size_t kMaxName = 64;
constexpr size_t kMaxLine = 255;  // of the dialogue, line feed included

constexpr int kClientDeadlineMs = 6000;

// A key that is wiped when it goes.
struct Key {
  unsigned char bytes[kKeyBytes] = {};
  Key() = default;
  Key(const Key &) = default;
  Key &operator=(const Key &) = default;
  ~Key();
};

enum class Kind { node, user };

// True for a name of a node or user: 1 to 64 letters, digits, '.', '-' and '_'.
bool isName(std::string_view name);

// --- the site's secret, etc/ZULsecret: 64 hex digits on one line ---

// Reads it. Refused when it is no regular file, belongs to another user than root or our own, or
// may be read or written by others.
bool readSecret(const std::string &path, Key &key, std::string &why);
// Writes it whole or not at all, mode 0600; an existing one is kept unless replace is set: the
// other hosts of the site know that one.
bool writeSecret(const std::string &path, const Key &key, bool replace, std::string &why);
// A new random secret.
Key newSecret();
// 64 hex digits, for carrying a secret to another host, and back; white space around them is
// ignored.
std::string keyText(const Key &key);
bool parseKey(std::string_view text, Key &key);

// The key of an operator, derived with argon2id: the same name and password give the same key
// everywhere, so that the password never leaves the operator's machine. Takes a noticeable fraction
// of a second and 64 MiB.
bool keyFromPassword(const std::string &name, const std::string &password, Key &key,
                     std::string &why);

// --- the client's side ---

// Runs the dialogue on a connected console socket, blocking or not. True when logged in; nothing
// that the host sent behind its answer has been read. False when refused, out of time or closed;
// then the connection is of no more use. Works on a socket whose connection was refused (false).
bool clientLogin(int sd, Kind kind, const std::string &name, const Key &key,
                 int deadlineMs = kClientDeadlineMs);

// For `zul --host`: derives the key from the password, then logs in as an operator. The connection
// must be made behind the derivation, because the host gives a login 10 s: use keyFromPassword and
// clientLogin where a password is asked for.
inline bool clientLoginUser(int sd, const std::string &name, const Key &key) {
  return clientLogin(sd, Kind::user, name, key);
}
// An agent's login under this machine's node name.
bool clientLoginNode(int sd, const Key &secret, int deadlineMs = kClientDeadlineMs);

// --- the host's side, as pure functions on lines ---

struct Nonce {
  unsigned char bytes[kNonceBytes];
};
Nonce newNonce();

// What a client claims: its kind and name, its nonce and its proof.
struct Claim {
  Kind kind = Kind::node;
  std::string name;
  Nonce nonce;
  unsigned char proof[kMacBytes];
};

// "ZUL1 <Ns>\n"
std::string greeting(const Nonce &server);
// Reads a client's line, without its line feed.
bool parseClaim(std::string_view line, Claim &claim);
// True when the proof was made with this key for this greeting. Takes the same time whatever it
// holds.
bool proofHolds(const Claim &claim, const Nonce &server, const Key &key);
// "OK <Ms>\n"
std::string acceptance(const Claim &claim, const Nonce &server, const Key &key);

// The client's line and the check of the host's answer, for tests and fuzz drivers.
bool parseGreeting(std::string_view line, Nonce &server);
std::string claimLine(Kind kind, const std::string &name, const Nonce &server, const Nonce &client,
                      const Key &key);
bool acceptanceHolds(std::string_view line, const std::string &name, const Nonce &server,
                     const Nonce &client, const Key &key);

}  // namespace login
