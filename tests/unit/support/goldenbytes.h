// Records put together by hand, for tests of what stands on tapes, disks and the network.
#pragma once
#include <stdlib.h>

#include <initializer_list>
#include <string>

namespace support {

struct Piece {
  size_t offset;
  std::string bytes;
};

// "5a 75 4C", or "5a754C", as the three bytes.
inline std::string hex(const char *digits) {
  std::string bytes;
  for (; *digits != '\0'; digits += digits[2] == ' ' ? 3 : 2) {
    char two[3] = {digits[0], digits[1], '\0'};
    bytes += static_cast<char>(strtol(two, nullptr, 16));
  }
  return bytes;
}

// Zeros but for the pieces.
inline std::string assemble(size_t length, std::initializer_list<Piece> pieces) {
  std::string bytes(length, '\0');
  for (const Piece &piece : pieces) bytes.replace(piece.offset, piece.bytes.size(), piece.bytes);
  return bytes;
}

}  // namespace support
