// Restore: the job on the tape host and the agent on the destination.
//
// This build has neither; both say so and touch nothing.
#include "tape/restore.h"

#include <zul/host.h>

#include "base/log.h"

int goRestore(char *) {
  base::print(stderr, "ERROR:  Nothing restored: this agent cannot restore yet\n");
  return -1;
}

int restoreIt(char *destination, int) {
  base::print(stderr, "ERROR:  Nothing restored to %s: this agent cannot receive a restore yet\n", destination);
  return -1;
}
