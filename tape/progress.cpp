// Writes the progress record of a backup job. Runs in the job process.
#include "tape/progress.h"

#include <inttypes.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>
#include <new>

#include "base/fd.h"
#include "base/pause.h"

namespace tape {

namespace {

constexpr int kRefreshMs = 500;

const char *stateName(HostState state) {
  static constexpr const char *kNames[] = {"waiting", "starting", "running", "done", "failed"};
  return kNames[static_cast<int>(state)];
}

// The length of the UTF-8 character at `at`, or 0 when there is none: a stray or missing
// continuation, an overlong form, a surrogate, or a value past the last one.
int utf8Length(const unsigned char *at) {
  if (at[0] < 0x80) return 1;
  int length = at[0] >= 0xf0 ? 4 : at[0] >= 0xe0 ? 3 : 2;
  if (at[0] < 0xc2 || at[0] > 0xf4) return 0;
  for (int i = 1; i < length; i++)
    if ((at[i] & 0xc0) != 0x80) return 0;
  if (at[0] == 0xe0 && at[1] < 0xa0) return 0;
  if (at[0] == 0xed && at[1] > 0x9f) return 0;
  if (at[0] == 0xf0 && at[1] < 0x90) return 0;
  if (at[0] == 0xf4 && at[1] > 0x8f) return 0;
  return length;
}

// A JSON string; bytes that are no UTF-8 become U+FFFD.
void writeText(FILE *out, const char *text) {
  putc('"', out);
  for (auto *at = reinterpret_cast<const unsigned char *>(text); *at != '\0';) {
    int length = utf8Length(at);
    if (length == 0) {
      fputs("\\ufffd", out);
      at++;
    } else if (length > 1) {
      fwrite(at, 1, static_cast<size_t>(length), out);
      at += length;
    } else {
      if (*at < ' ' || *at == 0x7f)
        fprintf(out, "\\u%04x", *at);
      else if (*at == '"' || *at == '\\')
        fprintf(out, "\\%c", *at);
      else
        putc(*at, out);
      at++;
    }
  }
  putc('"', out);
}

uint64_t bytesPerSecond(uint64_t bytes, long long fromMs, long long toMs) {
  long long lasted = toMs - fromMs;
  if (fromMs == 0 || lasted <= 0) return 0;
  return static_cast<uint64_t>(static_cast<double>(bytes) * 1000 / static_cast<double>(lasted));
}

void writeHost(FILE *out, const HostProgress &host, long long nowMs) {
  fputs("{\"host\":", out);
  writeText(out, host.host);
  fprintf(out, ",\"state\":\"%s\",\"files\":%" PRIu64 ",\"bytes\":%" PRIu64 ",\"rate\":%" PRIu64,
          stateName(host.state), host.files, host.bytes,
          bytesPerSecond(host.bytes, host.begunMs, host.endedMs ? host.endedMs : nowMs));
  fputs(",\"error\":", out);
  writeText(out, host.error);
  putc('}', out);
}

}  // namespace

JobProgress::~JobProgress() {
  delete[] hosts_;
}

void JobProgress::begin(int job, const char *name, int level, time_t started) {
  path_ = base::HomePath("var/tape/jobids/%i.status.progress", job);
  begun_ = true;
  job_ = job;
  level_ = level;
  base::copyText(name_, sizeof name_, name);
  started_ = started;
  begunMs_ = base::nowMs();
  write();
}

void JobProgress::setTape(int drive, int tape, int volume) {
  drive_ = drive;
  tape_ = tape;
  volume_ = volume;
  write();
}

void JobProgress::setHosts(int count) {
  hosts_ = count > 0 ? new (std::nothrow) HostProgress[static_cast<size_t>(count)] : nullptr;
  hostCount_ = hosts_ ? count : 0;
}

HostProgress &JobProgress::host(int at) {
  return at >= 0 && at < hostCount_ ? hosts_[at] : spare_;
}

void JobProgress::hostChanged(int at, HostState state, const char *error) {
  HostProgress &changed = host(at);
  changed.state = state;
  if (error[0] != '\0') base::copyText(changed.error, sizeof changed.error, error);
  if (state == HostState::starting) changed.begunMs = base::nowMs();
  if (state == HostState::done || state == HostState::failed) changed.endedMs = base::nowMs();
  write();
}

void JobProgress::addPackage(int at, bool newFile, uint64_t bytes) {
  HostProgress &sender = host(at);
  sender.files += newFile;
  sender.bytes += bytes;
  files_ += newFile;
  bytes_ += bytes;
}

bool JobProgress::refresh() {
  if (base::nowMs() - writtenMs_ < kRefreshMs) return false;
  write();
  return true;
}

void JobProgress::finish(bool failed, int result, const char *error) {
  if (!begun_) return;
  state_ = failed ? "failed" : "done";
  hasResult_ = true;
  result_ = result;
  base::copyText(error_, sizeof error_, error);
  ended_ = time(nullptr);
  endedMs_ = base::nowMs();
  write();
}

bool JobProgress::anyHostFailed() const {
  for (int at = 0; at < hostCount_; at++)
    if (hosts_[at].state == HostState::failed) return true;
  return false;
}

void JobProgress::write() {
  if (!begun_) return;
  writtenMs_ = base::nowMs();
  base::HomePath temporary("var/tape/jobids/%i.status.progress.new", job_);
  base::File file(fopen(temporary, "we"));
  if (!file) return;
  FILE *out = file.get();
  // The record tells what a site keeps and how much of it; files of jobs are for their owner.
  fchmod(fileno(out), 0600);
  fprintf(out, "{\"kind\":\"backup\",\"job\":%i,\"name\":", job_);
  writeText(out, name_);
  fprintf(out, ",\"pid\":%i,\"state\":\"%s\",\"started\":%" PRId64 ",\"updated\":%" PRId64,
          getpid(), state_, static_cast<int64_t>(started_), static_cast<int64_t>(time(nullptr)));
  fprintf(out, ",\"ended\":%" PRId64 ",\"drive\":%i,\"tape\":%i,\"volume\":%i,\"level\":%i",
          static_cast<int64_t>(ended_), drive_, tape_, volume_, level_);
  fprintf(out, ",\"files\":%" PRIu64 ",\"bytes\":%" PRIu64 ",\"rate\":%" PRIu64, files_, bytes_,
          bytesPerSecond(bytes_, begunMs_, endedMs_ ? endedMs_ : writtenMs_));
  fprintf(out, ",\"expectedBytes\":%" PRIu64 ",\"result\":", expected_);
  if (hasResult_)
    fprintf(out, "%i", result_);
  else
    fputs("null", out);
  fputs(",\"error\":", out);
  writeText(out, error_);
  fputs(",\"hosts\":[", out);
  for (int at = 0; at < hostCount_; at++) {
    if (at > 0) putc(',', out);
    writeHost(out, hosts_[at], writtenMs_);
  }
  fputs("]}\n", out);
  if (!file.close() || rename(temporary, path_) != 0) unlink(temporary);
}

}  // namespace tape
