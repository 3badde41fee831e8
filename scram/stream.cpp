// Finds the state of a descriptor's stream, begins new ones, and carries out the handshake.
//
// A SIGALRM may jump out of every frame here: plain data only.
#include "scram/stream.h"

#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include "scram/io.h"
#include "scram/scram.h"

// The host's, where there is one.
extern char ZULhome[] __attribute__((weak));

namespace scram {

Timeouts timeouts = {60000, 30000};

namespace {

constexpr size_t kStreams = 64;  // a process conducts one dialogue at a time; this is plenty

struct Slot {
  uint64_t cookie;  // the kernel's number of the socket, never used again; 0 a free slot
  int fd;           // where it was used last
  Stream *stream;
};
Slot table[kStreams];

uint64_t cookieOf(int fd) {
  uint64_t cookie = 0;
  socklen_t length = sizeof cookie;
  return getsockopt(fd, SOL_SOCKET, SO_COOKIE, &cookie, &length) == 0 ? cookie : 0;
}

void drop(Slot *slot) {
  slot->cookie = 0;
  // Another process may still use it; when none does, the pages go.
  munmap(slot->stream, sizeof *slot->stream);
  slot->stream = nullptr;
}

// Forgets the streams whose descriptor was closed, and gives a free slot or null.
Slot *freeSlot() {
  int kept = errno;
  Slot *found = nullptr;
  for (Slot &slot : table) {
    if (slot.cookie != 0 && cookieOf(slot.fd) != slot.cookie) drop(&slot);
    if (slot.cookie == 0) found = &slot;
  }
  errno = kept;
  return found;
}

bool homeKey(uint8_t *key) {
  const char *home = ZULhome && ZULhome[0] ? ZULhome : getenv("ZULHOME");
  char path[4096], why[4400];
  snprintf(path, sizeof path, "%s/etc/ZULkey", home ? home : "");
  if (readKey(path, key, why, sizeof why)) return true;
  complain(why);
  errno = EACCES;
  return false;
}

// What the handshake begins with. False when there can be none.
bool prepare(Stream *stream) {
  if (sodium_init() < 0 || !homeKey(stream->siteKey)) return false;
  uint8_t publicKey[crypto_scalarmult_BYTES];
  randombytes_buf(stream->secretKey, sizeof stream->secretKey);
  crypto_scalarmult_base(publicKey, stream->secretKey);
  makeHello(stream->siteKey, publicKey, &stream->hello);
  return true;
}

Stream *begin(int fd, uint64_t cookie) {
  Slot *slot = freeSlot();
  if (!slot) {
    complain("too many connections at once");
    errno = EMFILE;
    return nullptr;
  }
  // Zeros are the state of a stream that has not begun.
  void *memory =
      mmap(nullptr, sizeof(Stream), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) return nullptr;
  // Refused where locking is limited; it works all the same.
  (void)!mlock(memory, offsetof(Stream, arrived));
  madvise(memory, sizeof(Stream), MADV_DONTDUMP);
  *slot = Slot{cookie, fd, static_cast<Stream *>(memory)};
  slot->stream->refused = !prepare(slot->stream);
  return slot->stream;
}

void forget(Stream *stream) {
  sodium_memzero(stream->siteKey, sizeof stream->siteKey);
  sodium_memzero(stream->secretKey, sizeof stream->secretKey);
  sodium_memzero(&stream->keys, sizeof stream->keys);
}

Outcome refuse(Stream *stream, const char *why) {
  if (why) {
    complain(why);
    errno = EACCES;
  }
  stream->refused = true;
  forget(stream);
  return Outcome::broken;
}

// Sends a message of the handshake and waits for the peer's. What has been done stays done when the
// limit passes.
Outcome exchange(Stream *stream, int fd, const void *own, size_t n, int limitMs) {
  Outcome outcome = writeOut(fd, static_cast<const uint8_t *>(own), n, &stream->sent, limitMs);
  while (outcome == Outcome::done && stream->have < n) {
    size_t got;
    outcome = readSome(fd, stream->arrived + stream->have, n - stream->have, &got, limitMs);
    stream->have += got;
  }
  // Not a byte beyond the message is read: the state is that of a stream that has not begun again.
  if (outcome == Outcome::done) stream->have = stream->sent = 0;
  return outcome;
}

Outcome takeHello(Stream *stream) {
  Hello peer;
  memcpy(&peer, stream->arrived, sizeof peer);
  if (!isGenuine(stream->siteKey, peer))
    return refuse(stream, "the peer does not encrypt, or has another etc/ZULkey");
  if (!agree(stream->siteKey, stream->secretKey, stream->hello, peer, &stream->keys))
    return refuse(stream, "the peer sends back what it gets");
  memcpy(stream->proof.proof, stream->keys.ownProof, sizeof stream->proof.proof);
  crypto_secretstream_xchacha20poly1305_init_push(&stream->out.cipher, stream->proof.header,
                                                  stream->keys.send);
  stream->stage = Stage::proof;
  return Outcome::done;
}

Outcome takeProof(Stream *stream) {
  Proof peer;
  memcpy(&peer, stream->arrived, sizeof peer);
  if (sodium_memcmp(peer.proof, stream->keys.peerProof, sizeof peer.proof) != 0 ||
      crypto_secretstream_xchacha20poly1305_init_pull(&stream->in.cipher, peer.header,
                                                      stream->keys.receive) != 0)
    return refuse(stream, "the peer cannot prove that it has the key: a recorded connection?");
  // From here on nobody can compute the keys of this connection again.
  forget(stream);
  stream->stage = Stage::open;
  return Outcome::done;
}

Outcome shakeStep(Stream *stream, int fd, int limitMs) {
  bool first = stream->stage == Stage::hello;
  const void *own = first ? static_cast<const void *>(&stream->hello) : &stream->proof;
  size_t n = first ? sizeof stream->hello : sizeof stream->proof;
  Outcome outcome = exchange(stream, fd, own, n, limitMs);
  if (outcome == Outcome::done) return first ? takeHello(stream) : takeProof(stream);
  if (outcome == Outcome::broken || outcome == Outcome::ended)
    refuse(stream, "the peer hung up before it had proved that it has the key");
  return outcome;
}

}  // namespace

Stream *streamOf(int fd) {
  uint64_t cookie = cookieOf(fd);
  if (cookie == 0) return nullptr;
  for (Slot &slot : table) {
    if (slot.cookie != cookie) continue;
    slot.fd = fd;
    return slot.stream;
  }
  // A jump out of this would leave a lock of the cipher library held, or pages nobody knows of.
  sigset_t all, before;
  sigfillset(&all);
  sigprocmask(SIG_BLOCK, &all, &before);
  Stream *stream = begin(fd, cookie);
  sigprocmask(SIG_SETMASK, &before, nullptr);
  return stream;
}

void forEveryStream(void (*act)(Stream *stream, int fd)) {
  for (Slot &slot : table)
    if (slot.cookie != 0 && cookieOf(slot.fd) == slot.cookie) act(slot.stream, slot.fd);
}

Outcome shake(Stream *stream, int fd, int limitMs) {
  if (stream->stage == Stage::open && !stream->refused) return Outcome::done;
  // An earlier call was jumped out of, or another process is in one at this moment.
  if (stream->shaking.exchange(1) != 0) refuse(stream, nullptr);
  Outcome outcome = stream->refused ? Outcome::broken : Outcome::done;
  if (stream->refused) errno = EACCES;
  while (outcome == Outcome::done && stream->stage != Stage::open)
    outcome = shakeStep(stream, fd, limitMs);
  stream->shaking = 0;
  return outcome;
}

void complain(const char *what) {
  int kept = errno;
  char line[4500];
  int length = snprintf(line, sizeof line, "ERROR:  Encryption: %s\n", what);
  // Straight to the descriptor: an alarm may jump out, and the stream's lock would stay held.
  if (length > 0 && write(STDERR_FILENO, line, static_cast<size_t>(length)) < 0) {
    // Nobody listens; the result of the call says enough.
  }
  errno = kept;
}

}  // namespace scram
