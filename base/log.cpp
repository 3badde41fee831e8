#include "base/log.h"

#include <errno.h>
#include <zul/host.h>

namespace base {

static void vprint(FILE *stream, const char *format, va_list args) {
  if (!stream) return;
  int kept = errno;
  vfprintf(stream, format, args);
  errno = kept;
}

void print(FILE *stream, const char *format, ...) {
  va_list args;
  va_start(args, format);
  vprint(stream, format, args);
  va_end(args);
}

void printBoth(const char *format, ...) {
  va_list args;
  va_start(args, format);
  va_list again;
  va_copy(again, args);
  vprint(fplog, format, args);
  vprint(stderr, format, again);
  va_end(again);
  va_end(args);
}

}  // namespace base
