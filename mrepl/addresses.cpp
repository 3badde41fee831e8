// Looks up the hosts of a job before its run begins. In the process of the sending host; each name
// that has to be asked for in a short-lived process of its own.
#include "mrepl/addresses.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <poll.h>
#include <string.h>

#include "base/pause.h"
#include "fanout/apart.h"

namespace mrepl {

namespace {

constexpr int kAtOnce = 40;

uint32_t lookUp(const char *name) {
  addrinfo wanted{}, *found = nullptr;
  wanted.ai_family = AF_INET;
  if (getaddrinfo(name, nullptr, &wanted, &found) != 0 || !found) return 0;
  sockaddr_in first;
  memcpy(&first, found->ai_addr, sizeof first);
  freeaddrinfo(found);
  return first.sin_addr.s_addr;
}

// Begins a look-up, or ends it where there is nothing to ask.
void begin(const char *name, fanout::Helper *helper, uint32_t *address) {
  in_addr known;
  *helper = {};
  *address = 0;
  if (inet_aton(name, &known) != 0) {
    *address = known.s_addr;
  } else if (!fanout::startHelper(helper)) {
    *address = lookUp(name);
  } else if (helper->pid == 0) {
    fanout::giveAnswer(*helper, static_cast<int>(lookUp(name)));
  }
}

// Waits for one look-up, at most until a moment.
void finish(fanout::Helper *helper, uint32_t *address, long long endMs) {
  if (helper->pid == 0) return;
  pollfd answer{helper->end, POLLIN, 0};
  for (long long left; (left = endMs - base::nowMs()) > 0;)
    if (poll(&answer, 1, static_cast<int>(left)) > 0) break;
  *address = static_cast<uint32_t>(fanout::takeAnswer(helper).value);
}

}  // namespace

int lookUpAll(const strNode *hosts, uint32_t *addresses, int most, int limitMs) {
  fanout::Helper helpers[kAtOnce];
  int count = 0, done = 0;
  while (hosts && count < most) {
    for (; hosts && count < most && count - done < kAtOnce; hosts = hosts->next) {
      if (!hosts->text || hosts->text[0] == '\0') continue;
      begin(hosts->text, &helpers[count - done], &addresses[count]);
      count++;
    }
    long long endMs = base::nowMs() + limitMs;
    for (int first = done; done < count; done++)
      finish(&helpers[done - first], &addresses[done], endMs);
  }
  return count;
}

}  // namespace mrepl
