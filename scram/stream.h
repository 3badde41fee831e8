// The state of an encrypted stream, and the table that finds it by its descriptor.
//
// A state lies in memory of its own that forked processes share: whoever of them writes goes on
// where the other one stopped, and no nonce is used twice.
#pragma once
#include <sodium.h>
#include <stdint.h>

#include <atomic>

#include "scram/handshake.h"

namespace scram {

// How a step went.
enum class Outcome {
  done,
  waitFailed,
  timedOut,
  ended,   // the peer has closed, between two messages
  broken,  // cut inside a message, not authentic, or given up before
};

constexpr size_t kTextMost = 65536;  // plaintext bytes of a record
constexpr size_t kLengthBytes = 4;
constexpr size_t kSealBytes = crypto_secretstream_xchacha20poly1305_ABYTES;
constexpr size_t kRecordMost = kLengthBytes + kTextMost + kSealBytes;

// One direction of a stream.
struct Half {
  std::atomic<int> busy;  // a call is in it, or was jumped out of
  bool broken;
  crypto_secretstream_xchacha20poly1305_state cipher;
};
static_assert(std::atomic<int>::is_always_lock_free);

enum class Stage {
  hello,  // the peer's hello is awaited
  proof,  // the peer's proof is awaited
  open,   // records
};

struct Stream {
  // The secrets come first: they lie in the pages that are kept out of the swap space.
  Half in, out;
  std::atomic<int> shaking;  // as busy, for the handshake
  bool refused;              // the handshake failed, for good
  Stage stage;
  uint8_t siteKey[kKeyBytes];
  uint8_t secretKey[crypto_scalarmult_SCALARBYTES];
  SessionKeys keys;
  Hello hello;       // ours
  Proof proof;       // ours
  size_t sent;       // bytes of the message that is being sent
  pid_t lastWriter;  // the process that may end the stream
  bool ended;        // the peer has said that it has ended

  size_t have;  // bytes in arrived, from from on
  size_t from;
  size_t textAt, textEnd;            // opened and not yet taken
  uint8_t arrived[2 * kRecordMost];  // of the peer, as it came
  uint8_t text[kTextMost];
  uint8_t record[kRecordMost];  // ours, on its way out
};

// The stream of a descriptor, new ones with the handshake still before them. Null, with errno set,
// when it is no socket or no more can be kept.
Stream *streamOf(int fd);

// Calls act for every stream that this process has, with its descriptor.
void forEveryStream(void (*act)(Stream *stream, int fd));

// Carries the handshake on as far as it goes within the limit; done when it is complete. It can be
// carried on after a time-out.
Outcome shake(Stream *stream, int fd, int limitMs);

// Writes n bytes as records.
Outcome sendText(Stream *stream, int fd, const uint8_t *from, size_t n, int limitMs);
// Tells the peer that nothing more will come, if that takes no waiting.
void sendEnd(Stream *stream, int fd);
// Opens the next record into to, when it has that much room, else into stream->text; got is what
// went into to. ended stands for an end the peer has stated and for one it has not: stream->ended
// tells.
Outcome nextRecord(Stream *stream, int fd, uint8_t *to, size_t room, size_t *got, int limitMs);

// Says once what is wrong with a connection; errno stays.
void complain(const char *what);

}  // namespace scram
