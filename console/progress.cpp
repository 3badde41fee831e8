// Takes a progress record apart. It was written by a job of this or another version, and may have
// been cut off by a full disk: what is missing or of another type reads as nothing.
#include "console/progress.h"

#include <nlohmann/json.hpp>

#include "console/text.h"

namespace console {

namespace {

using nlohmann::json;

// A run that ended this long before we looked is taken for the one that was just asked for: small
// jobs end before anybody can look.
constexpr int64_t kJustEnded = 10;

std::string textOf(const json &object, const char *name) {
  auto member = object.find(name);
  return member != object.end() && member->is_string() ? member->get<std::string>() : "";
}

int64_t numberOf(const json &object, const char *name, int64_t otherwise) {
  auto member = object.find(name);
  if (member == object.end() || !member->is_number()) return otherwise;
  if (member->is_number_float()) {
    double value = member->get<double>();
    return value > -9e18 && value < 9e18 ? static_cast<int64_t>(value) : otherwise;
  }
  return member->get<int64_t>();
}

uint64_t amountOf(const json &object, const char *name) {
  int64_t value = numberOf(object, name, 0);
  return value > 0 ? static_cast<uint64_t>(value) : 0;
}

std::optional<uint64_t> foldersOf(const json &object) {
  if (!object.contains("folders")) return std::nullopt;
  return amountOf(object, "folders");
}

HostProgress hostOf(const json &object) {
  HostProgress host;
  host.host = textOf(object, "host");
  host.state = textOf(object, "state");
  host.files = amountOf(object, "files");
  host.folders = foldersOf(object);
  host.bytes = amountOf(object, "bytes");
  host.rate = amountOf(object, "rate");
  host.error = textOf(object, "error");
  return host;
}

}  // namespace

std::optional<Progress> parseProgress(const std::string &text) {
  json object = json::parse(text, nullptr, false);
  if (!object.is_object()) return std::nullopt;
  Progress progress;
  progress.kind = textOf(object, "kind");
  progress.job = numberOf(object, "job", 0);
  progress.name = textOf(object, "name");
  progress.pid = numberOf(object, "pid", 0);
  progress.state = textOf(object, "state");
  progress.started = numberOf(object, "started", 0);
  progress.updated = numberOf(object, "updated", 0);
  progress.ended = numberOf(object, "ended", 0);
  progress.drive = numberOf(object, "drive", -1);
  progress.tape = numberOf(object, "tape", -1);
  progress.volume = numberOf(object, "volume", -1);
  progress.level = numberOf(object, "level", -1);
  progress.files = amountOf(object, "files");
  progress.folders = foldersOf(object);
  progress.bytes = amountOf(object, "bytes");
  progress.rate = amountOf(object, "rate");
  progress.expectedBytes = amountOf(object, "expectedBytes");
  progress.packages = amountOf(object, "packages");
  progress.wantedPackages = amountOf(object, "wantedPackages");
  progress.failed = amountOf(object, "failed");
  progress.missing = amountOf(object, "missing");
  progress.problems = amountOf(object, "problems");
  std::string target = textOf(object, "host"), folder = textOf(object, "destination");
  if (!target.empty()) progress.name = "to " + target + ":" + folder;
  if (object.contains("result") && object["result"].is_number())
    progress.result = numberOf(object, "result", 0);
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
