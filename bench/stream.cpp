// How fast the gatherer serves files over loopback, beside "tar | socat" into the same kind of sink
// in the same run. Usage: benchStream [FOLDER]; the trees are made below FOLDER (default /dev/shm)
// and removed again.
//
// Both sides run as they do on a site: the gatherer in a process of its own, the peer asking for
// one file after the other and throwing the data away.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zul/host.h>
#include <zul/net.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "base/pause.h"
#include "base/site.h"
#include "base/text.h"

namespace fs = std::filesystem;

namespace {

struct Tree {
  std::string name;
  std::vector<std::string> paths;
  double bytes = 0;
};

Tree makeTree(const fs::path &root, const std::string &name, int files, size_t smallest,
              size_t largest) {
  Tree tree;
  tree.name = name;
  fs::create_directories(root / name);
  std::string content(largest, '\0');
  for (size_t at = 0; at < content.size(); at++)
    content[at] = static_cast<char>(at * 31 + at / 4099);
  for (int number = 0; number < files; number++) {
    size_t size = smallest + static_cast<size_t>(number) * 7919 % (largest - smallest + 1);
    std::string path = root / name / std::to_string(number);
    std::ofstream(path, std::ios::binary).write(content.data(), static_cast<std::streamsize>(size));
    tree.paths.push_back(path);
    tree.bytes += static_cast<double>(size);
  }
  return tree;
}

int listenAnywhere(int *port) {
  int sd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (bind(sd, reinterpret_cast<sockaddr *>(&address), length) != 0 || listen(sd, 1) != 0)
    return -1;
  getsockname(sd, reinterpret_cast<sockaddr *>(&address), &length);
  *port = ntohs(address.sin_port);
  return sd;
}

int connectTo(int port) {
  int sd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<uint16_t>(port));
  if (connect(sd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) return -1;
  nagleOnOff(sd, 1);
  return sd;
}

char sink[1 << 20];

// The tape host's side, without a tape.
int pullAll(int sd) {
  int files = 0;
  for (;;) {
    char raw[PACK_SIZE];
    package header;
    if (writen(sd, "Next\n", 5) != 5 || readn(sd, raw, sizeof raw) != PACK_SIZE) return -1;
    unpackPackage(raw, &header);
    if (header.magic == PACK_EOL_MAGIC) return files;
    if (writen(sd, "Get\n", 4) != 4) return -1;
    uint64_t left = header.size;
    for (bool more = true; more;) {
      size_t chunk = left < PACK_CHUNK ? left : PACK_CHUNK;
      if (readn(sd, raw, sizeof raw) != PACK_SIZE) return -1;
      if (readn(sd, sink, chunk) != static_cast<ssize_t>(chunk)) return -1;
      left -= chunk;
      more = chunk == PACK_CHUNK;
    }
    files++;
  }
}

double seconds() {
  return static_cast<double>(base::nowMs()) / 1000;
}

double runGatherer(const Tree &tree, const std::string &list) {
  std::ofstream out(list);
  int number = 0;
  for (const std::string &path : tree.paths) out << number++ << ' ' << path << '\n';
  out << "end\n";
  out.close();
  int port;
  int listening = listenAnywhere(&port);
  pid_t pid = fork();
  if (pid == 0) {
    char *none[] = {nullptr, nullptr};
    _exit(-servHandshak(0, listening, list.c_str(), none));
  }
  close(listening);
  int sd = connectTo(port);
  double begin = seconds();
  int files = pullAll(sd);
  double taken = seconds() - begin;
  close(sd);
  waitpid(pid, nullptr, 0);
  return files == number ? taken : -1;
}

double runTar(const Tree &tree, const fs::path &root) {
  int port;
  int listening = listenAnywhere(&port);
  double begin = seconds();
  pid_t pid = fork();
  if (pid == 0) {
    std::string command = "tar -C " + root.string() + " -cf - " + tree.name +
                          " | socat -u -b 262144 - TCP:127.0.0.1:" + std::to_string(port);
    execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char *>(nullptr));
    _exit(127);
  }
  int sd = accept(listening, nullptr, nullptr);
  close(listening);
  while (read(sd, sink, sizeof sink) > 0) {
  }
  double taken = seconds() - begin;
  close(sd);
  waitpid(pid, nullptr, 0);
  return taken;
}

void compare(const Tree &tree, const fs::path &root) {
  for (const char *behaviour : {"classic", "sound"}) {
    std::ofstream(root / "etc/ZULsite")
        << "behaviour = " << behaviour << "\nbehaviour.security = classic\n";
    fs::permissions(root / "etc/ZULsite", fs::perms::owner_read | fs::perms::owner_write);
    base::forgetSite();
    double ours = 1e9, tar = 1e9;
    for (int round = 0; round < 3; round++) {
      double taken = runGatherer(tree, root / "list");
      if (taken < 0) {
        printf("%-8s %-8s failed\n", tree.name.c_str(), behaviour);
        exit(1);
      }
      ours = taken < ours ? taken : ours;
      taken = runTar(tree, root);
      tar = taken < tar ? taken : tar;
    }
    double files = static_cast<double>(tree.paths.size()), mib = tree.bytes / 1048576;
    printf(
        "%-8s %-8s gatherer %7.0f MiB/s %7.0f files/s   tar|socat %7.0f MiB/s %7.0f files/s   "
        "ratio %.2f\n",
        tree.name.c_str(), behaviour, mib / ours, files / ours, mib / tar, files / tar, tar / ours);
  }
}

}  // namespace

int main(int argc, char **argv) {
  signal(SIGPIPE, SIG_IGN);
  std::string name = std::string(argc > 1 ? argv[1] : "/dev/shm") + "/zulbench.XXXXXX";
  if (!mkdtemp(name.data())) {
    perror(name.c_str());
    return 1;
  }
  fs::path root = name;
  fs::create_directories(root / "etc");
  base::copyText(ZULhome, sizeof ZULhome, root.c_str());
  backuplog = fopen((root / "log").c_str(), "w");
  setvbuf(backuplog, nullptr, _IONBF, 0);
  printf("best of 3, both in the same run; %ld processors\n", sysconf(_SC_NPROCESSORS_ONLN));
  compare(makeTree(root, "large", 4, 256 << 20, 256 << 20), root);
  compare(makeTree(root, "medium", 2000, 65536, 262144), root);
  compare(makeTree(root, "small", 20000, 512, 16384), root);
  fs::remove_all(root);
}
