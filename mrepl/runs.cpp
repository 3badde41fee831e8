// Both ends of a run, on an agent that has neither sender nor receiver: they say so. A host of such
// an agent counts as one that was not started, because it does not answer "TRANSFER OK".
#include <zul/host.h>
#include <zul/mrepl.h>

#include "base/log.h"

int repServStart(MreplJobData *) {
  base::print(stderr, "ERROR:  Multicast replication is not available on this agent yet\n");
  return -1;
}

int repClientStart(void) {
  base::print(stderr, "ERROR:  Multicast replication is not available on this agent yet\n");
  return -1;
}
