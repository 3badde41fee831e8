// Fixed-size texts and paths.
#pragma once
#include <stddef.h>

namespace base {

constexpr size_t kPathMax = 4096;

// Copies at most room - 1 characters of from and terminates: the bounded copy of fields that always
// end in NUL.
void copyText(char *to, size_t room, const char *from);

// Copies at most width characters and fills the rest with NULs; a text that fills the field is not
// terminated.
void copyField(char *to, size_t width, const char *from);

// True for a word that may stand as one component of a path: not empty, no '/', neither "." nor
// "..". Words of operators and peers pass here before they become part of a path.
bool isPathWord(const char *word);

// A path below ZULhome, formatted into the object; empty when it would not fit, and no file has
// that name.
class HomePath {
 public:
  explicit HomePath(const char *format, ...) __attribute__((format(printf, 2, 3)));
  const char *c_str() const { return text_; }
  operator const char *() const { return text_; }
  char *data() { return text_; }

 private:
  char text_[kPathMax];
};

// Decimal reading as everywhere in this system: garbage gives 0, what follows the digits is
// ignored, and the value is cut to 32 bits.
int decimal(const char *text);

}  // namespace base
