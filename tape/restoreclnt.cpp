// The restore agent: the receiving side of a restore, in the agent's process on the destination
// host.
//
// goResclnt has pointed every stream at the restore's log before restoreIt runs. The tape host
// connects, and this side asks: "Next" for a header, "Get" for the one segment it introduces, when
// the file is wanted. Segments of one file come as exchanges of their own and land in one local
// file.
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <zul/host.h>
#include <zul/net.h>
#include <zul/tape.h>

#include "base/fd.h"
#include "base/log.h"
#include "base/pause.h"
#include "base/process.h"
#include "base/site.h"
#include "base/text.h"
#include "net/accept.h"
#include "net/stream.h"
#include "replication/target.h"

namespace {

constexpr int kMismatch = -1;
constexpr int kReadFailed = -4;
// A read that failed, told apart from a parent that cannot be made: both are -4 to callers, but
// only the one loses the stream.
constexpr int kStreamLost = -100;
constexpr size_t kLongPiece = 65536;

// Reads what is left of a segment that cannot be written, so that the dialogue stays in step.
int drain(int sd, size_t left) {
  char piece[PACK_PIECE];
  while (left > 0) {
    size_t want = left < sizeof piece ? left : sizeof piece;
    if (readn(sd, piece, want) != static_cast<ssize_t>(want)) return kStreamLost;
    left -= want;
  }
  return 0;
}

int receiveLink(int sd, const package &header, const char *path) {
  char text[PACK_PIECE + 1] = "";
  size_t length = header.size < PACK_PIECE ? static_cast<size_t>(header.size) : PACK_PIECE;
  if (readn(sd, text, length) != static_cast<ssize_t>(length)) return kStreamLost;
  if (header.size > length && drain(sd, target::segmentLength(header) - length) != 0)
    return kStreamLost;
  text[length] = '\0';
  if (strlen(text) + 1 != header.size) {
    base::print(stderr, "ERROR:  Stream read error.  Got: %s.  Of length %li, expected %li\n", text,
                static_cast<long>(strlen(text)), static_cast<long>(header.size));
    target::refuse("the text of the link is not whole:", path);
    return kMismatch;
  }
  return target::makeLink(header, path, text);
}

// The parent's name for a message: the path up to its last '/'.
void printNoParent(const char *path) {
  const char *slash = strrchr(path, '/');
  base::print(stderr, "ERROR:  Cannot make directory %.*s\n",
              slash ? static_cast<int>(slash - path) : 0, path);
}

int openFile(const package &header, const char *path) {
  int result = target::openSegment(header, path);
  if (result == target::kNoParent) printNoParent(path);
  if (result == target::kCannotOpen)
    base::print(stderr, "ERROR:  Cannot open %s.  errno = %i\n", path, errno);
  return result;
}

int receiveSegment(int sd, const package &header, const char *path) {
  size_t left = target::segmentLength(header);
  bool sound = base::sound(base::Area::receive);
  // Behind a file that ends on a full megabyte comes one more header, and nothing to write: the
  // file has its name already.
  if (sound && left == 0 && header.sequence > 0) return 0;
  int result = openFile(header, path);
  if (result != 0) return sound && drain(sd, left) != 0 ? kStreamLost : result;
  char piece[kLongPiece];
  // Of a stream that breaks off classic keeps every full piece of this size.
  size_t most = sound ? sizeof piece : PACK_PIECE;
  while (left > 0) {
    size_t want = left < most ? left : most;
    if (readn(sd, piece, want) != static_cast<ssize_t>(want)) {
      target::closeSegment(header, path, kStreamLost);
      return kStreamLost;
    }
    left -= want;
    if (result == 0) result = target::put(piece, want);
  }
  return target::closeSegment(header, path, result);
}

int takeSegment(int sd, const package &header, const char *path) {
  switch (header.type) {
    case 0:
      return receiveSegment(sd, header, path);
    case 1:
      return target::makeDirectory(header, path);
    case 2:
      return receiveLink(sd, header, path);
    default:
      // Nothing is created for devices, pipes and what had vanished. Classic sets the times of
      // whatever stands at the path all the same, which turns a file that is there back to 1970.
      if (!base::sound(base::Area::receive)) target::setTimesOf(header, path);
      return 0;
  }
}

// Without a limit a tape host that died would keep the data port, and with it every later backup
// and restore of this host, for ever.
constexpr int kConnectLimitMs = 300000;

struct Dialogue {
  int sd;
  const char *root;
  int conflict;
  char path[target::kPathRoom];
  bool failed;  // under "sound": some file was not restored
};

// Tells the tape host what happened to the file it has offered last; one that does not know the
// line ignores it.
void reportFailure(Dialogue *dialogue, const package &header, int result) {
  char line[512];
  char what[400];
  base::copyText(what, sizeof what, target::lastError());
  for (char *at = what; *at; at++)
    if (*at == '\n' || *at == '\r') *at = '?';
  int length = snprintf(line, sizeof line, "Failed %i %s\n", result, what);
  writen(dialogue->sd, line, static_cast<size_t>(length));
  base::print(stderr, "ERROR:  Not restored: %.256s: %s (%i)\n", header.filename, what, result);
  dialogue->failed = true;
  dialogue->path[0] = '\0';
}

// One file header. 0, or the result that ends the dialogue.
int takeFile(Dialogue *dialogue, package *header) {
  bool sound = base::sound(base::Area::receive);
  int chosen = 0;
  if (header->sequence == 0)
    chosen = target::choosePath(*header, dialogue->root, dialogue->conflict, dialogue->path,
                                sizeof dialogue->path);
  if (dialogue->path[0] == '\0') {
    base::print(stderr, "ERROR:  Restore path is null!\n");
    if (sound && chosen == target::kRefused) reportFailure(dialogue, *header, chosen);
    return 0;
  }
  writen(dialogue->sd, "Get\n", 4);
  int result = takeSegment(dialogue->sd, *header, dialogue->path);
  if (result == 0) return 0;
  base::print(stderr, "ERROR:  Got error from getFilefromStream2.  retval = %i\n",
              result == kStreamLost ? kReadFailed : result);
  // One file that cannot be made costs only itself, as long as its bytes were taken from the
  // stream.
  if (!sound || result == kStreamLost) return -4;
  reportFailure(dialogue, *header, result);
  return 0;
}

// Reads the answer to "Next". A time-out is retried: the tape host may be searching a long tape.
bool readHeader(int sd, char *raw) {
  return net::readPatiently(sd, raw, PACK_SIZE);
}

// 1 to go on, 0 at the end of the list, negative on failure.
int exchange(Dialogue *dialogue) {
  if (writen(dialogue->sd, "Next\n", 5) != 5) {
    base::print(stderr, "ERROR:  Write failure \n");
    return -1;
  }
  char raw[PACK_SIZE];
  package header;
  if (!readHeader(dialogue->sd, raw)) {
    base::print(stderr, "ERROR:  Can't read servers response to Next\n");
    return -2;
  }
  if (unpackPackage(raw, &header) < 0) {
    base::print(stderr, "Raw package format error\n");
    return -3;
  }
  // Untrusted bytes: the names end where their fields do.
  header.filename[sizeof header.filename - 1] = '\0';
  header.fromhost[sizeof header.fromhost - 1] = '\0';
  if (header.magic == PACK_EOL_MAGIC) return 0;
  if (header.magic != PACK_MAGIC) {
    base::print(stderr, "ERROR:  Bad magic %xi\nRaw header:", header.magic);
    fwrite(raw, 1, sizeof raw, stderr);
    // A stream out of step is no end of the list: what was still to come is missing.
    return base::sound(base::Area::receive) ? -3 : 0;
  }
  int result = takeFile(dialogue, &header);
  return result == 0 ? 1 : result;
}

}  // namespace

int getFilefromStream2(int sd, package *header, char *path) {
  int result = takeSegment(sd, *header, path);
  return result == kStreamLost ? kReadFailed : result;
}

int restHandShk(int listener, char *destination, int conflict) {
  base::ignoreSigpipe();
  base::Fd listening(listener);
  base::Fd connection(net::acceptPeer(listener, kConnectLimitMs));
  if (!connection) return -1;
  base::pauseFor(base::Pause::ReceiverReady);
  Dialogue dialogue{connection.get(), destination, conflict, "", false};
  target::begin(destination);
  int result;
  do {
    result = exchange(&dialogue);
  } while (result > 0);
  if (!target::end() && result == 0) result = -4;
  return result == 0 && dialogue.failed ? -4 : result;
}

int restoreIt(char *destination, int conflict) {
  return restHandShk(mkServerSD(), destination, conflict) != 0 ? -1 : 0;
}
