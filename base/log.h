// Printing to the module's three streams. Each may be missing: a host lends what it has.
#pragma once
#include <stdarg.h>
#include <stdio.h>

namespace base {

// fprintf that ignores a null stream and keeps errno, so that a message between a failed call and
// the look at its errno does no harm.
void print(FILE *stream, const char *format, ...) __attribute__((format(printf, 2, 3)));

// The same line to the host's log and to stderr, in that order.
void printBoth(const char *format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace base
