// Keeps the receiver's record of a run. Runs in the extracter, which knows what became of each
// file.
#include "mrepl/received.h"

#include <inttypes.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/fd.h"
#include "base/json.h"
#include "base/text.h"
#include "mrepl/run.h"

namespace mrepl {

Received received;

namespace {

// More names than this help nobody; the count is always right.
constexpr uint64_t kMostNamed = 10000;

void copyStream(FILE *from, FILE *to) {
  char block[4096];
  rewind(from);
  for (size_t n; (n = fread(block, 1, sizeof block, from)) > 0;) fwrite(block, 1, n, to);
}

}  // namespace

void Received::begin() {
  if (list_) fclose(list_);
  digest_.end();
  *this = Received{};
  started_ = time(nullptr);
  if (!soundRun()) return;
  digest_.begin();
  write("running");
}

void Received::noteRun(uint32_t control) {
  if (run_ == control >> 16) return;
  run_ = control >> 16;
  // Killed before its end, a receiver has at least said which run it was in.
  if (soundRun()) write("running");
}

void Received::done(const mfilehead &header, uint64_t bytes) {
  files_++;
  bytes_ += bytes;
  digest_.entry(header, bytes);
}

void Received::failed(const mfilehead &header, int code, const char *reason) {
  if (!list_) list_ = tmpfile();
  if (++failures_ > kMostNamed || !list_) return;
  char name[sizeof header.name + 1] = "";
  memcpy(name, header.name, sizeof header.name);
  // One a line: whoever relays the record line by line does not cut it within a name.
  fputs(failures_ > 1 ? ",\n{\"name\":" : "\n{\"name\":", list_);
  base::writeJsonText(list_, name);
  fprintf(list_, ",\"code\":%i,\"error\":", code);
  base::writeJsonText(list_, reason);
  putc('}', list_);
}

void Received::finish(bool complete) {
  ended_ = time(nullptr);
  reachedEnd_ = complete;
  if (soundRun()) write(complete && failures_ == 0 ? "complete" : "incomplete");
  if (list_) fclose(list_);
  list_ = nullptr;
  digest_.end();
}

// A receiver whose sender was killed gives up minutes later; the record may be that of a later run
// by then, which is the one that is asked for.
bool Received::isOurs(const char *path) const {
  struct stat there;
  if (file_ == 0 || stat(path, &there) != 0) return true;
  return there.st_ino == file_ && there.st_mtim.tv_sec == written_.tv_sec &&
         there.st_mtim.tv_nsec == written_.tv_nsec;
}

void Received::write(const char *state) {
  base::HomePath path("var/tape/mrepljobs/received.json");
  if (!isOurs(path)) return;
  base::HomePath temporary("var/tape/mrepljobs/received.json.new");
  base::File file(fopen(temporary, "we"));
  if (!file) return;
  FILE *out = file.get();
  fchmod(fileno(out), 0600);
  char digest[TreeDigest::kTextBytes];
  digest_.text(digest);
  fprintf(out,
          "{\"kind\":\"multicast\",\"state\":\"%s\",\"run\":%u,\"started\":%" PRId64
          ",\"ended\":%" PRId64 ",\"files\":%" PRIu64 ",\"bytes\":%" PRIu64
          ",\"digest\":\"%s\",\"reachedEnd\":%s,\"failed\":%" PRIu64 ",\"failures\":[",
          state, run_, static_cast<int64_t>(started_), static_cast<int64_t>(ended_), files_, bytes_,
          digest, reachedEnd_ ? "true" : "false", failures_);
  if (list_) copyStream(list_, out);
  fputs("]}\n", out);
  struct stat made = {};
  bool whole = fflush(out) == 0 && fstat(fileno(out), &made) == 0;
  if (!file.close() || !whole || rename(temporary, path) != 0) {
    unlink(temporary);
    return;
  }
  file_ = made.st_ino;
  written_ = made.st_mtim;
}

}  // namespace mrepl
