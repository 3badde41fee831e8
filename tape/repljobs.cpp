// The TCP replication jobs, var/tape/jobids/repljobs. Called by the configuration requests;
// readRepid also by the replication driver. Every message of this store goes to the status log
// alone.
#include <stdio.h>
#include <string.h>
#include <zul/host.h>
#include <zul/tape.h>

#include "base/log.h"
#include "base/store.h"
#include "base/text.h"
#include "tape/storerules.h"

namespace {

constexpr int kFields = 12;

enum class Parsed { good, fieldCount, refused };

// "job:group:conflict:owner:group id:directory policy:file
// policy:eighth:flags:placeholder:destination:name"
Parsed parseRep(char *text, reprec *record) {
  char *field[kFields + 1];
  if (insplit(field, text, ':', kFields) != kFields) return Parsed::fieldCount;
  memset(record, 0, sizeof *record);
  record->job = base::decimal(field[0]);
  record->group = base::decimal(field[1]);
  record->conflict = base::decimal(field[2]);
  record->owner = base::decimal(field[3]);
  record->grp = base::decimal(field[4]);
  record->dirpolicy = base::decimal(field[5]);
  record->filepolicy = base::decimal(field[6]);
  record->eighth = base::decimal(field[7]);
  record->flags = base::decimal(field[8]);
  base::copyText(record->dest, sizeof record->dest, field[10]);
  base::copyText(record->name, sizeof record->name, field[11]);
  bool deletion = record->job == stores::kDeletedKey;
  if (!deletion && stores::keyRefused(field[0])) return Parsed::refused;
  return stores::keyRefused(field[1]) ? Parsed::refused : Parsed::good;
}

int printNotUpdated(int code, int job) {
  base::print(backuplog, "ERROR:  %i  Failed to update the jobid index for %i\n", code, job);
  return -1;
}

}  // namespace

int getRepids(void) {
  base::File index(fopen(base::HomePath("var/tape/jobids/repljobs"), "re"));
  if (!index) {
    base::print(backuplog, "ERROR:  8536  Cannot read jobid index\n");
    return -1;
  }
  reprec job;
  while (fread(&job, sizeof job, 1, index.get()) == 1)
    base::print(stderr, "%i:%i:%i:%i:%i:%i:%i:%i:%i:reserved:%.256s:%.256s\n", job.job, job.group,
                job.conflict, job.owner, job.grp, job.dirpolicy, job.filepolicy, job.eighth,
                job.flags, job.dest, job.name);
  return 0;
}

int addRepids(char *text) {
  reprec job;
  Parsed parsed = parseRep(text, &job);
  if (parsed == Parsed::fieldCount)
    base::print(backuplog, "ERROR:  8537  Insufficient arguments\n");
  if (parsed != Parsed::good) return -1;
  base::Store index(base::HomePath("var/tape/jobids/repljobs"), sizeof job);
  if (!index.beginAppend()) {
    base::print(backuplog, "ERROR:  8538  Cannot read jobid index\n");
    return -1;
  }
  if (!index.put(&job, sizeof job) || !index.commit()) return printNotUpdated(8539, job.job);
  return 0;
}

int modRepids(const char *job, char *text) {
  reprec fresh;
  Parsed parsed = parseRep(text, &fresh);
  if (parsed == Parsed::fieldCount)
    base::print(backuplog, "ERROR:  8540  Insufficient arguments\n");
  if (parsed != Parsed::good || stores::keyRefused(job)) return -1;
  base::Store index(base::HomePath("var/tape/jobids/repljobs"), sizeof fresh);
  if (!index.backUp(filecpy)) {
    base::print(backuplog, "ERROR:  8541  Cannot make backup copy of index file\n");
    return -1;
  }
  if (!index.beginRewrite()) {
    base::print(backuplog, "ERROR:  8542  Cannot read jobid index\n");
    return -1;
  }
  base::File old = index.openBackup();
  if (!old) {
    base::print(backuplog, "ERROR:  8543  Cannot read jobid index backup\n");
    return -1;
  }
  using stores::RecordResult;
  switch (stores::rewriteRecords(index, old.get(), base::decimal(job), &fresh, sizeof fresh)) {
    case RecordResult::otherNotWritten:
      return printNotUpdated(8545, fresh.job);
    case RecordResult::freshNotWritten:
      return printNotUpdated(8544, fresh.job);
    case RecordResult::done:
      break;
  }
  return 0;
}

int delRepids(const char *job) {
  char deletion[] = "-9999:0:0:0:0:0:0:0:0:0:0:Delete Me";
  return modRepids(job, deletion) != 0 ? -1 : 0;
}

int readRepid(int job, void *record) {
  base::File index(fopen(base::HomePath("var/tape/jobids/repljobs"), "re"));
  if (!index) {
    base::print(backuplog, "ERROR:  8546  Cannot read jobid index file\n");
    return -1;
  }
  if (stores::findRecord(index.get(), job, record, sizeof(reprec))) return 0;
  base::print(backuplog, "ERROR:  8547  Cannot find desired jodid %i\n", job);
  return -1;
}
