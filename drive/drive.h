// The one door to tape drives. A path below "/dev/vtape/" is a virtual drive, served from image
// files under ZULhome/var/vtape (docs/formats/vtape.md); every other path goes to the kernel
// unchanged. Nothing above this interface knows which.
//
// Descriptors are plain ints, because they pass through exported functions that take one. A
// descriptor that was not opened here is handed to the kernel, so that tests may pass a file or a
// pipe. Results and errno are those of the kernel's tape driver in variable-block mode: one write
// makes one block; a read returns one block, ENOMEM and the block passed when it is longer than
// asked for, 0 once at a file mark; the first write ends the tape where it stands; the last close
// after a write adds exactly one file mark; a second opener gets EBUSY. A drive stays busy as long
// as any process holds a copy of the descriptor, and a child goes on where its parent stands.
// tests/conformance has every point, for both kinds of drives.
//
// A drive is for one thread at a time, and processes that share one take turns. An alarm may jump
// out of readBlock and waitReadable.
#pragma once
#include <stddef.h>
#include <sys/mtio.h>
#include <sys/types.h>

namespace drive {

// True for a path that this layer serves itself.
bool isVirtual(const char *device);

// open(2). flags and mode as there; O_CLOEXEC is added. A drive that another process has reserved
// (drive/reservation.h) is EBUSY. On a virtual drive O_CREAT, O_TRUNC and
// O_DSYNC have no effect, and an empty one is ENOMEDIUM at once.
int openDrive(const char *device, int flags, mode_t mode = 0);
// close(2). When this was the last holder of a drive that was written to, the file mark is written
// here, and on disk in the case of a virtual drive; -1 with errno says that it could not be. The
// descriptor is closed in any case. A drive that is closed by plain close(2), or whose holder is
// killed, gets its mark too: from the kernel, or from the next one to open it.
int closeDrive(int fd);
// Lets go of an inherited descriptor in a child, without touching the tape.
void abandonDrive(int fd);

ssize_t readBlock(int fd, void *buf, size_t n);
ssize_t writeBlock(int fd, const void *buf, size_t n);

// MTIOCTOP: 0, or -1 with errno.
int operate(int fd, short operation, int count);
// MTIOCGET: 0, or -1 with errno.
int status(int fd, mtget *out);

// Waits until a read will not block, at most timeoutMs: 1, 0 on time-out, -1. A virtual drive is
// always ready.
int waitReadable(int fd, int timeoutMs);

// True for a kernel tape node that rewinds at every close: positions do not survive on it.
bool isRewindingNode(const char *device);

}  // namespace drive
