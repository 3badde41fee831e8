// Any bytes from a peer in place of its commands: the gatherer answers, ends, and keeps its
// descriptors.
#include <fcntl.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zul/host.h>
#include <zul/net.h>

#include "base/log.h"
#include "base/site.h"
#include "base/text.h"
#include "fuzzhome.h"
#include "net/timeouts.h"

namespace {

void put(const char *name, const char *text) {
  FILE *out = fopen(base::HomePath("%s", name), "we");
  if (!out || fputs(text, out) < 0 || fclose(out) != 0) abort();
}

void makeHome() {
  fuzz::makeHome({"etc"});
  put("file", "contents");
  if (symlink("target", base::HomePath("link")) != 0) abort();
  net::timeouts.stepMs = 2;
  net::timeouts.streamMs = 2;
  net::timeouts.lineMs = 2;
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
}

void writeSite(bool sound) {
  char text[256];
  snprintf(text, sizeof text, "behaviour = %s\npause.idle = 0ms\npause.empty-read = 0ms\n",
           sound ? "sound" : "classic");
  put("etc/ZULsite", text);
  chmod(base::HomePath("etc/ZULsite"), 0600);
  base::forgetSite();
}

int descriptors() {
  int count = 0;
  for (int fd = 0; fd < 64; fd++) count += fcntl(fd, F_GETFD) >= 0;
  return count;
}

}  // namespace

// The dialogue's alarm jumps, and belongs to the one thread of a gatherer. The fuzzer has another,
// which inherits the mask of this moment and so never gets the alarm.
extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  sigset_t alarm;
  sigemptyset(&alarm);
  sigaddset(&alarm, SIGALRM);
  return sigprocmask(SIG_BLOCK, &alarm, nullptr);
}

// The first byte picks the behaviour and what the list holds. Run with -close_fd_mask=3.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (ZULhome[0] == '\0') makeHome();
  if (size == 0 || size > 2000) return 0;
  writeSite(data[0] & 1);
  char list[4096] = "";
  size_t used = 0;
  for (int at = data[0] >> 1; at > 0; at >>= 2) {
    const char *names[] = {"file", "link", "", "gone"};
    used += static_cast<size_t>(
        snprintf(list + used, sizeof list - used, "%i %s/%s\n", at, ZULhome, names[at & 3]));
  }
  snprintf(list + used, sizeof list - used, "end\n");
  put("list", list);

  int sd[2], before = descriptors();
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sd) != 0) abort();
  static const char kQuit[] = "\nQuit\n";
  if (send(sd[1], data + 1, size - 1, MSG_DONTWAIT) != static_cast<ssize_t>(size - 1)) abort();
  if (send(sd[1], kQuit, sizeof kQuit - 1, MSG_DONTWAIT) != sizeof kQuit - 1) abort();
  char *none[] = {nullptr, nullptr};
  int result = servHandshak(1, sd[0], base::HomePath("list"), none);
  if (result != 0 && result != -1 && result != -7 && result != -8) abort();
  close(sd[1]);
  if (descriptors() != before) abort();
  return 0;
}
