// A session of zul with a daemon: the local socket of a home, or the console port of another host
// after a login.
#pragma once
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "base/fd.h"
#include "console/reply.h"

namespace console {

// Which daemon, and who we are for it.
struct Target {
  std::string home;          // used when host is empty
  std::string host;          // name or address of another machine, perhaps with ":port"
  std::string user;          // operator's name there
  std::string passwordFile;  // instead of asking for the password
};

// How a request ended for the client.
struct Outcome {
  bool ended = false;     // the end line was seen
  bool accepted = false;  // "TRANSFER OK" began a line
  int status = 0;         // of the end line
};

class Connection {
 public:
  // Connects and logs in; a Failure with Exit::noConnection says why not and what to do.
  explicit Connection(const Target &target);

  const std::string &role() const { return role_; }
  int fd() const { return socket_.get(); }

  // Sends one request line (without line feed); Failure when it cannot be one.
  void send(const std::string &request);
  // Sends bytes behind a request that asked for them.
  void sendBytes(std::string_view bytes);
  // No more bytes will be sent.
  void endSending();

  // Reads the answer to the request sent last and hands its text to sink, as it arrives. Ends at
  // the end line, at the end of the stream, or, unless toTheEnd is set, as soon as the request was
  // accepted; also when limitMs have passed (-1: no limit), and when interrupted() says so, which
  // is asked whenever a signal arrives. May be called again to go on.
  Outcome receive(const std::function<void(std::string_view)> &sink, bool toTheEnd,
                  int limitMs = -1, const std::function<bool()> &interrupted = nullptr);

  // A whole request whose answer is a text for us. Failure with Exit::noConnection when the
  // connection breaks.
  struct Answer {
    int status;
    std::string text;
  };
  Answer ask(const std::string &request);
  // "HOST get PATH": the file's content; nothing when the daemon does not give it (why says in its
  // words).
  std::optional<std::string> fetch(const std::string &path, std::string *why = nullptr);

 private:
  void openLocal(const Target &target);
  void openHost(const Target &target);
  std::string readGreeting();
  void readPrompt();

  std::string where_;  // for messages: the home or the host
  std::string role_;
  base::Fd socket_;
  ReplyParser parser_;
  bool promptSeen_ = false;
};

// True for requests that only show something: their texts may hold any line, so none of it means
// acceptance.
bool onlyShows(const std::string &request);

}  // namespace console
