// How fast the module's streams are with encryption, beside the same stream in clear in the same
// run. Usage: benchEncrypt LIBSCRAM [MIB]
//
// A writing and a reading process and a socket between them, as on a site without its network and
// disks: calls of the sizes that the dialogues use.
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

#include "base/pause.h"
#include "base/text.h"

namespace fs = std::filesystem;

namespace {

char bytes[1 << 20];

// Seconds for that many calls; exits when one fails.
double transfer(bool encrypted, size_t writes, size_t reads, size_t total) {
  int sd[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, sd) != 0) exit(1);
  shouldEncrypt(encrypted ? 1 : 0);
  long long begin = base::nowMs();
  pid_t pid = fork();
  if (pid == 0) {
    close(sd[1]);
    char word;
    if (readn(sd[0], &word, 1) != 1) _exit(1);
    for (size_t done = 0; done < total; done += writes)
      if (writen(sd[0], bytes, writes) != static_cast<ssize_t>(writes)) _exit(1);
    _exit(0);
  }
  close(sd[0]);
  if (writen(sd[1], "G", 1) != 1) exit(1);
  for (size_t done = 0; done < total; done += reads)
    if (readn(sd[1], bytes, reads) != static_cast<ssize_t>(reads)) exit(1);
  double seconds = static_cast<double>(base::nowMs() - begin) / 1000;
  close(sd[1]);
  int status;
  waitpid(pid, &status, 0);
  if (status != 0) exit(1);
  return seconds;
}

void compare(const char *name, size_t writes, size_t reads, size_t total) {
  double clear = 1e9, sealed = 1e9;
  for (int round = 0; round < 3; round++) {
    double taken = transfer(false, writes, reads, total);
    clear = taken < clear ? taken : clear;
    taken = transfer(true, writes, reads, total);
    sealed = taken < sealed ? taken : sealed;
  }
  double mib = static_cast<double>(total) / 1048576;
  printf("%-34s clear %7.0f MiB/s   encrypted %7.0f MiB/s   ratio %.2f\n", name, mib / clear,
         mib / sealed, clear / sealed);
}

}  // namespace

int main(int argc, char **argv) {
  if (argc < 2) {
    fprintf(stderr, "usage: benchEncrypt LIBSCRAM [MIB]\n");
    return 2;
  }
  signal(SIGPIPE, SIG_IGN);
  std::string name = "/tmp/zulbench.XXXXXX";
  if (!mkdtemp(name.data())) return 1;
  fs::path root = name;
  fs::create_directories(root / "etc");
  fs::create_directories(root / "bin");
  fs::create_symlink(fs::absolute(argv[1]), root / "bin/libscram.so");
  umask(077);
  std::ofstream(root / "etc/ZULkey") << std::string(64, 'a') << '\n';
  base::copyText(ZULhome, sizeof ZULhome, root.c_str());
  setenv("ZULHOME", root.c_str(), 1);  // the library does not see this program's ZULhome
  size_t total = (argc > 2 ? strtoul(argv[2], nullptr, 10) : 2048) << 20;
  printf("best of 3, both in the same run; %ld processors\n", sysconf(_SC_NPROCESSORS_ONLN));
  compare("1 MiB written, 1 MiB read", 1 << 20, 1 << 20, total);
  compare("256 KiB written, 8 KiB read", 256 << 10, 8 << 10, total);
  compare("8 KiB written, 8 KiB read", 8 << 10, 8 << 10, total);
  compare("520 bytes written and read", 520, 520, 520 * (total >> 14));
  fs::remove_all(root);
}
