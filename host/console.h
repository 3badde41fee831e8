// A console connection as its session sees it: whole lines in, texts out, with limits on waiting.
#pragma once
#include <string>
#include <string_view>

namespace host {

enum class LineEnd {
  line,     // a line, without its line feed
  end,      // the peer closed; what came before is the line
  tooLong,  // more than the limit before a line feed
  silence,  // nothing whole in time
  stopped,  // the daemon is being stopped
  failed,   // the connection broke
};

class Console {
 public:
  explicit Console(int sd) : sd_(sd) {}
  int get() const { return sd_; }

  // Reads one line of at most limit bytes, never a byte beyond its line feed: what follows is the
  // request's own input. timeoutMs is for the whole line; -1 waits for ever.
  LineEnd readLine(std::string &line, size_t limit, int timeoutMs);

  // Sends all of it. False when the peer is gone or has taken nothing for a minute.
  bool send(std::string_view text);

  // Ends our side, then reads and drops what still comes until the peer closes, at most 5 s.
  // Closing with unread input would reset the connection, and the peer would lose what we sent
  // last.
  void drain(int limitMs = 5000);

 private:
  int sd_;
};

// SIGTERM ends a session, but only while it waits for a line: a request that runs is waited for.
void catchStop();

}  // namespace host
