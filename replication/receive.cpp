// The receiving side of a replication, in the agent's process on a target host. The sending host
// connects to the data port, and this side asks: "Next" for a header, "Get" for the file, when it
// is wanted.
//
// Under "sound" a file that cannot be made costs only itself: its bytes are taken from the stream,
// the sender is told with a "Failed" line, and the next one is asked for.
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <zul/host.h>
#include <zul/net.h>
#include <zul/replication.h>

#include "base/fd.h"
#include "base/log.h"
#include "base/pause.h"
#include "base/process.h"
#include "base/site.h"
#include "net/accept.h"
#include "net/stream.h"
#include "replication/target.h"

namespace {

// Results of receiving a file, beside those of creating it. Behind the last three nothing that
// comes on the stream would be understood.
constexpr int kMismatch = -1;
constexpr int kHeaderLost = -8;
constexpr int kRepeatLost = -9;
constexpr int kDataLost = -10;

// Without a limit a sender that died would keep the data port, and with it every later job of this
// host, for ever.
constexpr int kConnectLimitMs = 300000;
constexpr size_t kLongPiece = 32 * PACK_PIECE;
constexpr int kQuery = 2;  // any value but 0 and 1 asks shouldEncrypt

bool soundReceive() {
  return base::sound(base::Area::receive);
}

bool isStreamLost(int result) {
  return result == kHeaderLost || result == kRepeatLost || result == kDataLost;
}

void printRemark(target::Remark remark, const char *path) {
  if (remark == target::Remark::linkNotMade)
    base::print(backuplog, "WARNING:  Cannot create link\n");
  else
    base::print(backuplog, "Warning cannot set file time for: %s. errno = %i \n", path, errno);
}

// Reads a header; false when there is none. A time-out is retried without limit: the sender may be
// walking over a tree in which nothing is to be sent.
bool readHeader(int sd, char *raw) {
  return net::readPatiently(sd, raw, PACK_SIZE);
}

// Reads and unpacks a header on the way of a file. 0, or result.
int takeHeader(int sd, package *header, int result) {
  char raw[PACK_SIZE];
  if (!readHeader(sd, raw)) {
    base::print(backuplog, "ERROR:  Can't read package header\n");
    return result;
  }
  if (unpackPackage(raw, header) < 0) {
    base::print(backuplog, "Raw package format error\n");
    return result;
  }
  return 0;
}

// A header in the middle of a file must continue that file: what else it says would be written over
// the rest of it.
bool continues(const package &header, const package &before) {
  return header.magic == PACK_MAGIC && header.type == 0 && header.size == before.size &&
         header.sequence == before.sequence + 1;
}

int takeRepeat(int sd, package *header) {
  package before = *header;
  int result = takeHeader(sd, header, kRepeatLost);
  if (result != 0 || !soundReceive() || continues(*header, before)) return result;
  base::print(backuplog, "ERROR:  The stream of %.256s is out of step\n", before.filename);
  return kRepeatLost;
}

// Takes the bytes of one segment, and has them written as long as result is 0. 0 or kDataLost.
int takeSegment(int sd, size_t length, uint64_t before, int *result) {
  char piece[kLongPiece];
  // A stream that breaks off leaves every full piece of this size in a classic file; and what a
  // classic sender's encryption library sealed in such pieces may have to be opened in such pieces.
  bool sealed = shouldEncrypt(kQuery) != 0 && !base::sound(base::Area::stream);
  size_t most = soundReceive() && !sealed ? sizeof piece : PACK_PIECE;
  for (size_t done = 0; done < length;) {
    size_t want = length - done < most ? length - done : most;
    ssize_t got = readn(sd, piece, want);
    if (got != static_cast<ssize_t>(want)) {
      if (want == most)
        base::print(backuplog,
                    "ERROR:  Socket read error.  Retval = %i, Errno = %i, fp = %i, size = %i\n",
                    static_cast<int>(got), errno, sd, static_cast<int>(want));
      else
        base::print(
            backuplog,
            "ERROR:  Socket read error.  Retval = %i, Errno = %i, fp = %i, got=%li, todo=%li\n",
            static_cast<int>(got), errno, sd, static_cast<long>(before + done),
            static_cast<long>(want));
      return kDataLost;
    }
    if (*result == 0) *result = target::put(piece, want);
    done += want;
  }
  return 0;
}

int openFile(const package &header, const char *path) {
  int result = target::openSegment(header, path);
  int error = errno;
  const char *slash = strrchr(path, '/');
  if (result == target::kNoParent)
    base::print(backuplog, "ERROR:  Cannot make directory %.*s\n",
                slash ? static_cast<int>(slash - path) : 0, path);
  else if (result != 0)
    base::print(backuplog, "ERROR:  Cannot open %s.  errno = %i\n", path, error);
  return result;
}

int receiveRegular(int sd, package *header, const char *path) {
  int result = openFile(*header, path);
  if (result != 0 && !soundReceive()) return result;
  uint64_t got = header->sequence > 0 ? static_cast<uint64_t>(header->sequence) * PACK_CHUNK : 0;
  for (int lost = 0;;) {
    size_t length = target::segmentLength(*header);
    lost = takeSegment(sd, length, got, &result);
    got += length;
    if (lost == 0 && got >= header->size) return target::closeSegment(*header, path, result);
    if (lost == 0) lost = takeRepeat(sd, header);
    if (lost == 0) continue;
    target::closeSegment(*header, path, lost);
    return lost;
  }
}

int receiveDirectory(const package &header, const char *path) {
  int result = target::makeDirectory(header, path);
  if (result == target::kNoParent)
    base::print(backuplog, "ERROR:  Can't make directory: %s\n", path);
  else if (result != 0)
    base::print(backuplog, "ERROR:  File %s should be a directory\n", path);
  return result;
}

int receiveLink(int sd, const package &header, const char *path) {
  char text[PACK_PIECE + 1] = "";
  size_t length = header.size < PACK_PIECE ? static_cast<size_t>(header.size) : PACK_PIECE;
  ssize_t got = readn(sd, text, length);
  if (got != static_cast<ssize_t>(length)) {
    base::print(backuplog,
                "ERROR:  Socket read error.  Retval = %i, Errno = %i, fp = %i, got=%li, todo=%li\n",
                static_cast<int>(got), errno, sd, 0L, static_cast<long>(length));
    return kDataLost;
  }
  text[length] = '\0';
  if (strlen(text) + 1 != header.size) {
    base::print(backuplog, "ERROR:  Stream read error.  Got: %s.  Of length %li, expected %li\n",
                text, static_cast<long>(strlen(text)), static_cast<long>(header.size));
    target::refuse("the text of the link is not whole:", path);
    // No link is longer than that, so what follows is nothing that could be passed over.
    return header.size > length && soundReceive() ? kDataLost : kMismatch;
  }
  int result = target::makeLink(header, path, text);
  // Follows the link: classic gives these times to what it leads to.
  if (result == 0 && !soundReceive()) target::setTimesOf(header, path);
  return result;
}

// Receives what the sender answers to "Get"; header is the last one of the file then.
int receiveFile(int sd, const char *path, package *header) {
  target::setRemarks(printRemark);
  int result = takeHeader(sd, header, kHeaderLost);
  if (result != 0) return result;
  if (soundReceive() && (header->magic != PACK_MAGIC || header->sequence != 0)) {
    base::print(backuplog, "ERROR:  No beginning of a file: %.256s\n", header->filename);
    return kHeaderLost;
  }
  switch (header->type) {
    case 0:
      return receiveRegular(sd, header, path);
    case 1:
      return receiveDirectory(*header, path);
    case 2:
      return receiveLink(sd, *header, path);
    default:
      // Nothing is created for devices, pipes and what had vanished. Classic sets the times of
      // whatever stands at the path all the same, which turns a file that is there back to 1970.
      if (!soundReceive()) target::setTimesOf(*header, path);
      return 0;
  }
}

struct Dialogue {
  int sd;
  const char *root;
  int conflict;
  char path[target::kPathRoom];
  package last;  // header that ended the file received last
  bool failed;   // under "sound": some file was not made
};

// Tells the sender what became of the file it has offered last. One that does not know the line
// passes it over.
void reportFailure(Dialogue *dialogue, const package &header, int result) {
  char line[512];
  int length = snprintf(line, sizeof line, "Failed %i %.400s\n", result, target::lastError());
  for (int at = 0; at < length - 1; at++)
    if (line[at] == '\n' || line[at] == '\r') line[at] = '?';
  writen(dialogue->sd, line, static_cast<size_t>(length));
  base::print(backuplog, "ERROR:  Not replicated: %.256s: %s (%i)\n", header.filename,
              target::lastError(), result);
  dialogue->failed = true;
  dialogue->path[0] = '\0';
}

// Behind a file of whole megabytes senders that follow every megabyte with a header have sent one
// more. Taken for the next file it would have that one written over this one.
bool isTrailing(const package &header, const package &last) {
  return last.type == 0 && last.size > 0 && last.size % PACK_CHUNK == 0 &&
         header.magic == PACK_MAGIC && header.sequence > 0 &&
         static_cast<uint64_t>(header.sequence) == last.size / PACK_CHUNK &&
         strcmp(header.filename, last.filename) == 0;
}

// One file header. 0, or the result that ends the dialogue.
int takeFile(Dialogue *dialogue, const package &header) {
  int chosen = 0;
  if (header.sequence == 0)
    chosen = target::choosePath(header, dialogue->root, dialogue->conflict, dialogue->path,
                                sizeof dialogue->path);
  if (dialogue->path[0] == '\0') {
    base::print(stderr, "ERROR:  Restore path is null!\n");
    if (header.type == 1) target::keepDirectory(header, dialogue->root);
    if (soundReceive() && chosen == target::kRefused) reportFailure(dialogue, header, chosen);
    return 0;
  }
  writen(dialogue->sd, "Get\n", 4);
  int result = receiveFile(dialogue->sd, dialogue->path, &dialogue->last);
  if (result == 0) return 0;
  base::print(stderr, "ERROR:  Got error from getFilefromStream.  retval = %i\n", result);
  // One file that cannot be made costs only itself, as long as its bytes were taken from the
  // stream.
  if (!soundReceive() || isStreamLost(result)) return -4;
  reportFailure(dialogue, header, result);
  return 0;
}

// Reads the answer to "Next". 0 or the result that ends the dialogue.
int takeAnswer(Dialogue *dialogue, package *header) {
  char raw[PACK_SIZE];
  if (!readHeader(dialogue->sd, raw)) {
    base::print(stderr, "ERROR:  Can't read servers response to Next\n");
    return -2;
  }
  if (unpackPackage(raw, header) >= 0) return 0;
  base::print(stderr, "Raw package format error\n");
  return -3;
}

// 1 to go on, 0 at the end of the list, negative on failure.
int exchange(Dialogue *dialogue) {
  if (writen(dialogue->sd, "Next\n", 5) != 5) {
    base::print(stderr, "ERROR:  Write failure \n");
    return -1;
  }
  package header;
  int result = takeAnswer(dialogue, &header);
  if (result == 0 && isTrailing(header, dialogue->last)) result = takeAnswer(dialogue, &header);
  dialogue->last = package{};
  if (result != 0) return result;
  if (header.magic == PACK_EOL_MAGIC) return 0;
  bool good = header.magic == PACK_MAGIC;
  if (!good) base::print(stderr, "ERROR:  Bad magic %xi\n", header.magic);
  if (good && soundReceive() && header.sequence != 0) {
    base::print(stderr, "ERROR:  A file does not begin with its beginning: %.256s\n",
                header.filename);
    good = false;
  }
  // A stream out of step is no end of the list: what was still to come is missing.
  if (!good) return soundReceive() ? -3 : 0;
  result = takeFile(dialogue, header);
  return result == 0 ? 1 : result;
}

}  // namespace

int getFilefromStream(int sd, char *path) {
  package header;
  return receiveFile(sd, path, &header);
}

int repHandShk(int listener, char *destination, int conflict) {
  base::ignoreSigpipe();
  base::Fd listening(listener);
  base::Fd connection(net::acceptPeer(listener, kConnectLimitMs, soundReceive()));
  if (!connection) return -1;
  // Kept open, the port would be refused to every other job as long as this one runs.
  if (soundReceive()) listening.reset();
  base::pauseFor(base::Pause::ReceiverReady);
  Dialogue dialogue{connection.get(), destination, conflict, "", {}, false};
  target::begin(destination);
  int result;
  do {
    result = exchange(&dialogue);
  } while (result > 0);
  if (!target::end() && result == 0) result = -4;
  return result == 0 && dialogue.failed ? -4 : result;
}

int replicateIt(char *destination, int conflict) {
  return repHandShk(mkServerSD(), destination, conflict) != 0 ? -1 : 0;
}
