/* The agent network layer: byte streams, the package header, agent connections, the gatherer's
 * dialogue. */
#ifndef ZUL_NET_H
#define ZUL_NET_H
#include <stdio.h>
#include <sys/types.h>

#include "api.h"
#include "records.h"

/* --- net/borrowed: streams and process helpers. Lengths are bytes. --- */

/* Writes all n bytes. n; -1 time-out (60 s without progress) or failure; -9 encryption without its
 * hook. */
ZUL_API ssize_t writen(int fd, const void *buf, size_t n);
/* Reads exactly n bytes. n; 0 for n = 0; -1 wait failed; -2 60 s of silence; -3 peer gone with
 * errno ENOENT (a line on stderr); -4 any other end or failure; -9 encryption without its hook. */
ZUL_API ssize_t readn(int fd, void *buf, size_t n);
/* Reads one line, a byte per call, never past its line feed. Bytes stored, line feed included; one
 * more than stored when the buffer filled or the stream ended inside a line; 0 at end of stream; 1
 * for size <= 1; -1 wait failed, -2 30 s of silence, -3 failure, -9 encryption without its hook.
 * Always terminated. */
ZUL_API ssize_t readnline(int fd, void *buf, size_t size);
/* The same on a local descriptor: no time-out, no encryption; -1 on failure. */
ZUL_API ssize_t zul_getline(int fd, void *buf, size_t size);
/* Writes all n bytes without a time-out, retrying EAGAIN at once. n or -1. */
ZUL_API ssize_t writef(int fd, const void *buf, size_t n);
/* Detaches: the caller's process exits 0 inside the call; the detached one gets 0, with descriptors
 * 0 to 2 on /dev/null, all others up to 255 closed, mask 033 and directory ZULhome. -1: cannot
 * fork. */
ZUL_API int mkDaemon(void);
/* Sets TCP_NODELAY of sd to value. 0 or -1. */
ZUL_API int nagleOnOff(int sd, int value);

/* --- net/net: the package header and agent connections --- */

/* Record to 520 stream bytes: 0..299 hold the fields big-endian (filename at 7, usrid 264, grpid
 * 268, mode 272, mtime 276, atime 280, size 284, sequence 288, unused1 292, unused2 296; times and
 * size their low 32 bits), 300..519 are the record's own bytes, so 300..303 hold the high word of
 * size, little-endian. Always 0. */
ZUL_API int packPackage(char *obuff, package *ipack);
/* The reverse; times and size are zero-extended (with the stream remedies size takes bytes 300..303
 * as its high word), both texts end inside their field, the magic is not checked. Always 0. */
ZUL_API int unpackPackage(char *ibuff, package *opack);
/* Connects to a host's agent console, at most 8 s. The socket, or -1 after a message on stderr. The
 * alarm stays pending: the caller cancels it once the login is over. */
ZUL_API int mkZULagentSD(const char *host);
/* Starts a non-blocking connection, with messages. The socket, connected or connecting, or -1. */
ZUL_API int mkZULagentSD_nb(const char *host);
/* The same; msgs 1 prints failures, 0 is silent. */
ZUL_API int mkZULagentSD_nb_Real(const char *host, int msgs);
/* The empty SIGALRM handler in force while mkZULagentSD connects. */
ZUL_API void mkZULagentSD_alarm(int sig);
/* A socket listening on the console service: the socket, -1 no socket, -2 bind, -4 listen failed.
 */
ZUL_API int mkZulSrvSD(void);
/* The encryption switch of this process: 0 turns it off, 1 on, any other value asks. The switch, 0
 * or 1. */
ZUL_API int shouldEncrypt(int arg);
/* 1 when the key file and the encryption library are both there. */
ZUL_API int hasScram(void);
typedef int (*scramfn)(int fd, void *buf, size_t n);
/* The library's hook: 1 read, 2 write, 3 line; null when there is none or the switch is off. */
ZUL_API scramfn getScramPtrs(int type);

/* --- net/netserv: the file gatherer of a client host --- */

/* Serves one backup request and ends the process: 0 done, 255 failed. Returns -1 only when the list
 * generator cannot be started. since: entries of trees modified later than this (seconds since
 * 1970) are sent. */
ZUL_API int server(int reqid, int since);
/* Starts the list generator detached. 0 or -1. */
ZUL_API int mkFlist(int reqid, int since);
/* A socket listening on the data service; ends the process with 255 when there can be none. */
ZUL_API int mkServerSD(void);
/* Answers Next, Get, Idle and Quit. repmode 0: sd listens and one connection is accepted; else sd
 * is connected and headers pass through permctrl. transforms: prefix, replacement pairs ended by a
 * null. 0 done; -1 timer or list, -3 header, -4 packing, -7 time-out, -8
 * (replication, sound) the peer is gone. */
ZUL_API int servHandshak(int repmode, int sd, const char *path, char **transforms);
/* The next path of a request list, in a buffer of its own that the next call reuses; null at the
 * end. */
ZUL_API char *getLineList(FILE *fp);
/* Sends one file, framed. Bytes written; -1 cannot open, -2 write failed, -3 header, -4 packing. */
ZUL_API long sendFile(int repmode, int sd, char *path, char **transforms);
/* SIGALRM action of servHandshak. */
ZUL_API void stimo_handler(int sig);

/* --- net/netclient: the gathering child of a backup job --- */

/* Gathers one host into slot slotno. 0 done, -1 not started, -2 no status file; ends the process
 * with 255 on fatal failures, with 0 when the parent says stop. */
ZUL_API int goBackupChld(int slotno, const char *host, int reqid, int since);
/* Asks a host's agent for its gatherer. 0; -1 no connection, -2 login refused, -3 short write. */
ZUL_API int startBackupServ(const char *host, int reqid, int since);
/* A socket connected to the host's data service, or -1. */
ZUL_API int mkClientSD(const char *host);
/* Pulls every file of the list into the slot's mailbox. 0 at the end; -1 timer or write, -2 answer
 * to Next, -3 format, -4 socket read, -5 mailbox, -6 the tape writer took too long, -7 time-out, -8
 * (sound) corrupt header. */
ZUL_API int clientHandshak(int sd, ipc *slot);
/* SIGALRM action of clientHandshak. */
ZUL_API void timo_handler(int sig);
#endif
