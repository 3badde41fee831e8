// Keeps the account of the one target that this process serves. A SIGALRM may jump out of the
// dialogue that calls in here: plain data only.
#include "net/delivery.h"

#include <ctype.h>
#include <errno.h>
#include <poll.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>

#include "base/pause.h"
#include "base/site.h"
#include "base/text.h"
#include "net/gatherer.h"

namespace net {

namespace {

constexpr char kCommandEnded[] = "ZuL_DoNe.";
constexpr char kNotWanted[] = "ERROR:  Restore path is null!";  // said for every file that is kept
constexpr int kMostComplaints = 50;                             // of one receiver in the log
constexpr int kMostFailures = 100;
constexpr int kReadsAtOnce = 64;  // a target that never stops talking must not keep its sender

Delivery nobody;

struct Receiver {
  const char *host;
  int console;
  bool ended;
  int status;
  char line[256];
  size_t used;
  char complaint[200];
  int complaints;
};
Receiver receiver = {"", -1, false, -1, "", 0, "", 0};
Delivery *account = &nobody;

// What the account had before the last entry was sent.
struct Counts {
  uint64_t files, folders, bytes;
};
Counts before = {};

void setTo(uint64_t *count, uint64_t value) {
  __atomic_store_n(count, value, __ATOMIC_RELAXED);
}

// Texts of a target, whose bytes are somebody else's, end up on an operator's terminal.
void makePrintable(char *text) {
  for (char *at = text; *at; at++)
    if (iscntrl(static_cast<unsigned char>(*at))) *at = '?';
}

// A line of the receiver.
void takeLine() {
  receiver.line[receiver.used] = '\0';
  receiver.used = 0;
  makePrintable(receiver.line);
  if (strncmp(receiver.line, kCommandEnded, sizeof kCommandEnded - 1) == 0) {
    receiver.ended = true;
    receiver.status = base::decimal(receiver.line + sizeof kCommandEnded - 1);
    return;
  }
  if (strncmp(receiver.line, "ERROR:", 6) != 0 || strcmp(receiver.line, kNotWanted) == 0) return;
  base::copyText(receiver.complaint, sizeof receiver.complaint,
                 receiver.line + 6 + strspn(receiver.line + 6, " "));
  // In classic nobody expects a target's words in the job's log.
  if (base::sound(base::Area::receive) && receiver.complaints++ < kMostComplaints)
    note("%s says: %s\n", receiver.host, receiver.line);
}

void takeBytes(const char *bytes, size_t count) {
  for (size_t at = 0; at < count; at++) {
    if (bytes[at] == '\n')
      takeLine();
    else if (receiver.used < sizeof receiver.line - 1)
      receiver.line[receiver.used++] = bytes[at];
  }
}

}  // namespace

void keepAccount(Delivery *to) {
  memset(&nobody, 0, sizeof nobody);
  account = to ? to : &nobody;
  beginEntry();
}

void watchReceiver(const char *host, int console) {
  receiver = Receiver{host, console, false, -1, "", 0, "", 0};
}

Delivery *delivery() {
  return account;
}

void countUp(uint64_t *count, uint64_t by) {
  setTo(count, *count + by);
}

void beginEntry() {
  before = {account->files, account->folders, account->bytes};
}

void noteReason(const char *format, ...) {
  if (account->reason[0] != '\0') return;
  va_list args;
  va_start(args, format);
  vsnprintf(account->reason, sizeof account->reason, format, args);
  va_end(args);
  makePrintable(account->reason);
}

bool isFailure(const char *line) {
  return strncmp(line, "Failed ", 7) == 0 && base::sound(base::Area::receive);
}

void noteFailure(const char *line, const char *path, bool sent) {
  char why[200];
  const char *from = strchr(line + 7, ' ');
  base::copyText(why, sizeof why, from ? from + 1 : "");
  for (char *at = why; *at; at++)
    if (iscntrl(static_cast<unsigned char>(*at))) *at = at[1] ? '?' : '\0';
  if (sent) {
    setTo(&account->files, before.files);
    setTo(&account->folders, before.folders);
    setTo(&account->bytes, before.bytes);
  }
  beginEntry();  // said twice, it takes nothing more back
  countUp(&account->failed);
  noteReason("%.160s", why);
  if (account->failed <= kMostFailures)
    note("ERROR:  Not replicated to %s: %s: %s (%i)\n", receiver.host, path, why,
         base::decimal(line + 7));
  if (account->failed == kMostFailures)
    note("NOTICE:  More that %s cannot make is only counted\n", receiver.host);
}

void lookAtReceiver() {
  if (receiver.console < 0) return;
  char bytes[4096];
  int kept = errno;
  for (int reads = 0; reads < kReadsAtOnce; reads++) {
    ssize_t got = recv(receiver.console, bytes, sizeof bytes, MSG_DONTWAIT);
    if (got > 0) {
      takeBytes(bytes, static_cast<size_t>(got));
    } else if (got == 0 || (errno != EINTR && errno != EAGAIN)) {
      // The descriptor is its owner's to close.
      receiver.console = -1;
      receiver.ended = true;
      break;
    } else if (errno == EAGAIN) {
      break;
    }
  }
  errno = kept;
}

bool receiverEnded() {
  lookAtReceiver();
  return receiver.ended;
}

int awaitReceiver(int limitMs) {
  long long endMs = base::nowMs() + limitMs;
  while (!receiverEnded() && receiver.console >= 0) {
    long long left = endMs - base::nowMs();
    if (left <= 0) return -1;
    pollfd asked{receiver.console, POLLIN, 0};
    poll(&asked, 1, static_cast<int>(left));
  }
  return receiver.status;
}

const char *receiverComplaint() {
  return receiver.complaint;
}

}  // namespace net
