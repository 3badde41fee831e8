// The restore job: checks the tape in the drive, turns the operator's selection into a restore
// list, positions the tape, starts the agent on the destination and serves it from the tape.
//
// Runs in the request process of "restore" on the tape host. It does not detach: once the list is
// built the console is released, and the process goes on with its messages in
// var/tape/restore.serv.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zul/host.h>
#include <zul/tape.h>

#include "base/fd.h"
#include "base/log.h"
#include "base/process.h"
#include "base/site.h"
#include "base/text.h"
#include "drive/drive.h"
#include "tape/restorelist.h"
#include "tape/restorereport.h"
#include "tape/tapecheck.h"
#include "tape/tapeio.h"

namespace {

// The words of a request, converted once.
struct Request {
  int drive, tape, volume, conflict;
  char host[64];
  char destination[256];
  char *entries;
};

bool soundRestore() {
  return base::sound(base::Area::restore);
}

int cutRequest(char *args, Request *request) {
  char *word[7];
  if (wssplit(word, args, 7) < 7) {
    base::print(stderr, "ERROR:  8110  Insufficient arguments.\n");
    return 1;
  }
  request->drive = base::decimal(word[0]);
  request->tape = base::decimal(word[1]);
  request->volume = base::decimal(word[2]);
  base::copyText(request->host, sizeof request->host, word[3]);
  base::copyText(request->destination, sizeof request->destination, word[4]);
  request->conflict = base::decimal(word[5]);
  request->entries = word[6];
  return 0;
}

// "5,2,5" becomes three lines.
int writeIndex(const char *entries, const char *path) {
  base::File index(fopen(path, "we"));
  bool good = static_cast<bool>(index);
  for (const char *at = entries; good && *at;) {
    size_t length = strcspn(at, ",");
    good = fprintf(index.get(), "%.*s\n", static_cast<int>(length), at) > 0;
    at += length + (at[length] == ',');
  }
  if (good && index.close()) return 0;
  base::printBoth("ERROR:  8113  Cannot make restore list: %s\n", path);
  return -1;
}

int makeList(const Request &request, base::HomePath *list) {
  base::HomePath index("var/tape/jobids/restoreindx");
  base::HomePath volume("var/tape/drive.%i/tape.%i/vol.%i", request.drive, request.tape,
                        request.volume);
  char *entries = request.entries;
  stripCtrl(entries);
  // Entry numbers can name 128 files of one host; names can take anything.
  if (soundRestore() && entries[0] == '@') {
    if (!base::isPathWord(entries + 1)) {
      base::print(stderr, "ERROR:  No name of a selection: %s\n", entries);
      return -1;
    }
    base::print(stderr, "Building restore list\n");
    base::HomePath selection("var/tape/jobids/select.%s", entries + 1);
    int result = tape::selectByName(selection, volume, *list);
    // Made by a program for this one restore: nobody else would remove it.
    if (strncmp(entries + 1, "once.", 5) == 0) unlink(selection);
    return result;
  }
  if (writeIndex(entries, index) != 0) return -1;
  base::print(stderr, "Building restore list\n");
  return mkRestoreList(index.data(), volume.data(), list->data()) != 0 ? -1 : 0;
}

long countLines(const char *path) {
  base::File file(fopen(path, "re"));
  long lines = 0;
  char line[base::kPathMax];
  while (file && fgets(line, sizeof line, file.get()))
    lines += strncmp(line, tape::kHostLine, sizeof tape::kHostLine - 1) != 0;
  return lines;
}

void redirect(int from, FILE *stream) {
  if (!stream) return;
  fflush(stream);
  dup2(from, fileno(stream));
}

// From here on the operator may go: every message lands in restore.serv. Descriptors 0 and 1 stay
// taken, or the next files opened would get them and stray output would end up in those.
int releaseConsole() {
  // A follower that looks right after the acceptance must not take an earlier restore's record for
  // this one's.
  unlink(base::HomePath("var/tape/restore.serv.progress"));
  base::print(stderr, "Positioning Tape\nContinuing Silently:  See the ZUL log for any errors.\n");
  base::print(stderr, "TRANSFER OK\n");
  fflush(stdout);
  base::Fd null(open("/dev/null", O_RDWR | O_CLOEXEC));
  if (null) {
    dup2(null.get(), STDOUT_FILENO);
    dup2(null.get(), STDIN_FILENO);
  }
  base::File log(fopen(base::HomePath("var/tape/restore.serv"), "we"));
  if (!log) {
    base::print(stderr, "ERROR:  ZUL restore/replication client error\n");
    return -1;
  }
  redirect(fileno(log.get()), backuplog);
  redirect(fileno(log.get()), stderr);
  redirect(fileno(log.get()), fplog);
  if (backuplog) setvbuf(backuplog, nullptr, _IONBF, 0);
  return 0;
}

// What to tell an operator about a restore that ended early.
const char *reasonOf(int result) {
  switch (result) {
    case -1:
      return "the receiver cannot be reached, or the tape cannot be read; see "
             "var/tape/restore.serv";
    case -2:
    case -5:
      return "the receiver broke off; see var/tape/restore.clnt on it, and var/tape/restore.serv";
    default:
      return "the restore ended early; see var/tape/restore.serv";
  }
}

// The text is empty when all went well.
const char *serve(const Request &request, char *device, const char *list) {
  // The catalog copy of volume v is tape file v; the data follows it.
  if (mtFSF(device, request.volume + 1) != 0) return "the tape cannot be positioned to the volume";
  if (startRestoreClnt(request.host, request.destination, request.conflict) < 0) {
    base::print(stderr, "ERROR:  8114  Cannot start restore client on: %s\n", request.host);
    return "the destination host does not answer, or refuses the login";
  }
  tape::OpenDrive drive(drive::openDrive(device, O_RDONLY));
  if (!drive) {
    base::print(stderr, "ERROR:  8115  Cannot open device: %s\n", device);
    return "the drive cannot be opened";
  }
  int result = restoreServ(drive.get(), request.host, request.destination, list);
  return result < 0 ? reasonOf(result) : "";
}

// Two restores would share the index, the list and the log.
base::Fd lockRestore() {
  base::Fd fd(open(base::HomePath("var/tape/restore.lock"), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  if (fd && flock(fd.get(), LOCK_EX | LOCK_NB) == 0) return fd;
  base::print(stderr,
              "ERROR:  Another restore is running on this tape host.  Wait for it, or end it.\n");
  return base::Fd();
}

}  // namespace

int goRestore(char *args) {
  base::ignoreSigpipe();
  Request request;
  if (cutRequest(args, &request) != 0) return 1;
  base::Fd lock;
  if (soundRestore() && !(lock = lockRestore())) return -1;
  char device[256];
  if (getTapePath(request.drive, device) != 0) return -1;
  // Another tape would be read as if it held this volume.
  if (tape::checkInserted(request.drive, request.tape) != 0) return -1;
  base::HomePath list("var/tape/jobids/restorelist");
  if (makeList(request, &list) != 0) return -1;
  if (releaseConsole() != 0) return -1;
  tape::beginReport({request.drive, request.tape, request.volume, request.host, request.destination,
                     countLines(list)});
  const char *error = serve(request, device, list);
  int result = *error ? -1 : 0;
  bool whole = tape::endReport(result, error);
  // Files that could not be restored make a failed restore, whatever the dialogue came to.
  return soundRestore() && !whole ? -1 : result;
}

namespace {

constexpr size_t kSlot = 256;
constexpr size_t kCopyBlock = 4096;

// The strings of the catalog copy that was read last.
char catalogTexts[CATLG_STRINGS * kSlot + kCopyBlock];

int readCopyTexts(int fd, catlgstru *record) {
  memset(catalogTexts, 0, sizeof catalogTexts);
  for (int at = 0; at < CATLG_STRINGS; at++) record->strings[at] = catalogTexts + at * kSlot;
  for (size_t filled = 0; filled < CATLG_STRINGS * kSlot;) {
    ssize_t got = drive::readBlock(fd, catalogTexts + filled, kCopyBlock);
    if (got <= 0) break;
    filled += static_cast<size_t>(got);
  }
  for (int at = 0; at < CATLG_STRINGS; at++) record->strings[at][kSlot - 1] = '\0';
  return 0;
}

}  // namespace

int readTapeCatlg(char *drive, catlgstru *record) {
  char device[256];
  if (getTapePath(base::decimal(drive), device) != 0) {
    base::printBoth("ERROR:  8100  Cannot find tape path\n");
    return -1;
  }
  tape::OpenDrive open(drive::openDrive(device, O_RDONLY));
  if (!open) {
    base::printBoth("ERROR:  8101  Cannot open device: %s\n", device);
    return -1;
  }
  if (drive::readBlock(open.get(), record, CATLG_FIXED) != CATLG_FIXED) {
    base::printBoth("ERROR:  8102  Failed to read catalog\n");
    return -1;
  }
  if (record->magic == CATLG_MAGIC) return readCopyTexts(open.get(), record);
  if (record->magic == PACK_MAGIC)
    base::printBoth("ERROR:  8104  Volume sequence error.  This is the header volume\n");
  else
    base::printBoth("ERROR:  8103  Volume sequence error.  This is the data volume\n");
  return -1;
}
