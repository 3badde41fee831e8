// One job at a time works with the data port of a host: a gathering and a replication that meet
// there would talk to each other's peers.
#pragma once
#include "base/fd.h"

namespace net {

// Takes the lock of a host, for as long as the owner, or a child that inherits it, lives. False
// when another job has it. Where there can be no lock the job does without one. host is a path
// word.
bool lockHost(const char *host, base::Fd *lock);

}  // namespace net
