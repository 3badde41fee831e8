// Byte streams with time-outs, and detaching from the host. Every dialogue of the module runs on
// these, in whatever process conducts it.
//
// A SIGALRM may jump over the frames of readn, writen and readnline: they hold plain data only.
//
// On sockets the transfer is tried before it is waited for: between busy peers the data is there
// already, and a wait would only double the system calls. The errno a caller left behind survives
// such a try, because the verdict on an ended stream is read from it.
#include <errno.h>
#include <limits.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <stdint.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>
#include <zul/net.h>

#include "base/log.h"
#include "base/process.h"
#include "base/site.h"
#include "net/stream.h"
#include "net/timeouts.h"

namespace net {

Timeouts timeouts = {60000, 30000, 8,     300000, 600000, 10000,
                     30000, 100,   30000, 60000,  10000,  10000};

namespace {

constexpr int kQuery = 2;  // any value but 0 and 1 asks shouldEncrypt
constexpr int kReadHook = 1;
constexpr int kWriteHook = 2;
constexpr int kLineHook = 3;
constexpr ssize_t kNoHook = -9;
constexpr int kWaitFailed = -1;
constexpr int kTimedOut = -2;
constexpr size_t kEncryptedPiece = 8192;

// 1 ready, 0 time-out, -1 failure. poll has no limit on descriptor numbers, and it skips negative
// ones, which callers pass when a connection failed.
int waitFor(int fd, short events, int limitMs) {
  if (fd < 0) {
    errno = EBADF;
    return -1;
  }
  pollfd asked{fd, events, 0};
  int ready = poll(&asked, 1, limitMs);
  if (ready > 0 && (asked.revents & POLLNVAL)) {
    errno = EBADF;
    return -1;
  }
  return ready;
}

// One read of at most n bytes as soon as there is something. 0: got holds the result of the read,
// errno what belongs to it; kWaitFailed or kTimedOut: nothing was read. isSocket is the caller's
// memory between reads.
int readWhenReady(int fd, void *to, size_t n, int limitMs, bool *isSocket, ssize_t *got) {
  int kept = errno;
  for (;;) {
    if (*isSocket) {
      *got = recv(fd, to, n, MSG_DONTWAIT);
      if (*got >= 0) return 0;
      if (errno == EBADF) return kWaitFailed;
      if (errno == ENOTSOCK)
        *isSocket = false;
      else if (errno != EAGAIN)
        return 0;
      errno = kept;
    }
    int ready = waitFor(fd, POLLIN, limitMs);
    if (ready <= 0) return ready < 0 ? kWaitFailed : kTimedOut;
    if (*isSocket) continue;
    *got = read(fd, to, n);
    return 0;
  }
}

// write(2) to something that is no socket. A pipe without a reader raises SIGPIPE, which would end
// the process in the middle of a job; sockets have a flag against that.
ssize_t writeQuietly(int fd, const void *from, size_t n) {
  struct sigaction ignore = {}, kept;
  ignore.sa_handler = SIG_IGN;
  sigaction(SIGPIPE, &ignore, &kept);
  ssize_t put = write(fd, from, n);
  int error = errno;
  sigaction(SIGPIPE, &kept, nullptr);
  errno = error;
  return put;
}

bool writeElsewhere(int fd, const char *from, size_t n, size_t *done) {
  struct stat status;
  // A pipe that is writable has room for this many bytes; more would block beyond any time-out.
  size_t most = fstat(fd, &status) == 0 && S_ISFIFO(status.st_mode) ? PIPE_BUF : SSIZE_MAX;
  while (n > 0) {
    if (waitFor(fd, POLLOUT, timeouts.streamMs) <= 0) return false;
    ssize_t put = writeQuietly(fd, from, n < most ? n : most);
    if (put < 0 && errno == EINTR) continue;
    if (put <= 0) return false;
    from += put;
    n -= static_cast<size_t>(put);
    *done += static_cast<size_t>(put);
  }
  return true;
}

// Writes up to two parts. done counts what went out, whatever becomes of the rest.
bool writeParts(int fd, const iovec *given, size_t *done) {
  *done = 0;
  iovec part[2] = {given[0], given[1]};
  int at = 0;
  for (;;) {
    while (at < 2 && part[at].iov_len == 0) at++;
    if (at == 2) return true;
    msghdr message = {};
    message.msg_iov = part + at;
    message.msg_iovlen = static_cast<size_t>(2 - at);
    ssize_t put = sendmsg(fd, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (put < 0 && errno == ENOTSOCK) break;
    if (put < 0 && errno == EINTR) continue;
    if (put < 0 && errno == EAGAIN) {
      if (waitFor(fd, POLLOUT, timeouts.streamMs) <= 0) return false;
      continue;
    }
    if (put <= 0) return false;
    *done += static_cast<size_t>(put);
    for (size_t rest = static_cast<size_t>(put); rest > 0;) {
      size_t taken = rest < part[at].iov_len ? rest : part[at].iov_len;
      part[at].iov_base = static_cast<char *>(part[at].iov_base) + taken;
      part[at].iov_len -= taken;
      rest -= taken;
      if (part[at].iov_len == 0) at++;
    }
  }
  return writeElsewhere(fd, static_cast<char *>(part[0].iov_base), part[0].iov_len, done) &&
         writeElsewhere(fd, static_cast<char *>(part[1].iov_base), part[1].iov_len, done);
}

// Reads a line a byte at a time: what follows the line feed belongs to whoever reads next.
ssize_t readLine(int fd, char *line, size_t size, int limitMs) {
  if (size <= 1) {
    if (size == 1) line[0] = '\0';
    return 1;
  }
  bool isSocket = limitMs >= 0;  // a local descriptor is read as it is
  size_t count = 1;              // one more than the bytes stored
  while (count < size) {
    ssize_t got;
    int outcome = 0;
    if (limitMs >= 0)
      outcome = readWhenReady(fd, line + count - 1, 1, limitMs, &isSocket, &got);
    else
      got = read(fd, line + count - 1, 1);
    if (outcome < 0) return outcome;
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return -3;
    if (got == 0) {
      line[count - 1] = '\0';
      return count == 1 ? 0 : static_cast<ssize_t>(count);
    }
    if (line[count - 1] == '\n') {
      line[count] = '\0';
      return static_cast<ssize_t>(count);
    }
    count++;
  }
  line[count - 1] = '\0';
  return static_cast<ssize_t>(count);
}

}  // namespace

bool writeBoth(int fd, const void *head, size_t headBytes, const void *data, size_t dataBytes,
               size_t *done) {
  if (shouldEncrypt(kQuery) == 0) {
    iovec part[2] = {{const_cast<void *>(head), headBytes}, {const_cast<void *>(data), dataBytes}};
    return writeParts(fd, part, done);
  }
  // A library may seal every call by itself, and its peer open what was sealed together: classic
  // keeps the calls in the pieces the other side reads. Ours carries a stream of bytes, and small
  // calls cost it a third of its speed.
  size_t most = base::sound(base::Area::stream) ? SIZE_MAX : kEncryptedPiece;
  *done = 0;
  if (headBytes > 0 && writen(fd, head, headBytes) != static_cast<ssize_t>(headBytes)) return false;
  *done = headBytes;
  for (const char *from = static_cast<const char *>(data); dataBytes > 0;) {
    size_t piece = dataBytes < most ? dataBytes : most;
    if (writen(fd, from, piece) != static_cast<ssize_t>(piece)) return false;
    from += piece;
    dataBytes -= piece;
    *done += piece;
  }
  return true;
}

namespace {

// readn that can be taken up again: done counts the bytes that are there. After a time-out the same
// call goes on behind them.
ssize_t readOn(int fd, void *buf, size_t n, size_t *done) {
  if (shouldEncrypt(kQuery) == 1) {
    scramfn hook = getScramPtrs(kReadHook);
    return hook ? hook(fd, buf, n) : kNoHook;
  }
  char *to = static_cast<char *>(buf) + *done;
  bool isSocket = true;
  while (*done < n) {
    ssize_t got;
    int outcome = readWhenReady(fd, to, n - *done, timeouts.streamMs, &isSocket, &got);
    if (outcome < 0) return outcome;
    if (got > 0) {
      to += got;
      *done += static_cast<size_t>(got);
      continue;
    }
    // An ended stream leaves errno alone, and callers are told by what an earlier call left there;
    // but a stale EINTR must not make an ended stream be read for ever.
    if (got < 0 && errno == EINTR) continue;
    if (errno != ENOENT) return -4;
    base::print(
        stderr,
        "ERROR:  No Socket.  Connection closed from other end. nread=%li, nleft= %li, fd=%i, "
        "ptr=%p, errno = %i\n",
        static_cast<long>(got), static_cast<long>(n - *done), fd, static_cast<void *>(to), ENOENT);
    return -3;
  }
  return static_cast<ssize_t>(n);
}

}  // namespace

bool readPatiently(int fd, void *buf, size_t n) {
  size_t done = 0;
  ssize_t got;
  do {
    got = readOn(fd, buf, n, &done);
  } while (got == kTimedOut);
  return got == static_cast<ssize_t>(n);
}

}  // namespace net

ssize_t writen(int fd, const void *buf, size_t n) {
  if (shouldEncrypt(net::kQuery) == 1) {
    scramfn hook = getScramPtrs(net::kWriteHook);
    return hook ? hook(fd, const_cast<void *>(buf), n) : net::kNoHook;
  }
  iovec part[2] = {{const_cast<void *>(buf), n}, {nullptr, 0}};
  size_t done;
  return net::writeParts(fd, part, &done) ? static_cast<ssize_t>(n) : -1;
}

ssize_t readn(int fd, void *buf, size_t n) {
  size_t done = 0;
  return net::readOn(fd, buf, n, &done);
}

ssize_t readnline(int fd, void *buf, size_t size) {
  if (shouldEncrypt(net::kQuery) == 1) {
    scramfn hook = getScramPtrs(net::kLineHook);
    return hook ? hook(fd, buf, size) : net::kNoHook;
  }
  return net::readLine(fd, static_cast<char *>(buf), size, net::timeouts.lineMs);
}

ssize_t zul_getline(int fd, void *buf, size_t size) {
  ssize_t count = net::readLine(fd, static_cast<char *>(buf), size, -1);
  return count < 0 ? -1 : count;
}

ssize_t writef(int fd, const void *buf, size_t n) {
  const char *from = static_cast<const char *>(buf);
  for (size_t left = n; left > 0;) {
    ssize_t put = write(fd, from, left);
    if (put < 0 && errno == EAGAIN) continue;
    if (put <= 0) return -1;
    from += put;
    left -= static_cast<size_t>(put);
  }
  return static_cast<ssize_t>(n);
}

int mkDaemon(void) {
  pid_t pid = base::forkFlushed();
  if (pid < 0) {
    puts("Unable to start ZULd.  Cannot fork process");
    return -1;
  }
  // The requester has its answer already; what the host registered for its own end is not this
  // process's.
  if (pid > 0) _exit(0);
  base::detachHere();
  return 0;
}

int nagleOnOff(int sd, int value) {
  return setsockopt(sd, IPPROTO_TCP, TCP_NODELAY, &value, sizeof value) == 0 ? 0 : -1;
}
