// What zul multicast doctor concludes from the answers of the hosts; nothing here talks to anybody.
#pragma once
#include <stdint.h>

#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <vector>

#include "console/manyhosts.h"

namespace console {

// What is right on the sending host, and what the receivers are compared with.
struct SenderFacts {
  std::string interface, address, problem, version;
  bool busy = false;  // another run goes on
  std::set<std::string> sound;
  uint64_t files = 0, bytes = 0;  // of the job
};
SenderFacts parseSenderFacts(const std::string &line);

struct Check {
  std::string name, problem;  // without a problem it is well
  std::string advice;
  bool known = true;  // false: it could not be looked at
};
struct Examination {
  std::string host;
  std::vector<Check> checks;
  bool well() const;
};
Examination examineSender(const SenderFacts &facts);
Examination examine(const SenderFacts &sender, const std::string &host, const HostAnswer &answer);

std::string examinationText(const std::vector<Examination> &examinations);
nlohmann::ordered_json examinationJson(const std::vector<Examination> &examinations);

}  // namespace console
