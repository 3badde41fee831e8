// Reads a stream line by line, whatever bytes it holds: a line may contain NULs and is written back
// by its length, byte for byte.
#pragma once
#include <stddef.h>
#include <stdio.h>

namespace base {

class LineReader {
 public:
  // No line is handed out in pieces.
  static constexpr size_t kNoLimit = 0;

  // A line longer than limit characters, its line feed counted, comes in pieces of limit
  // characters, as with a buffer of limit + 1 bytes.
  LineReader(FILE *in, size_t limit);
  ~LineReader();
  LineReader(const LineReader &) = delete;
  LineReader &operator=(const LineReader &) = delete;

  // The next line; false at the end of the stream, at a read error (see ferror) and out of memory.
  bool next();
  bool outOfMemory() const { return outOfMemory_; }

  // The line with its line feed, followed by a NUL. May be modified in place until next().
  char *text() { return text_; }
  size_t length() const { return length_; }
  // As the readers of this system see it: '#' begins a comment, less than two characters are a
  // blank line.
  bool isCommentOrBlank() const { return length_ < 2 || text_[0] == '#'; }

 private:
  bool grow();

  FILE *in_;
  size_t limit_;
  char *text_ = nullptr;
  size_t length_ = 0;
  size_t room_ = 0;
  bool outOfMemory_ = false;
};

}  // namespace base
