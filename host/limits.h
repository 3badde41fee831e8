// What keeps strangers from guessing: three wrong proofs a minute from one address, counted across
// all sessions, which are processes of their own. The counts lie in memory shared between them.
#pragma once
#include <stdint.h>
#include <sys/types.h>
#include <time.h>

#include <atomic>

namespace host {

class WrongProofs {
 public:
  static constexpr int kAllowed = 3;
  static constexpr int64_t kPeriodSeconds = 60;

  void seed();
  // True when the address has used up its attempts at that second (of the monotonic clock).
  bool exceeded(uint32_t address, int64_t second) const;
  void record(uint32_t address, int64_t second);

 private:
  static constexpr size_t kBuckets = 1024;
  struct Bucket {
    std::atomic<int64_t> at[kAllowed];  // seconds of the last wrong proofs; 0: none
  };
  size_t bucketOf(uint32_t address) const;

  unsigned char seed_[16];
  Bucket buckets_[kBuckets];
};

// What the listener's processes share.
struct Shared {
  pid_t listener;
  time_t started;
  std::atomic<uint32_t> sessions;  // connections that are open
  std::atomic<uint32_t> logins;    // of these, not logged in yet
  WrongProofs wrongProofs;
};

// Zeroed memory that survives forks as one; null when there is none to have.
Shared *makeShared();

}  // namespace host
