#include "base/sharedword.h"

#include <limits.h>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

namespace base {

// Not FUTEX_PRIVATE: the waiter and the waker are different processes.
void waitWord(const void *word, uint32_t seen, int longestMs) {
  timespec longest{longestMs / 1000, (longestMs % 1000) * 1000000L};
  syscall(SYS_futex, word, FUTEX_WAIT, seen, &longest, nullptr, 0);
}

void wakeWord(const void *word) {
  syscall(SYS_futex, word, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
}

}  // namespace base
