// Bytes to and from a socket, with a limit on every wait.
#pragma once
#include <stddef.h>

#include "scram/stream.h"

namespace scram {

// Writes what is left of n bytes; sent counts on, so that the call can be repeated after a
// time-out.
Outcome writeOut(int fd, const uint8_t *bytes, size_t n, size_t *sent, int limitMs);

// Reads at least one byte and at most n. got is 0 only when the outcome is not done.
Outcome readSome(int fd, uint8_t *to, size_t n, size_t *got, int limitMs);

}  // namespace scram
