// Keeps the sender's record of a run: what was sent, as a digest too, and what the receivers have
// reported. zul shows the run by it and compares it with the records of the receivers.
#include "mrepl/sent.h"

#include <arpa/inet.h>
#include <inttypes.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zul/host.h>

#include "base/fd.h"
#include "base/json.h"
#include "base/pause.h"
#include "base/text.h"
#include "mrepl/packed.h"
#include "mrepl/run.h"

namespace mrepl {

Sent sent;

namespace {

constexpr long long kEveryMs = 500;

const char *stateText(const Receiver &receiver) {
  switch (receiver.state) {
    case ReceiverState::expected:
      return "waiting";
    case ReceiverState::served:
      return "receiving";
    case ReceiverState::complete:
      return "complete";
    case ReceiverState::lost:
      break;
  }
  return receiver.joined ? "incomplete" : "never joined";
}

void writeHosts(FILE *out, const Receivers &receivers) {
  for (int at = 0; at < receivers.count(); at++) {
    const Receiver &each = receivers.at(at);
    char address[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &each.address.sin_addr, address, sizeof address);
    fputs(at > 0 ? ",\n{\"host\":" : "\n{\"host\":", out);
    base::writeJsonText(out, each.name);
    fprintf(out, ",\"address\":\"%s\",\"state\":\"%s\",\"segments\":%" PRIu64 "}", address,
            stateText(each), each.joined ? each.extracted : 0);
  }
}

}  // namespace

void Sent::begin(int job) {
  *this = Sent{};
  job_ = job;
  started_ = time(nullptr);
  packed.begin();
}

void Sent::look(const Receivers &receivers, long long nowMs) {
  if (nowMs - writtenMs_ < kEveryMs) return;
  writtenMs_ = nowMs;
  write(receivers, "running");
}

void Sent::finish(const Receivers &receivers, bool good) {
  ended_ = time(nullptr);
  write(receivers, good ? "done" : "failed");
  packed.end();
}

void Sent::drop() {
  packed.end();
}

void Sent::write(const Receivers &receivers, const char *state) {
  if (!soundRun()) return;
  base::HomePath path("var/tape/mrepljobs/sent.json");
  base::HomePath temporary("var/tape/mrepljobs/sent.json.new");
  base::File file(fopen(temporary, "we"));
  if (!file) return;
  FILE *out = file.get();
  fchmod(fileno(out), 0600);
  Packed::Count count = packed.count();
  fprintf(out,
          "{\"kind\":\"multicast\",\"state\":\"%s\",\"job\":%i,\"run\":%u,\"pid\":%i,"
          "\"started\":%" PRId64 ",\"ended\":%" PRId64 ",\"files\":%" PRIu64 ",\"bytes\":%" PRIu64
          ",\"digest\":\"%s\",\"packed\":%s,\"unsent\":%" PRIu64 ",\"unsentNames\":[",
          state, job_, runWord >> 16, static_cast<int>(getpid()), static_cast<int64_t>(started_),
          static_cast<int64_t>(ended_), count.entries, count.bytes, count.digest,
          count.finished ? "true" : "false", count.unsent);
  packed.writeUnsent(out);
  fputs("],\"hosts\":[", out);
  writeHosts(out, receivers);
  fputs("]}\n", out);
  if (!file.close() || rename(temporary, path) != 0) unlink(temporary);
}

}  // namespace mrepl
