// TCP replication: the job driver on the sending host and the receiver on a target.
//
// This build has neither; both say so, so that an operator or a peer is not left waiting for files.
#include "replication/replicate.h"

#include <zul/host.h>

#include "base/log.h"

int replicate(const char *job) {
  base::print(backuplog,
              "ERROR:  Replication job# %s not started: this agent cannot replicate yet\n", job);
  return -1;
}

int replicateIt(char *destination, int) {
  base::print(stderr,
              "ERROR:  Nothing replicated to %s: this agent cannot receive a replication yet\n",
              destination);
  return -1;
}
