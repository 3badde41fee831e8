// Commands for many hosts at once, and the definitions of multicast jobs.
#pragma once
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "console/connection.h"
#include "console/failure.h"

namespace CLI {
class App;
}

namespace console {

// --- fanout.cpp ---

struct FanoutOptions {
  Target target;
  std::string hosts;                 // as expandHosts takes them
  std::vector<std::string> command;  // words of one request
  int timeoutSeconds = 0;            // of each host, behind its login; 0: the site's
  bool json = false;
};
// 0 only when every host did as asked.
Exit runFanout(const FanoutOptions &options);

// How one host answered.
struct HostAnswer {
  std::string result;  // "ok", "failed", "unreachable", "timeout", "refused", "lost"
  std::string why;     // in words, where there was no answer
  std::string text;
};
// Asks all hosts one request through the daemon; limitSeconds as timeoutSeconds above. By host.
std::map<std::string, HostAnswer> askHosts(const Target &target,
                                           const std::vector<std::string> &hosts,
                                           const std::string &line, int limitSeconds);

// --- multicast.cpp ---

Exit putMulticastJob(const Target &target, const std::string &number, const std::string &file);
Exit getMulticastJob(const Target &target, const std::string &number);
Exit listMulticastJobs(const Target &target, bool json);
Exit removeMulticastJob(const Target &target, const std::string &number);
// What is wrong with a job file, line by line; an agent passes most of it over without a word.
std::vector<std::string> checkMulticastJob(const std::string &text);

// --- manyhosts.cpp ---

// Adds the commands to zul. Each sets run to what it does when it is chosen; target is asked then.
void addManyHosts(CLI::App &app, const std::function<Target()> &target, std::function<Exit()> &run);

}  // namespace console
