#include "base/text.h"

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <zul/host.h>

namespace base {

void copyText(char *to, size_t room, const char *from) {
  if (room == 0) return;
  size_t length = strnlen(from, room - 1);
  memcpy(to, from, length);
  to[length] = '\0';
}

void copyField(char *to, size_t width, const char *from) {
  size_t length = strnlen(from, width);
  memcpy(to, from, length);
  memset(to + length, 0, width - length);
}

bool isPathWord(const char *word) {
  return word[0] != '\0' && strchr(word, '/') == nullptr && strcmp(word, ".") != 0 &&
         strcmp(word, "..") != 0;
}

HomePath::HomePath(const char *format, ...) {
  int home = snprintf(text_, sizeof text_, "%.255s/", ZULhome);
  va_list args;
  va_start(args, format);
  int rest = vsnprintf(text_ + home, sizeof text_ - static_cast<size_t>(home), format, args);
  va_end(args);
  if (rest < 0 || rest >= static_cast<int>(sizeof text_) - home) text_[0] = '\0';
}

int decimal(const char *text) {
  return static_cast<int>(strtol(text, nullptr, 10));
}

}  // namespace base
