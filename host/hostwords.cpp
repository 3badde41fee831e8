// Takes the daemon's own requests apart and answers them, in request processes. What others wrote
// (records, titles of processes, names) is shown only as far as it prints.
#include "host/hostwords.h"

#include <ctype.h>
#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>
#include <zul/host.h>

#include <charconv>
#include <string>
#include <vector>

#include "base/fd.h"
#include "base/site.h"
#include "host/authorise.h"
#include "host/files.h"
#include "host/hostlog.h"
#include "host/jobs.h"
#include "host/login.h"
#include "host/processes.h"

namespace host {

Facts facts;

namespace {

using nlohmann::json;
using Words = std::vector<std::string>;

constexpr long kTailLines = 20;

// Text of others (host names, request lines) may be no UTF-8; an answer must be JSON all the same.
template <typename Json>
int answerJson(const Json &value) {
  answer(value.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n");
  return 0;
}

std::string timeText(time_t when) {
  char text[32];
  tm parts;
  localtime_r(&when, &parts);
  strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts);
  return text;
}

template <typename Number>
bool parseNumber(const std::string &word, Number &number) {
  const char *end = word.data() + word.size();
  auto [last, error] = std::from_chars(word.data(), end, number);
  return error == std::errc() && last == end;
}

bool takeLast(Words &words, const char *word) {
  if (words.empty() || words.back() != word) return false;
  words.pop_back();
  return true;
}

int badUse(const char *usage) {
  return refuse(std::string("Use: HOST ") + usage);
}

bool hasSecret() {
  login::Key key;
  std::string why;
  return login::readSecret(std::string(ZULhome) + "/etc/ZULsecret", key, why);
}

// Where this home behaves soundly. Clients ask before they send what only sound agents understand.
json soundAreas() {
  base::forgetSite();  // as it is now: requests read it afresh
  json areas = json::array();
  for (int at = 0; at < static_cast<int>(base::Area::kCount); at++)
    if (base::sound(static_cast<base::Area>(at)))
      areas.push_back(base::areaName(static_cast<base::Area>(at)));
  return areas;
}

// For people: "3 d 4:05:06".
std::string durationText(long long seconds) {
  char text[64];
  snprintf(text, sizeof text, "%lld d %lld:%02lld:%02lld", seconds / 86400, seconds / 3600 % 24,
           seconds / 60 % 60, seconds % 60);
  return seconds < 86400 ? strchr(text, 'd') + 2 : text;
}

std::string joined(const json &names) {
  std::string text;
  for (const auto &name : names) text += (text.empty() ? "" : ", ") + name.get<std::string>();
  return text.empty() ? "no area" : text;
}

int hostStatus(Words words) {
  bool asJson = takeLast(words, "json");
  if (!words.empty()) return badUse("status [json]");
  char name[256] = "";
  gethostname(name, sizeof name - 1);
  long long uptime = time(nullptr) - facts.shared->started;
  nlohmann::ordered_json status = {{"version", ZUL_VERSION},
                                   {"host", name},
                                   {"home", ZULhome},
                                   {"pid", facts.shared->listener},
                                   {"port", facts.port},
                                   {"started", facts.shared->started},
                                   {"uptime", uptime},
                                   {"sessions", facts.shared->sessions.load()},
                                   {"logins", facts.shared->logins.load()},
                                   {"processes", workProcesses().size()},
                                   {"secret", hasSecret()},
                                   {"sound", soundAreas()}};
  if (asJson) return answerJson(status);
  status["started"] = timeText(facts.shared->started);
  status["uptime"] = durationText(uptime);
  status["sound"] = joined(status["sound"]);
  std::string text;
  for (const auto &[key, value] : status.items())
    text += key + ": " + (value.is_string() ? value.get<std::string>() : value.dump()) + "\n";
  answer(text);
  return 0;
}

int hostPs(Words words) {
  bool asJson = takeLast(words, "json");
  if (!words.empty()) return badUse("ps [json]");
  json list = json::array();
  std::string text = "    PID STARTED             TAG        REQUEST\n";
  for (const WorkProcess &process : workProcesses()) {
    list.push_back({{"pid", process.pid},
                    {"parent", process.parent},
                    {"group", process.group},
                    {"state", std::string(1, process.state)},
                    {"started", process.started},
                    {"request", process.request},
                    {"tag", process.tag}});
    char line[320];
    snprintf(line, sizeof line, "%7d %s %-10s %s\n", process.pid, timeText(process.started).c_str(),
             process.tag.empty() ? "-" : process.tag.c_str(), process.request.c_str());
    text += line;
  }
  if (asJson) return answerJson(list);
  answer(text);
  return 0;
}

int signalNumber(std::string name) {
  if (name.empty()) return SIGTERM;
  int number = 0;
  if (parseNumber(name, number)) return number > 0 && number < NSIG ? number : -1;
  for (char &c : name) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
  if (name.starts_with("SIG")) name.erase(0, 3);
  for (int at = 1; at < NSIG; at++) {
    const char *known = sigabbrev_np(at);
    if (known && name == known) return at;
  }
  return -1;
}

// The leader of a process group stands for the group: a job's children end with it.
int sendSignal(const WorkProcess &process, int handle, int number) {
  if (process.group == process.pid) return kill(-process.pid, number);
  return static_cast<int>(syscall(SYS_pidfd_send_signal, handle, number, nullptr, 0));
}

int hostKill(Words words) {
  pid_t pid = 0;
  if (words.empty() || words.size() > 2 || !parseNumber(words[0], pid) || pid <= 1)
    return badUse("kill PID [SIGNAL]");
  int number = signalNumber(words.size() > 1 ? words[1] : "");
  if (number < 0) return refuse("Unknown signal " + printable(words[1]));
  // Opened before the look, so that the number cannot pass to another process between look and
  // signal.
  base::Fd handle(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
  WorkProcess process;
  if (!handle || pid == getpid() || !readWorkProcess(pid, process))
    return refuse("Process " + words[0] + " is no request or job of this home");
  if (sendSignal(process, handle.get(), number) != 0)
    return refuse("Cannot signal process " + words[0] + ": " + strerror(errno));
  logEvent("signal %d sent to process %d (%s)", number, pid, process.request.c_str());
  answer("Signal " + std::to_string(number) + " sent to process " + words[0] + "\n");
  return 0;
}

// One field of a record in words, whatever a damaged file holds there.
std::string fieldText(const json &record, const char *key) {
  auto at = record.find(key);
  if (at == record.end() || at->is_null()) return "-";
  return printable(at->is_string() ? at->get<std::string>()
                                   : at->dump(-1, ' ', true, json::error_handler_t::replace),
                   40);
}

int hostJobs(Words words) {
  bool asJson = takeLast(words, "json");
  if (!words.empty()) return badUse("jobs [json]");
  json jobs = readJobs();
  if (asJson) return answerJson(jobs);
  std::string text = "KIND        JOB STATE    ALIVE        FILES            BYTES NAME\n";
  for (const json &job : jobs) {
    char line[320];
    snprintf(line, sizeof line, "%-10s %4s %-8s %-5s %12s %16s %s\n",
             fieldText(job, "kind").c_str(), fieldText(job, "job").c_str(),
             fieldText(job, "state").c_str(), job["alive"].get<bool>() ? "yes" : "no",
             fieldText(job, "files").c_str(), fieldText(job, "bytes").c_str(),
             fieldText(job, "name").c_str());
    text += line;
  }
  answer(text);
  return 0;
}

int hostGet(Words words) {
  return words.size() == 1 ? sendFile(words[0]) : badUse("get PATH");
}

int hostTail(Words words) {
  bool follows = words.size() > 1 && takeLast(words, "follow");
  long lines = kTailLines;
  if (words.empty() || words.size() > 2 ||
      (words.size() == 2 && (!parseNumber(words[1], lines) || lines < 0)))
    return badUse("tail PATH [LINES] [follow]");
  return sendTail(words[0], lines, follows);
}

int hostPut(Words words) {
  long long size = 0;
  if (words.size() != 2 || !parseNumber(words[1], size)) return badUse("put PATH BYTES");
  return storeFile(words[0], size);
}

struct Word {
  const char *name;
  int (*run)(Words words);
};

constexpr Word kWords[] = {
    {"status", hostStatus}, {"ps", hostPs},     {"kill", hostKill}, {"jobs", hostJobs},
    {"get", hostGet},       {"tail", hostTail}, {"put", hostPut},
};

}  // namespace

int runHostWord(std::string_view rest) {
  std::string name(firstWord(rest));
  Words words;
  for (;;) {
    std::string_view word = firstWord(rest);
    if (word.empty()) break;
    words.emplace_back(word);
  }
  for (const Word &word : kWords)
    if (name == word.name) return word.run(std::move(words));
  return refuse("Unknown request, " + name);
}

}  // namespace host
