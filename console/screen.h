// Progress in words: a block of lines that is drawn over and over on a terminal, or single lines
// for a pipe.
#pragma once
#include <string>
#include <vector>

#include "console/progress.h"

namespace console {

// What is drawn, fit into width columns and at most height lines: the job, a bar, and a line for
// each host as far as there is room (failed and running ones before those that wait or are done).
std::vector<std::string> drawProgress(const Progress &progress, int width, int height);

// "[#####-----]  50 %"; at least 10 columns wide. Without a known goal the bar is left out.
std::string drawBar(const Progress &progress, int width);

// One line for the total: "1234 files, 1.2 GiB, 55.0 MiB/s, 0:00:21, 0:00:43 left".
std::string totalText(const Progress &progress);

// The lines that tell what changed from before (null: the first record) to now, hosts' states above
// all.
std::vector<std::string> describeChange(const Progress *before, const Progress &now);

// The closing lines; which hosts failed has been told by then.
std::vector<std::string> describeEnd(const Progress &progress);

}  // namespace console
