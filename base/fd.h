// Owners of descriptors and streams. Not for frames that an alarm may jump over: those hold plain
// values.
#pragma once
#include <stdio.h>
#include <unistd.h>

#include <utility>

namespace base {

// Owns one descriptor; -1 means none.
class Fd {
 public:
  Fd() = default;
  explicit Fd(int fd) : fd_(fd) {}
  Fd(Fd &&other) noexcept : fd_(other.release()) {}
  Fd &operator=(Fd &&other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }
  ~Fd() { reset(); }

  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }
  int release() { return std::exchange(fd_, -1); }
  void reset(int fd = -1) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

// Owns one stream.
class File {
 public:
  File() = default;
  explicit File(FILE *stream) : stream_(stream) {}
  File(File &&other) noexcept : stream_(std::exchange(other.stream_, nullptr)) {}
  File &operator=(File &&other) noexcept {
    if (this != &other) {
      close();
      stream_ = std::exchange(other.stream_, nullptr);
    }
    return *this;
  }
  ~File() { close(); }

  FILE *get() const { return stream_; }
  explicit operator bool() const { return stream_ != nullptr; }
  // False when the stream held a write error or closing it failed: data may be missing.
  bool close() {
    if (!stream_) return true;
    bool good = !ferror(stream_);
    return (fclose(std::exchange(stream_, nullptr)) == 0) && good;
  }

 private:
  FILE *stream_ = nullptr;
};

}  // namespace base
