// Fork hygiene. The module is a guest: its children must not repeat what the parent has buffered,
// must not hold what they were not given, and must leave without running the host's exit handlers.
#pragma once
#include <sys/types.h>

namespace base {

// Writes are then answered by EPIPE instead of a silent death: peers close when they have heard
// enough.
void ignoreSigpipe();

// Statuses of children are needed; with SIGCHLD ignored, as a host may leave it, waitpid would find
// none.
void defaultSigchld();

// fork after flushing every stream, so that no child writes its parent's lines a second time.
pid_t forkFlushed();

// Ends a child: flushes the streams it wrote to itself, then _exit.
[[noreturn]] void endProcess(int status);

// Detaches the calling process: its own session, mask 033, directory ZULhome, descriptors 0 to 255
// closed and /dev/null on 0 (read), 1 (write) and 2 (both). fplog and backuplog are pointed at
// stderr, because their old descriptor numbers will name other files soon.
void detachHere();

// waitpid without blocking: pid when it has ended (status filled), 0 while it runs, -1 when it is
// no child.
pid_t reapNow(pid_t pid, int *status);

}  // namespace base
