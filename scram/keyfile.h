// The site's encryption key: the file etc/ZULkey of the home, 32 random bytes as 64 hexadecimal
// digits. The library reads it for every connection, "zul key" makes and checks it.
#pragma once
#include <stddef.h>
#include <stdint.h>

namespace scram {

constexpr size_t kKeyBytes = 32;
constexpr size_t kFingerprintText = 40;  // 8 groups of 4 digits, 7 blanks, and the end

// Reads the key. Refused when the file is no regular file (links are not followed), belongs to
// another user than root or our own, may be read or written by others, or holds anything but the
// digits with white space around them. False puts the reason into why. No memory is allocated and
// nothing is printed.
bool readKey(const char *path, uint8_t *key, char *why, size_t whySize);

// What tells keys apart without telling the key.
void fingerprint(const uint8_t *key, char *text);

}  // namespace scram
