// Starting, watching and closing the gathering child of one host of a backup job.
#include "tape/gathermember.h"

#include <errno.h>
#include <fcntl.h>
#include <inttypes.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <zul/host.h>
#include <zul/net.h>
#include <zul/tape.h>

#include "base/log.h"
#include "base/pause.h"
#include "base/process.h"
#include "base/sharedword.h"
#include "base/text.h"
#include "drive/drive.h"
#include "net/gatherchild.h"
#include "net/hostlock.h"
#include "tape/mailbox.h"
#include "tape/volumelist.h"

namespace tape {

namespace {

constexpr int kMailboxReady = 1;
constexpr int kStop = 2;
constexpr int kReaped = 4;
constexpr int kFinished = 8;
constexpr int kFailed = 16;
constexpr uint64_t kMostUnread = 100;  // named in the log; of more only the number is

void setParentFlags(ipc *slot, int flags) {
  base::storeWord(slot->pst.flags, flags);
  base::wakeWord(&slot->pst.flags);
}

}  // namespace

void Member::assign(const char *host, ipc *slot) {
  slot_ = slot;
  memset(static_cast<void *>(slot), 0, sizeof *slot);
  slot->fd = slot->wfd = -1;
  base::copyText(slot->host, sizeof slot->host, host);
}

bool Member::lockHost() {
  // The child inherits the lock: the host is free for another job when both are gone.
  if (net::lockHost(slot_->host, &lock_)) return true;
  if (!noted_)
    base::print(backuplog, "NOTICE:  %s is being gathered by another job, waiting for it\n",
                slot_->host);
  noted_ = true;
  return false;
}

bool Member::start(const GatherRun &run, Member *all, int count, int number) {
  full_ = run.since == 0;
  base::print(backuplog, "Listener for: %s  started\n", slot_->host);
  pid_ = base::forkFlushed();
  if (pid_ == 0) runChild(run, all, count, number);
  if (pid_ < 0) {
    base::print(backuplog, "File gathering process for %s did not exit cleanly.\n", slot_->host);
    lock_.reset();
    state_ = State::over;
    return false;
  }
  state_ = State::running;
  base::print(backuplog, "Making FIFO for: %s\n", slot_->host);
  fflush(backuplog);
  mkFIFO(number, pid_);
  return true;
}

void Member::runChild(const GatherRun &run, Member *all, int count, int number) {
  signal(SIGTERM, SIG_DFL);
  // A child that kept the drive would keep it from ending the data file, and one that kept another
  // host's lock or mailbox would keep that host busy.
  drive::abandonDrive(run.tapefd);
  close(run.vollistFd);
  for (int at = 0; at < count; at++) {
    if (at == number) continue;
    all[at].lock_.reset();
    if (all[at].state_ == State::running && all[at].slot_->fd >= 0) close(all[at].slot_->fd);
  }
  net::setGatherParent(run.process);
  base::pauseFor(base::Pause::GatherChild);
  char host[sizeof slot_->host];
  base::copyText(host, sizeof host, slot_->host);
  goBackupChld(number, host, run.job, run.since);
  base::endProcess(0);
}

bool Member::hasPackage() const {
  return state_ == State::running && !torn_ && base::loadWord(slot_->pst.flags) == kMailboxReady &&
         base::loadWord(slot_->consumed) != base::loadWord(slot_->produced);
}

void Member::stop() {
  torn_ = true;
  if (state_ != State::running) return;
  setParentFlags(slot_, kStop);
  if (!reaped_) kill(pid_, SIGKILL);
}

void Member::refuse(const char *why) {
  base::copyText(refused_, sizeof refused_, why);
  stop();
}

bool Member::takeName() {
  const char *said = slot_->pack.fromhost;
  // The header of a file that vanished names nobody.
  if (said[0] == '\0') return true;
  if (name_[0] == '\0') base::copyText(name_, sizeof name_, said);
  return strncmp(name_, said, sizeof name_ - 1) == 0;
}

// The header of what had vanished, or is no file, says nothing of a file's or a link's kind.
bool Member::noteUnread() {
  const package &header = slot_->pack;
  if (header.type != 5 || !(S_ISREG(header.mode) || S_ISLNK(header.mode))) return false;
  if (++unread_ > kMostUnread) return true;
  char name[sizeof header.filename + 1];
  listName(name, sizeof header.filename, header.filename);
  base::print(backuplog, "WARNING:  Not saved, it cannot be read on %s: %s\n", slot_->host, name);
  return true;
}

void Member::reap() {
  if (reaped_ || pid_ <= 0 || state_ == State::over) return;
  int status;
  pid_t ended = base::reapNow(pid_, &status);
  if (ended == 0) return;
  reaped_ = true;
  status_ = ended == pid_ ? status : 0;
  // Usually the host's lines stand by now, as a child says that it is done before it ends.
  if (state_ == State::accounted) closeBook();
}

void Member::closeBook() {
  if (WIFEXITED(status_) && WEXITSTATUS(status_) != 0)
    base::print(backuplog, "File gathering process for %s did not exit cleanly.\n", slot_->host);
  lock_.reset();
  state_ = State::over;
}

bool Member::isDone() const {
  if (state_ != State::running) return false;
  if (base::loadWord(slot_->cst.flags) > 1) return true;
  // A child that was killed says nothing. What it had left in the mailbox was whole: it is taken
  // first.
  return reaped_ && !hasPackage();
}

void Member::account() {
  if (reaped_ && base::loadWord(slot_->cst.flags) <= 1) base::storeWord(slot_->cst.flags, kFailed);
  base::print(backuplog, "Child exit status = %i\n", base::loadWord(slot_->cst.flags));
  if (base::loadWord(slot_->pst.flags) == kStop) torn_ = true;
  setParentFlags(slot_, kReaped);
  reap();
  state_ = State::accounted;
  if (reaped_) closeBook();
  if (slot_->fd >= 0) close(slot_->fd);
  slot_->fd = -1;
  if (removeMailbox(slot_->host) != 0)
    base::print(backuplog, "Unable to remove FIFO:  %s\n",
                base::HomePath("tmp/ipc.%s", slot_->host).c_str());
  base::print(backuplog, "Backed-up %li KB in %u items, at %u KB/s from %s.\n",
              static_cast<long>(slot_->kbytes), slot_->items, slot_->rate, slot_->host);
  if (unread_ > kMostUnread)
    base::print(backuplog, "WARNING:  Not saved, %" PRIu64 " files in all cannot be read on %s\n",
                unread_, slot_->host);
  base::print(backuplog, "Stopping gathering process for %s.\n", slot_->host);
}

void Member::awaitEnd(int limitMs) {
  for (long long limit = base::nowMs() + limitMs; state_ == State::accounted; base::sleepMs(2)) {
    reap();
    if (state_ == State::accounted && base::nowMs() >= limit) kill(pid_, SIGKILL);
  }
}

const char *Member::failure(char *text, size_t room) const {
  int flags = base::loadWord(slot_->cst.flags);
  if (refused_[0] != '\0')
    base::copyText(text, room, refused_);
  else if (pid_ <= 0)
    snprintf(text, room, "no gathering process could be started");
  else if (reaped_ && WIFSIGNALED(status_))
    snprintf(text, room, "its gathering process was killed by signal %i", WTERMSIG(status_));
  else if (flags == 2)
    snprintf(text, room, "its gatherer could not be reached, see var/tape/jobids/%s.stat",
             slot_->host);
  else if (flags != kFinished)
    snprintf(text, room, "the transfer broke off, see var/tape/jobids/%s.stat", slot_->host);
  else if (torn_)
    snprintf(text, room, "not everything it sent could be stored");
  else
    return nullptr;
  return text;
}

}  // namespace tape
