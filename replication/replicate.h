// TCP replication as the rest of the module sees it.
#pragma once

// Runs a replication job in this process; job is a decimal text. 0, or negative.
int replicate(const char *job);
// Receives a replication: creates the files below destination under a conflict mode. 0, or
// negative.
int replicateIt(char *destination, int conflict);
