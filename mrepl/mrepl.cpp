// The entry of multicast replication requests.
//
// This build has no multicast jobs; the entry exists because every host routes MREPL requests to
// it.
#include <zul/host.h>
#include <zul/module.h>

#include "base/log.h"
#include "base/process.h"

int mreplicate(char *cmdline) {
  base::ignoreSigpipe();
  base::print(stderr, "ERROR:  Multicast replication is not available on this agent yet: %s\n",
              cmdline);
  return -1;
}
