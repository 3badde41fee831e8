// zul multicast run: starts a run through the sending host's daemon, shows how far it is by the
// record that the sender keeps, collects the records of the receivers, and says what became of each
// host.
#include "console/multicastrun.h"

#include <unistd.h>

#include <algorithm>

#include "base/pause.h"
#include "console/commands.h"
#include "console/interrupt.h"
#include "console/text.h"
#include "console/volume.h"

namespace console {

namespace {

constexpr const char *kSent = "var/tape/mrepljobs/sent.json";
constexpr const char *kReceived = "var/tape/mrepljobs/received.json";
constexpr const char *kRepaired = "var/tape/mrepljobs/repaired.json";
constexpr int kLookMs = 500;
constexpr int kPlainEveryMs = 10000;  // of progress lines in a pipe
constexpr int kSettleMs = 5000;       // receivers finish their folders behind the sender's end
constexpr int kCollectSeconds = 20;

std::optional<SentRecord> fetchSent(Connection &connection) {
  std::optional<std::string> text = connection.fetch(kSent);
  return text ? parseSent(*text) : std::nullopt;
}

// --- a run, while it goes on ---

class RunView {
 public:
  explicit RunView(bool silent) : silent_(silent), drawn_(isatty(STDOUT_FILENO) == 1 && !silent) {}

  void show(const SentRecord &sent) {
    if (silent_ || sent.state != "running") return;
    size_t complete = count(sent, "complete"), receiving = count(sent, "receiving");
    std::string line = countText(sent.files, "file") + " packed; " + std::to_string(receiving) +
                       " receiving, " + std::to_string(complete) + " complete of " +
                       countText(sent.hosts.size(), "host") + slowest(sent);
    if (drawn_) {
      printf("\r%s\033[K", line.c_str());
      fflush(stdout);
      open_ = true;
    } else if (base::nowMs() - said_ >= kPlainEveryMs) {
      printErr(line + "\n");
      said_ = base::nowMs();
    }
  }
  void end() {
    if (open_) printf("\r\033[K");
    open_ = false;
    fflush(stdout);
  }

 private:
  static size_t count(const SentRecord &sent, const char *state) {
    return static_cast<size_t>(
        std::count_if(sent.hosts.begin(), sent.hosts.end(),
                      [&](const SentRecord::Host &host) { return host.state == state; }));
  }
  static std::string slowest(const SentRecord &sent) {
    const SentRecord::Host *last = nullptr;
    for (const SentRecord::Host &host : sent.hosts)
      if (host.state == "receiving" && (!last || host.segments < last->segments)) last = &host;
    return last ? "; " + sizeText(last->segments * 1024) + " there, slowest " + oneLine(last->host)
                : "";
  }

  bool silent_, drawn_, open_ = false;
  long long said_ = base::nowMs();
};

// What the sender prints that an operator should see at once, else nothing; the table tells the
// rest. What a host says stands behind its name, perhaps behind several times its name.
std::string newsOf(std::string_view line) {
  std::string_view host, rest = line;
  for (size_t end; rest.rfind("Host[", 0) == 0 && (end = rest.find("]  ")) != rest.npos;) {
    host = rest.substr(0, end + 3);
    rest.remove_prefix(end + 3);
  }
  if (rest.empty() || rest.rfind("TRANSFER OK", 0) == 0 || rest.rfind("Starting ", 0) == 0 ||
      rest.rfind("INFO:  Receiver ", 0) == 0)
    return "";
  return (rest.rfind("NOTE:", 0) == 0 ? "" : oneLine(host)) + oneLine(rest);
}

// Returns when the sender has ended; its record.
SentRecord startRun(const MulticastRunOptions &options) {
  Connection looking(options.target), running(options.target);
  demandSoundMulticast(looking);
  std::optional<SentRecord> before = fetchSent(looking);
  auto isNew = [&](const std::optional<SentRecord> &sent) {
    return sent && (!before || !sent->sameRun(*before));
  };
  RunView view(options.json);
  InterruptNote note("the run of job " + options.number +
                     " is left alone; to see what became of it: zul multicast result " +
                     options.number);
  LineCutter cutter([&](std::string_view line) {
    std::string news = newsOf(line);
    if (news.empty()) return;
    view.end();
    printErr(news + "\n");
  });
  running.send("MREPL replicate " + options.number);
  for (;;) {
    Outcome outcome =
        running.receive([&](std::string_view bytes) { cutter.feed(bytes); }, true, kLookMs);
    std::optional<SentRecord> sent = fetchSent(looking);
    if (isNew(sent)) view.show(*sent);
    if (!outcome.ended) continue;
    cutter.finish();
    view.end();
    if (!isNew(sent))
      throw Failure(Exit::failed, "the run was not begun; the reason stands above",
                    "zul multicast doctor " + options.number + " looks for more.");
    return *sent;
  }
}

// --- what became of it ---

std::vector<Verdict> collect(const Target &target, const SentRecord &sent) {
  std::vector<std::string> hosts;
  for (const SentRecord::Host &host : sent.hosts) hosts.push_back(host.host);
  std::vector<Verdict> verdicts;
  long long deadline = base::nowMs() + kSettleMs;
  for (;;) {
    std::map<std::string, HostAnswer> answers =
        askHosts(target, hosts, std::string("HOST get ") + kReceived, kCollectSeconds);
    verdicts.clear();
    for (const SentRecord::Host &host : sent.hosts)
      verdicts.push_back(judge(sent, host, answers[host.host]));
    bool settled = std::none_of(verdicts.begin(), verdicts.end(),
                                [](const Verdict &each) { return each.undecided; });
    if (settled || base::nowMs() >= deadline) return verdicts;
    base::sleepMs(kLookMs);
  }
}

RepairedRecord fetchRepaired(Connection &connection, const SentRecord &sent) {
  std::optional<std::string> text = connection.fetch(kRepaired);
  std::optional<RepairedRecord> record = text ? parseRepaired(*text) : std::nullopt;
  if (record && record->belongsTo(sent)) return *record;
  return {sent.job, sent.run, sent.started, {}};
}

// A host that was repaired has a record of the run that says otherwise.
void applyRepairs(const RepairedRecord &repaired, std::vector<Verdict> *verdicts) {
  for (Verdict &verdict : *verdicts) {
    auto at = repaired.hosts.find(verdict.host);
    if (at == repaired.hosts.end() || verdict.complete()) continue;
    verdict.state = Verdict::State::complete;
    verdict.repaired = true;
    verdict.reason = at->second;
    verdict.missing.clear();
    verdict.missingCount = 0;
  }
}

Exit showTable(const MulticastRunOptions &options, const SentRecord &sent,
               const std::vector<Verdict> &verdicts) {
  if (options.json) {
    printOut(
        tableJson(sent, verdicts).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) +
        "\n");
  } else {
    printOut(tableText(sent, verdicts));
    bool repairable = std::any_of(verdicts.begin(), verdicts.end(),
                                  [](const Verdict &each) { return !each.complete(); });
    if (repairable && !options.retryFailed)
      printOut("Send what is missing over TCP: zul multicast run " + options.number +
               " --retry-failed\n");
  }
  return allWell(sent, verdicts) ? Exit::done : Exit::failed;
}

// The record of the last run, which must be one of this job.
SentRecord lastRun(Connection &connection, const std::string &number) {
  std::optional<SentRecord> sent = fetchSent(connection);
  if (!sent)
    throw Failure(Exit::failed, "there is no record of a run on this host",
                  "Start one: zul multicast run " + number);
  if (std::to_string(sent->job) != number)
    throw Failure(
        Exit::failed,
        "the last run was of job " + std::to_string(sent->job) + ", not of job " + number,
        "A host keeps the record of its last run only; run the job again: zul multicast run " +
            number);
  return *sent;
}

void demandEnd(const MulticastRunOptions &options, Connection &connection, const SentRecord &sent) {
  if (sent.state != "running") return;
  if (isListed(connection.ask("HOST ps json").text, sent.pid).value_or(false))
    throw Failure(Exit::failed, "job " + options.number + " is still being sent",
                  "Wait for its end: zul multicast result " + options.number);
}

Exit retry(const MulticastRunOptions &options) {
  MulticastJob job = fetchMulticastJob(options.target, options.number);
  Connection connection(options.target);
  SentRecord sent = lastRun(connection, options.number);
  demandEnd(options, connection, sent);
  RepairedRecord repaired = fetchRepaired(connection, sent);
  std::vector<Verdict> verdicts = collect(options.target, sent);
  applyRepairs(repaired, &verdicts);
  repairHosts(options.target, options.number, job, &verdicts, &repaired);
  storeFile(connection, kRepaired, repairedText(repaired));
  applyRepairs(repaired, &verdicts);
  return showTable(options, sent, verdicts);
}

}  // namespace

MulticastJob fetchMulticastJob(const Target &target, const std::string &number) {
  Connection::Answer answer = Connection(target).ask("MREPL get jobid " + number);
  if (answer.status != 0)
    throw Failure(Exit::failed, oneLine(answer.text.substr(0, answer.text.find('\n'))),
                  "zul multicast job list shows which there are.");
  return parseMulticastJob(answer.text);
}

void demandSoundMulticast(Connection &connection) {
  nlohmann::json status =
      nlohmann::json::parse(connection.ask("HOST status json").text, nullptr, false);
  if (status.is_object() && status.contains("sound") && status["sound"].is_array())
    for (const nlohmann::json &area : status["sound"])
      if (area == "multicast") return;
  throw Failure(
      Exit::failed, "multicast is classic on the sending host: nobody would know what arrived",
      "Set \"behaviour.multicast = sound\" in etc/ZULsite of all hosts, or start it unwatched: "
      "zul request 'MREPL replicate N'");
}

Exit runMulticast(const MulticastRunOptions &options) {
  if (options.retryFailed) return retry(options);
  fetchMulticastJob(options.target, options.number);
  SentRecord sent = startRun(options);
  return showTable(options, sent, collect(options.target, sent));
}

Exit showMulticastResult(const MulticastRunOptions &options) {
  Connection connection(options.target);
  SentRecord sent = lastRun(connection, options.number);
  demandEnd(options, connection, sent);
  std::vector<Verdict> verdicts = collect(options.target, sent);
  applyRepairs(fetchRepaired(connection, sent), &verdicts);
  return showTable(options, sent, verdicts);
}

}  // namespace console
