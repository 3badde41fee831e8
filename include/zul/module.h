/* The module's two entries and its exported variables. */
#ifndef ZUL_MODULE_H
#define ZUL_MODULE_H
#include "api.h"

/* One TAPE request: line is the text behind the request word, without its line feed, and is modified.
 * 0 done, 1 failed, -9 the status log cannot be opened. Call it in a process of its own: an unknown word
 * ends the process (status 255), "server" ends it, and a job that daemonises ends it with 0 while the
 * detached process returns from this call much later and must then simply exit. */
ZUL_API int tapetool(char *cmdline);

/* One MREPL request, under the same terms. */
ZUL_API int mreplicate(char *cmdline);

/* Debug switches, a bit mask; only multicast runs look at it. */
ZUL_API int dlvl;

/* Id of the shared segment of the backup job that this process belongs to; -1 before there is one. */
ZUL_API int tpshmid;
#endif
