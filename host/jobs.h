// The progress records of jobs, var/tape/jobids/*.progress: JSON objects that the module writes.
#pragma once
#include <nlohmann/json.hpp>

namespace host {

// All records that can be read, each with "file" (its path below the home) and "alive" (its process
// runs).
nlohmann::json readJobs();

}  // namespace host
