/* The records that cross a process, a wire, a tape or a file, with every offset asserted.
 *
 * Integers are in the machine's own order (little-endian) unless a comment says otherwise; the big-endian
 * stream form of `package` is described beside packPackage in net.h. Texts are padded with zeros; those
 * marked "may fill" are not terminated when they fill their field, so print them with a precision.
 */
#ifndef ZUL_RECORDS_H
#define ZUL_RECORDS_H
#include <stddef.h>
#include <stdint.h>
#include <time.h>

#include "api.h"

#define PACK_SIZE 520
#define PACK_MAGIC 0x5A754C21u     /* the bytes "ZuL!" at the start of a stream header, read big-endian */
#define PACK_EOL_MAGIC 0x53743050u /* the bytes S t 0 P: the gatherer has no more files */
#define PACK_CHUNK 1048576         /* data bytes between two headers of one file */
#define PACK_PIECE 8192            /* data bytes moved by one call, and the longest data block on tape */
#define PACK_FILLER ((int32_t)0xa5a5a5a5)
#define TAPEHEAD_MAGIC 0x64416548u /* "HeAd" */
#define CATLG_MAGIC 0x2a546143u    /* "CaT*" */
#define CATLG_STRINGS 128
#define CATLG_FIXED 8200
#define IPC_SHM_SIZE 65536
#define ZUL_PORT 2345    /* service "zul": the agent's console */
#define ZULSRV_PORT 2346 /* service "zulsrv": file data */

/* One file on a stream or on tape. */
typedef struct package {
  uint32_t magic;     /*   0 PACK_MAGIC or PACK_EOL_MAGIC */
  uint8_t squez;      /*   4 always 0: nothing is compressed */
  uint8_t version;    /*   5 always 0 */
  uint8_t type;       /*   6 0 file, 1 directory, 2 link, 3 character device, 4 block device, 5 missing or other */
  char filename[257]; /*   7 path as the receiver is to create it, at most 256 characters and a NUL */
  uint32_t usrid;     /* 264 */
  uint32_t grpid;     /* 268 */
  uint32_t mode;      /* 272 the whole mode word of lstat; 4 bytes of alignment follow */
  uint64_t mtime;     /* 280 seconds since 1970 */
  uint64_t atime;     /* 288 */
  uint64_t size;      /* 296 data bytes that follow, headers not counted */
  int32_t sequence;   /* 304 0 in the first header of a file, 1, 2, ... in its repeats */
  int32_t unused1;    /* 308 device number of devices, else PACK_FILLER */
  int32_t unused2;    /* 312 PACK_FILLER */
  char fromhost[64];  /* 316 node name of the sender, at most 63 characters */
  char padding[136];  /* 380 zero; 516..519 are alignment, zero */
} package;
ZUL_ASSERT(sizeof(package) == PACK_SIZE);
ZUL_ASSERT(offsetof(package, usrid) == 264 && offsetof(package, mtime) == 280);
ZUL_ASSERT(offsetof(package, size) == 296 && offsetof(package, sequence) == 304);
ZUL_ASSERT(offsetof(package, fromhost) == 316 && offsetof(package, padding) == 380);

/* The label: the first block of every tape, and the file "header" of its catalog directory. */
typedef struct tapehead {
  uint32_t magic;      /*   0 TAPEHEAD_MAGIC */
  uint32_t reserved0;  /*   4 */
  int64_t created;     /*   8 seconds since 1970 */
  int32_t version;     /*  16 always 0 */
  char name[256];      /*  20 label; may fill */
  char device[256];    /* 276 device path of the drive that labelled it; may fill */
  char host[48];       /* 532 host that labelled it */
  int32_t drive;       /* 580 */
  int32_t tape;        /* 584 */
  int32_t field2;      /* 588 second field of the add request */
  int32_t field3;      /* 592 third field of the add request */
  char reserved[1460]; /* 596 zero */
} tapehead;
ZUL_ASSERT(sizeof(tapehead) == 2056 && offsetof(tapehead, drive) == 580);

/* One volume of a tape. On disk and on tape the first CATLG_FIXED bytes, then CATLG_STRINGS texts. */
typedef struct catlgstru {
  uint32_t magic;               /*    0 CATLG_MAGIC */
  uint32_t reserved0;           /*    4 */
  int64_t created;              /*    8 seconds since 1970 */
  int64_t retention;            /*   16 seconds */
  int64_t newer;                /*   24 always 0 */
  char hosts[4096];             /*   32 host list of the job's group; may fill */
  int32_t jobnum;               /* 4128 */
  int32_t group;                /* 4132 */
  char label[256];              /* 4136 the job's name; may fill */
  int32_t version;              /* 4392 always 0 */
  int32_t level;                /* 4396 */
  int32_t minus1[5];            /* 4400 all -1 */
  int32_t unused1;              /* 4420 */
  int32_t unused2;              /* 4424 */
  char reserved[3772];          /* 4428 zero */
  char *strings[CATLG_STRINGS]; /* 8200 in memory only: the lines of the job's backup list */
} catlgstru;
ZUL_ASSERT(offsetof(catlgstru, jobnum) == 4128 && offsetof(catlgstru, label) == 4136);
ZUL_ASSERT(offsetof(catlgstru, strings) == CATLG_FIXED && sizeof(catlgstru) == 9224);

/* One backup job of the job index. */
typedef struct ZUL_PACKED jobrec {
  int32_t reserved0;   /*   0 zero */
  int32_t job;         /*   4 key, and name of the backup list */
  int32_t group;       /*   8 tape group whose hosts are backed up */
  int32_t retention;   /*  12 seconds */
  int32_t drive;       /*  16 drive the job writes to */
  int32_t fifth;       /*  20 stored and listed, not interpreted */
  char reserved1;      /*  24 zero */
  char name[256];      /*  25 may fill */
  char reserved2[15];  /* 281 zero */
  char reserved3[220]; /* 296 zero */
} jobrec;
ZUL_ASSERT(sizeof(jobrec) == 516 && offsetof(jobrec, name) == 25);

/* The job driver's copy of a job record, with what the run itself adds. */
typedef struct ZUL_PACKED jobrun {
  jobrec rec;     /*   0 */
  int32_t tape;   /* 516 */
  int32_t volume; /* 520 tape file of the volume's catalog copy: 1, 3, 5, ... */
  int32_t level;  /* 524 */
} jobrun;
ZUL_ASSERT(sizeof(jobrun) == 528);

/* One TCP replication job. */
typedef struct ZUL_PACKED reprec {
  int32_t reserved0;  /*   0 zero */
  int32_t job;        /*   4 key */
  int32_t group;      /*   8 tape group whose hosts are the targets */
  int32_t conflict;   /*  12 0 keep both, 2 if times differ, 4 always, 8 if newer */
  int32_t owner;      /*  16 user id given to what is sent */
  int32_t grp;        /*  20 group id given to what is sent */
  int32_t dirpolicy;  /*  24 bits 0-8 permissions; 12 keep permissions, 13 keep group, 14 keep owner */
  int32_t filepolicy; /*  28 bits 0-8 permissions; 15 keep set-user-id */
  int32_t eighth;     /*  32 stored and listed, not interpreted */
  char name[256];     /*  36 at most 255 characters */
  char dest[256];     /* 292 destination root on each target, at most 255 characters */
  int32_t flags;      /* 548 bit value 2 asks for encryption */
  char reserved1[28]; /* 552 zero */
} reprec;
ZUL_ASSERT(sizeof(reprec) == 580 && offsetof(reprec, dest) == 292 && offsetof(reprec, flags) == 548);

/* One run of a backup job in the history. */
typedef struct histrec {
  uint32_t magic;     /*   0 PACK_MAGIC, so the file begins with the bytes "!LuZ" */
  uint32_t reserved0; /*   4 zero */
  int32_t job;        /*   8 */
  int32_t group;      /*  12 */
  int64_t start;      /*  16 seconds since 1970; with job the key of a record */
  int64_t retention;  /*  24 seconds */
  int64_t kbytes;     /*  32 0 until the job ends */
  int32_t status;     /*  40 0 started, 1 completed, 2 (sound) ended with failed hosts */
  int32_t drive;      /*  44 */
  int32_t tape;       /*  48 */
  int32_t volume;     /*  52 */
  int32_t level;      /*  56 */
  char reserved[124]; /*  60 zero */
} histrec;
ZUL_ASSERT(sizeof(histrec) == 184 && offsetof(histrec, reserved) == 60);

/* One member host of a running backup job, in the segment `tpshmid`: "parent" is the tape writer, "child"
 * the gathering child of the host. Each side writes only its own words; the pair produced/consumed hands a
 * package over. */
typedef struct ipc {
  uint32_t consumed;  /*   0 parent: number of the last package taken */
  int32_t pid;        /*   4 parent: the gathering child */
  char host[64];      /*   8 parent */
  struct {
    int32_t flags;
  } pst;              /*  72 parent: 0 not started, 1 mailbox ready, 2 stop, 4 reaped; bit 8 asks for "Idle" */
  int32_t fd;         /*  76 parent: its read descriptor of the mailbox */
  uint32_t total;     /*  80 parent: bytes of the current file, headers counted */
  uint32_t done;      /*  84 parent: of these, taken so far */
  package pack;       /*  88 child: header of the package in the mailbox */
  uint32_t produced;  /* 608 child: packages placed in the mailbox */
  struct {
    int32_t flags;
  } cst;              /* 612 child: 0 starting, 1 ready, 2 failed, 8 finished, 16 dialogue failed */
  int32_t wfd;        /* 616 child: its write descriptor; 4 bytes of alignment follow */
  int64_t kbytes;     /* 624 child: kilobytes read, headers included */
  uint32_t rate;      /* 632 child: kilobytes a second */
  uint32_t items;     /* 636 child: files read */
} ipc;
ZUL_ASSERT(sizeof(ipc) == 640 && offsetof(ipc, pack) == 88 && offsetof(ipc, produced) == 608);
ZUL_ASSERT(offsetof(ipc, cst) == 612 && offsetof(ipc, kbytes) == 624);
#endif
