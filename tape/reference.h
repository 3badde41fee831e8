// What a backup of a level from 1 to 9 builds on: an earlier run of the same job, of a lower level.
//
// Such a run saves what changed since the other one began. It is worth nothing without the other
// one's volume, and for a host or a path that the other one did not save.
#pragma once
#include <zul/records.h>

namespace tape {

class Reference {
 public:
  // Looks for the newest run that a run of this job and level can build on; says so in the job's
  // log when there is none.
  void find(int job, int level);
  // The time since when the changes of a host are to be saved; 0 for everything. Says so in the
  // job's log for a host that the run did not save.
  int sinceFor(const char *host) const;

 private:
  int start_ = 0;
  char hosts_[sizeof(catlgstru::hosts) + 1] = "";
};

}  // namespace tape
