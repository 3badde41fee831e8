// A peer on the other end of a socket pair, for tests of what serves it.
#pragma once
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <string>

#include "base/fd.h"
#include "base/pause.h"

namespace support {

struct Peer {
  base::Fd sd;

  void say(const std::string &text) const {
    EXPECT_EQ(send(sd.get(), text.data(), text.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(text.size()));
  }
  void endSending() const { shutdown(sd.get(), SHUT_WR); }

  // What arrives until it ends with `ending`, or the other side closes, or the limit has passed.
  std::string hear(const std::string &ending, int limitMs = 30000) const {
    std::string text;
    for (long long deadline = base::nowMs() + limitMs; ending.empty() || !text.ends_with(ending);) {
      long long left = deadline - base::nowMs();
      pollfd look{sd.get(), POLLIN, 0};
      char byte;
      if (left <= 0 || poll(&look, 1, static_cast<int>(left)) <= 0 ||
          recv(sd.get(), &byte, 1, 0) != 1)
        break;
      text += byte;
    }
    return text;
  }
  std::string hearLine() const { return hear("\n"); }
  // Everything until the other side closes.
  std::string hearAll(int limitMs = 30000) const { return hear("", limitMs); }
  bool isClosed(int limitMs = 30000) const {
    char byte;
    pollfd look{sd.get(), POLLIN, 0};
    return poll(&look, 1, limitMs) > 0 && recv(sd.get(), &byte, 1, 0) == 0;
  }
};

// Both ends of a connection.
inline std::pair<Peer, Peer> connected() {
  int ends[2];
  EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  return {Peer{base::Fd(ends[0])}, Peer{base::Fd(ends[1])}};
}

}  // namespace support
