#include "base/lines.h"

#include <stdlib.h>

namespace base {

LineReader::LineReader(FILE *in, size_t limit) : in_(in), limit_(limit) {
  outOfMemory_ = !grow();
}

LineReader::~LineReader() {
  free(text_);
}

bool LineReader::grow() {
  size_t room = room_ == 0 ? 1024 : room_ * 2;
  char *text = static_cast<char *>(realloc(text_, room));
  if (!text) return false;
  text_ = text;
  room_ = room;
  return true;
}

bool LineReader::next() {
  length_ = 0;
  if (outOfMemory_) return false;
  for (int c; (limit_ == kNoLimit || length_ < limit_) && (c = getc_unlocked(in_)) != EOF;) {
    if (length_ + 2 > room_ && !grow()) {
      outOfMemory_ = true;
      return false;
    }
    text_[length_++] = static_cast<char>(c);
    if (c == '\n') break;
  }
  text_[length_] = '\0';
  return length_ > 0 && !ferror(in_);
}

}  // namespace base
