// The handshake's messages and what is computed from them. Nothing here reads or writes a
// descriptor.
//
// Both ends do the same: say hello, then prove from the other's hello that they know the site's key
// and are there now, not recorded.
#pragma once
#include <sodium.h>
#include <stdint.h>

#include "scram/keyfile.h"

namespace scram {

// The first message of each end.
struct Hello {
  char magic[8];
  uint8_t publicKey[crypto_scalarmult_BYTES];  // made for this connection only
  uint8_t seal[32];                            // over the 40 bytes before it, with the site's key
};
static_assert(sizeof(Hello) == 72 && offsetof(Hello, publicKey) == 8 &&
              offsetof(Hello, seal) == 40);

// The second message of each end.
struct Proof {
  uint8_t proof[32];
  uint8_t header[crypto_secretstream_xchacha20poly1305_HEADERBYTES];  // begins its records
};
static_assert(sizeof(Proof) == 56 && offsetof(Proof, header) == 32);

// What both ends know after the hellos.
struct SessionKeys {
  uint8_t send[crypto_secretstream_xchacha20poly1305_KEYBYTES];
  uint8_t receive[crypto_secretstream_xchacha20poly1305_KEYBYTES];
  uint8_t ownProof[32];
  uint8_t peerProof[32];
};

void makeHello(const uint8_t *siteKey, const uint8_t *publicKey, Hello *hello);

// Whether it was made with this site key; by whom and when is for the proof to show.
bool isGenuine(const uint8_t *siteKey, const Hello &hello);

// Derives the keys of this connection. False for a hello that is our own come back, or whose public
// key lends no secret.
bool agree(const uint8_t *siteKey, const uint8_t *secretKey, const Hello &own, const Hello &peer,
           SessionKeys *keys);

}  // namespace scram
