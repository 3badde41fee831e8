// What the gathering child's sources share, and what the job driver tells a child it has forked.
#pragma once
#include <sys/types.h>
#include <zul/records.h>

namespace net {

// How long a gathering child bears with the others. Part of the dialogue, not settings; in a table
// so that tests can lower them.
struct GatherLimits {
  int stepS;      // one step of the dialogue without progress
  int takenMs;    // the tape writer takes a package
  int refusedMs;  // the gatherer does not listen yet (sound pace only)
};
extern GatherLimits gatherLimits;

// For the forked child: the job process, whose end is the child's end.
void setGatherParent(pid_t job);
// True when that process is gone.
bool gatherParentGone();
// Leaves for that reason: nobody will read the mailbox, and nobody else will remove it.
[[noreturn]] void leaveOrphaned(const ipc *slot);

// Child: sets a word of its own in the slot, cst.flags, and lets the parent know.
void setChildFlags(ipc *slot, int flags);

}  // namespace net
