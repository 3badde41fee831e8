// A replication job as its text in the store, and as an operator sees it: names for the policy
// words.
#pragma once
#include <stdint.h>

#include <optional>
#include <string>
#include <vector>

namespace console {

// The twelve fields of a stored job.
struct RepJob {
  int number = 0, group = 0, conflict = 2;
  int owner = 0, ownerGroup = 0;
  // Everything is kept as it is on the sending host, but for set-user-id bits.
  int directoryPolicy = 0x7000, filePolicy = 0, eighth = 0, flags = 0;
  std::string destination, name;

  bool keepsMode() const { return (directoryPolicy & 0x1000) != 0; }
  bool keepsGroup() const { return (directoryPolicy & 0x2000) != 0; }
  bool keepsOwner() const { return (directoryPolicy & 0x4000) != 0; }
  bool keepsSetuid() const { return (filePolicy & 0x8000) != 0; }
  bool encrypts() const { return (flags & 2) != 0; }
};

// Reads a line of the listing; nothing when it is none.
std::optional<RepJob> parseRepJob(const std::string &line);
// The text that stores it.
std::string repJobText(const RepJob &job);

// "if-different", for one; a number for a mode without a name.
std::string conflictName(int mode);
std::optional<int> conflictMode(const std::string &name);

// What an operator may say about a job; what is not said stays as it is.
struct RepJobWords {
  std::optional<int> group = {};
  std::optional<std::string> destination = {}, name = {}, conflict = {};
  std::optional<std::string> owner = {}, ownerGroup = {};        // "keep" or a number
  std::optional<std::string> directoryMode = {}, fileMode = {};  // "keep" or octal permissions
  std::optional<bool> setuid = {}, encrypt = {};
};
// Changes a job by these; a Failure says what makes no sense.
void applyWords(const RepJobWords &words, RepJob *job);

// A line for people: "5 copy: group 3 -> /srv/copy, if-different, keeps owner, group, mode".
std::string describeRepJob(const RepJob &job);

// A file that a job would send, as the daemon's preview tells it.
struct PreviewEntry {
  std::string type, mode, owner, group, size, mtime, source, target;
};
struct Preview {
  std::vector<std::string> hosts;
  std::vector<PreviewEntry> entries;
};
// False when the line belongs to no preview.
bool takePreviewLine(const std::string &line, Preview *preview);

// One line of a job's results.
struct RepResult {
  std::string host, state, reason;
  uint64_t files = 0, bytes = 0, kept = 0, failed = 0;
  double seconds = 0;
};
std::vector<RepResult> parseResults(const std::string &text);

}  // namespace console
