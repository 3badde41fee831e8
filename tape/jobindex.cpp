// The job index, var/tape/jobids/index, and the backup lists beside it, named by their job's
// number. Called by the configuration requests; readJobid and readBackupList also by the backup
// engine and the catalogs.
#include <stdio.h>
#include <string.h>
#include <zul/host.h>
#include <zul/tape.h>

#include "base/lines.h"
#include "base/log.h"
#include "base/site.h"
#include "base/store.h"
#include "base/text.h"
#include "tape/storerules.h"

namespace {

constexpr int kJobFields = 7;
constexpr int kListSlots = 128;
constexpr size_t kListLine = 256;  // buffer of a line, so at most 255 characters with the line feed

// The texts of the list loaded last. 128 lines of at most 255 characters and a NUL fill it exactly.
char listTexts[kListSlots * kListLine];

// "job:group:retention:drive:fifth:placeholder:name": fills the record; returns the number of
// fields found.
int parseJob(char *text, jobrec *record) {
  char *field[kJobFields + 1];
  int count = insplit(field, text, ':', kJobFields);
  if (count != kJobFields) return count;
  memset(record, 0, sizeof *record);
  record->job = base::decimal(field[0]);
  record->group = base::decimal(field[1]);
  record->retention = base::decimal(field[2]);
  record->drive = base::decimal(field[3]);
  record->fifth = base::decimal(field[4]);
  base::copyField(record->name, sizeof record->name, field[6]);
  bool deletion = record->job == stores::kDeletedKey;
  if (!deletion && stores::keyRefused(field[0])) return -1;
  if (stores::keyRefused(field[1]) || stores::keyRefused(field[3])) return -1;
  return count;
}

int printJobNotUpdated(int code, int job) {
  base::printBoth("ERROR:  %i  Failed to update the jobid index for %i\n", code, job);
  return -1;
}

// "job entry": true with both words, unless there are not exactly two of them.
bool splitListArgs(char *args, char **word, int code) {
  int count = wssplit(word, args, 2);
  if (count == 2) return true;
  base::print(fplog, "ERROR:  %i  Insufficient arguments\n", code);
  base::print(stderr, "ERROR:  %i  Insufficient arguments: %i\n", code, count);
  return false;
}

// The list of a job whose number came as a word; the empty path for a word that would lead
// elsewhere.
struct ListPath : base::HomePath {
  explicit ListPath(const char *job) : HomePath("var/tape/jobids/%s", job) {
    if (!base::isPathWord(job)) data()[0] = '\0';
  }
};

// True when a line of the list is the one to drop.
bool isListEntry(const base::LineReader &lines, const char *line, const char *entry) {
  size_t length = lines.length();
  size_t wanted = strlen(entry);
  bool ended = line[length - 1] == '\n';
  bool whole = length - (ended ? 1 : 0) == wanted && memcmp(line, entry, wanted) == 0;
  // A last line without its line feed would also go when it is merely the beginning of the entry.
  if (whole || ended || base::sound(base::Area::stores)) return whole;
  return length <= wanted && memcmp(line, entry, length) == 0;
}

int pruneList(base::Store &list, FILE *old, const char *job, const char *entry) {
  base::LineReader lines(old, stores::lineLimit(kListLine - 1));
  bool good = true;
  while (good && lines.next())
    if (!isListEntry(lines, lines.text(), entry)) good = list.put(lines.text(), lines.length());
  if (good && !lines.outOfMemory() && !ferror(old) && list.commit()) return 0;
  base::printBoth("ERROR:  8055  Failed to update the backuplist for jobid %s\n", job);
  return -1;
}

}  // namespace

int getJobids(void) {
  base::File index(fopen(base::HomePath("var/tape/jobids/index"), "re"));
  if (!index) {
    base::printBoth("ERROR:  8036  Cannot read jobid index\n");
    return -1;
  }
  jobrec job;
  while (fread(&job, sizeof job, 1, index.get()) == 1)
    base::print(stderr, "%i:%i:%i:%i:%i:0:%.256s\n", job.job, job.group, job.retention, job.drive,
                job.fifth, job.name);
  return 0;
}

int addJobids(char *text) {
  jobrec job;
  int count = parseJob(text, &job);
  if (count < 0) return -1;
  if (count != kJobFields) {
    base::print(fplog, "ERROR:  8037  Insufficient arguments\n");
    base::print(stderr, "ERROR:  8037  Insufficient arguments: %i\n", count);
    return -1;
  }
  base::Store index(base::HomePath("var/tape/jobids/index"), sizeof job);
  if (!index.beginAppend()) {
    base::printBoth("ERROR:  8038  Cannot read jobid index\n");
    return -1;
  }
  if (!index.put(&job, sizeof job) || !index.commit()) return printJobNotUpdated(8039, job.job);
  base::print(stderr, "Added job: %.256s\n", job.name);
  return 0;
}

int modJobids(const char *job, char *text) {
  jobrec fresh;
  int count = parseJob(text, &fresh);
  if (count < 0) return -1;
  if (count != kJobFields) {
    base::print(fplog, "ERROR:  8040  Insufficient arguments\n");
    base::print(stderr, "ERROR:  8040  Insufficient arguments: %i\n", count);
    return -1;
  }
  if (stores::keyRefused(job)) return -1;
  base::Store index(base::HomePath("var/tape/jobids/index"), sizeof fresh);
  if (!index.backUp(filecpy)) {
    base::printBoth("ERROR:  8041  Cannot make backup copy of index file\n");
    return -1;
  }
  if (!index.beginRewrite()) {
    base::printBoth("ERROR:  8042  Cannot read jobid index\n");
    return -1;
  }
  base::File old = index.openBackup();
  if (!old) {
    base::printBoth("ERROR:  8043  Cannot read jobid index backup\n");
    return -1;
  }
  using stores::RecordResult;
  switch (stores::rewriteRecords(index, old.get(), base::decimal(job), &fresh, sizeof fresh)) {
    case RecordResult::otherNotWritten:
      return printJobNotUpdated(8045, fresh.job);
    case RecordResult::freshNotWritten:
      return printJobNotUpdated(8044, fresh.job);
    case RecordResult::done:
      break;
  }
  base::print(stderr, "Modified job: %.256s\n", fresh.name);
  return 0;
}

int delJobids(const char *job) {
  char deletion[] = "-9999:0:0:0:0:0:Delete Me";
  return modJobids(job, deletion) != 0 ? -1 : 0;
}

int readJobid(int job, void *record) {
  base::File index(fopen(base::HomePath("var/tape/jobids/index"), "re"));
  if (!index) {
    base::printBoth("ERROR:  8046  Cannot read jobid index file\n");
    return -1;
  }
  if (stores::findRecord(index.get(), job, record, sizeof(jobrec))) return 0;
  base::printBoth("ERROR:  8047  Cannot find desired jodid %i\n", job);
  return -1;
}

int getBackupList(const char *job) {
  // A job without a list is no failure: it backs up nothing yet.
  base::File list(fopen(ListPath(job), "re"));
  if (!list) return 0;
  base::LineReader lines(list.get(), kListLine - 1);
  while (lines.next()) fwrite(lines.text(), lines.length(), 1, stderr);
  return stores::endListing(lines);
}

int addBackupList(char *args) {
  char *word[2];
  if (!splitListArgs(args, word, 8048)) return -1;
  if (stores::keyRefused(word[0]) || stores::entryRefused(word[1], kListLine - 2)) return -1;
  base::Store list{ListPath(word[0])};
  if (!list.beginAppend()) {
    base::printBoth("ERROR:  8049  Cannot read backup list # %s\n", word[0]);
    return -1;
  }
  if (!list.putText("%s\n", word[1]) || !list.commit()) {
    base::printBoth("ERROR:  8050  Failed to update the backuplist for jobid %s\n", word[0]);
    return -1;
  }
  return 0;
}

int delBackupList(char *args) {
  char *word[2];
  if (!splitListArgs(args, word, 8051)) return -1;
  if (stores::keyRefused(word[0])) return -1;
  base::Store list{ListPath(word[0])};
  if (!list.backUp(filecpy)) {
    base::printBoth("ERROR:  8052  Cannot make backup copy of backup list file\n");
    return -1;
  }
  if (!list.beginRewrite()) {
    base::printBoth("ERROR:  8053  Cannot write backup list for job %s\n", word[0]);
    return -1;
  }
  base::File old = list.openBackup();
  if (!old) {
    base::printBoth("ERROR:  8054  Cannot read backup list for job %s\n", word[0]);
    return -1;
  }
  return pruneList(list, old.get(), word[0], word[1]);
}

int readBackupList(int job, char **slots) {
  memset(listTexts, 0, sizeof listTexts);
  base::File list(fopen(base::HomePath("var/tape/jobids/%i", job), "re"));
  if (!list) {
    base::printBoth("ERROR:  8057  Cannot read backuplist for job# %i\n", job);
    return -1;
  }
  for (int slot = 0; slot < kListSlots; slot++) slots[slot] = listTexts + slot * kListLine;
  char line[kListLine];
  char *next = listTexts;
  int slot = 0;
  for (; slot < kListSlots && fgets(line, sizeof line, list.get()); slot++) {
    stripCtrl(line);
    slots[slot] = next;
    size_t length = strlen(line);
    memcpy(next, line, length);
    next += length + 1;
  }
  if (slot == kListSlots && getc(list.get()) != EOF)
    base::print(fplog, "NOTICE:  Backup list for job# %i: only its first %i lines are used here\n",
                job, kListSlots);
  return 0;
}
