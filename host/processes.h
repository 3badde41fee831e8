// The processes that work for this home: requests that run, and the jobs that came of earlier ones,
// under this daemon or one before it.
#pragma once
#include <sys/types.h>
#include <time.h>

#include <string>
#include <vector>

namespace host {

struct WorkProcess {
  pid_t pid = 0;
  pid_t parent = 0;
  pid_t group = 0;
  char state = '?';  // as the kernel names it: R, S, D, T, Z
  time_t started = 0;
  std::string request;  // the request line it came of
  std::string tag;      // the name the module gave it, where it did and it can be read
};

// All of them but the calling process, by pid. Recognised by their program's name and their working
// directory, which is the home: sessions and the listener stand elsewhere.
std::vector<WorkProcess> workProcesses();

// Looks at one process; false when it is none of this home's.
bool readWorkProcess(pid_t pid, WorkProcess &process);

}  // namespace host
