// zul multicast run --retry-failed: hosts that lack files get them by an ordinary replication,
// which exists only as long as it runs. Whatever ends this, signals included, the definitions go
// with it.
#include <signal.h>
#include <string.h>

#include <algorithm>

#include "base/pause.h"
#include "console/commands.h"
#include "console/multicastrepair.h"
#include "console/multicastrun.h"
#include "console/screen.h"
#include "console/text.h"

namespace console {

namespace {

constexpr int kFirstNumber = 1900000000;  // of the temporary jobs, far from those of operators
constexpr long kNumbers = 100000000;
constexpr size_t kHostsText = 3000;  // of one group: it is part of a request
constexpr int kLookMs = 250;
constexpr int kAppearMs = 30000;
constexpr int kStaleMs = 5000;
constexpr int kSilentMs = 2000;  // longest without a word about a repair that takes its time

volatile sig_atomic_t interrupted;

void noteSignal(int) {
  interrupted = 1;
}

// While it lives signals are only noted, so that what was begun is taken back.
class SignalGuard {
 public:
  SignalGuard() {
    interrupted = 0;
    struct sigaction note {};
    note.sa_handler = noteSignal;
    for (size_t at = 0; at < kCount; at++) sigaction(kSignals[at], &note, &before_[at]);
  }
  ~SignalGuard() {
    for (size_t at = 0; at < kCount; at++) sigaction(kSignals[at], &before_[at], nullptr);
  }
  SignalGuard(const SignalGuard &) = delete;
  SignalGuard &operator=(const SignalGuard &) = delete;

 private:
  static constexpr size_t kCount = 3;
  static constexpr int kSignals[kCount] = {SIGINT, SIGTERM, SIGHUP};
  struct sigaction before_[kCount];
};

std::string lastLine(std::string text) {
  while (!text.empty() && text.back() == '\n') text.pop_back();
  return oneLine(text.substr(text.rfind('\n') + 1));
}

// A replication job with its group, its list and its transforms, for one repair.
class TemporaryJob {
 public:
  TemporaryJob(const Target &target, const std::string &number, const MulticastJob &job)
      : target_(target),
        job_(job),
        number_(kFirstNumber + static_cast<int>(labs(atol(number.c_str())) % kNumbers)),
        name_(std::to_string(number_)),
        connection_(std::make_unique<Connection>(target)) {
    demandIdle();
    // Whoever was killed in the middle left these.
    remove();
  }
  ~TemporaryJob() {
    try {
      connection_ = std::make_unique<Connection>(target_);
      remove();
      storeFile(*connection_, listPath(), "");
    } catch (const Failure &failure) {
      printErr("zul: replication job and group " + name_ +
               " could not be removed: " + failure.what() + "\n");
    }
  }
  TemporaryJob(const TemporaryJob &) = delete;
  TemporaryJob &operator=(const TemporaryJob &) = delete;

  void define(const RepairPass &pass, const std::string &hosts) {
    remove();
    RepJob job = pass.job;
    job.number = job.group = number_;
    job.name = "multicast retry";
    demand("TAPE add group " + name_ + ":" + hosts + ":multicast retry");
    demand("TAPE add repids " + repJobText(job));
    for (const auto &[from, to] : job_.transforms)
      demand("TAPE add trans " + name_ + " " + from + ">" + to);
  }
  void setList(const std::string &text) { storeFile(*connection_, listPath(), text); }

  Preview preview() {
    Preview preview;
    std::string text = demand("TAPE preview " + name_);
    for (size_t from = 0; from < text.size();) {
      size_t feed = std::min(text.find('\n', from), text.size());
      takePreviewLine(text.substr(from, feed - from), &preview);
      from = feed + 1;
    }
    return preview;
  }

  // Runs it to its end; what became of each host. Empty when it was interrupted.
  std::vector<RepResult> run() {
    RunWanted wanted;
    wanted.begun = time(nullptr);
    wanted.previous = RunWanted::Previous{0, 0};
    if (auto before = record()) wanted.previous = RunWanted::Previous{before->started, before->pid};
    connection_->send("TAPE replicate " + name_);
    std::string said;
    Outcome outcome = connection_->receive([&](std::string_view text) { said += text; }, false);
    if (!outcome.accepted)
      throw Failure(Exit::failed, "the replication was not begun: " + lastLine(said));
    connection_ = std::make_unique<Connection>(target_);
    if (!waitForEnd(wanted)) return {};
    return parseResults(
        connection_->fetch("var/tape/jobids/replicate." + name_ + ".result").value_or(""));
  }

 private:
  std::string listPath() const { return "var/tape/jobids/" + name_; }

  std::optional<Progress> record() {
    std::optional<std::string> text = connection_->fetch(progressPath("replication", name_));
    return text ? parseProgress(*text) : std::nullopt;
  }

  bool lives(int64_t pid) {
    return isListed(connection_->ask("HOST ps json").text, pid).value_or(true);
  }

  void demandIdle() {
    std::optional<Progress> last = record();
    if (last && last->running() && lives(last->pid))
      throw Failure(Exit::failed, "another retry of this job is at work",
                    "Follow it: zul follow --replication " + name_);
  }

  std::string demand(const std::string &line) {
    Connection::Answer answer = connection_->ask(line);
    if (answer.status != 0)
      throw Failure(Exit::failed, "\"" + oneLine(line) + "\": " + lastLine(answer.text));
    return answer.text;
  }

  // Asked for only where there is something: agents complain about what is not there.
  void remove() {
    for (const std::string &line : lines("TAPE get trans " + name_))
      connection_->ask("TAPE del trans " + name_ + " " + line.substr(0, line.find('>')));
    for (const char *store : {"repids", "group"})
      for (const std::string &line : lines(std::string("TAPE get ") + store))
        if (line.rfind(name_ + ":", 0) == 0)
          connection_->ask(std::string("TAPE del ") + store + " " + name_);
  }

  std::vector<std::string> lines(const std::string &request) {
    std::vector<std::string> found;
    std::string text = connection_->ask(request).text;
    for (size_t from = 0; from < text.size();) {
      size_t feed = std::min(text.find('\n', from), text.size());
      found.push_back(text.substr(from, feed - from));
      from = feed + 1;
    }
    return found;
  }

  static void tell(const Progress &now) {
    size_t done = 0;
    for (const HostProgress &host : now.hosts) done += host.state == "done";
    printErr("over TCP: " + totalText(now) + ", " + std::to_string(done) + " of " +
             countText(now.hosts.size(), "host") + "\n");
  }

  // False when a signal came: the replication is ended then.
  bool waitForEnd(const RunWanted &wanted) {
    std::optional<Progress> seen;
    for (long long since = base::nowMs(), movedMs = since, toldMs = since;;) {
      std::optional<Progress> now = record();
      bool ours = now && isWanted(*now, wanted);
      if (ours && !now->running()) return true;
      if (interrupted) {
        if (ours) connection_->ask("HOST kill " + std::to_string(now->pid));
        return false;
      }
      if (!ours && base::nowMs() - since > kAppearMs)
        throw Failure(Exit::failed, "the replication has not begun",
                      "Its log may say why: zul get var/tape/jobids/replicate." + name_ + ".stat");
      if (ours && base::nowMs() - toldMs >= kSilentMs) tell(*now), toldMs = base::nowMs();
      if (ours && (!seen || now->json != seen->json)) movedMs = base::nowMs(), seen = now;
      if (ours && base::nowMs() - movedMs > kStaleMs) {
        if (!lives(now->pid)) return true;
        movedMs = base::nowMs();
      }
      base::sleepMs(kLookMs);
    }
  }

  Target target_;
  const MulticastJob &job_;
  int number_;
  std::string name_;
  std::unique_ptr<Connection> connection_;
};

// --- one order ---

using Outcomes = std::map<std::string, std::string>;  // why a host failed, empty when it did not

// One request takes so many hosts.
std::vector<std::string> hostTexts(const std::vector<Verdict> &verdicts, const RepairOrder &order) {
  std::vector<std::string> texts;
  for (size_t at : order.hosts) {
    const std::string &host = verdicts[at].host;
    if (texts.empty() || texts.back().size() + host.size() > kHostsText) texts.emplace_back();
    texts.back() += (texts.back().empty() ? "" : ",") + host;
  }
  return texts;
}

std::vector<std::string> namesIn(const std::string &hosts) {
  std::vector<std::string> names(1);
  for (char c : hosts) {
    if (c == ',')
      names.emplace_back();
    else
      names.back() += c;
  }
  return names;
}

std::string pathsText(const std::vector<std::string> &paths) {
  std::string text;
  for (const std::string &path : paths) text += path + "\n";
  return text;
}

// Runs what is defined for these hosts, and adds how each did to what is known of it already.
void runPass(TemporaryJob &temporary, const std::vector<std::string> &hosts,
             const std::function<std::string(const RepResult &)> &judge, Outcomes *outcomes) {
  Outcomes fresh;
  std::vector<RepResult> results = temporary.run();
  if (interrupted) throw Failure(Exit::failed, "interrupted");
  for (const RepResult &result : results) fresh[result.host] = judge(result);
  for (const std::string &host : hosts) {
    auto at = fresh.find(host);
    std::string how = at == fresh.end() ? "the replication told nothing of it" : at->second;
    std::string &outcome = (*outcomes)[host];
    if (outcome.empty()) outcome = how;
  }
}

// The same once more, but only what differs from what is there: hosts that have everything keep
// everything.
void verify(TemporaryJob &temporary, RepairPass pass, size_t entries, Outcomes *outcomes,
            std::vector<std::string> *remarks) {
  std::string hosts;
  for (const auto &[host, outcome] : *outcomes)
    if (outcome.empty()) hosts += (hosts.empty() ? "" : ",") + host;
  if (hosts.empty()) return;
  pass.job.conflict = *conflictMode("if-different");
  temporary.define(pass, hosts);
  auto judge = [&](const RepResult &result) {
    if (result.files > 0)
      remarks->push_back(countText(result.files, "file") + " changed meanwhile, sent again");
    return lookedAgain(result, entries);
  };
  runPass(temporary, namesIn(hosts), judge, outcomes);
}

// Sends what an order asks for to some of its hosts. The remarks are about all of them.
Outcomes sendOrder(TemporaryJob &temporary, const MulticastJob &job, const RepairOrder &order,
                   const std::string &hosts, std::vector<std::string> *remarks) {
  Outcomes outcomes;
  for (const RepairPass &pass : passesOf(job, remarks)) {
    temporary.define(pass, hosts);
    temporary.setList(pathsText(order.whole ? job.requests : order.paths));
    RepairList list = listOf(job, order, pass, temporary.preview());
    if (!list.problem.empty()) throw Failure(Exit::failed, list.problem);
    if (list.gone > 0)
      remarks->push_back(countText(list.gone, "file") + " no longer on the sending host");
    if (list.entries == 0) continue;
    temporary.setList(list.text);
    printErr("sending " + amountText(list.entries, std::nullopt, list.bytes) + " over TCP to " +
             hosts + "\n");
    runPass(temporary, namesIn(hosts), outcomeOf, &outcomes);
    verify(temporary, pass, list.entries, &outcomes, remarks);
  }
  return outcomes;
}

std::string joinedText(std::vector<std::string> texts) {
  std::sort(texts.begin(), texts.end());
  texts.erase(std::unique(texts.begin(), texts.end()), texts.end());
  std::string text;
  for (const std::string &each : texts) text += (text.empty() ? "" : "; ") + each;
  return text;
}

void note(Verdict &verdict, const std::string &why, const std::string &remark,
          RepairedRecord *repaired) {
  if (why.empty())
    repaired->hosts[verdict.host] = remark;
  else
    verdict.reason = "over TCP: " + why;
}

}  // namespace

void repairHosts(const Target &target, const std::string &number, const MulticastJob &job,
                 std::vector<Verdict> *verdicts, RepairedRecord *repaired) {
  std::vector<RepairOrder> orders = planRepair(job, *verdicts);
  if (orders.empty()) return;
  if (std::string problem = namesProblem(job); !problem.empty())
    throw Failure(Exit::failed, problem, "Run the job again: zul multicast run " + number);
  SignalGuard signals;
  TemporaryJob temporary(target, number, job);
  for (const RepairOrder &order : orders)
    for (const std::string &hosts : hostTexts(*verdicts, order)) {
      std::vector<std::string> remarks;
      Outcomes outcomes;
      std::string problem = interrupted ? "interrupted" : "";
      try {
        if (problem.empty()) outcomes = sendOrder(temporary, job, order, hosts, &remarks);
      } catch (const Failure &failure) {
        problem = failure.what();
      }
      for (size_t at : order.hosts) {
        Verdict &verdict = (*verdicts)[at];
        std::vector<std::string> served = namesIn(hosts);
        if (std::find(served.begin(), served.end(), verdict.host) == served.end()) continue;
        auto outcome = outcomes.find(verdict.host);
        std::string why = problem;
        if (why.empty() && outcome != outcomes.end()) why = outcome->second;
        note(verdict, why, joinedText(remarks), repaired);
      }
    }
}

}  // namespace console
