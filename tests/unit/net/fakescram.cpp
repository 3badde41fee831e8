// A stand-in for the encryption library: every byte travels inverted, and each call leaves its
// letter and its length in the environment, so that a test sees which hook was called with what.
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static void noteCall(char hook, size_t n) {
  char calls[4096];
  const char *before = getenv("FAKE_SCRAM_CALLS");
  snprintf(calls, sizeof calls, "%s%c%zu ", before ? before : "", hook, n);
  setenv("FAKE_SCRAM_CALLS", calls, 1);
}

extern "C" __attribute__((visibility("default"))) int crywriten(int fd, void *buf, size_t n) {
  noteCall('w', n);
  const char *from = static_cast<const char *>(buf);
  for (size_t at = 0; at < n; at++) {
    char byte = static_cast<char>(~from[at]);
    if (write(fd, &byte, 1) != 1) return -1;
  }
  return static_cast<int>(n);
}

#ifndef WITHOUT_READ
extern "C" __attribute__((visibility("default"))) int cryreadn(int fd, void *buf, size_t n) {
  noteCall('r', n);
  char *to = static_cast<char *>(buf);
  for (size_t at = 0; at < n; at++) {
    if (read(fd, to + at, 1) != 1) return -77;
    to[at] = static_cast<char>(~to[at]);
  }
  return static_cast<int>(n);
}
#endif

extern "C" __attribute__((visibility("default"))) int cryreadnline(int fd, void *buf, size_t size) {
  noteCall('l', size);
  char *to = static_cast<char *>(buf);
  size_t at = 0;
  while (at + 1 < size && read(fd, to + at, 1) == 1) {
    to[at] = static_cast<char>(~to[at]);
    if (to[at++] == '\n') break;
  }
  to[at] = '\0';
  return static_cast<int>(at);
}
