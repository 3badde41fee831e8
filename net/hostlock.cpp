// The lock is a flock on a file of the host that runs the jobs: it serialises the jobs of this
// host, and the kernel lets go of it whatever becomes of them.
#include "net/hostlock.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>

#include "base/text.h"

namespace net {

bool lockHost(const char *host, base::Fd *lock) {
  // Beside the mailboxes, under a name that no mailbox can have.
  base::HomePath path("tmp/gather.%s.lock", host);
  base::Fd file(open(path, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (file && flock(file.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) return false;
  *lock = static_cast<base::Fd &&>(file);
  return true;
}

}  // namespace net
