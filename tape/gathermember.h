// One member host of a running backup job: its gathering child, its mailbox, its lock. Lives in the
// job process.
#pragma once
#include <sys/types.h>
#include <zul/records.h>

#include "base/fd.h"

namespace tape {

// What a gathering child needs of its job.
struct GatherRun {
  int job;
  int since;  // reference time of the file list
  int tapefd;
  int vollistFd;
  pid_t process;  // the job's own
};

class Member {
 public:
  enum class State {
    waiting,    // not started yet
    running,    // started; its files are coming
    accounted,  // its files are here and its mailbox is gone, its child is about to end
    over,       // nothing is left of it
  };

  State state() const { return state_; }
  ipc *slot() const { return slot_; }

  // Copies the name into the slot, whose words begin anew.
  void assign(const char *host, ipc *slot);

  // Takes the host's lock. False while another job of this tape host gathers the same host: both
  // would use one mailbox here and one port there.
  bool lockHost();
  // Forks the child, member number `number` of `count`, and makes the mailbox. False when there can
  // be no child; the host is over then.
  bool start(const GatherRun &run, Member *all, int count, int number);

  // True when a package waits in the mailbox and is still wanted.
  bool hasPackage() const;
  // Nothing more is taken from this host.
  void tearOff() { torn_ = true; }
  // The same, and its child is ended at once. It holds nothing that needs an orderly end.
  void stop();
  // The same, because of what the host did.
  void refuse(const char *why);
  // What the host calls itself, from the first package on that tells; empty before.
  const char *name() const { return name_; }
  // Takes the name in the slot's header; false when the host went by another one before.
  bool takeName();
  // True when the package that waits is that of a file which cannot be read on its host; the log
  // names it.
  bool noteUnread();
  // Whether the host was asked for everything, however old.
  bool isFull() const { return full_; }
  // Gives up a host that was not started.
  void abandon() { state_ = State::over; }

  // Looks whether the child has ended.
  void reap();
  // True when the child is done: it said so, or it has ended.
  bool isDone() const;
  // Prints the closing lines of a host that is done and removes its mailbox.
  void account();
  // Waits at most limitMs for the child of an accounted host to end; then ends it.
  void awaitEnd(int limitMs);

  // Why the host's backup is not complete; null when it is.
  const char *failure(char *text, size_t room) const;

 private:
  void closeBook();
  [[noreturn]] void runChild(const GatherRun &run, Member *all, int count, int number);

  State state_ = State::waiting;
  ipc *slot_ = nullptr;
  base::Fd lock_;
  pid_t pid_ = -1;
  bool reaped_ = false;
  int status_ = 0;
  bool torn_ = false;
  char name_[64] = "";  // as long as the field of a header
  char refused_[128] = "";
  bool noted_ = false;
  bool full_ = false;
  uint64_t unread_ = 0;
};

}  // namespace tape
