// The chunk mailboxes of a backup job, as its tape writer sees them: one plain file per host, in
// which the host's gathering child leaves one package at a time, always at offset 0. What a package
// holds came over the network and is not to be trusted.
#include "tape/mailbox.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>
#include <zul/host.h>
#include <zul/module.h>
#include <zul/tape.h>

#include "base/log.h"
#include "base/pause.h"
#include "base/sharedword.h"
#include "base/site.h"
#include "base/text.h"
#include "drive/drive.h"
#include "tape/segment.h"
#include "tape/volumelist.h"

namespace tape {

namespace {

constexpr uint64_t kHeader = PACK_SIZE;
constexpr size_t kBlockUnit = 512;  // data blocks on tape are whole multiples

// Every data block goes to tape from here. A last, short block is filled up with what earlier
// blocks left behind it.
char piece[PACK_PIECE];

base::HomePath mailboxPath(const char *host) {
  return base::HomePath("tmp/ipc.%.64s", host);
}

// Bytes of the file taken so far and in all, headers counted.
struct Progress {
  uint64_t done;
  uint64_t total;
};

uint64_t streamBytes(uint64_t size) {
  return size + (size / PACK_CHUNK + 1) * kHeader;
}

Progress findProgress(ipc *slot) {
  if (slot->pack.sequence == 0) {
    slot->total = static_cast<uint32_t>(streamBytes(slot->pack.size));
    slot->done = 0;
  }
  // The slot's words hold 32 bits, in which a file of 4 GiB comes to its end early. The header
  // knows better: every package before the last one was a full one.
  if (base::sound(base::Area::stream))
    return {static_cast<uint64_t>(slot->pack.sequence) * (kHeader + PACK_CHUNK),
            streamBytes(slot->pack.size)};
  return {slot->done, slot->total};
}

// The slot's place among the hosts of the job; -1 for a slot outside the segment.
int hostOf(const ipc *slot) {
  const ipc *first = tpshmid >= 0 ? findSlot(0) : nullptr;
  return first && slot >= first ? static_cast<int>(slot - first) : -1;
}

void noteInList(const ipc *slot, FILE *vollist) {
  char host[sizeof slot->pack.fromhost + 1];
  char name[sizeof slot->pack.filename + 1];
  listHost(host, sizeof slot->pack.fromhost, slot->pack.fromhost);
  listName(name, sizeof slot->pack.filename, slot->pack.filename);
  int entry = beginPackage(hostOf(slot), slot->pack);
  base::print(vollist, "%i:%s:%i:%s\n", entry, host, slot->pack.sequence, name);
}

// The mailbox is closed and opened again once, for a descriptor that went bad under us.
bool reopenMailbox(ipc *slot) {
  base::print(backuplog, "ERROR:  8316  Seek error! errno = %i\n", errno);
  base::pauseFor(base::Pause::MailboxRetry);
  if (close(slot->fd) != 0)
    base::print(backuplog, "ERROR:  8317  Close error! errno = %i\n", errno);
  base::print(stderr, "NOTICE:  Attempting to reopen FIFO\n");
  base::HomePath path = mailboxPath(slot->host);
  slot->fd = open(path, O_RDONLY | O_CREAT | O_NONBLOCK | O_CLOEXEC, 0600);
  if (slot->fd >= 0 && lseek(slot->fd, 0, SEEK_SET) == 0) return true;
  base::print(backuplog,
              "ERROR:  8318  Can't open FIFO: %s.  Stopping backup of: %.64s.  errno=%i\n",
              path.c_str(), slot->host, errno);
  return false;
}

ssize_t readMailbox(int fd, void *to, size_t n) {
  ssize_t got;
  do {
    got = read(fd, to, n);
  } while (got < 0 && errno == EINTR);
  return got;
}

// One call, one block; a call that a signal interrupted has written nothing.
ssize_t writeTape(int tapefd, const void *from, size_t n) {
  ssize_t written;
  do {
    written = drive::writeBlock(tapefd, from, n);
  } while (written < 0 && errno == EINTR);
  return written;
}

void giveUpHost(ipc *slot) {
  base::storeWord(slot->pst.flags, 2);
  base::wakeWord(&slot->pst.flags);
}

// Also for a mailbox that holds less than was announced: nothing could be written then either.
void tapeNotWritten(int error, ssize_t written) {
  base::print(backuplog, "ERROR:  8321  Fatal error.  Can't write to tape.  errno=%i, retval=%li\n",
              error, static_cast<long>(written));
}

Copy copyHeader(ipc *slot, int tapefd, Copied &copied) {
  char header[PACK_SIZE];
  ssize_t got = readMailbox(slot->fd, header, sizeof header);
  if (got <= 0) {
    copied.error = errno;
    tapeNotWritten(copied.error, -1);
    giveUpHost(slot);
    return Copy::mailboxShort;
  }
  ssize_t written = writeTape(tapefd, header, static_cast<size_t>(got));
  if (written != got) {
    copied.error = errno;
    base::print(backuplog,
                "ERROR:  8320  Fatal error.  Can't write to tape.  retval=%li, errno=%i\n",
                static_cast<long>(written), copied.error);
    return Copy::headerFailed;
  }
  copied.reachedTape = true;
  return Copy::taken;
}

Copy copyData(ipc *slot, int tapefd, uint64_t chunk, Copied &copied) {
  int host = hostOf(slot);
  for (uint64_t left = chunk; left > 0;) {
    size_t wanted = left < PACK_PIECE ? left : PACK_PIECE;
    ssize_t got = readMailbox(slot->fd, piece, wanted);
    size_t block =
        got <= 0 ? 0 : (static_cast<size_t>(got) + kBlockUnit - 1) / kBlockUnit * kBlockUnit;
    // Up to 511 bytes of an earlier piece, perhaps another host's, would go to tape behind the end
    // of this file and could be read there.
    if (got > 0 && base::sound(base::Area::backup))
      memset(piece + got, 0, block - static_cast<size_t>(got));
    ssize_t written = got <= 0 ? -1 : writeTape(tapefd, piece, block);
    if (got <= 0 || static_cast<size_t>(written) != block) {
      copied.error = errno;
      tapeNotWritten(copied.error, written);
      giveUpHost(slot);
      return got <= 0 ? Copy::mailboxShort : Copy::dataFailed;
    }
    addData(host, piece, static_cast<size_t>(got));
    left -= static_cast<uint64_t>(got);
    copied.bytes += static_cast<uint64_t>(got);
  }
  return Copy::taken;
}

}  // namespace

Copied copyPackage(ipc *slot, int tapefd, FILE *vollist) {
  Copied copied{Copy::taken, slot->pack.sequence == 0, false, 0, 0};
  Progress file = findProgress(slot);
  if (file.done >= file.total) {
    copied.outcome = Copy::nothing;
    return copied;
  }
  noteInList(slot, vollist);
  if (lseek(slot->fd, 0, SEEK_SET) != 0 && !reopenMailbox(slot)) {
    giveUpHost(slot);
    copied.outcome = Copy::mailboxLost;
    return copied;
  }
  copied.outcome = copyHeader(slot, tapefd, copied);
  if (copied.outcome != Copy::taken) return copied;
  slot->done += PACK_SIZE;
  copied.bytes = kHeader;
  // A total that is too small for its headers, which only a damaged one is, leaves no data.
  uint64_t left = file.total - file.done > kHeader ? file.total - file.done - kHeader : 0;
  copied.outcome = copyData(slot, tapefd, left < PACK_CHUNK ? left : PACK_CHUNK, copied);
  if (copied.outcome != Copy::taken) return copied;
  endPackage(hostOf(slot));
  slot->done += static_cast<uint32_t>(copied.bytes - kHeader);
  base::storeWord(slot->consumed, base::loadWord(slot->produced));
  base::wakeWord(&slot->consumed);
  return copied;
}

int removeMailbox(const char *host) {
  return unlink(mailboxPath(host));
}

}  // namespace tape

int procFIFOData(ipc *slot, int tapefd, FILE *vollist) {
  switch (tape::copyPackage(slot, tapefd, vollist).outcome) {
    case tape::Copy::taken:
    case tape::Copy::nothing:
      return 0;
    case tape::Copy::mailboxLost:
      return -1;
    default:
      return -5;
  }
}

int mkFIFO(int slot, int pid) {
  ipc *mine = tape::findSlot(slot);
  if (!mine) {
    base::print(
        backuplog,
        "ERROR:  8313  Fatal error.  Failed to allocate shared memory buffer.  errno = %i\n",
        errno);
    return -1;
  }
  mine->pid = pid;
  base::HomePath path = tape::mailboxPath(mine->host);
  // A name with a '/' in it would lead out of the folder.
  errno = ENOENT;
  mine->fd =
      base::isPathWord(mine->host)
          ? open(path, O_RDONLY | O_CREAT | O_TRUNC | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW, 0600)
          : -1;
  if (mine->fd < 0) {
    base::print(backuplog, "ERROR:  8314  Fatal error.  Can't open FIFO: %s\n", path.c_str());
    tape::giveUpHost(mine);
    return -3;
  }
  base::storeWord(mine->pst.flags, 1);
  base::wakeWord(&mine->pst.flags);
  base::print(backuplog, "FIFO made.\n");
  return 0;
}
