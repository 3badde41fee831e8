// How fast the module's streams are with encryption, beside the same stream in clear in the same
// run. Usage: benchEncrypt LIBSCRAM [MIB]
//
// Calls of the sizes that the dialogues use, between two processes and through a socket that costs
// no more than a copy; then a file, sent by the gatherer's code over TCP into another file.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
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

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

#include "base/pause.h"
#include "base/site.h"
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

void compare(const char *name, size_t total, const std::function<double(bool)> &measure) {
  double clear = 1e9, sealed = 1e9;
  for (int round = 0; round < 3; round++) {
    clear = std::min(clear, measure(false));
    sealed = std::min(sealed, measure(true));
  }
  double mib = static_cast<double>(total) / 1048576;
  printf("%-34s clear %7.0f MiB/s   encrypted %7.0f MiB/s   ratio %.2f\n", name, mib / clear,
         mib / sealed, clear / sealed);
}

void compareCalls(const char *name, size_t writes, size_t reads, size_t total) {
  compare(name, total, [=](bool encrypted) { return transfer(encrypted, writes, reads, total); });
}

// Two ends of a TCP connection over loopback.
void connectBoth(int *sending, int *receiving) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  auto *any = reinterpret_cast<sockaddr *>(&address);
  int listening = socket(AF_INET, SOCK_STREAM, 0);
  *receiving = socket(AF_INET, SOCK_STREAM, 0);
  if (bind(listening, any, length) != 0 || listen(listening, 1) != 0) exit(1);
  if (getsockname(listening, any, &length) != 0 || connect(*receiving, any, length) != 0) exit(1);
  *sending = accept(listening, nullptr, nullptr);
  close(listening);
  nagleOnOff(*receiving, 1);
}

bool receiveFile(int sd, int file) {
  char raw[PACK_SIZE];
  package header;
  if (writen(sd, "Next\n", 5) != 5 || readn(sd, raw, sizeof raw) != PACK_SIZE) return false;
  unpackPackage(raw, &header);
  if (writen(sd, "Get\n", 4) != 4) return false;
  for (uint64_t done = 0; done < header.size;) {
    if (done % PACK_CHUNK == 0 && readn(sd, raw, sizeof raw) != PACK_SIZE) return false;
    size_t piece = std::min<uint64_t>(PACK_PIECE, header.size - done);
    if (readn(sd, bytes, piece) != static_cast<ssize_t>(piece)) return false;
    if (write(file, bytes, piece) != static_cast<ssize_t>(piece)) return false;
    done += piece;
  }
  return true;
}

// One file from the gatherer's code into a file, as a replication does it.
double sendFileOver(bool encrypted, const fs::path &root) {
  int sending, receiving;
  connectBoth(&sending, &receiving);
  shouldEncrypt(encrypted ? 1 : 0);
  int file = open((root / "copy").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  long long begin = base::nowMs();
  pid_t pid = fork();
  if (pid == 0) {
    char *none[] = {nullptr, nullptr};
    close(receiving);
    _exit(-servHandshak(1, sending, (root / "list").c_str(), none));
  }
  close(sending);
  if (!receiveFile(receiving, file)) exit(1);
  double seconds = static_cast<double>(base::nowMs() - begin) / 1000;
  writen(receiving, "Quit\n", 5);
  close(receiving);
  close(file);
  waitpid(pid, nullptr, 0);
  return seconds;
}

void makeFile(const fs::path &root, size_t size) {
  std::ofstream out(root / "file", std::ios::binary);
  for (size_t done = 0; done < size; done += sizeof bytes) out.write(bytes, sizeof bytes);
  std::ofstream(root / "list") << "1 " << (root / "file").string() << "\nend\n";
}

}  // namespace

int main(int argc, char **argv) {
  if (argc < 2) {
    fprintf(stderr, "usage: benchEncrypt LIBSCRAM [MIB]\n");
    return 2;
  }
  signal(SIGPIPE, SIG_IGN);
  std::string name = "/dev/shm/zulbench.XXXXXX";
  if (!mkdtemp(name.data())) return 1;
  fs::path root = name;
  fs::create_directories(root / "etc");
  fs::create_directories(root / "bin");
  fs::create_symlink(fs::absolute(argv[1]), root / "bin/libscram.so");
  umask(077);
  backuplog = fopen("/dev/null", "w");
  std::ofstream(root / "etc/ZULkey") << std::string(64, 'a') << '\n';
  base::copyText(ZULhome, sizeof ZULhome, root.c_str());
  setenv("ZULHOME", root.c_str(), 1);  // the library does not see this program's ZULhome
  size_t total = (argc > 2 ? strtoul(argv[2], nullptr, 10) : 2048) << 20;
  printf("best of 3, both in the same run; %ld processors\n", sysconf(_SC_NPROCESSORS_ONLN));
  compareCalls("1 MiB written, 1 MiB read", 1 << 20, 1 << 20, total);
  compareCalls("256 KiB written, 8 KiB read", 256 << 10, 8 << 10, total);
  compareCalls("8 KiB written, 8 KiB read", 8 << 10, 8 << 10, total);
  compareCalls("520 bytes written and read", 520, 520, 520 * (total >> 14));
  for (const char *behaviour : {"classic", "sound"}) {
    std::ofstream(root / "etc/ZULsite") << "behaviour = " << behaviour << '\n';
    base::forgetSite();
    makeFile(root, total / 2);
    std::string what = std::string("a file over TCP, ") + behaviour;
    compare(what.c_str(), total / 2, [&](bool encrypted) { return sendFileOver(encrypted, root); });
  }
  fs::remove_all(root);
}
