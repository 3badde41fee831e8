// Finds the run that a backup of a level above 0 builds on. In the job process, with the history,
// the catalogs and the backup list at hand.
#include "tape/reference.h"

#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <zul/host.h>
#include <zul/tape.h>

#include <vector>

#include "base/fd.h"
#include "base/log.h"
#include "base/text.h"
#include "tape/catalog.h"

namespace tape {

namespace {

constexpr int kCompleted = 1;
// The last text of a record shares its place with the first of the next one, and tells nothing.
constexpr int kTexts = CATLG_STRINGS - 1;

using Runs = std::vector<histrec>;

// A damaged record ends the reading: with an older run, or none, more is saved than is needed.
Runs readRuns() {
  Runs runs;
  base::File in(fopen(base::HomePath("var/tape/bhistory"), "re"));
  histrec record;
  while (in && fread(&record, sizeof record, 1, in.get()) == 1 && record.magic == PACK_MAGIC)
    runs.push_back(record);
  return runs;
}

// The newest completed run of the job that is of a lower level and began earlier; or null.
const histrec *newestBelow(const Runs &runs, int job, int level, int64_t before) {
  const histrec *newest = nullptr;
  for (const histrec &run : runs)
    if (run.job == job && run.status == kCompleted && run.level >= 0 && run.level < level &&
        run.start < before && (!newest || run.start > newest->start))
      newest = &run;
  return newest;
}

// The catalog's record of a run's volume. Null when the tape was deleted since, or another run has
// written over the volume.
const catlgstru *findVolume(const Runs &runs, const histrec &run, Catalog &catalog) {
  for (const histrec &other : runs)
    if (other.start > run.start && other.drive == run.drive && other.tape == run.tape &&
        other.volume == run.volume)
      return nullptr;
  base::HomePath tapedir("var/tape/drive.%i/tape.%i", run.drive, run.tape);
  int count = catalog.load(tapedir);
  int at = run.volume / 2;
  if (run.volume % 2 != 1 || at >= count) return nullptr;
  const catlgstru &record = catalog[at];
  bool isIts = record.jobnum == run.job && record.level == run.level && record.created >= run.start;
  return isIts ? &record : nullptr;
}

// Whether the run's volume is there, and those it builds on in its turn. Only when it saved
// everything for want of one, it is passed over without need.
bool stands(const Runs &runs, const histrec &run) {
  {
    Catalog catalog;  // one at a time
    if (!findVolume(runs, run, catalog)) return false;
  }
  if (run.level == 0) return true;
  for (int64_t before = run.start;;) {
    const histrec *base = newestBelow(runs, run.job, run.level, before);
    if (!base || stands(runs, *base)) return base != nullptr;
    before = base->start;
  }
}

// True when the run saved every path that the job's list names now.
bool hadList(const catlgstru &record, int job) {
  char *now[CATLG_STRINGS];
  if (readBackupList(job, now) < 0) return false;
  for (int at = 0; at < kTexts && now[at][0] != '\0'; at++) {
    bool found = false;
    for (int old = 0; old < kTexts && !found; old++)
      found = strcmp(now[at], record.strings[old]) == 0;
    if (!found) return false;
  }
  if (now[kTexts - 1][0] == '\0') return true;
  // Of more lines than a record has room for, only the time of their last change is known.
  struct stat list;
  return stat(base::HomePath("var/tape/jobids/%i", job), &list) == 0 &&
         list.st_mtime < record.created;
}

int refuse(const char *why) {
  base::print(backuplog, "NOTICE:  Everything is saved: %s\n", why);
  return 0;
}

}  // namespace

void Reference::find(int job, int level) {
  const Runs runs = readRuns();
  const histrec *run = newestBelow(runs, job, level, INT64_MAX);
  while (run && !stands(runs, *run)) run = newestBelow(runs, job, level, run->start);
  Catalog catalog;
  const catlgstru *record = run ? findVolume(runs, *run, catalog) : nullptr;
  if (!record) {
    start_ = refuse("no run of a lower level is there to build on");
  } else if (!hadList(*record, job)) {
    start_ = refuse("the backup list has changed since the run that this one would build on");
  } else {
    start_ = static_cast<int>(run->start);
    memcpy(hosts_, record->hosts, sizeof record->hosts);
  }
}

int Reference::sinceFor(const char *host) const {
  if (start_ == 0) return 0;
  size_t length = strlen(host);
  for (const char *at = hosts_; *at; at += strcspn(at, ","), at += *at == ',')
    if (strcspn(at, ",") == length && strncmp(at, host, length) == 0) return start_;
  base::print(
      backuplog,
      "NOTICE:  Everything of %s is saved: the run that this one builds on did not have it\n",
      host);
  return 0;
}

}  // namespace tape
