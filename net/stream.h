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

// Reads n bytes however long they take. A time-out is no end, and what has come before it is kept:
// begun anew behind half a header, readn would take the other half and what follows it for one.
// False when there are not that many.
bool readPatiently(int fd, void *buf, size_t n);

}  // namespace net
