// The tape writer's side of a chunk mailbox, for the job driver.
#pragma once
#include <stdint.h>
#include <stdio.h>
#include <zul/records.h>

namespace tape {

// What became of one package.
enum class Copy {
  taken,         // it is on tape, and the child may send the next one
  nothing,       // the slot's words say that its file is complete already: left where it is
  mailboxLost,   // the mailbox cannot be opened any more: this host is at its end
  mailboxShort,  // the mailbox holds less than was announced: this host is at its end
  headerFailed,  // the tape refused the header
  dataFailed,    // the tape refused data
};

struct Copied {
  Copy outcome;
  bool newFile;      // the package was the first of a file
  bool reachedTape;  // at least one block was written
  uint64_t bytes;    // taken from the mailbox, header included
  int error;         // errno of the failure
};

// Copies the package in the slot's mailbox to the tape and notes it in the volume list.
Copied copyPackage(ipc *slot, int tapefd, FILE *vollist);

// Removes the mailbox of a host. 0 or -1.
int removeMailbox(const char *host);

}  // namespace tape
