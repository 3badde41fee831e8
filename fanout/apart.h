// Work that would hold up the loop, done in a short-lived process: what came of it arrives on a
// descriptor.
#pragma once
#include <sys/types.h>

namespace fanout {

// All zeros while there is none.
struct Helper {
  pid_t pid;
  int end;  // becomes readable when the process has answered or is gone
};

struct Answer {
  bool came;
  int value;
  int sd;  // a descriptor that the process has opened, or -1
};

// Forks. In the new process helper.pid is 0, and giveAnswer ends it. False when there can be none.
bool startHelper(Helper *helper);
[[noreturn]] void giveAnswer(const Helper &helper, int value, int sd = -1);
// Ends a process that has answered, has died or takes too long, and says what came of it.
Answer takeAnswer(Helper *helper);

}  // namespace fanout
