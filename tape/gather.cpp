// The gathering phase of a backup job, in the job process: at most eight gathering children pull
// files from their hosts, and this process copies what they leave in their mailboxes to the tape,
// one package at a time, whole packages of different hosts in turn.
#include "tape/gather.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>
#include <zul/host.h>
#include <zul/module.h>
#include <zul/tape.h>

#include <memory>
#include <new>

#include "base/log.h"
#include "base/pause.h"
#include "base/process.h"
#include "base/site.h"
#include "base/text.h"
#include "drive/drive.h"
#include "tape/asked.h"
#include "tape/gathermember.h"
#include "tape/mailbox.h"
#include "tape/reference.h"
#include "tape/segment.h"

namespace tape {

namespace {

constexpr int kMostChildren = 8;
constexpr int kLockLookMs = 100;   // between two tries of a host that another job has
constexpr int kChildLookMs = 10;   // between two looks at children that say nothing
constexpr int kChildEndMs = 5000;  // for a child that has said it is done to end

volatile sig_atomic_t stopAsked = 0;

// A level from 1 to 9 asks for what changed since a run of a lower level. Passed on as it is, it
// would mean seconds since 1970: everything, whatever the level.
bool buildsOnOther(int level) {
  return level >= 1 && level <= 9 && base::sound(base::Area::backup);
}

class GatherLoop {
 public:
  GatherLoop(jobrun *job, int level, FILE *vollist, int tapefd, JobProgress &progress,
             Gathered &result)
      : vollist_(vollist),
        group_(job->rec.group),
        builds_(buildsOnOther(level)),
        run_{job->rec.job, level, tapefd, vollist ? fileno(vollist) : -1, getpid()},
        progress_(progress),
        result_(result) {
    if (builds_) reference_.find(job->rec.job, level);
  }

  // Names the members; false without memory.
  bool prepare(int count);
  void run();
  // After the drive is closed: no child outlives the job.
  void awaitChildren();
  bool wroteToTape() const { return wrote_; }

 private:
  bool startNext();
  bool visit(int at);
  bool goesByItsName(int at);
  bool copy(int at);
  void finishMember(int at);
  void failMember(int at, const char *why);
  void tapeFailed(int error);
  void stopAll();
  void lookAtChildren();

  FILE *vollist_;
  int group_;
  bool builds_;  // on the run that reference_ is
  Reference reference_;
  Asked asked_;
  GatherRun run_;
  JobProgress &progress_;
  Gathered &result_;
  std::unique_ptr<Member[]> members_;
  int count_ = 0;
  int running_ = 0;
  int finished_ = 0;
  bool stopping_ = false;
  bool wrote_ = false;
  long long nextLockLook_ = 0;
  long long nextChildLook_ = 0;
};

bool GatherLoop::prepare(int count) {
  members_.reset(new (std::nothrow) Member[static_cast<size_t>(count)]);
  if (!members_) return false;
  count_ = result_.hosts = count;
  progress_.setHosts(count);
  if (base::sound(base::Area::backup)) asked_.read(run_.job, count);
  for (int at = 0; at < count; at++) {
    char host[64] = "";
    int found = getGrpMember(group_, at + 1, host);
    base::copyText(progress_.host(at).host, sizeof host, host);
    ipc *slot = findSlot(at);
    if (slot) members_[at].assign(host, slot);
    // The group may have grown since the segment was made; and a name with a '/' would lead out of
    // the folder of mailboxes.
    if (found < 0 || !slot || !base::isPathWord(host)) {
      base::print(backuplog, "ERROR:  Host number %i of the group cannot be gathered: %s\n", at + 1,
                  host);
      members_[at].abandon();
      failMember(at, "it has no usable name or no room among the hosts of the job");
    }
  }
  return true;
}

void GatherLoop::run() {
  while (finished_ < count_) {
    // Read before the slots are visited: what a child changes behind our back then ends the wait.
    uint32_t bell = readDoorbell();
    bool news = startNext();
    for (int at = 0; at < count_; at++) news |= visit(at);
    lookAtChildren();
    if (progress_.refresh() && vollist_) fflush(vollist_);
    if (stopAsked && !stopping_) {
      result_.stopped = true;
      stopAll();
    }
    if (!news) awaitDoorbell(bell, base::pauseLength(base::Pause::PackagePoll));
  }
}

// Starts the next member that no other job is gathering; one that is waits, and the others go
// first.
bool GatherLoop::startNext() {
  if (running_ >= kMostChildren || base::nowMs() < nextLockLook_) return false;
  for (int at = 0; at < count_; at++) {
    Member &member = members_[at];
    if (member.state() != Member::State::waiting || !member.lockHost()) continue;
    if (builds_) run_.since = reference_.sinceFor(member.slot()->host);
    if (!member.start(run_, members_.get(), count_, at)) {
      failMember(at, "no gathering process could be started");
      return true;
    }
    running_++;
    progress_.hostChanged(at, HostState::starting);
    return true;
  }
  nextLockLook_ = base::nowMs() + kLockLookMs;
  return false;
}

// True when there was something to do.
bool GatherLoop::visit(int at) {
  Member &member = members_[at];
  if (member.isDone()) {
    finishMember(at);
    return true;
  }
  return member.hasPackage() && copy(at);
}

// A host names itself in every package, and restores go by that name: one that takes another's
// would have its files put on that host.
bool GatherLoop::goesByItsName(int at) {
  Member &member = members_[at];
  bool begins = member.name()[0] == '\0';
  if (!member.takeName()) {
    member.refuse("it changed its name from one package to the next");
    return false;
  }
  if (!begins || strcmp(member.slot()->host, member.name()) == 0) return true;
  for (int other = 0; other < count_; other++) {
    if (other == at || member.name()[0] == '\0') continue;
    if (strcmp(members_[other].name(), member.name()) == 0 ||
        strcmp(progress_.host(other).host, member.name()) == 0) {
      member.refuse("it has the node name of another host of the job; give it one of its own");
      return false;
    }
  }
  return true;
}

bool GatherLoop::copy(int at) {
  Member &member = members_[at];
  if (base::sound(base::Area::security) && !goesByItsName(at)) return true;
  bool backupSound = base::sound(base::Area::backup);
  // Such a file is on the tape by its name alone. Who wants it back must not be the first to hear.
  if (backupSound && member.noteUnread()) progress_.addUnread(at);
  if (member.slot()->pack.sequence == 0) asked_.saw(at, member.slot()->pack);
  Copied copied = copyPackage(member.slot(), run_.tapefd, vollist_);
  wrote_ |= copied.reachedTape;
  switch (copied.outcome) {
    case Copy::nothing:
      return false;
    case Copy::taken:
      if (progress_.host(at).state == HostState::starting)
        progress_.hostChanged(at, HostState::running);
      progress_.addPackage(at, copied.newFile, copied.bytes);
      break;
    case Copy::mailboxLost:
    case Copy::mailboxShort:
      member.tearOff();
      // Its child would find out only when nobody takes its package for 100 seconds.
      if (backupSound) member.stop();
      break;
    case Copy::headerFailed:
    case Copy::dataFailed:
      // Visiting it again would write the same header, and the same message, over and over.
      member.tearOff();
      // Whatever is written behind a torn package, at the end of the tape for one, cannot be relied
      // on; going on would report a backup that is not there.
      if (backupSound) tapeFailed(copied.error);
      break;
  }
  return true;
}

void GatherLoop::finishMember(int at) {
  Member &member = members_[at];
  member.account();
  running_--;
  nextLockLook_ = 0;
  result_.kilobytes += static_cast<double>(member.slot()->kbytes);
  char text[128];
  const char *why = member.failure(text, sizeof text);
  const char *before = progress_.host(at).error;
  if (!why && before[0] != '\0') why = before;
  if (why) {
    failMember(at, why);
    return;
  }
  // Of a host that was asked for everything: what has not changed sends nothing either.
  if (member.isFull()) progress_.setAbsent(at, asked_.unseen(at));
  finished_++;
  progress_.hostChanged(at, HostState::done);
}

void GatherLoop::failMember(int at, const char *why) {
  finished_++;
  result_.failedHosts++;
  char text[128];
  base::copyText(text, sizeof text, why);
  progress_.hostChanged(at, HostState::failed, text);
}

void GatherLoop::tapeFailed(int error) {
  result_.tapeFailed = true;
  result_.tapeError = error;
  stopAll();
}

void GatherLoop::stopAll() {
  stopping_ = true;
  for (int at = 0; at < count_; at++) {
    if (members_[at].state() == Member::State::waiting) {
      members_[at].abandon();
      failMember(at, "not begun before the job ended");
    } else {
      members_[at].stop();
    }
  }
}

void GatherLoop::lookAtChildren() {
  long long now = base::nowMs();
  if (now < nextChildLook_) return;
  nextChildLook_ = now + kChildLookMs;
  for (int at = 0; at < count_; at++) members_[at].reap();
}

void GatherLoop::awaitChildren() {
  for (int at = 0; at < count_; at++) members_[at].awaitEnd(kChildEndMs);
}

// Ends the data file, so that the next volume finds its place: the drive writes the mark at the
// close, but only behind something that was written.
bool endDataFile(int tapefd, bool wrote, int *error) {
  bool ended = true;
  if (!wrote && drive::operate(tapefd, MTWEOF, 1) != 0 && errno != ENOTTY && errno != EINVAL) {
    *error = errno;
    ended = false;
  }
  if (drive::closeDrive(tapefd) != 0) {
    *error = errno;
    ended = false;
  }
  return ended;
}

void rewindTape(char *device) {
  if (mtRewind(device) != 0) base::print(backuplog, "ERROR:  Failed to rewind tape: %s\n", device);
}

}  // namespace

Gathered gatherHosts(jobrun *job, int level, char *device, FILE *vollist, JobProgress &progress) {
  Gathered result;
  base::defaultSigchld();
  int tapefd = drive::openDrive(device, O_WRONLY | O_CREAT | O_TRUNC | O_DSYNC, 0600);
  if (tapefd < 0) {
    result.tapeFailed = true;
    result.tapeError = errno;
    base::print(fplog, "ERROR:  8310  Can't open tape device: %s\n", device);
    base::print(backuplog, "ERROR:  8310  Can't open tape device: %s\n", device);
    backupFail(job->rec.drive, job->tape, job->volume);
    return result;
  }
  char host[64];
  int count = getGrpMember(job->rec.group, 1, host);
  GatherLoop loop(job, level, vollist, tapefd, progress, result);
  if (tpshmid < 0 || !tpgetShMemPtr(tpshmid) || !loop.prepare(count > 0 ? count : 0)) {
    base::print(backuplog,
                "ERROR:  8315  Fatal error.  Failed to find shared memory buffer.  errno = %i\n",
                errno);
    endDataFile(tapefd, false, &result.tapeError);
    return result;
  }
  result.ran = true;
  result.kilobytes = 0;
  loop.run();
  if (!endDataFile(tapefd, loop.wroteToTape(), &result.tapeError)) {
    result.tapeFailed = true;
    base::print(backuplog, "ERROR:  Cannot end the data file on tape device: %s.  errno = %i\n",
                device, result.tapeError);
  }
  loop.awaitChildren();
  rewindTape(device);
  base::print(backuplog, "INFO:  Backup finished..\n");
  return result;
}

StopOnTerm::StopOnTerm() {
  stopAsked = 0;
  struct sigaction action {};
  action.sa_handler = [](int) { stopAsked = 1; };
  action.sa_flags = SA_RESTART;
  sigemptyset(&action.sa_mask);
  installed_ = base::sound(base::Area::backup) && sigaction(SIGTERM, &action, &previous_) == 0;
}

StopOnTerm::~StopOnTerm() {
  if (installed_) sigaction(SIGTERM, &previous_, nullptr);
  stopAsked = 0;
}

bool StopOnTerm::asked() {
  return stopAsked != 0;
}

}  // namespace tape

double processHostData(jobrun *job, int level, char *device, FILE *vollist) {
  tape::JobProgress unwatched;
  return tape::gatherHosts(job, level, device, vollist, unwatched).kilobytes;
}
