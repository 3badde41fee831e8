// What became of each target of a replication: a JSON line for each in
// "var/tape/jobids/replicate.N.result", written as they end. docs/formats/progress.md has the
// fields.
#pragma once
#include "base/fd.h"
#include "net/delivery.h"

namespace replication {

class Results {
 public:
  // Drops the results of an earlier run. Without the file the job goes on.
  void open(int job);
  // state is "done" or "failed".
  void add(const char *host, const char *state, const char *reason, const net::Delivery &account,
           long long ms);

 private:
  base::File file_;
};

}  // namespace replication
