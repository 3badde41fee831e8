// The tape host pushes a job's backup list to every member of the job's group before it asks for
// their files; on a member, reqSync receives it. The sender is the job process, or a request of the
// operator; the receiver is a request that the sender's agent connection starts.
#include "tape/sync.h"

#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>
#include <zul/host.h>
#include <zul/net.h>
#include <zul/tape.h>

#include "base/fd.h"
#include "base/lines.h"
#include "base/log.h"
#include "base/pause.h"
#include "base/process.h"
#include "base/site.h"
#include "base/store.h"
#include "net/agentlogin.h"
#include "net/timeouts.h"

namespace {

constexpr char kEndOfList[] = "TRANSFER OK";
constexpr char kCommandEnded[] = "ZuL_DoNe.";
constexpr size_t kLineMax = 255;    // longer lines travel in pieces
constexpr int kClassicLines = 129;  // what a classic member stores of a list
constexpr int kMostLines = 262144;  // what any member stores: a peer does not fill the disk

// One flag a member of the last push.
bool *pushed = nullptr;
int pushedMembers = 0;

void forgetPushes(int members) {
  free(pushed);
  pushed = nullptr;
  if (members > 0)
    pushed = static_cast<bool *>(calloc(static_cast<size_t>(members), sizeof *pushed));
  pushedMembers = pushed ? members : 0;
}

void rememberPush(int member, bool delivered) {
  if (member <= pushedMembers) pushed[member - 1] = delivered;
}

bool beginsWith(const char *text, const char *start) {
  return strncmp(text, start, strlen(start)) == 0;
}

bool sendAll(int sd, const char *bytes, size_t length) {
  return writen(sd, bytes, length) == static_cast<ssize_t>(length);
}

// Sends the lines as they are read; false when the list cannot be sent, or read, to its end.
bool sendLines(int sd, FILE *list) {
  base::LineReader line(list, kLineMax);
  bool ended = true;
  while (line.next()) {
    if (!sendAll(sd, line.text(), line.length())) return false;
    base::print(backuplog, ".");
    ended = line.text()[line.length() - 1] == '\n';
  }
  // Behind a last line without its end the end mark would become a part of a path, and the member
  // would store that path and wait for more.
  if (!ended && base::sound(base::Area::backup) && !sendAll(sd, "\n", 1)) return false;
  return !line.outOfMemory() && !ferror(list);
}

// The bytes that are there before the deadline: their number, 0 at the end of the stream, -1 for
// none.
ssize_t receiveBefore(long long deadline, int sd, char *bytes, size_t room) {
  for (;;) {
    long long left = deadline - base::nowMs();
    if (left <= 0) return -1;
    struct pollfd wait = {sd, POLLIN, 0};
    int ready = poll(&wait, 1, static_cast<int>(left));
    if (ready > 0) {
      ssize_t got = read(sd, bytes, room);
      if (got >= 0 || errno != EINTR) return got;
    } else if (ready < 0 && errno != EINTR) {
      return -1;
    }
  }
}

// Reads what the member's agent says until its command has ended: the command's status, or -1
// without one. What the command has to complain about goes to the log.
int readStatus(int sd, const char *host) {
  const long long deadline = base::nowMs() + net::timeouts.storedMs;
  char line[kLineMax + 1];
  size_t used = 0;
  for (;;) {
    char bytes[512];
    ssize_t got = receiveBefore(deadline, sd, bytes, sizeof bytes);
    if (got <= 0) return -1;
    for (ssize_t i = 0; i < got; i++) {
      if (bytes[i] != '\n') {
        if (used < kLineMax) line[used++] = bytes[i];
        continue;
      }
      line[used] = '\0';
      used = 0;
      if (beginsWith(line, kCommandEnded)) return base::decimal(line + strlen(kCommandEnded));
      if (beginsWith(line, "ERROR:")) base::print(backuplog, "%s: %s\n", host, line);
    }
  }
}

// Waits until the member has stored the list.
bool confirmStored(int sd, const char *host) {
  shutdown(sd, SHUT_WR);
  int status = readStatus(sd, host);
  if (status == 0) return true;
  base::print(backuplog, "ERROR:  %s has not stored the backup list, status = %i\n", host, status);
  return false;
}

bool pushList(int sd, const char *host, FILE *list) {
  base::print(backuplog, "Synchronizing %s", host);
  if (!sendLines(sd, list)) {
    base::print(backuplog, "\nERROR:  8331  Failed to synchronize %s\n", host);
    return false;
  }
  base::print(backuplog, "\n");
  if (!sendAll(sd, "TRANSFER OK\n", strlen("TRANSFER OK\n"))) {
    base::print(backuplog, "\nERROR:  8332  Failed to synchronize %s\n", host);
    return false;
  }
  // A gatherer that is asked for at once would else expand the list of the job's last run, or half
  // of this one.
  return !base::sound(base::Area::pace) || confirmStored(sd, host);
}

enum class Received { complete, cut, unwritten };

Received receiveList(base::Store &store) {
  const int most = base::sound(base::Area::backup) ? kMostLines : kClassicLines;
  for (int lines = 0;; lines++) {
    char line[kLineMax + 1];
    ssize_t got = readnline(STDIN_FILENO, line, sizeof line);
    if (got <= 0) return Received::cut;
    // One more than was stored stands for a piece of a line.
    size_t length = static_cast<size_t>(got);
    if (line[length - 1] != '\n') length--;
    if (beginsWith(line, kEndOfList)) return Received::complete;
    if (lines == most) return Received::complete;
    if (!store.put(line, length)) return Received::unwritten;
  }
}

}  // namespace

bool listWasPushed(int member) {
  return member >= 1 && member <= pushedMembers && pushed[member - 1];
}

int startSyncClnt(char *host, int job) {
  int sd = net::openAgent(host);
  if (sd == -1) {
    base::print(backuplog, "ERROR:  8334  Cannot connect to remote host: %s\n", host);
    return -1;
  }
  if (sd < 0) {
    base::print(backuplog, "ERROR:  8335  Cannot start sync on remote host:  %s\n", host);
    return -2;
  }
  char request[32];
  int length = snprintf(request, sizeof request, "TAPE rsync %i\n", job);
  if (!sendAll(sd, request, static_cast<size_t>(length))) {
    base::print(backuplog, "ERROR:  8336  Cannot synchronize backup request on remote host:  %s\n",
                host);
    return -3;
  }
  return sd;
}

int syncBackupLists(int job) {
  base::ignoreSigpipe();
  forgetPushes(0);
  jobrec record;
  if (readJobid(job, &record) != 0) return -1;
  char host[64];
  int members = getGrpMember(record.group, 1, host);
  if (members <= 0) return 0;
  forgetPushes(members);
  for (int member = 1; member <= members; member++) {
    if (getGrpMember(record.group, member, host) < 0) continue;
    int sd = startSyncClnt(host, job);
    if (sd == -1) continue;
    base::Fd connection(sd);
    base::File list(fopen(base::HomePath("var/tape/jobids/%i", job), "re"));
    if (!list) return -1;
    // A refused login and an unsent request go the way of a broken connection, with the message of
    // one.
    rememberPush(member, pushList(sd, host, list.get()));
  }
  return 0;
}

int reqSync(char *job) {
  const int number = base::decimal(job);
  base::Store store(base::HomePath("var/tape/jobids/%i.req", number), base::Store::kBytes);
  store.ownerOnly();
  if (!store.beginRewrite()) return -1;
  Received received = receiveList(store);
  if (received == Received::unwritten) return -2;
  // A sender that died in the middle has sent a list that looks like a shorter one: the former list
  // is better.
  if (received == Received::cut && base::sound(base::Area::stores)) {
    base::print(stderr, "ERROR:  Backup list %i arrived incomplete, the former one is kept\n",
                number);
    return -2;
  }
  return store.commit() ? 0 : -2;
}
