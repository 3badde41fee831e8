// Writes the progress record of a job. Runs in the job process.
#include "tape/progress.h"

#include <inttypes.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>
#include <new>

#include "base/fd.h"
#include "base/json.h"
#include "base/pause.h"

namespace tape {

namespace {

constexpr int kRefreshMs = 500;
constexpr size_t kMostAbsent = 20;  // names of a host in the record

const char *stateName(HostState state) {
  static constexpr const char *kNames[] = {"waiting", "starting", "running", "done", "failed"};
  return kNames[static_cast<int>(state)];
}

uint64_t bytesPerSecond(uint64_t bytes, long long fromMs, long long toMs) {
  long long lasted = toMs - fromMs;
  if (fromMs == 0 || lasted <= 0) return 0;
  return static_cast<uint64_t>(static_cast<double>(bytes) * 1000 / static_cast<double>(lasted));
}

}  // namespace

JobProgress::~JobProgress() {
  delete[] hosts_;
}

void JobProgress::begin(int job, const char *name, int level, time_t started) {
  char file[48];
  snprintf(file, sizeof file, "%s%i.stat%s", replication_ ? "replicate." : "", job,
           replication_ ? "" : "us");
  path_ = base::HomePath("var/tape/jobids/%s.progress", file);
  temporary_ = base::HomePath("var/tape/jobids/%s.progress.new", file);
  begun_ = true;
  job_ = job;
  level_ = level;
  base::copyText(name_, sizeof name_, name);
  started_ = started;
  begunMs_ = base::nowMs();
  write();
}

void JobProgress::beginReplication(int job, const char *name, time_t started) {
  replication_ = true;
  begin(job, name, 0, started);
}

void JobProgress::setTape(int drive, int tape, int volume) {
  drive_ = drive;
  tape_ = tape;
  volume_ = volume;
  write();
}

void JobProgress::setHosts(int count) {
  // Asked again for as many, it keeps what is known about them: a list that was not pushed, say.
  if (count == hostCount_) return;
  delete[] hosts_;
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

void JobProgress::addUnread(int at) {
  host(at).unread++;
}

void JobProgress::setAbsent(int at, std::vector<std::string> names) {
  host(at).absent = std::move(names);
}

void JobProgress::setCounts(int at, uint64_t files, uint64_t folders, uint64_t bytes) {
  HostProgress &target = host(at);
  files_ += files - target.files;
  folders_ += folders - target.folders;
  bytes_ += bytes - target.bytes;
  target.files = files;
  target.folders = folders;
  target.bytes = bytes;
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

// What a backup has and a replication has not.
void JobProgress::writeKind(FILE *out) {
  if (replication_) return;
  fprintf(out, ",\"drive\":%i,\"tape\":%i,\"volume\":%i,\"level\":%i", drive_, tape_, volume_,
          level_);
}

// A backup counts packages, and has no number of folders.
void JobProgress::writeCounts(FILE *out, uint64_t files, uint64_t folders, uint64_t bytes) {
  fprintf(out, ",\"files\":%" PRIu64, files);
  if (replication_) fprintf(out, ",\"folders\":%" PRIu64, folders);
  fprintf(out, ",\"bytes\":%" PRIu64, bytes);
}

// What a backup was asked for and has not. The record is read over and over: it names only some.
void JobProgress::writeUnsaved(FILE *out, const HostProgress &host) {
  if (replication_) return;
  fprintf(out, ",\"unread\":%" PRIu64 ",\"absent\":[", host.unread);
  for (size_t at = 0; at < host.absent.size() && at < kMostAbsent; at++) {
    if (at > 0) putc(',', out);
    base::writeJsonText(out, host.absent[at].c_str());
  }
  putc(']', out);
}

void JobProgress::writeHost(FILE *out, const HostProgress &host) {
  fputs("{\"host\":", out);
  base::writeJsonText(out, host.host);
  fprintf(out, ",\"state\":\"%s\"", stateName(host.state));
  writeCounts(out, host.files, host.folders, host.bytes);
  fprintf(out, ",\"rate\":%" PRIu64 ",\"error\":",
          bytesPerSecond(host.bytes, host.begunMs, host.endedMs ? host.endedMs : writtenMs_));
  base::writeJsonText(out, host.error);
  writeUnsaved(out, host);
  putc('}', out);
}

void JobProgress::write() {
  if (!begun_) return;
  writtenMs_ = base::nowMs();
  base::File file(fopen(temporary_, "we"));
  if (!file) return;
  FILE *out = file.get();
  // The record tells what a site keeps and how much of it; files of jobs are for their owner.
  fchmod(fileno(out), 0600);
  fprintf(out, "{\"kind\":\"%s\",\"job\":%i,\"name\":", replication_ ? "replication" : "backup",
          job_);
  base::writeJsonText(out, name_);
  fprintf(out, ",\"pid\":%i,\"state\":\"%s\",\"started\":%" PRId64 ",\"updated\":%" PRId64,
          getpid(), state_, static_cast<int64_t>(started_), static_cast<int64_t>(time(nullptr)));
  fprintf(out, ",\"ended\":%" PRId64, static_cast<int64_t>(ended_));
  writeKind(out);
  writeCounts(out, files_, folders_, bytes_);
  fprintf(out, ",\"rate\":%" PRIu64,
          bytesPerSecond(bytes_, begunMs_, endedMs_ ? endedMs_ : writtenMs_));
  fprintf(out, ",\"expectedBytes\":%" PRIu64 ",\"result\":", expected_);
  if (hasResult_)
    fprintf(out, "%i", result_);
  else
    fputs("null", out);
  fputs(",\"error\":", out);
  base::writeJsonText(out, error_);
  fputs(",\"hosts\":[", out);
  for (int at = 0; at < hostCount_; at++) {
    if (at > 0) putc(',', out);
    writeHost(out, hosts_[at]);
  }
  fputs("]}\n", out);
  if (!file.close() || rename(temporary_, path_) != 0) unlink(temporary_);
}

}  // namespace tape
