// Bytes to and from a socket. The transfer is tried before it is waited for: between busy peers a
// wait would only double the system calls.
#include "scram/io.h"

#include <errno.h>
#include <poll.h>
#include <sys/socket.h>

namespace scram {

namespace {

// done when ready.
Outcome waitFor(int fd, short events, int limitMs) {
  pollfd asked{fd, events, 0};
  int ready = poll(&asked, 1, limitMs);
  if (ready == 0) return Outcome::timedOut;
  return ready > 0 && !(asked.revents & POLLNVAL) ? Outcome::done : Outcome::waitFailed;
}

}  // namespace

Outcome writeOut(int fd, const uint8_t *bytes, size_t n, size_t *sent, int limitMs) {
  while (*sent < n) {
    ssize_t put = send(fd, bytes + *sent, n - *sent, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (put > 0) {
      *sent += static_cast<size_t>(put);
    } else if (put < 0 && errno == EAGAIN) {
      Outcome waited = waitFor(fd, POLLOUT, limitMs);
      if (waited != Outcome::done) return waited;
    } else if (put == 0 || errno != EINTR) {
      return Outcome::broken;
    }
  }
  return Outcome::done;
}

Outcome readSome(int fd, uint8_t *to, size_t n, size_t *got, int limitMs) {
  // An ended stream leaves errno alone, and callers are told by what an earlier call left there.
  int kept = errno;
  *got = 0;
  for (;;) {
    ssize_t have = recv(fd, to, n, MSG_DONTWAIT);
    if (have > 0) {
      *got = static_cast<size_t>(have);
      errno = kept;
      return Outcome::done;
    }
    if (have == 0) {
      errno = kept;
      return Outcome::ended;
    }
    if (errno == EINTR) continue;
    if (errno != EAGAIN) return Outcome::broken;
    Outcome waited = waitFor(fd, POLLIN, limitMs);
    if (waited != Outcome::done) return waited;
  }
}

}  // namespace scram
