// The addresses of a job's hosts, for the sender of a sound run.
#pragma once
#include <stdint.h>
#include <zul/mrepl.h>

namespace mrepl {

// Looks the names of a list up, many at once, so that a name service that does not answer costs a
// run some seconds, not some for each host, while the receivers wait for the first segment. Nodes
// without a name are passed over. The first `most` addresses go to `addresses`, in the list's order
// and in network order; 0 for a name that means nothing or was not found within limitMs. How many
// there are.
int lookUpAll(const strNode *hosts, uint32_t *addresses, int most, int limitMs);

}  // namespace mrepl
