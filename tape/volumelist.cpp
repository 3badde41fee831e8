// Names in volume lists, and the digests written beside them. Runs in the job process, in step with
// the tape.
#include "tape/volumelist.h"

#include <fcntl.h>
#include <inttypes.h>
#include <string.h>
#include <unistd.h>
#include <zul/host.h>

#include <new>

#include "base/fd.h"
#include "base/hash.h"
#include "base/log.h"
#include "base/site.h"
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
  int entry = 0;
  base::Hash hash;
  package header;
  uint64_t seen = 0;
  bool hashing = false;
};

struct State {
  Sending *hosts;
  int count;
  int entries;
  FILE *digests;
  bool failed;
} state;

Sending *sendingOf(int host) {
  return host >= 0 && host < state.count ? &state.hosts[host] : nullptr;
}

FILE *openDigests(const char *volumeList) {
  if (!base::sound(base::Area::backup)) return nullptr;
  if (!base::Hash::available()) {
    base::print(backuplog, "NOTICE:  libxxhash.so.0 is not installed: contents get no digests\n");
    return nullptr;
  }
  char path[base::kPathMax];
  snprintf(path, sizeof path, "%s.sum", volumeList);
  base::Fd fd(open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  FILE *file = fd ? fdopen(fd.get(), "w") : nullptr;
  if (!file) {
    base::print(backuplog, "NOTICE:  %s cannot be written: contents get no digests\n", path);
    return nullptr;
  }
  fd.release();
  fputs("#xxh3-64\n", file);
  return file;
}

}  // namespace

void listHost(char *to, size_t room, const char *host) {
  copyPrintable(to, room, host, false);
}

void listName(char *to, size_t room, const char *name) {
  copyPrintable(to, room, name, true);
}

void beginVolume(const char *volumeList, int hosts) {
  endVolume();
  // What an earlier volume of this number was found to hold says nothing about this one.
  for (const char *suffix : {".sum", ".verified"}) {
    char path[base::kPathMax];
    if (snprintf(path, sizeof path, "%s%s", volumeList, suffix) < static_cast<int>(sizeof path))
      unlink(path);
  }
  if (hosts <= 0) return;
  state.hosts = new (std::nothrow) Sending[static_cast<size_t>(hosts)];
  if (!state.hosts) return;
  state.count = hosts;
  state.digests = openDigests(volumeList);
}

int beginPackage(int host, const package &header) {
  Sending *sending = sendingOf(host);
  if (!sending) return 0;
  if (header.sequence == 0) {
    if (base::sound(base::Area::restore)) sending->entry = ++state.entries;
    bool hasContent = header.type == 0 || header.type == 2;
    sending->hashing = state.digests && hasContent && sending->hash.begin();
    sending->header = header;
    sending->seen = 0;
  }
  return sending->entry;
}

void addData(int host, const void *data, size_t n) {
  Sending *sending = sendingOf(host);
  if (!sending || !sending->hashing) return;
  sending->hash.add(data, n);
  sending->seen += n;
}

void endPackage(int host) {
  Sending *sending = sendingOf(host);
  if (!sending || !sending->hashing || sending->seen < sending->header.size) return;
  sending->hashing = false;
  char from[sizeof sending->header.fromhost], name[sizeof sending->header.filename];
  listHost(from, sizeof from, sending->header.fromhost);
  listName(name, sizeof name, sending->header.filename);
  if (fprintf(state.digests, "%016" PRIx64 ":%s:%" PRIu64 ":%s\n", sending->hash.value(), from,
              static_cast<uint64_t>(sending->header.size), name) < 0)
    state.failed = true;
}

bool endVolume() {
  bool whole = !state.failed;
  if (state.digests) whole &= fclose(state.digests) == 0;
  delete[] state.hosts;
  state = State{};
  return whole;
}

}  // namespace tape
