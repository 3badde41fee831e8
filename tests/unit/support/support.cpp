// The fixture, captured streams and watched children of support.h.
#include "support.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sched.h>
#include <signal.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "base/pause.h"
#include "base/site.h"

namespace support {

namespace fs = std::filesystem;

void HomeTest::SetUp() {
  char name[] = "/tmp/zultest.XXXXXX";
  ASSERT_NE(mkdtemp(name), nullptr);
  home = name;
  for (const char *folder :
       {"etc", "bin", "tmp", "var", "var/tape", "var/tape/jobids", "var/tape/mrepljobs"})
    fs::create_directories(path(folder));
  snprintf(ZULhome, sizeof ZULhome, "%s", home.c_str());
  status_ = backuplog = fopen(path("tmp/.status").c_str(), "we");
  log_ = fplog = fopen(path("tmp/.hostlog").c_str(), "we");
  setvbuf(backuplog, nullptr, _IONBF, 0);
  setvbuf(fplog, nullptr, _IONBF, 0);
  hostPlay = HostPlay();
  site("behaviour = classic\n");
  errno = 0;
}

void HomeTest::TearDown() {
  // The module closes and replaces backuplog as it likes: only the stream it left there is ours to
  // close.
  if (backuplog && backuplog != stderr) fclose(backuplog);
  backuplog = fplog = nullptr;
  status_ = nullptr;
  if (log_) fclose(log_);
  base::forgetSite();
  std::error_code ignored;
  fs::permissions(home, fs::perms::owner_all, ignored);
  fs::remove_all(home, ignored);
}

std::string HomeTest::statusLog() const {
  return readFile(path("tmp/.status"));
}
std::string HomeTest::hostLog() const {
  return readFile(path("tmp/.hostlog"));
}

void HomeTest::clearLogs() {
  for (const char *log : {"tmp/.status", "tmp/.hostlog"}) (void)!truncate(path(log).c_str(), 0);
  if (status_) rewind(status_);
  if (log_) rewind(log_);
}

void HomeTest::site(const std::string &text) {
  writeFile(path("etc/ZULsite"), text);
  base::forgetSite();
}

static std::string capture(int fd, FILE *stream, const std::function<void()> &body) {
  char name[] = "/tmp/zulcapture.XXXXXX";
  int file = mkstemp(name);
  fflush(stream);
  int kept = dup(fd);
  dup2(file, fd);
  int keptErrno = errno;
  errno = 0;
  (void)keptErrno;
  body();
  fflush(stream);
  dup2(kept, fd);
  close(kept);
  close(file);
  std::string text = readFile(name);
  unlink(name);
  return text;
}

std::string captureStderr(const std::function<void()> &body) {
  return capture(2, stderr, body);
}
std::string captureStdout(const std::function<void()> &body) {
  return capture(1, stdout, body);
}

int inChild(const std::function<int()> &body, int limitSeconds) {
  fflush(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
    int result = body();
    fflush(nullptr);
    _exit(result);
  }
  int status = 0;
  bool ended =
      eventually([&] { return waitpid(pid, &status, WNOHANG) == pid; }, limitSeconds * 1000);
  if (!ended) {
    kill(pid, SIGKILL);
    waitpid(pid, &status, 0);
    ADD_FAILURE() << "the child ran for longer than " << limitSeconds << " s";
  }
  return status;
}

int exitOf(int waitStatus) {
  return WIFEXITED(waitStatus) ? WEXITSTATUS(waitStatus) : 1000 + WTERMSIG(waitStatus);
}

std::string readFile(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

void writeFile(const std::string &path, const std::string &content, mode_t mode) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
  ASSERT_GE(fd, 0) << path << ": " << strerror(errno);
  ASSERT_EQ(write(fd, content.data(), content.size()), static_cast<ssize_t>(content.size()));
  close(fd);
}

bool exists(const std::string &path) {
  struct stat status;
  return lstat(path.c_str(), &status) == 0;
}

bool eventually(const std::function<bool()> &condition, int limitMs) {
  for (long long end = base::nowMs() + limitMs;;) {
    if (condition()) return true;
    if (base::nowMs() >= end) return false;
    base::sleepMs(5);
  }
}

std::string pattern(size_t size, unsigned seed) {
  std::string bytes(size, '\0');
  for (char &byte : bytes) {
    seed = seed * 1103515245 + 12345;
    byte = static_cast<char>(seed >> 16);
  }
  return bytes;
}

int count(const std::string &text, const std::string &part) {
  int found = 0;
  for (size_t at = 0; (at = text.find(part, at)) != std::string::npos; at += part.size()) found++;
  return found;
}

int resultOf(pid_t child, const std::string &file, int limitSeconds,
             const std::function<std::string()> &log) {
  constexpr int kKilled = 12345, kBadEnd = 54321;
  int status = 0;
  if (!eventually([&] { return waitpid(child, &status, WNOHANG) == child; }, limitSeconds * 1000)) {
    ADD_FAILURE() << "the job still runs after " << limitSeconds << " s:\n" << log();
    kill(-child, SIGKILL);
    waitpid(child, &status, 0);
    return kKilled;
  }
  if (exitOf(status) != 0) {
    ADD_FAILURE() << "the job has ended by " << exitOf(status) << ":\n" << log();
    return kBadEnd;
  }
  return atoi(readFile(file).c_str());
}

int listenOn(int &port) {
  int sd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  int on = 1;
  setsockopt(sd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<uint16_t>(port));
  socklen_t length = sizeof address;
  if (bind(sd, reinterpret_cast<sockaddr *>(&address), length) != 0 || listen(sd, 8) != 0 ||
      getsockname(sd, reinterpret_cast<sockaddr *>(&address), &length) != 0) {
    close(sd);
    return -1;
  }
  port = ntohs(address.sin_port);
  return sd;
}

int listenAt(const std::string &address, int port, int backlog) {
  int sd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  int on = 1;
  setsockopt(sd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in at{};
  at.sin_family = AF_INET;
  at.sin_port = htons(static_cast<uint16_t>(port));
  inet_pton(AF_INET, address.c_str(), &at.sin_addr);
  EXPECT_EQ(bind(sd, reinterpret_cast<sockaddr *>(&at), sizeof at), 0) << address << ":" << port;
  EXPECT_EQ(listen(sd, backlog), 0) << address << ":" << port;
  return sd;
}

int dial(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  int sd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (connect(sd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0) return sd;
  close(sd);
  return -1;
}

std::string receiveLine(int sd) {
  std::string line;
  char byte;
  while (recv(sd, &byte, 1, 0) == 1) {
    line += byte;
    if (byte == '\n') break;
  }
  return line;
}

std::string readBytes(int fd, size_t length) {
  std::string text(length, '\0');
  size_t at = 0;
  for (ssize_t got; at < length && (got = read(fd, text.data() + at, length - at)) > 0;)
    at += static_cast<size_t>(got);
  text.resize(at);
  return text;
}

void HomeTest::alone(const std::function<void()> &body, int limitSeconds) {
  int status = inChild(
      [&] {
        if (!ownNetwork()) return 99;
        body();
        return HasFailure() ? 1 : 0;
      },
      limitSeconds);
  EXPECT_EQ(exitOf(status), 0);
}

bool ownNetwork() {
  constexpr int kOwn = CLONE_NEWNET | CLONE_NEWIPC;
  if (unshare(kOwn) != 0 && unshare(CLONE_NEWUSER | kOwn) != 0) return false;
  int sd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ifreq request{};
  strcpy(request.ifr_name, "lo");
  request.ifr_flags = IFF_UP | IFF_RUNNING;
  bool up = ioctl(sd, SIOCSIFFLAGS, &request) == 0;
  close(sd);
  return up;
}

}  // namespace support
