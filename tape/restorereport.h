// What a restore tells its operator: the progress record "var/tape/restore.serv.progress" (one JSON
// object, replaced at most twice a second) and the outcome of every file, one JSON object a line,
// in "var/tape/restore.serv.results". docs/formats/progress.md has the fields. Written in the
// restore job's process only; not being able to write them never disturbs the restore.
#pragma once
#include <zul/records.h>

namespace tape {

// What the job is about, for the record.
struct RestoreJob {
  int drive, tape, volume;
  const char *host;  // destination
  const char *destination;
  long wanted;  // packages on the restore list
};

void beginReport(const RestoreJob &job);
// One package was sent and taken; the file counts as restored with its last one.
void reportSegment(const package &header);
// One file's outcome: "restored", "kept" (it was not wanted), "failed" or "missing" (not on the
// tape).
void reportRestored(const char *host, const char *path, const char *outcome, const char *why);
// The last record, with what went wrong, which is empty when nothing did but for single files. True
// when every wanted file was restored or kept.
bool endReport(int result, const char *error);

}  // namespace tape
