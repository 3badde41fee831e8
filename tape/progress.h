// The machine-readable record of a backup or a replication: one JSON object in "<status
// file>.progress", which
// a follower may read at any moment. docs/formats/progress.md has its fields.
#pragma once
#include <stdint.h>
#include <stdio.h>
#include <sys/types.h>
#include <time.h>

#include <string>
#include <vector>

#include "base/text.h"

namespace tape {

enum class HostState { waiting, starting, running, done, failed };

struct HostProgress {
  char host[64] = "";
  HostState state = HostState::waiting;
  uint64_t files = 0;
  uint64_t folders = 0;  // of a replication; a backup counts them with the files
  uint64_t bytes = 0;    // of a backup: headers included
  uint64_t unread = 0;   // of a backup: files that cannot be read there
  long long begunMs = 0;
  long long endedMs = 0;
  char error[128] = "";
  std::vector<std::string> absent;  // of a backup: asked for, and nothing of it came
};

// Written by the job's own process and nobody else. Failing to write the record never disturbs the
// job: it is for those who watch.
class JobProgress {
 public:
  JobProgress() = default;
  ~JobProgress();
  JobProgress(const JobProgress &) = delete;
  JobProgress &operator=(const JobProgress &) = delete;

  // From here on there is a record.
  void begin(int job, const char *name, int level, time_t started);
  // The same for a replication.
  void beginReplication(int job, const char *name, time_t started);
  void setTape(int drive, int tape, int volume);
  void setExpected(uint64_t bytes) { expected_ = bytes; }
  // Room for so many hosts; what is known of as many already stays. Without memory for them the
  // record does without.
  void setHosts(int count);

  // Member number `at` (from 0) as it stands; never null while at is below the count asked for.
  HostProgress &host(int at);
  void hostChanged(int at, HostState state, const char *error = "");
  void addPackage(int at, bool newFile, uint64_t bytes);
  void addUnread(int at);
  void setAbsent(int at, std::vector<std::string> names);
  // What a member of a replication has altogether.
  void setCounts(int at, uint64_t files, uint64_t folders, uint64_t bytes);

  // Writes the record when the last one is half a second old. True when that time had come.
  bool refresh();
  // The last record: result is the job's return code.
  void finish(bool failed, int result, const char *error);
  bool anyHostFailed() const;

 private:
  void write();
  void writeKind(FILE *out);
  void writeCounts(FILE *out, uint64_t files, uint64_t folders, uint64_t bytes);
  void writeUnsaved(FILE *out, const HostProgress &host);
  void writeHost(FILE *out, const HostProgress &host);

  bool replication_ = false;
  base::HomePath path_{"%s", ""};
  base::HomePath temporary_{"%s", ""};
  bool begun_ = false;
  int job_ = 0;
  int level_ = 0;
  char name_[257] = "";
  time_t started_ = 0;
  time_t ended_ = 0;
  int drive_ = 0;
  int tape_ = 0;
  int volume_ = 0;
  uint64_t files_ = 0;
  uint64_t folders_ = 0;
  uint64_t bytes_ = 0;
  uint64_t expected_ = 0;
  long long begunMs_ = 0;
  long long endedMs_ = 0;
  long long writtenMs_ = 0;
  const char *state_ = "running";
  bool hasResult_ = false;
  int result_ = 0;
  char error_[256] = "";
  HostProgress *hosts_ = nullptr;
  int hostCount_ = 0;
  HostProgress spare_;  // stands in for hosts there was no memory for
};

}  // namespace tape
