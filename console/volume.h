// What the files of a tape host say about a volume: the history of its jobs, the catalog and the
// label of its tape, its list of packages and the digests of its files. Reading only; the bytes
// come over the console.
#pragma once
#include <stdint.h>

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace console {

struct VolumeId {
  int drive = -1, tape = -1, volume = -1;
};

// One run of a backup job.
struct Run {
  int job = 0, level = 0, status = 0;  // 1 completed, 2 some hosts failed
  int64_t start = 0, retention = 0;
  VolumeId where;
};
// The runs in a history file, oldest first.
std::vector<Run> parseHistory(std::string_view bytes);
// The newest run of the job that has something on tape and began at asOf or earlier.
std::optional<Run> chooseRun(const std::vector<Run> &runs, int job, std::optional<int64_t> asOf);

// "2026-03-01" (its last second), "2026-03-01 17:20", with seconds too, or "@1772385600"; local
// time.
std::optional<int64_t> parseDate(const std::string &text);

// The label in a tape's header file.
std::optional<std::string> parseLabel(std::string_view bytes);

// What the tape's catalog says about a volume.
struct Record {
  int64_t created = 0;
  int job = 0, level = 0;
  std::string name;  // of the job
};
std::optional<Record> findRecord(std::string_view catalog, int volume);

// One package in a volume list.
struct ListLine {
  std::string_view host, name;
  long sequence;
  bool isFolder() const { return name.size() > 1 && name.back() == '/'; }
  // The name without the '/' at a folder's end.
  std::string_view path() const { return isFolder() ? name.substr(0, name.size() - 1) : name; }
};
std::optional<ListLine> cutListLine(std::string_view line);

// One file in a list of digests.
struct SumLine {
  std::string_view host, name;
  uint64_t size;
};
std::optional<SumLine> cutSumLine(std::string_view line);

// Cuts bytes that arrive in pieces into lines.
class LineCutter {
 public:
  explicit LineCutter(std::function<void(std::string_view)> take) : take_(std::move(take)) {}
  void feed(std::string_view piece);
  void finish();

 private:
  std::function<void(std::string_view)> take_;
  std::string rest_;
};

}  // namespace console
