// Takes a progress record apart. It was written by a job of this or another version, and may have
// been cut off by a full disk: what is missing or of another type reads as nothing.
#include "console/progress.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "console/fields.h"
#include "console/text.h"

namespace console {

namespace {

using nlohmann::json;

// A run that ended this long before we looked is taken for the one that was just asked for: small
// jobs end before anybody can look.
constexpr int64_t kJustEnded = 10;

std::optional<uint64_t> foldersOf(const json &object) {
  if (!object.contains("folders")) return std::nullopt;
  return countOf(object, "folders");
}

HostProgress hostOf(const json &object) {
  HostProgress host;
  host.host = textOf(object, "host");
  host.state = textOf(object, "state");
  host.files = countOf(object, "files");
  host.folders = foldersOf(object);
  host.bytes = countOf(object, "bytes");
  host.rate = countOf(object, "rate");
  host.error = textOf(object, "error");
  host.unread = countOf(object, "unread");
  if (object.contains("absent") && object["absent"].is_array())
    for (const json &name : object["absent"])
      if (name.is_string()) host.absent.push_back(name.get<std::string>());
  return host;
}

}  // namespace

std::optional<Progress> parseProgress(const std::string &text) {
  json object = json::parse(text, nullptr, false);
  if (!object.is_object()) return std::nullopt;
  Progress progress;
  progress.kind = textOf(object, "kind");
  progress.job = numberOf(object, "job");
  progress.name = textOf(object, "name");
  progress.pid = numberOf(object, "pid");
  progress.state = textOf(object, "state");
  progress.started = numberOf(object, "started");
  progress.updated = numberOf(object, "updated");
  progress.ended = numberOf(object, "ended");
  progress.drive = numberOf(object, "drive", -1);
  progress.tape = numberOf(object, "tape", -1);
  progress.volume = numberOf(object, "volume", -1);
  progress.level = numberOf(object, "level", -1);
  progress.files = countOf(object, "files");
  progress.folders = foldersOf(object);
  progress.bytes = countOf(object, "bytes");
  progress.rate = countOf(object, "rate");
  progress.expectedBytes = countOf(object, "expectedBytes");
  progress.packages = countOf(object, "packages");
  progress.wantedPackages = countOf(object, "wantedPackages");
  progress.failed = countOf(object, "failed");
  progress.missing = countOf(object, "missing");
  progress.problems = countOf(object, "problems");
  std::string target = textOf(object, "host"), folder = textOf(object, "destination");
  if (!target.empty()) progress.name = "to " + target + ":" + folder;
  if (object.contains("result") && object["result"].is_number())
    progress.result = numberOf(object, "result");
  progress.error = textOf(object, "error");
  if (object.contains("hosts") && object["hosts"].is_array())
    for (const json &host : object["hosts"])
      if (host.is_object()) progress.hosts.push_back(hostOf(host));
  progress.json = object.dump(-1, ' ', false, json::error_handler_t::replace);
  if (progress.state.empty() || progress.started == 0) return std::nullopt;
  return progress;
}

std::string progressPath(const std::string &kind, const std::string &job) {
  if (kind == "backup") return "var/tape/jobids/" + job + ".status.progress";
  if (kind == "replication") return "var/tape/jobids/replicate." + job + ".stat.progress";
  if (kind == "verify") return "var/tape/verify.status.progress";
  if (kind == "restore") return "var/tape/restore.serv.progress";
  return "";
}

std::string jobText(const Progress &progress) {
  std::string text = progress.kind.empty() ? "job" : oneLine(progress.kind);
  if (progress.job != 0) text += " " + std::to_string(progress.job);
  return progress.name.empty() ? text : text + " (" + oneLine(progress.name) + ")";
}

bool isWanted(const Progress &progress, const RunWanted &wanted) {
  if (wanted.previous &&
      (progress.started == wanted.previous->started && progress.pid == wanted.previous->pid))
    return false;
  if (wanted.previous) return true;
  if (wanted.since) return progress.started >= *wanted.since;
  if (progress.running()) return true;
  return progress.ended >= wanted.begun - kJustEnded;
}

std::optional<bool> isListed(const std::string &processes, int64_t pid) {
  json list = json::parse(processes, nullptr, false);
  if (!list.is_array()) return std::nullopt;
  return std::any_of(list.begin(), list.end(), [&](const json &each) {
    return each.is_object() && each.value("pid", json()) == pid;
  });
}

int64_t secondsLeft(const Progress &progress) {
  if (progress.expectedBytes <= progress.bytes || progress.bytes == 0) return -1;
  // The mean since the start is steadier than the present rate.
  int64_t elapsed = progress.updated - progress.started;
  if (elapsed < 2) return -1;
  double perSecond = static_cast<double>(progress.bytes) / static_cast<double>(elapsed);
  return static_cast<int64_t>(static_cast<double>(progress.expectedBytes - progress.bytes) /
                              perSecond);
}

}  // namespace console
