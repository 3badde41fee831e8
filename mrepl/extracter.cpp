// The extracter of a receiving host: a child of the getter's process that walks the ring in order
// and rebuilds files from headers and content, until it meets the end of the run.
#include <ctype.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zul/host.h>
#include <zul/mrepl.h>

#include <algorithm>

#include "base/log.h"
#include "mrepl/received.h"
#include "mrepl/restoring.h"
#include "mrepl/run.h"

using mrepl::received;

namespace {

constexpr int kEndOfRun = -11;
constexpr int kNoHeader = -10;
constexpr int kWriteFailed = -5;
// Where installed receivers look for the content of a small file, and which sizes they take for
// small. Senders place it at MR_INLINE_OFF, up to MR_INLINE_MAX bytes.
constexpr size_t kOldInlineOff = 688;
constexpr uint64_t kOldInlineEnd = 688;
constexpr int64_t kIdleMicros = 5000;  // sound: at most; the getter wakes us

// The file that is being rebuilt.
struct Current {
  mfilehead header;
  int pending;  // content is awaited
  uint64_t position;
  bool failed;  // a block could not be written
} current;

// The segment says itself whether it begins with a header: in the segments of a sound sender.
bool marksHeaders(const mslot &slot) {
  return mrepl::soundRun() && (slot.seg.control & mrepl::kReports) != 0;
}
bool markedHead(const mslot &slot) {
  return (slot.seg.control & mrepl::kHead) != 0;
}

void dump(const unsigned char *bytes) {
  if (!mrepl::debugging()) return;
  for (int line = 0; line < 17; line++) {
    const unsigned char *row = bytes + line * 16;
    char text[128];
    int length = 0;
    for (int at = 0; at < 16; at++)
      length += snprintf(text + length, sizeof text - static_cast<size_t>(length), "%3x", row[at]);
    text[length++] = ' ';
    text[length++] = ' ';
    for (int at = 0; at < 16; at++)
      text[length++] = static_cast<char>(isprint(row[at]) ? row[at] : '.');
    text[length] = '\0';
    base::print(fplog, "DEBUG:  DUMP: %s\n", text);
  }
}

// A file that could not be had: in the log, and in the record of the run.
void report(mfilehead *header, int code) {
  const char *reason = mrepl::failureText(code);
  if (code <= -3) received.failed(*header, code, reason);
  logError(header, code);
}

void settle(mfilehead *header, int code) {
  if (code != 0) report(header, code);
  // Without its owner or permissions a file is there all the same.
  if (code > -3) received.done(*header, mrepl::sizeOf(*header));
}

// --- content ---

void endFile() {
  current.pending = 0;
  if (current.failed) {
    mrepl::dropFile();
    logError(&current.header, kWriteFailed);
    return;
  }
  settle(&current.header, mrepl::finishFile(&current.header, true));
}

void takeBlock(mslot *slot) {
  uint64_t size = mrepl::sizeOf(current.header);
  uint64_t left = size - current.position;
  int length = left < MR_PAYLOAD ? static_cast<int>(left) : MR_PAYLOAD;
  if ((slot->seg.control & mrepl::kEnciphered) != 0) decryptBlock(slot->seg.payload, MR_PAYLOAD);
  if (current.failed) {
    current.position += static_cast<uint64_t>(length);
  } else {
    uint64_t before = current.position;
    long written = mrepl::putBlock(&current.position, length, slot->seg.payload);
    if (written < 1) {
      if (mrepl::debugging())
        base::print(fplog, "DEBUG:  fileExtractor: Write error!  pos=%lu, size=%i, retval=%i\n",
                    static_cast<unsigned long>(before), length, static_cast<int>(written));
      // Installed receivers wait at this position for ever, and take all that follows, the end of
      // the run included, for content of this file.
      if (mrepl::soundRun()) {
        received.failed(current.header, kWriteFailed, mrepl::failureText(-6));
        current.failed = true;
        current.position = before + static_cast<uint64_t>(length);
      }
    } else {
      received.content(slot->seg.payload, static_cast<size_t>(length));
    }
  }
  if (current.position >= size) endFile();
}

// The sender has given a file up, or its end was lost with the sender.
void breakOff(const char *reason) {
  if (!current.pending) return;
  current.pending = 0;
  mrepl::dropFile();
  if (current.failed) return;
  received.failed(current.header, kWriteFailed, reason);
  base::print(fplog, "NOTICE:  Failed to replicate >%.256s< %s!\n", current.header.name, reason);
}

// --- headers ---

int takeSmallFile(mslot *slot, mfilehead *header) {
  int result = restoreFile(header);
  uint64_t size = mrepl::sizeOf(*header);
  if (result != 0) return result;
  size_t from = mrepl::soundRun() ? MR_INLINE_OFF : kOldInlineOff;
  // What would lie behind the segment is the next one's.
  char content[MR_INLINE_MAX] = {};
  memcpy(content, slot->seg.payload + from, MR_PAYLOAD - from);
  uint64_t position = 0;
  if (size > 0 && mrepl::putBlock(&position, static_cast<int>(size), content) < 1) {
    mrepl::dropFile();
    return kWriteFailed;
  }
  received.content(content, static_cast<size_t>(size));
  return mrepl::finishFile(header, false);
}

int takeFile(mslot *slot, mfilehead *header, int *dataPending) {
  uint64_t size = mrepl::sizeOf(*header);
  // An installed receiver takes another place than the senders use, so that small files arrive as
  // zeros; it awaits one of exactly 688 bytes in further segments.
  bool small = mrepl::soundRun() ? size <= MR_INLINE_MAX : size < kOldInlineEnd;
  if (small) return takeSmallFile(slot, header);
  int result = restoreFile(header);
  if (result == 0) *dataPending = 1;
  return result;
}

int takeLink(mslot *slot, mfilehead *header) {
  int result = restoreSlink(header);
  const char *target = slot->seg.payload + MR_INLINE_OFF;
  received.content(target, strnlen(target, std::min<size_t>(header->size, MR_INLINE_MAX)));
  dump(reinterpret_cast<unsigned char *>(header));
  return result;
}

int takeByType(mslot *slot, mfilehead *header, int *dataPending) {
  switch (header->type) {
    case mrepl::kFile:
      return takeFile(slot, header, dataPending);
    case mrepl::kDirectory:
      return restoreDir(header);
    case mrepl::kLink:
      return takeLink(slot, header);
    case mrepl::kBlockDevice:
      return restoreBDev(header);
    case mrepl::kCharDevice:
      return restoreCDev(header);
    case mrepl::kNothing:
    case mrepl::kOther:
      return 0;
    default:
      base::print(fplog, "INFO:  Unknown file type: >%c<\n", header->type);
      return 0;
  }
}

// Types whose times are set here. Under the shared way to disk directories get theirs at the end,
// and what was not made has none.
bool timesAreOurs(const mfilehead &header) {
  if (header.type == mrepl::kFile || header.type == mrepl::kLink) return false;
  if (!base::sound(base::Area::receive)) return true;
  return header.type == mrepl::kBlockDevice || header.type == mrepl::kCharDevice;
}

bool counts(const mfilehead &header) {
  return header.type == mrepl::kFile || header.type == mrepl::kDirectory ||
         header.type == mrepl::kLink || header.type == mrepl::kBlockDevice ||
         header.type == mrepl::kCharDevice;
}

// --- the walk ---

bool getterRuns(const mrecvctrl &ctrl, int parent) {
  return base::loadWord(ctrl.getterState) == mrepl::kRunning && !mrepl::orphaned(parent);
}

void waitForSegment(const mrecvctrl &ctrl, uint32_t seen) {
  int64_t wait = __atomic_load_n(&ctrl.waitTime, __ATOMIC_ACQUIRE);
  wait = mrepl::soundRun() ? kIdleMicros : mrepl::boundedWait(wait);
  // Anybody on the network can name minutes; nobody may make us sleep through the rest of a run.
  if (wait > kIdleMicros)
    base::waitWord(&ctrl.contiguousLow, seen, static_cast<int>(wait / 1000));
  else
    mrepl::waitWordMicros(ctrl.contiguousLow, seen, wait);
}

// True when the end record was reached.
bool walk(mrecvctrl *ctrl, mslot *ring, int parent) {
  for (;;) {
    mrepl::Number number = mrepl::extractedOf(*ctrl);
    bool running = getterRuns(*ctrl, parent);
    uint32_t seen = base::loadWord(ctrl->contiguousLow);
    if (number >= mrepl::contiguousOf(*ctrl)) {
      if (!running) return false;
      waitForSegment(*ctrl, seen);
      continue;
    }
    if (mrepl::debugging())
      base::print(fplog, "DEBUG:  extracter:  Extracting %u:%u\n", mrepl::highOf(number),
                  mrepl::lowOf(number));
    mslot &slot = mrepl::recvSlot(ring, number);
    // Segment 0 is never sent; its empty slot would be reported as a damaged header in every run.
    bool never = number == 0 && mrepl::soundRun();
    if (!never && fileExtractor(&slot) == kEndOfRun) return true;
    __atomic_store_n(&slot.state, uint8_t{0}, __ATOMIC_RELEASE);
    mrepl::storeNumber(ctrl->extractedHigh, ctrl->extractedLow, number + 1);
  }
}

}  // namespace

int createNewFile(mslot *slot, mfilehead *headerCopy, int *dataPending) {
  auto *header = reinterpret_cast<mfilehead *>(slot->seg.payload);
  *dataPending = 0;
  if ((slot->seg.control & mrepl::kEnciphered) != 0) decryptHeader(header);
  convertFileEndian(header);
  if (header->magic != MR_HEAD_MAGIC) {
    dump(reinterpret_cast<unsigned char *>(header));
    return kNoHeader;
  }
  if (header->type == mrepl::kEnd) return kEndOfRun;
  *headerCopy = *header;
  received.newEntry();
  int result = takeByType(slot, header, dataPending);
  if (timesAreOurs(*header)) mrepl::setTimes(*header);
  return result;
}

int fileExtractor(mslot *slot) {
  bool marked = marksHeaders(*slot);
  if (marked) {
    received.noteRun(slot->seg.control);
    if (markedHead(*slot)) breakOff("its content did not arrive whole");
    // Content whose header could not be used.
    if (!markedHead(*slot) && !current.pending) return 0;
  }
  if (current.pending) {
    takeBlock(slot);
    return 0;
  }
  current.failed = false;
  int result = createNewFile(slot, &current.header, &current.pending);
  current.position = 0;
  if (result == kEndOfRun) return result;
  if (result == kNoHeader || !counts(current.header))
    return result == 0 ? 0 : (logError(&current.header, result), result);
  if (!current.pending) settle(&current.header, result);
  return result;
}

int extracter(void) {
  auto *ctrl = static_cast<mrecvctrl *>(getCtrlPtr(shmid));
  mslot *ring = getDataPtr(shmid);
  if (!ctrl || !ring) return -1;
  int parent = getppid();
  current = Current{};
  mrepl::storeNumber(ctrl->extractedHigh, ctrl->extractedLow, 0);
  base::storeWord(ctrl->extracterState, mrepl::kRunning);
  while (base::loadWord(ctrl->getterState) == 0 && !mrepl::orphaned(parent)) mrepl::sleepMicros(10);
  if (base::loadWord(ctrl->getterState) != mrepl::kRunning) {
    base::storeWord(ctrl->extracterState, mrepl::kEnded);
    return -1;
  }
  umask(0);
  received.begin();
  mrepl::beginRestoring();
  bool complete = walk(ctrl, ring, parent);
  breakOff("the run has ended before it was whole");
  mrepl::endRestoring();
  received.finish(complete);
  // The other process removes the area, unless it was killed.
  if (mrepl::orphaned(parent)) rmShMem(shmid);
  base::storeWord(ctrl->extracterState, mrepl::kEnded);
  return 0;
}
