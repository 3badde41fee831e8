// The backup history: one record per run of a backup job, kept by the tape host's job processes and
// read by operators.
#include <stdio.h>
#include <string.h>
#include <zul/host.h>
#include <zul/tape.h>

#include "base/fd.h"
#include "base/log.h"
#include "base/site.h"
#include "base/store.h"

namespace {

constexpr int64_t kKeptPastRetention = 15552000;  // seconds: 180 days
constexpr int kMostGroups = 32;

base::HomePath historyPath() {
  return base::HomePath("var/tape/bhistory");
}

// Seconds since 1970 that a file claims may be anything: no overflow.
int64_t addSeconds(int64_t a, int64_t b) {
  int64_t sum;
  if (__builtin_add_overflow(a, b, &sum)) return b < 0 ? INT64_MIN : INT64_MAX;
  return sum;
}

int64_t retainedUntil(const histrec &record) {
  return addSeconds(record.start, record.retention);
}

// False at the end, which a partial record is, too.
bool readRecord(FILE *in, histrec *record) {
  return fread(record, sizeof *record, 1, in) == 1;
}

histrec makeRecord(const jobrun &job, time_t start) {
  histrec record;
  memset(&record, 0, sizeof record);
  record.magic = PACK_MAGIC;
  record.job = job.rec.job;
  record.group = job.rec.group;
  record.start = start;
  record.retention = job.rec.retention;
  record.drive = job.rec.drive;
  record.tape = job.tape;
  record.volume = job.volume;
  record.level = job.level;
  return record;
}

// After a failed change. A sound store has not been touched yet, and copying over it would be the
// one thing that could still damage it.
bool putBack(const base::Store &store) {
  return base::sound(base::Area::stores) || filecpy(store.backup(), store.path(), 0) == 0;
}

// What modHist was asked to do, and what it came to.
struct Completion {
  const jobrun *job;
  time_t start;
  int status;
  long kbytes;
  bool found = false;

  // Completes the record when it is the one, and says whether it is kept.
  bool apply(histrec *record) {
    if (record->start == start && record->job == job->rec.job) {
      record->kbytes = kbytes;
      record->status = status;
      found = true;
    }
    return addSeconds(retainedUntil(*record), kKeptPastRetention) > start;
  }
};

// 0, -4 for a damaged record, -5 when the store cannot be written.
int rewrite(FILE *old, base::Store &store, Completion &completion) {
  histrec record;
  while (readRecord(old, &record)) {
    if (record.magic != PACK_MAGIC) return -4;
    if (completion.apply(&record) && !store.put(&record, sizeof record)) return -5;
  }
  // A disk that cannot be read any further is not the end of the history.
  return ferror(old) ? -4 : 0;
}

int refuseDamaged(const base::Store &store) {
  base::print(backuplog, "ERROR:  8340  Parse error reading backup history.  Restoring copy.\n");
  if (!putBack(store))
    base::print(backuplog, "ERROR:  8341  Cannot restore backup copy of the backup history.\n");
  return -4;
}

int refuseUnwritten(const base::Store &store) {
  base::print(backuplog, "ERROR:  8342  Failed to write backup record.  Restoring copy\n");
  if (!putBack(store))
    base::print(backuplog, "ERROR:  8343  Cannot restore backup copy of the backup history.\n");
  return -5;
}

int refuseUnknown(const base::Store &store) {
  base::print(backuplog, "ERROR:  8344  Cannot find the desired backup record.\n");
  if (!putBack(store))
    base::print(backuplog, "ERROR:  8345  Cannot restore backup copy of the backup history.\n");
  return -6;
}

void printRecord(const histrec &record, time_t now) {
  // 1 while the backup is retained; the listing of a tape's volumes shows 1 for an expired one.
  // Consoles know.
  int retained = retainedUntil(record) > now;
  char text[64];
  time_t start = record.start;
  if (!ctime_r(&start, text)) snprintf(text, sizeof text, "%li", static_cast<long>(start));
  text[strcspn(text, "\n")] = '\0';
  base::print(stderr, "%i,%i,%i,%i,%i,%i,%i,%i,%li,%s\n", record.job, record.group, record.level,
              record.status, retained, record.drive, record.tape, record.volume,
              static_cast<long>(record.kbytes), text);
}

}  // namespace

int updateHist(jobrun *job, time_t start) {
  histrec record = makeRecord(*job, start);
  base::Store store(historyPath(), sizeof record);
  store.ownerOnly();
  store.createIfMissing();
  if (!store.backUp(filecpy)) {
    base::print(backuplog, "ERROR:  8346  Cannot make a backup copy of the backup history file.\n");
    return -1;
  }
  if (!store.beginAppend()) {
    base::print(backuplog, "ERROR:  8347  Cannot open backup history file:  %s\n", store.path());
    return -2;
  }
  if (store.put(&record, sizeof record) && store.commit()) return 0;
  base::print(backuplog, "ERROR:  8348  Failed to update backup history file\n");
  if (putBack(store)) return -4;
  base::print(backuplog, "ERROR:  8349  CANNOT RESTORE BACKUP backup-history file!\n");
  return -3;
}

int modHist(jobrun *job, time_t start, int status, long kbytes) {
  base::Store store(historyPath(), sizeof(histrec));
  store.ownerOnly();
  store.createIfMissing();
  if (!store.backUp(filecpy)) {
    base::print(backuplog, "ERROR:  8337  Cannot make a backup copy of the backup history file.\n");
    return -1;
  }
  base::File old = store.openBackup();
  if (!old) {
    base::print(backuplog, "ERROR:  8338  Failed to open master copy of backup history.\n");
    return -2;
  }
  if (!store.beginRewrite()) {
    base::print(backuplog, "ERROR:  8339  Failed to open working copy of the backup history.\n");
    return -3;
  }
  Completion completion{job, start, status, kbytes};
  int result = rewrite(old.get(), store, completion);
  if (result == -4) return refuseDamaged(store);
  if (result == 0 && !completion.found) return refuseUnknown(store);
  if (result != 0 || !store.commit()) return refuseUnwritten(store);
  return 0;
}

int dumpHostHist(char *host) {
  int groups[kMostGroups];
  int count = getHostGrps(host, groups);
  if (count <= 0) return 0;
  base::File in(fopen(historyPath(), "re"));
  if (!in) {
    base::print(backuplog, "ERROR:  Failed to open master copy of backup history.\n");
    return -2;
  }
  time_t now = time(nullptr);
  histrec record;
  while (readRecord(in.get(), &record)) {
    if (record.magic != PACK_MAGIC) {
      base::print(backuplog, "ERROR: Parse error reading backup history.  Restoring copy.\n");
      return -4;
    }
    for (int i = 0; i < count && i < kMostGroups; i++)
      if (groups[i] == record.group) printRecord(record, now);
  }
  return 0;
}
