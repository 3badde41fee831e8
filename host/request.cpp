// What the module finds at entry is set up here, item by item. A job that detaches returns from the
// entry much later, in a process that holds none of these descriptors any more: behind the call
// there is nothing but the exit.
#include "host/request.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/close_range.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zul/host.h>

#include <algorithm>
#include <exception>
#include <vector>

#include "base/process.h"
#include "host/authorise.h"
#include "host/files.h"
#include "host/hostlog.h"
#include "host/hostwords.h"
#include "host/title.h"

namespace host {

namespace {

constexpr rlim_t kDescriptors = 1024;

void resetSignals() {
  // The session's dispositions are not the module's; a blocked signal stays pending until the mask
  // is empty.
  for (int number = 1; number < NSIG; number++)
    if (number != SIGKILL && number != SIGSTOP) signal(number, SIG_DFL);
  // Peers close when they have heard enough, and the request goes on.
  signal(SIGPIPE, SIG_IGN);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
}

bool setDescriptors(int console) {
  int log = fplog ? fileno(fplog) : -1;
  if (dup2(console, 0) < 0 || dup2(console, 2) < 0) return false;
  // Never the console: this stream is buffered, and what it holds would land in the middle of a
  // dialogue.
  if (log < 0 || dup2(log, 1) < 0) {
    int null = open("/dev/null", O_WRONLY);
    if (null < 0 || dup2(null, 1) < 0) return false;
  }
  closeAllBut({log});
  setvbuf(stderr, nullptr, _IONBF, 0);
  backuplog = stderr;
  return true;
}

void setLimits() {
  rlimit files;
  if (getrlimit(RLIMIT_NOFILE, &files) == 0 && files.rlim_cur < kDescriptors) {
    files.rlim_cur = kDescriptors;
    files.rlim_max = std::max(files.rlim_max, kDescriptors);
    setrlimit(RLIMIT_NOFILE, &files);
  }
  // A core of a request holds the site's secret and other people's files.
  rlimit none{0, 0};
  setrlimit(RLIMIT_CORE, &none);
}

void setEnvironment() {
  const char *zone = getenv("TZ");
  std::string kept = zone ? zone : "";
  bool hasZone = zone != nullptr;
  clearenv();
  setenv("PATH", "/usr/sbin:/usr/bin:/sbin:/bin", 1);
  setenv("LANG", "C", 1);
  if (hasZone) setenv("TZ", kept.c_str(), 1);
}

int callModule(int (*entry)(char *), std::string_view rest) {
  // The entry cuts the text up in place, and its pointers live as long as the process.
  char *text = strdup(std::string(rest).c_str());
  return text ? entry(text) : 1;
}

int run(const Module &module, const std::string &line) {
  RequestLine request = cutRequest(line);
  switch (familyOf(request.word)) {
    case Family::tape:
      return callModule(module.tapetool, request.rest);
    case Family::mrepl:
      return callModule(module.mreplicate, request.rest);
    case Family::host:
      return runHostWord(request.rest);
    case Family::unknown:
      break;
  }
  return refuse("Unknown request, " + std::string(request.word));
}

}  // namespace

void closeAllBut(std::initializer_list<int> kept) {
  std::vector<int> keep(kept);
  std::sort(keep.begin(), keep.end());
  int low = 3;
  for (int fd : keep) {
    if (fd < low) continue;
    if (fd > low) close_range(static_cast<unsigned>(low), static_cast<unsigned>(fd) - 1, 0);
    low = fd + 1;
  }
  close_range(static_cast<unsigned>(low), ~0U, 0);
}

void becomeRequest(int console, const Module &module, const std::string &line) {
  setsid();
  resetSignals();
  if (!setDescriptors(console)) _exit(1);
  setLimits();
  setEnvironment();
  umask(022);
  showTitle(line);
  if (chdir(ZULhome) != 0) {
    refuse(std::string("Cannot enter ") + ZULhome + ": " + strerror(errno));
    _exit(1);
  }
  int result = 1;
  try {
    result = run(module, line);
  } catch (const std::exception &failure) {
    refuse(std::string("The request failed: ") + failure.what());
  }
  base::endProcess(result);
}

}  // namespace host
