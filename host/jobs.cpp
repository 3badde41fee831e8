// Reads what jobs tell of their progress, for HOST jobs. Records are replaced under our eyes by
// their jobs, and may be of any age or kind: what is no record is left out.
#include "host/jobs.h"

#include <dirent.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zul/host.h>

#include <algorithm>
#include <string>
#include <vector>

#include "host/files.h"
#include "host/hostlog.h"
#include "host/processes.h"

namespace host {

namespace {

// Backups and replications are numbered and have their records among the jobs; a restore and a
// verification run one at a time and have theirs above.
constexpr const char *kFolders[] = {"var/tape/jobids", "var/tape"};
constexpr std::string_view kEnding = ".progress";
constexpr size_t kMaxRecord = 256 << 10;
constexpr int kMaxDepth = 8;  // a record has three levels; a file of brackets is none

std::vector<std::string> recordPaths(const char *below) {
  std::vector<std::string> paths;
  DIR *folder = opendir((std::string(ZULhome) + "/" + below).c_str());
  while (dirent *entry = folder ? readdir(folder) : nullptr)
    if (std::string_view(entry->d_name).ends_with(kEnding))
      paths.push_back(std::string(below) + "/" + entry->d_name);
  if (folder) closedir(folder);
  std::sort(paths.begin(), paths.end());
  return paths;
}

// An object, or nothing: the file may be damaged, or gone by now.
nlohmann::json readRecord(const std::string &path) {
  std::string why;
  base::Fd file = openForReading(path, why);
  std::string text(kMaxRecord, '\0');
  ssize_t got = file ? pread(file.get(), text.data(), text.size(), 0) : -1;
  if (got < 0) return nullptr;
  text.resize(static_cast<size_t>(got));
  auto shallow = [](int depth, nlohmann::json::parse_event_t, const nlohmann::json &) {
    return depth < kMaxDepth;
  };
  nlohmann::json record = nlohmann::json::parse(text, shallow, false);
  return record.is_object() ? record : nlohmann::json(nullptr);
}

// A number may have passed to another process since: only one of this home that began before the
// record was last written is meant.
bool isAlive(const nlohmann::json &record) {
  auto pid = record.find("pid");
  auto updated = record.find("updated");
  if (pid == record.end() || !pid->is_number_integer()) return false;
  WorkProcess process;
  long long number = pid->get<long long>();
  if (number <= 0 || number > INT32_MAX || !readWorkProcess(static_cast<pid_t>(number), process))
    return false;
  if (process.state == 'Z') return false;
  return updated == record.end() || !updated->is_number() ||
         static_cast<double>(process.started) <= updated->get<double>() + 2;
}

}  // namespace

nlohmann::json readJobs() {
  nlohmann::json jobs = nlohmann::json::array();
  for (const char *folder : kFolders) {
    for (const std::string &path : recordPaths(folder)) {
      nlohmann::json record = readRecord(path);
      if (record.is_null()) {
        logEvent("progress record %s cannot be read; left out", printable(path).c_str());
        continue;
      }
      record["file"] = path;
      record["alive"] = isAlive(record);
      jobs.push_back(std::move(record));
    }
  }
  return jobs;
}

}  // namespace host
