// Finds the work of this home in /proc, for HOST ps, kill and jobs. Nothing is kept in a file about
// it, so that nothing can be out of date after a crash: a process is asked what it is.
#include "host/processes.h"

#include <ctype.h>
#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>
#include <zul/host.h>

#include <algorithm>

#include "base/fd.h"
#include "host/hostlog.h"
#include "host/title.h"

namespace host {

namespace {

constexpr std::string_view kProgram = "ZULd";
constexpr size_t kTagRoom = 16;

std::string procPath(pid_t pid, const char *name) {
  return "/proc/" + std::to_string(pid) + "/" + name;
}

bool isOurProgram(pid_t pid) {
  char target[4096];
  ssize_t length = readlink(procPath(pid, "exe").c_str(), target, sizeof target);
  if (length <= 0) return false;
  std::string_view path(target, static_cast<size_t>(length));
  // What the kernel appends once the program was replaced by a newer one.
  constexpr std::string_view kDeleted = " (deleted)";
  if (path.ends_with(kDeleted)) path.remove_suffix(kDeleted.size());
  return path.substr(path.rfind('/') + 1) == kProgram;
}

bool standsInHome(pid_t pid) {
  struct stat home, cwd;
  return stat(ZULhome, &home) == 0 && stat(procPath(pid, "cwd").c_str(), &cwd) == 0 &&
         home.st_dev == cwd.st_dev && home.st_ino == cwd.st_ino;
}

std::string readSmall(const std::string &path) {
  base::Fd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  char text[4096];
  ssize_t got = file ? read(file.get(), text, sizeof text) : -1;
  return got > 0 ? std::string(text, static_cast<size_t>(got)) : std::string();
}

time_t bootTime() {
  base::File file(fopen("/proc/stat", "re"));
  char line[4096];
  while (file && fgets(line, sizeof line, file.get()))
    if (strncmp(line, "btime ", 6) == 0) return static_cast<time_t>(strtoll(line + 6, nullptr, 10));
  return 0;
}

// State, parent, group and start out of the kernel's line. The name in parentheses may hold
// anything, so the fields are counted from the last parenthesis.
bool readStat(pid_t pid, WorkProcess &process) {
  std::string text = readSmall(procPath(pid, "stat"));
  size_t end = text.rfind(')');
  if (end == std::string::npos) return false;
  unsigned long long start = 0;
  int parent = 0, group = 0;
  int found =
      sscanf(text.c_str() + end + 1,
             " %c %d %d %*d %*d %*d %*u %*u %*u %*u %*u %*u %*u %*d %*d %*d %*d %*d %*d %llu",
             &process.state, &parent, &group, &start);
  if (found != 4) return false;
  process.parent = parent;
  process.group = group;
  static const time_t boot = bootTime();
  process.started =
      boot + static_cast<time_t>(start / static_cast<unsigned long long>(sysconf(_SC_CLK_TCK)));
  return true;
}

std::string requestOf(pid_t pid) {
  std::string text = readSmall(procPath(pid, "cmdline"));
  text.resize(strnlen(text.c_str(), text.size()));
  if (!text.starts_with(kTitlePrefix)) return {};
  return printable(std::string_view(text).substr(kTitlePrefix.size()));
}

// Where a process has mapped the program: the first mapping of it begins with the start of the
// file.
unsigned long long loadAddress(pid_t pid, const struct stat &program) {
  base::File maps(fopen(procPath(pid, "maps").c_str(), "re"));
  char line[4352];
  while (maps && fgets(line, sizeof line, maps.get())) {
    unsigned long long from = 0, offset = 0;
    unsigned long inode = 0;
    if (sscanf(line, "%llx-%*x %*s %llx %*x:%*x %lu", &from, &offset, &inode) != 3) continue;
    if (offset == 0 && inode == program.st_ino) return from;
  }
  return 0;
}

// The module writes its tag into cmdname, in its own process. Only a process of the very same
// program has the variable where we have it.
std::string tagOf(pid_t pid) {
  struct stat ours, theirs;
  if (stat("/proc/self/exe", &ours) != 0 || stat(procPath(pid, "exe").c_str(), &theirs) != 0 ||
      ours.st_dev != theirs.st_dev || ours.st_ino != theirs.st_ino)
    return {};
  unsigned long long ourBase = loadAddress(getpid(), ours), theirBase = loadAddress(pid, theirs);
  if (ourBase == 0 || theirBase == 0) return {};
  char tag[kTagRoom + 1] = "";
  unsigned long long offset = reinterpret_cast<unsigned long long>(cmdname) - ourBase;
  iovec to{tag, kTagRoom};
  iovec from{reinterpret_cast<void *>(theirBase + offset),
             kTagRoom};  // NOLINT: an address over there
  if (process_vm_readv(pid, &to, 1, &from, 1, 0) != static_cast<ssize_t>(kTagRoom)) return {};
  return kProgram == tag ? std::string() : printable(tag);
}

}  // namespace

bool readWorkProcess(pid_t pid, WorkProcess &process) {
  if (!isOurProgram(pid) || !standsInHome(pid) || !readStat(pid, process)) return false;
  process.pid = pid;
  process.request = requestOf(pid);
  process.tag = tagOf(pid);
  return true;
}

std::vector<WorkProcess> workProcesses() {
  std::vector<WorkProcess> found;
  DIR *proc = opendir("/proc");
  while (dirent *entry = proc ? readdir(proc) : nullptr) {
    if (!isdigit(static_cast<unsigned char>(entry->d_name[0]))) continue;
    pid_t pid = static_cast<pid_t>(strtol(entry->d_name, nullptr, 10));
    WorkProcess process;
    if (pid != getpid() && readWorkProcess(pid, process)) found.push_back(process);
  }
  if (proc) closedir(proc);
  std::sort(found.begin(), found.end(),
            [](const WorkProcess &a, const WorkProcess &b) { return a.pid < b.pid; });
  return found;
}

}  // namespace host
