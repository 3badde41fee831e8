/* The tape side: the command front end, backup jobs, catalogs and tapes, configuration stores.
 *
 * Unless a comment says otherwise a function returns 0 for success and a small negative number for a
 * failure, which it has reported in words by then. Texts given to a function are modified in place where
 * their type allows it; texts handed back belong to the caller's buffer.
 */
#ifndef ZUL_TAPE_H
#define ZUL_TAPE_H
#include <stdio.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <time.h>

#include "api.h"
#include "records.h"

/* --- tape/tapetool: the front end --- */

/* Cuts line into at most max words at white space; the last keeps the whole rest. Words found; entries of argv
 * beyond them are not touched. */
ZUL_API int wssplit(char **argv, char *line, int max);
/* Cuts a control character at the last or last but one position. 0 for an empty text, else 1. */
ZUL_API int stripCtrl(char *s);
/* "backup JOB LEVEL": releases the console, detaches, runs goBackup. */
ZUL_API int tapeBackup(char *rest);
/* "server ID SINCE": runs the file gatherer in this process. */
ZUL_API int goServer(char *rest);
/* "replicate JOB": releases the console, detaches, runs the job. */
ZUL_API int goReplicate(const char *rest);
/* "repclnt DESTINATION CONFLICT FLAGS": answers the encryption question, receives a replication. */
ZUL_API int goRepclnt(char *rest);
/* "resclnt DESTINATION CONFLICT": redirects all messages to its log, receives a restore. */
ZUL_API int goResclnt(char *rest);
/* "get", "add", "mod", "del": pick store and operation by the first word of rest. 0 or non-zero. */
ZUL_API int tapeGet(char *rest);
ZUL_API int tapeAdd(char *rest);
ZUL_API int tapeMod(char *rest);
ZUL_API int tapeDel(char *rest);

/* --- tape/backup: the job driver, lists, history --- */

/* Runs one backup job to its end; both arguments are decimal texts. 0 done; -1 record, drive, catalog or
 * catalog copy, -9 history, -11 -12 positioning, -994 (sound) tape write, -995 volume list, -998 catalog
 * backup copy, -999 shared memory; -993 (sound) one or more hosts failed. */
ZUL_API int goBackup(char *job, char *level);
/* The gathering phase. Kilobytes written in all, or -1.0. */
ZUL_API double processHostData(jobrun *job, int level, char *device, FILE *vollist);
/* Copies one package from a slot's mailbox to tape. 0; -1 mailbox lost, -5 tape write failed. */
ZUL_API int procFIFOData(ipc *slot, int tapefd, FILE *vollist);
/* Makes the mailbox of a slot. 0; -1 no segment, -3 cannot be made. */
ZUL_API int mkFIFO(int slot, int pid);
/* Writes a volume's catalog copy as a tape file. 0; -1 open, -2 write, -3 memory. */
ZUL_API int writeCat2Tape(char *device, catlgstru *record);
/* Makes a zeroed private segment of size bytes: its id, or -1. */
ZUL_API int tpmkShMem(int size);
/* The address of the segment, attached once per process whatever id later calls give; an id of -1 forgets
 * it. Null on failure. */
ZUL_API void *tpgetShMemPtr(int id);
/* Removes a segment: 1 on success, 0 on failure. */
ZUL_API int tprmShMem(int id);
/* Takes a failed job back out of the catalog. */
ZUL_API int backupFail(int drive, int tape, int volume);
/* Expands a backup list into a request list. newer: seconds since 1970. 0; -1 output, -2 input, -3 name too
 * long. */
ZUL_API int mkBackupList(char *backuplist, char *requestlist, time_t newer);
/* Walks one tree, appending lines to fd. path is a buffer of at least 4096 bytes and is restored; bytes grows
 * by the sizes seen, count by the lines written. */
ZUL_API int ScanDir(int fd, char *path, long *bytes, time_t newer, int *count);
/* Fills a header from the file system. transforms: prefix, replacement pairs ended by a null, or null.
 * 0, or -1 without a node name; a missing file gives type 5. */
ZUL_API int getFileData(char *path, package *header, char **transforms);
/* Prints a header on standard output. */
ZUL_API void prntFileData(package *header);
/* Lists a directory on stderr. */
ZUL_API int getdir(char *path);
/* Adds a run to the history. 0; -1 backup copy, -2 open, -3 write and restoring failed, -4 write failed. */
ZUL_API int updateHist(jobrun *job, time_t start);
/* Completes the run (start, job) and drops runs 180 days past their retention. 0; -1 backup copy, -2 copy
 * unreadable, -3 open, -4 parse, -5 write, -6 not found. */
ZUL_API int modHist(jobrun *job, time_t start, int status, long kbytes);
/* Prints the history of a host's groups on stderr. 0; -2 open, -4 parse. */
ZUL_API int dumpHostHist(char *host);
/* Pushes a job's backup list to the members of its group. */
ZUL_API int syncBackupLists(int job);
/* Starts the receiving command on a host: the connection, or -1 connect, -2 login, -3 short write. */
ZUL_API int startSyncClnt(char *host, int job);
/* Stores the list that arrives on standard input. 0; -1 create, -2 write. */
ZUL_API int reqSync(char *job);

/* --- tape/tapefun: tapes and catalogs, positioning and reading --- */

/* Labels a tape: "drive:field2:field3:field4:label". */
ZUL_API int addTape(char *args);
/* Removes a tape's catalog directory: "drive tape". */
ZUL_API int delTape(char *args);
/* Prints the label of the tape in a drive. */
ZUL_API int prtTapeHead(char *drive);
/* The device path of a drive; path has room for 256 bytes. */
ZUL_API int getTapePath(int drive, char *path);
/* A free tape number of a drive, or -1. */
ZUL_API int getNextTapeID(int drive);
/* Copies the drive table to stderr. */
ZUL_API int getTapeDrives(void);
/* Lists the tapes of a drive. */
ZUL_API int getTapes(char *drive);
ZUL_API int getTapeInfo(char *tapedir);
/* The label's name; room for 256 bytes, may fill them. */
ZUL_API int getTapeName(char *tapedir, char *name);
/* Loads a tape's catalog into records, which has room for 128: their number, or -2 memory, -3 open, -5 parse.
 * Their strings live in a buffer of the module until getTapeCatlg(NULL, NULL) releases it. */
ZUL_API int getTapeCatlg(char *tapedir, catlgstru *records);
/* Builds the volume record of a job. 0; 1 no backup list; -1. */
ZUL_API int fillCatlgstru(int job, catlgstru *record, int level);
ZUL_API void prntCatlgstru(catlgstru *record);
/* Appends a record to a tape's catalog. */
ZUL_API int storCatalg(int drive, int tape, catlgstru *record);
/* Lists the volumes of a tape: "drive tape". */
ZUL_API int getTapeVols(char *args);
/* Lists one directory of a volume: "drive tape volume host directory". */
ZUL_API int getVolCat(char *args);
ZUL_API int mtRewind(char *device);
/* Rewinds, then skips count file marks. */
ZUL_API int mtFSF(char *device, int count);
/* Positions behind the last volume: the new volume's number; -1 failure, -2 the path is no "/dev" path. */
ZUL_API int gotoNextVol(char *device, int drive, int *tape);
/* Reads the label of the tape in a drive, given as a decimal text; 0 even where there is none, with out as it
 * was: preset it. */
ZUL_API int getTapeHead(char *drive, tapehead *out);
/* Reads exactly n bytes from tape: n, or -1 wait failed, -2 60 s of silence, -3 failure. */
ZUL_API ssize_t readt(int fd, void *buf, size_t n);
/* Finds the next package header: raw gets its 520 stream bytes. 0; -1 read, -2 none found, -3 format. */
ZUL_API int getPackHead(int fd, char *raw, package *header);
/* Reads a header as it stands in memory: its size field, -1 read, -2 magic. */
ZUL_API long getPackageHead(int fd, char *buf);
/* Makes a directory and its missing parents. */
ZUL_API int rmkdir(const char *path, mode_t mode);

/* --- tape/restore: the restore job and the restore agent --- */

/* "DRIVE TAPE VOLUME HOST DESTINATION CONFLICT ENTRIES": checks the tape, builds the restore list, releases the
 * console, restores. ENTRIES: entry numbers of the volume list joined by ','; under "sound" also "@NAME", the
 * selection var/tape/jobids/select.NAME. 0; 1 too few words; -1. */
ZUL_API int goRestore(char *args);
/* Makes the restore list of a selection of entry numbers, one per line in indexfile. 0 or -1. */
ZUL_API int mkRestoreList(char *indexfile, char *volumelist, char *listfile);
/* Reads the catalog copy at the tape's position; its texts live in the module until the next call. 0 or -1. */
ZUL_API int readTapeCatlg(char *drive, catlgstru *record);
/* Asks a host's agent for a restore agent; the console stays open. 0; -1 no connection, -2 login, -3 write. */
ZUL_API int startRestoreClnt(const char *host, const char *destination, int conflict);
/* Serves the restore agent on host from the tape: the files of the list at listpath. extra is not used.
 * 0 at the end of the list; -1 connection or tape, -2 list, receiver or data, -4 packing, -5 sending. */
ZUL_API int restoreServ(int tape, const char *host, const char *extra, const char *listpath);
/* Told the errno of every tape read that failed. Always 0. */
ZUL_API int readError(int err);
/* Receives a restore below destination. 0 or -1. */
ZUL_API int restoreIt(char *destination, int conflict);
/* The same on a listening socket, which it closes. 0; -1 no connection or write, -2 no header, -3 format,
 * -4 a file failed. */
ZUL_API int restHandShk(int listener, char *destination, int conflict);
/* Takes the one segment that header introduces from the stream and writes it at path. 0, or negative. */
ZUL_API int getFilefromStream2(int sd, package *header, char *path);

/* --- tape/tapeconf: drives, jobs, backup lists, replication jobs, transforms --- */

/* "number:name:device:attribute:attribute" */
ZUL_API int addDrive(char *entry);
ZUL_API int modDrive(const char *number, char *entry);
ZUL_API int delDrive(const char *number);
ZUL_API int getJobids(void);
/* "job:group:retention:drive:fifth:0:name" */
ZUL_API int addJobids(char *text);
ZUL_API int modJobids(const char *job, char *text);
ZUL_API int delJobids(const char *job);
/* Fills a jobrec. */
ZUL_API int readJobid(int job, void *record);
ZUL_API int getBackupList(const char *job);
/* "job path" */
ZUL_API int addBackupList(char *args);
ZUL_API int delBackupList(char *args);
/* Loads a backup list into 128 slots; the texts stay valid until the next call. */
ZUL_API int readBackupList(int job, char **slots);
ZUL_API int getRepids(void);
ZUL_API int addRepids(char *text);
ZUL_API int modRepids(const char *job, char *text);
ZUL_API int delRepids(const char *job);
/* Fills a reprec. */
ZUL_API int readRepid(int job, void *record);
ZUL_API int getTrans(const char *job);
/* "job prefix>replacement" */
ZUL_API int addTrans(char *args);
ZUL_API int modTrans(const char *job, char *args);
ZUL_API int delTrans(const char *job, const char *prefix);
/* Loads the transforms of a job: buffer is 9728 zeroed bytes, table 32 entries, ended by two nulls.
   0; in a sound site -1 when there are more than it holds. */
ZUL_API int readTransforms(int job, char *buffer, char **table);
/* op 1 takes the policy from a reprec; any other op applies it to a package header. Always 0. */
ZUL_API int permctrl(int op, void *p);

/* --- tape/hostgroups: tape groups --- */

ZUL_API int getTapeGroup(void);
/* "group:member,member,...:name" */
ZUL_API int addTapeGroup(char *entry);
ZUL_API int modTapeGroup(const char *group, char *entry);
ZUL_API int delTapeGroup(const char *group);
/* Size of the group table in bytes, or -1. */
ZUL_API long getGroupFileSize(void);
/* Copies member index (from 1) into host, which has room for 64 bytes: the number of members, or -1 no table,
 * -3 no such member, -4 memory, -5 format. Answers from a cache of one group per process. */
ZUL_API int getGrpMember(int group, int index, char *host);
/* The member field of a group; hosts has room for 4096 bytes and may be filled. */
ZUL_API int getGroupHosts(int group, char *hosts);
/* The groups that list host, at most 32: how many. */
ZUL_API int getHostGrps(const char *host, int *groups);
#endif
