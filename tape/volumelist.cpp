// Names in volume lists, and the digests written beside them. Runs in the job process, in step with
// the tape.
#include "tape/volumelist.h"

#include <fcntl.h>
#include <inttypes.h>
#include <string.h>
#include <unistd.h>

#include <new>

#include "base/fd.h"
#include "base/hash.h"
#include "base/text.h"

namespace tape {

namespace {

void copyPrintable(char *to, size_t room, const char *from, bool keepColon) {
  base::copyText(to, room, from);
  for (char *at = to; *at != '\0'; at++) {
    auto c = static_cast<unsigned char>(*at);
    if (c < ' ' || c == 0x7f || (c == ':' && !keepColon)) *at = '?';
  }
}

// What one host is sending.
struct Sending {
  base::Hash hash;
  package header;
  uint64_t seen = 0;
  bool active = false;
};

struct State {
  Sending *hosts;
  int count;
  FILE *file;
  bool failed;
} state;

}  // namespace

void listHost(char *to, size_t room, const char *host) {
  copyPrintable(to, room, host, false);
}

void listName(char *to, size_t room, const char *name) {
  copyPrintable(to, room, name, true);
}

bool beginDigests(const char *volumeList, int hosts) {
  endDigests();
  if (hosts <= 0 || !base::Hash::available()) return false;
  char path[base::kPathMax];
  snprintf(path, sizeof path, "%s.sum", volumeList);
  base::Fd fd(open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  state.hosts = fd ? new (std::nothrow) Sending[static_cast<size_t>(hosts)] : nullptr;
  if (!state.hosts) return false;
  state.count = hosts;
  state.failed = false;
  state.file = fdopen(fd.release(), "w");
  fputs("#xxh3-64\n", state.file);
  return true;
}

void digestPackage(int slot, const package &header) {
  if (slot < 0 || slot >= state.count) return;
  Sending &sending = state.hosts[slot];
  if (header.sequence == 0) {
    sending.active = (header.type == 0 || header.type == 2) && sending.hash.begin();
    sending.header = header;
    sending.seen = 0;
  }
}

void digestData(int slot, const void *data, size_t n) {
  if (slot < 0 || slot >= state.count || !state.hosts[slot].active) return;
  state.hosts[slot].hash.add(data, n);
  state.hosts[slot].seen += n;
}

void digestPackageEnd(int slot) {
  if (slot < 0 || slot >= state.count) return;
  Sending &sending = state.hosts[slot];
  if (!sending.active || sending.seen < sending.header.size) return;
  sending.active = false;
  char host[sizeof sending.header.fromhost], name[sizeof sending.header.filename];
  listHost(host, sizeof host, sending.header.fromhost);
  listName(name, sizeof name, sending.header.filename);
  if (fprintf(state.file, "%016" PRIx64 ":%s:%" PRIu64 ":%s\n", sending.hash.value(), host,
              static_cast<uint64_t>(sending.header.size), name) < 0)
    state.failed = true;
}

bool endDigests() {
  bool whole = !state.failed;
  if (state.file) whole &= fclose(state.file) == 0;
  delete[] state.hosts;
  state = State{};
  return whole;
}

}  // namespace tape
