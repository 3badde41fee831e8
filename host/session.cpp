// A session: finds out who the peer is, then runs its requests one after the other, each in a
// process of its own. It waits for each to end, whatever the peer does meanwhile.
#include "host/session.h"

#include <arpa/inet.h>
#include <errno.h>
#include <grp.h>
#include <pwd.h>
#include <sodium.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>
#include <zul/host.h>

#include <string>
#include <vector>

#include "base/pause.h"
#include "base/process.h"
#include "host/authorise.h"
#include "host/console.h"
#include "host/hostlog.h"
#include "host/request.h"
#include "host/title.h"

namespace host {

namespace {

constexpr int kStrangerDrainMs = 500;
constexpr size_t kMaxRequest = 4095;
constexpr std::string_view kPrompt = "ZuL>";
constexpr const char *kGroup = "zul";

std::string homePath(const char *relative) {
  return std::string(ZULhome) + "/" + relative;
}

int64_t monotonicSecond() {
  return base::nowMs() / 1000 + 1;
}  // never 0, which means "none"

std::string addressText(uint32_t address) {
  in_addr raw{htonl(address)};
  char text[INET_ADDRSTRLEN];
  return inet_ntop(AF_INET, &raw, text, sizeof text) ? text : "?";
}

// --- who is it ---

// The key a claim has to be proved with; false says why there is none.
bool keyOf(const login::Claim &claim, login::Key &key, login::Role &role, std::string &why) {
  if (claim.kind == login::Kind::node)
    return login::readSecret(homePath("etc/ZULsecret"), key, why);
  login::User user;
  if (!login::findUser(homePath("etc/ZULusers"), claim.name, user, why)) {
    if (why.empty()) why = "unknown user";
    return false;
  }
  key = user.key;
  role = user.role;
  return true;
}

// Checks a claim; false says why. An unknown name takes the same way as a wrong proof, with a key
// that nobody has, so that names cannot be told apart from outside.
bool accept(const SessionStart &start, const login::Claim &claim, const login::Nonce &server,
            login::Key &key, login::Role &role, std::string &why) {
  if (start.shared->wrongProofs.exceeded(start.address, monotonicSecond())) {
    why = "too many wrong proofs from this address";
    return false;
  }
  bool known = keyOf(claim, key, role, why);
  if (!known) key = login::newSecret();
  if (!login::proofHolds(claim, server, key)) {
    // A missing secret is this host's fault and no guess of the peer's.
    if (known || claim.kind == login::Kind::user)
      start.shared->wrongProofs.record(start.address, monotonicSecond());
    if (known) why = "wrong proof";
    return false;
  }
  return known && (claim.kind == login::Kind::user ||
                   nodeMayLogIn(homePath("etc/ZULnodes"), claim.name, start.address, why));
}

bool logInRemote(Console &console, const SessionStart &start, Peer &peer) {
  peer.from = addressText(start.address);
  login::Nonce server = login::newNonce();
  std::string line;
  if (!console.send(login::greeting(server))) return false;
  LineEnd end = console.readLine(line, login::kMaxLine - 1, start.patience.loginMs);
  // Who connects only to see whether somebody listens is not worth a line in the log.
  bool gone = (end == LineEnd::end || end == LineEnd::failed) && line.empty();
  if (gone || end == LineEnd::stopped) return false;
  login::Claim claim;
  login::Key key;
  std::string why = end == LineEnd::silence ? "no login line in time" : "not a login line";
  bool good = end == LineEnd::line && login::parseClaim(line, claim);
  peer.kind = claim.kind;
  peer.name = claim.name;
  if (good && accept(start, claim, server, key, peer.role, why))
    return console.send(login::acceptance(claim, server, key));
  logEvent("login refused from %s: %s %s: %s", peer.from.c_str(),
           claim.kind == login::Kind::node ? "NODE" : "USER", printable(claim.name).c_str(),
           why.c_str());
  base::sleepMs(start.patience.refusalMs);
  console.send("NO\n");
  // Strangers hold one of few places meanwhile.
  console.drain(kStrangerDrainMs);
  return false;
}

bool isMember(uid_t uid, gid_t primary, const char *groupName) {
  const group *wanted = getgrnam(groupName);
  const passwd *user = getpwuid(uid);
  if (!wanted) return false;
  if (primary == wanted->gr_gid) return true;
  if (!user) return false;
  std::vector<gid_t> groups(65536);
  int count = static_cast<int>(groups.size());
  gid_t wantedId = wanted->gr_gid;
  if (getgrouplist(user->pw_name, user->pw_gid, groups.data(), &count) < 0) return false;
  for (int at = 0; at < count; at++)
    if (groups[static_cast<size_t>(at)] == wantedId) return true;
  return false;
}

bool logInLocal(Console &console, Peer &peer) {
  ucred credentials{};
  socklen_t length = sizeof credentials;
  if (getsockopt(console.get(), SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0) return false;
  const passwd *user = getpwuid(credentials.uid);
  peer.kind = login::Kind::user;
  peer.name = user ? user->pw_name : std::to_string(credentials.uid);
  peer.from = "this machine";
  if (credentials.uid == 0 || credentials.uid == geteuid() ||
      isMember(credentials.uid, credentials.gid, kGroup)) {
    peer.role = login::Role::operatorRole;
    return console.send(std::string("OK local ") + login::roleName(peer.role) + "\n");
  }
  logEvent("local login refused: user %s", peer.name.c_str());
  console.send("NO\n");
  console.drain();
  return false;
}

// --- request after request ---

class Session {
 public:
  Session(Console &console, const Peer &peer, const SessionStart &start)
      : console_(console),
        peer_(peer),
        module_(*start.module),
        nodeSilenceMs_(start.patience.nodeSilenceMs) {}
  void serve();

 private:
  bool isOperator() const { return peer_.kind == login::Kind::user; }
  std::string who() const { return peer_.name + "@" + peer_.from; }
  bool serveLine(std::string line);
  int runRequest(const std::string &line);

  Console &console_;
  const Peer &peer_;
  const Module &module_;
  int nodeSilenceMs_;
};

// What is left of an upload whose request has ended before it: no request.
bool isUploadRest(std::string_view line) {
  return line.starts_with(kPrompt) || line.starts_with("UpLoAd_DoNe.") ||
         line.starts_with("ZuL_DoNe.");
}

// The list that follows this request is data to its last line. The request stops reading where it
// has enough, and what is left must not be taken for requests.
bool takesTheRest(const RequestLine &request) {
  std::string_view rest = request.rest;
  return familyOf(request.word) == Family::tape && firstWord(rest) == "rsync";
}

void Session::serve() {
  for (bool more = true; more;) {
    // An agent hears nothing that its request did not say: a byte more would be taken for the
    // request's answer, or turn the peer's close into a reset.
    if (isOperator() && !console_.send(kPrompt)) return;
    std::string line;
    switch (console_.readLine(line, kMaxRequest, isOperator() ? -1 : nodeSilenceMs_)) {
      case LineEnd::line:
        more = serveLine(std::move(line));
        break;
      case LineEnd::end:
        // A peer may close right behind its request, even without a line feed; it is carried out
        // all the same.
        if (!line.empty()) serveLine(std::move(line));
        return;
      case LineEnd::tooLong:
        logEvent("%s: a request of more than %zu bytes refused", who().c_str(), kMaxRequest);
        console_.send("ERROR:  Line too long\n");
        more = false;
        break;
      case LineEnd::silence:
      case LineEnd::stopped:
        more = false;
        break;
      case LineEnd::failed:
        return;
    }
  }
  console_.drain();
}

// False when the session is over.
bool Session::serveLine(std::string line) {
  if (!line.empty() && line.back() == '\r') line.pop_back();
  if (line.find_first_not_of(" \t") == std::string::npos || (isOperator() && isUploadRest(line)))
    return true;
  RequestLine request = cutRequest(line);
  int status = 1;
  if (line.find('\0') != std::string::npos) {
    // Ends a text for the module, but not for the check of rights.
    console_.send("ERROR:  Not a line of text\n");
  } else if (familyOf(request.word) == Family::unknown) {
    console_.send("ERROR:  Unknown request, " + std::string(request.word) + "\n");
  } else if (!mayRun(peer_, request)) {
    logEvent("%s: not permitted: %s", who().c_str(), printable(line).c_str());
    console_.send("ERROR:  Not permitted\n");
  } else {
    status = runRequest(line);
  }
  return console_.send("ZuL_DoNe. " + std::to_string(status) + "\n") && !takesTheRest(request);
}

// Starts the request's process and waits for it. A peer that goes away meanwhile changes nothing
// for it.
int Session::runRequest(const std::string &line) {
  pid_t pid = base::forkFlushed();
  if (pid == 0) becomeRequest(console_.get(), module_, line);
  if (pid < 0) {
    int error = errno;
    logEvent("%s: cannot start a process: %s", who().c_str(), strerror(error));
    console_.send(std::string("ERROR:  Cannot start the request: ") + strerror(error) + "\n");
    return 1;
  }
  logEvent("%s: process %d: %s", who().c_str(), pid, printable(line).c_str());
  int status = 0;
  pid_t ended;
  do {
    ended = waitpid(pid, &status, 0);
  } while (ended < 0 && errno == EINTR);
  int result = WIFSIGNALED(status) ? 256 + WTERMSIG(status) : WEXITSTATUS(status);
  logEvent("%s: process %d ended with %d", who().c_str(), pid, result);
  return result;
}

}  // namespace

void runSession(const SessionStart &start) {
  Console console(start.console);
  Peer peer;
  if (!(start.local ? logInLocal(console, peer) : logInRemote(console, start, peer))) return;
  pid_t self = getpid();
  (void)!write(start.notices, &self, sizeof self);
  logEvent("%s %s logged in from %s", peer.kind == login::Kind::node ? "node" : "user",
           peer.name.c_str(), peer.from.c_str());
  showTitle("console of " + peer.name + " from " + peer.from);
  Session(console, peer, start).serve();
}

}  // namespace host
