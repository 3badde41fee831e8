// The listener: one process, one loop over four descriptors. Each connection is forked off at once;
// what a session has to tell (its login is over) comes through a pipe, and its end as a signal that
// is read like a message.
#include "host/listener.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>
#include <zul/host.h>

#include <exception>

#include "base/pause.h"
#include "base/process.h"
#include "host/console.h"
#include "host/hostlog.h"
#include "host/hostwords.h"
#include "host/localconsole.h"
#include "host/request.h"
#include "host/session.h"

namespace host {

namespace {

// Room for a site's worth of agents at once. The host speaks first here: a connection that
// overflows the queue looks open to its peer, which would wait for a greeting that nobody sends.
constexpr int kBacklog = 256;
constexpr uint16_t kDefaultPort = 2345;
constexpr int kShortagePauseMs = 200;
constexpr int kAtOnce = 32;  // connections taken before the other descriptors are looked at again

uint16_t consolePort() {
  const servent *service = getservbyname("zul", "tcp");
  return service ? ntohs(static_cast<uint16_t>(service->s_port)) : kDefaultPort;
}

bool fail(std::string &why, const std::string &what) {
  why = what + ": " + strerror(errno);
  return false;
}

// Peers that vanish without a word are noticed after some minutes; answers go out at once, in
// pieces as they are written, because peers act on the first piece.
void tuneConnection(int sd) {
  int on = 1, idle = 60, interval = 15, count = 4;
  setsockopt(sd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
  setsockopt(sd, IPPROTO_TCP, TCP_KEEPIDLE, &idle, sizeof idle);
  setsockopt(sd, IPPROTO_TCP, TCP_KEEPINTVL, &interval, sizeof interval);
  setsockopt(sd, IPPROTO_TCP, TCP_KEEPCNT, &count, sizeof count);
  setsockopt(sd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

void setNonBlocking(int fd) {
  fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
}

}  // namespace

bool Listener::start(std::string &why) {
  if (!pidFile_.take(settings_.home, why)) return false;
  shared_ = makeShared();
  if (!shared_) return fail(why, "Cannot make shared memory");
  facts = {shared_, consolePort()};
  int ends[2];
  if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) return fail(why, "Cannot make a pipe");
  noticesIn_.reset(ends[0]);
  noticesOut_.reset(ends[1]);
  return loadModule(settings_.home, module_, why) && watchSignals(why) && adoptActivated(why) &&
         (tcp_ || listenTcp(why)) && (local_ || listenLocal(why));
}

// A supervisor may hold the sockets, so that nobody is refused while we are being started again.
bool Listener::adoptActivated(std::string &why) {
  int count = sd_listen_fds(1);
  if (count < 0) {
    errno = -count;
    return fail(why, "Cannot take over the supervisor's sockets");
  }
  for (int fd = SD_LISTEN_FDS_START; fd < SD_LISTEN_FDS_START + count; fd++) {
    setNonBlocking(fd);
    if (sd_is_socket_inet(fd, AF_INET, SOCK_STREAM, 1, 0) > 0)
      tcp_.reset(fd);
    else if (sd_is_socket_unix(fd, SOCK_STREAM, 1, nullptr, 0) > 0)
      local_.reset(fd);
    else
      close(fd);
  }
  return true;
}

bool Listener::listenTcp(std::string &why) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(facts.port));
  address.sin_addr.s_addr = htonl(INADDR_ANY);
  if (!settings_.address.empty() &&
      inet_pton(AF_INET, settings_.address.c_str(), &address.sin_addr) != 1) {
    why = "Not an IPv4 address: " + settings_.address;
    return false;
  }
  base::Fd sd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!sd) return fail(why, "Cannot make a socket");
  // Connections of the daemon before us linger for a minute; they must not keep the port from us.
  int on = 1;
  setsockopt(sd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (bind(sd.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 ||
      listen(sd.get(), kBacklog) != 0)
    return fail(why, "Cannot listen on TCP port " + std::to_string(facts.port));
  tcp_ = std::move(sd);
  return true;
}

bool Listener::listenLocal(std::string &why) {
  local_.reset(login::listenLocalConsole(settings_.home, kBacklog));
  if (!local_) return fail(why, "Cannot listen on " + settings_.home + "/var/console");
  setNonBlocking(local_.get());
  localIsOurs_ = true;
  return true;
}

bool Listener::watchSignals(std::string &why) {
  sigset_t watched;
  sigemptyset(&watched);
  for (int number : {SIGTERM, SIGINT, SIGHUP, SIGCHLD}) sigaddset(&watched, number);
  sigprocmask(SIG_BLOCK, &watched, nullptr);
  base::ignoreSigpipe();
  base::defaultSigchld();
  signals_.reset(signalfd(-1, &watched, SFD_CLOEXEC | SFD_NONBLOCK));
  return signals_ ? true : fail(why, "Cannot watch signals");
}

void Listener::run() {
  logEvent("serving %s, console on TCP port %d", settings_.home.c_str(), facts.port);
  sd_notify(0, "READY=1");
  for (;;) {
    bool paused = base::nowMs() < resumeAt_;
    // Strangers who say nothing fill the places of logins; the others wait in the kernel's queue
    // for the ten seconds that such a place lasts, instead of being turned away.
    bool full = logins_ >= kMaxLogins;
    pollfd look[] = {{signals_.get(), POLLIN, 0},
                     {noticesIn_.get(), POLLIN, 0},
                     {paused ? -1 : local_.get(), POLLIN, 0},
                     {paused || full ? -1 : tcp_.get(), POLLIN, 0}};
    poll(look, 4, paused ? kShortagePauseMs : -1);
    if (look[0].revents && !handleSignals()) break;
    if (look[1].revents) handleNotices();
    if (look[2].revents) acceptFrom(local_.get(), true);
    if (look[3].revents) acceptFrom(tcp_.get(), false);
  }
  stop();
}

// False when it is time to stop.
bool Listener::handleSignals() {
  signalfd_siginfo info;
  bool goOn = true;
  while (read(signals_.get(), &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
    if (info.ssi_signo == SIGCHLD) continue;
    if (info.ssi_signo == SIGHUP) {
      reopenLog();
      logEvent("log opened again");
    } else {
      goOn = false;
    }
  }
  // Signals of several children arrive as one.
  reap();
  return goOn;
}

void Listener::reap() {
  int status;
  for (pid_t pid; (pid = waitpid(-1, &status, WNOHANG)) > 0;) {
    auto at = sessions_.find(pid);
    if (at == sessions_.end()) continue;
    if (!at->second) logins_--;
    if (WIFSIGNALED(status)) logEvent("session %d was killed by signal %d", pid, WTERMSIG(status));
    sessions_.erase(at);
  }
  publishCounts();
}

void Listener::handleNotices() {
  for (pid_t pid; read(noticesIn_.get(), &pid, sizeof pid) == static_cast<ssize_t>(sizeof pid);) {
    auto at = sessions_.find(pid);
    if (at == sessions_.end() || at->second) continue;
    at->second = true;
    logins_--;
  }
  publishCounts();
}

// With a session that comes: it may be asked for these before its process is known here.
void Listener::publishCounts(bool coming, bool local) {
  shared_->sessions = static_cast<uint32_t>(sessions_.size() + coming);
  shared_->logins = static_cast<uint32_t>(logins_ + (coming && !local));
}

void Listener::acceptFrom(int listening, bool local) {
  for (int taken = 0; taken < kAtOnce && (local || logins_ < kMaxLogins); taken++) {
    sockaddr_in peer{};
    socklen_t length = sizeof peer;
    int sd = accept4(listening, local ? nullptr : reinterpret_cast<sockaddr *>(&peer),
                     local ? nullptr : &length, SOCK_CLOEXEC);
    if (sd < 0) {
      if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
        logEvent("cannot accept a connection: %s", strerror(errno));
        resumeAt_ = base::nowMs() + kShortagePauseMs;
      }
      // What else fails here fails for one connection, or there is none any more.
      return;
    }
    if (!local) tuneConnection(sd);
    startSession(sd, local, local ? 0 : ntohl(peer.sin_addr.s_addr));
    close(sd);
  }
}

void Listener::startSession(int sd, bool local, uint32_t address) {
  publishCounts(true, local);
  pid_t pid = base::forkFlushed();
  if (pid == 0) becomeSession(sd, local, address);
  if (pid < 0) {
    logEvent("cannot start a session: %s", strerror(errno));
    publishCounts();
    resumeAt_ = base::nowMs() + kShortagePauseMs;
    return;
  }
  // A local peer is known at once: its session counts as logged in.
  sessions_[pid] = local;
  if (!local) logins_++;
  publishCounts();
}

void Listener::becomeSession(int sd, bool local, uint32_t address) {
  setsid();
  // Sessions that wait for a line end with the listener, however it ends.
  prctl(PR_SET_PDEATHSIG, SIGTERM);
  catchStop();
  if (getppid() != shared_->listener) _exit(0);
  // Nothing else may stay open, least of all the lock on the pid file.
  int notices = noticesOut_.get();
  int log = fplog ? fileno(fplog) : -1;
  closeAllBut({sd, notices, log});
  try {
    SessionStart start;
    start.console = sd;
    start.notices = notices;
    start.local = local;
    start.address = address;
    start.shared = shared_;
    start.module = &module_;
    runSession(start);
  } catch (const std::exception &failure) {
    logEvent("session failed: %s", failure.what());
  }
  _exit(0);
}

void Listener::stop() {
  sd_notify(0, "STOPPING=1");
  logEvent("stopping; requests and jobs go on");
  for (const auto &[pid, loggedIn] : sessions_) kill(pid, SIGTERM);
  if (localIsOurs_) unlink((settings_.home + "/var/console").c_str());
  pidFile_.release();
}

}  // namespace host
