/* TCP replication and what its receiver shares with the restore agent. */
#ifndef ZUL_REPLICATION_H
#define ZUL_REPLICATION_H
#include "api.h"
#include "records.h"

/* Decides where a received file goes. path has room for 256 bytes and is empty when the file is not wanted.
 * root stands before the header's name; conflict: 0 keep both (the new one as "NAME.0", ".1", ...), 2 replace if
 * the modification times differ, 4 always, 8 if the new one is newer, anything else never. 0 or -1. */
ZUL_API int wantFile(package *header, char *root, int conflict, char *path);
#endif
