// Keys: the site's secret and what operators' passwords become.
#include <errno.h>
#include <sodium.h>
#include <string.h>

#include "host/guardedfile.h"
#include "host/login.h"

namespace login {

namespace {

// The salt of a password is made from the name, because a client proves its key in its first line
// and could not be told a stored salt before. A site's users have different names, which is what a
// salt is for.
constexpr std::string_view kSaltLabel("zul1-salt\0", 10);  // the NUL separates it from the name
constexpr unsigned long long kDerivationPasses = 3;
constexpr size_t kDerivationBytes = size_t{64} << 20;

std::string_view trimmed(std::string_view text) {
  constexpr const char *kBlanks = " \t\r\n";
  size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

}  // namespace

Key::~Key() {
  sodium_memzero(bytes, sizeof bytes);
}

bool isName(std::string_view name) {
  if (name.empty() || name.size() > kMaxName) return false;
  for (char c : name) {
    bool letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
    bool digit = c >= '0' && c <= '9';
    if (!letter && !digit && c != '.' && c != '-' && c != '_') return false;
  }
  return true;
}

Key newSecret() {
  Key key;
  (void)!sodium_init();
  randombytes_buf(key.bytes, sizeof key.bytes);
  return key;
}

std::string keyText(const Key &key) {
  char text[2 * kKeyBytes + 1];
  sodium_bin2hex(text, sizeof text, key.bytes, sizeof key.bytes);
  std::string result(text);
  sodium_memzero(text, sizeof text);
  return result;
}

bool parseKey(std::string_view text, Key &key) {
  std::string_view digits = trimmed(text);
  size_t length = 0;
  return digits.size() == 2 * kKeyBytes &&
         sodium_hex2bin(key.bytes, sizeof key.bytes, digits.data(), digits.size(), nullptr, &length,
                        nullptr) == 0 &&
         length == kKeyBytes;
}

bool readSecret(const std::string &path, Key &key, std::string &why) {
  std::string text;
  if (!readGuarded(path, 255, text, why)) return false;
  bool good = parseKey(text, key);
  sodium_memzero(text.data(), text.size());
  if (!good) {
    errno = EINVAL;
    why = path + " does not hold 64 hexadecimal digits";
  }
  return good;
}

bool writeSecret(const std::string &path, const Key &key, bool replace, std::string &why) {
  std::string text = keyText(key) + "\n";
  bool written = writeGuarded(path, text, !replace, why);
  sodium_memzero(text.data(), text.size());
  return written;
}

bool keyFromPassword(const std::string &name, const std::string &password, Key &key,
                     std::string &why) {
  if (!isName(name)) {
    why = "A user's name is 1 to 64 letters, digits, '.', '-' and '_'";
    return false;
  }
  if (password.empty()) {
    why = "The password is empty";
    return false;
  }
  (void)!sodium_init();  // chooses the fast implementation for this processor
  unsigned char hash[crypto_hash_sha256_BYTES];
  std::string salted(kSaltLabel);
  salted += name;
  crypto_hash_sha256(hash, reinterpret_cast<const unsigned char *>(salted.data()), salted.size());
  static_assert(crypto_pwhash_argon2id_SALTBYTES <= sizeof hash);
  if (crypto_pwhash_argon2id(key.bytes, sizeof key.bytes, password.data(), password.size(), hash,
                             kDerivationPasses, kDerivationBytes,
                             crypto_pwhash_argon2id_ALG_ARGON2ID13) == 0)
    return true;
  why = "Not enough memory to derive a key from the password (64 MiB are needed)";
  return false;
}

}  // namespace login
