// Moving the tape of a virtual drive, and the other operations of MTIOCTOP.
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include "drive/virtual.h"

namespace drive {

static int fail(int error) {
  errno = error;
  return -1;
}

// The block number is unknown after every stop but one behind a mark.
static int stopAtEnd(State &state) {
  state.blockNo = -1;
  state.passed = Passed::end;
  return fail(EIO);
}

static int stopAtDamage(State &state) {
  state.blockNo = -1;
  state.passed = Passed::data;
  return fail(EIO);
}

static void standAtBeginning(State &state) {
  state.offset = 0;
  state.fileNo = state.blockNo = 0;
  state.passed = Passed::data;
  state.isWarned = 0;
}

static int rewindTape(Handle &handle) {
  if (finishWriting(handle) != 0 || strikeFault(handle, FaultKind::rewind) != 0) return -1;
  standAtBeginning(*handle.state);
  return 0;
}

// Behind as many of the next count marks as are listed; how many that was.
static int jumpMarks(Handle &handle, int count) {
  State &state = *handle.state;
  if (state.fileNo < 0) return 0;
  int known = countMarks(handle.marks) - state.fileNo;
  int skipped = known < count ? known : count;
  if (skipped <= 0) return 0;
  int64_t behind = behindMark(handle.marks, handle.image, state.fileNo + skipped - 1);
  if (behind <= state.offset) return 0;
  state.offset = behind;
  passMarks(state, skipped);
  return skipped;
}

// Behind the record ahead; -1 where none can be read.
static int passNext(State &state, image::Walk &walk, image::Record *record) {
  *record = walk.next();
  state.offset = walk.offset();
  if (record->kind == image::Kind::end) return stopAtEnd(state);
  if (record->kind == image::Kind::damage) return stopAtDamage(state);
  return 0;
}

// In front of the record behind us; -1 where none can be read.
static int passBack(Handle &handle, image::Record *record) {
  State &state = *handle.state;
  *record = image::lookBack(handle.image, state.offset);
  if (record->kind == image::Kind::damage) return stopAtDamage(state);
  if (record->kind == image::Kind::end) {
    standAtBeginning(state);
    return fail(EIO);
  }
  state.offset = record->next;
  state.passed = Passed::data;
  return 0;
}

// Behind the count-th mark from here.
static int forwardMarks(Handle &handle, int count) {
  State &state = *handle.state;
  if (count == 0) return 0;
  count -= jumpMarks(handle, count);
  image::Walk walk(handle.image, state.offset);
  for (image::Record record; count > 0;) {
    if (passNext(state, walk, &record) != 0) return -1;
    if (record.kind == image::Kind::mark) {
      addMark(handle.marks, state.fileNo, state.offset);
      passMarks(state, 1);
      count--;
    }
  }
  return 0;
}

// In front of the count-th mark behind us.
static int backMarks(Handle &handle, int count) {
  State &state = *handle.state;
  for (image::Record record; count > 0;) {
    if (passBack(handle, &record) != 0) return -1;
    state.blockNo = -1;
    if (record.kind != image::Kind::mark) continue;
    if (state.fileNo > 0) state.fileNo--;
    count--;
  }
  return 0;
}

// Over count blocks; a mark ends it, behind the mark.
static int forwardBlocks(Handle &handle, int count) {
  State &state = *handle.state;
  image::Walk walk(handle.image, state.offset);
  for (image::Record record; count > 0; count--) {
    if (passNext(state, walk, &record) != 0) return -1;
    if (record.kind == image::Kind::mark) {
      passMarks(state, 1);
      return fail(EIO);
    }
    passBlock(state);
  }
  return 0;
}

// Back over count blocks; a mark ends it, in front of the mark.
static int backBlocks(Handle &handle, int count) {
  State &state = *handle.state;
  for (image::Record record; count > 0; count--) {
    if (passBack(handle, &record) != 0) return -1;
    if (record.kind == image::Kind::mark) {
      if (state.fileNo > 0) state.fileNo--;
      state.blockNo = -1;
      return fail(EIO);
    }
    if (state.blockNo > 0) state.blockNo--;
  }
  return 0;
}

static int toEndOfData(Handle &handle) {
  State &state = *handle.state;
  while (forwardMarks(handle, 1) == 0) continue;
  return state.passed == Passed::end ? 0 : -1;
}

static int eraseRest(Handle &handle) {
  if (handle.mode == O_RDONLY) return fail(EACCES);
  if (finishWriting(handle) != 0) return -1;
  cutMarks(handle.marks, handle.state->fileNo);
  if (ftruncate(handle.image, handle.state->offset) != 0 || fdatasync(handle.image) != 0) return -1;
  handle.state->seenSize = handle.state->offset;
  sealMarks(handle.marks, handle.image);
  return 0;
}

// The cartridge comes out and stays on the shelf.
static int eject(Handle &handle) {
  if (rewindTape(handle) != 0) return -1;
  if (unlink(DrivePath(handle.drive, "cartridge")) != 0 && errno != ENOENT) return -1;
  handle.state->cartridge[0] = '\0';
  return 0;
}

static int setBlockSize(State &state, int size) {
  if (size < 0 || size > static_cast<int>(image::kBlockMax)) return fail(EINVAL);
  state.blockSize = static_cast<uint32_t>(size);
  return 0;
}

// Going back from behind freshly written blocks: they get their mark first, and the step over it
// is ours to make, not the caller's to count.
static int beginGoingBack(Handle &handle) {
  State &state = *handle.state;
  if (!state.isWritten) return 0;
  int blockNo = state.blockNo;
  if (finishWriting(handle) != 0 || backMarks(handle, 1) != 0) return -1;
  state.blockNo = blockNo;
  return 0;
}

static int spaceTape(Handle &handle, short operation, int count) {
  if (count < 0) return fail(EINVAL);
  bool isBack = operation == MTBSF || operation == MTBSFM || operation == MTBSR;
  if (isBack && beginGoingBack(handle) != 0) return -1;
  if (strikeFault(handle, FaultKind::space) != 0) return -1;
  handle.state->isWarned = 0;
  switch (operation) {
    case MTFSF:
      return forwardMarks(handle, count);
    case MTBSF:
      return backMarks(handle, count);
    case MTFSR:
      return forwardBlocks(handle, count);
    case MTBSR:
      return backBlocks(handle, count);
    // The two that stop at the other side of the last mark.
    case MTFSFM:
      if (count == 0) return 0;
      return forwardMarks(handle, count) == 0 ? backMarks(handle, 1) : -1;
    case MTBSFM:
      if (count == 0) return 0;
      return backMarks(handle, count) == 0 ? forwardMarks(handle, 1) : -1;
    default:
      return toEndOfData(handle);
  }
}

static int putMarks(Handle &handle, int count) {
  if (handle.mode == O_RDONLY) return fail(EACCES);
  if (count < 0) return fail(EINVAL);
  return writeMarks(handle, count);
}

int operateVirtual(Handle &handle, short operation, int count) {
  if (!hasMedium(handle)) return -1;
  switch (operation) {
    case MTREW:
    case MTRETEN:
    case MTLOAD:
      return rewindTape(handle);
    case MTFSF:
    case MTBSF:
    case MTFSR:
    case MTBSR:
    case MTFSFM:
    case MTBSFM:
    case MTEOM:
      return spaceTape(handle, operation, count);
    case MTWEOF:
      return putMarks(handle, count);
    case MTERASE:
      return eraseRest(handle);
    case MTOFFL:
    case MTUNLOAD:
      return eject(handle);
    case MTSETBLK:
      return setBlockSize(*handle.state, count);
    // What only concerns hardware is granted and changes nothing.
    case MTNOP:
    case MTSETDENSITY:
    case MTSETDRVBUFFER:
    case MTCOMPRESSION:
    case MTLOCK:
    case MTUNLOCK:
      return 0;
    default:
      return fail(ENOSYS);
  }
}

}  // namespace drive
