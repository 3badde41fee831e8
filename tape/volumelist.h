// The volume list beside a tape's catalog, "vol.N": one line per package, in tape order; and its
// companion "vol.N.sum", one line per whole file with the digest of its content.
#pragma once
#include <stdint.h>
#include <stdio.h>
#include <zul/records.h>

namespace tape {

// A name as it stands in a list. Names may hold anything but a NUL: a line feed would end the line
// and begin one that somebody else made up, so control characters become '?', and so does a ':' in
// a host's name.
void listHost(char *to, size_t room, const char *host);
void listName(char *to, size_t room, const char *name);

// Digests of a volume that is being written. One volume per process.
//
// The tape writer tells what it takes from each host's mailbox; a file's line is written with its
// last package. A file whose packages are broken off gets none. begin is false, and the rest does
// nothing, without the hash library.
bool beginDigests(const char *volumeList, int hosts);
void digestPackage(int slot, const package &header);
void digestData(int slot, const void *data, size_t n);
void digestPackageEnd(int slot);
// False when lines could not be written.
bool endDigests();

}  // namespace tape
