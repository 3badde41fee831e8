// Judges what the hosts of a multicast job answered to a probe, in words that say what to do.
#include "console/multicastcheck.h"

#include <algorithm>

#include "console/fields.h"
#include "console/text.h"

namespace console {

namespace {

using nlohmann::json;
using nlohmann::ordered_json;

constexpr int64_t kClockMs = 5000;
constexpr const char *kChecks[] = {"agent", "interface", "multicast", "clock",
                                   "space", "behaviour", "version"};

std::set<std::string> areasOf(const json &object) {
  std::set<std::string> areas;
  auto at = object.find("sound");
  if (at != object.end() && at->is_array())
    for (const json &each : *at)
      if (each.is_string()) areas.insert(each.get<std::string>());
  return areas;
}

// "multicast is classic there; ..."
std::string difference(const std::set<std::string> &here, const std::set<std::string> &there) {
  std::string text;
  auto add = [&](const std::string &area, const char *how) {
    text += (text.empty() ? "" : ", ") + oneLine(area) + how;
  };
  for (const std::string &area : here)
    if (there.count(area) == 0) add(area, " is classic there");
  for (const std::string &area : there)
    if (here.count(area) == 0) add(area, " is sound there only");
  return text;
}

Check agentCheck(const HostAnswer &answer) {
  Check check{"agent", "", "", true};
  if (answer.result == "ok") return check;
  std::string text = answer.text.substr(0, answer.text.find('\n'));
  if (answer.result == "failed") {
    check.problem = text.empty() ? "it does not take the request" : oneLine(text);
    check.advice =
        "An older agent does not know it: bring its programs up to date, zul init --force.";
  } else if (answer.result == "refused") {
    check.problem = "it refuses the login";
    check.advice =
        "Its etc/ZULsecret differs from the sender's, or its etc/ZULnodes does not list the "
        "sender.";
  } else {
    check.problem = answer.result + (answer.why.empty() ? "" : ": " + oneLine(answer.why));
    check.advice =
        "Start it there with \"zul up\"; look whether its name is right and TCP 2345 passes.";
  }
  return check;
}

Check interfaceCheck(const json &said) {
  Check check{"interface", textOf(said, "problem"), "", true};
  std::string name = oneLine(textOf(said, "interface"));
  if (check.problem.empty()) return check;
  if (!name.empty()) check.problem = name + ": " + oneLine(check.problem);
  check.advice = "Name the right one in its etc/ZULsite: multicast.interface = NAME.";
  return check;
}

Check multicastCheck(const SenderFacts &sender, const json &said) {
  Check check{"multicast", "", "", sender.problem.empty()};
  std::string from = textOf(said, "from"), only = textOf(said, "sender");
  if (!check.known) return check;
  if (!truthOf(said, "heard")) {
    check.problem =
        "a datagram to 239.240.240.240 does not arrive on " + oneLine(textOf(said, "interface"));
    check.advice =
        "A firewall there (UDP 2345, 2347), a switch between, or another interface than the "
        "sender's " +
        sender.interface + ": multicast.interface.";
  } else if (!only.empty() && only != from) {
    check.problem = "it listens to " + oneLine(only) + " only, and the sender is " + oneLine(from);
    check.advice = "Mend multicast.sender in its etc/ZULsite.";
  }
  return check;
}

Check clockCheck(const json &said) {
  Check check{"clock", "", "", truthOf(said, "heard")};
  int64_t ms = numberOf(said, "clockMs");
  if (!check.known || (ms < kClockMs && ms > -kClockMs)) return check;
  int64_t seconds = (ms < 0 ? -ms : ms) / 1000;
  check.problem = durationText(seconds) + (ms > 0 ? " ahead" : " behind");
  check.advice = "Set its clock; records and later comparisons by time go wrong.";
  return check;
}

Check spaceCheck(const SenderFacts &sender, const json &said) {
  int64_t free = numberOf(said, "free");
  Check check{"space", "", "", free >= 0};
  if (!check.known || static_cast<uint64_t>(free) >= sender.bytes) return check;
  check.problem = sizeText(static_cast<uint64_t>(free)) + " free in " +
                  oneLine(textOf(said, "folder")) + ", the job has " + sizeText(sender.bytes);
  check.advice = "Make room, unless most of it is there already.";
  return check;
}

std::vector<Check> unknownChecks() {
  std::vector<Check> checks;
  for (const char *name : kChecks) checks.push_back({name, "", "", false});
  return checks;
}

std::string padded(const std::string &text, size_t width) {
  return text + std::string(text.size() < width ? width - text.size() : 0, ' ');
}

const char *wordFor(const Check &check) {
  return !check.known ? "-" : check.problem.empty() ? "ok" : "BAD";
}

}  // namespace

bool Examination::well() const {
  return std::all_of(checks.begin(), checks.end(),
                     [](const Check &each) { return each.known && each.problem.empty(); });
}

SenderFacts parseSenderFacts(const std::string &line) {
  json said = json::parse(line, nullptr, false);
  SenderFacts facts;
  if (!said.is_object()) {
    facts.problem = "it does not take the request: " + oneLine(line);
    return facts;
  }
  facts.interface = oneLine(textOf(said, "interface"));
  facts.address = oneLine(textOf(said, "address"));
  facts.problem = oneLine(textOf(said, "problem"));
  facts.version = oneLine(textOf(said, "version"));
  facts.busy = truthOf(said, "busy");
  facts.sound = areasOf(said);
  return facts;
}

Examination examineSender(const SenderFacts &facts) {
  Examination examination{"(sender)", {}};
  examination.checks.push_back({"agent", "", "", true});
  Check interface { "interface", facts.problem, "", true };
  if (!facts.problem.empty())
    interface.advice =
        "It needs a route to 239.240.240.240, or multicast.interface in etc/ZULsite.";
  examination.checks.push_back(interface);
  Check behaviour{"behaviour", "", "", true};
  if (facts.sound.count("multicast") == 0) {
    behaviour.problem = "multicast is classic";
    behaviour.advice = "Set behaviour.multicast = sound in etc/ZULsite of all hosts.";
  } else if (facts.busy) {
    behaviour.problem = "another run has UDP port 2346";
    behaviour.advice = "Wait for its end: zul ps.";
  }
  examination.checks.push_back(behaviour);
  return examination;
}

Examination examine(const SenderFacts &sender, const std::string &host, const HostAnswer &answer) {
  Examination examination{host, unknownChecks()};
  Check agent = agentCheck(answer);
  json said = json::parse(answer.text, nullptr, false);
  if (agent.problem.empty() && !said.is_object()) {
    agent.problem = "its answer cannot be read";
    agent.advice = "Bring its programs up to date: zul init --force.";
  }
  examination.checks[0] = agent;
  if (!agent.problem.empty()) return examination;
  Check behaviour{"behaviour", difference(sender.sound, areasOf(said)), "", true};
  if (!behaviour.problem.empty()) behaviour.advice = "Make its etc/ZULsite like the sender's.";
  Check version{"version", "", "", true};
  if (textOf(said, "version") != sender.version) {
    version.problem = oneLine(textOf(said, "version")) + ", the sender has " + sender.version;
    version.advice = "Bring the older one up to date: zul init --force.";
  }
  examination.checks = {agent,
                        interfaceCheck(said),
                        multicastCheck(sender, said),
                        clockCheck(said),
                        spaceCheck(sender, said),
                        behaviour,
                        version};
  return examination;
}

std::string examinationText(const std::vector<Examination> &examinations) {
  size_t width = 8;
  for (const Examination &each : examinations) width = std::max(width, oneLine(each.host).size());
  std::string text = padded("HOST", width), problems;
  for (const char *name : kChecks) text += std::string("  ") + name;
  text += "\n";
  for (const Examination &each : examinations) {
    std::string row = padded(oneLine(each.host), width);
    for (const char *name : kChecks) {
      auto check = std::find_if(each.checks.begin(), each.checks.end(),
                                [&](const Check &one) { return one.name == name; });
      const char *word = check == each.checks.end() ? "" : wordFor(*check);
      row += "  " + padded(word, std::string(name).size());
    }
    while (row.back() == ' ') row.pop_back();
    text += row + "\n";
    for (const Check &check : each.checks)
      if (!check.problem.empty())
        problems += oneLine(each.host) + ": " + check.name + ": " + check.problem + "\n     " +
                    check.advice + "\n";
  }
  return text + problems;
}

ordered_json examinationJson(const std::vector<Examination> &examinations) {
  ordered_json list = ordered_json::array();
  for (const Examination &each : examinations) {
    ordered_json checks = ordered_json::object();
    for (const Check &check : each.checks)
      checks[check.name] = {{"ok", check.known && check.problem.empty()},
                            {"known", check.known},
                            {"problem", check.problem},
                            {"advice", check.advice}};
    list.push_back({{"host", each.host}, {"ok", each.well()}, {"checks", checks}});
  }
  return list;
}

}  // namespace console
