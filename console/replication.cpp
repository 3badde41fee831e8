// zul replicate: runs a replication job and tells what became of each host.
#include <nlohmann/json.hpp>

#include "console/commands.h"
#include "console/replication.h"
#include "console/text.h"

namespace console {

namespace {

constexpr size_t kMostShown = 200;
constexpr size_t kLongestRequest = 4000;

std::string resultPath(const std::string &job) {
  return "var/tape/jobids/replicate." + job + ".result";
}

// The hosts that the last run did not serve, with commas between.
std::string unserved(Connection &connection, const std::string &job) {
  std::optional<std::string> text = connection.fetch(progressPath("replication", job));
  std::optional<Progress> last = text ? parseProgress(*text) : std::nullopt;
  if (!last)
    throw Failure(Exit::failed, "there is no record of a run of replication " + job,
                  "Run all of it: zul replicate " + job);
  std::string names;
  for (const HostProgress &host : last->hosts)
    if (host.state != "done") names += (names.empty() ? "" : ",") + host.host;
  return names;
}

std::string requestOf(const ReplicateOptions &options, const std::string &only) {
  std::string line = "TAPE replicate " + options.job + (only.empty() ? "" : " @" + only);
  if (line.size() > kLongestRequest)
    throw Failure(Exit::failed, "these are too many hosts for one request",
                  "Run all of it: zul replicate " + options.job);
  return line;
}

Exit start(Connection &connection, const std::string &line) {
  connection.send(line);
  Outcome outcome = connection.receive(printErr, false);
  if (outcome.accepted) return Exit::done;
  if (!outcome.ended)
    throw Failure(Exit::noConnection, "the connection ended before the job was accepted");
  return Exit::failed;
}

// Behind the progress: each host that did not succeed, and why.
void showResults(const ReplicateOptions &options) {
  Connection connection(options.target);
  std::optional<std::string> text = connection.fetch(resultPath(options.job));
  if (!text) return;
  if (options.json) {
    printOut(*text);
    return;
  }
  size_t failed = 0, kept = 0, done = 0;
  for (const RepResult &result : parseResults(*text)) {
    kept += result.kept;
    (result.state == "done" ? done : failed)++;
    if (result.state != "done")
      printOut(oneLine(result.host) + " FAILED: " + oneLine(result.reason) + "\n");
  }
  printOut(countText(done, "host") + " done, " + std::to_string(failed) + " failed; " +
           std::to_string(kept) + " files and folders kept as they were\n");
  if (failed > 0)
    printOut("When that is mended: zul replicate " + oneLine(options.job) +
             " --retry-failed --follow\n");
}

void showEntry(const PreviewEntry &entry) {
  std::string mode(entry.mode.size() < 4 ? 4 - entry.mode.size() : 0, '0');
  printOut(oneLine(entry.type) + " " + mode + oneLine(entry.mode) + " " + oneLine(entry.owner) +
           ":" + oneLine(entry.group) + " " + oneLine(entry.size) + "  " + oneLine(entry.source) +
           " -> " + oneLine(entry.target) + "\n");
}

nlohmann::ordered_json jsonOf(const PreviewEntry &entry) {
  return {{"type", entry.type},     {"mode", entry.mode},    {"owner", entry.owner},
          {"group", entry.group},   {"size", entry.size},    {"mtime", entry.mtime},
          {"source", entry.source}, {"target", entry.target}};
}

void showPreview(const Preview &preview, bool json) {
  uint64_t files = 0, folders = 0, bytes = 0, unsent = 0;
  nlohmann::ordered_json list = {{"hosts", preview.hosts},
                                 {"entries", nlohmann::ordered_json::array()}};
  for (const PreviewEntry &entry : preview.entries) {
    bool sent = entry.type == "f" || entry.type == "d" || entry.type == "l";
    unsent += !sent;
    // Counted as the results count what was sent.
    files += entry.type == "f" || entry.type == "l";
    folders += entry.type == "d";
    if (entry.type == "f") bytes += strtoull(entry.size.c_str(), nullptr, 10);
    if (json) list["entries"].push_back(jsonOf(entry));
  }
  if (json) {
    printOut(list.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n");
    return;
  }
  for (size_t at = 0; at < preview.entries.size() && at < kMostShown; at++)
    showEntry(preview.entries[at]);
  if (preview.entries.size() > kMostShown)
    printOut("... and " + std::to_string(preview.entries.size() - kMostShown) +
             " more; --json has all of them\n");
  printOut(amountText(files, folders, bytes) + ", to each of " +
           countText(preview.hosts.size(), "host") + ":");
  for (const std::string &host : preview.hosts) printOut(" " + oneLine(host));
  printOut("\n");
  if (unsent > 0)
    printOut("Not sent: " + std::to_string(unsent) +
             " (devices, pipes, sockets, what cannot be read)\n");
}

Exit dryRun(const ReplicateOptions &options) {
  Connection connection(options.target);
  expectRepJob(connection, options.job);
  Preview preview;
  std::string line, complaint;
  connection.send("TAPE preview " + options.job);
  Outcome outcome = connection.receive(
      [&](std::string_view bytes) {
        for (char c : bytes) {
          if (c != '\n') {
            line += c;
            continue;
          }
          if (!takePreviewLine(line, &preview)) complaint = line;
          line.clear();
        }
      },
      true);
  if (!outcome.ended)
    throw Failure(Exit::noConnection, "the connection ended before the preview did");
  if (outcome.status != 0)
    throw Failure(Exit::failed,
                  complaint.empty() ? "there is no preview of this job" : oneLine(complaint));
  showPreview(preview, options.json);
  return Exit::done;
}

}  // namespace

Exit runReplication(const ReplicateOptions &options) {
  if (options.dryRun) return dryRun(options);
  std::string only = options.only;
  FollowOptions follow;
  {
    Connection connection(options.target);
    expectRepJob(connection, options.job);
    if (options.retryFailed) {
      only = unserved(connection, options.job);
      if (only.empty()) {
        printErr("zul: the last run of replication " + options.job +
                 " served every host; nothing to repeat\n");
        return Exit::done;
      }
    }
    if (options.follow) follow = prepareFollow(options.target, "replication", options.job);
    Exit started = start(connection, requestOf(options, only));
    if (started != Exit::done || !options.follow) return started;
  }
  follow.json = options.json;
  Exit status = followJob(follow);
  showResults(options);
  return status;
}

}  // namespace console
