// What the sending process of a replication learns about its target: counts for the driver that
// started it, and what the target's receiver says on the agent connection meanwhile.
//
// The receiver's messages go to that connection. They are read while the dialogue runs, because a
// connection that nobody reads fills up, and a receiver that has much to say would wait for ever.
#pragma once
#include <stddef.h>
#include <stdint.h>

namespace net {

// One target's account. It may lie in memory that the driver shares: the sending process alone
// writes, and the driver looks at the counts at any moment, at the texts when the process has
// ended.
struct Delivery {
  uint64_t files;       // sent, and not reported as failed; links among them
  uint64_t folders;     // the same of folders
  uint64_t bytes;       // contents of the regular files among them, and of the one on its way
  uint64_t kept;        // the target has them and did not ask
  uint64_t failed;      // the target could not make them
  uint64_t unreadable;  // could not be opened here
  int completed;        // the list was served to its end
  char reason[256];     // the first thing that went wrong
};

// Counts for this process go to this account from now on; null for an account nobody looks at.
void keepAccount(Delivery *account);
// The agent connection whose receiver is listened to, and its host; -1 for none.
void watchReceiver(const char *host, int console);

// The account in force; never null.
Delivery *delivery();
void countUp(uint64_t *count, uint64_t by = 1);
// The account as it stands before a file is sent: what noteFailure goes back to.
void beginEntry();
// Notes why, unless an earlier reason stands.
void noteReason(const char *format, ...) __attribute__((format(printf, 1, 2)));

// "Failed RESULT WHY": a receiver under "sound" says that it could not make the file it has just
// been sent. It costs that file and nothing else.
bool isFailure(const char *line);
void noteFailure(const char *line, const char *path, bool sent);

// Takes what the receiver has said, without waiting.
void lookAtReceiver();
// True when the receiver's request has ended, or its agent is gone.
bool receiverEnded();
// Waits until it has ended, at most limitMs: its status, or -1 when it is not known.
int awaitReceiver(int limitMs);
// The last thing the receiver complained about; may be empty.
const char *receiverComplaint();

}  // namespace net
