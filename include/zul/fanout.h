/* Commands on many hosts at once. */
#ifndef ZUL_FANOUT_H
#define ZUL_FANOUT_H
#include <stdint.h>
#include <time.h>

#include "api.h"
#include "mrepl.h"

/* One host of a fan-out. */
typedef struct hostEntry {
  uint32_t state; /*  0 1 and 2 connecting, 4 logged in, 8 first command sent, 16 first answer seen, 32 all
                         commands sent, 64 failed, 256 (with 1) done; 4 bytes of alignment follow */
  time_t started; /*  8 when its connection was begun */
  int32_t nextCmd; /* 16 index of the next command */
  int32_t sd;      /* 20 -1 before connecting */
  char *host;      /* 24 */
  char *cmd;       /* 32 the command being sent */
  char *buf;       /* 40 response buffer of 16384 bytes, or null: the host has to wait for one */
  int32_t fill;    /* 48 bytes in it */
} hostEntry;
ZUL_ASSERT(offsetof(hostEntry, started) == 8 && offsetof(hostEntry, sd) == 20);
ZUL_ASSERT(offsetof(hostEntry, buf) == 40 && offsetof(hostEntry, fill) == 48);

/* Runs the commands, a null-terminated array of lines with their line feeds, on all hosts, 40 at a time; a host
 * counts as started when it answers "TRANSFER OK". What hosts say goes to stderr, how each did to the job's
 * result file. 0 when every host is done; 1 out of memory. */
ZUL_API int minimonk(strNode *hosts, char **commands, int job);
/* Adds a host's line to tmp/mrepl.jobresult.JOB. status: 1 ok, 2 not connected, 3 login refused, 4 dialogue
 * broken, 5 command failed, 6 no response; any other adds no line. 0, or -1. */
ZUL_API int logHostStatus(int job, int status, hostEntry *entry);
/* Prints a host's response, closes its connection and hands its buffer to the next of the count entries that
 * waits for one, searching from index on. Always 0. */
ZUL_API int hostFinished(int count, int index, hostEntry *entries);
/* Adds text to a host's response. 0, or -1 when not all of it fits. */
ZUL_API int saveResponse(hostEntry *entry, const char *text);
#endif
