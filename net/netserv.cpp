// The file gatherer of a client host: starts the list generator, listens for the tape host, serves
// it, and ends the process. Runs in the request process that the agent made for "server".
#include <errno.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zul/host.h>
#include <zul/net.h>
#include <zul/tape.h>

#include "base/log.h"
#include "base/pause.h"
#include "base/process.h"
#include "base/site.h"
#include "base/text.h"
#include "net/gatherer.h"
#include "net/service.h"
#include "net/timeouts.h"

namespace {

constexpr size_t kNameRoom = 16;  // what a host lends at least

void showName(const char *name) {
  base::copyText(cmdname, kNameRoom, name);
}

base::HomePath requestList(int reqid) {
  return base::HomePath("var/tape/jobids/request.%i", reqid);
}

// The generator itself, detached from the request so that it outlives it.
[[noreturn]] void generateList(int reqid, int since) {
  base::detachHere();
  // What could not be listed, and why. The status log is the gatherer's, which writes it from its
  // own position.
  FILE *remarks = fopen(base::HomePath("var/tape/jobids/request.%i.log", reqid), "we");
  if (remarks) {
    setvbuf(remarks, nullptr, _IOLBF, 0);
    backuplog = remarks;
  }
  base::HomePath wanted("var/tape/jobids/%i.req", reqid);
  int result = mkBackupList(wanted.data(), requestList(reqid).data(), since);
  base::endProcess(result == 0 ? 0 : 255);
}

[[noreturn]] void startGenerator(int reqid, int since) {
  pid_t pid = fork();
  if (pid == 0) generateList(reqid, since);
  if (pid < 0) {
    base::print(stderr,
                "ERROR:  3035 Unable to start backup list generator.  Cannot fork process\n");
    _exit(255);
  }
  _exit(0);
}

// The port may be with the gatherer of a job that was stopped, which gives it back when the peer of
// this one comes to it.
bool bindFree(int sd, const sockaddr_in &address) {
  long long limit = base::nowMs() + net::timeouts.portMs;
  while (bind(sd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
    bool again = errno == EADDRINUSE && base::sound(base::Area::pace) && base::nowMs() < limit;
    if (!again) return false;
    base::pauseFor(base::Pause::ConnectRetry);
  }
  return true;
}

[[noreturn]] void failServing(int listening, const char *text) {
  base::print(backuplog, "%s", text);
  if (listening >= 0) close(listening);
  base::endProcess(255);
}

}  // namespace

int mkFlist(int reqid, int since) {
  base::defaultSigchld();
  // Left in place, the list of an earlier request would be served while the new one is not there
  // yet.
  if (base::sound(base::Area::stream)) unlink(requestList(reqid));
  pid_t pid = base::forkFlushed();
  if (pid < 0) {
    base::print(stderr,
                "ERROR:  3033  Unable to start backup list generator.  Cannot fork process\n");
    return -1;
  }
  if (pid == 0) startGenerator(reqid, since);
  long long endMs = base::nowMs() + net::timeouts.startMs;
  while (base::nowMs() < endMs) {
    base::pauseFor(base::Pause::ListStart);
    int status;
    if (base::reapNow(pid, &status) != pid) continue;
    if (!WIFEXITED(status)) break;  // killed: nobody is left to wait for
    // Without a generator there will be no list: the tape host would wait for one in vain.
    return WEXITSTATUS(status) != 0 && base::sound(base::Area::stream) ? -1 : 0;
  }
  base::print(stderr, "ERROR:  3034  Parent timesout \n");
  return -1;
}

int mkServerSD(void) {
  sockaddr_in address = net::serviceAddress(net::kDataService);
  int sd = net::streamSocket();
  if (sd < 0) failServing(sd, "WARNING:  3002  Unable to open socket!\n");
  // A gatherer closes first, so its port rests for a minute; without this the next job within it
  // fails.
  int on = 1;
  if (base::sound(base::Area::stream)) setsockopt(sd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (!bindFree(sd, address)) failServing(sd, "WARNING:  3003  Bind Failed!\n");
  if (listen(sd, 8) != 0) failServing(sd, "WARNING:  3004  Listen Failed!\n");
  return sd;
}

int server(int reqid, int since) {
  showName("zulcatlg");
  base::print(backuplog, "INFO:  Building Backup list\n");
  if (mkFlist(reqid, since) < 0) {
    base::print(backuplog, "WARNING:  3000  Cannot make the request list!\n");
    return -1;
  }
  int listening = mkServerSD();
  showName("zultserv");
  base::pauseFor(base::Pause::ListGrace);
  base::print(backuplog, "INFO:  Starting servHandshak\n");
  char *noTransforms[] = {nullptr, nullptr};
  net::expectRequest(reqid, since);
  int result = servHandshak(0, listening, requestList(reqid), noTransforms);
  if (result >= 0) base::endProcess(0);
  base::print(backuplog, "WARNING:  3001  Server handshaking error %i\n", result);
  base::endProcess(255);
}
