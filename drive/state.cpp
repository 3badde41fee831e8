#include "drive/state.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/fd.h"

namespace drive {

static constexpr char kMagic[8] = {'Z', 'U', 'L', 'v', 't', 'p', '1', '\n'};

State *mapState(const char *drive) {
  base::Fd file(open(DrivePath(drive, "state"), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0660));
  struct stat status;
  if (!file || fstat(file.get(), &status) != 0) return nullptr;
  if (status.st_size != static_cast<off_t>(kStateSize)) {
    static const char kFresh[kStateSize] = {0};
    giveToOwner(file.get());
    if (pwrite(file.get(), kFresh, sizeof kFresh, 0) != static_cast<ssize_t>(sizeof kFresh) ||
        ftruncate(file.get(), kStateSize) != 0)
      return nullptr;
  }
  void *page = mmap(nullptr, kStateSize, PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0);
  if (page == MAP_FAILED) return nullptr;
  State *state = static_cast<State *>(page);
  if (memcmp(state->magic, kMagic, sizeof kMagic) != 0) {
    memset(page, 0, kStateSize);
    memcpy(state->magic, kMagic, sizeof kMagic);
  }
  state->cartridge[sizeof state->cartridge - 1] = '\0';
  return state;
}

void unmapState(State *state) {
  if (state) munmap(state, kStateSize);
}

void resetState(State *state, const char *cartridge, int image) {
  struct stat status = {};
  if (image >= 0) (void)!fstat(image, &status);
  base::copyText(state->cartridge, sizeof state->cartridge, cartridge);
  state->inode = status.st_ino;
  state->seenSize = status.st_size;
  state->offset = state->durable = 0;
  state->fileNo = state->blockNo = 0;
  state->passed = Passed::data;
  state->isWritten = state->isWarned = state->blockSize = 0;
  syncState(state);
}

void syncState(State *state) {
  msync(state, kStateSize, MS_SYNC);
}

}  // namespace drive
