/* TCP replication and what its receiver shares with the restore agent. */
#ifndef ZUL_REPLICATION_H
#define ZUL_REPLICATION_H
#include "api.h"
#include "records.h"

/* --- replication/replicate: the job driver on the sending host --- */

/* Runs a replication job in this process. job is its number as a text; behind it and a blank may stand "@" and
 * names of members, with commas between, to serve these only. 0 when every target has been handled; -1 unknown job,
 * or no list can be built; -2 (sound) a host failed. */
ZUL_API int replicate(const char *job);
/* Starts the builder of a job's request list, detached. arg is handed to mkBackupList. 0, or -1. */
ZUL_API int mkRlist(int job, int arg);
/* Serves one target. record is a reprec. 0 or -1. */
ZUL_API int replicateChld(const char *host, void *record);
/* Starts the receiver on a target: the open agent connection; -1 no connection, -2 login refused, -3 request not
 * written, -4 no line feed within 64 bytes of reply, -5 connection closed meanwhile, -6 read error, or (sound) no
 * encryption though the flags ask for it. */
ZUL_API int startReplicateClnt(const char *host, const char *destination, int conflict, int flags);

/* --- replication/receive: the receiver on a target --- */

/* Receives a replication below destination, on the data port. 0 or -1. */
ZUL_API int replicateIt(char *destination, int conflict);
/* The same on a listening socket, which is closed. 0 at the end of the list; -1 write failure or no connection,
 * -2 no header, -3 header format, -4 a file failed. */
ZUL_API int repHandShk(int listener, char *destination, int conflict);
/* Decides where a received file goes. path has room for 256 bytes and is empty when the file is not wanted.
 * root stands before the header's name; conflict: 0 keep both (the new one as "NAME.0", ".1", ...), 2 replace if
 * the modification times differ, 4 always, 8 if the new one is newer, anything else never. 0 or -1. */
ZUL_API int wantFile(package *header, char *root, int conflict, char *path);
/* Reads one file, header first, and creates it. 0; -1 link text, -2 no directory, -3 cannot open, -4 no parent,
 * -5 owner or permissions, -8 first header, -9 repeated header, -10 data cannot be read; (sound) -11 not written. */
ZUL_API int getFilefromStream(int sd, char *path);
#endif
