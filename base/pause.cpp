#include "base/pause.h"

#include <errno.h>
#include <string.h>
#include <time.h>

#include "base/site.h"

namespace base {

namespace {

struct Row {
  const char *name;
  int classic;
  int sound;  // -1: the classic value holds in both behaviours
};

// In the order of the enumeration.
constexpr Row kRows[] = {
    {"list-start", 100, 1},     {"list-grace", 10000, 0},     {"idle", 45000, -1},
    {"empty-read", 50, -1},     {"gather-child", 5000, 0},    {"gatherer-start", 5000, 0},
    {"parent-poll", 100, -1},   {"chunk-ack", 10, -1},        {"mailbox-retry", 1000, -1},
    {"package-poll", 10, -1},   {"drive-busy", 10000, 250},   {"drive-busy-tries", 30, 1200},
    {"label-settle", 1000, 0},  {"tape-retry", 1000, -1},     {"connect-retry", 20, -1},
    {"store-lock", 20, -1},     {"receiver-start", 5000, 0},  {"receiver-ready", 5000, 0},
    {"receiver-poll", 100, -1}, {"replicate-start", 5000, 0}, {"replicate-poll", 2000, 500},
};
static_assert(sizeof kRows / sizeof kRows[0] == static_cast<int>(Pause::kCount));

int configured[static_cast<int>(Pause::kCount)];  // length + 1; 0: not set

}  // namespace

int pauseLength(Pause pause) {
  // Asked first, because reading the site file is what fills the configured lengths.
  bool readiness = sound(Area::pace);
  int at = static_cast<int>(pause);
  if (configured[at] > 0) return configured[at] - 1;
  const Row &row = kRows[at];
  return readiness && row.sound >= 0 ? row.sound : row.classic;
}

void pauseFor(Pause pause) {
  sleepMs(pauseLength(pause));
}

void sleepMs(int ms) {
  if (ms <= 0) return;
  timespec left{ms / 1000, (ms % 1000) * 1000000L};
  while (clock_nanosleep(CLOCK_MONOTONIC, 0, &left, &left) == EINTR) {
  }
}

long long nowMs() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * 1000LL + now.tv_nsec / 1000000;
}

Pause pauseByName(const char *name) {
  for (int at = 0; at < static_cast<int>(Pause::kCount); at++)
    if (strcmp(kRows[at].name, name) == 0) return static_cast<Pause>(at);
  return Pause::kCount;
}

void setPause(Pause pause, int length) {
  configured[static_cast<int>(pause)] = length + 1;
}

}  // namespace base
