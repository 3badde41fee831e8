// Who the peer is and which keys serve this connection: X25519 between keys made for it, bound to
// the site's key by keyed BLAKE2b. Called by the first transfer on a stream, in whatever process
// conducts it.
#include "scram/handshake.h"

#include <string.h>

namespace scram {

namespace {

constexpr char kMagic[] = "ZULcry1\n";
constexpr char kLabel[] = "ZULkeys1";
constexpr char kContext[] = "ZULcry1";  // 8 bytes with its end
static_assert(sizeof kMagic == 9 && sizeof kLabel == 9);
static_assert(sizeof kContext == crypto_kdf_CONTEXTBYTES);

// The hash of all that makes this connection's keys. The label keeps it apart from a hello's seal.
struct Material {
  char label[8];
  uint8_t shared[crypto_scalarmult_BYTES];
  uint8_t lower[crypto_scalarmult_BYTES];
  uint8_t higher[crypto_scalarmult_BYTES];
};
static_assert(sizeof(Material) == 104);

void sealOf(const uint8_t *siteKey, const Hello &hello, uint8_t *seal) {
  crypto_generichash(seal, sizeof hello.seal, reinterpret_cast<const uint8_t *>(&hello),
                     offsetof(Hello, seal), siteKey, kKeyBytes);
}

}  // namespace

void makeHello(const uint8_t *siteKey, const uint8_t *publicKey, Hello *hello) {
  memcpy(hello->magic, kMagic, sizeof hello->magic);
  memcpy(hello->publicKey, publicKey, sizeof hello->publicKey);
  sealOf(siteKey, *hello, hello->seal);
}

bool isGenuine(const uint8_t *siteKey, const Hello &hello) {
  uint8_t seal[sizeof hello.seal];
  sealOf(siteKey, hello, seal);
  return memcmp(hello.magic, kMagic, sizeof hello.magic) == 0 &&
         sodium_memcmp(seal, hello.seal, sizeof seal) == 0;
}

bool agree(const uint8_t *siteKey, const uint8_t *secretKey, const Hello &own, const Hello &peer,
           SessionKeys *keys) {
  // Neither end is first by nature: the order of their public keys gives each its role.
  int order = memcmp(own.publicKey, peer.publicKey, sizeof own.publicKey);
  if (order == 0) return false;
  const Hello &lower = order < 0 ? own : peer, &higher = order < 0 ? peer : own;
  Material material;
  memcpy(material.label, kLabel, sizeof material.label);
  memcpy(material.lower, lower.publicKey, sizeof material.lower);
  memcpy(material.higher, higher.publicKey, sizeof material.higher);
  bool good = crypto_scalarmult(material.shared, secretKey, peer.publicKey) == 0;
  uint8_t master[crypto_kdf_KEYBYTES];
  if (good) {
    crypto_generichash(master, sizeof master, reinterpret_cast<const uint8_t *>(&material),
                       sizeof material, siteKey, kKeyBytes);
    bool isLower = order < 0;
    struct {
      uint8_t *to;
      uint64_t number;
    } derived[] = {{keys->send, isLower ? 1u : 2u},
                   {keys->receive, isLower ? 2u : 1u},
                   {keys->ownProof, isLower ? 3u : 4u},
                   {keys->peerProof, isLower ? 4u : 3u}};
    for (const auto &key : derived)
      crypto_kdf_derive_from_key(key.to, 32, key.number, kContext, master);
  }
  sodium_memzero(&material, sizeof material);
  sodium_memzero(master, sizeof master);
  return good;
}

}  // namespace scram
