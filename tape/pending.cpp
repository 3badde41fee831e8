// Keeps catalog and tape in step over kills and power cuts. Runs in the job process.
#include "tape/pending.h"

#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>
#include <zul/host.h>

#include "base/fd.h"
#include "base/site.h"
#include "base/text.h"

namespace tape {

namespace {

base::HomePath pendingPath(int drive, int tape) {
  return base::HomePath("var/tape/drive.%i/tape.%i/catalog.pending", drive, tape);
}

void syncPath(const char *path) {
  base::Fd fd(open(path, O_RDONLY | O_CLOEXEC));
  if (fd) fsync(fd.get());
}

void syncFolder(int drive, int tape) {
  syncPath(base::HomePath("var/tape/drive.%i/tape.%i", drive, tape));
}

}  // namespace

bool notePending(int drive, int tape, int volume) {
  base::Fd fd(open(pendingPath(drive, tape), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  if (!fd || dprintf(fd.get(), "%i\n", volume) < 0 || fsync(fd.get()) != 0) return false;
  syncFolder(drive, tape);
  return true;
}

bool isPending(int drive, int tape) {
  return access(pendingPath(drive, tape), F_OK) == 0;
}

int pendingVolume(int drive, int tape) {
  base::File file(fopen(pendingPath(drive, tape), "re"));
  char text[16] = "";
  return file && fgets(text, sizeof text, file.get()) ? base::decimal(text) : 0;
}

void clearPending(int drive, int tape) {
  if (unlink(pendingPath(drive, tape)) == 0) syncFolder(drive, tape);
}

bool copyTapeFile(int drive, int tape, const char *from, const char *to) {
  base::HomePath source("var/tape/drive.%i/tape.%i/%s", drive, tape, from);
  base::HomePath target("var/tape/drive.%i/tape.%i/%s", drive, tape, to);
  if (!base::sound(base::Area::backup)) return filecpy(source, target, 0) == 0;
  // Copied in place, a full disk leaves half a catalog where a whole one was.
  base::HomePath whole("var/tape/drive.%i/tape.%i/%s.tmp", drive, tape, to);
  bool copied = filecpy(source, whole, 0) == 0;
  if (copied) syncPath(whole);
  copied = copied && rename(whole, target) == 0;
  if (!copied) unlink(whole);
  syncFolder(drive, tape);
  return copied;
}

void syncTapeFile(int drive, int tape, const char *name) {
  syncPath(base::HomePath("var/tape/drive.%i/tape.%i/%s", drive, tape, name));
}

}  // namespace tape
