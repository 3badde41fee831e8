// The progress record of a job, as its process keeps it in a file beside the job's status file.
#pragma once
#include <stdint.h>

#include <optional>
#include <string>
#include <vector>

namespace console {

struct HostProgress {
  std::string host;
  std::string state;  // waiting, starting, running, done, failed
  uint64_t files = 0;
  uint64_t bytes = 0;
  uint64_t rate = 0;  // bytes a second
  std::string error;
  std::optional<uint64_t> folders = {};  // where they are counted apart from files
  uint64_t unread = 0;                   // of a backup: files that cannot be read there
  std::vector<std::string> absent = {};  // of a backup: asked for, and nothing of it came
};

struct Progress {
  std::string kind;
  int64_t job = 0;
  std::string name;
  int64_t pid = 0;
  std::string state;                                       // running, done, failed
  int64_t started = 0, updated = 0, ended = 0;             // seconds since 1970
  int64_t drive = -1, tape = -1, volume = -1, level = -1;  // -1: does not apply
  uint64_t files = 0, bytes = 0, rate = 0;
  std::optional<uint64_t> folders;
  uint64_t expectedBytes = 0;  // 0: unknown
  // Of restores, which know how many packages they look for and not how many bytes these hold.
  uint64_t packages = 0, wantedPackages = 0;
  uint64_t failed = 0, missing = 0;  // files of a restore
  uint64_t problems = 0;             // of a verification
  std::optional<int64_t> result;
  std::string error;
  std::vector<HostProgress> hosts;
  std::string json;  // the record itself, on one line

  bool running() const { return state == "running"; }
  bool done() const { return state == "done"; }
};

// Reads a record; nothing when text is none. Members that are missing or of another type keep their
// defaults, so that records of older and newer agents can be followed.
std::optional<Progress> parseProgress(const std::string &text);

// Where the record of a job lies, relative to the home; empty for an unknown kind. Restores and
// verifications have one place for all and no number.
std::string progressPath(const std::string &kind, const std::string &job);

// "backup 7 (daily)"
std::string jobText(const Progress &progress);

// Which run of a job an observer means: records of earlier runs lie in the same place until the new
// one has written its first.
struct RunWanted {
  int64_t begun = 0;             // when the observer began to look
  std::optional<int64_t> since;  // the run started at this time or later
  // The record that was there before the run was asked for.
  struct Previous {
    int64_t started, pid;
  };
  std::optional<Previous> previous;
};
bool isWanted(const Progress &progress, const RunWanted &wanted);

// Whether a process is in the answer to "HOST ps json"; nothing when that is no list.
std::optional<bool> isListed(const std::string &processes, int64_t pid);

// Seconds until the end at the present pace, or -1 when nobody can tell.
int64_t secondsLeft(const Progress &progress);

}  // namespace console
