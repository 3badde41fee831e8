// Integers that keep their bytes in a stated order and need no alignment, so that a struct of them
// can be laid over any buffer: declaring the field is the codec.
#pragma once
#include <stdint.h>
#include <string.h>

namespace base {

class Be32 {
 public:
  Be32() = default;
  Be32(uint32_t value) { *this = value; }  // NOLINT: a wire field is assigned like a number
  Be32 &operator=(uint32_t value) {
    value = __builtin_bswap32(value);
    memcpy(bytes_, &value, sizeof value);
    return *this;
  }
  operator uint32_t() const {
    uint32_t value;
    memcpy(&value, bytes_, sizeof value);
    return __builtin_bswap32(value);
  }

 private:
  uint8_t bytes_[4];
};
static_assert(sizeof(Be32) == 4 && alignof(Be32) == 1);

class Le32 {
 public:
  Le32() = default;
  Le32(uint32_t value) { *this = value; }  // NOLINT: as above
  Le32 &operator=(uint32_t value) {
    memcpy(bytes_, &value, sizeof value);
    return *this;
  }
  operator uint32_t() const {
    uint32_t value;
    memcpy(&value, bytes_, sizeof value);
    return value;
  }

 private:
  uint8_t bytes_[4];
};
static_assert(sizeof(Le32) == 4 && alignof(Le32) == 1);
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "raw records are little-endian");

}  // namespace base
