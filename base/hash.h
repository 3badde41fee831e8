// A fast hash of contents, for finding damage (not forgery). The library is loaded when it is first
// wanted and may be missing: the module depends on nothing but the C library, and an agent without
// it works all the same.
#pragma once
#include <stddef.h>
#include <stdint.h>

namespace base {

// XXH3, 64 bits.
class Hash {
 public:
  Hash() = default;
  ~Hash();
  Hash(const Hash &) = delete;
  Hash &operator=(const Hash &) = delete;

  static bool available();
  // Begins anew; false when there is no library or no memory.
  bool begin();
  void add(const void *data, size_t n);
  uint64_t value() const;

 private:
  void *state_ = nullptr;
};

}  // namespace base
