// Any bytes from a peer in place of a gatherer's answers, through the child and its mailbox onto a
// virtual tape: the dialogue ends, nothing is read or written out of bounds, what stands on the
// tape are whole packages, and each has its line in the volume list.
//
// The first byte picks the behaviour, the rest is the stream. The child's remarks go to the
// standard output: run with -close_fd_mask=1.
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>
#include <zul/host.h>
#include <zul/module.h>
#include <zul/net.h>
#include <zul/tape.h>

#include <atomic>
#include <thread>

#include "base/sharedword.h"
#include "base/site.h"
#include "base/text.h"
#include "fuzzhome.h"
#include "tape/segment.h"

namespace {

void makeHome() {
  fuzz::makeHome({"etc", "tmp"});
  tpshmid = tpmkShMem(IPC_SHM_SIZE);
  if (tpshmid < 0 || !tpgetShMemPtr(tpshmid)) abort();
  tprmShMem(tpshmid);
}

void setBehaviour(bool sound) {
  int fd = open(base::HomePath("etc/ZULsite"), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  const char *line = sound ? "behaviour = sound\n" : "behaviour = classic\n";
  if (fd < 0 || write(fd, line, strlen(line)) != static_cast<ssize_t>(strlen(line))) abort();
  close(fd);
  base::forgetSite();
}

// The tape writer's side: takes what is in the mailbox until the child has ended.
int takePackages(ipc *slot, const std::atomic<bool> &ended, int tape, FILE *vollist) {
  int taken = 0;
  for (;;) {
    bool last = ended;
    uint32_t produced = base::loadWord(slot->produced);
    if (produced != base::loadWord(slot->consumed)) {
      if (procFIFOData(slot, tape, vollist) != 0) break;
      if (base::loadWord(slot->consumed) != produced) break;  // nothing to take: its size wrapped
      taken++;
    } else if (last) {
      return taken;
    } else {
      base::waitWord(&slot->produced, produced, 1);
    }
  }
  // Told to stop, the child waits for nobody.
  while (!ended) {
    base::storeWord(slot->consumed, base::loadWord(slot->produced));
    base::wakeWord(&slot->consumed);
  }
  return taken;
}

int countLines(FILE *list) {
  int lines = 0;
  rewind(list);
  for (int c; (c = getc(list)) != EOF;) lines += c == '\n';
  return lines;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (ZULhome[0] == '\0') makeHome();
  if (size == 0 || size > 100000) return 0;
  setBehaviour(data[0] & 1);
  ipc *slot = tape::findSlot(0);
  memset(static_cast<void *>(slot), 0, sizeof *slot);
  base::copyText(slot->host, sizeof slot->host, "alpha");
  if (mkFIFO(0, getpid()) != 0) abort();
  slot->wfd = open(base::HomePath("tmp/ipc.alpha"), O_WRONLY | O_CLOEXEC);
  int tape = open(base::HomePath("tape"), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  FILE *vollist = fopen(base::HomePath("vol"), "w+e");
  int sd[2], room = 1 << 20;
  if (slot->wfd < 0 || tape < 0 || !vollist ||
      socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sd) != 0)
    abort();
  setsockopt(sd[1], SOL_SOCKET, SO_SNDBUF, &room, sizeof room);
  if (send(sd[1], data + 1, size - 1, MSG_DONTWAIT) != static_cast<ssize_t>(size - 1)) abort();
  shutdown(sd[1], SHUT_WR);

  std::atomic<bool> ended{false};
  int taken = 0;
  std::thread writer([&] { taken = takePackages(slot, ended, tape, vollist); });
  int result = clientHandshak(sd[0], slot);
  ended = true;
  writer.join();
  if (result > 0 || result < -8) abort();
  // A package that was not taken whole has its line too.
  int lines = countLines(vollist);
  if (lines < taken || lines > taken + 1) abort();
  fclose(vollist);
  for (int fd : {sd[0], sd[1], tape, slot->fd, slot->wfd}) close(fd);
  return 0;
}
