// What has to be sent over TCP after a multicast run, and how; nothing here talks to anybody.
#pragma once
#include <string>
#include <vector>

#include "console/multicastjob.h"
#include "console/multicastrecords.h"
#include "console/repjob.h"

namespace console {

// Hosts that lack the same, as places in the list of verdicts.
struct RepairOrder {
  std::vector<size_t> hosts;
  std::vector<std::string> paths;  // on the sending host
  bool whole = false;              // all that the job asks for: nobody knows what is missing
};
// Orders for all hosts that are not complete.
std::vector<RepairOrder> planRepair(const MulticastJob &job, const std::vector<Verdict> &verdicts);

// A replication that does to owner and permissions what the job does.
struct RepairPass {
  RepJob job;  // without number, group and name
  bool files = true, folders = true;
};
// One, or two where files and folders are treated differently; remarks: what cannot be the same.
std::vector<RepairPass> passesOf(const MulticastJob &job, std::vector<std::string> *remarks);
// Why the job's names cannot be made by a replication at all; empty when they can.
std::string namesProblem(const MulticastJob &job);

// The lines of a replication's list for what a preview has shown.
struct RepairList {
  std::string text;
  size_t entries = 0;
  uint64_t bytes = 0;
  size_t gone = 0;      // wanted paths that are no longer there
  std::string problem;  // why it cannot be sent
};
RepairList listOf(const MulticastJob &job, const RepairOrder &order, const RepairPass &pass,
                  const Preview &preview);

// Why a host does not have what was sent to it; empty when it has.
std::string outcomeOf(const RepResult &result);
// The same of a second replication, which sends only what differs: all entries must be there.
std::string lookedAgain(const RepResult &result, size_t entries);

}  // namespace console
