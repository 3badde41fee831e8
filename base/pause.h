// Every fixed pause and polling interval of the module, named, with its classic length.
//
// A pause is time given to another process to get ready. Where the area "pace" is sound, readiness
// is looked for instead and the pause is gone (its sound length is 0, or the interval of the look).
// Time-outs that bound a failure are not pauses and do not stand here. Any row can be set in the
// site file as "pause.NAME = 10s" (ms, s or m), in both behaviours.
#pragma once

namespace base {

enum class Pause {
  ListStart,       // look whether the list generator's first process has ended, 100 times
  ListGrace,       // head start of the list generator before the gatherer reads its list
  Idle,            // what one "Idle" costs, on both sides
  EmptyRead,       // between two reads of a stream that has ended
  GatherChild,     // before a gathering child of a backup job begins
  GathererStart,   // before the child connects to the gatherer it asked for
  ParentPoll,      // longest wait of a gathering child for a word of its parent
  ChunkAck,        // longest wait between two looks at a package not yet taken, 10,000 looks
  MailboxRetry,    // before a mailbox whose position cannot be set is tried again
  PackagePoll,     // longest wait of the tape writer for a word of its gathering children
  DriveBusy,       // before a busy drive is opened again
  DriveBusyTries,  // not a time: how often a busy drive is opened
  LabelSettle,     // around the writing of a label
  TapeRetry,       // before a failed read of a tape is tried again
  ConnectRetry,    // before a refused data connection is tried again (sound only)
  StoreLock,       // between two looks at the lock of a store that another request changes
  ReceiverStart,   // before a tape host connects to the restore agent it asked for
  ReceiverReady,   // before a restore agent that was connected to asks for the first file
  ReceiverPoll,    // between two reads of a restore agent that says nothing
  ReplicateStart,  // behind the start of each sending process of a replication
  ReplicatePoll,   // longest time between two looks at the sending processes
  kCount
};

// The length in force, in milliseconds (a plain number for DriveBusyTries).
int pauseLength(Pause pause);
// Sleeps that long; a signal that is caught does not cut it short.
void pauseFor(Pause pause);
// Sleeps ms milliseconds on the monotonic clock, going on after signals.
void sleepMs(int ms);
// Milliseconds of the monotonic clock.
long long nowMs();

// For the site file: the row called name, or kCount.
Pause pauseByName(const char *name);
// For the site file: sets a row in both behaviours; -1 puts the default back.
void setPause(Pause pause, int length);

}  // namespace base
