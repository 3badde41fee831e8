/* Multicast replication: job definitions, what becomes of names and permissions, runs.
 *
 * Unless a comment says otherwise a function returns 0 for success and a negative number for a failure, which
 * it has reported in words by then.
 */
#ifndef ZUL_MREPL_H
#define ZUL_MREPL_H
#include <stddef.h>
#include <stdint.h>
#include <time.h>

#include "api.h"

/* --- Records of job definitions --- */

/* A list of texts. The first node is embedded in its owner, and the list always ends with a node without a
 * text: readers skip nodes whose text is null. */
typedef struct strNode {
  char *text;
  struct strNode *next;
} strNode;

/* The same with two texts a node; from is null in the last one. */
typedef struct pairNode {
  char *from;
  char *to;
  struct pairNode *next;
} pairNode;

/* A job file in memory. Zero it before readMreplJobData, release it with cncfree. */
typedef struct MreplJobData {
  char *description;    /*   0 */
  char *prefix;         /*   8 directory that all names are put under, or null */
  int32_t speed;        /*  16 the sender's rate setting */
  int32_t cntrlFlags;   /*  20 stored and printed, not interpreted */
  int32_t idNum;        /*  24 stored and printed, not interpreted */
  int32_t userID;       /*  28 owner to impose */
  int32_t groupID;      /*  32 group to impose */
  int32_t filePerms;    /*  36 permission word of files, see modifyPerms */
  int32_t dirPerms;     /*  40 permission word of directories */
  int32_t hostGroup;    /*  44 stored and printed, not interpreted */
  int32_t protocol;     /*  48 0 to 3; stored, not interpreted; 4 bytes of alignment follow */
  strNode excludeList;  /*  56 */
  strNode requestList;  /*  72 paths to send; a '/' at the end takes the whole tree */
  strNode hostList;     /*  88 receivers */
  strNode lastList;     /* 104 stored and printed, not interpreted */
  pairNode xformList;   /* 120 */
} MreplJobData;
ZUL_ASSERT(sizeof(MreplJobData) == 144 && offsetof(MreplJobData, protocol) == 48);
ZUL_ASSERT(offsetof(MreplJobData, excludeList) == 56 && offsetof(MreplJobData, requestList) == 72);
ZUL_ASSERT(offsetof(MreplJobData, hostList) == 88 && offsetof(MreplJobData, lastList) == 104);
ZUL_ASSERT(offsetof(MreplJobData, xformList) == 120);

typedef int (*mreplArg)(MreplJobData *job, char *value);
typedef struct cmdentry {
  const char *keyword; /* with its colon */
  mreplArg handler;    /* takes the value behind it; 0, or non-zero when it makes no sense */
} cmdentry;

/* The header of a file, at the start of the payload of its first datagram; all numbers big-endian there. */
typedef struct mfilehead {
  uint32_t magic;      /*   0 0x64456846, the bytes "dEhF" */
  char name[256];      /*   4 path; may fill */
  char reserved0[3];   /* 260 zero */
  uint8_t type;        /* 263 1 file, 2 directory, 3 link, 5 block, 6 character device, 7 other, 8 end of run */
  uint32_t owner;      /* 264 */
  uint32_t group;      /* 268 */
  uint32_t mode;       /* 272 the twelve permission bits */
  uint32_t reserved1;  /* 276 zero */
  uint32_t mtime;      /* 280 seconds since 1970 */
  uint32_t reserved2;  /* 284 zero */
  uint32_t atime;      /* 288 */
  uint32_t reserved3;  /* 292 zero */
  uint32_t size;       /* 296 bytes, low 32 bits; of links the length of the target and 1 */
  uint32_t reserved4;  /* 300 zero */
  uint32_t rdev;       /* 304 of devices */
  char reserved5[28];  /* 308 zero */
} mfilehead;
ZUL_ASSERT(sizeof(mfilehead) == 336 && offsetof(mfilehead, type) == 263);
ZUL_ASSERT(offsetof(mfilehead, owner) == 264 && offsetof(mfilehead, mode) == 272);
ZUL_ASSERT(offsetof(mfilehead, size) == 296 && offsetof(mfilehead, rdev) == 304);

/* --- mrepl/mrepl: requests about jobs; mreplicate itself is in module.h --- */

/* "get jobids": prints the numbers of all jobs, divided by commas. */
ZUL_API int mreplgetjobids(void);
/* "get jobid N": prints a job as a job file. */
ZUL_API int mreplgetjob(int jobid);
/* "set jobid N": takes a job file from standard input, line by line behind the console's prompt. 0; -1
 * number, -2 cannot be stored. */
ZUL_API int mreplset(int jobid);
/* "del jobid N". */
ZUL_API int mrepldel(int jobid);
/* "replicate N": starts the receivers on the job's hosts, then sends; returns when the run is over. -99 starts
 * no receivers. 0 whatever the run came to; -1 without a job. */
ZUL_API int mreplstart(int jobid);
/* "mrepclnt": becomes a receiver. Always 0. */
ZUL_API int mrepclntstart(void);

/* --- mrepl/cnc: job files --- */

/* The keywords of job files in the order in which they are tried, closed by a pair of nulls. */
ZUL_API cmdentry cmdlist[17];

/* Reads a job file into a zeroed record. 0, or -1 when it cannot be opened, or not read whole for want of memory; a
 * line that makes no sense is reported and passed over. */
ZUL_API int readMreplJobData(MreplJobData *job, int jobid);
/* Frees all texts and nodes of a record, not the record. */
ZUL_API void cncfree(MreplJobData *job);
/* The handlers of cmdlist. -1: the value makes no sense; -2 (argXform -3): out of memory. */
ZUL_API int argHost(MreplJobData *job, char *value);
ZUL_API int argRequest(MreplJobData *job, char *value);
ZUL_API int argExclude(MreplJobData *job, char *value);
ZUL_API int argLast(MreplJobData *job, char *value);
ZUL_API int argHostGroup(MreplJobData *job, char *value);
ZUL_API int argXform(MreplJobData *job, char *value);
ZUL_API int argDescription(MreplJobData *job, char *value);
ZUL_API int argPrefix(MreplJobData *job, char *value);
ZUL_API int argIDnum(MreplJobData *job, char *value);
ZUL_API int argSpeed(MreplJobData *job, char *value);
ZUL_API int argCntrlFlags(MreplJobData *job, char *value);
ZUL_API int argUserID(MreplJobData *job, char *value);
ZUL_API int argGroupID(MreplJobData *job, char *value);
ZUL_API int argFilePerm(MreplJobData *job, char *value);
ZUL_API int argDirPerm(MreplJobData *job, char *value);
ZUL_API int argProtocol(MreplJobData *job, char *value);

/* --- mrepl/names: what the packer does to each header. Settings of the process. --- */

/* Sets the transforms to a job's list, which must live as long as they are used. The first pair is copied. */
ZUL_API void setXformDataStruct(pairNode *first);
/* Modes 0 and -1: the first pair; 1: the second, or the first when there is no second. 0; -1 without pairs. */
ZUL_API int getNextXformPair(int mode, char **from, char **to);
/* Replaces a name by the first pair that matches; name has room for 256 bytes. 1 changed, 0 not; (sound) -1: the
 * new name would not fit, name is unchanged and the file must be left out. */
ZUL_API int xformPrefix(char *name);
/* Mode 1: sets the prefix, at most 256 characters, or with null none. Mode 0: puts it before a name in a buffer
 * of 256 bytes; 1 when the result would not fit: name is unchanged, and on sound sites the file must be left
 * out, or receivers would write to the path itself instead of below the prefix. */
ZUL_API int addPrefix(int mode, char *text);
/* Modes 1 and 2: sets what files and directories get, from owner, group and mode (a permission word, host
 * order). Mode 0: applies it to a header as it travels (big-endian). Always 0. A permission word: bits 0 to 11 the
 * permissions, 4096 keep the file's own, 8192 keep its group, 16384 keep its owner, 32768 (files) allow
 * set-user-id. */
ZUL_API int modifyPerms(int mode, mfilehead *rec);
/* Sets the transforms from a file of lines "from to". 0, or -1 when it cannot be read. */
ZUL_API int readXformList(const char *path);

/* --- Records of runs --- */

#define MR_GROUP "239.240.240.240"
#define MR_DATA_PORT 2345 /* UDP: segments, sender to group */
#define MR_REQ_PORT 2346  /* UDP: requests, receivers to sender */
#define MR_PAYLOAD 1024
#define MR_SEND_SLOTS 16384
#define MR_RECV_SLOTS 4096
#define MR_SEND_AREA 17498188 /* bytes of the sender's shared area */
#define MR_RECV_AREA 4374596  /* bytes of a receiver's */
#define MR_INLINE_OFF 336     /* where the payload of a header segment goes on */
#define MR_INLINE_MAX 688     /* bytes behind it */
#define MR_HEAD_MAGIC 0x64456846u /* "dEhF" */

/* A segment as it travels: one datagram, all numbers big-endian. */
typedef struct mseg {
  char magic[4];            /*  0 "PaCk" */
  uint32_t sendTime;        /*  4 (seconds modulo 256) * 1000000 + microseconds of the sender's clock */
  uint32_t high;            /*  8 number of the segment, high word */
  uint32_t low;             /* 12 low word */
  uint32_t waitTime;        /* 16 the sender's wait between two segments, microseconds */
  uint32_t control;         /* 20 bit values: 2 enciphered; 4, 8 and bits 8 to 31 see docs/protocols/multicast.md */
  char pfin[4];             /* 24 "PfIn", or zero in a retransmission */
  char sent[4];             /* 28 "ErR!" never sent, "SeNd", or zero in a retransmission */
  char payload[MR_PAYLOAD]; /* 32 */
} mseg;
ZUL_ASSERT(sizeof(mseg) == 1056 && offsetof(mseg, pfin) == 24 && offsetof(mseg, payload) == 32);

/* A slot of a ring. A receiver keeps the numbers of seg in host order. */
typedef struct mslot {
  uint32_t low;      /*  0 number of the segment in host order (sender) */
  uint32_t high;     /*  4 */
  uint8_t flag;      /*  8 sender: retransmission wanted; receiver: missing */
  uint8_t state;     /*  9 receiver: 0 empty, 1 holds a segment, 2 reserved */
  uint16_t reserved; /* 10 zero */
  mseg seg;          /* 12 */
} mslot;
ZUL_ASSERT(sizeof(mslot) == 1068 && offsetof(mslot, seg) == 12);

/* A retransmission request as it travels, big-endian. */
typedef struct mreq {
  uint32_t sendTime; /*  0 of the segment that the receiver took in last */
  uint32_t high;     /*  4 the first missing segment */
  uint32_t low;      /*  8 */
  uint32_t count;    /* 12 how many are missing from there */
} mreq;
ZUL_ASSERT(sizeof(mreq) == 16);

/* The sender's shared area: this, then MR_SEND_SLOTS slots. */
typedef struct msendctrl {
  uint32_t senderState;  /*  0 data sender: 1 running, 8 ended */
  uint32_t lastSentHigh; /*  4 last segment transmitted for the first time */
  uint32_t lastSentLow;  /*  8 */
  uint32_t segmentSize;  /* 12 1024 */
  uint32_t ringSlots;    /* 16 16384 */
  uint32_t freeTillHigh; /* 20 up to here slots may be filled again */
  uint32_t freeTillLow;  /* 24 4 bytes of alignment follow */
  int64_t waitTime;      /* 32 microseconds between two transmissions */
  int32_t lastRtt;       /* 40 last round trip, microseconds */
  int32_t smoothedRtt;   /* 44 */
  int32_t maxRtt;        /* 48 */
  uint32_t packerState;  /* 52 packer: 0 not yet, 1 running, 8 ended */
  uint32_t filledHigh;   /* 56 the segment that the packer fills next */
  uint32_t filledLow;    /* 60 */
  uint32_t controlWord;  /* 64 goes into every datagram */
} msendctrl;
ZUL_ASSERT(sizeof(msendctrl) == 72 && offsetof(msendctrl, freeTillLow) == 24);
ZUL_ASSERT(offsetof(msendctrl, waitTime) == 32 && offsetof(msendctrl, packerState) == 52);
ZUL_ASSERT(sizeof(msendctrl) + (size_t)MR_SEND_SLOTS * sizeof(mslot) <= MR_SEND_AREA);

/* A receiver's shared area: this, then MR_RECV_SLOTS slots. */
typedef struct mrecvctrl {
  uint32_t getterState;    /*  0 getter: 1 running, 8 ended */
  uint32_t receivedHigh;   /*  4 segment taken in last; sound: the furthest one */
  uint32_t receivedLow;    /*  8 */
  uint32_t contiguousHigh; /* 12 up to here nothing is missing */
  uint32_t contiguousLow;  /* 16 */
  uint32_t extractToHigh;  /* 20 where the next search for gaps starts */
  uint32_t extractToLow;   /* 24 4 bytes of alignment follow */
  int64_t waitTime;        /* 32 the sender's wait time, microseconds */
  uint32_t lastSendTime;   /* 40 send time of the last segment */
  uint32_t ringWord;       /* 44 16384 */
  uint32_t extracterState; /* 48 extracter: 1 running, 8 ended */
  uint32_t extractedHigh;  /* 52 the segment to extract next */
  uint32_t extractedLow;   /* 56 */
} mrecvctrl;
ZUL_ASSERT(sizeof(mrecvctrl) == 64 && offsetof(mrecvctrl, waitTime) == 32);
ZUL_ASSERT(offsetof(mrecvctrl, lastSendTime) == 40 && offsetof(mrecvctrl, extractedLow) == 56);
ZUL_ASSERT(sizeof(mrecvctrl) + (size_t)MR_RECV_SLOTS * sizeof(mslot) <= MR_RECV_AREA);

/* Id of the shared area of the run that this process takes part in. */
ZUL_API int shmid;

struct sockaddr_in;
struct timeval;

/* --- mrepl/determfiles: the paths of a run, in the packer --- */

/* Sets the paths to send (which 0) or to leave out (which 1); the list must live as long as it is used. */
ZUL_API void setFileList(strNode *list, int which);
/* Appends all paths of the run that were modified later than since. 0, or -2 out of memory. */
ZUL_API int buildFileList(time_t since);
/* Appends path and, of a directory, all below it; adds their sizes to total. 0, or -2. */
ZUL_API int scanDirectory(char *path, long *total, time_t since);
/* Mode 0 appends arg, a path (const char *); mode 1 makes arg (strNode *) the list that is appended to and handed
 * out. 0, or -2 out of memory. */
ZUL_API int addToIncList(int mode, void *arg);
/* The next path, owned by the list. 0, or -1 at the end. */
ZUL_API int getNextFile(char **path);
/* Appends the lines of a file to list. 0, -1 when it cannot be read, or -2 out of memory. */
ZUL_API int readFileList(const char *path, strNode *list);
/* Appends the lines of a file to the list that addToIncList works on. 0, -1 or -2. */
ZUL_API int readIncludeList(const char *path);

/* --- mrepl/filelist: packing --- */

/* Packs a job into the shared area shmid, in the packer process. 0; -1: the data sender did not start. */
ZUL_API int dataPacker(MreplJobData *job);
/* Packs the listed paths and the two end records. Always 0. */
ZUL_API int plainDataPacker(msendctrl *ctrl, mslot *ring);
/* Writes the header of path into the payload; type and size as in it. 0, or -1 when the header cannot carry it. */
ZUL_API int storeFileHeader(const char *path, mseg *segment, int *type, uint64_t *size);
/* Writes what stands behind the header, and opens a larger file for storeFileData; stored: content bytes in this
 * segment. 0, or -1. */
ZUL_API int storeNewFileData(const char *path, mseg *segment, int type, uint64_t *stored, uint64_t size);
/* Fills the batch of 16 segments from index *count on, at most *availsegs of them, with the open file's content
 * from *stored on; closes it when all is stored. 0; -1 (sound) when it holds less than its size says. */
ZUL_API int storeFileData(mseg *batch, uint64_t size, uint64_t *stored, int *count, int *availsegs);
/* Writes the end-of-transmission record, 336 bytes. Always 0. */
ZUL_API int makeEOTPkt(char *buffer);

/* --- mrepl/memfunc: a file seen through a view. One file per process. --- */

/* Opens a file for reading; view: its first viewsize bytes, zero behind its end. 0; -1 open, -2 read failed. */
ZUL_API int memMapOpen(const char *path, void **view, int viewsize);
/* Moves the view to an offset. 0, or -1. */
ZUL_API int memMapSeek(void **view, uint64_t offset);
/* Creates a file of this size for writing. 0; -1 open failed; -2 no room. */
ZUL_API int memMapWriteOpen(const char *path, void **view, int viewsize, uint64_t size);
/* Writes at *position and advances it. Bytes written, less than 1 when it failed. */
ZUL_API long memMapWrite(uint64_t *position, int length, const void *data);
/* 0, or -1 when nothing is open or closing failed. */
ZUL_API int memMapClose(void);

/* --- mrepl/mcommon: shared areas, byte order, sockets, the run's log --- */

/* A private area. Its id, or a negative value. */
ZUL_API int mkShMem(int size);
/* 1, or 0 when it cannot be removed. */
ZUL_API int rmShMem(int id);
/* The control block (msendctrl or mrecvctrl) and the ring of an area, attached once per process; -1 forgets. */
ZUL_API void *getCtrlPtr(int id);
ZUL_API mslot *getDataPtr(int id);
/* Four bytes, big-endian. */
ZUL_API void packul(void *buf, uint32_t value);
ZUL_API uint32_t unpackul(const void *buf);
/* The twelve permission bits of a mode as they travel, and back. */
ZUL_API uint32_t host2netmode(uint32_t mode);
ZUL_API uint32_t net2hostmode(uint32_t mode);
/* A UDP socket, and in to the address to send to. The socket; -1 bad address, -2 no socket. */
ZUL_API int mkUDPSenderSocket(int port, char *addr, struct sockaddr_in *to);
/* A non-blocking UDP socket on a port, and in addr what it is bound to. The socket; -1 socket, -2 bind,
 * -3 option, -4 non-blocking. */
ZUL_API int mkUDPListenerSocket(int port, struct sockaddr_in *addr);
/* A UDP socket that has joined a group. The socket; -1 socket or bad group, -3 option, -5 no interface,
 * -6 interface without address, -7 join. */
ZUL_API int mkMulticListener(int port, char *group, struct sockaddr_in *addr);
/* The first interface whose name begins with name, or with an empty name the first that is no loopback; name has
 * room for 16 bytes. 0, 1 none, -2 no memory, -3 cannot be listed. */
ZUL_API int getIfName(char *name);
/* Makes fplog the log of a run; ends the process when it cannot. */
ZUL_API void openLog(int server);
/* Sends a slot's datagram. 0, or the failure of sendto. */
ZUL_API int sendSeg(mslot *slot, struct sockaddr_in *to, int sd);
/* Sends a request. 0, or the failure of sendto. */
ZUL_API int reqresend(uint32_t sendTime, uint32_t high, uint32_t low, uint32_t count, int sd, struct sockaddr_in *to);

/* --- mrepl/mserv: the sending host --- */

/* Sends a job to all receivers that have joined. Returns 0 when the run is over; -2 request socket, -3 data
 * socket, another negative value: no shared area. */
ZUL_API int repServStart(MreplJobData *job);
/* The shortest wait between two segments in microseconds, -1 for none; the first speed other than 0 decides. */
ZUL_API int getMinWait(int speed);
/* Sends what the packer fills, until the run is over. 0, or -1 when there is no packer. */
ZUL_API int dataSender(struct sockaddr_in *to, int dataSd, struct sockaddr_in *reqAddr, int reqSd);
/* Sends the segment with this low word again, or the next new one when it is the last that was sent. 0, -1. */
ZUL_API int sendData(mslot *ring, msendctrl *ctrl, struct sockaddr_in *to, int sd, uint32_t choice,
                     struct timeval *now);
/* Frees a segment that is old enough; now: as in sendTime. 1 it stays, 0 it is free. */
ZUL_API int expireOldSegs(mslot *ring, msendctrl *ctrl, uint32_t segLow, uint32_t now);
/* Adapts the wait time to the round trip that a request for a segment tells. Always 0. */
ZUL_API int newWaitTime(mslot *ring, msendctrl *ctrl, uint32_t reqLow);

/* --- mrepl/mclnt: a receiving host --- */

/* Joins the group, says "TRANSFER OK" on stderr and receives one run. Returns 0 when it is over; -2 multicast
 * socket, -3 request socket, another negative value: no shared area. */
ZUL_API int repClientStart(void);
/* Takes in segments until the extracter has ended. 0, or -1. */
ZUL_API int getter(int mcastSd, struct sockaddr_in *groupAddr, int reqSd, struct sockaddr_in *senderAddr);
/* Takes in one datagram. The length of the first gap, 0 for none, -2 for a ring that overran. */
ZUL_API int processNewSeg(int reqSd, struct sockaddr_in *senderAddr, mrecvctrl *ctrl, mslot *ring, mseg *datagram);
/* Rebuilds files until the end of the run. 0, or -1 when the getter did not start. */
ZUL_API int extracter(void);
/* Takes one slot: a header or content. 0, -11 at the end of the run, else see logError. */
ZUL_API int fileExtractor(mslot *slot);
/* Takes a header; dataPending: its content follows. Results as of fileExtractor. */
ZUL_API int createNewFile(mslot *slot, mfilehead *headerCopy, int *dataPending);
/* Create one file each, from a header in host order. */
ZUL_API int restoreFile(mfilehead *header);
ZUL_API int restoreDir(mfilehead *header);
ZUL_API int restoreCDev(mfilehead *header);
ZUL_API int restoreBDev(mfilehead *header);
/* The target is read behind the record: it must lie in a payload. */
ZUL_API int restoreSlink(mfilehead *header);
/* The numbers of a header from big-endian to host order, in place. */
ZUL_API void convertFileEndian(mfilehead *header);
/* Writes the log line of a result. */
ZUL_API void logError(mfilehead *header, int code);
/* Hooks of a cipher; there is none. Always 0. */
ZUL_API int decryptHeader(mfilehead *header);
ZUL_API int decryptBlock(void *block, int length);
#endif
