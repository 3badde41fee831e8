// Starting the receivers of a multicast run on all of its hosts, with a report for people: what
// each host said goes to standard error, how each did to the job's result file. Runs in the process
// of the request that starts the run.
#include "fanout/crowd.h"

#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zul/host.h>
#include <zul/net.h>

#include "base/fd.h"
#include "base/log.h"
#include "base/process.h"
#include "base/text.h"

bool fanout::resultHeaded = false;

namespace {

using fanout::End;
using fanout::Ending;

constexpr const char *kHeading = "\n---------------  Job Result on Hosts  -------------------\n";

// Numbers of the result file.
enum Result { kOk = 1, kRefused, kBadPass, kProtocolError, kCommandFailed, kNoResponse };

// What is said when a host ends, and whether the host's name has to stand before it.
struct Words {
  Result result;
  bool named;
  const char *text;
};

Words wordsFor(End end) {
  switch (end) {
    case End::accepted:
      return {kOk, false, ""};
    case End::notStarted:
      return {kRefused, true, "ERROR:  7015  Cannot connect to remote host.\n"};
    case End::refused:
      // The connection was under way by then: for operators this is a login that failed.
      return {kBadPass, true, "ERROR:  7016  Cannot login to remote host.\n"};
    case End::noResponse:
      return {kNoResponse, true, "Host did not respond.\n"};
    case End::badLogin:
      return {kBadPass, false, "ERROR:  7016  Cannot login to remote host.\n"};
    case End::firstUnsent:
      return {kProtocolError, false, "ERROR:  7017  Could not send command.\n"};
    case End::nextUnsent:
      return {kProtocolError, true, "ERROR:  7019  Could not send command.\n"};
    case End::errorLine:
      return {kCommandFailed, false, ""};
    case End::answered:
      // A receiver that has ended before it said that it is one.
      return {kCommandFailed, true, "ERROR:  The command ended without TRANSFER OK.\n"};
    case End::lost:
      return {kProtocolError, true, "ERROR:  Connection lost.\n"};
    case End::silent:
      return {kNoResponse, true, "Host did not respond.\n"};
    case End::flooded:
      return {kProtocolError, true, "ERROR:  Too much text.\n"};
  }
  return {kProtocolError, true, ""};
}

void saveName(hostEntry &entry) {
  saveResponse(&entry, "Host[");
  saveResponse(&entry, entry.host);
  saveResponse(&entry, "]  ");
}

void printResponse(hostEntry *entry) {
  if (!entry->buf) return;
  if (entry->fill > 0) fwrite(entry->buf, 1, static_cast<size_t>(entry->fill), stderr);
  entry->fill = 0;
  entry->buf[0] = '\0';
}

class RunReport : public fanout::Audience {
 public:
  explicit RunReport(int job) : job_(job) {}

  int connects(const char *host) override { return mkZULagentSD_nb(host); }
  void logsIn(hostEntry &entry) override { saveName(entry); }
  void isAsked(hostEntry &entry) override { saveName(entry); }
  void says(hostEntry &entry, const char *line) override {
    saveName(entry);
    saveResponse(&entry, line);
    if (entry.fill > fanout::kPrintAbove) printResponse(&entry);
  }
  bool endsAtAcceptance() const override { return true; }
  bool endsAtError() const override { return true; }
  void ends(hostEntry &entry, const Ending &ending) override {
    Words words = wordsFor(ending.end);
    if (words.named) saveName(entry);
    saveResponse(&entry, words.text);
    logHostStatus(job_, words.result, &entry);
  }
  bool isGood(const Ending &ending) const override { return ending.end == End::accepted; }

 private:
  int job_;
};

const char *resultLine(int status) {
  switch (status) {
    case kOk:
      return "Host %s Ok: %s";
    case kRefused:
      return "Host %s Connection_Refused: %s";
    case kBadPass:
      return "Host %s Bad_Pass: %s";
    case kProtocolError:
      return "Host %s Protocol_Error: %s";
    case kCommandFailed:
      return "Host %s Command_Failed: %s";
    case kNoResponse:
      return "Host %s No_Response: %s";
    default:
      return nullptr;
  }
}

bool waitsForBuffer(const hostEntry &entry) {
  return entry.state == 0 && !entry.buf;
}

}  // namespace

int minimonk(strNode *hosts, char **commands, int job) {
  base::ignoreSigpipe();
  RunReport report(job);
  fanout::Crowd crowd(report, commands, fanout::answerLimitSeconds() * 1000);
  switch (crowd.gather(hosts)) {
    case fanout::Crowd::Ready::noEntries:
      base::print(stderr, "ERROR:  7012  Out of memory!\n");
      return 1;
    case fanout::Crowd::Ready::noBuffers:
      base::print(stderr, "ERROR:  7013  Out of memory!\n");
      return 1;
    case fanout::Crowd::Ready::yes:
      break;
  }
  crowd.run();
  base::print(stderr, "NOTE:  Replication started on %i out of %i hosts.\n", crowd.good(),
              crowd.count());
  return 0;
}

int logHostStatus(int job, int status, hostEntry *entry) {
  base::HomePath path("tmp/mrepl.jobresult.%i", job);
  mode_t kept = umask(0177);
  int fd = open(path, O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0666);
  umask(kept);
  base::File file(fd >= 0 ? fdopen(fd, "a") : nullptr);
  if (!file) {
    if (fd >= 0) close(fd);
    base::print(stderr, "ERROR:  7071  Cannot open the file %s.  Check permissions\n",
                path.c_str());
    return -1;
  }
  if (!fanout::resultHeaded) fputs(kHeading, file.get());
  fanout::resultHeaded = true;
  time_t now = time(nullptr);
  char when[64] = "\n";
  ctime_r(&now, when);
  if (const char *line = resultLine(status)) base::print(file.get(), line, entry->host, when);
  return 0;
}

int hostFinished(int count, int index, hostEntry *entries) {
  hostEntry &entry = entries[index];
  printResponse(&entry);
  if (entry.sd >= 0) close(entry.sd);
  entry.sd = -1;
  entry.state |= 1 | fanout::kDone;
  char *buffer = entry.buf;
  entry.buf = nullptr;
  for (int step = 1; buffer && step < count; step++) {
    hostEntry &next = entries[(index + step) % count];
    if (!waitsForBuffer(next)) continue;
    memset(buffer, 0, fanout::kBufferBytes);
    next.buf = buffer;
    next.fill = 0;
    buffer = nullptr;
  }
  return 0;
}

int saveResponse(hostEntry *entry, const char *text) {
  if (!entry->buf) return -1;
  size_t room = static_cast<size_t>(fanout::kBufferBytes - 1 - entry->fill);
  size_t length = strlen(text), saved = length < room ? length : room;
  memcpy(entry->buf + entry->fill, text, saved);
  entry->fill += static_cast<int>(saved);
  entry->buf[entry->fill] = '\0';
  return saved == length ? 0 : -1;
}
