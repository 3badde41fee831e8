// Sending one file: its header, its contents, and the header again after every full megabyte of
// them.
//
// A SIGALRM may jump out of every frame here: plain data only.
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zul/net.h>

#include "base/pause.h"
#include "base/site.h"
#include "net/delivery.h"
#include "net/gatherer.h"
#include "net/stream.h"
#include "net/timeouts.h"

namespace net {

namespace {

// Contents are read in pieces of PACK_PIECE; several go through one read and one write, which no
// peer can tell from single ones. 256 KiB stay in a core's cache between the two.
constexpr size_t kStride = size_t{32} * PACK_PIECE;
char stride[kStride];

// A transfer in progress.
struct Transfer {
  Source *source;
  int sd;
  int fd;
  char head[PACK_SIZE];
  bool headDue;       // head is still to be written, together with the next piece
  long sent;          // bytes written, headers included
  uint64_t read;      // bytes of the contents taken from the file, or made up for it
  bool fileEnded;     // a pinned file that is over, or cannot be read: zeros stand in for the rest
  long long armedMs;  // when the timer was armed last
};

// The timer begins anew with progress; once a second is as good as after every piece.
void rearm(Transfer *transfer) {
  long long now = base::nowMs();
  if (now - transfer->armedMs < 1000) return;
  base::setAlarmTimerMs(timeouts.fileMs);
  transfer->armedMs = now;
}

int writeFailed(const Source *source, int number) {
  note("WARNING:  %i  Write to tape server failed on %s, skipping.\n", number, source->path);
  return -2;
}

bool packHead(Transfer *transfer, int sequence) {
  transfer->source->header.sequence = sequence;
  transfer->headDue = true;
  return packPackage(transfer->head, &transfer->source->header) >= 0;
}

// Writes the header, if it is due, and n bytes behind it. False after a failure; headDue then tells
// which of the two it was.
bool writeOut(Transfer *transfer, const void *data, size_t n) {
  size_t headBytes = transfer->headDue ? sizeof transfer->head : 0;
  size_t done;
  bool all = writeBoth(transfer->sd, transfer->head, headBytes, data, n, &done);
  transfer->sent += static_cast<long>(done);
  if (transfer->source->header.type == 0 && done > headBytes)
    countUp(&delivery()->bytes, done - headBytes);
  if (done >= headBytes) transfer->headDue = false;
  return all;
}

// Header alone, for what has no contents.
long sendBare(Transfer *transfer, int failure) {
  return writeOut(transfer, nullptr, 0) ? transfer->sent : writeFailed(transfer->source, failure);
}

long sendDirectory(Transfer *transfer) {
  if (writeOut(transfer, nullptr, 0)) return transfer->sent;
  note("WARNING  3023  Write to tape server failed on %s, skipping.\n", transfer->source->path);
  return -2;
}

long sendMissing(Transfer *transfer) {
  if (!transfer->source->explained)
    note("WARNING:  3030  File %s appears to have been deleted befor backup, skipping.\n",
         transfer->source->path);
  return sendBare(transfer, 3031);
}

// The target as it is now replaces what was announced.
void lookAtLink(Source *source) {
  ssize_t length = readlink(source->path, source->link, kLinkMax);
  if (length < 0) {
    note("WARNING:  3024  Symlink error %i\n", errno);
    source->header.type = 5;
    source->header.size = 0;
    return;
  }
  source->link[length] = '\0';
  source->header.size = static_cast<uint64_t>(length) + 1;
}

long sendLink(Transfer *transfer) {
  Source *source = transfer->source;
  if (!source->pinned) {
    lookAtLink(source);
    if (!packHead(transfer, 0)) {
      note("WARNING:  3025  Cannot pack %s, skipping.\n", source->path);
      return -4;
    }
  }
  if (writeOut(transfer, source->link, source->header.type == 2 ? source->header.size : 0))
    return transfer->sent;
  return writeFailed(source, transfer->headDue ? 3026 : 3027);
}

// Reads up to n bytes, a whole number of pieces: the pieces behind each other, up to the first that
// is short.
size_t readPieces(int fd, char *to, size_t n) {
  size_t got = 0;
  while (got < n) {
    ssize_t part = read(fd, to + got, n - got);
    if (part <= 0) break;
    got += static_cast<size_t>(part);
    if (part % PACK_PIECE != 0) break;
  }
  return got;
}

// Fills n bytes with what was announced: from the file, and with zeros where it has less by now.
void readPinned(Transfer *transfer, char *to, size_t n) {
  size_t got = 0;
  while (got < n && !transfer->fileEnded) {
    ssize_t part = pread(transfer->fd, to + got, n - got, static_cast<off_t>(transfer->read + got));
    if (part > 0) {
      got += static_cast<size_t>(part);
    } else if (part == 0 || errno != EINTR) {
      transfer->fileEnded = true;
      note("NOTICE:  File %s %s while it was sent, the rest is filled with zeros\n",
           transfer->source->path, part == 0 ? "became shorter" : "could not be read");
    }
  }
  memset(to + got, 0, n - got);
}

// Takes the next bytes of a megabyte that has room for that many. True while more are to come.
bool nextBytes(Transfer *transfer, size_t room, size_t *got) {
  const Source *source = transfer->source;
  uint64_t size = source->header.size;
  uint64_t left = size > transfer->read ? size - transfer->read : 0;
  size_t most = room < kStride ? room : kStride;
  if (source->pinned) {
    *got = left < most ? static_cast<size_t>(left) : most;
    readPinned(transfer, stride, *got);
    transfer->read += *got;
    return transfer->read < size;
  }
  // One piece more than was announced, so that the end shows in the same read.
  if (left < most) most = static_cast<size_t>(left / PACK_PIECE + 1) * PACK_PIECE;
  if (most > room) most = room;
  *got = readPieces(transfer->fd, stride, most);
  transfer->read += *got;
  return *got == most;
}

// Sends a header and the megabyte behind it. 1 when another one follows, 0 at the end, or a
// failure.
int sendChunk(Transfer *transfer, int sequence) {
  Source *source = transfer->source;
  if (!packHead(transfer, sequence)) {
    note("WARNING:  %i  Cannot pack %s, skipping.\n", sequence == 0 ? 3016 : 3020, source->path);
    return -4;
  }
  size_t room = PACK_CHUNK;
  for (bool more = true; more && room > 0;) {
    size_t got;
    more = nextBytes(transfer, room, &got);
    if (!writeOut(transfer, stride, got)) {
      int piece = got >= PACK_PIECE ? 3019 : 3022;
      return writeFailed(source, transfer->headDue ? (sequence == 0 ? 3018 : 3021) : piece);
    }
    room -= got;
    rearm(transfer);
  }
  // A full megabyte is followed by a header, also when nothing is left to follow that.
  return room == 0 ? 1 : 0;
}

// A file that has more now than it was announced with is cut, which somebody may want to know.
void noticeGrowth(Transfer *transfer) {
  struct stat status;
  if (transfer->fileEnded || fstat(transfer->fd, &status) != 0) return;
  if (static_cast<uint64_t>(status.st_size) > transfer->source->header.size)
    note("NOTICE:  File %s grew while it was sent, the rest is left out\n", transfer->source->path);
}

long sendRegular(Transfer *transfer) {
  Source *source = transfer->source;
  if (!source->pinned) {
    gathererGuard.hold();  // a jump between the two would lose the file
    source->fd = open(source->path, O_RDONLY | O_CLOEXEC);
    gathererGuard.release();
  }
  transfer->fd = source->fd;
  if (transfer->fd < 0) {
    note("WARNING:  3017  Open failed: %s, skipping.\n", source->path);
    return -1;
  }
  int outcome = 1;
  for (int sequence = 0; outcome == 1; sequence++) outcome = sendChunk(transfer, sequence);
  if (source->pinned) noticeGrowth(transfer);
  return outcome == 0 ? transfer->sent : outcome;
}

// The file of sendFile. Static, so that a jump out of it does not lose the open file.
Source single;

}  // namespace

long sendSource(Source *source, int sd) {
  Transfer transfer;
  memset(&transfer, 0, sizeof transfer);
  transfer.source = source;
  transfer.sd = sd;
  transfer.armedMs = base::nowMs();
  if (!packHead(&transfer, 0)) {
    note("WARNING:  3016  Cannot pack %s, skipping.\n", source->path);
    return -4;
  }
  switch (source->header.type) {
    case 0:
      return sendRegular(&transfer);
    case 1:
      return sendDirectory(&transfer);
    case 2:
      return sendLink(&transfer);
    case 3:
      return sendBare(&transfer, 3028);
    case 4:
      return sendBare(&transfer, 3029);
    default:
      return sendMissing(&transfer);
  }
}

void releaseSingle() {
  if (single.path[0] != '\0') releaseSource(&single);
}

}  // namespace net

long sendFile(int repmode, int sd, char *path, char **transforms) {
  using net::single;
  base::setAlarmTimerMs(net::timeouts.fileMs);
  net::releaseSingle();
  if (net::describeSource(&single, repmode, path, transforms) < 0) {
    net::note("WARNING:  3015  File %s not found, skipping\n", path);
    return -3;
  }
  long result = net::sendSource(&single, sd);
  net::releaseSource(&single);
  return result;
}
