// Replication for operators: jobs, the names they change, and running them.
#pragma once
#include <functional>
#include <string>
#include <vector>

#include "console/connection.h"
#include "console/failure.h"
#include "console/repjob.h"

namespace CLI {
class App;
}

namespace console {

// --- replication.cpp ---

struct ReplicateOptions {
  Target target;
  std::string job;
  std::string only;          // names of members with commas between; empty: all
  bool retryFailed = false;  // those that did not succeed in the last run
  bool follow = false, json = false, dryRun = false;
};
// Starts a run; with follow waits for its end, tells what became of each host, and is done only
// when all of them have everything.
Exit runReplication(const ReplicateOptions &options);

// --- repjobs.cpp ---

struct RepJobOptions {
  Target target;
  int number = 0;
  RepJobWords words;
  std::vector<std::string> paths;  // for the job's list
  bool json = false;
};
Exit addRepJob(const RepJobOptions &options);
Exit changeRepJob(const RepJobOptions &options);
Exit listRepJobs(const RepJobOptions &options);
Exit removeRepJob(const RepJobOptions &options);
// A Failure when there is no such job: the agent accepts every number, and says so in a log alone.
void expectRepJob(Connection &connection, const std::string &job);

struct TransformOptions {
  Target target;
  int job = 0;
  std::string prefix, newPrefix, replacement;
  bool json = false;
};
Exit addTransform(const TransformOptions &options);
Exit changeTransform(const TransformOptions &options);
Exit listTransforms(const TransformOptions &options);
Exit removeTransform(const TransformOptions &options);

// --- replicationwords.cpp ---

// Adds the commands to zul. Each sets run to what it does when it is chosen; target is asked then.
void addReplication(CLI::App &app, const std::function<Target()> &target,
                    std::function<Exit()> &run);

}  // namespace console
