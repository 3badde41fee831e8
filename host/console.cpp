// Reading lines and sending texts in a session's process. The socket stays in blocking mode,
// because requests inherit it; every wait here is a poll with its own limit.
#include "host/console.h"

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

#include "base/pause.h"

namespace host {

namespace {

constexpr int kSendSilenceMs = 60000;

volatile sig_atomic_t stopping = 0;

void noteStop(int) {
  stopping = 1;
}

// SIGTERM is blocked but here, so that it cannot slip in between the look at the flag and the wait.
int waitReadable(int sd, int timeoutMs) {
  sigset_t open;
  sigemptyset(&open);
  timespec limit{timeoutMs / 1000, (timeoutMs % 1000) * 1000000L};
  pollfd look{sd, POLLIN, 0};
  return ppoll(&look, 1, timeoutMs < 0 ? nullptr : &limit, &open);
}

}  // namespace

void catchStop() {
  struct sigaction action {};
  action.sa_handler = noteStop;
  sigemptyset(&action.sa_mask);
  sigaction(SIGTERM, &action, nullptr);
  signal(SIGINT, SIG_IGN);
  signal(SIGHUP, SIG_IGN);
  signal(SIGPIPE, SIG_IGN);
  signal(SIGCHLD, SIG_DFL);
  sigset_t blocked;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGTERM);
  sigprocmask(SIG_SETMASK, &blocked, nullptr);
}

LineEnd Console::readLine(std::string &line, size_t limit, int timeoutMs) {
  line.clear();
  long long deadline = base::nowMs() + timeoutMs;
  for (;;) {
    char byte;
    ssize_t got = recv(sd_, &byte, 1, MSG_DONTWAIT);
    if (got == 1) {
      if (byte == '\n') return LineEnd::line;
      if (line.size() == limit) return LineEnd::tooLong;
      line += byte;
      continue;
    }
    if (got == 0) return LineEnd::end;
    if (errno == EINTR) continue;
    if (errno != EAGAIN) return LineEnd::failed;
    int left = timeoutMs < 0 ? -1 : static_cast<int>(std::max(0LL, deadline - base::nowMs()));
    int ready = left == 0 ? 0 : waitReadable(sd_, left);
    if (stopping) return LineEnd::stopped;
    if (ready == 0) return LineEnd::silence;
  }
}

bool Console::send(std::string_view text) {
  while (!text.empty()) {
    ssize_t put = ::send(sd_, text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (put > 0) {
      text.remove_prefix(static_cast<size_t>(put));
      continue;
    }
    if (put < 0 && errno == EINTR) continue;
    if (put == 0 || errno != EAGAIN) return false;
    pollfd look{sd_, POLLOUT, 0};
    if (poll(&look, 1, kSendSilenceMs) == 0) return false;
  }
  return true;
}

void Console::drain(int limitMs) {
  shutdown(sd_, SHUT_WR);
  char dropped[4096];
  for (long long deadline = base::nowMs() + limitMs;;) {
    long long left = deadline - base::nowMs();
    pollfd look{sd_, POLLIN, 0};
    if (left <= 0 || poll(&look, 1, static_cast<int>(left)) == 0) return;
    ssize_t got = recv(sd_, dropped, sizeof dropped, MSG_DONTWAIT);
    if (got == 0 || (got < 0 && errno != EAGAIN && errno != EINTR)) return;
  }
}

}  // namespace host
