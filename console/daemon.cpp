// zul up and zul down: the daemon of a home.
#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "base/fd.h"
#include "base/pause.h"
#include "console/commands.h"
#include "console/places.h"
#include "console/ports.h"
#include "console/progress.h"
#include "console/text.h"
#include "host/login.h"

namespace console {

namespace {

constexpr int kStartMs = 20000;
constexpr int kStopMs = 20000;

// The daemon holds a lock on its pid file for as long as it lives; the number alone may be
// anybody's by now.
pid_t runningDaemon(const std::string &home) {
  std::string path = home + "/var/ZULd.pid";
  base::Fd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file) return 0;
  if (flock(file.get(), LOCK_SH | LOCK_NB) == 0) return 0;
  long pid = strtol(readWhole(path).value_or("").c_str(), nullptr, 10);
  return pid > 1 ? static_cast<pid_t>(pid) : 0;
}

void checkHome(const std::string &home) {
  if (isHome(home)) return;
  if (!exists(home))
    throw Failure(Exit::failed, "there is no home " + home,
                  "Make it with: zul --home " + home + " init");
  if (access((home + "/etc").c_str(), X_OK) != 0 && errno == EACCES)
    throw Failure(Exit::failed, "you may not look into " + home,
                  "Use zul as root or as the user the home belongs to.");
  checkSecretLost(home);
  throw Failure(Exit::failed, home + " is no home: it has no etc/ZULsecret",
                "Make it one with: zul --home " + home + " init");
}

struct Ended {
  int status;  // of waitpid
  std::string text;
};

// Runs a program with both outputs going to a file of its own: the daemon that it leaves behind may
// keep them open for ever, and nobody must wait for the end of a pipe then.
Ended runQuietly(const std::vector<std::string> &words) {
  base::Fd output(memfd_create("zul-up", MFD_CLOEXEC));
  std::vector<char *> arguments;
  arguments.reserve(words.size() + 1);
  for (const std::string &word : words) arguments.push_back(const_cast<char *>(word.c_str()));
  arguments.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, output.get(), STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, output.get(), STDERR_FILENO);
  pid_t pid;
  int error = posix_spawn(&pid, arguments[0], &actions, nullptr, arguments.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) throw Failure(Exit::failed, "cannot start " + words[0] + ": " + strerror(error));
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  std::string text(16384, '\0');
  ssize_t got = pread(output.get(), text.data(), text.size(), 0);
  text.resize(got > 0 ? static_cast<size_t>(got) : 0);
  while (!text.empty() && text.back() == '\n') text.pop_back();
  return Ended{status, text};
}

std::string portHint() {
  servent *service = getservbyname("zul", "tcp");
  int port = service ? ntohs(static_cast<uint16_t>(service->s_port)) : 2345;
  std::string listener = listenerOf(port);
  if (listener.empty()) return "";
  return "Port " + std::to_string(port) + " is held by " + listener +
         ". There is one agent per machine: stop the other first.";
}

[[noreturn]] void didNotStart(const Ended &ended, const std::string &log) {
  std::string how = WIFSIGNALED(ended.status)
                        ? "was killed by signal " + std::to_string(WTERMSIG(ended.status))
                        : "ended with status " + std::to_string(WEXITSTATUS(ended.status));
  std::string hint = portHint();
  throw Failure(
      Exit::failed,
      "the daemon did not start (it " + how + ")" + (ended.text.empty() ? "" : ":\n" + ended.text),
      hint.empty() ? "Its log is " + log : hint);
}

// The first connection that succeeds shows that the daemon serves.
std::string waitUntilServing(const std::string &home, const std::string &log) {
  for (long long deadline = base::nowMs() + kStartMs;;) {
    try {
      Target target;
      target.home = home;
      return Connection(target).role();
    } catch (const Failure &failure) {
      if (base::nowMs() < deadline) {
        base::sleepMs(20);
        continue;
      }
      throw Failure(Exit::noConnection,
                    std::string("the daemon was started but does not serve: ") + failure.what(),
                    "Its log is " + log);
    }
  }
}

// Jobs that have not recorded an end and whose process is there, in words.
std::vector<std::string> jobsGoingOn(const std::string &home) {
  std::vector<std::string> jobs;
  Target target;
  target.home = home;
  Connection::Answer answer = Connection(target).ask("HOST jobs json");
  nlohmann::json list = nlohmann::json::parse(answer.text, nullptr, false);
  if (!list.is_array()) return jobs;
  for (const nlohmann::json &entry : list) {
    std::optional<Progress> progress = parseProgress(entry.dump());
    auto alive = entry.find("alive");
    if (progress && progress->running() && alive != entry.end() && *alive == true)
      jobs.push_back(jobText(*progress) + ", pid " + std::to_string(progress->pid));
  }
  return jobs;
}

// True when the process has ended; not a child of ours, so it is watched through a descriptor.
bool waitForEnd(pid_t pid, const std::string &home) {
  base::Fd process(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
  if (!process) return runningDaemon(home) == 0;
  long long deadline = base::nowMs() + kStopMs;
  for (;;) {
    pollfd entry{process.get(), POLLIN, 0};
    long long left = deadline - base::nowMs();
    int ready = poll(&entry, 1, left > 0 ? static_cast<int>(left) : 0);
    if (ready >= 0) return ready == 1;
  }
}

}  // namespace

// A daemon that cannot use its secret serves this machine and refuses all others.
static void warnOfSecret(const std::string &home) {
  login::Key key;
  std::string why;
  if (login::readSecret(home + "/etc/ZULsecret", key, why)) return;
  printErr("zul: no other host can log in, nor can this one elsewhere: " + oneLine(why) + "\n");
}

Exit startDaemon(const UpOptions &options) {
  const std::string &home = options.home;
  checkHome(home);
  if (pid_t pid = runningDaemon(home)) {
    std::string log = "the one that the daemon was started with";
    waitUntilServing(home, log);
    printOut("The daemon of " + home + " is running already, pid " + std::to_string(pid) + ".\n");
    return Exit::done;
  }
  std::string log = options.log.empty() ? home + "/var/ZULd.log" : options.log;
  Ended ended = runQuietly({findDaemon(), "--home", home, "--log", log, "--background"});
  if (ended.status != 0) didNotStart(ended, log);
  if (!ended.text.empty()) printErr(ended.text + "\n");
  waitUntilServing(home, log);
  warnOfSecret(home);
  printOut("The daemon of " + home + " is up, pid " + std::to_string(runningDaemon(home)) +
           ", log " + log + ".\n");
  return Exit::done;
}

Exit stopDaemon(const std::string &home) {
  checkHome(home);
  pid_t pid = runningDaemon(home);
  if (pid == 0) {
    printOut("No daemon is running for " + home + ".\n");
    return Exit::done;
  }
  std::vector<std::string> jobs;
  try {
    jobs = jobsGoingOn(home);
  } catch (const Failure &) {
    // A daemon that does not answer can still be stopped.
  }
  if (kill(pid, SIGTERM) != 0 && errno != ESRCH)
    throw Failure(Exit::failed,
                  "cannot stop the daemon, pid " + std::to_string(pid) + ": " + strerror(errno),
                  "Use zul as root or as the user the daemon runs as.");
  if (!waitForEnd(pid, home))
    throw Failure(Exit::failed,
                  "the daemon, pid " + std::to_string(pid) + ", has not ended within 20 s",
                  "See its log; as a last resort: kill -9 " + std::to_string(pid) +
                      " (jobs go on without it).");
  std::string text = "The daemon of " + home + " has stopped.\n";
  for (const std::string &job : jobs) text += "Going on without it: " + job + "\n";
  if (!jobs.empty()) text += "The next \"zul up\" finds them again.\n";
  printOut(text);
  return Exit::done;
}

}  // namespace console
