// zul fanout: one request on many hosts, through the daemon of the host that zul talks to. The
// daemon logs in at the others as an agent and reports each of them as a line of JSON.
#include <map>
#include <nlohmann/json.hpp>

#include "console/commands.h"
#include "console/hostlist.h"
#include "console/manyhosts.h"
#include "console/text.h"
#include "console/volume.h"

namespace console {

namespace {

using nlohmann::ordered_json;

// How a fan-out's request begins; the daemon then takes the hosts.
void begin(Connection &connection) {
  connection.send("MREPL fanout");
  std::string refusal;
  Outcome outcome = connection.receive([&](std::string_view text) { refusal += text; }, false);
  if (!outcome.accepted)
    throw Failure(outcome.ended ? Exit::failed : Exit::noConnection,
                  "the daemon does not run this: " + oneLine(refusal));
}

std::string commandLine(const FanoutOptions &options) {
  std::string line;
  for (const std::string &word : options.command) line += (line.empty() ? "" : " ") + word;
  if (line.empty() || line.find_first_of("\r\n") != line.npos || line.find('\0') != line.npos)
    throw Failure(Exit::usage, "the command is no request of one line");
  std::string family = line.substr(0, line.find(' '));
  if (family != "TAPE" && family != "MREPL" && family != "HOST")
    throw Failure(
        Exit::usage, "\"" + oneLine(family) + "\" begins no request",
        "Agents take requests, not programs, for example: zul fanout h1,h2 -- TAPE version");
  return line;
}

std::string uploadText(const FanoutOptions &options, const std::vector<std::string> &hosts) {
  std::string line = commandLine(options);
  std::string text = uploadLine("Command: " + line);
  // What only shows something may show any line, and its end is what counts.
  if (onlyShows(line) || line.rfind("HOST ", 0) == 0) text += uploadLine("ToTheEnd:");
  if (options.timeoutSeconds > 0)
    text += uploadLine("Limit: " + std::to_string(options.timeoutSeconds));
  for (const std::string &host : hosts) text += uploadLine("Host: " + host);
  return text + "UpLoAd_DoNe.\n";
}

// Puts the records of the hosts together as they arrive, and shows them.
class Report {
 public:
  // isFile: the hosts are asked for a file, whose length they send before it.
  Report(bool json, bool isFile) : json_(json), isFile_(isFile) {}

  void take(std::string_view bytes) {
    pending_ += bytes;
    for (size_t feed; (feed = pending_.find('\n')) != pending_.npos;) {
      takeLine(pending_.substr(0, feed));
      pending_.erase(0, feed + 1);
    }
  }
  bool complete() const { return complete_; }
  bool allWell() const { return complete_ && ok_ == hosts_; }

  void sumUp() const {
    if (json_) return;
    std::string text;
    for (const char *name : {"ok", "failed", "unreachable", "refused", "lost", "timeout"})
      if (summary_.value(name, 0) > 0)
        text += (text.empty() ? "" : ", ") + std::to_string(summary_.value(name, 0)) + " " + name;
    printErr(countText(static_cast<uint64_t>(hosts_), "host") + ": " + text + "\n");
    if (notPermitted_)
      printErr(
          "     Agents take this request from the fan-out only where their etc/ZULsite says "
          "fanout.nodes-may = look.\n");
  }

 private:
  void takeLine(const std::string &line) {
    ordered_json record = ordered_json::parse(line, nullptr, false);
    if (!record.is_object()) {
      printErr(line + "\n");
    } else if (!record.contains("host")) {
      summary_ = record;
      complete_ = true;
      hosts_ = record.value("hosts", 0);
      ok_ = record.value("ok", 0);
      if (json_) printOut(record.dump() + "\n");
    } else {
      std::string host = record.value("host", "");
      texts_[host] += record.value("text", "");
      if (record.contains("result")) finish(host, record);
    }
  }

  void finish(const std::string &host, ordered_json &record) {
    std::string text = std::move(texts_[host]);
    texts_.erase(host);
    if (text == "ERROR:  Not permitted\n") notPermitted_ = true;
    if (json_) {
      record["text"] = text;
      printOut(record.dump() + "\n");
      return;
    }
    // The head of a file that was got is for programs.
    size_t begin = isFile_ && text.rfind("DATA ", 0) == 0 ? text.find('\n') + 1 : 0;
    for (size_t from = begin; from < text.size();) {
      size_t feed = std::min(text.find('\n', from), text.size());
      printOut(host + ": " + text.substr(from, feed - from) + "\n");
      from = feed + 1;
    }
    std::string result = record.value("result", ""), why = record.value("why", "");
    if (result == "failed" && why.empty())
      why = "status " + std::to_string(record.value("status", 0));
    if (result != "ok")
      printErr(oneLine(host + ": " + result + (why.empty() ? "" : ": " + why)) + "\n");
  }

  bool json_, isFile_, complete_ = false, notPermitted_ = false;
  int hosts_ = 0, ok_ = 0;
  ordered_json summary_ = ordered_json::object();
  std::map<std::string, std::string> texts_;  // of hosts that have more to say
  std::string pending_;
};

}  // namespace

Exit runFanout(const FanoutOptions &options) {
  std::string line = commandLine(options);
  Connection connection(options.target);
  std::vector<std::string> hosts =
      expandHosts(options.hosts, [&] { return connection.ask("TAPE get group").text; });
  begin(connection);
  connection.sendBytes(uploadText(options, hosts));
  Report report(options.json, line.rfind("HOST get ", 0) == 0);
  Outcome outcome = connection.receive([&](std::string_view text) { report.take(text); }, true);
  if (!report.complete())
    throw Failure(outcome.ended ? Exit::failed : Exit::noConnection,
                  "the report ended in the middle",
                  "What the hosts did is not known; look before you repeat it.");
  report.sumUp();
  return report.allWell() && outcome.status == 0 ? Exit::done : Exit::failed;
}

std::map<std::string, HostAnswer> askHosts(const Target &target,
                                           const std::vector<std::string> &hosts,
                                           const std::string &line, int limitSeconds) {
  std::map<std::string, HostAnswer> answers;
  if (hosts.empty()) return answers;
  FanoutOptions options;
  options.command = {line};
  options.timeoutSeconds = limitSeconds;
  Connection connection(target);
  begin(connection);
  connection.sendBytes(uploadText(options, hosts));
  LineCutter cutter([&](std::string_view text) {
    ordered_json record = ordered_json::parse(text, nullptr, false);
    if (!record.is_object() || !record.contains("host")) return;
    HostAnswer &answer = answers[record.value("host", "")];
    answer.text += record.value("text", "");
    answer.result = record.value("result", answer.result);
    answer.why = record.value("why", answer.why);
  });
  Outcome outcome = connection.receive([&](std::string_view text) { cutter.feed(text); }, true);
  cutter.finish();
  if (!outcome.ended)
    throw Failure(Exit::noConnection, "the connection ended before all hosts had answered");
  return answers;
}

}  // namespace console
