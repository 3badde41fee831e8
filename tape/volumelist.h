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

// The volume that is being written; one per process. The tape writer tells what it takes from each
// host's mailbox.
//
// Under "sound" (area restore) entries are numbered from 1, one number per file, so that an
// operator can pick one; classic numbers everything 0. Under "sound" (area backup), where the hash
// library is installed, the digest of a file is written with its last package; a file whose
// packages are broken off gets none. Before beginVolume nothing is numbered and nothing is
// digested.
void beginVolume(const char *volumeList, int hosts);
// A package was taken: its entry number.
int beginPackage(int host, const package &header);
void addData(int host, const void *data, size_t n);
void endPackage(int host);
// False when digests could not be written.
bool endVolume();

}  // namespace tape
