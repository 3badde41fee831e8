// Words shared with another process: every look is an acquire, every store a release, so that what
// was written before the word is there when the word is seen. Waiting is on the word itself
// (futex), with a longest wait, because the other side may be a process that was killed and will
// never wake us.
#pragma once
#include <stdint.h>

namespace base {

inline uint32_t loadWord(const uint32_t &word) {
  return __atomic_load_n(&word, __ATOMIC_ACQUIRE);
}
inline int32_t loadWord(const int32_t &word) {
  return __atomic_load_n(&word, __ATOMIC_ACQUIRE);
}
inline void storeWord(uint32_t &word, uint32_t value) {
  __atomic_store_n(&word, value, __ATOMIC_RELEASE);
}
inline void storeWord(int32_t &word, int32_t value) {
  __atomic_store_n(&word, value, __ATOMIC_RELEASE);
}

// Sleeps while word still reads `seen`, at most longestMs; returns early on a wake-up or a signal.
void waitWord(const void *word, uint32_t seen, int longestMs);
// Wakes every process that waits on word.
void wakeWord(const void *word);

}  // namespace base
