// zul follow: watches a job's progress record through the daemon until the job has ended.
//
// The record is fetched over the console, so that jobs of other hosts can be followed too. The
// daemon may be restarted meanwhile: jobs do not depend on it, and neither does following them for
// half a minute.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <time.h>
#include <unistd.h>

#include <memory>
#include <nlohmann/json.hpp>

#include "base/pause.h"
#include "console/commands.h"
#include "console/interrupt.h"
#include "console/screen.h"
#include "console/text.h"

namespace console {

namespace {

constexpr int kLookMs = 250;
constexpr int kReconnectMs = 30000;
constexpr int kTotalEveryMs = 10000;  // of lines in a pipe
constexpr int kSilentMs = 2000;       // longest without a word about what is waited for
constexpr int kStaleSeconds = 3;      // a record this old makes us ask whether its process is there

// Shows records one way or another.
class View {
 public:
  virtual ~View() = default;
  virtual void show(const Progress &progress) = 0;
  virtual void end(const Progress &) {}
};

class JsonView : public View {
 public:
  void show(const Progress &progress) override {
    if (progress.json != last_) printOut(progress.json + "\n");
    last_ = progress.json;
  }

 private:
  std::string last_;
};

class NoView : public View {
 public:
  void show(const Progress &) override {}
};

class LineView : public View {
 public:
  void show(const Progress &progress) override {
    for (const std::string &line : describeChange(before_ ? &*before_ : nullptr, progress))
      say(progress, line);
    if (progress.running() && base::nowMs() - lastTotal_ >= kTotalEveryMs) {
      if (before_) say(progress, totalText(progress));
      lastTotal_ = base::nowMs();
    }
    before_ = progress;
  }
  void end(const Progress &progress) override {
    for (const std::string &line : describeEnd(progress)) say(progress, line);
  }

 private:
  static void say(const Progress &progress, const std::string &line) {
    printOut(jobText(progress) + ": " + line + "\n");
  }
  std::optional<Progress> before_;
  long long lastTotal_ = 0;
};

// Draws over what it drew before. The texts were made harmless when they were put together.
class ScreenView : public View {
 public:
  void show(const Progress &progress) override {
    winsize size{};
    bool known = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 && size.ws_row > 0;
    erase();
    std::vector<std::string> lines =
        drawProgress(progress, known ? size.ws_col : 80, known ? size.ws_row : 24);
    for (const std::string &line : lines) printf("%s\n", line.c_str());
    drawn_ = lines.size();
    fflush(stdout);
  }
  void end(const Progress &progress) override {
    for (const std::string &line : describeEnd(progress))
      printf("%s: %s\n", jobText(progress).c_str(), line.c_str());
    fflush(stdout);
  }

 private:
  void erase() const {
    if (drawn_ > 0) printf("\033[%zuA\033[J", drawn_);
  }
  size_t drawn_ = 0;
};

std::unique_ptr<View> chooseView(const FollowOptions &options) {
  if (options.silent) return std::make_unique<NoView>();
  if (options.json) return std::make_unique<JsonView>();
  const char *terminal = getenv("TERM");
  bool canDraw = isatty(STDOUT_FILENO) == 1 && terminal && std::string(terminal) != "dumb";
  if (canDraw && !options.plain) return std::make_unique<ScreenView>();
  return std::make_unique<LineView>();
}

// Looks at records over a connection that is made anew when the daemon went away.
class Watcher {
 public:
  explicit Watcher(const Target &target)
      : target_(target), connection_(std::make_unique<Connection>(target)) {}

  std::optional<Progress> look(const std::string &path) {
    std::optional<std::string> text =
        again<std::optional<std::string>>([&] { return connection_->fetch(path); });
    return text ? parseProgress(*text) : std::nullopt;
  }

  // False when the daemon knows the process of the record there to be gone. Records that it does
  // not list are looked for among its processes.
  bool isAlive(const std::string &path, int64_t pid) {
    std::string text = again<std::string>([&] { return connection_->ask("HOST jobs json").text; });
    nlohmann::json list = nlohmann::json::parse(text, nullptr, false);
    if (!list.is_array()) return true;
    for (const nlohmann::json &entry : list)
      if (entry.is_object() && entry.value("file", nlohmann::json()) == path)
        return entry.value("alive", nlohmann::json()) != false;
    text = again<std::string>([&] { return connection_->ask("HOST ps json").text; });
    return isListed(text, pid).value_or(true);
  }

 private:
  template <typename Result>
  Result again(const std::function<Result()> &body) {
    for (long long deadline = base::nowMs() + kReconnectMs;;) {
      try {
        if (!connection_) connection_ = std::make_unique<Connection>(target_);
        return body();
      } catch (const Failure &failure) {
        connection_.reset();
        if (failure.status() != Exit::noConnection || base::nowMs() >= deadline) throw;
      }
      base::sleepMs(kLookMs);
    }
  }

  Target target_;
  std::unique_ptr<Connection> connection_;
};

std::string runText(const FollowOptions &options) {
  return options.kind + (options.job.empty() ? "" : " " + options.job);
}

// The command that shows the run again.
std::string followText(const FollowOptions &options) {
  if (options.job.empty()) return "zul follow " + options.kind;
  return std::string("zul follow ") + (options.kind == "replication" ? "--replication " : "") +
         options.job;
}

std::string describeRecord(const std::optional<Progress> &record) {
  if (!record) return "there is no record of any run";
  return "the last one started " + timeText(record->started) +
         (record->ended > 0 ? ", ended " + timeText(record->ended) + ": " : ": ") +
         oneLine(record->state);
}

class Follower {
 public:
  explicit Follower(const FollowOptions &options)
      : options_(options),
        path_(progressPath(options.kind, options.job)),
        watcher_(options.target),
        view_(chooseView(options)) {
    wanted_ = options.wanted;
    if (wanted_.begun == 0) wanted_.begun = time(nullptr);
    if (options.since) wanted_.since = options.since;
  }

  Exit run() {
    Progress progress = waitForRun();
    view_->show(progress);
    while (progress.running()) {
      base::sleepMs(kLookMs);
      std::optional<Progress> next = watcher_.look(path_);
      if (next && next->started == progress.started && next->pid == progress.pid) {
        progress = *next;
        view_->show(progress);
      } else if (next) {
        throw Failure(Exit::jobGone,
                      jobText(progress) + ", pid " + std::to_string(progress.pid) +
                          ": another run has taken its place before it recorded an end");
      }
      if (progress.running()) checkAlive(progress);
    }
    view_->end(progress);
    return progress.done() ? Exit::done : Exit::failed;
  }

 private:
  // The record of the run that is meant. A process may take a moment from its acceptance to its
  // first record.
  Progress waitForRun() {
    std::optional<Progress> record;
    long long begun = base::nowMs(), deadline = begun + options_.waitSeconds * 1000LL;
    for (bool told = false;;) {
      record = watcher_.look(path_);
      // Without a wish for a certain run, one that died long ago is not taken for a new one.
      bool sure = wanted_.since || wanted_.previous;
      if (record && isWanted(*record, wanted_) &&
          (sure || !record->running() || watcher_.isAlive(path_, record->pid)))
        return *record;
      if (base::nowMs() >= deadline) break;
      if (!told && base::nowMs() - begun >= kSilentMs) {
        told = true;
        printErr("waiting up to " + std::to_string(options_.waitSeconds) + " s for a run of " +
                 runText(options_) + " to begin\n");
      }
      base::sleepMs(kLookMs);
    }
    if (record && record->running() && isWanted(*record, wanted_)) gone(*record);
    throw Failure(Exit::failed,
                  "no run of " + runText(options_) + " appeared within " +
                      std::to_string(options_.waitSeconds) + " s; " + describeRecord(record),
                  "If it was requested, its status file may say why it did not start: zul get " +
                      statusPath());
  }

  std::string statusPath() const { return path_.substr(0, path_.rfind('.')); }

  // The process is asked for only when its record has not moved for a while: a job writes it twice
  // a second.
  void checkAlive(const Progress &progress) {
    if (progress.updated != lastUpdated_) {
      lastUpdated_ = progress.updated;
      movedAt_ = base::nowMs();
      return;
    }
    if (base::nowMs() - movedAt_ < kStaleSeconds * 1000LL) return;
    movedAt_ = base::nowMs();
    if (watcher_.isAlive(path_, progress.pid)) return;
    // Between the two looks it may have recorded its end.
    std::optional<Progress> last = watcher_.look(path_);
    if (last && last->running() && last->pid == progress.pid) gone(progress);
  }

  [[noreturn]] void gone(const Progress &progress) {
    throw Failure(Exit::jobGone,
                  jobText(progress) + ": its process, pid " + std::to_string(progress.pid) +
                      ", is gone and has recorded no end",
                  "Its last words: zul get " + statusPath());
  }

  FollowOptions options_;
  std::string path_;
  Watcher watcher_;
  std::unique_ptr<View> view_;
  RunWanted wanted_;
  int64_t lastUpdated_ = 0;
  long long movedAt_ = 0;
};

}  // namespace

FollowOptions prepareFollow(const Target &target, const std::string &kind, const std::string &job) {
  FollowOptions options;
  options.target = target;
  options.kind = kind;
  options.job = job;
  options.wanted.begun = time(nullptr);
  options.wanted.previous = RunWanted::Previous{0, 0};
  if (std::optional<Progress> record = Watcher(target).look(progressPath(kind, job)))
    options.wanted.previous = RunWanted::Previous{record->started, record->pid};
  return options;
}

Exit followJob(const FollowOptions &options) {
  InterruptNote note(runText(options) +
                     " is left alone; to see how far it is: " + followText(options));
  return Follower(options).run();
}

}  // namespace console
