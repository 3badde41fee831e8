// Where job files lie and how long their lines may be.
#pragma once
#include <stddef.h>

#include "base/text.h"

namespace mrepl {

constexpr size_t kLineMost = 2043;  // characters of a line; what is longer comes in pieces

constexpr const char *kJobFolder = "var/tape/mrepljobs/";
constexpr const char *kJobName = "mrepjob.";

class JobPath : public base::HomePath {
 public:
  explicit JobPath(int jobid) : base::HomePath("%s%s%i", kJobFolder, kJobName, jobid) {}
};

}  // namespace mrepl
