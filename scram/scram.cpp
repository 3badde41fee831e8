// The three functions of the encryption library. They run in whatever process of the module
// conducts an encrypted dialogue, in place of writen, readn and readnline.
//
// A SIGALRM may jump out of every frame here: plain data only.
#include "scram/scram.h"

#include <errno.h>
#include <limits.h>
#include <string.h>
#include <unistd.h>

#include "scram/stream.h"

namespace scram {

namespace {

// Begins a call in one half of a stream. False when the half is given up: by a failure, or because
// an earlier call in it was jumped out of, or another process is in it at this moment.
bool enter(Half *half) {
  if (half->busy.exchange(1) != 0) half->broken = true;
  if (!half->broken) return true;
  half->busy = 0;
  errno = EPIPE;
  return false;
}

// Moves opened bytes to the caller, up to and with the first stop when there is one (or -1).
size_t take(Stream *stream, uint8_t *to, size_t room, int stop, bool *stopped) {
  size_t n = stream->textEnd - stream->textAt;
  if (n > room) n = room;
  const uint8_t *from = stream->text + stream->textAt;
  const void *at = stop >= 0 ? memchr(from, stop, n) : nullptr;
  *stopped = at != nullptr;
  if (at) n = static_cast<size_t>(static_cast<const uint8_t *>(at) - from) + 1;
  memcpy(to, from, n);
  stream->textAt += n;
  return n;
}

Outcome readAll(Stream *stream, int fd, uint8_t *to, size_t n) {
  for (size_t done = 0; done < n;) {
    bool stopped;
    size_t got = take(stream, to + done, n - done, -1, &stopped);
    Outcome outcome = Outcome::done;
    if (got == 0) outcome = nextRecord(stream, fd, to + done, n - done, &got, timeouts.streamMs);
    done += got;
    if (outcome == Outcome::done) continue;
    // Asked again, the call would begin in the middle of what it has lost.
    if (done > 0) stream->in.broken = true;
    return outcome;
  }
  return Outcome::done;
}

// Reads a line of at most room bytes; stored tells how many, whole whether the line feed is there.
Outcome readLine(Stream *stream, int fd, uint8_t *to, size_t room, size_t *stored, bool *whole) {
  for (;;) {
    *stored += take(stream, to + *stored, room - *stored, '\n', whole);
    if (*whole || *stored == room) return Outcome::done;
    size_t none;
    Outcome outcome = nextRecord(stream, fd, nullptr, 0, &none, timeouts.lineMs);
    if (outcome == Outcome::done) continue;
    // A line that the peer itself has ended by its end is given as it is; what was cut is not.
    if (*stored > 0 && !stream->ended) stream->in.broken = true;
    return outcome;
  }
}

int lineFailure(const Stream *stream, Outcome outcome) {
  switch (outcome) {
    case Outcome::waitFailed:
      return -1;
    case Outcome::timedOut:
      return -2;
    default:
      return stream->ended && outcome == Outcome::ended ? 0 : -3;
  }
}

int readFailure(Outcome outcome) {
  switch (outcome) {
    case Outcome::waitFailed:
      return -1;
    case Outcome::timedOut:
      return -2;
    default:
      return -4;
  }
}

int lineOf(Stream *stream, int fd, char *line, size_t size) {
  size_t stored = 0;
  bool whole = false;
  Outcome outcome =
      readLine(stream, fd, reinterpret_cast<uint8_t *>(line), size - 1, &stored, &whole);
  line[stored] = '\0';
  if (outcome == Outcome::done) return static_cast<int>(whole ? stored : stored + 1);
  int failure = lineFailure(stream, outcome);
  return failure == 0 && stored > 0 ? static_cast<int>(stored + 1) : failure;
}

void endOwn(Stream *stream, int fd) {
  if (stream->stage != Stage::open || stream->lastWriter != getpid()) return;
  if (!enter(&stream->out)) return;
  sendEnd(stream, fd);
  stream->out.busy = 0;
}

// A process that ends in good order with a stream open says so to its peer: an end without this
// word may be the work of somebody who cuts connections. A stream that was closed before is past
// telling.
__attribute__((destructor)) void endStreams() {
  forEveryStream(endOwn);
}

}  // namespace

}  // namespace scram

int crywriten(int fd, void *buf, size_t n) {
  using namespace scram;
  if (n > INT_MAX) {
    errno = EINVAL;
    return -1;
  }
  if (n == 0) return 0;
  Stream *stream = streamOf(fd);
  if (!stream || shake(stream, fd, timeouts.streamMs) != Outcome::done) return -1;
  if (!enter(&stream->out)) return -1;
  stream->lastWriter = getpid();
  Outcome outcome = sendText(stream, fd, static_cast<uint8_t *>(buf), n, timeouts.streamMs);
  stream->out.busy = 0;
  return outcome == Outcome::done ? static_cast<int>(n) : -1;
}

int cryreadn(int fd, void *buf, size_t n) {
  using namespace scram;
  if (n > INT_MAX) {
    errno = EINVAL;
    return -1;
  }
  if (n == 0) return 0;
  Stream *stream = streamOf(fd);
  if (!stream) return -1;
  Outcome outcome = shake(stream, fd, timeouts.streamMs);
  if (outcome != Outcome::done) return readFailure(outcome);
  if (!enter(&stream->in)) return -4;
  outcome = readAll(stream, fd, static_cast<uint8_t *>(buf), n);
  stream->in.busy = 0;
  return outcome == Outcome::done ? static_cast<int>(n) : readFailure(outcome);
}

int cryreadnline(int fd, void *buf, size_t size) {
  using namespace scram;
  char *line = static_cast<char *>(buf);
  if (size > INT_MAX) size = INT_MAX;
  if (size <= 1) {
    if (size == 1) line[0] = '\0';
    return 1;
  }
  line[0] = '\0';
  Stream *stream = streamOf(fd);
  if (!stream) return -1;
  Outcome outcome = shake(stream, fd, timeouts.lineMs);
  if (outcome != Outcome::done) return lineFailure(stream, outcome);
  if (!enter(&stream->in)) return -3;
  int result = lineOf(stream, fd, line, size);
  stream->in.busy = 0;
  return result;
}
