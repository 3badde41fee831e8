// Multicast runs as an operator starts, reads and repairs them.
#pragma once
#include <string>
#include <vector>

#include "console/connection.h"
#include "console/failure.h"
#include "console/multicastjob.h"
#include "console/multicastrecords.h"

namespace console {

struct MulticastRunOptions {
  Target target;
  std::string number;        // of the job
  bool retryFailed = false;  // repairs the last run instead of starting one
  bool json = false;
};

// --- multicastrun.cpp ---

// Starts a run and shows it, or repairs the last one; then the table. Done only when every host has
// everything.
Exit runMulticast(const MulticastRunOptions &options);
// The table of the last run.
Exit showMulticastResult(const MulticastRunOptions &options);
// The definition of a job; a Failure when there is none.
MulticastJob fetchMulticastJob(const Target &target, const std::string &number);
// A Failure where the sending host is not sound: only sound runs keep records.
void demandSoundMulticast(Connection &connection);

// --- multicastretry.cpp ---

// Sends what hosts lack by ordinary replication, and adds to `repaired` those that have everything
// then. What cannot be done goes into the reasons of the verdicts.
void repairHosts(const Target &target, const std::string &number, const MulticastJob &job,
                 std::vector<Verdict> *verdicts, RepairedRecord *repaired);

// --- multicastdoctor.cpp ---

struct MulticastDoctorOptions {
  Target target;
  std::string number;
  bool json = false;
};
// Checks all hosts of a job before a run. Done only when nothing is wrong.
Exit runMulticastDoctor(const MulticastDoctorOptions &options);

}  // namespace console
