// The driver of a replication job, in the detached process that goReplicate made: has the list of
// files built, then keeps up to eight sending processes at work, one for each target of the group.
//
// A target that fails costs only itself. What became of each stands in the job's status file, its
// progress record and its results.
#include "replication/replicate.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>
#include <zul/host.h>
#include <zul/replication.h>
#include <zul/tape.h>

#include <memory>
#include <new>

#include "base/fd.h"
#include "base/log.h"
#include "base/pause.h"
#include "base/process.h"
#include "base/site.h"
#include "base/text.h"
#include "net/delivery.h"
#include "net/hostlock.h"
#include "replication/results.h"
#include "tape/progress.h"

namespace {

constexpr int kMostSenders = 8;
constexpr int kLockLookMs = 100;  // between two tries of a host that another job has
constexpr int kListPolls = 100;
constexpr char kList[] = "var/tape/jobids/repl.%i";
constexpr char kRemarks[] = "var/tape/jobids/repl.%i.log";
constexpr int kNoJob = -1;
constexpr int kIncomplete = -2;

volatile sig_atomic_t stopAsked = 0;
pid_t listStarter = -1;  // the first process of the list builder, until it is collected

bool soundReceive() {
  return base::sound(base::Area::receive);
}

// To the status file and to standard error, in that order.
void say(const char *format, ...) __attribute__((format(printf, 1, 2)));
void say(const char *format, ...) {
  char text[1024];
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof text, format, args);
  va_end(args);
  base::print(backuplog, "%s", text);
  base::print(stderr, "%s", text);
}

struct Target {
  enum class State { waiting, running, over };
  char host[64] = "";
  State state = State::waiting;
  pid_t pid = 0;
  int signal = 0;  // that ended the process
  base::Fd process;
  base::Fd lock;
  long long begunMs = 0;
  bool waitNoted = false;
};

bool hasSource(int job) {
  return access(base::HomePath("var/tape/jobids/%i", job), R_OK) == 0;
}

// True when the list builder had something to leave out.
bool hasUnlisted(int job) {
  struct stat remarks;
  return stat(base::HomePath(kRemarks, job), &remarks) == 0 && remarks.st_size > 0;
}

// One driver for a job: a second one would replace the first one's list and results. False when
// there is one.
bool lockJob(int job, base::Fd *lock) {
  if (!soundReceive()) return true;
  base::HomePath path("var/tape/jobids/replicate.%i.lock", job);
  *lock = base::Fd(open(path, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  return !*lock || flock(lock->get(), LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK;
}

// While it lives, SIGTERM lets the driver end its senders and say how far they came.
class StopOnTerm {
 public:
  StopOnTerm() {
    stopAsked = 0;
    struct sigaction action {};
    action.sa_handler = [](int) { stopAsked = 1; };
    sigemptyset(&action.sa_mask);
    installed_ = soundReceive() && sigaction(SIGTERM, &action, &previous_) == 0;
  }
  ~StopOnTerm() {
    if (installed_) sigaction(SIGTERM, &previous_, nullptr);
  }
  StopOnTerm(const StopOnTerm &) = delete;
  StopOnTerm &operator=(const StopOnTerm &) = delete;

 private:
  struct sigaction previous_;
  bool installed_;
};

class ReplicationJob {
 public:
  // text: the job's number, and perhaps "@" and names of members.
  int run(const char *text);

 private:
  bool begin(const char *text);
  bool enlist(const char *only);
  void serveTargets();
  bool startNext();
  bool takesHost(Target *target);
  void start(int at);
  [[noreturn]] void becomeSender(int at);
  bool look(int at);
  void vanished(int at);
  void exited(int at, int status);
  void finish(int at);
  void fail(int at, const char *why);
  void stopAll();
  void awaitNews() const;
  void refreshProgress();
  int conclude();

  int number_ = 0;
  reprec record_ = {};
  std::unique_ptr<Target[]> targets_;
  net::Delivery *accounts_ = nullptr;  // shared with the sending processes
  int count_ = 0;
  int running_ = 0;
  int finished_ = 0;
  int failed_ = 0;
  long long nextLockLook_ = 0;
  tape::JobProgress progress_;
  replication::Results results_;
  char error_[256] = "";
};

// True when host is one of the names, which have commas between.
bool isAmong(const char *names, const char *host) {
  size_t length = strlen(host);
  for (const char *at = names; *at; at += *at == ',') {
    size_t word = strcspn(at, ",");
    if (word == length && length > 0 && strncmp(at, host, length) == 0) return true;
    at += word;
  }
  return false;
}

// The members of the job's group, or those of them that are named. False without memory.
bool ReplicationJob::enlist(const char *only) {
  char host[64];
  int members = getGrpMember(record_.group, 1, host);
  if (members < 0) members = 0;
  size_t room = static_cast<size_t>(members) + 1;
  targets_.reset(new (std::nothrow) Target[room]);
  void *shared = mmap(nullptr, room * sizeof(net::Delivery), PROT_READ | PROT_WRITE,
                      MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (!targets_ || shared == MAP_FAILED) return false;
  accounts_ = static_cast<net::Delivery *>(shared);
  for (int member = 1; member <= members; member++) {
    host[0] = '\0';
    getGrpMember(record_.group, member, host);
    if (!only || isAmong(only, host)) base::copyText(targets_[count_++].host, sizeof host, host);
  }
  progress_.setHosts(count_);
  for (int at = 0; at < count_; at++)
    base::copyText(progress_.host(at).host, sizeof progress_.host(at).host, targets_[at].host);
  if (count_ == 0)
    snprintf(error_, sizeof error_, "%s group %i",
             only ? "none of the named hosts is a member of" : "there are no hosts in",
             record_.group);
  return true;
}

// Job record and list. False when there can be no job.
bool ReplicationJob::begin(const char *text) {
  time_t started = time(nullptr);
  char date[32];
  number_ = base::decimal(text);
  if (!ctime_r(&started, date)) base::copyText(date, sizeof date, "?");
  date[strcspn(date, "\n")] = '\0';
  say("Starting replication job# %i on %s\n", number_, date);
  if (readRepid(number_, &record_) != 0) {
    say("ERROR:  Cannot find job number %i\n", number_);
    if (backuplog && backuplog != stderr) fclose(backuplog);
    backuplog = stderr;
    return false;
  }
  record_.name[sizeof record_.name - 1] = '\0';
  progress_.beginReplication(number_, record_.name, started);
  base::print(stderr, "Building list of files to replicate\n");
  base::print(stderr, "This may take some time.  Closing ZUL console connection.\n");
  base::print(stderr, "TRANSFER OK\n");
  const char *only = strchr(text, '@');
  bool ready = !soundReceive() || hasSource(number_);
  if (!ready)
    snprintf(error_, sizeof error_, "its source list var/tape/jobids/%i is not there", number_);
  ready = ready && mkRlist(number_, 0) == 0 && enlist(only ? only + 1 : nullptr);
  if (!ready) say("ERROR:  Unable to construct replication request list, exiting.\n");
  return ready;
}

int ReplicationJob::run(const char *text) {
  base::ignoreSigpipe();
  base::defaultSigchld();
  base::Fd lock;
  if (!lockJob(base::decimal(text), &lock)) {
    say("ERROR:  Replication job# %i is running already\n", base::decimal(text));
    return kNoJob;
  }
  StopOnTerm stopOnTerm;
  if (!begin(text)) {
    progress_.finish(true, kNoJob, error_[0] ? error_ : "see the status file");
    return kNoJob;
  }
  results_.open(number_);
  base::pauseFor(base::Pause::ListGrace);
  base::print(backuplog, "Starting replication helpers\n");
  serveTargets();
  return conclude();
}

void ReplicationJob::serveTargets() {
  while (finished_ < count_) {
    bool news = startNext();
    for (int at = 0; at < count_; at++) news |= look(at);
    if (stopAsked) stopAll();
    refreshProgress();
    // Where nobody waits for readiness the pause is part of every pass.
    if (!news || !base::sound(base::Area::pace)) awaitNews();
  }
}

// Starts the next target that no other job is busy with; one that is waits, and the others go
// first.
bool ReplicationJob::startNext() {
  if (running_ >= kMostSenders || stopAsked || base::nowMs() < nextLockLook_) return false;
  for (int at = 0; at < count_; at++) {
    if (targets_[at].state != Target::State::waiting || !takesHost(&targets_[at])) continue;
    start(at);
    return true;
  }
  nextLockLook_ = base::nowMs() + kLockLookMs;
  return false;
}

bool ReplicationJob::takesHost(Target *target) {
  // A name with a '/' in it would lead out of the folder of locks, and is no host.
  if (!base::isPathWord(target->host) || net::lockHost(target->host, &target->lock)) return true;
  if (!target->waitNoted)
    base::print(backuplog, "NOTICE:  %s is busy with another job, waiting for it\n", target->host);
  target->waitNoted = true;
  return false;
}

void ReplicationJob::start(int at) {
  Target &target = targets_[at];
  target.state = Target::State::running;
  target.begunMs = base::nowMs();
  running_++;
  target.pid = base::forkFlushed();
  if (target.pid == 0) becomeSender(at);
  if (target.pid < 0) return;  // counted at the next look
  target.process = base::Fd(static_cast<int>(syscall(SYS_pidfd_open, target.pid, 0)));
  say("Starting listener for: %s.  PID = %i\n", target.host, target.pid);
  if (backuplog) fflush(backuplog);
  progress_.hostChanged(at, tape::HostState::running);
  base::pauseFor(base::Pause::ReplicateStart);
}

// The sending process. It ends with its driver: a job that is over must not go on sending.
void ReplicationJob::becomeSender(int at) {
  pid_t driver = getppid();
  signal(SIGTERM, SIG_DFL);
  prctl(PR_SET_PDEATHSIG, SIGTERM);
  if (getppid() != driver) base::endProcess(1);
  // The lock of its own host is kept: that is free again when driver and sender are both done with
  // it.
  for (int other = 0; other < count_; other++)
    if (other != at) targets_[other].lock.reset();
  net::Delivery *account = accounts_ + at;
  net::keepAccount(account);
  int result = replicateChld(targets_[at].host, &record_);
  account->completed = result == 0;
  // Classic drivers expect a sender that gave its target up to end like every other.
  base::endProcess(result != 0 && soundReceive() ? 1 : 0);
}

// True when there was something to note.
bool ReplicationJob::look(int at) {
  Target &target = targets_[at];
  if (target.state != Target::State::running) return false;
  int status = 0;
  pid_t ended = target.pid > 0 ? base::reapNow(target.pid, &status) : -1;
  if (ended == 0) return false;
  if (ended > 0 && !WIFEXITED(status))
    target.signal = WTERMSIG(status);  // it is gone at the next look
  else if (ended > 0)
    exited(at, WEXITSTATUS(status));
  else
    vanished(at);
  return true;
}

void ReplicationJob::vanished(int at) {
  const Target &target = targets_[at];
  base::print(stderr, "ERROR:  Checking kid_pid[%i] = %i,  Rephost = %s\n", at, target.pid,
              target.host);
  base::print(stderr, "Finished replication to: %s\n", target.host);
  base::print(backuplog, "ERROR:  Gatherer has died for: %s\n", target.host);
  finish(at);
}

void ReplicationJob::exited(int at, int status) {
  const Target &target = targets_[at];
  if (status != 0) {
    base::print(stderr, "File replication process for %s did not exit cleanly.\n", target.host);
    base::print(backuplog, "File replication process for %s did not exit cleanly.\n", target.host);
  }
  base::print(stderr, "Finished replication to: %s  PID = %i\n", target.host, target.pid);
  base::print(backuplog, "Finished replicating to: %s   PID = %i\n", target.host, target.pid);
  finish(at);
}

// Judges a target whose process has ended.
void ReplicationJob::finish(int at) {
  Target &target = targets_[at];
  const net::Delivery &account = accounts_[at];
  char why[384] = "";
  if (target.pid < 0)
    snprintf(why, sizeof why, "no sending process could be started");
  else if (target.signal != 0)
    snprintf(why, sizeof why, "its sending process was ended by signal %i", target.signal);
  else if (account.failed + account.unreadable > 0)
    snprintf(why, sizeof why, "%llu files failed, the first: %s",
             static_cast<unsigned long long>(account.failed + account.unreadable), account.reason);
  else if (!account.completed)
    snprintf(why, sizeof why, "%s", account.reason[0] ? account.reason : "see the status file");
  running_--;
  target.lock.reset();
  target.process.reset();
  nextLockLook_ = 0;
  fail(at, why);
}

// Closes the book of a target; why is empty for one that has everything.
void ReplicationJob::fail(int at, const char *why) {
  Target &target = targets_[at];
  bool good = why[0] == '\0';
  target.state = Target::State::over;
  finished_++;
  failed_ += !good;
  long long lasted = target.begunMs ? base::nowMs() - target.begunMs : 0;
  progress_.setCounts(at, accounts_[at].files, accounts_[at].folders, accounts_[at].bytes);
  progress_.hostChanged(at, good ? tape::HostState::done : tape::HostState::failed, why);
  results_.add(target.host, good ? "done" : "failed", why, accounts_[at], lasted);
  if (!good && soundReceive())
    base::print(backuplog, "ERROR:  Replication to %s failed: %s\n", target.host, why);
}

void ReplicationJob::stopAll() {
  for (int at = 0; at < count_; at++) {
    if (targets_[at].state == Target::State::waiting)
      fail(at, "not begun before the job was told to stop");
    else if (targets_[at].state == Target::State::running && targets_[at].pid > 0)
      kill(targets_[at].pid, SIGTERM);
  }
  base::copyText(error_, sizeof error_, "told to stop");
}

// Until a sending process ends, and at most until the next look is due.
void ReplicationJob::awaitNews() const {
  int limit = base::pauseLength(base::Pause::ReplicatePoll);
  if (!base::sound(base::Area::pace)) {
    base::sleepMs(limit);
    return;
  }
  pollfd processes[kMostSenders];
  nfds_t count = 0;
  for (int at = 0; at < count_ && count < kMostSenders; at++)
    if (targets_[at].process) processes[count++] = {targets_[at].process.get(), POLLIN, 0};
  bool another = running_ < kMostSenders && running_ + finished_ < count_;
  poll(processes, count, another && limit > kLockLookMs ? kLockLookMs : limit);
}

void ReplicationJob::refreshProgress() {
  for (int at = 0; at < count_; at++)
    progress_.setCounts(at, __atomic_load_n(&accounts_[at].files, __ATOMIC_RELAXED),
                        __atomic_load_n(&accounts_[at].folders, __ATOMIC_RELAXED),
                        __atomic_load_n(&accounts_[at].bytes, __ATOMIC_RELAXED));
  progress_.refresh();
}

int ReplicationJob::conclude() {
  say("Finished replication to %i hosts.\n", finished_);
  bool unlisted = hasUnlisted(number_);
  if (failed_ > 0 && error_[0] == '\0')
    snprintf(error_, sizeof error_, "%i of %i hosts failed", failed_, count_);
  if (unlisted && error_[0] == '\0')
    snprintf(error_, sizeof error_, "not everything could be listed, see repl.%i.log", number_);
  bool good = error_[0] == '\0';
  int result = good || !soundReceive() ? 0 : kIncomplete;
  if (!good && soundReceive()) say("ERROR:  %s\n", error_);
  progress_.finish(!good, result, error_);
  if (listStarter > 0) {
    int ignored;
    if (base::reapNow(listStarter, &ignored) != 0) listStarter = -1;
  }
  return result;
}

// The list builder itself, detached from the job so that it outlives a job that is ended.
[[noreturn]] void buildList(int job, int arg) {
  base::print(backuplog, "NOTE:  This is the child of the child of mkRlist. It will run\n");
  base::detachHere();
  // What could not be listed, and why: nobody else would hear of it.
  FILE *remarks = fopen(base::HomePath(kRemarks, job), "we");
  if (remarks) {
    setvbuf(remarks, nullptr, _IOLBF, 0);
    backuplog = remarks;
  }
  base::HomePath source("var/tape/jobids/%i", job);
  int result = mkBackupList(source.data(), base::HomePath(kList, job).data(), arg);
  base::endProcess(result == 0 ? 0 : 255);
}

[[noreturn]] void startBuilder(int job, int arg) {
  pid_t pid = base::forkFlushed();
  if (pid == 0) buildList(job, arg);
  if (pid < 0) {
    base::print(backuplog, "ERROR:  mkRlist:  Unable to convert to a daemon.  errno = %i\n", errno);
    base::endProcess(255);
  }
  base::print(backuplog, "NOTE:  This is the child of mkRlist. It will die\n");
  base::endProcess(0);
}

}  // namespace

bool replication::isRunning(int job) {
  base::Fd lock;
  return !lockJob(job, &lock);
}

int mkRlist(int job, int arg) {
  base::defaultSigchld();
  // Left in place, the list of an earlier run would be served while the new one is not there yet.
  if (base::sound(base::Area::stream)) unlink(base::HomePath(kList, job));
  unlink(base::HomePath(kRemarks, job));
  pid_t pid = base::forkFlushed();
  if (pid < 0) {
    base::print(backuplog, "ERROR:  mkRlist: Cannot fork process\n");
    return -1;
  }
  if (pid == 0) startBuilder(job, arg);
  listStarter = pid;
  for (int poll = 0; poll < kListPolls; poll++) {
    base::pauseFor(base::Pause::ListStart);
    int status = 0;
    pid_t ended = waitpid(pid, &status, WNOHANG);
    if (ended == pid) listStarter = -1;
    if (ended != pid || !WIFSIGNALED(status)) return 0;
  }
  base::print(backuplog, "ERROR:  mkRlist:  Parent timesout \n");
  return -1;
}

int replicate(const char *job) {
  ReplicationJob replication;
  return replication.run(job);
}
