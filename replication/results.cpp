// The results of a replication, as its driver learns of them.
#include "replication/results.h"

#include <fcntl.h>
#include <inttypes.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/json.h"
#include "base/text.h"

namespace replication {

void Results::open(int job) {
  base::HomePath path("var/tape/jobids/replicate.%i.result", job);
  unlink(path);
  int fd = ::open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd < 0) return;
  file_ = base::File(fdopen(fd, "w"));
  if (!file_) close(fd);
}

void Results::add(const char *host, const char *state, const char *reason,
                  const net::Delivery &account, long long ms) {
  FILE *out = file_.get();
  if (!out) return;
  fputs("{\"host\":", out);
  base::writeJsonText(out, host);
  fprintf(out, ",\"state\":\"%s\",\"reason\":", state);
  base::writeJsonText(out, reason);
  fprintf(out, ",\"files\":%" PRIu64 ",\"folders\":%" PRIu64 ",\"bytes\":%" PRIu64, account.files,
          account.folders, account.bytes);
  fprintf(out, ",\"seconds\":%lld.%03lld", ms / 1000, ms % 1000);
  fprintf(out, ",\"kept\":%" PRIu64 ",\"failed\":%" PRIu64 ",\"unreadable\":%" PRIu64 "}\n",
          account.kept, account.failed, account.unreadable);
  fflush(out);
}

}  // namespace replication
