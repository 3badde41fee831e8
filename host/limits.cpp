#include "host/limits.h"

#include <sodium.h>
#include <sys/mman.h>
#include <unistd.h>

namespace host {

void WrongProofs::seed() {
  randombytes_buf(seed_, sizeof seed_);
}

// Keyed, so that nobody can choose an address that shares a bucket with the one he wants to lock
// out.
size_t WrongProofs::bucketOf(uint32_t address) const {
  static_assert(sizeof seed_ == crypto_shorthash_KEYBYTES);
  uint64_t hash;
  static_assert(sizeof hash == crypto_shorthash_BYTES);
  crypto_shorthash(reinterpret_cast<unsigned char *>(&hash),
                   reinterpret_cast<unsigned char *>(&address), sizeof address, seed_);
  return hash % kBuckets;
}

bool WrongProofs::exceeded(uint32_t address, int64_t second) const {
  for (const std::atomic<int64_t> &at : buckets_[bucketOf(address)].at) {
    int64_t when = at.load();
    if (when == 0 || when + kPeriodSeconds <= second) return false;
  }
  return true;
}

void WrongProofs::record(uint32_t address, int64_t second) {
  Bucket &bucket = buckets_[bucketOf(address)];
  for (;;) {
    std::atomic<int64_t> *oldest = &bucket.at[0];
    for (std::atomic<int64_t> &at : bucket.at)
      if (at.load() < oldest->load()) oldest = &at;
    int64_t seen = oldest->load();
    // Another session that took this place meanwhile recorded its own.
    if (oldest->compare_exchange_strong(seen, second)) return;
  }
}

Shared *makeShared() {
  void *memory =
      mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) return nullptr;
  Shared *shared = static_cast<Shared *>(memory);  // all zero, as its members begin
  shared->listener = getpid();
  shared->started = time(nullptr);
  shared->wrongProofs.seed();
  return shared;
}

}  // namespace host
