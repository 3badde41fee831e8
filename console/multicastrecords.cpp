// Reads the records of a multicast run and compares them; nothing here talks to anybody. Records
// come from other hosts and may hold anything.
#include "console/multicastrecords.h"

#include <errno.h>
#include <string.h>

#include <algorithm>

#include "console/fields.h"
#include "console/text.h"

namespace console {

namespace {

using nlohmann::json;
using nlohmann::ordered_json;
using State = Verdict::State;

constexpr size_t kMostNamed = 10;

std::vector<const json *> objectsOf(const json &object, const char *key) {
  std::vector<const json *> list;
  auto at = object.find(key);
  if (at == object.end() || !at->is_array()) return list;
  for (const json &each : *at)
    if (each.is_object()) list.push_back(&each);
  return list;
}

std::vector<MissingFile> filesOf(const json &object, const char *key) {
  std::vector<MissingFile> files;
  for (const json *each : objectsOf(object, key))
    files.push_back({textOf(*each, "name"), textOf(*each, "error")});
  return files;
}

std::optional<json> multicastObject(const std::string &text) {
  json object = json::parse(text, nullptr, false);
  if (!object.is_object() || textOf(object, "kind") != "multicast") return std::nullopt;
  return object;
}

// A job may name a host twice; the better news of the two is true.
void addHost(const json &object, std::vector<SentRecord::Host> *hosts) {
  SentRecord::Host host{textOf(object, "host"), textOf(object, "state"),
                        countOf(object, "segments")};
  if (host.host.empty()) return;
  for (SentRecord::Host &known : *hosts) {
    if (known.host != host.host) continue;
    if (known.state == "never joined") known = host;
    return;
  }
  hosts->push_back(host);
}

// What the sender knew, for hosts that say nothing themselves.
std::string senderSays(const SentRecord::Host &host) {
  if (host.state == "complete") return "it had reported all to the sender";
  if (host.state == "never joined" || host.state == "waiting") return "it never joined";
  return "it had joined, and not reported all";
}

std::string firstLine(const std::string &text) {
  std::string line = text.substr(0, text.find('\n'));
  size_t from = line.rfind("ERROR:", 0) == 0 ? line.find_first_not_of(' ', 6) : 0;
  return from == line.npos ? "" : line.substr(from);
}

// A host that never took part has no such file, which says all; anything else is told.
std::string noRecordText(const std::string &why) {
  bool none = why.find(strerror(ENOENT)) != why.npos;
  return none ? "it has never received a run" : "it has no record: " + why;
}

// No record of this run: the receiver has not begun, or was killed before it knew which run it was
// in.
void judgeAbsent(const SentRecord::Host &host, const std::string &what, Verdict *verdict) {
  bool joined = host.state != "never joined" && host.state != "waiting";
  verdict->state = joined ? State::incomplete : State::neverJoined;
  verdict->reason = joined ? "it had joined, and " + what : what;
}

void judgeIncomplete(const ReceivedRecord &record, Verdict *verdict) {
  verdict->missing = record.failures;
  verdict->missingCount = record.failed;
  verdict->missingKnown = record.reachedEnd && record.failed == record.failures.size();
  if (!record.reachedEnd)
    verdict->reason = "it gave up before the end of the run";
  else if (!record.failures.empty())
    verdict->reason = record.failures[0].error;
}

void judgeComplete(const SentRecord &sent, const ReceivedRecord &record, Verdict *verdict) {
  // The end of a run also comes when its packer has died.
  if (!sent.packed) {
    verdict->reason = "it has all that came, but the sender did not send everything";
    return;
  }
  bool comparable = !sent.digest.empty() && !record.digest.empty();
  if (comparable && (record.digest != sent.digest || record.files != sent.files)) {
    verdict->reason = "what it wrote is not what was sent: the digests differ";
    return;
  }
  verdict->state = State::complete;
  if (!comparable) verdict->reason = "not compared: no digest; install libxxhash0 on both sides";
}

void judgeRecord(const SentRecord &sent, const SentRecord::Host &host, const ReceivedRecord &record,
                 Verdict *verdict) {
  // A receiver notes the run as soon as it joins one.
  if (record.run != sent.run) {
    verdict->undecided = record.state == "running" && host.state == "complete";
    return judgeAbsent(host, "its last record is of another run", verdict);
  }
  verdict->digest = record.digest;
  verdict->files = record.files;
  verdict->bytes = record.bytes;
  if (record.ended >= record.started && record.ended > 0)
    verdict->seconds = record.ended - record.started;
  if (record.state == "running") {
    verdict->undecided = host.state == "complete";
    verdict->reason = "its receiver was killed, or still waits for what is missing";
  } else if (record.state == "complete") {
    judgeComplete(sent, record, verdict);
  } else {
    judgeIncomplete(record, verdict);
  }
}

std::string padded(const std::string &text, size_t width, bool right = false) {
  std::string blanks(text.size() < width ? width - text.size() : 0, ' ');
  return right ? blanks + text : text + blanks;
}

std::string missingText(const Verdict &verdict) {
  if (verdict.complete()) return verdict.repaired ? "repaired over TCP" : "";
  if (!verdict.missingKnown) return "";
  return countText(verdict.missingCount, "file") + " missing";
}

std::string rowText(const Verdict &verdict, size_t width) {
  // Of what was repaired only the replication knows how much it was.
  bool known = verdict.files > 0 || (verdict.complete() && !verdict.repaired);
  std::string remark = missingText(verdict);
  if (!verdict.reason.empty()) remark += (remark.empty() ? "" : ": ") + oneLine(verdict.reason);
  std::string row =
      padded(oneLine(verdict.host), width) + "  " + padded(stateName(verdict.state), 12) + "  " +
      padded(known ? std::to_string(verdict.files) : "-", 9, true) + "  " +
      padded(known ? sizeText(verdict.bytes) : "-", 10, true) + "  " +
      padded(verdict.seconds >= 0 ? std::to_string(verdict.seconds) + " s" : "-", 7, true) + "  " +
      remark;
  while (row.back() == ' ') row.pop_back();
  row += "\n";
  size_t named = std::min(verdict.missing.size(), kMostNamed);
  for (size_t at = 0; at < named; at++)
    row += "    " + oneLine(verdict.missing[at].name) + ": " + oneLine(verdict.missing[at].error) +
           "\n";
  if (verdict.missingCount > named && named > 0)
    row += "    ... and " + std::to_string(verdict.missingCount - named) + " more\n";
  return row;
}

std::string sums(const std::vector<Verdict> &verdicts) {
  std::string text;
  for (State state : {State::complete, State::incomplete, State::neverJoined, State::unreachable}) {
    auto count = std::count_if(verdicts.begin(), verdicts.end(),
                               [&](const Verdict &each) { return each.state == state; });
    if (count > 0)
      text += (text.empty() ? "" : ", ") + std::to_string(count) + " " + stateName(state);
  }
  return countText(verdicts.size(), "host") + ": " + text + "\n";
}

ordered_json filesJson(const std::vector<MissingFile> &files) {
  ordered_json list = ordered_json::array();
  for (const MissingFile &each : files)
    list.push_back({{"name", each.name}, {"error", each.error}});
  return list;
}

}  // namespace

std::optional<SentRecord> parseSent(const std::string &text) {
  std::optional<json> object = multicastObject(text);
  if (!object) return std::nullopt;
  SentRecord sent;
  sent.state = textOf(*object, "state");
  sent.digest = textOf(*object, "digest");
  sent.job = numberOf(*object, "job");
  sent.run = numberOf(*object, "run");
  sent.pid = numberOf(*object, "pid");
  sent.started = numberOf(*object, "started");
  sent.ended = numberOf(*object, "ended");
  sent.files = countOf(*object, "files");
  sent.bytes = countOf(*object, "bytes");
  sent.unsent = countOf(*object, "unsent");
  sent.packed = truthOf(*object, "packed");
  sent.unsentNames = filesOf(*object, "unsentNames");
  for (const json *each : objectsOf(*object, "hosts")) addHost(*each, &sent.hosts);
  return sent;
}

std::optional<ReceivedRecord> parseReceived(const std::string &text) {
  std::optional<json> object = multicastObject(text);
  if (!object) return std::nullopt;
  ReceivedRecord record;
  record.state = textOf(*object, "state");
  record.digest = textOf(*object, "digest");
  record.run = numberOf(*object, "run");
  record.started = numberOf(*object, "started");
  record.ended = numberOf(*object, "ended");
  record.files = countOf(*object, "files");
  record.bytes = countOf(*object, "bytes");
  record.failed = countOf(*object, "failed");
  record.reachedEnd = truthOf(*object, "reachedEnd");
  record.failures = filesOf(*object, "failures");
  return record;
}

std::optional<RepairedRecord> parseRepaired(const std::string &text) {
  std::optional<json> object = multicastObject(text);
  if (!object) return std::nullopt;
  RepairedRecord record{
      numberOf(*object, "job"), numberOf(*object, "run"), numberOf(*object, "started"), {}};
  for (const json *each : objectsOf(*object, "hosts"))
    record.hosts[textOf(*each, "host")] = textOf(*each, "remark");
  return record;
}

std::string repairedText(const RepairedRecord &record) {
  ordered_json object = {{"kind", "multicast"},
                         {"job", record.job},
                         {"run", record.run},
                         {"started", record.started},
                         {"hosts", ordered_json::array()}};
  for (const auto &[host, remark] : record.hosts)
    object["hosts"].push_back({{"host", host}, {"remark", remark}});
  return object.dump(-1, ' ', false, json::error_handler_t::replace) + "\n";
}

const char *stateName(State state) {
  switch (state) {
    case State::complete:
      return "complete";
    case State::incomplete:
      return "incomplete";
    case State::neverJoined:
      return "never joined";
    case State::unreachable:
      return "unreachable";
  }
  return "";
}

Verdict judge(const SentRecord &sent, const SentRecord::Host &host, const HostAnswer &answer) {
  Verdict verdict;
  verdict.host = host.host;
  if (answer.result != "ok" && answer.result != "failed") {
    verdict.state = State::unreachable;
    verdict.reason = (answer.why.empty() ? "no answer" : answer.why) + "; " + senderSays(host);
    return verdict;
  }
  size_t feed = answer.text.find('\n');
  bool data = answer.text.rfind("DATA ", 0) == 0 && feed != answer.text.npos;
  std::optional<ReceivedRecord> record;
  if (data) record = parseReceived(answer.text.substr(feed + 1));
  if (record)
    judgeRecord(sent, host, *record, &verdict);
  else
    judgeAbsent(host, data ? "its record cannot be read" : noRecordText(firstLine(answer.text)),
                &verdict);
  return verdict;
}

bool allWell(const SentRecord &sent, const std::vector<Verdict> &verdicts) {
  bool all = std::all_of(verdicts.begin(), verdicts.end(),
                         [](const Verdict &each) { return each.complete(); });
  return all && !verdicts.empty() && sent.unsent == 0;
}

std::string tableText(const SentRecord &sent, const std::vector<Verdict> &verdicts) {
  size_t width = 4;
  for (const Verdict &each : verdicts) width = std::max(width, oneLine(each.host).size());
  std::string text = padded("HOST", width) + "  " + padded("STATE", 12) + "  " +
                     padded("FILES", 9, true) + "  " + padded("SIZE", 10, true) + "  " +
                     padded("TIME", 7, true) + "\n";
  for (const Verdict &each : verdicts) text += rowText(each, width);
  bool all = std::all_of(verdicts.begin(), verdicts.end(),
                         [](const Verdict &each) { return each.complete(); });
  if (!all && (sent.state != "done" || !sent.packed))
    text += "The sender did not send everything: it was killed, or could not go on.\n";
  if (sent.unsent > 0) {
    text +=
        countText(sent.unsent, "file") + " could not be sent; mend that and run the job again:\n";
    for (size_t at = 0; at < std::min(sent.unsentNames.size(), kMostNamed); at++)
      text += "    " + oneLine(sent.unsentNames[at].name) + ": " +
              oneLine(sent.unsentNames[at].error) + "\n";
  }
  return text + sums(verdicts);
}

ordered_json tableJson(const SentRecord &sent, const std::vector<Verdict> &verdicts) {
  ordered_json table = {{"job", sent.job},
                        {"run", sent.run},
                        {"state", sent.state},
                        {"started", sent.started},
                        {"ended", sent.ended},
                        {"files", sent.files},
                        {"bytes", sent.bytes},
                        {"digest", sent.digest},
                        {"packed", sent.packed},
                        {"unsent", sent.unsent},
                        {"unsentNames", filesJson(sent.unsentNames)},
                        {"allComplete", allWell(sent, verdicts)},
                        {"hosts", ordered_json::array()}};
  for (const Verdict &each : verdicts)
    table["hosts"].push_back({{"host", each.host},
                              {"state", stateName(each.state)},
                              {"reason", each.reason},
                              {"files", each.files},
                              {"bytes", each.bytes},
                              {"seconds", each.seconds},
                              {"digest", each.digest},
                              {"repaired", each.repaired},
                              {"missingKnown", each.missingKnown},
                              {"missingCount", each.missingCount},
                              {"missing", filesJson(each.missing)}});
  return table;
}

}  // namespace console
