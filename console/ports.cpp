// The kernel lists listening sockets with their inode numbers; the process that holds one has a
// descriptor that names the same inode.
#include "console/ports.h"

#include <ctype.h>
#include <dirent.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <memory>
#include <set>

#include "base/fd.h"
#include "console/places.h"
#include "console/text.h"

namespace console {

namespace {

constexpr int kListening = 10;  // TCP_LISTEN in /proc/net/tcp

using Folder = std::unique_ptr<DIR, int (*)(DIR *)>;

void collectInodes(const char *table, int port, std::set<std::string> &names) {
  base::File file(fopen(table, "re"));
  if (!file) return;
  char line[512];
  while (fgets(line, sizeof line, file.get())) {
    unsigned localPort, state;
    unsigned long inode;
    if (sscanf(line, " %*[^:]: %*[^:]:%x %*s %x %*s %*s %*s %*s %*s %lu", &localPort, &state,
               &inode) == 3 &&
        localPort == static_cast<unsigned>(port) && state == kListening)
      names.insert("socket:[" + std::to_string(inode) + "]");
  }
}

bool holdsOne(const std::string &process, const std::set<std::string> &names) {
  std::string path = "/proc/" + process + "/fd";
  Folder folder(opendir(path.c_str()), closedir);
  if (!folder) return false;
  while (dirent *entry = readdir(folder.get())) {
    char target[64];
    ssize_t length = readlink((path + "/" + entry->d_name).c_str(), target, sizeof target);
    if (length > 0 && names.count(std::string(target, static_cast<size_t>(length)))) return true;
  }
  return false;
}

}  // namespace

std::string listenerOf(int port) {
  std::set<std::string> names;
  collectInodes("/proc/net/tcp", port, names);
  collectInodes("/proc/net/tcp6", port, names);
  if (names.empty()) return "";
  Folder processes(opendir("/proc"), closedir);
  while (dirent *entry = processes ? readdir(processes.get()) : nullptr) {
    std::string process = entry->d_name;
    if (!isdigit(static_cast<unsigned char>(process[0])) || !holdsOne(process, names)) continue;
    std::string name = readWhole("/proc/" + process + "/comm").value_or("");
    while (!name.empty() && name.back() == '\n') name.pop_back();
    return oneLine(name) + ", pid " + process;
  }
  return "a process of another user";
}

}  // namespace console
