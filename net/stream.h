// What the module's own streams need beyond the exported calls.
#pragma once
#include <stddef.h>
#include <sys/types.h>

namespace net {

// Writes head and then data under the terms of writen, without encryption in one system call where
// the kernel takes both: a small file is one packet and wakes its reader once. done gets the bytes
// known to be written, also after a failure. True when all are.
bool writeBoth(int fd, const void *head, size_t headBytes, const void *data, size_t dataBytes,
               size_t *done);

// readn that can be taken up again: done counts the bytes that are there. After a time-out the same
// call goes on behind them, and nothing is lost of what has come by then.
ssize_t readOn(int fd, void *buf, size_t n, size_t *done);

}  // namespace net
