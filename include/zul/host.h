/* What the module borrows from the process that loads it. A host exports these with C linkage. */
#ifndef ZUL_HOST_H
#define ZUL_HOST_H
#include <stdio.h>

/* A host defines these, and must not hide them from what it loads. */
#pragma GCC visibility push(default)
#ifdef __cplusplus
extern "C" {
#endif

extern char ZULhome[256]; /* installation root, no trailing '/', set before the first call */
extern FILE *backuplog;   /* status log of the current request or job; the module assigns it */
extern FILE *fplog;       /* the host's log, line-buffered or unbuffered, on a descriptor of 3 or more; may be null */
extern char cmdname[];    /* name the process shows; at least 16 writable bytes */

/* Reads and locks the site's credentials; may be called again; prints nothing. The result is ignored. */
int initpass(void);
/* Performs the login dialogue on a connected, blocking console socket. 0: logged in, nothing left unread;
 * anything else: refused, timed out or closed. Calls initpass itself where that is needed. */
int autoLogin(int sd);
/* Splits text in place at most count times; fields needs count + 1 entries, the last keeps the rest.
 * Returns the number of fields, at least 1. */
int insplit(char **fields, char *text, int separator, int count);
/* Copies a whole file, replacing the target. 0 on success. The two differ in their arguments only. */
int filecopy(const char *source, const char *destination);
int filecpy(const char *source, const char *destination, int flags);
/* args is "-rf PATH", flag 1: removes the tree PATH, following no links; only below ZULhome/var/tape.
 * 0 on success; a tree that does not exist counts as removed. */
int deldir(char *args, int flag);

#ifdef __cplusplus
}
#endif
#pragma GCC visibility pop
#endif
