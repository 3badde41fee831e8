// What a peer, or somebody on the way to it, may send to an encrypted stream. The first byte
// chooses: bytes from the first hello on, bytes behind a genuine handshake, or a genuine stream
// that the input edits on its way. Text that is read must be text that was written, in its order,
// whatever happens.
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zul/host.h>

#include <filesystem>
#include <initializer_list>

#include "scram/scram.h"

namespace {

constexpr char kText[] = "Next\nGet\nand then some bytes of a file that is not long\nQuit\n";
constexpr size_t kTextBytes = sizeof kText - 1;

// near - hands - far: what near sends comes to hands[0], what is sent from hands[1] comes to far.
int near, far, hands[2];

void makeHome() {
  char name[] = "/dev/shm/zulfuzz.XXXXXX", path[300];
  if (!mkdtemp(name)) abort();
  snprintf(ZULhome, sizeof ZULhome, "%s", name);
  atexit([] { std::filesystem::remove_all(ZULhome); });
  snprintf(path, sizeof path, "%s/etc", name);
  if (mkdir(path, 0700) != 0) abort();
  snprintf(path, sizeof path, "%s/etc/ZULkey", name);
  int fd = open(path, O_WRONLY | O_CREAT, 0600);
  for (int digit = 0; digit < 64; digit++)
    if (write(fd, "7", 1) != 1) abort();
  close(fd);
  scram::timeouts = {0, 0};
}

void connectAll() {
  int first[2], second[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, first) != 0) abort();
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, second) != 0) abort();
  near = first[0];
  hands[0] = first[1];
  hands[1] = second[0];
  far = second[1];
}

size_t pump(int from, int to, char *bytes, size_t room) {
  ssize_t got = recv(from, bytes, room, MSG_DONTWAIT);
  if (got <= 0) return 0;
  if (to >= 0 && send(to, bytes, static_cast<size_t>(got), MSG_NOSIGNAL) != got) abort();
  return static_cast<size_t>(got);
}

void shakeHands() {
  char bytes[512];
  for (int round = 0; round < 3; round++) {
    if (cryreadn(near, bytes, 1) != -2) abort();
    pump(hands[0], hands[1], bytes, sizeof bytes);
    if (cryreadn(far, bytes, 1) != -2) abort();
    pump(hands[1], hands[0], bytes, sizeof bytes);
  }
}

// Reads by turns lines and bytes until nothing comes. What comes must continue the text.
void readAll(uint8_t turns, bool honest) {
  char got[64];
  size_t at = 0;
  for (;; turns = static_cast<uint8_t>(turns >> 1 | turns << 7)) {
    size_t size = 3 + turns % 40;
    bool line = (turns & 1) != 0;
    int result = line ? cryreadnline(far, got, size) : cryreadn(far, got, size);
    if (result > static_cast<int>(size)) abort();
    if (result <= 0) break;
    size_t count = line ? strlen(got) : static_cast<size_t>(result);
    if (!honest || at + count > kTextBytes || memcmp(kText + at, got, count) != 0) abort();
    at += count;
  }
}

void sendEdited(const uint8_t *edits, size_t size) {
  char bytes[1024];
  for (size_t at = 0; at < kTextBytes; at += 9) {
    size_t piece = kTextBytes - at < 9 ? kTextBytes - at : 9;
    if (crywriten(near, const_cast<char *>(kText) + at, piece) != static_cast<int>(piece)) abort();
  }
  size_t count = pump(hands[0], -1, bytes, sizeof bytes);
  // Three bytes of the input are an edit: where, and what happens there.
  for (; size >= 3; edits += 3, size -= 3) {
    size_t where = (edits[0] | static_cast<size_t>(edits[1] & 1) << 8) % (count ? count : 1);
    if (edits[1] & 2)
      memmove(bytes + where, bytes, count - where < where ? count - where : where);
    else if (edits[1] & 4)
      count = where;
    else
      bytes[where] = static_cast<char>(bytes[where] ^ edits[2]);
  }
  if (count && send(hands[1], bytes, count, MSG_NOSIGNAL) != static_cast<ssize_t>(count)) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (ZULhome[0] == '\0') makeHome();
  if (size < 2 || size > 4096) return 0;
  connectAll();
  uint8_t kind = data[0] % 3, turns = data[1];
  data += 2;
  size -= 2;
  if (kind != 0) shakeHands();
  if (kind == 2)
    sendEdited(data, size);
  else if (size && send(hands[1], data, size, MSG_NOSIGNAL) < 0)
    abort();
  if (turns & 1) shutdown(hands[1], SHUT_WR);
  readAll(turns, kind == 2);
  for (int fd : {near, far, hands[0], hands[1]}) close(fd);
  return 0;
}
