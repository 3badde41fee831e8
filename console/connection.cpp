// Connecting to a daemon, logging in, and asking for one request after the other. Every command of
// zul that does not work on files alone comes through here, in zul's one process.
#include "console/connection.h"

#include <errno.h>
#include <netdb.h>
#include <poll.h>
#include <pwd.h>
#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <map>

#include "base/pause.h"
#include "console/failure.h"
#include "console/password.h"
#include "console/text.h"
#include "host/localconsole.h"
#include "host/login.h"

namespace console {

namespace {

constexpr int kGreetingMs = 10000;
constexpr int kConnectMs = 8000;
constexpr size_t kMaxRequest = 4094;             // the daemon reads lines of at most 4095 bytes
constexpr size_t kMaxAnswer = size_t{64} << 20;  // of a request whose answer zul itself reads

[[noreturn]] void lost(const std::string &where, const std::string &what) {
  throw Failure(
      Exit::noConnection, "the connection to " + where + " broke: " + what,
      "Requests that were accepted go on without it; see \"zul status\" and \"zul jobs\".");
}

std::string upHint(const std::string &home) {
  return "Start it with: zul --home " + home + " up";
}

[[noreturn]] void noLocalConsole(const std::string &home, int error) {
  std::string place = home + "/var/console";
  if (access(home.c_str(), F_OK) != 0 && errno == ENOENT)
    throw Failure(
        Exit::noConnection, "there is no home " + home,
        "Name another with --home or ZULHOME, or make it with: zul --home " + home + " init");
  if (error == ENOENT)
    throw Failure(Exit::noConnection,
                  "no daemon is running for " + home + " (there is no " + place + ")",
                  upHint(home));
  if (error == ECONNREFUSED)
    throw Failure(Exit::noConnection,
                  "no daemon is running for " + home + " (nobody listens on " + place + ")",
                  upHint(home));
  if (error == EACCES || error == EPERM)
    throw Failure(Exit::noConnection, "you may not use the console " + place,
                  "Be root, the user the daemon runs as, or a member of the group zul.");
  throw Failure(Exit::noConnection, "cannot connect to " + place + ": " + strerror(error));
}

// Waits for readiness until the deadline on the monotonic clock; false when it passed.
bool waitFor(int fd, short events, long long deadline) {
  for (;;) {
    long long left = deadline - base::nowMs();
    pollfd entry{fd, events, 0};
    int ready = poll(&entry, 1, left > 0 ? static_cast<int>(left) : 0);
    if (ready > 0) return true;
    if (ready == 0 || errno != EINTR) return false;
  }
}

struct AddressList {
  addrinfo *first = nullptr;
  ~AddressList() {
    if (first) freeaddrinfo(first);
  }
};

// "name", "name:port", "[address]:port"; a bare IPv6 address has several colons.
void splitHost(const std::string &text, std::string &name, std::string &port) {
  name = text;
  size_t colon = text.rfind(':');
  if (!text.empty() && text[0] == '[') {
    size_t close = text.find(']');
    name = text.substr(1, close == text.npos ? text.npos : close - 1);
    if (close == text.npos || close + 1 >= text.size() || text[close + 1] != ':') return;
    colon = close + 1;
  } else if (colon == text.npos || text.find(':') != colon) {
    return;
  } else {
    name = text.substr(0, colon);
  }
  port = text.substr(colon + 1);
}

std::string consolePort() {
  servent *service = getservbyname("zul", "tcp");
  return std::to_string(service ? ntohs(static_cast<uint16_t>(service->s_port)) : 2345);
}

// 0, or the errno of the failed attempt.
int connectTo(const addrinfo &address, base::Fd &sd) {
  sd.reset(socket(address.ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!sd) return errno;
  if (connect(sd.get(), address.ai_addr, address.ai_addrlen) == 0) return 0;
  if (errno != EINPROGRESS) return errno;
  if (!waitFor(sd.get(), POLLOUT, base::nowMs() + kConnectMs)) return ETIMEDOUT;
  int error = 0;
  socklen_t size = sizeof error;
  getsockopt(sd.get(), SOL_SOCKET, SO_ERROR, &error, &size);
  return error;
}

base::Fd connectHost(const std::string &host) {
  std::string name, port = consolePort();
  splitHost(host, name, port);
  addrinfo wanted{};
  wanted.ai_socktype = SOCK_STREAM;
  AddressList found;
  int result = getaddrinfo(name.c_str(), port.c_str(), &wanted, &found.first);
  if (result != 0)
    throw Failure(Exit::noConnection, "cannot find host " + name + ": " + gai_strerror(result),
                  "Check the name, or give an address.");
  int error = 0;
  for (addrinfo *address = found.first; address; address = address->ai_next) {
    base::Fd sd;
    error = connectTo(*address, sd);
    if (error == 0) return sd;
  }
  throw Failure(Exit::noConnection,
                "cannot connect to " + name + " port " + port + ": " + strerror(error),
                error == ECONNREFUSED
                    ? "No daemon is running there; start it on that machine with: zul up"
                    : "Check that the machine is up and that a firewall lets the port through.");
}

std::string ownName() {
  passwd *entry = getpwuid(getuid());
  return entry ? entry->pw_name : "";
}

// The key of an operator on a host, derived once: a connection that is made anew must not ask
// again.
const login::Key &keyFor(const std::string &user, const Target &target) {
  static std::map<std::string, login::Key> known;
  std::string whose = user + " on " + target.host;
  auto found = known.find(whose);
  if (found != known.end()) return found->second;
  login::Key key;
  std::string why;
  if (!login::keyFromPassword(user, askPassword(whose, target.passwordFile), key, why))
    throw Failure(Exit::noConnection, "cannot log in as " + user + ": " + why);
  return known.emplace(whose, key).first->second;
}

}  // namespace

bool onlyShows(const std::string &request) {
  size_t first = request.find(' ');
  return first != request.npos && request.compare(first, 5, " get ") == 0;
}

Connection::Connection(const Target &target) {
  if (target.host.empty())
    openLocal(target);
  else
    openHost(target);
}

void Connection::openLocal(const Target &target) {
  where_ = "the daemon of " + target.home;
  socket_.reset(login::connectLocalConsole(target.home));
  if (!socket_) noLocalConsole(target.home, errno);
  std::string greeting = readGreeting();
  if (greeting.rfind("OK local ", 0) != 0) {
    if (greeting == "NO")
      throw Failure(Exit::noConnection,
                    "the daemon of " + target.home + " does not know you as an operator",
                    "Be root, the user the daemon runs as, or a member of the group zul.");
    throw Failure(Exit::noConnection, "what listens on " + target.home +
                                          "/var/console is no ZULd: it said \"" +
                                          oneLine(greeting) + "\"");
  }
  role_ = greeting.substr(strlen("OK local "));
}

void Connection::openHost(const Target &target) {
  where_ = target.host;
  std::string user = target.user.empty() ? ownName() : target.user;
  // First the password, then the connection: the host waits for a login for ten seconds only.
  const login::Key &key = keyFor(user, target);
  socket_ = connectHost(target.host);
  if (!login::clientLogin(socket_.get(), login::Kind::user, user, key))
    throw Failure(
        Exit::noConnection, target.host + " refuses the login of " + user,
        "Check name and password; operators are added on that machine with: zul users add " + user);
}

// One line, byte by byte: the prompt may follow at once.
std::string Connection::readGreeting() {
  std::string line;
  for (long long deadline = base::nowMs() + kGreetingMs; line.size() < 256;) {
    if (!waitFor(socket_.get(), POLLIN, deadline))
      throw Failure(
          Exit::noConnection, where_ + " does not answer within 10 s",
          "It may be busy or stopped; see its log and \"ps\", or restart it: zul down, zul up.");
    char byte;
    ssize_t got = read(socket_.get(), &byte, 1);
    if (got < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (got <= 0) lost(where_, "it closed before it said anything");
    if (byte == '\n') return line;
    line += byte;
  }
  return line;
}

void Connection::sendBytes(std::string_view bytes) {
  while (!bytes.empty()) {
    ssize_t sent = ::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent >= 0) {
      bytes.remove_prefix(static_cast<size_t>(sent));
    } else if (errno == EAGAIN) {
      waitFor(socket_.get(), POLLOUT, base::nowMs() + 60000);
    } else if (errno != EINTR) {
      lost(where_, strerror(errno));
    }
  }
}

void Connection::endSending() {
  shutdown(socket_.get(), SHUT_WR);
}

// The first prompt stands before the first request; later ones end the answers before them.
void Connection::readPrompt() {
  std::string prompt;
  for (long long deadline = base::nowMs() + kGreetingMs; prompt.size() < kPrompt.size();) {
    if (!waitFor(socket_.get(), POLLIN, deadline)) lost(where_, "no prompt within 10 s");
    char bytes[8];
    ssize_t got = read(socket_.get(), bytes, kPrompt.size() - prompt.size());
    if (got < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (got <= 0) lost(where_, "it closed before its first prompt");
    prompt.append(bytes, static_cast<size_t>(got));
  }
  if (prompt != kPrompt) lost(where_, "no prompt, but \"" + oneLine(prompt) + "\"");
  promptSeen_ = true;
}

void Connection::send(const std::string &request) {
  if (request.find_first_of(std::string_view("\n\r\0", 3)) != request.npos)
    throw Failure(Exit::usage, "a request is one line of text; this one holds a line end");
  if (request.size() > kMaxRequest)
    throw Failure(Exit::usage, "the request is " + std::to_string(request.size()) +
                                   " bytes long; " + std::to_string(kMaxRequest) + " are the most");
  if (!promptSeen_) readPrompt();
  parser_ = ReplyParser(request.rfind("HOST get ", 0) == 0);
  sendBytes(request + "\n");
}

Outcome Connection::receive(const std::function<void(std::string_view)> &sink, bool toTheEnd,
                            int limitMs, const std::function<bool()> &interrupted) {
  bool broken = false;
  long long deadline = base::nowMs() + limitMs;
  sigset_t openMask;
  sigemptyset(&openMask);
  while (!parser_.ended() && !broken && (toTheEnd || !parser_.accepted())) {
    pollfd entry{socket_.get(), POLLIN, 0};
    char bytes[65536];
    ssize_t got = -1;
    long long left = limitMs < 0 ? 0 : std::max(deadline - base::nowMs(), 0LL);
    timespec limit{static_cast<time_t>(left / 1000), static_cast<long>(left % 1000 * 1000000)};
    // Whoever can be interrupted keeps the signal blocked but for this wait, so that none slips in
    // before it.
    int ready = ppoll(&entry, 1, limitMs < 0 ? nullptr : &limit, interrupted ? &openMask : nullptr);
    if (ready == 0) break;
    if (ready > 0) got = read(socket_.get(), bytes, sizeof bytes);
    int error = errno;
    if (interrupted && interrupted()) break;
    if (got < 0 && (error == EINTR || error == EAGAIN)) continue;
    broken = got <= 0;
    std::string text =
        broken ? parser_.finish() : parser_.feed(std::string_view(bytes, static_cast<size_t>(got)));
    if (!text.empty()) sink(text);
  }
  return Outcome{parser_.ended(), parser_.accepted(), parser_.status()};
}

Connection::Answer Connection::ask(const std::string &request) {
  std::string text;
  bool tooLong = false;
  send(request);
  Outcome outcome = receive(
      [&](std::string_view piece) {
        tooLong = tooLong || text.size() + piece.size() > kMaxAnswer;
        if (!tooLong) text += piece;
      },
      true);
  if (!outcome.ended) lost(where_, "it closed in the middle of the answer to \"" + request + "\"");
  if (tooLong)
    throw Failure(Exit::failed, "the answer to \"" + request + "\" is too long to be true");
  return Answer{outcome.status, text};
}

std::optional<std::string> Connection::fetch(const std::string &path, std::string *why) {
  Answer answer = ask("HOST get " + path);
  size_t lineEnd = answer.text.find('\n');
  if (answer.status == 0 && answer.text.rfind("DATA ", 0) == 0 && lineEnd != answer.text.npos)
    return answer.text.substr(lineEnd + 1);
  if (why) *why = answer.text;
  return std::nullopt;
}

}  // namespace console
