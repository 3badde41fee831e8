// Answers of any content from the hosts of a fan-out: every host ends once, no line is longer than
// it may be, and nothing an answer says makes the loop wait for what cannot come.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "fanout/crowd.h"
#include "fuzzhome.h"

namespace {

constexpr int kHosts = 2;
constexpr size_t kLineMost = 1022;

// Each host's agent has said all it says and closed by the time it is connected.
class Listener : public fanout::Audience {
 public:
  Listener(const uint8_t *data, size_t size, int flags) : data_(data), size_(size), flags_(flags) {}
  ~Listener() override {
    for (int at = 0; at < connected_; at++) close(theirs_[at]);
  }

  int connects(const char *) override {
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) abort();
    size_t half = size_ / kHosts, from = static_cast<size_t>(connected_) * half;
    size_t length = connected_ + 1 < kHosts ? half : size_ - from;
    if (length > 0 && send(pair[1], data_ + from, length, MSG_DONTWAIT) < 0) length = 0;
    shutdown(pair[1], SHUT_WR);
    theirs_[connected_++] = pair[1];
    return pair[0];
  }
  void logsIn(hostEntry &) override {}
  void isAsked(hostEntry &) override {}
  void says(hostEntry &entry, const char *line) override {
    if (strlen(line) > kLineMost) abort();
    saveResponse(&entry, line);
    if (entry.fill >= fanout::kBufferBytes || entry.buf[entry.fill] != '\0') abort();
    if (entry.fill > fanout::kPrintAbove) entry.fill = 0;
  }
  bool endsAtAcceptance() const override { return (flags_ & 1) != 0; }
  bool endsAtError() const override { return (flags_ & 2) != 0; }
  void ends(hostEntry &entry, const fanout::Ending &) override {
    entry.fill = 0;
    ended++;
  }
  bool isGood(const fanout::Ending &ending) const override {
    return ending.end == fanout::End::accepted;
  }

  int ended = 0;

 private:
  const uint8_t *data_;
  size_t size_;
  int flags_;
  int connected_ = 0;
  int theirs_[kHosts] = {};
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (ZULhome[0] == '\0') fuzz::makeHome({"etc", "tmp"});
  if (size < 1) return 0;
  Listener listener(data + 1, size - 1, data[0]);
  char host[] = "h", first[] = "TAPE a\n", second[] = "TAPE b\n";
  char *one[] = {first, nullptr}, *two[] = {first, second, nullptr};
  strNode last{nullptr, nullptr}, later{host, &last}, hosts{host, &later};
  fanout::Crowd crowd(listener, (data[0] & 4) != 0 ? two : one, 100);
  if (crowd.gather(&hosts) != fanout::Crowd::Ready::yes) abort();
  crowd.run();
  if (listener.ended != kHosts || crowd.count() != kHosts || crowd.good() > kHosts) abort();
  return 0;
}
