// Reading, writing and status of virtual drives. The frames of the calls that move a block are
// plain data: an alarm may jump over them.
#include "drive/virtual.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/pause.h"

namespace drive {

// As the kernel's driver names a SCSI tape.
static constexpr long kTypeScsi2 = MT_ISSCSI2;
// So many marks still fit behind the end of the tape: a job that met it must be able to close.
static constexpr int64_t kMarkRoom = 4096;

bool hasMedium(const Handle &handle) {
  if (handle.image >= 0 && handle.state->cartridge[0] != '\0') return true;
  errno = ENOMEDIUM;
  return false;
}

void startFaultCount(Handle &handle) {
  State &state = *handle.state;
  if (state.faultStamp == handle.faults.stamp) return;
  state.faultStamp = handle.faults.stamp;
  state.faultBytes = 0;
  memset(state.faultCounts, 0, sizeof state.faultCounts);
}

int strikeFault(Handle &handle, FaultKind kind) {
  // Whoever set new faults has left their stamp in the shared state.
  if (handle.state->faultStamp != handle.faults.stamp) {
    loadFaults(handle.drive, &handle.faults);
    startFaultCount(handle);
  }
  if (handle.faults.count == 0) return 0;
  uint32_t count = ++handle.state->faultCounts[static_cast<size_t>(kind)];
  for (size_t i = 0; i < handle.faults.count; i++) {
    const Fault &fault = handle.faults.list[i];
    if (fault.kind != kind || (fault.isLasting ? count < fault.nth : count != fault.nth)) continue;
    if (fault.delayMs > 0) base::sleepMs(fault.delayMs);
    if (fault.error == 0) continue;
    errno = fault.error;
    return -1;
  }
  return 0;
}

// ---- reading

// At the end of the data a read gives 0 once when a mark was the last thing seen, as at any mark,
// and fails from then on.
static ssize_t readEnd(State &state) {
  bool isFirst = state.passed == Passed::mark;
  state.passed = Passed::end;
  state.blockNo = -1;
  if (isFirst) return 0;
  errno = EIO;
  return -1;
}

static ssize_t readDamage() {
  errno = EIO;
  return -1;
}

static ssize_t readMark(State &state, const image::Record &mark) {
  state.offset = mark.next;
  passMarks(state, 1);
  return 0;
}

// One block. A longer one than was asked for is passed all the same, so that the next read gives
// the next block.
static ssize_t readOne(Handle &handle, const image::Record &record, void *buf, size_t n) {
  State &state = *handle.state;
  bool fits = record.length <= n;
  image::Kind kind =
      fits ? image::takeData(handle.image, record, buf) : image::confirm(handle.image, record);
  if (kind == image::Kind::end) return readEnd(state);
  if (kind != image::Kind::data) return readDamage();
  state.offset = record.next;
  passBlock(state);
  if (fits) return record.length;
  errno = ENOMEM;
  return -1;
}

// Fixed-block mode: as many whole blocks as were asked for, up to a mark. What ends them early is
// met again by the next read.
static ssize_t readFixed(Handle &handle, void *buf, size_t n) {
  State &state = *handle.state;
  if (n % state.blockSize != 0) {
    errno = EINVAL;
    return -1;
  }
  size_t done = 0;
  while (done < n) {
    image::Record record = image::look(handle.image, state.offset);
    bool isBlock = record.kind == image::Kind::data && record.length == state.blockSize;
    if (!isBlock && done > 0) break;
    if (record.kind == image::Kind::mark) return readMark(state, record);
    if (record.kind == image::Kind::end) return readEnd(state);
    if (!isBlock) return readDamage();
    ssize_t got = readOne(handle, record, static_cast<char *>(buf) + done, state.blockSize);
    if (got <= 0) return done > 0 ? static_cast<ssize_t>(done) : got;
    done += static_cast<size_t>(got);
  }
  return static_cast<ssize_t>(done);
}

ssize_t readVirtual(Handle &handle, void *buf, size_t n) {
  if (handle.mode == O_WRONLY) {
    errno = EBADF;
    return -1;
  }
  if (!hasMedium(handle)) return -1;
  if (n == 0) return 0;
  if (strikeFault(handle, FaultKind::read) != 0) return -1;
  State &state = *handle.state;
  if (state.blockSize != 0) return readFixed(handle, buf, n);
  image::Record record = image::look(handle.image, state.offset);
  switch (record.kind) {
    case image::Kind::data:
      return readOne(handle, record, buf, n);
    case image::Kind::mark:
      return readMark(state, record);
    case image::Kind::end:
      return readEnd(state);
    case image::Kind::damage:
      break;
  }
  return readDamage();
}

// ---- writing

int beginWriting(Handle &handle) {
  State &state = *handle.state;
  if (state.isWritten) return 0;
  // On disk before the tape changes: after a power cut the next open must know that what lies
  // behind this place may be torn.
  state.durable = state.offset;
  state.isWritten = 1;
  syncState(&state);
  cutMarks(handle.marks, state.fileNo);
  if (ftruncate(handle.image, state.offset) == 0) return 0;
  int error = errno;
  state.isWritten = 0;
  errno = error;
  return -1;
}

// Room on the tape for a block. After a write that crossed the early warning the next one is
// refused and the one after that let in again, for a trailer, and so on until the hard end.
static bool admitBlock(Handle &handle, int64_t room) {
  State &state = *handle.state;
  bool isFull = state.offset + room > handle.hardEnd;
  if (handle.faults.endAfter >= 0) {
    int64_t written = static_cast<int64_t>(state.faultBytes);
    isFull = isFull || written - handle.faults.endAfter >= kWarningZone;
  }
  bool isRefused = state.isWarned != 0;
  state.isWarned = 0;
  if (!isFull && !isRefused) return true;
  errno = ENOSPC;
  return false;
}

static ssize_t writeOne(Handle &handle, const void *buf, size_t n) {
  State &state = *handle.state;
  if (strikeFault(handle, FaultKind::write) != 0 || !admitBlock(handle, image::roomFor(n)))
    return -1;
  if (!state.isWritten && beginWriting(handle) != 0) return -1;
  int64_t room = image::putBlock(handle.image, state.offset, buf, n);
  if (room < 0) return -1;
  state.offset += room;
  passBlock(state);
  bool isWarned = state.offset > handle.warningAt;
  if (handle.faults.stamp != 0) {
    state.faultBytes += n;
    isWarned = isWarned || (handle.faults.endAfter >= 0 &&
                            static_cast<int64_t>(state.faultBytes) >= handle.faults.endAfter);
  }
  if (isWarned) state.isWarned = 1;
  return static_cast<ssize_t>(n);
}

static ssize_t writeFixed(Handle &handle, const void *buf, size_t n) {
  size_t size = handle.state->blockSize;
  if (n % size != 0) {
    errno = EINVAL;
    return -1;
  }
  for (size_t done = 0; done < n; done += size)
    if (writeOne(handle, static_cast<const char *>(buf) + done, size) < 0)
      return done > 0 ? static_cast<ssize_t>(done) : -1;
  return static_cast<ssize_t>(n);
}

ssize_t writeVirtual(Handle &handle, const void *buf, size_t n) {
  if (handle.mode == O_RDONLY) {
    errno = EBADF;
    return -1;
  }
  if (!hasMedium(handle)) return -1;
  if (n == 0) return 0;
  if (handle.state->blockSize != 0) return writeFixed(handle, buf, n);
  if (n > image::kBlockMax) {
    errno = EINVAL;
    return -1;
  }
  return writeOne(handle, buf, n);
}

// ---- marks

int writeMarks(Handle &handle, int count) {
  State &state = *handle.state;
  if (count > 0 && strikeFault(handle, FaultKind::mark) != 0) return -1;
  if (count > 0 && (handle.hardEnd < INT64_MAX - kMarkRoom) &&
      state.offset + count * image::kWord > handle.hardEnd + kMarkRoom) {
    errno = ENOSPC;
    return -1;
  }
  if (count > 0 &&
      (beginWriting(handle) != 0 || image::putMarks(handle.image, state.offset, count) != 0))
    return -1;
  if (fdatasync(handle.image) != 0) return -1;
  if (count == 0) return 0;
  for (int i = 0; i < count; i++) {
    state.offset += image::kWord;
    addMark(handle.marks, state.fileNo, state.offset);
    passMarks(state, 1);
  }
  sealMarks(handle.marks, handle.image);
  state.durable = state.seenSize = state.offset;
  state.isWritten = state.isWarned = 0;
  syncState(&state);
  return 0;
}

int finishWriting(Handle &handle) {
  State &state = *handle.state;
  if (!state.isWritten) return 0;
  if (state.offset != state.durable) return writeMarks(handle, 1);
  // The first write failed: the tape ends here, and an empty file is not ours to add.
  state.isWritten = 0;
  state.seenSize = state.offset;
  syncState(&state);
  return 0;
}

int recoverWriting(Handle &handle) {
  State &state = *handle.state;
  if (!state.isWritten) return 0;
  // Every mark is durable before it counts, so none can follow here: what looks like one is what a
  // power cut left of a block.
  image::Walk walk(handle.image, state.durable);
  int64_t end = state.durable;
  while (walk.next().kind == image::Kind::data) end = walk.offset();
  if (ftruncate(handle.image, end) != 0) return -1;
  state.offset = end;
  state.passed = Passed::data;
  return finishWriting(handle);
}

// ---- status

int statusVirtual(Handle &handle, mtget *out) {
  const State &state = *handle.state;
  *out = mtget{};
  out->mt_type = kTypeScsi2;
  out->mt_dsreg = static_cast<long>(state.blockSize) << MT_ST_BLKSIZE_SHIFT;
  out->mt_fileno = out->mt_blkno = -1;
  // Bits of mt_gstat, by the macros that test them.
  constexpr long kEof = 0x80000000, kBot = 0x40000000, kEot = 0x20000000, kEod = 0x08000000,
                 kProtected = 0x04000000, kOnline = 0x01000000, kDoorOpen = 0x00040000;
  if (!hasMedium(handle)) {
    out->mt_gstat = kDoorOpen;
    return 0;
  }
  out->mt_fileno = state.fileNo;
  out->mt_blkno = state.blockNo;
  out->mt_gstat = kOnline;
  if (handle.isProtected) out->mt_gstat |= kProtected;
  if (state.blockNo == 0) out->mt_gstat |= state.fileNo == 0 ? kBot : kEof;
  if (state.isWarned) out->mt_gstat |= kEot;
  if (state.passed == Passed::end) out->mt_gstat |= kEod;
  return 0;
}

}  // namespace drive
