// An agent's console on a loopback address, played by a thread: it takes one connection after
// another, keeps what arrives, and answers as it is told.
#pragma once
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include "base/fd.h"

namespace lists_test {

class FakeAgent {
 public:
  // What one connection does; the text is what has arrived so far and goes on growing in receive().
  using Play = std::function<void(FakeAgent &, int sd)>;

  // Stores the list and says so, as an agent of this system does.
  static void stores(FakeAgent &agent, int sd) {
    agent.receive(sd, [](const std::string &text) {
      return text.find("\nTRANSFER OK\n") != std::string::npos;
    });
    agent.say(sd, "ZuL_DoNe. 0\n");
    agent.receive(sd, [](const std::string &) { return false; });
  }

  explicit FakeAgent(const char *address, Play play = stores) : play_(std::move(play)) {
    listener_.reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    int on = 1;
    setsockopt(listener_.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in at{};
    at.sin_family = AF_INET;
    at.sin_port = htons(2345);
    inet_pton(AF_INET, address, &at.sin_addr);
    ready_ = bind(listener_.get(), reinterpret_cast<sockaddr *>(&at), sizeof at) == 0 &&
             listen(listener_.get(), 8) == 0;
    thread_ = std::thread([this] { serve(); });
  }
  ~FakeAgent() {
    stop_ = true;
    thread_.join();
  }

  bool ready() const { return ready_; }
  std::string text() {
    std::lock_guard<std::mutex> lock(mutex_);
    return text_;
  }
  int connections() const { return connections_; }

  // Takes bytes until enough says so, the peer closes or the agent is stopped.
  void receive(int sd, const std::function<bool(const std::string &)> &enough) {
    while (!stop_ && !enough(text())) {
      pollfd wait = {sd, POLLIN, 0};
      if (poll(&wait, 1, 20) <= 0) continue;
      char bytes[4096];
      ssize_t got = read(sd, bytes, sizeof bytes);
      if (got <= 0) return;
      std::lock_guard<std::mutex> lock(mutex_);
      text_.append(bytes, static_cast<size_t>(got));
    }
  }
  void say(int sd, const std::string &line) {
    (void)!send(sd, line.data(), line.size(), MSG_NOSIGNAL);
  }
  bool stopping() const { return stop_; }

 private:
  void serve() {
    while (!stop_) {
      pollfd wait = {listener_.get(), POLLIN, 0};
      if (poll(&wait, 1, 20) <= 0) continue;
      base::Fd sd(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
      if (!sd) continue;
      connections_++;
      play_(*this, sd.get());
    }
  }

  Play play_;
  base::Fd listener_;
  bool ready_ = false;
  std::atomic<bool> stop_{false};
  std::atomic<int> connections_{0};
  std::mutex mutex_;
  std::string text_;
  std::thread thread_;
};

}  // namespace lists_test
