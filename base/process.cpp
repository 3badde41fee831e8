#include "base/process.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zul/host.h>

namespace base {

void ignoreSigpipe() {
  signal(SIGPIPE, SIG_IGN);
}

void defaultSigchld() {
  signal(SIGCHLD, SIG_DFL);
}

pid_t forkFlushed() {
  fflush(nullptr);
  return fork();
}

void endProcess(int status) {
  fflush(nullptr);
  _exit(status);
}

void detachHere() {
  setsid();
  setpgrp();  // fails after setsid, and harmlessly so
  umask(033);
  if (chdir(ZULhome) != 0 && chdir("/") != 0) {
    // Paths are absolute everywhere; without the directory only a core file would land elsewhere.
  }
  for (int fd = 0; fd < 256; fd++) close(fd);
  // The lowest free descriptor is taken each time: 0, 1, 2.
  (void)!open("/dev/null", O_RDONLY);
  (void)!open("/dev/null", O_WRONLY);
  (void)!open("/dev/null", O_RDWR);
  fplog = stderr;
  backuplog = stderr;
}

pid_t reapNow(pid_t pid, int *status) {
  pid_t ended;
  do {
    *status = 0xffff;
    ended = waitpid(pid, status, WNOHANG);
  } while (ended < 0 && errno == EINTR);
  return ended;
}

}  // namespace base
