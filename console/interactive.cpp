// zul console: requests typed one after another, with line editing and history on a terminal; from
// a pipe, one request a line. Ctrl-C lets go of a request that takes long and never ends it:
// whatever it started belongs to the daemon, not to this terminal.
#include <errno.h>
#include <histedit.h>
#include <locale.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <iostream>
#include <memory>
#include <optional>

#include "console/commands.h"
#include "console/text.h"

namespace console {

namespace {

constexpr int kHistoryLines = 1000;
constexpr int kSettleMs = 1000;

volatile sig_atomic_t interrupted = 0;
const char *prompt = "";

constexpr const char *kHelp =
    "One request a line, as the daemon takes it:\n"
    "  TAPE get drives | jobids | group | repids            what is configured\n"
    "  TAPE get tapes DRIVE | vols DRIVE TAPE                tapes and their volumes\n"
    "  TAPE add drive NUMBER:NAME:DEVICE:0:0                 and mod, del\n"
    "  TAPE add group NUMBER:HOST,HOST,...:NAME\n"
    "  TAPE add jobids JOB:GROUP:RETENTION:DRIVE:0:0:NAME    retention in seconds\n"
    "  TAPE add backuplist JOB PATH/\n"
    "  TAPE backup JOB LEVEL | restore ... | replicate JOB\n"
    "  MREPL get ... | set jobid JOB | replicate JOB         multicast replication\n"
    "  HOST status | ps | jobs | tail PATH | kill PID        the daemon itself\n"
    "Ctrl-C lets go of a request without ending what it does; Ctrl-D or \"quit\" leaves.\n";

// Where lines come from.
class Lines {
 public:
  virtual ~Lines() = default;
  // False at the end. The text is the prompt that a person sees.
  virtual bool read(const char *text, std::string &line) = 0;
  virtual bool forPerson() const { return false; }
};

class PipeLines : public Lines {
 public:
  bool read(const char *, std::string &line) override {
    return static_cast<bool>(std::getline(std::cin, line));
  }
};

std::string historyFile() {
  const char *state = getenv("XDG_STATE_HOME");
  if (state && state[0] == '/') return std::string(state) + "/zul_history";
  const char *home = getenv("HOME");
  return home ? std::string(home) + "/.zul_history" : "";
}

class EditedLines : public Lines {
 public:
  EditedLines() : file_(historyFile()) {
    // Lines may hold what others should not read: host names, paths.
    umask(077);
    setlocale(LC_CTYPE, "");
    editor_ = el_init("zul", stdin, stdout, stderr);
    history_ = history_init();
    HistEvent event;
    history(history_, &event, H_SETSIZE, kHistoryLines);
    history(history_, &event, H_SETUNIQUE, 1);
    if (!file_.empty()) history(history_, &event, H_LOAD, file_.c_str());
    el_set(
        editor_, EL_PROMPT, +[](EditLine *) { return const_cast<char *>(prompt); });
    el_set(editor_, EL_EDITOR, "emacs");
    el_set(editor_, EL_HIST, history, history_);
    // While a line is edited Ctrl-C is a key that empties it.
    el_set(editor_, EL_SETTY, "-d", "-isig", nullptr);
    el_set(editor_, EL_BIND, "^C", "em-kill-line", nullptr);
    el_set(editor_, EL_BIND, "^R", "em-inc-search-prev", nullptr);
    el_source(editor_, nullptr);
  }
  ~EditedLines() override {
    HistEvent event;
    if (!file_.empty()) history(history_, &event, H_SAVE, file_.c_str());
    history_end(history_);
    el_end(editor_);
  }
  EditedLines(const EditedLines &) = delete;
  EditedLines &operator=(const EditedLines &) = delete;

  bool read(const char *text, std::string &line) override {
    prompt = text;
    int count = 0;
    const char *typed = el_gets(editor_, &count);
    if (!typed || count <= 0) return false;
    line.assign(typed, static_cast<size_t>(count));
    HistEvent event;
    if (line != "\n") history(history_, &event, H_ENTER, line.c_str());
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.pop_back();
    return true;
  }
  bool forPerson() const override { return true; }

 private:
  std::string file_;
  EditLine *editor_;
  History *history_;
};

// For as long as a person types, SIGINT is blocked and let in only where the daemon is waited for;
// there it sets a flag. A script is simply ended by it.
class InterruptGuard {
 public:
  InterruptGuard() {
    struct sigaction action {};
    action.sa_handler = +[](int) { interrupted = 1; };
    sigaction(SIGINT, &action, &before_);
    sigemptyset(&interrupt_);
    sigaddset(&interrupt_, SIGINT);
    sigprocmask(SIG_BLOCK, &interrupt_, &maskBefore_);
  }
  ~InterruptGuard() {
    forget();
    sigprocmask(SIG_SETMASK, &maskBefore_, nullptr);
    sigaction(SIGINT, &before_, nullptr);
  }
  InterruptGuard(const InterruptGuard &) = delete;
  InterruptGuard &operator=(const InterruptGuard &) = delete;

  // What was typed before the editor took the terminal over is not meant for the request that comes
  // next.
  void forget() const {
    timespec now{};
    while (sigtimedwait(&interrupt_, nullptr, &now) > 0) {
    }
    interrupted = 0;
  }

 private:
  struct sigaction before_ {};
  sigset_t interrupt_{}, maskBefore_{};
};

class ConsoleLoop {
 public:
  ConsoleLoop(const Target &target, Lines &lines)
      : target_(target), lines_(lines), connection_(std::make_unique<Connection>(target)) {
    if (lines.forPerson()) guard_.emplace();
  }

  Exit run() {
    std::string line;
    while (lines_.read("ZuL> ", line)) {
      number_++;
      size_t begin = line.find_first_not_of(" \t");
      if (begin == line.npos || line[begin] == '#') continue;
      line.erase(0, begin);
      if (line == "quit" || line == "exit") break;
      if (line == "help" || line == "?")
        printOut(kHelp);
      else
        runLine(line);
    }
    if (lines_.forPerson()) printOut("\n");
    return failures_ == 0 || lines_.forPerson() ? Exit::done : Exit::failed;
  }

 private:
  void runLine(const std::string &line) {
    try {
      if (!connection_) connection_ = std::make_unique<Connection>(target_);
      connection_->send(line);
      finish(line, receive(onlyShows(line), -1));
    } catch (const Failure &failure) {
      // A person may try again, perhaps when the daemon is back; a script must not run on half
      // blind.
      if (!lines_.forPerson()) throw;
      connection_.reset();
      printErr(std::string("zul: ") + failure.what() + "\n");
    }
  }

  Outcome receive(bool toTheEnd, int limitMs) {
    if (!guard_) return connection_->receive(printOut, toTheEnd, limitMs);
    guard_->forget();
    return connection_->receive(printOut, toTheEnd, limitMs, [] { return interrupted != 0; });
  }

  void finish(const std::string &line, Outcome outcome) {
    if (outcome.accepted && !outcome.ended && asksForUpload(line)) {
      upload();
      outcome = receive(true, -1);
    } else if (outcome.accepted && !outcome.ended && !onlyShows(line)) {
      // Most accepted requests end at once, because a process of their own goes on.
      outcome = receive(true, kSettleMs);
    }
    if (outcome.ended) {
      if (outcome.status != 0) fail(line, outcome.status);
      return;
    }
    // The session serves that request until it ends; the next one gets a session of its own.
    connection_.reset();
    if (interrupted)
      printErr("\nzul: let go of the request; it goes on (HOST ps shows it, HOST kill ends it)\n");
    else if (outcome.accepted)
      printErr("zul: accepted; it goes on\n");
    else
      throw Failure(Exit::noConnection, "the connection ended in the middle of \"" + line + "\"");
  }

  void upload() {
    if (lines_.forPerson()) printOut("Lines of the job; Ctrl-D or a line with \".\" ends them.\n");
    std::string line;
    while (lines_.read("job> ", line) && line != "." && line != "UpLoAd_DoNe.")
      connection_->sendBytes(uploadLine(line));
    connection_->sendBytes("UpLoAd_DoNe.\n");
  }

  void fail(const std::string &line, int status) {
    failures_++;
    std::string how = status > 255 ? "was killed by signal " + std::to_string(status - 256)
                                   : "failed with status " + std::to_string(status);
    if (lines_.forPerson() && status <= 255) return;  // the text on the screen has said it
    printErr("zul: line " + std::to_string(number_) + " " + how + ": " + line + "\n");
  }

  Target target_;
  Lines &lines_;
  std::unique_ptr<Connection> connection_;
  std::optional<InterruptGuard> guard_;
  int number_ = 0;
  int failures_ = 0;
};

}  // namespace

Exit runConsole(const Target &target) {
  if (isatty(STDIN_FILENO) == 1 && isatty(STDOUT_FILENO) == 1) {
    EditedLines lines;
    return ConsoleLoop(target, lines).run();
  }
  PipeLines lines;
  return ConsoleLoop(target, lines).run();
}

}  // namespace console
