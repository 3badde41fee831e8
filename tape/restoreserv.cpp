// The tape side of a restore, in the restore job's process: answers the receiver's "Next" and "Get"
// from the tape.
//
// Classic: the tape is read forward once. For every name of the restore list the package headers
// are read until the wanted one comes; segments that are not wanted are passed over, by the drive's
// own spacing where there is a drive. Sound: see restoreplan.h.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>
#include <zul/host.h>
#include <zul/net.h>
#include <zul/tape.h>

#include <new>

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
#include "tape/restoreplan.h"
#include "tape/restorereport.h"

namespace {

constexpr size_t kTapeUnit = 512;
// A stream that has ended reads as empty, and stays so. Under "sound" that is taken at its word;
// otherwise it is asked again, a tenth of a second apart, for half a minute.
constexpr int kEmptyReads = 300;

struct Server {
  int tape;
  bool onDrive;  // the tape knows tape operations; a restore can also be fed from a plain stream
  int sd;
  FILE *list;
  tape::RestorePlan *plan;  // chooses the packages of a drive under "sound"; else they are searched
  package header;           // of the package the tape stands behind, or that was offered last
  char raw[PACK_SIZE];
  bool pending;    // it was offered and the receiver has not asked for it
  bool sent;       // it was offered and what became of it is not known yet
  char host[128];  // whose files the list names now; empty: any host's
};

bool soundRestore() {
  return base::sound(base::Area::restore);
}

bool isDrive(int fd) {
  mtget ignored;
  return drive::status(fd, &ignored) == 0;
}

size_t roundedUp(size_t n) {
  return (n + kTapeUnit - 1) / kTapeUnit * kTapeUnit;
}

// Passes over the segment behind the current header.
bool skipSegment(const Server &server) {
  size_t left = target::segmentLength(server.header);
  base::print(stderr, "Ignoring:  %s   Toread = %li\n", server.header.filename,
              static_cast<long>(left));
  size_t blocks = (left + PACK_PIECE - 1) / PACK_PIECE;
  if (blocks == 0) return true;
  // Spacing costs one call for 128 blocks and moves no data.
  if (server.onDrive) return drive::operate(server.tape, MTFSR, static_cast<int>(blocks)) == 0;
  char piece[PACK_PIECE];
  for (; left >= sizeof piece; left -= sizeof piece)
    if (readt(server.tape, piece, sizeof piece) != static_cast<ssize_t>(sizeof piece)) return false;
  size_t rest = roundedUp(left);
  return rest == 0 || readt(server.tape, piece, rest) == static_cast<ssize_t>(rest);
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

// Reads forward to the wanted package. False at the end of the data.
bool search(Server *server, const char *name) {
  base::print(stderr, "Trying to restore %s\n", name);
  for (;;) {
    if (getPackHead(server->tape, server->raw, &server->header) != 0) return false;
    base::print(stderr, "INFO:  Is this the desired file? %s\n", server->header.filename);
    if (server->header.sequence != 0) prntFileData(&server->header);
    if (isWanted(*server, name)) return true;
    if (!skipSegment(*server)) return false;
  }
}

enum class Found { package, end, failure };

// The tape is searched forward for the next name of the list.
Found findByName(Server *server) {
  char name[base::kPathMax];
  if (!nextName(server, name, sizeof name)) return Found::end;
  if (search(server, name)) return Found::package;
  if (!soundRestore()) return Found::failure;
  // The receiver is to hear of an orderly end, and the operator of every name.
  do {
    tape::reportRestored(server->host, name, "missing", "not found on tape");
  } while (nextName(server, name, sizeof name));
  return Found::end;
}

Found findNext(Server *server) {
  if (!server->plan) return findByName(server);
  if (!server->plan->next()) return Found::end;
  server->header = server->plan->header();
  memcpy(server->raw, server->plan->raw(), sizeof server->raw);
  base::print(stderr, "Trying to restore %s\n", server->header.filename);
  return Found::package;
}

// 0, or -5 after a message.
int sendHeader(const Server &server, const char *raw) {
  ssize_t sent = writen(server.sd, raw, PACK_SIZE);
  if (sent == PACK_SIZE) return 0;
  base::print(fplog, "ERROR:  Server transmit error: %i\n", static_cast<int>(sent));
  return -5;
}

int sendEndOfList(const Server &server) {
  package end{};
  end.magic = PACK_EOL_MAGIC;
  char raw[PACK_SIZE];
  if (packPackage(raw, &end) < 0) {
    base::print(fplog, "ERROR:  Package error\n");
    return -4;
  }
  return sendHeader(server, raw);
}

// What became of the package offered last is known when the receiver asks on.
void settle(Server *server) {
  if (!server->sent) return;
  server->sent = false;
  if (!server->pending) {
    tape::reportSegment(server->header);
    return;
  }
  // A file that the receiver does not want is passed over with all its packages, and counts once.
  if (server->header.sequence == 0)
    tape::reportRestored(server->header.fromhost, server->header.filename, "kept", "");
  if (server->plan) server->plan->settle();
}

// 1 to go on, 0 at the end, negative on failure.
int answerNext(Server *server) {
  base::print(stderr, "INFO:  Got Next\n");
  settle(server);
  if (server->pending && !server->plan && !skipSegment(*server)) return -1;
  server->pending = false;
  Found found = findNext(server);
  if (found == Found::end) return sendEndOfList(*server);
  if (found == Found::failure) return -1;
  base::print(stderr, "Send Head:  %s   Toread = %li\n", server->header.filename,
              static_cast<long>(target::segmentLength(server->header)));
  int result = sendHeader(*server, server->raw);
  if (result != 0) return result;
  server->pending = server->sent = true;
  return 1;
}

// Copies a segment from the tape piece by piece.
int copySegment(const Server &server, size_t left) {
  char piece[PACK_PIECE];
  while (left > 0) {
    bool last = left < sizeof piece;
    size_t send = last ? left : sizeof piece;
    size_t want = roundedUp(send);
    if (readt(server.tape, piece, want) != static_cast<ssize_t>(want)) {
      readError(errno);
      base::print(fplog, last ? "ERROR:  GET error3\n" : "ERROR:  GET error\n");
      return -2;
    }
    if (writen(server.sd, piece, send) != static_cast<ssize_t>(send)) {
      base::print(fplog, last ? "ERROR:  GET error4\n" : "ERROR:  GET error2\n");
      return -2;
    }
    left -= send;
  }
  return 1;
}

int answerGet(Server *server) {
  bool offered = server->pending;
  server->pending = false;
  size_t length = target::segmentLength(server->header);
  base::print(stderr, "INFO:  Got Get  Sending:  %s   Size: %li   Seq: %i  Toread: %li\n",
              server->header.filename, static_cast<long>(server->header.size),
              server->header.sequence, static_cast<long>(length));
  if (!server->plan) return copySegment(*server, length);
  if (offered &&
      writen(server->sd, server->plan->segment(), length) == static_cast<ssize_t>(length))
    return 1;
  base::print(fplog, "ERROR:  GET error2\n");
  return -2;
}

// A receiver that could not make a file says so ("Failed RESULT WHY"), under "sound" on its side.
void noteFailure(Server *server, char *line) {
  stripCtrl(line);
  if (!server->sent) return;
  const char *why = strchr(line + 7, ' ');
  server->sent = false;
  tape::reportRestored(server->header.fromhost, server->header.filename, "failed",
                       why ? why + 1 : line);
  if (server->plan) server->plan->settle();
}

int converse(Server *server) {
  char line[513];
  const int mostEmpty = soundRestore() ? 1 : kEmptyReads;
  for (int empty = 0;;) {
    memset(line, 0, sizeof line);
    ssize_t got = readnline(server->sd, line, sizeof line - 1);
    if (got < 0 || (got == 0 && ++empty >= mostEmpty)) {
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

// On a drive, under "sound", the plan decides what is offered: a search by name ends the whole
// restore at the first name that is not on the tape, and joins packages of different hosts.
int converseByPlan(Server *server) {
  try {
    tape::RestorePlan plan(server->tape, server->list);
    server->plan = &plan;
    return converse(server);
  } catch (const std::bad_alloc &) {
    base::print(stderr, "ERROR:  Not enough memory for the restore list\n");
    return -2;
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
  return soundRestore() && server.onDrive ? converseByPlan(&server) : converse(&server);
}
