// The driver of one backup job, from the job number to a finished volume. Runs in the detached job
// process that tapeBackup made, which becomes the tape writer.
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/shm.h>
#include <time.h>
#include <unistd.h>
#include <zul/host.h>
#include <zul/module.h>
#include <zul/tape.h>

#include "base/fd.h"
#include "base/log.h"
#include "base/pause.h"
#include "base/site.h"
#include "base/text.h"
#include "drive/drive.h"
#include "tape/catalog.h"
#include "tape/gather.h"
#include "tape/pending.h"
#include "tape/progress.h"
#include "tape/segment.h"
#include "tape/sync.h"
#include "tape/tapeio.h"
#include "tape/volumelist.h"

namespace {

// Results of goBackup.
constexpr int kFailed = -1;
constexpr int kNoHistory = -9;
constexpr int kPositionBase = -10;
constexpr int kHostsFailed = -993;
constexpr int kTapeFailed = -994;
constexpr int kNoVolumeList = -995;
constexpr int kNoCatalogCopy = -998;
constexpr int kNoSegment = -999;

constexpr int kDriveLookMs = 100;  // between two tries of a drive that another job has

// Of history records.
constexpr int kCompleted = 1;
constexpr int kEndedWithFailures = 2;

bool backupSound() {
  return base::sound(base::Area::backup);
}

// Every later line for backuplog then goes to stderr, which is the same file once the console has
// been released.
void closeStatus() {
  if (backuplog && backuplog != stderr) fclose(backuplog);
  backuplog = stderr;
}

// "Wed Jun 30 21:49:08 1993", without the line feed of the C library's form.
struct TimeText {
  char text[32];
  explicit TimeText(time_t when) {
    if (!ctime_r(&when, text)) base::copyText(text, sizeof text, "?\n");
    text[strcspn(text, "\n")] = '\0';
  }
};

// What the last completed run of the job at this level wrote: a guess at what this one will.
uint64_t expectedBytes(int job, int level) {
  base::File history(fopen(base::HomePath("var/tape/bhistory"), "re"));
  uint64_t bytes = 0;
  histrec record;
  while (history && fread(&record, sizeof record, 1, history.get()) == 1)
    if (record.job == job && record.level == level && record.status == kCompleted &&
        record.kbytes > 0)
      bytes = static_cast<uint64_t>(record.kbytes) * 1024;
  return bytes;
}

class BackupJob {
 public:
  explicit BackupJob(int level) : start_(time(nullptr)) {
    memset(&run_, 0, sizeof run_);
    memset(&record_, 0, sizeof record_);
    run_.tape = -1;
    run_.level = level;
  }

  int run(int job);

 private:
  int prepare(int job);
  void releaseConsole();
  void reserveDrive();
  int goBehindLast();
  int position();
  bool tapeHoldsLast(int volume);
  int lookAhead(int volume);
  ssize_t readHere(catlgstru *copy);
  int reconcile(int volume);
  int enterCatalog();
  int openVolumeList();
  int makeSegment();
  void pushLists();
  int gather();
  int conclude(const tape::Gathered &gathered);
  int giveUp(int code);
  void explainTapeFailure(const tape::Gathered &gathered);

  int drive() const { return run_.rec.drive; }
  int job() const { return run_.rec.job; }
  base::HomePath tapeFile(const char *name) const {
    return base::HomePath("var/tape/drive.%i/tape.%i/%s", run_.rec.drive, run_.tape, name);
  }

  base::HomePath volumeList() const {
    return base::HomePath("var/tape/drive.%i/tape.%i/vol.%i", run_.rec.drive, run_.tape,
                          run_.volume);
  }

  jobrun run_;
  time_t start_;
  char device_[256] = "";
  drive::Reservation reservation_;
  catlgstru record_;
  base::File vollist_;
  tape::JobProgress progress_;
  char error_[256] = "";
};

// Takes the job back out of the catalog.
int BackupJob::giveUp(int code) {
  closeStatus();
  backupFail(drive(), run_.tape, run_.volume);
  return code;
}

int BackupJob::run(int job) {
  base::print(backuplog, "Starting backup job# %i on %s\n", job, TimeText(start_).text);
  base::print(stderr, "Starting backup job# %i on %s\n", job, TimeText(start_).text);
  int result = prepare(job);
  bool stopped = false;
  if (result == 0) {
    tape::StopOnTerm stopOnTerm;
    result = enterCatalog();
    if (result == 0) result = openVolumeList();
    if (result == 0) result = makeSegment();
    if (result == 0) {
      pushLists();
      result = gather();
    }
    stopped = tape::StopOnTerm::asked();
  }
  if (error_[0] == '\0' && result != 0)
    snprintf(error_, sizeof error_, "%s", stopped ? "told to stop" : "see the status file");
  progress_.finish(result != 0 || progress_.anyHostFailed(), result, error_);
  return result;
}

// Job record, drive, position, history: nothing that would have to be taken back.
int BackupJob::prepare(int job) {
  if (readJobid(job, &run_.rec) != 0) {
    closeStatus();
    return kFailed;
  }
  char name[sizeof run_.rec.name + 1];
  base::copyText(name, sizeof name, run_.rec.name);
  progress_.begin(job, name, run_.level, start_);
  progress_.setExpected(expectedBytes(job, run_.level));
  if (getTapePath(drive(), device_) != 0) {
    base::copyText(error_, sizeof error_, "the job's drive is not in the drive table");
    closeStatus();
    return kFailed;
  }
  releaseConsole();
  int volume = position();
  if (volume < 0) {
    base::print(backuplog, "ERROR:  8306  Fatal error.  Cannot position tape.\n");
    if (error_[0] == '\0')
      snprintf(error_, sizeof error_, "the tape in drive %i cannot be positioned", drive());
    closeStatus();
    return volume + kPositionBase;
  }
  run_.volume = volume;
  progress_.setTape(drive(), run_.tape, volume);
  if (updateHist(&run_, start_) < 0) {
    base::print(backuplog, "ERROR:  8307  Fatal error.  Aborting backup.\n");
    return kNoHistory;
  }
  return 0;
}

// From here on the requester may go, and what is said on standard error belongs to the job's log.
void BackupJob::releaseConsole() {
  base::print(stderr, "Positioning tape.\n");
  base::print(stderr, "Closing connection.  Backup will continue silently.\n");
  base::print(stderr, "Logging to %s/var/tape/jobids/___.stat\n", ZULhome);
  base::print(stderr, "TRANSFER OK\n");
  fflush(stderr);
  if (!backuplog || backuplog == stderr) return;
  fflush(backuplog);
  dup2(fileno(backuplog), STDERR_FILENO);
}

int BackupJob::goBehindLast() {
  int tape = run_.tape;  // the record is packed, and gotoNextVol wants an aligned number
  int volume = gotoNextVol(device_, drive(), &tape);
  run_.tape = tape;
  return volume;
}

// Another job may write to this drive for hours; this one goes behind it.
void BackupJob::reserveDrive() {
  for (bool isSaid = false; !reservation_.take(device_); isSaid = true) {
    if (!isSaid)
      base::print(backuplog, "NOTICE:  Drive %i is in use by another job, waiting for it\n",
                  drive());
    progress_.refresh();
    base::sleepMs(kDriveLookMs);
  }
}

int BackupJob::position() {
  if (backupSound()) reserveDrive();
  int volume = goBehindLast();
  if (!backupSound() || run_.tape < 0) return volume;
  if (tape::isPending(drive(), run_.tape)) return reconcile(volume);
  return volume < 0 ? volume : lookAhead(volume);
}

// Reads the block that comes next on the tape: its length, or 0 or less when none comes. Of a block
// that is longer than a catalog copy's only that much is known; the tape has passed it all the
// same.
ssize_t BackupJob::readHere(catlgstru *copy) {
  tape::OpenDrive open(drive::openDrive(device_, O_RDONLY));
  if (!open) return -1;
  ssize_t got = drive::readBlock(open.get(), copy, CATLG_FIXED);
  return got < 0 && errno == ENOMEM ? CATLG_FIXED + 1 : got;
}

// A catalog that lost its last records counts fewer volumes than the tape holds; the job would
// write over the others.
int BackupJob::lookAhead(int volume) {
  catlgstru copy = {};
  ssize_t got = readHere(&copy);
  if (got == CATLG_FIXED && copy.magic == CATLG_MAGIC) {
    base::print(backuplog,
                "ERROR:  The tape holds volume %i, which its catalog does not know.  Put back %s "
                "from a copy, or insert another tape\n",
                volume, tapeFile("catalog").c_str());
    snprintf(error_, sizeof error_, "tape %i in drive %i holds more volumes than its catalog knows",
             run_.tape, drive());
    return kFailed;
  }
  // At the end of the data the tape has not moved.
  return got > 0 ? goBehindLast() : volume;
}

// Whether the tape file `volume` is the catalog copy of the catalog's last record. A tape from
// which a failed volume was taken back out still holds it, and looks as if it were the next one's.
bool BackupJob::tapeHoldsLast(int volume) {
  tape::Catalog catalog;
  int volumes = catalog.load(tapeFile("").data());
  if (volumes < 1 || mtFSF(device_, volume) != 0) return false;
  catlgstru copy;
  return readHere(&copy) == CATLG_FIXED && memcmp(&copy, &catalog[volumes - 1], CATLG_FIXED) == 0;
}

// An earlier job was killed between catalog and tape, or could not end its data file. Where the
// tape can be positioned behind its volume, both tape files are there and what it wrote can be
// restored; where it cannot, the catalog counts a volume that the tape does not have, and no job
// could ever write to this tape again. What such a volume left on the tape is written over: until
// that is done the note stays.
int BackupJob::reconcile(int volume) {
  if (volume >= 0 && tape::pendingVolume(drive(), run_.tape) == volume) return volume;
  if (volume >= 0 && tapeHoldsLast(volume - 2)) {
    volume = goBehindLast();
    if (volume < 0) return volume;
    base::print(backuplog,
                "NOTICE:  An earlier backup to this tape was interrupted; what it wrote is volume "
                "%i\n",
                volume - 2);
    tape::clearPending(drive(), run_.tape);
    return volume;
  }
  base::print(backuplog,
              "NOTICE:  An earlier backup to this tape was interrupted before its volume was "
              "complete; its catalog is put back from %s\n",
              tapeFile("catalog.Old").c_str());
  if (!tape::copyTapeFile(drive(), run_.tape, "catalog.Old", "catalog")) return volume;
  return goBehindLast();
}

int BackupJob::enterCatalog() {
  base::HomePath catalog = tapeFile("catalog");
  base::Fd made(open(catalog, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
  made.reset();
  if (!tape::copyTapeFile(drive(), run_.tape, "catalog", "catalog.Old")) {
    base::print(backuplog, "ERROR:  8308  Cannot make a backup copy of the tape catalog.\n");
    base::copyText(error_, sizeof error_, "the tape's catalog cannot be copied");
    // The catalog was not touched yet. What would be put back is half a copy of it, or the one
    // before the last job, and the next job would write over volumes that it lacks.
    if (!backupSound()) backupFail(drive(), run_.tape, run_.volume);
    closeStatus();
    return kNoCatalogCopy;
  }
  if (backupSound()) {
    if (!tape::notePending(drive(), run_.tape, run_.volume)) {
      base::print(backuplog, "ERROR:  Cannot write to the tape's directory: %s.  errno = %i\n",
                  tapeFile("catalog.pending").c_str(), errno);
      return giveUp(kNoCatalogCopy);
    }
  }
  int filled = fillCatlgstru(job(), &record_, run_.level);
  // A backup list that is a folder gives an empty record: nobody could read a catalog with that in
  // it, and no later job could write to the tape.
  if (filled != 0 || (backupSound() && record_.magic != CATLG_MAGIC)) {
    backupFail(drive(), run_.tape, run_.volume);
    return kFailed;
  }
  return storCatalg(drive(), run_.tape, &record_) == 0 ? 0 : giveUp(kFailed);
}

int BackupJob::openVolumeList() {
  base::HomePath path = volumeList();
  vollist_ = base::File(fopen(path, "we"));
  if (!vollist_) {
    base::print(backuplog,
                "ERROR:  8309  Fatal error.  Cannot open backup volume list: %s.  errno = %i\n",
                path.c_str(), errno);
    backupFail(drive(), run_.tape, run_.volume);
    return kNoVolumeList;
  }
  base::print(backuplog, "Writing to tape number: %i\n", run_.tape);
  if (writeCat2Tape(device_, &record_) != 0) {
    snprintf(error_, sizeof error_, "tape %i in drive %i cannot be written", run_.tape, drive());
    // The catalog would count a volume that the tape does not have.
    if (backupSound()) backupFail(drive(), run_.tape, run_.volume);
    return kFailed;
  }
  base::print(backuplog, "Wrote backup ID to tape.\n");
  return 0;
}

int BackupJob::makeSegment() {
  char host[64];
  int members = getGrpMember(run_.rec.group, 1, host);
  tpshmid = tpmkShMem(tape::segmentSize(members));
  if (tpshmid < 0) {
    base::print(
        backuplog,
        "ERROR:  8311  Fatal error.  Failed to allocate shared memory buffer.  errno = %i\n",
        errno);
    return giveUp(kNoSegment);
  }
  tpgetShMemPtr(-1);  // whatever an earlier job of this process had
  if (!tpgetShMemPtr(tpshmid)) {
    base::print(
        backuplog,
        "ERROR:  8312  Fatal error.  Failed to allocate shared memory buffer.  errno = %i\n",
        errno);
    if (backupSound()) tprmShMem(tpshmid);
    return giveUp(kNoSegment);
  }
  // The system has 4096 segments, and a segment outlives its job. Removed now, it goes with the
  // last process that has it attached, and the children inherit the attachment.
  if (backupSound()) tprmShMem(tpshmid);
  progress_.setHosts(members);
  return 0;
}

void BackupJob::pushLists() {
  base::print(backuplog, "Synchronizing backup request lists.\n");
  syncBackupLists(job());
  char host[64];
  int members = backupSound() ? getGrpMember(run_.rec.group, 1, host) : 0;
  // A host without the new list is gathered by its old one, or not at all.
  for (int at = 0; at < members; at++)
    if (!listWasPushed(at + 1))
      base::copyText(progress_.host(at).error, sizeof progress_.host(at).error,
                     "backup list not pushed");
}

int BackupJob::gather() {
  base::print(backuplog, "Starting gathering processes\n");
  tape::beginVolume(volumeList(), tape::slotCapacity());
  tape::Gathered gathered =
      tape::gatherHosts(&run_, run_.level, device_, vollist_.get(), progress_);
  if (!tape::endVolume())
    base::print(backuplog,
                "NOTICE:  The digests of volume %i of tape %i are not complete on disk\n",
                run_.volume, run_.tape);
  // Without these lines nothing of the volume can be picked for a restore.
  bool listed = vollist_.close();
  if (!listed)
    base::print(backuplog, "ERROR:  The volume list vol.%i of tape %i is not complete on disk\n",
                run_.volume, run_.tape);
  bool complete = gathered.ran && !gathered.tapeFailed;
  if (backupSound() && complete) {
    // The tape has the volume: its record must be on disk before the note goes that guards it.
    char name[32];
    snprintf(name, sizeof name, "vol.%i", run_.volume);
    tape::syncTapeFile(drive(), run_.tape, name);
    tape::syncTapeFile(drive(), run_.tape, "catalog");
    tape::clearPending(drive(), run_.tape);
  }
  int result = conclude(gathered);
  return result == 0 && !listed && backupSound() ? kNoVolumeList : result;
}

// Without the sound behaviour a job that came this far counts as completed, whatever became of its
// hosts and its tape: that is what the operators' tools expect to read.
int BackupJob::conclude(const tape::Gathered &gathered) {
  int result = 0;
  if (backupSound() && (!gathered.ran || gathered.tapeFailed || gathered.stopped)) {
    explainTapeFailure(gathered);
    closeStatus();
    return gathered.ran || gathered.tapeFailed ? kTapeFailed : kNoSegment;
  }
  if (backupSound() && gathered.failedHosts > 0) {
    for (int at = 0; at < gathered.hosts; at++)
      if (progress_.host(at).state == tape::HostState::failed)
        base::print(backuplog, "ERROR:  Backup of %s failed: %s\n", progress_.host(at).host,
                    progress_.host(at).error);
    snprintf(error_, sizeof error_, "%i of %i hosts failed", gathered.failedHosts, gathered.hosts);
    base::print(backuplog, "ERROR:  %s\n", error_);
    result = kHostsFailed;
  }
  int status = result == 0 ? kCompleted : kEndedWithFailures;
  if (modHist(&run_, start_, status, static_cast<long>(gathered.kilobytes)) < 0)
    base::print(backuplog, "NOTICE:  Failed to update backup history correctly!\n");
  base::print(backuplog, "Completed backup job# %i at %s\n\n\n", job(),
              TimeText(time(nullptr)).text);
  closeStatus();
  return result;
}

void BackupJob::explainTapeFailure(const tape::Gathered &gathered) {
  const char *cause = strerror(gathered.tapeError);
  if (gathered.stopped) {
    snprintf(error_, sizeof error_, "told to stop; volume %i of tape %i is incomplete", run_.volume,
             run_.tape);
    base::print(backuplog,
                "ERROR:  Backup job# %i was told to stop.  Volume %i of tape %i holds "
                "what was written until then.\n",
                job(), run_.volume, run_.tape);
  } else if (!gathered.tapeFailed) {
    base::copyText(error_, sizeof error_, "the shared segment is gone");
  } else {
    snprintf(error_, sizeof error_, "drive %i, tape %i, volume %i: %s", drive(), run_.tape,
             run_.volume, cause);
    base::print(backuplog,
                "ERROR:  Backup job# %i failed on drive %i, tape %i, volume %i: %s.  %s\n", job(),
                drive(), run_.tape, run_.volume, cause,
                gathered.tapeError == ENOSPC
                    ? "The tape is full: load another one and run the job again."
                    : "Check drive and tape, clean the drive or load another tape, and run the job "
                      "again.");
  }
}

}  // namespace

int goBackup(char *job, char *level) {
  BackupJob backup(base::decimal(level));
  return backup.run(base::decimal(job));
}
