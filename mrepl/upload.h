// Lines that an operator's client sends behind a request that asked for them.
#pragma once
#include "mrepl/jobfile.h"

namespace mrepl {

// The client puts the console's prompt before each line, so that whatever else the console carries
// is told apart. The bytes are read one by one: what follows the end mark is the next request.
class UploadReader {
 public:
  enum class Got { line, endMark, endOfStream };
  Got next();
  // The line without prompt and line feed, until the next call.
  char *text() { return line_ + kPromptLength; }

 private:
  static constexpr size_t kPromptLength = 4;
  char line_[kLineMost + 1];
};

}  // namespace mrepl
