// What the front end asks about replication jobs.
#pragma once

namespace replication {

// True while a driver of the job is at work on this host. Always false without the remedies of the
// area receive: then nothing keeps two of them apart.
bool isRunning(int job);

}  // namespace replication
