// The one door to tape drives. A path below "/dev/vtape/" is a virtual drive, served from image
// files under ZULhome/var/vtape; every other path goes to the kernel unchanged. Nothing above this
// interface knows which.
//
// Descriptors are plain ints, because they pass through exported functions that take one. A
// descriptor that was not opened here is handed to the kernel, so that tests may pass a file or a
// pipe. Results and errno are those of the kernel's tape driver in variable-block mode: one write
// makes one block; a read returns one block, ENOMEM and the block passed when it is longer than
// asked for, 0 once at a file mark; the last close after a write adds exactly one file mark; a
// second opener gets EBUSY.
#pragma once
#include <stddef.h>
#include <sys/mtio.h>
#include <sys/types.h>

namespace drive {

// True for a path that this layer serves itself.
bool isVirtual(const char *device);

// open(2). flags and mode as there; O_CLOEXEC is added. A virtual drive ignores O_CREAT, O_TRUNC
// and O_DSYNC.
int openDrive(const char *device, int flags, mode_t mode = 0);
// close(2). A virtual drive makes its file mark durable here when this was the last holder.
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
