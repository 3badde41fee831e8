// Requests that read an upload behind their line.
#pragma once
#include <fcntl.h>
#include <unistd.h>

#include <functional>
#include <string>

#include "support.h"

namespace support {

// Runs body with standard input coming from a file of these bytes; returns what it said on standard
// error, and leaves in `rest` what was not read.
inline std::string withInput(const std::string &bytes, const std::function<void()> &body,
                             std::string *rest = nullptr) {
  char name[] = "/tmp/zulinput.XXXXXX";
  int file = mkstemp(name);
  unlink(name);
  EXPECT_EQ(write(file, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  lseek(file, 0, SEEK_SET);
  int kept = dup(0);
  dup2(file, 0);
  std::string said = captureStderr(body);
  if (rest) *rest = bytes.substr(static_cast<size_t>(lseek(0, 0, SEEK_CUR)));
  dup2(kept, 0);
  close(kept);
  close(file);
  return said;
}

// The same with the lines of an upload, each with the prompt before it, and an end mark.
inline std::string withUpload(const std::string &lines, const std::string &end,
                              const std::function<void()> &body, std::string *rest = nullptr) {
  std::string bytes;
  for (size_t from = 0; from < lines.size();) {
    size_t feed = std::min(lines.find('\n', from), lines.size() - 1);
    bytes += "ZuL>" + lines.substr(from, feed + 1 - from);
    from = feed + 1;
  }
  return withInput(bytes + end, body, rest);
}

}  // namespace support
