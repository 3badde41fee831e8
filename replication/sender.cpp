// One target of a replication, in the sending process that the driver made for it: has the target's
// agent start the receiver, connects to its data port and serves it the job's list.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>
#include <zul/host.h>
#include <zul/net.h>
#include <zul/replication.h>
#include <zul/tape.h>

#include "base/fd.h"
#include "base/log.h"
#include "base/pause.h"
#include "base/site.h"
#include "base/text.h"
#include "net/agentlogin.h"
#include "net/delivery.h"

namespace {

constexpr int kEncrypt = 2;  // of the flag word
constexpr size_t kReplyMax = 64;
constexpr size_t kTableTexts = 9728;
constexpr int kTableSlots = 32;
constexpr int kPeerLost = -8;
constexpr int kTimedOut = -7;
// A receiver has its directories to finish when it has everything.
constexpr int kEndLimitMs = 300000;

constexpr int kNoConnection = -1;
constexpr int kLoginRefused = -2;
constexpr int kNotSent = -3;
constexpr int kReplyTooLong = -4;
constexpr int kReplyEnded = -5;
constexpr int kReplyFailed = -6;
constexpr int kNoEncryption = -6;

bool soundReceive() {
  return base::sound(base::Area::receive);
}

bool hasEnded(int sd) {
  char byte;
  return recv(sd, &byte, 1, MSG_PEEK | MSG_DONTWAIT) == 0;
}

// Reads the receiver's first line, byte by byte: what follows it is read with other means. 0, or
// the code of startReplicateClnt.
int readReply(int sd, char *reply) {
  memset(reply, 0, kReplyMax + 1);
  for (size_t at = 0; at < kReplyMax; at++) {
    errno = 0;
    ssize_t got = readn(sd, reply + at, 1);
    // A connection that was torn down reads as ended from its second read on.
    if (got == -4 && errno == ECONNRESET) return kReplyFailed;
    if (got != 1) return got == -3 || (got == -4 && hasEnded(sd)) ? kReplyEnded : kReplyFailed;
    if (reply[at] == '\n') return 0;
  }
  return kReplyTooLong;
}

// The receiver's word on encryption. 0, or the code of startReplicateClnt.
int agreeOnEncryption(const char *host, const char *reply, bool wanted) {
  if (strncmp(reply, "Rep Flags=e", 11) == 0) {
    shouldEncrypt(1);
    base::print(backuplog, "INFO:  Using Encryption\n");
    return 0;
  }
  if (soundReceive() && strncmp(reply, "Rep Flags=", 10) != 0) {
    net::noteReason("its agent refuses: %.*s", static_cast<int>(strcspn(reply, "\n")), reply);
    return kReplyFailed;
  }
  // Going on would send in clear what is not to be seen by anybody, because one letter of the reply
  // was changed or a key is missing.
  if (wanted && base::sound(base::Area::security)) {
    net::noteReason("encryption is asked for, and this target has no key or no library for it");
    base::print(backuplog, "ERROR:  %s cannot encrypt, and the job asks for it\n", host);
    return kNoEncryption;
  }
  shouldEncrypt(0);
  base::print(backuplog, "INFO:  NO Encryption\n");
  return 0;
}

// The request line is split at blanks on the other side.
bool canTravel(const char *destination) {
  if (destination[0] != '\0' && strpbrk(destination, " \t\r\n\v\f") == nullptr) return true;
  base::print(backuplog,
              "NOTICE:  A destination that is empty or has blanks in it cannot be sent: \"%s\"\n",
              destination);
  return false;
}

const char *whyNotStarted(int code) {
  switch (code) {
    case kNoConnection:
      return "no connection to its agent";
    case kLoginRefused:
      return "its agent refuses the login";
    case kNotSent:
      return "its agent does not take the request";
    case kReplyTooLong:
    case kReplyEnded:
    case kReplyFailed:
      return "its agent does not answer the request";
    default:
      return "its receiver could not be started";
  }
}

void noteStop(const char *why) {
  if (net::receiverComplaint()[0] != '\0')
    net::noteReason("%s: %s", why, net::receiverComplaint());
  else
    net::noteReason("%s", why);
}

int connectToReceiver(const char *host) {
  base::print(backuplog, "Listner on %s\n", host);
  base::pauseFor(base::Pause::ReceiverStart);
  int sd = mkClientSD(host);
  if (sd >= 0) return sd;
  base::print(backuplog, "Listner failed for %s\n", host);
  noteStop(net::receiverEnded() ? "its receiver ended before it was connected to; is its data port "
                                  "in use?"
                                : "its data port cannot be reached");
  return -1;
}

// The list is served; whether the receiver has made everything of it is its own to say.
int conclude(const char *host) {
  if (!soundReceive()) return 0;
  int status = net::awaitReceiver(kEndLimitMs);
  if (status == 0) return 0;
  net::lookAtReceiver();
  noteStop(status < 0 ? "it has not confirmed that it is done" : "not everything could be made");
  base::print(backuplog, "ERROR:  The receiver on %s ended with status %i\n", host, status);
  return -1;
}

void noteBreak(int result) {
  if (result == kTimedOut)
    noteStop("it said nothing for too long");
  else if (result == kPeerLost)
    noteStop("the connection broke off");
  else
    net::noteReason("this host could not serve its list, see the job's status file");
}

int serve(const char *host, const reprec &job, char **transforms) {
  base::Fd agent(startReplicateClnt(host, job.dest, job.conflict, job.flags));
  if (!agent) {
    base::print(backuplog, "ERROR: Unable to start replication client on %s\n", host);
    return -1;
  }
  net::watchReceiver(host, agent.get());
  int data = connectToReceiver(host);
  if (data < 0) return -1;
  base::print(backuplog, "Listner starting handshaking with %s\n", host);
  base::HomePath list("var/tape/jobids/repl.%i", job.job);
  int result = servHandshak(1, data, list, transforms);
  if (result >= 0) return conclude(host);
  net::lookAtReceiver();
  noteBreak(result);
  base::print(backuplog, "ERROR:  Unable to handshake with %s.  Got error %i\n", host, result);
  return -1;
}

}  // namespace

int startReplicateClnt(const char *host, const char *destination, int conflict, int flags) {
  shouldEncrypt(0);  // the console is never encrypted
  bool wanted = (flags & kEncrypt) != 0;
  bool able = hasScram();
  if (wanted && !able && base::sound(base::Area::security)) {
    net::noteReason("encryption is asked for, and this host has no key or no library for it");
    base::print(backuplog, "ERROR:  This host cannot encrypt, and the job asks for it\n");
    return kNoEncryption;
  }
  if (!canTravel(destination) && soundReceive()) {
    net::noteReason("the destination is empty or has blanks in it; \"/\" is the root");
    return kNotSent;
  }
  int sd = net::openAgent(host);
  if (sd == kLoginRefused)
    base::print(backuplog, "ERROR:  Cannot start restore agent on remote host\n");
  int result = sd < 0 ? sd : 0;
  base::Fd agent(sd);
  char line[512], reply[kReplyMax + 1];
  int length = snprintf(line, sizeof line, "TAPE repclnt %s %i %i\n", destination, conflict,
                        able ? flags : 0);
  if (result == 0 && (static_cast<size_t>(length) >= sizeof line ||
                      writen(sd, line, static_cast<size_t>(length)) != length))
    result = kNotSent;
  if (result == 0) result = readReply(sd, reply);
  if (result == 0) result = agreeOnEncryption(host, reply, wanted);
  if (result == 0) return agent.release();
  net::noteReason("%s", whyNotStarted(result));
  return result;
}

int replicateChld(const char *host, void *record) {
  reprec job;
  memcpy(&job, record, sizeof job);
  job.dest[sizeof job.dest - 1] = '\0';
  permctrl(1, &job);
  char *table[kTableSlots] = {};
  char *texts = static_cast<char *>(calloc(1, kTableTexts));
  if (!texts) {
    base::print(backuplog, "ERROR: Out of memory for host %s transform buffer\n", host);
    if (backuplog) fflush(backuplog);
    return -1;
  }
  int result = readTransforms(job.job, texts, table);
  if (result == 0)
    result = serve(host, job, table);
  else
    net::noteReason("the job has more transforms than are used");
  net::watchReceiver("", -1);
  free(texts);
  if (backuplog) fflush(backuplog);
  return result;
}
