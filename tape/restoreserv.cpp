// The tape side of a restore, in the restore job's process: answers the receiver's "Next" and "Get"
// from the tape.
//
// The tape is read forward once. For every name of the restore list the package headers are read
// until the wanted one comes; segments that are not wanted are passed over, by the drive's own
// spacing where there is a drive.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>
#include <zul/host.h>
#include <zul/net.h>
#include <zul/tape.h>

#include "base/fd.h"
#include "base/log.h"
#include "base/pause.h"
#include "base/process.h"
#include "base/site.h"
#include "base/text.h"
#include "drive/drive.h"
#include "net/agentlogin.h"
#include "replication/target.h"
#include "tape/restorelist.h"
#include "tape/restorereport.h"

namespace {

constexpr size_t kBlock = 512;
constexpr int kEmptyReads =
    300;  // a tenth of a second each: half a minute after its end a receiver is gone
constexpr int kSearchesAgain = 16;

struct Server {
  int tape;
  bool onDrive;  // the tape knows tape operations; a restore can also be fed from a plain stream
  int sd;
  FILE *list;
  package header;  // of the package the tape stands behind
  char raw[PACK_SIZE];
  bool pending;    // its segment is still on the tape before us: the receiver has not asked for it
  bool sent;       // a header went out and what became of it is not known yet
  char host[128];  // whose files the list names now; empty: any host's
  int searchesLeft;
  bool damaged;  // a segment that was promised could not be read whole
};

bool soundRestore() {
  return base::sound(base::Area::restore);
}

bool isDrive(int fd) {
  mtget ignored;
  return drive::status(fd, &ignored) == 0;
}

size_t roundedUp(size_t n) {
  return (n + kBlock - 1) / kBlock * kBlock;
}

// Passes over the segment behind the current header.
bool skipSegment(Server *server) {
  size_t left = target::segmentLength(server->header);
  size_t blocks = (left + PACK_PIECE - 1) / PACK_PIECE;
  if (blocks == 0) return true;
  // Spacing costs one call for 128 blocks and moves no data.
  if (server->onDrive) return drive::operate(server->tape, MTFSR, static_cast<int>(blocks)) == 0;
  char piece[PACK_PIECE];
  for (; left >= sizeof piece; left -= sizeof piece)
    if (readt(server->tape, piece, sizeof piece) != static_cast<ssize_t>(sizeof piece))
      return false;
  size_t rest = roundedUp(left);
  return rest == 0 || readt(server->tape, piece, rest) == static_cast<ssize_t>(rest);
}

// Finds the next header block by block: what stands between packages (the rest of a package whose
// writing was broken off, say) is passed over, and so are blocks that cannot be read. 0, or -1 at
// the end of the data.
int nextHeaderOnDrive(Server *server) {
  constexpr int kBadBlocks = 100;
  char block[PACK_PIECE];
  long passed = 0;
  for (int bad = 0; bad < kBadBlocks;) {
    ssize_t got = drive::readBlock(server->tape, block, sizeof block);
    if (got == 0) break;
    if (got < 0) {
      bad++;
      base::print(stderr, "WARNING:  A block of the tape cannot be read: %s\n", strerror(errno));
      continue;
    }
    if (got == PACK_SIZE && memcmp(block, "ZuL!", 4) == 0) {
      if (passed)
        base::print(stderr, "WARNING:  Passed over %li blocks that belong to no package\n", passed);
      memcpy(server->raw, block, PACK_SIZE);
      return unpackPackage(server->raw, &server->header);
    }
    passed++;
  }
  return -1;
}

int nextHeader(Server *server) {
  int result = soundRestore() && server->onDrive
                   ? nextHeaderOnDrive(server)
                   : getPackHead(server->tape, server->raw, &server->header);
  // Tapes are untrusted: names end where their fields do.
  server->header.filename[sizeof server->header.filename - 1] = '\0';
  server->header.fromhost[sizeof server->header.fromhost - 1] = '\0';
  return result;
}

// The names on tape end where a header's field does, so a longer name of the list can only match
// there.
bool isWanted(const Server &server, const char *name) {
  if (strncmp(server.header.filename, name, sizeof server.header.filename - 1) != 0) return false;
  // The same path of another host is another file.
  return server.host[0] == '\0' || strcmp(server.header.fromhost, server.host) == 0;
}

// Takes the next name of the list; false at its end.
bool nextName(Server *server, char *name, size_t room) {
  // A list line longer than this cannot be on any tape.
  while (fgets(name, static_cast<int>(soundRestore() ? room : 256), server->list)) {
    stripCtrl(name);
    if (!soundRestore() || strncmp(name, tape::kHostLine, sizeof tape::kHostLine - 1) != 0)
      return true;
    base::copyText(server->host, sizeof server->host, name + sizeof tape::kHostLine - 1);
  }
  return false;
}

// Reads forward to the wanted package. 0, or -1 at the end of the data.
int search(Server *server, const char *name) {
  for (;;) {
    if (nextHeader(server) != 0) return -1;
    base::print(stderr, "INFO:  Is this the desired file? %s\n", server->header.filename);
    if (server->header.sequence != 0) prntFileData(&server->header);
    if (isWanted(*server, name)) return 0;
    if (!skipSegment(server)) return -1;
  }
}

// A name that is on the list and not on the tape must not take every later name with it: back to
// the data file's start, and on with the next one.
bool searchAgain(Server *server, const char *name) {
  base::print(stderr, "ERROR:  Not found on tape: %s\n", name);
  tape::reportRestored(server->host, name, "missing", "not found on tape");
  int dataFile = tape::restoreDataFile();
  if (!soundRestore() || dataFile < 0 || server->searchesLeft-- <= 0) return false;
  return drive::operate(server->tape, MTREW, 1) == 0 &&
         drive::operate(server->tape, MTFSF, dataFile) == 0;
}

int sendEndOfList(Server *server) {
  package end{};
  end.magic = PACK_EOL_MAGIC;
  char raw[PACK_SIZE];
  if (packPackage(raw, &end) < 0) {
    base::print(fplog, "ERROR:  Package error\n");
    return -4;
  }
  ssize_t sent = writen(server->sd, raw, sizeof raw);
  if (sent == static_cast<ssize_t>(sizeof raw)) return 0;
  base::print(fplog, "ERROR:  Server transmit error: %i\n", static_cast<int>(sent));
  return -5;
}

// What became of the header sent last is known when the receiver asks on.
void settle(Server *server) {
  if (!server->sent) return;
  server->sent = false;
  if (server->pending)
    tape::reportRestored(server->header.fromhost, server->header.filename, "kept", "");
  else if (server->damaged)
    tape::reportRestored(server->header.fromhost, server->header.filename, "failed",
                         "the tape cannot be read here");
  else
    tape::reportSegment(server->header);
  server->damaged = false;
}

// 1 to go on, 0 at the end, negative on failure.
int answerNext(Server *server) {
  base::print(stderr, "INFO:  Got Next\n");
  settle(server);
  if (server->pending) {
    base::print(stderr, "Ignoring:  %s   Toread = %li\n", server->header.filename,
                static_cast<long>(target::segmentLength(server->header)));
    server->pending = false;
    if (!skipSegment(server) && !soundRestore()) return -1;
  }
  char name[base::kPathMax];
  do {
    if (!nextName(server, name, sizeof name)) return sendEndOfList(server);
    base::print(stderr, "Trying to restore %s\n", name);
    if (search(server, name) == 0) break;
    if (!soundRestore()) return -1;
    if (!searchAgain(server, name)) {
      while (nextName(server, name, sizeof name))
        tape::reportRestored(server->host, name, "missing", "not reached");
      return sendEndOfList(server);
    }
  } while (true);
  base::print(stderr, "Send Head:  %s   Toread = %li\n", server->header.filename,
              static_cast<long>(target::segmentLength(server->header)));
  ssize_t sent = writen(server->sd, server->raw, PACK_SIZE);
  if (sent != PACK_SIZE) {
    base::print(fplog, "ERROR:  Server transmit error: %i\n", static_cast<int>(sent));
    return -5;
  }
  server->pending = server->sent = true;
  return 1;
}

// A segment that was promised must be sent whole, or every later file is out of step: what cannot
// be read goes out as zeros, and the file is reported as failed.
int fillWithZeros(Server *server, size_t left) {
  static const char zeros[PACK_PIECE] = {};
  server->damaged = true;
  while (left > 0) {
    size_t n = left < sizeof zeros ? left : sizeof zeros;
    if (writen(server->sd, zeros, n) != static_cast<ssize_t>(n)) return -2;
    left -= n;
  }
  return 1;
}

int answerGet(Server *server) {
  server->pending = false;
  size_t left = target::segmentLength(server->header);
  base::print(stderr, "INFO:  Got Get  Sending:  %s   Size: %li   Seq: %i  Toread: %li\n",
              server->header.filename, static_cast<long>(server->header.size),
              server->header.sequence, static_cast<long>(left));
  char piece[PACK_PIECE];
  while (left > 0) {
    bool last = left < sizeof piece;
    size_t send = last ? left : sizeof piece;
    size_t want = roundedUp(send);
    if (readt(server->tape, piece, want) != static_cast<ssize_t>(want)) {
      readError(errno);
      base::print(fplog, last ? "ERROR:  GET error3\n" : "ERROR:  GET error\n");
      return soundRestore() ? fillWithZeros(server, left) : -2;
    }
    if (writen(server->sd, piece, send) != static_cast<ssize_t>(send)) {
      base::print(fplog, last ? "ERROR:  GET error4\n" : "ERROR:  GET error2\n");
      return -2;
    }
    left -= send;
  }
  return 1;
}

// A receiver that could not make a file says so ("Failed RESULT WHY"), under "sound" on its side.
void noteFailure(Server *server, char *line) {
  stripCtrl(line);
  const char *why = strchr(line + 7, ' ');
  server->sent = false;
  tape::reportRestored(server->header.fromhost, server->header.filename, "failed",
                       why ? why + 1 : line);
}

int converse(Server *server) {
  char line[513];
  for (int empty = 0;;) {
    memset(line, 0, sizeof line);
    ssize_t got = readnline(server->sd, line, sizeof line - 1);
    if (got < 0 || (got == 0 && ++empty >= kEmptyReads)) {
      base::print(stderr, "Server receive error: %i, errno = %i\n", static_cast<int>(got), errno);
      base::print(stderr, "Buff: >%s<\n", line);
      return -2;
    }
    if (got == 0) {
      base::pauseFor(base::Pause::ReceiverPoll);
      continue;
    }
    empty = 0;
    int result = 1;
    if (strncmp(line, "Next", 4) == 0)
      result = answerNext(server);
    else if (strncmp(line, "Get", 3) == 0)
      result = answerGet(server);
    else if (soundRestore() && strncmp(line, "Failed ", 7) == 0)
      noteFailure(server, line);
    if (result <= 0) return result;
  }
}

}  // namespace

int readError(int) {
  return 0;
}

int startRestoreClnt(const char *host, const char *destination, int conflict) {
  int sd = net::openAgent(host);
  if (sd == -2) base::print(fplog, "ERROR:  Cannot start restore agent on remote host\n");
  if (sd < 0) return sd;
  char line[512];
  int length = snprintf(line, sizeof line, "TAPE resclnt %s %i\n", destination, conflict);
  if (static_cast<size_t>(length) >= sizeof line) return -3;
  // The connection stays open: it carries nothing and ends with this process.
  return writen(sd, line, static_cast<size_t>(length)) == length ? 0 : -3;
}

int restoreServ(int tape, const char *host, const char *, const char *listpath) {
  base::ignoreSigpipe();
  base::print(stderr, "INFO: Entering restoreServ\n");
  base::pauseFor(base::Pause::ReceiverStart);
  base::Fd connection(mkClientSD(host));
  if (!connection) return -1;
  nagleOnOff(connection.get(), 1);
  base::File list(fopen(listpath, "re"));
  if (!list) return -2;
  Server server{};
  server.tape = tape;
  server.onDrive = isDrive(tape);
  server.sd = connection.get();
  server.list = list.get();
  server.searchesLeft = kSearchesAgain;
  return converse(&server);
}
