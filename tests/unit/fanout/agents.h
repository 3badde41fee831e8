// Agents' consoles on loopback addresses, each connection played by a thread. The fixture has a
// network of its own, because the port is fixed.
#pragma once
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>
#include <zul/fanout.h>

#include <atomic>
#include <functional>
#include <list>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "base/fd.h"
#include "fanout/crowd.h"
#include "support.h"

namespace fanout_test {

// One connection, from the agent's side.
class Peer {
 public:
  Peer(int sd, const std::atomic<bool> &stop) : sd_(sd), stop_(stop) {}
  // The next line, or what came before the peer closed or the test ended.
  std::string line() {
    std::string text;
    char byte;
    while (text.empty() || text.back() != '\n') {
      pollfd wait = {sd_, POLLIN, 0};
      if (stop_) break;
      if (poll(&wait, 1, 20) <= 0) continue;
      if (recv(sd_, &byte, 1, 0) != 1) break;
      text += byte;
    }
    return text;
  }
  void say(const std::string &text) { (void)!send(sd_, text.data(), text.size(), MSG_NOSIGNAL); }
  // Says nothing more until the peer closes or the test ends.
  void hang() {
    while (!stop_ && !line().empty()) {
    }
  }
  // True as soon as there is something to read.
  bool hears(int ms) {
    pollfd wait = {sd_, POLLIN, 0};
    return poll(&wait, 1, ms) > 0;
  }

 private:
  int sd_;
  const std::atomic<bool> &stop_;
};

using Play = std::function<void(Peer &)>;

constexpr int kConsole = 2345;

class Agents {
 public:
  ~Agents() {
    stop_ = true;
    for (std::thread &thread : threads_) thread.join();
    for (;;) {
      std::list<std::thread> ended;
      {
        std::lock_guard<std::mutex> lock(mutex_);
        ended.swap(talks_);
      }
      if (ended.empty()) return;
      for (std::thread &thread : ended) thread.join();
    }
  }

  // An agent at address; it is there when this returns.
  void at(const std::string &address, Play play) {
    int sd = support::listenAt(address, kConsole);
    threads_.emplace_back([this, sd, play] { serve(sd, play); });
  }
  // An address that takes no connection and refuses none.
  void blackHole(const std::string &address) {
    holes_.emplace_back(support::listenAt(address, kConsole, 0));
    // Connections that nobody accepts fill the queue; the kernel drops what comes then.
    for (int count = 0; count < 3; count++) {
      holes_.emplace_back(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
      sockaddr_in to = addressOf(address);
      (void)!::connect(holes_.back().get(), reinterpret_cast<sockaddr *>(&to), sizeof to);
    }
  }

  std::vector<std::string> heard() {
    std::lock_guard<std::mutex> lock(mutex_);
    return heard_;
  }
  void note(const std::string &line) {
    std::lock_guard<std::mutex> lock(mutex_);
    heard_.push_back(line);
  }

 private:
  static sockaddr_in addressOf(const std::string &address) {
    sockaddr_in at{};
    at.sin_family = AF_INET;
    at.sin_port = htons(kConsole);
    inet_pton(AF_INET, address.c_str(), &at.sin_addr);
    return at;
  }
  void serve(int listener, const Play &play) {
    base::Fd owner(listener);
    while (!stop_) {
      pollfd wait = {listener, POLLIN, 0};
      if (poll(&wait, 1, 20) <= 0) continue;
      int sd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
      if (sd < 0) continue;
      std::lock_guard<std::mutex> lock(mutex_);
      talks_.emplace_back([this, sd, play] {
        base::Fd connection(sd);
        Peer peer(sd, stop_);
        play(peer);
      });
    }
  }

  std::atomic<bool> stop_{false};
  std::list<std::thread> threads_;
  std::mutex mutex_;
  std::list<std::thread> talks_;
  std::vector<std::string> heard_;
  std::vector<base::Fd> holes_;
};

class FanOut : public support::HomeTest {
 protected:
  static void SetUpTestSuite() {
    static bool own = support::ownNetwork();
    (void)own;
  }
  void SetUp() override {
    HomeTest::SetUp();
    kept_ = fanout::limits;
    fanout::resultHeaded = false;
    signal(SIGPIPE, SIG_DFL);
  }
  void TearDown() override {
    fanout::limits = kept_;
    HomeTest::TearDown();
  }

  // Plays.
  static void accepts(Peer &peer) {
    peer.line();
    peer.say("TRANSFER OK\n");
  }
  static Play says(const std::string &text) {
    return [text](Peer &peer) {
      peer.line();
      peer.say(text);
    };
  }
  static void saysNothing(Peer &peer) { peer.hang(); }

  // minimonk on these hosts, its result in `result`; what it said.
  std::string run(const std::vector<std::string> &hosts,
                  const std::vector<std::string> &commands = {"MREPL mrepclnt 1\n"}, int job = -1) {
    std::vector<strNode> nodes(hosts.size() + 1);
    for (size_t at = 0; at < hosts.size(); at++)
      nodes[at] = {const_cast<char *>(hosts[at].c_str()), &nodes[at + 1]};
    std::vector<char *> lines;
    for (const std::string &command : commands)
      lines.push_back(const_cast<char *>(command.c_str()));
    lines.push_back(nullptr);
    return support::captureStderr([&] { result = minimonk(&nodes[0], lines.data(), job); });
  }
  std::string results(int job = -1) const {
    return support::readFile(path("tmp/mrepl.jobresult." + std::to_string(job)));
  }
  bool resultHas(const std::string &line) const {
    return results().find(line) != std::string::npos;
  }

  int result = 99;
  Agents agents;

 private:
  fanout::Limits kept_;
};

inline std::string note(int good, int all) {
  return "NOTE:  Replication started on " + std::to_string(good) + " out of " +
         std::to_string(all) + " hosts.\n";
}

}  // namespace fanout_test
