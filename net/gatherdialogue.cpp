// The gathering child's side of the gatherer's dialogue: "Next" brings the header of the next file,
// "Get" the file, package by package; each package goes into the host's mailbox, and the next one
// is not fetched before the tape writer has taken it.
//
// A SIGALRM jumps over every frame below clientHandshak, so they hold plain data, and what takes a
// lock of the C library is done in say(), out of the alarm's reach. Names, sizes and numbers come
// from the peer: nothing here relies on them but for how much is read.
#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>
#include <zul/host.h>
#include <zul/net.h>
#include <zul/tape.h>

#include "base/alarm.h"
#include "base/pause.h"
#include "base/process.h"
#include "base/sharedword.h"
#include "base/site.h"
#include "net/gatherchild.h"
#include "tape/segment.h"

namespace net {

namespace {

// Results of clientHandshak.
constexpr int kTimerOrWrite = -1;
constexpr int kNoAnswer = -2;
constexpr int kBadFormat = -3;
constexpr int kSocketRead = -4;
constexpr int kMailboxWrite = -5;
constexpr int kNotTaken = -6;
constexpr int kTimedOut = -7;
constexpr int kCorrupt = -8;

// Of the steps only.
constexpr int kMoreFiles = 0;
constexpr int kEndOfList = 1;
constexpr int kTakenForEnd = 2;  // a corrupt header, where that counts as the end of the list

constexpr uint64_t kMostBytes = 1ull << 62;  // beyond any file; sums with it do not overflow

base::AlarmGuard guard;
int logFd = -1;
long long armedMs;  // when the timer was set last

// Where the dialogue stands.
struct Dialogue {
  int sd;
  ipc *slot;
  time_t started;
  double kilobytes;
  bool asked;  // "Next" went out together with the last "Get"
};

void say(const char *format, ...) __attribute__((format(printf, 1, 2)));
void say(const char *format, ...) {
  if (!backuplog) return;
  guard.hold();
  int error = errno;
  va_list args;
  va_start(args, format);
  vfprintf(backuplog, format, args);
  va_end(args);
  errno = error;
  guard.release();
}

// Sets the timer back to its full length. It counts in seconds and a busy dialogue comes here a
// hundred thousand times in one: that it is set once in a second is enough.
bool rearmTimer() {
  long long now = base::nowMs();
  if (armedMs != 0 && now - armedMs < 1000) return true;
  armedMs = now;
  return base::setAlarmTimer(gatherLimits.stepS) == 0;
}

int corrupt(package *header) {
  say("ERROR:  3223  Package header is corrupt!\n");
  guard.hold();
  prntFileData(header);
  guard.release();
  // Taken for the end of the list, a stream out of step would pass as a complete backup.
  return base::sound(base::Area::stream) ? kCorrupt : kTakenForEnd;
}

bool mustIdle(const Dialogue &with) {
  return (base::loadWord(with.slot->pst.flags) & 8) != 0;
}

// "Idle" instead of "Next" while the tape writer wants the client kept waiting.
int idle(int sd) {
  say("INFO:  Idle call\n");
  if (writen(sd, "Idle\n", 5) != 5) {
    say("ERROR:  3210  Write failure clientHandshak (idle)\n");
    return kTimerOrWrite;
  }
  base::pauseFor(base::Pause::Idle);
  return kMoreFiles;
}

// Whether an honest gatherer can have sent this header: what stands in it goes to tape as it is.
// Names end inside their fields, and only files and links have contents: a reader of the tape that
// goes by the kind would take the contents of anything else for the next header, and lose the files
// of other hosts behind it.
bool isPossible(const char *raw, const package &header) {
  constexpr uint8_t kFile = 0, kLink = 2, kLastKind = 5;
  constexpr size_t kNameEnd = 263, kHostEnd = 379;
  bool hasContents = header.type == kFile || header.type == kLink;
  return raw[kNameEnd] == '\0' && raw[kHostEnd] == '\0' &&
         (hasContents || (header.type <= kLastKind && header.size == 0));
}

// Asks for the next file; its header goes into the slot.
int nextFile(Dialogue *with) {
  if (!with->asked && writen(with->sd, "Next\n", 5) != 5) {
    say("ERROR:  3211  Write failure clientHandshak\n");
    return kTimerOrWrite;
  }
  with->asked = false;
  say("INFO:  Sending:  %s\n", "Next\n");
  char raw[PACK_SIZE];
  ssize_t got = readn(with->sd, raw, sizeof raw);
  if (got < 0) {
    say("ERROR:  3212  Can't read servers response to Next.  Retval=%i Errno=%i\n",
        static_cast<int>(got), errno);
    return kNoAnswer;
  }
  package *header = &with->slot->pack;
  if (unpackPackage(raw, header) < 0) {
    say("ERROR:  3213  Raw package format error\n");
    return kBadFormat;
  }
  if (header->magic == PACK_EOL_MAGIC) return kEndOfList;
  if (header->magic != PACK_MAGIC || header->size > kMostBytes) return corrupt(header);
  if (base::sound(base::Area::stream) && !isPossible(raw, *header)) return corrupt(header);
  return kMoreFiles;
}

// Whether a package belongs to the file that was announced, and is the one that is due.
bool continues(const package &announced, const package &header, int32_t sequence) {
  return header.magic == PACK_MAGIC && header.sequence == sequence &&
         header.size == announced.size && header.type == announced.type &&
         strcmp(header.filename, announced.filename) == 0 &&
         strcmp(header.fromhost, announced.fromhost) == 0;
}

bool writeMailbox(int fd, const char *from, size_t n) {
  ssize_t put;
  do {
    put = write(fd, from, n);
  } while (put < 0 && errno == EINTR);
  return put == static_cast<ssize_t>(n);
}

// The header of a package, from the socket to the start of the mailbox.
int pullHeader(Dialogue *with) {
  char raw[PACK_SIZE];
  ipc *slot = with->slot;
  ssize_t got = readn(with->sd, raw, sizeof raw);
  if (got < 0) {
    say("ERROR:  3214  Socket read error.  retval = %i\n", static_cast<int>(got));
    return kSocketRead;
  }
  if (base::sound(base::Area::stream)) {
    // A file that changed between its two headers, or a stream out of step, would be filed under a
    // name and a length that are not its own.
    package header;
    unpackPackage(raw, &header);
    if (!isPossible(raw, header) || !continues(slot->pack, header, slot->pack.sequence))
      return corrupt(&header);
  }
  while (lseek(slot->wfd, 0, SEEK_SET) != 0) {
    say("ERROR:  3215  Child:  Seek error!\n");
    base::pauseFor(base::Pause::MailboxRetry);
  }
  if (!writeMailbox(slot->wfd, raw, sizeof raw)) {
    say("ERROR:  3216  Trying to write %i bytes  errno = %i\n", PACK_SIZE, errno);
    return kMailboxWrite;
  }
  return 0;
}

// The data of a package behind its header.
int pullData(Dialogue *with, uint64_t bytes) {
  char piece[PACK_PIECE];
  for (uint64_t done = 0; done < bytes;) {
    bool full = bytes - done >= sizeof piece;
    size_t wanted = full ? sizeof piece : bytes - done;
    ssize_t got = readn(with->sd, piece, wanted);
    if (got < 0) {
      if (full)
        say("ERROR:  3217  Socket read error  tread= %li, bread= %li, retval=%i\n",
            static_cast<long>(bytes), static_cast<long>(done), static_cast<int>(got));
      else
        say("ERROR:  3218  Socket read error  tread = %li, bread = %li, retval = %i\n",
            static_cast<long>(bytes), static_cast<long>(done), static_cast<int>(got));
      return kSocketRead;
    }
    if (!writeMailbox(with->slot->wfd, piece, wanted)) {
      say("ERROR:  3219  Trying to write %i bytes  errno = %i\n", static_cast<int>(wanted), errno);
      return kMailboxWrite;
    }
    done += wanted;
    if (!rearmTimer()) {
      say("ERROR:  3220  Failed to reset timer\n");
      return kTimerOrWrite;
    }
  }
  return 0;
}

// Tells the tape writer that the mailbox is full and waits until it is empty again.
int handOver(ipc *slot) {
  uint32_t produced = slot->produced + 1;
  base::storeWord(slot->produced, produced);
  tape::ringDoorbell();
  long long limit = base::nowMs() + gatherLimits.takenMs;
  for (uint32_t seen; (seen = base::loadWord(slot->consumed)) != produced;) {
    if (base::nowMs() >= limit) {
      say("ERROR:  3221  Parent did not respond fast enough!\n");
      return kNotTaken;
    }
    base::waitWord(&slot->consumed, seen, base::pauseLength(base::Pause::ChunkAck));
    if (gatherParentGone()) {
      guard.hold();
      leaveOrphaned(slot);
    }
  }
  return 0;
}

// Asks for the file that was announced. Under "sound" the next one is asked for in the same breath:
// behind the file the gatherer goes on by itself, and a small file costs one way through the
// network instead of two. An installed gatherer does not answer for a file that it cannot open, and
// the next header takes the file's place: only where that is seen may it be asked for.
void askForFile(Dialogue *with) {
  constexpr char kBoth[] = "Get\nNext\n";
  bool ahead = base::sound(base::Area::pace) && base::sound(base::Area::stream);
  with->asked = ahead && !mustIdle(*with);
  writen(with->sd, kBoth, with->asked ? sizeof kBoth - 1 : 4);
}

// One file, all its packages. 0 or a result of clientHandshak.
int pullFile(Dialogue *with) {
  ipc *slot = with->slot;
  uint64_t size = slot->pack.size;
  uint64_t total = size + (size / PACK_CHUNK + 1) * PACK_SIZE;
  askForFile(with);
  slot->pack.sequence = 0;
  for (uint64_t taken = 0; taken < total;) {
    int result = pullHeader(with);
    if (result != 0) return result;
    uint64_t left = total - taken - PACK_SIZE;
    uint64_t data = left < PACK_CHUNK ? left : PACK_CHUNK;
    if ((result = pullData(with, data)) != 0) return result;
    taken += PACK_SIZE + data;
    if ((result = handOver(slot)) != 0) return result;
    slot->pack.sequence++;
    if (!rearmTimer()) {
      say("ERROR:  3222  Failed to reset timer\n");
      return kTimerOrWrite;
    }
  }
  return 0;
}

void countFile(Dialogue *with) {
  ipc *slot = with->slot;
  uint64_t size = slot->pack.size;
  uint64_t taken = size + (size / PACK_CHUNK + 1) * PACK_SIZE;
  with->kilobytes += static_cast<double>(taken) / 1024;
  // Single precision forgets small files past 16 GiB, and with them the history's totals.
  if (!base::sound(base::Area::backup))
    with->kilobytes = static_cast<double>(static_cast<float>(with->kilobytes));
  slot->kbytes = static_cast<int64_t>(with->kilobytes);
  slot->items++;
  time_t elapsed = time(nullptr) - with->started;
  if (elapsed > 0)
    slot->rate = static_cast<uint32_t>(with->kilobytes / static_cast<double>(elapsed));
}

int gatherFiles(Dialogue *with) {
  for (;;) {
    if (!rearmTimer()) return kTimerOrWrite;
    int result;
    if (!with->asked && mustIdle(*with)) {
      if ((result = idle(with->sd)) != kMoreFiles) return result;
      continue;
    }
    result = nextFile(with);
    if (result == kEndOfList) break;
    if (result == kTakenForEnd) return 0;
    if (result != kMoreFiles || (result = pullFile(with)) != 0) return result;
    countFile(with);
  }
  say("Total read = %f KBytes, at an average of %i KBytes/s\n", with->kilobytes,
      static_cast<int>(with->slot->rate));
  return 0;
}

}  // namespace

}  // namespace net

int clientHandshak(int sd, ipc *slot) {
  // Jumped back to by timo_handler: plain data only.
  using namespace net;
  base::ignoreSigpipe();
  guard.reset();
  if (base::catchAlarm(timo_handler, nullptr) != 0) {
    say("ERROR:  3209  Failed to install signal handler.\n");
    return kTimerOrWrite;
  }
  logFd = backuplog ? fileno(backuplog) : -1;
  armedMs = 0;
  if (sigsetjmp(guard.back, 1) != 0) {
    guard.reset();
    base::setAlarmTimer(gatherLimits.stepS);
    return kTimedOut;
  }
  guard.armed = 1;
  Dialogue with = {sd, slot, time(nullptr), 0, false};
  slot->kbytes = 0;
  slot->rate = 0;
  slot->items = 0;
  // An ended stream is judged by errno, and the look-ups before this left theirs.
  errno = 0;
  int result = gatherFiles(&with);
  guard.armed = 0;
  int error = errno;
  base::setAlarmTimer(0);
  errno = error;
  return result;
}

void timo_handler(int) {
  if (net::guard.mustWait()) return;
  constexpr char kText[] = "SIGALRM exit \n";
  (void)!write(net::logFd, kText, sizeof kText - 1);
  siglongjmp(net::guard.back, 1);
}
