// The System V segment through which the tape writer of a backup job and its gathering children
// hand packages over. The job process makes and attaches it; the children inherit the attachment.
#include "tape/segment.h"

#include <errno.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <zul/host.h>
#include <zul/module.h>
#include <zul/tape.h>

#include "base/log.h"
#include "base/sharedword.h"

int tpshmid = -1;

namespace {

constexpr int kTailBytes = 256;  // kept free of slots: the doorbell and room for more
constexpr int kPageBytes = 4096;
static_assert(IPC_SHM_SIZE / sizeof(ipc) * sizeof(ipc) + kTailBytes == IPC_SHM_SIZE,
              "the usual segment is slots and the tail, with nothing in between");

void *const kInvalid = reinterpret_cast<void *>(-1);  // NOLINT: what shmat answers
void *attached = kInvalid;
size_t attachedBytes = 0;

// Null in a segment smaller than the job driver makes: a slot may reach to its very end.
uint32_t *doorbell() {
  if (attached == kInvalid || attachedBytes < IPC_SHM_SIZE) return nullptr;
  return reinterpret_cast<uint32_t *>(static_cast<char *>(attached) + attachedBytes - kTailBytes);
}

}  // namespace

int tpmkShMem(int size) {
  int id = shmget(IPC_PRIVATE, static_cast<size_t>(size < 0 ? 0 : size), IPC_CREAT | 0600);
  if (id < 0) base::print(backuplog, "ERROR:  8325  Function shmget failed!  errno = %i\n", errno);
  void *address = shmat(id, nullptr, 0);
  if (address == kInvalid) {
    int error = errno;
    base::print(backuplog,
                "ERROR:  8326  Function shmat failed!  Unable to get pointer to shared memory.  "
                "errno = %i \n",
                error);
    if (id >= 0) shmctl(id, IPC_RMID, nullptr);
    return -1;
  }
  memset(address, 0, static_cast<size_t>(size));
  shmdt(address);
  return id;
}

void *tpgetShMemPtr(int id) {
  if (id == -1) {
    attached = kInvalid;
    attachedBytes = 0;
    return nullptr;
  }
  if (attached != kInvalid) return attached;
  void *address = shmat(id, nullptr, 0);
  shmid_ds about{};
  if (address != kInvalid && shmctl(id, IPC_STAT, &about) != 0) {
    shmdt(address);
    address = kInvalid;
  }
  if (address == kInvalid) {
    base::print(backuplog,
                "ERROR:  8328  Function shmat failed!  Unable to get pointer to shared memory.  "
                "errno = %i \n",
                errno);
    return nullptr;
  }
  attached = address;
  attachedBytes = about.shm_segsz;
  return attached;
}

int tprmShMem(int id) {
  if (shmctl(id, IPC_RMID, nullptr) == 0) return 1;
  base::print(backuplog, "ERROR:  8327  Function shmctl failed!  Unable to free shared memory\n");
  return 0;
}

namespace tape {

int segmentSize(int slots) {
  constexpr int kSlotBytes = static_cast<int>(sizeof(ipc));
  if (slots <= (IPC_SHM_SIZE - kTailBytes) / kSlotBytes) return IPC_SHM_SIZE;
  int bytes = slots * kSlotBytes + kTailBytes;
  return (bytes + kPageBytes - 1) / kPageBytes * kPageBytes;
}

int slotCapacity() {
  if (attached == kInvalid) return 0;
  size_t tail = attachedBytes < IPC_SHM_SIZE ? 0 : kTailBytes;
  return static_cast<int>((attachedBytes - tail) / sizeof(ipc));
}

ipc *findSlot(int slot) {
  auto *slots = static_cast<ipc *>(tpshmid < 0 ? nullptr : tpgetShMemPtr(tpshmid));
  if (!slots) return nullptr;
  if (slot < 0 || slot >= slotCapacity()) {
    errno = EINVAL;
    return nullptr;
  }
  return slots + slot;
}

void ringDoorbell() {
  uint32_t *bell = doorbell();
  if (!bell) return;
  __atomic_add_fetch(bell, 1, __ATOMIC_RELEASE);
  base::wakeWord(bell);
}

uint32_t readDoorbell() {
  uint32_t *bell = doorbell();
  return bell ? base::loadWord(*bell) : 0;
}

void awaitDoorbell(uint32_t seen, int longestMs) {
  static uint32_t silent = 0;  // no segment, no news: what is waited on then never changes
  uint32_t *bell = doorbell();
  base::waitWord(bell ? bell : &silent, bell ? seen : 0, longestMs);
}

}  // namespace tape
