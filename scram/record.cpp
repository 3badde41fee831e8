// Records: a length, and as many bytes of sealed text. docs/protocols/encryption.md has the form.
//
// A SIGALRM may jump out of every frame here: plain data only.
#include <errno.h>
#include <string.h>

#include "base/byteorder.h"
#include "scram/io.h"
#include "scram/stream.h"

namespace scram {

namespace {

constexpr uint8_t kText = crypto_secretstream_xchacha20poly1305_TAG_MESSAGE;
constexpr uint8_t kEnd = crypto_secretstream_xchacha20poly1305_TAG_FINAL;

// Puts a record together in stream->record; its whole length.
size_t seal(Stream *stream, const uint8_t *text, size_t n, uint8_t tag) {
  base::Be32 length(static_cast<uint32_t>(n + kSealBytes));
  memcpy(stream->record, &length, kLengthBytes);
  crypto_secretstream_xchacha20poly1305_push(&stream->out.cipher, stream->record + kLengthBytes,
                                             nullptr, text, n, nullptr, 0, tag);
  return kLengthBytes + n + kSealBytes;
}

Outcome giveUp(Stream *stream, const char *why) {
  stream->in.broken = true;
  if (why) complain(why);
  errno = EBADMSG;
  return Outcome::broken;
}

// Sealed bytes of the record that begins at from; 0 when its length has not arrived.
size_t sealedBytes(const Stream *stream) {
  base::Be32 length;
  if (stream->have < kLengthBytes) return 0;
  memcpy(&length, stream->arrived + stream->from, kLengthBytes);
  return length;
}

// Makes room behind what has arrived for the rest of a record.
void moveToFront(Stream *stream) {
  if (stream->from + kRecordMost <= sizeof stream->arrived) return;
  memmove(stream->arrived, stream->arrived + stream->from, stream->have);
  stream->from = 0;
}

// Until a whole record has arrived.
Outcome fetch(Stream *stream, int fd, int limitMs) {
  for (;;) {
    size_t sealed = sealedBytes(stream);
    if (stream->have >= kLengthBytes && (sealed < kSealBytes || sealed > kTextMost + kSealBytes))
      return giveUp(stream, "what arrives is no record: not what the peer sent");
    if (stream->have >= kLengthBytes && stream->have >= kLengthBytes + sealed) return Outcome::done;
    if (stream->have == 0) stream->from = 0;
    moveToFront(stream);
    size_t end = stream->from + stream->have, got;
    Outcome outcome =
        readSome(fd, stream->arrived + end, sizeof stream->arrived - end, &got, limitMs);
    stream->have += got;
    if (outcome == Outcome::broken) stream->in.broken = true;
    if (outcome == Outcome::ended && stream->have > 0) return giveUp(stream, nullptr);
    if (outcome != Outcome::done) return outcome;
  }
}

// Opens the record that has arrived. A text is at least a byte, the end is none.
Outcome open(Stream *stream, uint8_t *to, size_t sealed) {
  unsigned long long length;
  uint8_t tag;
  const uint8_t *record = stream->arrived + stream->from + kLengthBytes;
  bool genuine = crypto_secretstream_xchacha20poly1305_pull(&stream->in.cipher, to, &length, &tag,
                                                            record, sealed, nullptr, 0) == 0;
  if (!genuine || !((tag == kText && length > 0) || (tag == kEnd && length == 0)))
    return giveUp(stream, "what arrives is not what the peer sent");
  stream->from += kLengthBytes + sealed;
  stream->have -= kLengthBytes + sealed;
  stream->ended = tag == kEnd;
  return stream->ended ? Outcome::ended : Outcome::done;
}

}  // namespace

Outcome sendText(Stream *stream, int fd, const uint8_t *from, size_t n, int limitMs) {
  while (n > 0) {
    size_t piece = n < kTextMost ? n : kTextMost;
    size_t sent = 0;
    Outcome outcome =
        writeOut(fd, stream->record, seal(stream, from, piece, kText), &sent, limitMs);
    if (outcome != Outcome::done) {
      // A part of a record may be out, and the rest can never follow.
      stream->out.broken = true;
      return outcome;
    }
    from += piece;
    n -= piece;
  }
  return Outcome::done;
}

void sendEnd(Stream *stream, int fd) {
  size_t sent = 0;
  (void)writeOut(fd, stream->record, seal(stream, nullptr, 0, kEnd), &sent, 0);
  stream->out.broken = true;  // nothing may follow
}

Outcome nextRecord(Stream *stream, int fd, uint8_t *to, size_t room, size_t *got, int limitMs) {
  *got = 0;
  if (stream->ended) return Outcome::ended;
  Outcome outcome = fetch(stream, fd, limitMs);
  if (outcome != Outcome::done) return outcome;
  size_t sealed = sealedBytes(stream), bytes = sealed - kSealBytes;
  bool direct = bytes <= room;
  outcome = open(stream, direct ? to : stream->text, sealed);
  if (outcome != Outcome::done) return outcome;
  if (direct) {
    *got = bytes;
  } else {
    stream->textAt = 0;
    stream->textEnd = bytes;
  }
  return Outcome::done;
}

}  // namespace scram
