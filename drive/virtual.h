// Virtual drives behind drive.h.
//
// The descriptor that callers hold is that of the drive's lock file, with an flock on it: the lock
// belongs to the open file description, so a descriptor that was inherited or duplicated keeps the
// drive busy, and the last close or a kill frees it, just as the kernel does it for its own. It is
// open for reading only and carries no data: who writes to it by another door gets EBADF and harms
// nothing. The image has a descriptor of its own, which nobody outside sees.
#pragma once
#include <stddef.h>
#include <stdint.h>
#include <sys/mtio.h>
#include <sys/types.h>

#include "drive/faults.h"
#include "drive/image.h"
#include "drive/marks.h"
#include "drive/place.h"
#include "drive/state.h"

namespace drive {

// One open of a virtual drive in this process. Plain data: it outlives a fork, and an alarm may
// jump over the calls that use it.
struct Handle {
  State *state;  // null: the entry is free
  int fd;        // the lock
  int image;     // -1: opened without a cartridge
  Marks marks;
  int mode;  // O_RDONLY, O_WRONLY or O_RDWR
  bool isProtected;
  int64_t warningAt, hardEnd;  // in the image
  dev_t lockDevice;
  ino_t lockInode;
  Faults faults;
  char drive[kNameRoom];
};

// The open that fd belongs to, or nullptr. confirmed looks whether fd still is what was opened, and
// forgets the entry when somebody closed it behind our back.
Handle *findHandle(int fd);
Handle *findHandleConfirmed(int fd);

// fd is what the kernel has just given out: an entry of that number was closed behind our back.
void forgetClosed(int fd);

// Operators look at drives and change cartridges while they hold the lock of the shelf, and have a
// drive open for a moment of that time only. A job waits for the end of it, so that a look at the
// drives never fails a backup.
enum class Patience { none, operators };

int openVirtual(const char *device, int flags, Patience patience = Patience::operators);
int closeVirtual(Handle &handle);
// Closes what belongs to the open without a look at the tape.
void dropHandle(Handle &handle);

ssize_t readVirtual(Handle &handle, void *buf, size_t n);
ssize_t writeVirtual(Handle &handle, const void *buf, size_t n);
int operateVirtual(Handle &handle, short operation, int count);
int statusVirtual(Handle &handle, mtget *out);

// ---- between the sources of the virtual drive

// From the early warning to the hard end, or an eighth of a small cartridge.
constexpr int64_t kWarningZone = int64_t{512} * 1024;

// Counts from zero when the fault file is another one than the counts belong to.
void startFaultCount(Handle &handle);

// True with a cartridge in the drive; else errno is ENOMEDIUM.
bool hasMedium(const Handle &handle);
// Waits and fails as the fault file wants it: 0, or -1 with errno.
int strikeFault(Handle &handle, FaultKind kind);
// Gives up everything behind the position, as the first write does on any tape. 0 or -1.
int beginWriting(Handle &handle);
// Writes marks and makes everything before them durable. 0, or -1 with errno.
int writeMarks(Handle &handle, int count);
// The mark that ends what was written, if it is still owed. 0, or -1 with errno.
int finishWriting(Handle &handle);
// The same for what a killed or abandoned writer left: whole blocks are kept, a torn one is cut.
int recoverWriting(Handle &handle);

// The driver's counters, moved on.
inline void passBlock(State &state) {
  if (state.blockNo >= 0) state.blockNo++;
  state.passed = Passed::data;
}
inline void passMarks(State &state, int count) {
  if (state.fileNo >= 0) state.fileNo += count;
  state.blockNo = 0;
  state.passed = Passed::mark;
}

}  // namespace drive
