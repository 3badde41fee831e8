// Expands a job's list in the process of the request, and puts every entry through the same
// transforms and policy as a sending process does.
#include "replication/preview.h"

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>
#include <zul/host.h>
#include <zul/net.h>
#include <zul/replication.h>
#include <zul/tape.h>

#include "base/fd.h"
#include "base/log.h"
#include "base/text.h"

namespace replication {

namespace {

constexpr size_t kTableTexts = 9728;
constexpr int kTableSlots = 32;

// The notices of the functions below are for logs; here they would stand between the entries.
class QuietStderr {
 public:
  QuietStderr() : console_(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3)) {
    int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (null >= 0) dup2(null, STDERR_FILENO);
    if (null >= 0) close(null);
  }
  ~QuietStderr() {
    dup2(console_, STDERR_FILENO);
    close(console_);
  }
  QuietStderr(const QuietStderr &) = delete;
  QuietStderr &operator=(const QuietStderr &) = delete;
  int console() const { return console_; }

 private:
  int console_;
};

void printHosts(FILE *out, int group) {
  char host[64];
  int members = getGrpMember(group, 1, host);
  for (int member = 1; member <= members; member++)
    if (getGrpMember(group, member, host) >= 0) fprintf(out, "host\t%s\n", host);
}

void printEntry(FILE *out, char *path, const char *root, char **transforms) {
  constexpr char kTypes[] = "fdlcb-";
  package header;
  if (getFileData(path, &header, transforms) < 0) return;
  permctrl(0, &header);
  unsigned type = header.type < sizeof kTypes - 1 ? header.type : sizeof kTypes - 2;
  fprintf(out, "entry\t%c\t%o\t%u\t%u\t%llu\t%llu\t%s\t%s%s\n", kTypes[type], header.mode & 07777,
          header.usrid, header.grpid, static_cast<unsigned long long>(header.size),
          static_cast<unsigned long long>(header.mtime), path, root, header.filename);
}

constexpr int kTooManyTransforms = -2;

int printList(FILE *out, const char *list, const reprec &job) {
  base::File lines(fopen(list, "re"));
  char *texts = static_cast<char *>(calloc(1, kTableTexts));
  char *table[kTableSlots] = {};
  int result = lines && texts ? 0 : -1;
  if (result == 0 && readTransforms(job.job, texts, table) != 0) result = kTooManyTransforms;
  if (result == 0) {
    reprec policy = job;
    permctrl(1, &policy);
    while (char *path = getLineList(lines.get())) printEntry(out, path, job.dest, table);
  }
  free(texts);
  return result;
}

}  // namespace

int preview(int number) {
  reprec job;
  if (readRepid(number, &job) != 0) {
    base::print(stderr, "ERROR:  Cannot find job number %i\n", number);
    return -1;
  }
  job.dest[sizeof job.dest - 1] = '\0';
  base::HomePath source("var/tape/jobids/%i", number);
  base::HomePath list("tmp/preview.%i.%i", number, getpid());
  int result;
  {
    QuietStderr quiet;
    base::File out(fdopen(fcntl(quiet.console(), F_DUPFD_CLOEXEC, 3), "w"));
    result = out ? mkBackupList(source.data(), list.data(), 0) : -1;
    if (out) printHosts(out.get(), job.group);
    if (result == 0) result = printList(out.get(), list, job);
    unlink(list);
  }
  if (result == kTooManyTransforms)
    base::print(stderr, "ERROR:  Job# %i has more transforms than are used\n", number);
  else if (result != 0)
    base::print(stderr, "ERROR:  The list of job# %i cannot be expanded\n", number);
  return result;
}

}  // namespace replication
