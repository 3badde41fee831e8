// The gathering phase of a backup job as its driver sees it.
#pragma once
#include <signal.h>
#include <stdio.h>
#include <zul/records.h>

#include "tape/progress.h"

namespace tape {

struct Gathered {
  double kilobytes = -1.0;  // what processHostData returns
  bool ran = false;         // the drive was open and the hosts were asked
  bool tapeFailed = false;  // the tape refused a block, a mark or to be opened
  int tapeError = 0;        // its errno
  bool stopped = false;     // the job was told to stop
  int hosts = 0;
  int failedHosts = 0;
};

// Gathers every member host of the job's group onto the tape, which stands behind the volume's
// catalog copy and is rewound afterwards. A host whose progress record carries an error already
// counts as failed even when all its files come.
Gathered gatherHosts(jobrun *job, int level, char *device, FILE *vollist, JobProgress &progress);

// While one lives on a site with sound backups, SIGTERM asks the job to finish as if the tape had
// failed, instead of killing it with children, mailboxes and a half-written record left behind.
class StopOnTerm {
 public:
  StopOnTerm();
  ~StopOnTerm();
  StopOnTerm(const StopOnTerm &) = delete;
  StopOnTerm &operator=(const StopOnTerm &) = delete;
  static bool asked();

 private:
  struct sigaction previous_;
  bool installed_;
};

}  // namespace tape
