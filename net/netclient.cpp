// The gathering child of a backup job, one process per member host: has the host's agent start its
// file gatherer, connects to it, and leaves what the dialogue brings in the host's mailbox.
// docs/protocols/gathering.md has both hand-overs.
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <stdarg.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>
#include <zul/host.h>
#include <zul/module.h>
#include <zul/net.h>
#include <zul/tape.h>

#include "base/log.h"
#include "base/pause.h"
#include "base/process.h"
#include "base/sharedword.h"
#include "base/site.h"
#include "base/text.h"
#include "net/agentlogin.h"
#include "net/delivery.h"
#include "net/gatherchild.h"
#include "net/service.h"
#include "tape/segment.h"

namespace net {

GatherLimits gatherLimits = {300, 100000, 30000};

namespace {

constexpr int kExitFailed = -1;
constexpr int kSecondTryMs = 3000;  // the gatherer that is meant has only to take the port
constexpr size_t kNameRoom = 16;    // what every host lends of cmdname

pid_t gatherParent = -1;

// The status file is also written by those who append to it by hand; an error always ends it.
void printAtEnd(const char *format, ...) __attribute__((format(printf, 1, 2)));
void printAtEnd(const char *format, ...) {
  int error = errno;
  if (!backuplog) return;
  fseek(backuplog, 0, SEEK_END);
  va_list args;
  va_start(args, format);
  vfprintf(backuplog, format, args);
  va_end(args);
  errno = error;
}

bool openStatusFile(const char *host) {
  base::HomePath path("var/tape/jobids/%s.stat", host);
  if (backuplog && backuplog != stderr) fclose(backuplog);
  // A host is named by a group, and a '/' in its name would lead out of the folder.
  errno = EINVAL;
  backuplog = base::isPathWord(host) ? fopen(path, "we") : nullptr;
  if (!backuplog) {
    int error = errno;
    backuplog = stderr;
    base::print(stderr,
                "ERROR:  3200  Fatal error.  Cannot open status log file: %s.  errno = %i\n",
                path.c_str(), error);
    return false;
  }
  setvbuf(backuplog, nullptr, _IONBF, 0);
  return true;
}

// The parent's word: true to go on. Ends the process when the parent says stop or is gone.
void awaitMailbox(ipc *slot) {
  for (;;) {
    int flags = base::loadWord(slot->pst.flags);
    int state = flags & ~8;  // bit 8 asks for idling once the dialogue runs
    if (state == 1) return;
    if (state == 2 || state == 4) base::endProcess(0);
    if (gatherParentGone()) leaveOrphaned(slot);
    base::waitWord(&slot->pst.flags, static_cast<uint32_t>(flags),
                   base::pauseLength(base::Pause::ParentPoll));
  }
}

[[noreturn]] void fail(ipc *slot, int flags) {
  if (gatherParentGone()) leaveOrphaned(slot);
  if (backuplog && backuplog != stderr) fclose(backuplog);
  backuplog = stderr;
  setChildFlags(slot, flags);
  base::endProcess(kExitFailed);
}

int openMailbox(const char *host) {
  base::HomePath path("tmp/ipc.%s", host);
  base::print(backuplog, "Using FIFO in: %s\n", path.c_str());
  return open(path, O_WRONLY | O_TRUNC | O_NONBLOCK | O_CLOEXEC);
}

// Says what we came for. A gatherer that an earlier job left waiting may still have the port: it
// would serve that job's files as this one's. Gatherers that do not know the line pass it over.
void nameRequest(int sd, int reqid, int since) {
  char line[64];
  int length = snprintf(line, sizeof line, "Job %i %i\n", reqid, since);
  writen(sd, line, static_cast<size_t>(length));
}

int converse(ipc *slot, const char *host, int reqid, int since, int *sd) {
  *sd = mkClientSD(host);
  if (*sd < 0) {
    base::print(backuplog, "ERROR:  3204  Unable to open socket to client\n");
    fail(slot, 2);
  }
  if (base::sound(base::Area::stream)) nameRequest(*sd, reqid, since);
  return clientHandshak(*sd, slot);
}

// Closed on before a first answer: a dialogue that had one ended for another reason.
bool wasTurnedAway(const ipc *slot, int result) {
  constexpr int kWrite = -1, kNoAnswer = -2;
  return (result == kWrite || result == kNoAnswer) && slot->pack.magic == 0 &&
         base::sound(base::Area::stream) && base::sound(base::Area::pace);
}

int gatherInto(ipc *slot, const char *host, int reqid, int since) {
  int mailbox = slot->wfd = openMailbox(host);
  if (mailbox < 0) {
    base::print(backuplog, "ERROR:  3203  Unable to open FIFO\n");
    fail(slot, 2);
  }
  int sd = -1;
  int result = converse(slot, host, reqid, since, &sd);
  // The gatherer of a job that was stopped waits for its tape host and ends when it hears of ours;
  // the one that was started for us gets the port then.
  if (wasTurnedAway(slot, result)) {
    base::print(backuplog, "NOTICE:  The gatherer has closed at once, trying once more\n");
    gatherLimits.refusedMs = kSecondTryMs;
    close(sd);
    result = converse(slot, host, reqid, since, &sd);
  }
  if (result < 0) {
    printAtEnd("ERROR:  3205  Client handshaking error %i, errno = %i\n", result, errno);
    close(mailbox);
    fail(slot, 16);
  }
  // The gatherer has closed by now; one that has not hears that there is nothing more to come.
  writen(sd, "Quit\n", 5);
  setChildFlags(slot, 8);
  close(sd);
  close(mailbox);
  base::print(backuplog, "Flag pointer = %p\n", static_cast<void *>(&slot->cst.flags));
  base::print(backuplog, "Finished with %s\n", host);
  if (gatherParentGone()) leaveOrphaned(slot);
  return 0;
}

// Connects a socket, or one made in its place: a connection that was refused takes its socket
// along. -1 when that fails. A gatherer that was asked for a moment ago may not listen yet; where
// readiness replaces its head start it gets some time.
int connectData(int sd, const sockaddr_in &address) {
  long long limit = base::nowMs() + gatherLimits.refusedMs;
  while (connect(sd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
    bool again = errno == ECONNREFUSED && base::sound(base::Area::pace) && base::nowMs() < limit &&
                 !gatherParentGone() && !receiverEnded();
    close(sd);
    if (!again) return -1;
    base::pauseFor(base::Pause::ConnectRetry);
    sd = streamSocket();
    if (sd < 0) return -1;
  }
  return sd;
}

}  // namespace

void setGatherParent(pid_t job) {
  gatherParent = job;
}

bool gatherParentGone() {
  return gatherParent > 0 && getppid() != gatherParent;
}

void leaveOrphaned(const ipc *slot) {
  base::print(backuplog, "The backup job is gone, leaving\n");
  unlink(base::HomePath("tmp/ipc.%.64s", slot->host));
  base::endProcess(0);
}

void setChildFlags(ipc *slot, int flags) {
  base::storeWord(slot->cst.flags, flags);
  tape::ringDoorbell();
}

}  // namespace net

int goBackupChld(int slotno, const char *host, int reqid, int since) {
  base::copyText(cmdname, net::kNameRoom, "zultlisten");
  if (!net::openStatusFile(host)) return -2;
  if (net::gatherParent < 0) net::setGatherParent(getppid());
  ipc *slot = tape::findSlot(slotno);
  if (!slot) base::endProcess(net::kExitFailed);
  if (net::gatherParentGone()) net::leaveOrphaned(slot);
  base::print(backuplog, "Starting backup TCP server on client: %s\n", host);
  if (startBackupServ(host, reqid, since) != 0) {
    base::print(backuplog, "ERROR:  3201  Failed to start backup TCP server on client: %s\n", host);
    net::setChildFlags(slot, 2);
    return -1;
  }
  base::pauseFor(base::Pause::GathererStart);
  net::setChildFlags(slot, 1);
  base::print(backuplog, "Signal parent we are ready to get data from remote client: %s\n", host);
  base::print(backuplog, "IPC ipc->pst.flags = %p    ipc->cst.flags = %p \n",
              static_cast<void *>(&slot->pst.flags), static_cast<void *>(&slot->cst.flags));
  net::awaitMailbox(slot);
  base::print(backuplog, "Parent says it is ready to receive data\n");
  return net::gatherInto(slot, host, reqid, since);
}

int startBackupServ(const char *host, int reqid, int since) {
  int sd = net::openAgent(host);
  if (sd == -1) return -1;
  if (sd < 0) {
    base::print(backuplog, "ERROR:  3224  Cannot start restore agent on remote host\n");
    return -2;
  }
  char line[64];
  int length = snprintf(line, sizeof line, "TAPE server %i %i\n", reqid, since);
  bool delivered = writen(sd, line, static_cast<size_t>(length)) == length;
  close(sd);
  return delivered ? 0 : -3;
}

int mkClientSD(const char *host) {
  sockaddr_in address = net::serviceAddress(net::kDataService);
  base::print(backuplog, "Server port: %i, Server name %s\n", ntohs(address.sin_port), host);
  int sd = net::streamSocket();
  if (sd < 0) {
    net::printAtEnd("ERROR:  3206  Unable to open socket!\n");
    return -1;
  }
  hostent *entry = gethostbyname(host);
  if (!entry || entry->h_addrtype != AF_INET || entry->h_length != sizeof address.sin_addr) {
    net::printAtEnd("ERROR:  3207  Could not resolv host name: %s\n", host);
    close(sd);
    return -1;
  }
  memcpy(&address.sin_addr, entry->h_addr_list[0], sizeof address.sin_addr);
  base::print(backuplog, "Host name: %s\n", host);
  base::print(backuplog, "Official name: %s\n", entry->h_name);
  base::print(backuplog, "Host address: %x\n", address.sin_addr.s_addr);
  char dotted[INET_ADDRSTRLEN] = "";
  inet_ntop(AF_INET, &address.sin_addr, dotted, sizeof dotted);
  base::print(backuplog, "Connection to: %s\n", dotted);
  sd = net::connectData(sd, address);
  if (sd < 0) {
    net::printAtEnd("ERROR:  3208  Connection to socket refused!\n");
    return -1;
  }
  // The dialogue is lines and answers in turn: a line that waits for the kernel to gather more
  // costs a file 40 ms.
  nagleOnOff(sd, 1);
  net::noticeDeath(sd);
  base::print(backuplog, "Socket Descriptor = %i\n", sd);
  return sd;
}
