// ZULd: reads its options, takes its home, and listens. With --background the command returns when
// the console is open, so that whoever started it can go on at once, or hears the reason why it is
// not.
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zul/host.h>

#include <CLI/CLI.hpp>
#include <string>

#include "host/hostlog.h"
#include "host/listener.h"
#include "host/title.h"

namespace {

struct Options {
  std::string home;
  std::string log;
  std::string address;
  bool background = false;
};

[[noreturn]] void quit(const std::string &why) {
  fprintf(stderr, "ZULd: %s\n", why.c_str());
  exit(1);
}

// Descriptors 0 to 2 must be taken: a socket that got one of their numbers would receive what is
// printed.
void fillStandardDescriptors() {
  int fd;
  do {
    fd = open("/dev/null", O_RDWR);
  } while (fd >= 0 && fd < 3);
  if (fd > 2) close(fd);
}

std::string absolutePath(const std::string &path) {
  char *resolved = realpath(path.c_str(), nullptr);
  if (!resolved) return {};
  std::string result(resolved);
  free(resolved);
  return result;
}

void takeHome(Options &options) {
  if (options.home.empty()) quit("Which home? Give --home DIR or set ZULHOME.");
  std::string home = absolutePath(options.home);
  struct stat status;
  if (home.empty() || stat((home + "/var").c_str(), &status) != 0 || !S_ISDIR(status.st_mode))
    quit(options.home + " is no home of this system (" + strerror(errno) +
         "): `zul init` makes one");
  // The module keeps it in a text of this size.
  if (home.size() >= sizeof ZULhome)
    quit("The path of the home is too long (at most 255 bytes): " + home);
  options.home = home;
  snprintf(ZULhome, sizeof ZULhome, "%s", home.c_str());
  if (options.log.empty()) {
    if (options.background) options.log = home + "/var/ZULd.log";
  } else if (options.log[0] != '/') {
    // The daemon leaves this directory, and opens the log again when it is rotated.
    options.log = absolutePath(".") + "/" + options.log;
  }
}

// Waits for the word of the daemon behind us and passes on how it went.
[[noreturn]] void awaitReady(pid_t daemon, int ready) {
  char byte;
  if (read(ready, &byte, 1) == 1) _exit(0);
  int status = 0;
  waitpid(daemon, &status, 0);
  _exit(WIFEXITED(status) && WEXITSTATUS(status) != 0 ? WEXITSTATUS(status) : 1);
}

// Forks; the child goes on with the descriptor to say that it is ready on.
int goBehind() {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) quit(std::string("Cannot make a pipe: ") + strerror(errno));
  pid_t pid = fork();
  if (pid < 0) quit(std::string("Cannot start a process: ") + strerror(errno));
  if (pid > 0) {
    close(ends[1]);
    awaitReady(pid, ends[0]);
  }
  close(ends[0]);
  setsid();
  return ends[1];
}

void leaveTerminal(int ready) {
  int null = open("/dev/null", O_RDWR | O_CLOEXEC);
  for (int fd = 0; fd < 3; fd++) dup2(null, fd);
  close(null);
  (void)!write(ready, "R", 1);
  close(ready);
}

void setProcessLimits() {
  rlimit none{0, 0};
  setrlimit(RLIMIT_CORE, &none);
  umask(022);
  // Not the home: who stands there works for it. And no file system is kept from being unmounted.
  (void)!chdir("/");
}

int serve(const Options &options) {
  int ready = options.background ? goBehind() : -1;
  std::string why;
  if (!host::openLog(options.log, why)) quit(why);
  setProcessLimits();
  host::Listener listener({options.home, options.address});
  if (!listener.start(why)) {
    host::logEvent("not started: %s", why.c_str());
    // With the log on standard error it has been said.
    if (options.log.empty()) return 1;
    quit(why);
  }
  if (ready >= 0) leaveTerminal(ready);
  listener.run();
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  fillStandardDescriptors();
  Options options;
  CLI::App app("ZULd, the agent of a site's backup, restore and replication", "ZULd");
  app.set_version_flag("--version", std::string("ZULd ") + ZUL_VERSION);
  app.add_option("--home", options.home, "The installation to serve")->envname("ZULHOME");
  app.add_option("--log", options.log,
                 "Log file; standard error without it, or HOME/var/ZULd.log in the background");
  app.add_option("--address", options.address, "IPv4 address to listen on; all without it");
  app.add_flag("--background", options.background,
               "Return when the console is open and go on behind");
  CLI11_PARSE(app, argc, argv);
  host::prepareTitle(argc, argv);
  takeHome(options);
  return serve(options);
}
