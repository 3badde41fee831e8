// The gatherer's side of the dialogue: lines in, headers and files out. docs/protocols/stream.md
// has both sides.
//
// It runs in the gatherer on a client host, and in a sending process of a replication. When a step
// takes too long, SIGALRM jumps back into servHandshak; see gatherer.h for what that asks of the
// code.
#include <errno.h>
#include <poll.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>
#include <zul/host.h>
#include <zul/net.h>
#include <zul/tape.h>

#include "base/log.h"
#include "base/pause.h"
#include "base/process.h"
#include "base/site.h"
#include "base/text.h"
#include "net/accept.h"
#include "net/delivery.h"
#include "net/gatherer.h"
#include "net/requestlist.h"
#include "net/stream.h"
#include "net/timeouts.h"

namespace net {

base::AlarmGuard gathererGuard;

void note(const char *format, ...) {
  if (!backuplog) return;
  int kept = errno;
  gathererGuard.hold();
  va_list args;
  va_start(args, format);
  vfprintf(backuplog, format, args);
  va_end(args);
  gathererGuard.release();
  errno = kept;
}

namespace {

constexpr size_t kCommandMax = 512;
constexpr int kTimedOut = -7;
constexpr int kPeerLost = -8;
constexpr ssize_t kReadTimedOut = -2;

// The dialogue of this process. Static, so that the return point of the alarm finds it as it was
// left.
struct Dialogue {
  int repmode;
  int sd;
  FILE *list;
  const char *listPath;
  char **transforms;
  Source source;                 // the current file
  bool described;                // source holds the answer to a "Next"
  bool asked;                    // and a "Get" followed
  bool ends;                     // with its peer, and not when the timer says so
  bool strict;                   // a replication, which bears with less: see prepare
  int silenceMs;                 // after which such a peer counts as lost
  char directory[kNameMax + 1];  // the last directory that was offered
};
Dialogue dialogue;

struct Expected {
  bool known;
  int reqid, since;
};
Expected expected;

// "Job ID SINCE": whether the peer came for what this gatherer offers.
bool isExpected(const char *line) {
  int reqid = 0, since = 0;
  if (!expected.known || sscanf(line, "Job %i %i", &reqid, &since) != 2) return true;
  if (reqid == expected.reqid && since == expected.since) return true;
  note(
      "ERROR:  The tape host came for job %i since %i; this gatherer was started for job %i since "
      "%i\n",
      reqid, since, expected.reqid, expected.since);
  return false;
}

// Until a command is there. 0, or the negative result of a read that failed.
ssize_t readCommand(char *line) {
  ssize_t count;
  memset(line, 0, kCommandMax);
  while ((count = readnline(dialogue.sd, line, kCommandMax)) == 0) {
    if (dialogue.ends) return kPeerLost;
    base::pauseFor(base::Pause::EmptyRead);
  }
  return count < 0 ? count : 0;
}

// True while the connection stands in both directions: what failed on it then was given up for
// silence.
bool isStanding() {
  pollfd asked{dialogue.sd, POLLOUT | POLLRDHUP, 0};
  return poll(&asked, 1, 0) >= 0 && (asked.revents & (POLLERR | POLLHUP | POLLRDHUP)) == 0;
}

bool peerIsGone() {
  char byte;
  return recv(dialogue.sd, &byte, 1, MSG_PEEK | MSG_DONTWAIT) == 0;
}

// The next path of the list without the remedies: where the list ends, everything is sent.
Listed nextClassic(char **path) {
  gathererGuard.hold();
  *path = getLineList(dialogue.list);
  gathererGuard.release();
  return *path ? Listed::entry : Listed::end;
}

// The next path of a list that may still be written. The peer gives up after a minute without an
// answer, and a walk over files that did not change is longer than that: so, when a directory has
// been offered, it is offered again now and then, which costs a header and changes nothing that is
// backed up.
Listed nextAwaited(char **path) {
  long long nudgeMs = base::nowMs() + timeouts.nudgeMs;
  long long armedMs = base::nowMs();
  for (;;) {
    gathererGuard.hold();
    Listed listed = nextListed(dialogue.list, path);
    gathererGuard.release();
    if (listed == Listed::incomplete)
      note("ERROR:  The request list is incomplete, its generator failed: %s\n", dialogue.listPath);
    if (listed != Listed::later) return listed;
    if (peerIsGone()) {
      note("ERROR:  The peer closed the connection while the request list was being written\n");
      return Listed::incomplete;
    }
    if (base::nowMs() >= nudgeMs && !dialogue.repmode && dialogue.directory[0]) {
      *path = dialogue.directory;
      return Listed::entry;
    }
    // The generator is alive, so this is no step that hangs.
    if (base::nowMs() - armedMs >= 1000) {
      base::setAlarmTimerMs(timeouts.stepMs);
      armedMs = base::nowMs();
    }
  }
}

// Whether an entry can travel at all; said when it cannot.
bool canBeOffered(const char *path) {
  if (strlen(path) <= kNameMax) return true;
  // Cut to what a header holds it would name another file.
  note("NOTICE:  Path is longer than %i characters, skipping: %s\n", static_cast<int>(kNameMax),
       path);
  return false;
}

bool canBeSent(const Source &source) {
  // The peer would count on the low 32 bits of the size and take the rest of the file for headers.
  // Receivers with the stream remedies read the high word too.
  if (!tooLargeForStream(source.header) || source.pinned) return true;
  note("NOTICE:  File %s is too large for the stream form, skipping.\n", source.path);
  return false;
}

// Ends the list for the peer. 0, or -4.
int sendEndOfList() {
  char raw[PACK_SIZE];
  note("Nothing more to backup/replicate\n");
  dialogue.source.header.magic = PACK_EOL_MAGIC;
  if (packPackage(raw, &dialogue.source.header) < 0) {
    note("WARNING:  3008  Package error\n");
    return -4;
  }
  writen(dialogue.sd, raw, sizeof raw);
  return 0;
}

constexpr int kGoOn = 1;

// "Next". kGoOn, or how the dialogue ends.
int answerNext() {
  Source &source = dialogue.source;
  bool awaited = base::sound(base::Area::stream);
  if (dialogue.described && !dialogue.asked && source.header.type <= 2) countUp(&delivery()->kept);
  releaseSource(&source);
  dialogue.described = dialogue.asked = false;
  do {
    char *path;
    Listed listed = awaited ? nextAwaited(&path) : nextClassic(&path);
    // Called the end, it would pass a part of the host for all of it.
    if (listed == Listed::incomplete) return -1;
    if (listed == Listed::end) return sendEndOfList();
    if (!canBeOffered(path)) continue;
    int result = describeSource(&source, dialogue.repmode, path, dialogue.transforms);
    if (result < 0) {
      note("WARNING:  3010  Can't stat file: %s.  returned %i.  Skipping.\n", source.path, result);
      return -3;
    }
    dialogue.described = canBeSent(source);
  } while (!dialogue.described);
  if (source.header.type == 1)
    base::copyText(dialogue.directory, sizeof dialogue.directory, source.path);
  char raw[PACK_SIZE];
  if (packPackage(raw, &source.header) < 0) {
    note("WARNING:  3011  Package error\n");
    return -4;
  }
  writen(dialogue.sd, raw, sizeof raw);
  return kGoOn;
}

void countSent(const Source &source) {
  if (source.header.type == 1)
    countUp(&delivery()->folders);
  else if (source.header.type <= 2)
    countUp(&delivery()->files);
  if (!source.explained) return;
  countUp(&delivery()->unreadable);
  noteReason("%.160s cannot be read on this host", source.path);
}

// "Get". What comes of it stands in the log. kGoOn, or how the dialogue ends.
int answerGet() {
  Source &source = dialogue.source;
  long sent;
  dialogue.asked = true;
  beginEntry();
  if (source.pinned && dialogue.described) {
    base::setAlarmTimerMs(timeouts.fileMs);
    sent = sendSource(&source, dialogue.sd);
  } else {
    sent = sendFile(dialogue.repmode, dialogue.sd, source.path, dialogue.transforms);
  }
  if (sent >= 0) countSent(source);
  if (sent != -2 || !dialogue.strict) return kGoOn;
  // Behind a file that was cut short nothing would be understood any more.
  return isStanding() ? kTimedOut : kPeerLost;
}

// Carries out one command. kGoOn, or how the dialogue ends.
int obey(const char *line) {
  if (strncmp(line, "Next", 4) == 0) return answerNext();
  if (strncmp(line, "Get", 3) == 0) return answerGet();
  if (strncmp(line, "Quit", 4) == 0) {
    gathererGuard.hold();
    prntFileData(&dialogue.source.header);
    gathererGuard.release();
    return 0;
  } else if (strncmp(line, "Idle", 4) == 0) {
    base::pauseFor(base::Pause::Idle);
  } else if (dialogue.repmode && isFailure(line)) {
    noteFailure(line, dialogue.source.path, dialogue.asked);
    dialogue.asked = true;
  } else if (strncmp(line, "Job ", 4) == 0 && base::sound(base::Area::stream)) {
    return isExpected(line) ? kGoOn : -1;
  } else {
    note("WARNING:  3014  Command error, continuing anyway got: %s \n", line);
  }
  return kGoOn;
}

// Whether a peer of whom nothing can be read any more ends the dialogue. Left to the timer, the
// gatherer of a job that was killed stays for five minutes, and with it its files and its console;
// a target that died keeps its place among those that are served at once, and one that is silent
// keeps it for ever.
bool isLost(ssize_t result, long long heardMs) {
  if (!dialogue.ends || result == 0) return false;
  if (result != kReadTimedOut) {
    note("ERROR:  The %s closed the connection before the end of the list\n",
         dialogue.repmode ? "target" : "tape host");
    return true;
  }
  if (!dialogue.strict || base::nowMs() - heardMs < dialogue.silenceMs) return false;
  note("ERROR:  The target has said nothing for %i s\n", dialogue.silenceMs / 1000);
  return true;
}

int converse() {
  long long heardMs = base::nowMs();
  for (bool broken = false;;) {
    if (!broken && base::setAlarmTimerMs(timeouts.stepMs) != 0) return -1;
    lookAtReceiver();
    char line[kCommandMax];
    ssize_t result = readCommand(line);
    if (isLost(result, heardMs)) return result == kReadTimedOut ? kTimedOut : kPeerLost;
    if (broken) {
      base::pauseFor(base::Pause::EmptyRead);
      continue;
    }
    int outcome = obey(line);
    if (outcome != kGoOn) return outcome;
    if (result == 0) heardMs = base::nowMs();
    // A time-out leaves the connection as it was. Every other failure will come again at once: it
    // was spoken of, and the rest is left to the timer, armed here once more because a file may
    // have been sent under its own.
    if (result < 0 && result != kReadTimedOut) {
      broken = true;
      base::setAlarmTimerMs(timeouts.stepMs);
    }
  }
}

// How long the peer may take to connect. A tape host that paces itself by readiness tries from the
// moment it has asked; while a gatherer waits for one that died, the port is not free for others.
int greetMs(int repmode) {
  return !repmode && base::sound(base::Area::pace) && timeouts.greetMs < timeouts.stepMs
             ? timeouts.greetMs
             : timeouts.stepMs;
}

// Accepts the connection where there is none yet. 0 or -1.
int greet(int listening) {
  if (dialogue.repmode) {
    nagleOnOff(dialogue.sd, 1);  // headers are answers somebody waits for
    return 0;
  }
  dialogue.sd = acceptPeer(listening, -1);
  if (dialogue.sd < 0) return -1;
  // Kept open, the port would be refused to every other job as long as this one runs.
  if (base::sound(base::Area::stream)) close(listening);
  return 0;
}

void hangUp() {
  releaseSource(&dialogue.source);
  releaseSingle();
  if (dialogue.sd >= 0) close(dialogue.sd);
  if (dialogue.list) fclose(dialogue.list);
  dialogue.sd = -1;
  dialogue.list = nullptr;
}

// Everything that takes locks or memory and is not needed again: the site file is read here, not
// under the alarm.
int prepare(int repmode, int sd, const char *path, char **transforms) {
  memset(&dialogue, 0, sizeof dialogue);
  dialogue.source.fd = -1;
  dialogue.source.pinned = base::sound(base::Area::stream);
  dialogue.repmode = repmode;
  dialogue.ends = base::sound(base::Area::stream);
  dialogue.strict = repmode && dialogue.ends;
  if (dialogue.strict) {
    dialogue.silenceMs = base::siteLength("replication.silence", timeouts.stepMs);
    // The single waits must not be longer than all of it.
    if (dialogue.silenceMs < timeouts.lineMs) timeouts.lineMs = dialogue.silenceMs;
    if (dialogue.silenceMs < timeouts.streamMs) timeouts.streamMs = dialogue.silenceMs;
  }
  dialogue.sd = repmode ? sd : -1;
  dialogue.transforms = transforms;
  base::ignoreSigpipe();
  dialogue.listPath = path;
  dialogue.list = openRequestList(path);
  if (dialogue.list) return 0;
  note("WARNING: 3006  Can't open request list: %s\n", path);
  return -1;
}

}  // namespace

void expectRequest(int reqid, int since) {
  expected = {true, reqid, since};
}

}  // namespace net

// Plain data only: the alarm jumps back into this frame.
int servHandshak(int repmode, int sd, const char *path, char **transforms) {
  using net::dialogue;
  using net::gathererGuard;
  gathererGuard.reset();
  static struct sigaction previous;
  if (base::catchAlarm(stimo_handler, &previous) != 0) {
    net::note("WARNING:  3005   Failed to install signal handler.\n");
    return -1;
  }
  int result = net::prepare(repmode, sd, path, transforms);
  if (result == 0) {
    if (sigsetjmp(gathererGuard.back, 1) != 0) {
      gathererGuard.reset();
      net::hangUp();
      // Left running: what follows the dialogue may hang as well, and a late alarm finds the guard
      // closed.
      base::setAlarmTimerMs(net::timeouts.fileMs);
      return net::kTimedOut;
    }
    gathererGuard.armed = 1;
    // The peer may have died before it connected: it is waited for under the same limit.
    result = base::setAlarmTimerMs(net::greetMs(repmode)) == 0 ? net::greet(sd) : -1;
    if (result == 0) result = net::converse();
    gathererGuard.reset();
    base::setAlarmTimer(0);
  }
  net::hangUp();
  sigaction(SIGALRM, &previous, nullptr);
  return result;
}

void stimo_handler(int) {
  if (net::gathererGuard.mustWait()) return;
  static constexpr char kText[] =
      "ERROR:  3032  The ZULd file gatherer has grown tired of waiting.  Exiting\n";
  // Straight to the descriptor: the stream may be in use by what is being interrupted.
  if (write(STDERR_FILENO, kText, sizeof kText - 1) < 0) {
    // The console is often gone by now.
  }
  siglongjmp(net::gathererGuard.back, 1);
}
