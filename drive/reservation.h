// A job uses its drive through several openings: it looks at the label, positions, writes the
// catalog copy, and opens once more for the data. Between two of them a rewind of somebody else
// would send the data to the beginning of the tape, over the label. A reservation keeps the other
// processes of this installation out: to them the drive is busy.
#pragma once
#include <sys/types.h>

#include "base/fd.h"

namespace drive {

// The process whose reservation keeps this one out; 0 for none.
pid_t keeperOf(const char *device);

// One reservation at a time in a process. The kernel ends it with the process; a child does not
// inherit it.
class Reservation {
 public:
  Reservation() = default;
  Reservation(const Reservation &) = delete;
  Reservation &operator=(const Reservation &) = delete;
  ~Reservation();

  // False while another process has the drive reserved. Where no lock can be made, on a full disk
  // for one, the job does without.
  bool take(const char *device);

 private:
  base::Fd lock_;
};

}  // namespace drive
