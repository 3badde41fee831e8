// The records that both sides of a multicast run keep, and what they say together about each host.
#pragma once
#include <stdint.h>

#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "console/manyhosts.h"

namespace console {

// A file that is not where it should be, and why.
struct MissingFile {
  std::string name, error;
};

// The sender's record.
struct SentRecord {
  std::string state, digest;
  int64_t job = 0, run = 0, pid = 0, started = 0, ended = 0;
  uint64_t files = 0, bytes = 0, unsent = 0;
  bool packed = false;
  std::vector<MissingFile> unsentNames;
  // In the order of the job; each host once, receivers that came unasked not at all.
  struct Host {
    std::string host, state;
    uint64_t segments = 0;
  };
  std::vector<Host> hosts;

  bool sameRun(const SentRecord &other) const {
    return run == other.run && started == other.started && pid == other.pid;
  }
};
std::optional<SentRecord> parseSent(const std::string &text);

// A receiver's record.
struct ReceivedRecord {
  std::string state, digest;
  int64_t run = 0, started = 0, ended = 0;
  uint64_t files = 0, bytes = 0, failed = 0;
  bool reachedEnd = false;
  std::vector<MissingFile> failures;
};
std::optional<ReceivedRecord> parseReceived(const std::string &text);

// What was repaired over TCP since the run; kept by zul on the sending host.
struct RepairedRecord {
  int64_t job = 0, run = 0, started = 0;
  std::map<std::string, std::string> hosts;  // and what there is to say about it
  bool belongsTo(const SentRecord &sent) const {
    return job == sent.job && run == sent.run && started == sent.started;
  }
};
std::optional<RepairedRecord> parseRepaired(const std::string &text);
std::string repairedText(const RepairedRecord &record);

// What became of one host.
struct Verdict {
  enum class State { complete, incomplete, neverJoined, unreachable };
  std::string host;
  State state = State::incomplete;
  std::string reason;  // of what is not complete; a remark about what is
  std::string digest;
  uint64_t files = 0, bytes = 0;
  int64_t seconds = -1;  // -1: not known
  std::vector<MissingFile> missing;
  uint64_t missingCount = 0;
  bool missingKnown = false;  // the list has all that is missing
  bool repaired = false;
  bool undecided = false;  // it may still be at work: worth another look

  bool complete() const { return state == State::complete; }
};
const char *stateName(Verdict::State state);

// answer: what the host's agent said to "HOST get var/tape/mrepljobs/received.json".
Verdict judge(const SentRecord &sent, const SentRecord::Host &host, const HostAnswer &answer);

// The table for people, and the same for programs.
std::string tableText(const SentRecord &sent, const std::vector<Verdict> &verdicts);
nlohmann::ordered_json tableJson(const SentRecord &sent, const std::vector<Verdict> &verdicts);
// True when all that the job names is on all its hosts.
bool allWell(const SentRecord &sent, const std::vector<Verdict> &verdicts);

}  // namespace console
