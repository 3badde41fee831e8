// Keeps a restore's progress record and its list of outcomes.
#include "tape/restorereport.h"

#include <fcntl.h>
#include <inttypes.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "base/fd.h"
#include "base/json.h"
#include "base/pause.h"
#include "base/text.h"

namespace tape {

namespace {

constexpr int kRefreshMs = 500;

// The one restore of this process. Plain data, as everywhere in the module.
struct State {
  bool begun;
  RestoreJob job;
  time_t started, ended;
  long long begunMs, writtenMs;
  uint64_t packages, restored, kept, failed, missing, bytes;
  const char *state;
  int result;
  char error[256];
  FILE *results;
} now;

FILE *openPrivate(const char *path) {
  // Names of files are as private as the files.
  int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  FILE *file = fd >= 0 ? fdopen(fd, "w") : nullptr;
  if (!file && fd >= 0) close(fd);
  return file;
}

void write() {
  now.writtenMs = base::nowMs();
  base::HomePath temporary("var/tape/restore.serv.progress.new");
  base::File file(openPrivate(temporary));
  if (!file) return;
  FILE *out = file.get();
  long long lasted = now.writtenMs - now.begunMs;
  fprintf(out,
          "{\"kind\":\"restore\",\"pid\":%i,\"state\":\"%s\",\"started\":%" PRId64
          ",\"updated\":%" PRId64,
          getpid(), now.state, static_cast<int64_t>(now.started),
          static_cast<int64_t>(time(nullptr)));
  fprintf(out, ",\"ended\":%" PRId64 ",\"drive\":%i,\"tape\":%i,\"volume\":%i",
          static_cast<int64_t>(now.ended), now.job.drive, now.job.tape, now.job.volume);
  fputs(",\"host\":", out);
  base::writeJsonText(out, now.job.host);
  fputs(",\"destination\":", out);
  base::writeJsonText(out, now.job.destination);
  fprintf(out,
          ",\"wantedPackages\":%ld,\"packages\":%" PRIu64 ",\"files\":%" PRIu64
          ",\"kept\":%" PRIu64,
          now.job.wanted, now.packages, now.restored, now.kept);
  fprintf(out,
          ",\"failed\":%" PRIu64 ",\"missing\":%" PRIu64 ",\"bytes\":%" PRIu64 ",\"rate\":%" PRIu64,
          now.failed, now.missing, now.bytes,
          lasted > 0 ? now.bytes * 1000 / static_cast<uint64_t>(lasted) : 0);
  if (now.ended)
    fprintf(out, ",\"result\":%i", now.result);
  else
    fputs(",\"result\":null", out);
  fputs(",\"error\":", out);
  base::writeJsonText(out, now.error);
  fputs("}\n", out);
  if (!file.close() || rename(temporary, base::HomePath("var/tape/restore.serv.progress")) != 0)
    unlink(temporary);
}

void refresh() {
  if (base::nowMs() - now.writtenMs >= kRefreshMs) write();
}

uint64_t *counterOf(const char *outcome) {
  switch (outcome[0]) {
    case 'r':
      return &now.restored;
    case 'k':
      return &now.kept;
    case 'm':
      return &now.missing;
    default:
      return &now.failed;
  }
}

}  // namespace

void beginReport(const RestoreJob &job) {
  now = State{};
  now.begun = true;
  now.job = job;
  now.started = time(nullptr);
  now.begunMs = base::nowMs();
  now.state = "running";
  now.results = openPrivate(base::HomePath("var/tape/restore.serv.results"));
  write();
}

void reportSegment(const package &header) {
  if (!now.begun) return;
  uint64_t before = static_cast<uint64_t>(header.sequence > 0 ? header.sequence : 0) * PACK_CHUNK;
  uint64_t left = header.size > before ? header.size - before : 0;
  now.packages++;
  now.bytes += left < PACK_CHUNK ? left : PACK_CHUNK;
  // A file that ends on a full megabyte is whole before its last, empty package.
  bool empty = left == 0 && header.sequence > 0;
  if (left <= PACK_CHUNK && !empty)
    reportRestored(header.fromhost, header.filename, "restored", "");
  refresh();
}

void reportRestored(const char *host, const char *path, const char *outcome, const char *why) {
  if (!now.begun) return;
  ++*counterOf(outcome);
  if (now.results) {
    fputs("{\"host\":", now.results);
    base::writeJsonText(now.results, host);
    fputs(",\"path\":", now.results);
    base::writeJsonText(now.results, path);
    fprintf(now.results, ",\"result\":\"%s\",\"error\":", outcome);
    base::writeJsonText(now.results, why);
    fputs("}\n", now.results);
  }
  refresh();
}

bool endReport(int result, const char *error) {
  if (!now.begun) return result == 0;
  bool whole = result == 0 && now.failed == 0 && now.missing == 0;
  now.state = whole ? "done" : "failed";
  now.result = result;
  now.ended = time(nullptr);
  base::copyText(now.error, sizeof now.error, error);
  if (result == 0 && !whole)
    snprintf(now.error, sizeof now.error,
             "%" PRIu64 " files failed, %" PRIu64 " were not found on tape", now.failed,
             now.missing);
  if (now.results) fclose(now.results);
  now.results = nullptr;
  write();
  now.begun = false;
  return whole;
}

}  // namespace tape
