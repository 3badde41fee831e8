// A receiving host of a multicast run: repClientStart, called for "mrepclnt", forks the extracter
// and is itself the getter, which takes segments from the network into the ring.
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/udp.h>
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zul/host.h>
#include <zul/module.h>
#include <zul/mrepl.h>

#include <algorithm>

#include "base/fd.h"
#include "base/log.h"
#include "base/pause.h"
#include "base/process.h"
#include "base/site.h"
#include "base/text.h"
#include "mrepl/repair.h"
#include "mrepl/run.h"

namespace {

constexpr int kAllCategories = 1911;
constexpr int kFirstWait = 48;
constexpr int kBatch = 32;
constexpr size_t kLongestDatagram = 65536;  // sound: of many segments in one piece
constexpr int kIdleMs = 300000;
constexpr int kSlowAfterMs = 1000;
constexpr int kLingerMs = 2000;  // sound: the longest farewell
constexpr int kSilenceMs = 100;  // sound: the sender has stopped
constexpr int kGatherMs = 1;     // sound: datagrams are left to gather for so long
constexpr int kReceiveBytes = 16 << 20;
constexpr int64_t kLookMicros = 100000;  // at the extracter, at least so often

struct Getting {
  int sd;
  int requestSd;
  sockaddr_in *sender;  // without an address until it is known
  mrecvctrl *ctrl;
  mslot *ring;
  int missing;       // classic: the gap that processNewSeg told of
  int64_t waited;    // for a datagram, microseconds
  uint32_t control;  // sound: of the run that was joined; 0 before
  bool joined;
  long long takenMs;   // when a segment of the run was taken in last
  pid_t extracterPid;  // 0 when it is not our child, -1 when it has ended
  mrepl::Repair repair;
};

Getting getting;

// --- who sends ---

// Where requests go: the site's value, the file of its own, or whoever asked for this receiver.
uint32_t knownSender() {
  uint32_t address = mrepl::addressOf(base::siteValue("multicast.sender"));
  if (address != 0) return address;
  base::File file(fopen(base::HomePath("etc/mreplsender"), "re"));
  char line[64] = "";
  if (file && fgets(line, sizeof line, file.get())) {
    line[strcspn(line, " \t\r\n")] = '\0';
    address = mrepl::addressOf(line);
  }
  if (address != 0) return address;
  sockaddr_in peer{};
  socklen_t length = sizeof peer;
  if (getpeername(0, reinterpret_cast<sockaddr *>(&peer), &length) != 0) return 0;
  return peer.sin_family == AF_INET ? peer.sin_addr.s_addr : 0;
}

// Anybody on the network can send to the group: only the sender's datagrams count on a site that
// looks after that.
bool isSender(const sockaddr_in &from) {
  if (getting.sender->sin_addr.s_addr == 0) getting.sender->sin_addr = from.sin_addr;
  return !base::sound(base::Area::security) ||
         from.sin_addr.s_addr == getting.sender->sin_addr.s_addr;
}

// A sound receiver belongs to one run: the numbers of another one mean other files.
bool isOurRun(const mseg &datagram) {
  if (!mrepl::soundRun()) return true;
  uint32_t control = unpackul(&datagram.control) & (mrepl::kRunMask | mrepl::kReports);
  if (!getting.joined) {
    getting.joined = true;
    getting.control = control;
    getting.repair.setRun(control);
  }
  return control == getting.control;
}

// --- one batch of datagrams ---

// 0, or the negative result that ends the getter.
int takeOne(mseg *datagram, size_t length, const sockaddr_in &from) {
  if (length != sizeof(mseg)) {
    if (dlvl > 4)
      base::print(fplog, "DEBUG:  Receive error: n=%i, errno=%i\n", static_cast<int>(length),
                  errno);
    return 0;
  }
  if (memcmp(datagram->magic, "PaCk", 4) != 0 || !isSender(from) || !isOurRun(*datagram)) return 0;
  getting.takenMs = base::nowMs();
  int missing =
      processNewSeg(getting.requestSd, getting.sender, getting.ctrl, getting.ring, datagram);
  if (missing < 0) return missing;
  getting.missing = missing;
  return 0;
}

// The length of the datagrams in what was received in one piece; 0 when it is one datagram.
size_t pieceLength(msghdr *message) {
  for (cmsghdr *each = CMSG_FIRSTHDR(message); each; each = CMSG_NXTHDR(message, each)) {
    if (each->cmsg_level != SOL_UDP || each->cmsg_type != UDP_GRO) continue;
    int length;
    memcpy(&length, CMSG_DATA(each), sizeof length);
    return length > 0 ? static_cast<size_t>(length) : 0;
  }
  return 0;
}

// One datagram, or several of the same length in one piece.
int takeMessage(char *bytes, mmsghdr *message, const sockaddr_in &from) {
  size_t length = message->msg_len;
  size_t piece = pieceLength(&message->msg_hdr);
  if (piece == 0) return takeOne(reinterpret_cast<mseg *>(bytes), length, from);
  // Others are none of ours, nor would they lie where a segment can be read.
  if (piece != sizeof(mseg)) return 0;
  int result = 0;
  for (size_t at = 0; at < length && result == 0; at += piece)
    result = takeOne(reinterpret_cast<mseg *>(bytes + at),
                     length - at < piece ? length - at : piece, from);
  return result;
}

// Datagrams that have arrived, at most kBatch calls' worth. How many of these, or the negative
// result that ends the getter.
int takeBatch() {
  static struct {
    alignas(mseg) char bytes[kLongestDatagram];
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
  } received[kBatch];
  static sockaddr_in from[kBatch];
  mmsghdr messages[kBatch]{};
  iovec parts[kBatch];
  // One byte more than a segment has, to tell a longer datagram from it.
  size_t room = mrepl::soundRun() ? sizeof received[0].bytes : sizeof(mseg) + 1;
  for (int at = 0; at < kBatch; at++) {
    parts[at] = {received[at].bytes, room};
    messages[at].msg_hdr.msg_iov = &parts[at];
    messages[at].msg_hdr.msg_iovlen = 1;
    messages[at].msg_hdr.msg_name = &from[at];
    messages[at].msg_hdr.msg_namelen = sizeof from[at];
    messages[at].msg_hdr.msg_control = received[at].control;
    messages[at].msg_hdr.msg_controllen = sizeof received[at].control;
  }
  int count = recvmmsg(getting.sd, messages, kBatch, MSG_DONTWAIT, nullptr);
  if (count < 0) {
    if (errno != EAGAIN && errno != EINTR)
      base::print(fplog, "ERROR:  Recvfrom error.  errno=%i\n", errno);
    return 0;
  }
  uint32_t before = base::loadWord(getting.ctrl->contiguousLow);
  int result = 0;
  for (int at = 0; at < count && result == 0; at++)
    result = takeMessage(received[at].bytes, &messages[at], from[at]);
  if (base::loadWord(getting.ctrl->contiguousLow) != before)
    base::wakeWord(&getting.ctrl->contiguousLow);
  return result < 0 ? result : count;
}

// --- between batches ---

// Nothing came for the sender's wait time: what is missing is asked for once more.
void askOnceMore() {
  if (getting.missing <= 0) return;
  const mrecvctrl &ctrl = *getting.ctrl;
  mrepl::Number first = mrepl::contiguousOf(ctrl) + 1;
  if (mrepl::debugging())
    base::print(fplog, "DEBUG:  *+* Requesting missing %i:%i, num=%i\n", mrepl::highOf(first),
                mrepl::lowOf(first), getting.missing);
  if (reqresend(ctrl.lastSendTime, mrepl::highOf(first), mrepl::lowOf(first),
                static_cast<uint32_t>(getting.missing), getting.requestSd, getting.sender) != 0 &&
      mrepl::debugging())
    base::print(fplog, "DEBUG:  Sendto error errno=%i\n", errno);
  mrepl::sleepMicros(40);
}

// The sender answers a request for what it no longer has.
bool refused() {
  mreq answer;
  sockaddr_in from;
  socklen_t length = sizeof from;
  ssize_t n = recvfrom(getting.requestSd, &answer, sizeof answer, MSG_DONTWAIT | MSG_TRUNC,
                       reinterpret_cast<sockaddr *>(&from), &length);
  if (n != sizeof answer || from.sin_addr.s_addr != getting.sender->sin_addr.s_addr) return false;
  uint32_t run = getting.control & mrepl::kRunMask;
  if (run == 0 || unpackul(&answer.sendTime) != run) return false;
  mrepl::Number kept = mrepl::joined(unpackul(&answer.high), unpackul(&answer.low));
  return mrepl::contiguousOf(*getting.ctrl) + 1 < kept;
}

// A run that nobody sends any more would be waited for until somebody kills this process, and the
// next run would find two receivers here.
bool mustGiveUp(long long now) {
  if (now - getting.takenMs > base::siteLength("multicast.idle-limit", kIdleMs)) {
    base::print(fplog, "NOTICE:  Nothing was received for %lli seconds: the run is given up\n",
                (now - getting.takenMs) / 1000);
    return true;
  }
  if (refused()) {
    base::print(fplog, "NOTICE:  The sender no longer has what is missing here: given up\n");
    return true;
  }
  return false;
}

bool extracterGone() {
  int status;
  if (getting.extracterPid > 0 &&
      base::reapNow(getting.extracterPid, &status) == getting.extracterPid)
    getting.extracterPid = -1;
  return getting.extracterPid < 0;
}

// False when the getter has to end.
bool keepRound() {
  long long now = base::nowMs();
  if (extracterGone()) {
    // It says itself when it has reached the end of the run; killed, it could not.
    bool ended = base::loadWord(getting.ctrl->extracterState) == mrepl::kEnded;
    base::storeWord(getting.ctrl->extracterState, mrepl::kEnded);
    return ended;
  }
  if (!mrepl::soundRun()) return true;
  if (mustGiveUp(now)) return false;
  getting.repair.slowDown(now - getting.takenMs > kSlowAfterMs);
  getting.repair.round(*getting.ctrl, getting.ring, now);
  return true;
}

int64_t receiveTimeout() {
  if (mrepl::soundRun()) return mrepl::kRoundMs * 1000;
  int64_t wait = __atomic_load_n(&getting.ctrl->waitTime, __ATOMIC_ACQUIRE);
  return mrepl::boundedWait(wait);
}

int getOnce() {
  int64_t wait = receiveTimeout();
  // In pieces, because the sender may name minutes, and the extracter may end meanwhile.
  int64_t part = std::clamp<int64_t>(wait - getting.waited, 0, kLookMicros);
  timespec limit{0, part * 1000};
  pollfd ready{getting.sd, POLLIN, 0};
  int count = ppoll(&ready, 1, &limit, nullptr);
  if (count < 0 && errno != EINTR && mrepl::debugging())
    base::print(fplog, "DEBUG:  Select error: errno=%i\n", errno);
  if (count > 0) {
    getting.waited = 0;
    int taken = takeBatch();
    // Woken for each datagram, receivers spend more on waking than on what they take. The socket
    // has room for what comes meanwhile.
    if (taken >= 0 && taken < kBatch && mrepl::soundRun()) base::sleepMs(kGatherMs);
    return taken;
  }
  if (count != 0) return 0;
  getting.waited += part;
  if (getting.waited < wait) return 0;
  getting.waited = 0;
  if (!mrepl::soundRun()) askOnceMore();
  return 0;
}

// The sender waits for every receiver to say that it has everything, and repeats the end until it
// has heard it.
void sayFarewell() {
  if ((getting.control & mrepl::kReports) == 0) return;
  mrepl::Number end = mrepl::contiguousOf(*getting.ctrl) + 1;
  long long since = base::nowMs();
  for (long long heard = since;
       base::nowMs() - since < kLingerMs && base::nowMs() - heard < kSilenceMs;) {
    getting.repair.reportEnd(*getting.ctrl, end);
    base::sleepMs(mrepl::kRoundMs);
    long long before = getting.takenMs;
    takeBatch();
    if (getting.takenMs != before) heard = base::nowMs();
  }
}

void initialise(mrecvctrl *ctrl) {
  mrepl::storeNumber(ctrl->receivedHigh, ctrl->receivedLow, 0);
  mrepl::storeNumber(ctrl->contiguousHigh, ctrl->contiguousLow, 0);
  mrepl::storeNumber(ctrl->extractToHigh, ctrl->extractToLow, 0);
  ctrl->waitTime = kFirstWait;
  ctrl->lastSendTime = 0;
  ctrl->ringWord = 16384;
  base::storeWord(ctrl->getterState, mrepl::kRunning);
}

// --- start ---

// What the sender may send before it hears from us fits into the socket, so that a receiver that
// was stopped for a while finds it there.
void enlarge(int sd) {
  if (!mrepl::soundRun()) return;
  if (setsockopt(sd, SOL_SOCKET, SO_RCVBUFFORCE, &kReceiveBytes, sizeof kReceiveBytes) != 0)
    setsockopt(sd, SOL_SOCKET, SO_RCVBUF, &kReceiveBytes, sizeof kReceiveBytes);
  // What the sender hands over in one piece may arrive so; a kernel that knows nothing of that
  // cuts it.
  constexpr int kOn = 1;
  setsockopt(sd, SOL_UDP, UDP_GRO, &kOn, sizeof kOn);
}

pid_t startExtracter(mrecvctrl *ctrl) {
  pid_t pid = base::forkFlushed();
  if (pid < 0) {
    base::storeWord(ctrl->getterState, mrepl::kEnded);
    base::storeWord(ctrl->extracterState, mrepl::kEnded);
  }
  if (pid != 0) return pid;
  base::print(fplog, "INFO:  Starting the extracter\n");
  extracter();
  base::storeWord(ctrl->extracterState, mrepl::kEnded);
  base::endProcess(0);
}

void receive(int sd, sockaddr_in *group, int requestSd, sockaddr_in *sender) {
  auto *ctrl = static_cast<mrecvctrl *>(getCtrlPtr(shmid));
  getting.extracterPid = startExtracter(ctrl);
  if (getting.extracterPid < 0) return;
  base::print(fplog, "INFO:  Starting the getter\n");
  getter(sd, group, requestSd, sender);
  base::storeWord(ctrl->getterState, mrepl::kEnded);
  base::wakeWord(&ctrl->contiguousLow);
  // It puts together what is there and leaves.
  int status;
  if (getting.extracterPid > 0) waitpid(getting.extracterPid, &status, 0);
}

}  // namespace

int getter(int mcastSd, struct sockaddr_in *, int reqSd, struct sockaddr_in *senderAddr) {
  pid_t child = getting.extracterPid;
  getting = Getting{};
  getting.extracterPid = child;
  getting.sd = mcastSd;
  getting.requestSd = reqSd;
  getting.sender = senderAddr;
  getting.ctrl = static_cast<mrecvctrl *>(getCtrlPtr(shmid));
  getting.ring = getDataPtr(shmid);
  getting.takenMs = base::nowMs();
  getting.repair.begin(reqSd, senderAddr);
  mrecvctrl *ctrl = getting.ctrl;
  if (!ctrl || !getting.ring) return -1;
  initialise(ctrl);
  while (base::loadWord(ctrl->extracterState) == 0 && !extracterGone()) mrepl::sleepMicros(100);
  if (base::loadWord(ctrl->extracterState) != mrepl::kRunning) {
    base::storeWord(ctrl->getterState, mrepl::kEnded);
    return -1;
  }
  if (mrepl::debugging()) base::print(fplog, "DEBUG:  Getter running!\n");
  while (base::loadWord(ctrl->extracterState) == mrepl::kRunning) {
    if (getOnce() < 0 || !keepRound()) return -1;
  }
  sayFarewell();
  return 0;
}

int repClientStart(void) {
  base::defaultSigchld();
  base::ignoreSigpipe();
  if (!mrepl::soundRun()) dlvl = kAllCategories;
  openLog(0);
  mrepl::forgetArea();
  shmid = mkShMem(MR_RECV_AREA);
  void *area = shmid < 0 ? nullptr : getCtrlPtr(shmid);
  if (!area || !getDataPtr(shmid)) {
    base::print(fplog, "ERROR: Failed to allocate shared memory buffer.  errno = %i\n", errno);
    // One that could not be attached would outlive every process.
    if (shmid >= 0) rmShMem(shmid);
    mrepl::forgetArea();
    return shmid < 0 ? shmid : -1;
  }
  memset(area, 0, MR_RECV_AREA);
  // Attached as it is, the area goes with its last process, even if all of them are killed.
  if (mrepl::soundRun()) rmShMem(shmid);
  if (mrepl::debugging())
    base::print(fplog, "DEBUG:  Allocated %li bytes\n", static_cast<long>(MR_RECV_AREA));
  sockaddr_in group, sender;
  char groupText[] = MR_GROUP;
  base::Fd segments(mkMulticListener(MR_DATA_PORT, groupText, &group));
  if (!segments) {
    base::print(fplog, "ERROR: Failed to get listener socket. retval = %i, errno = %i\n",
                segments.get(), errno);
    rmShMem(shmid);
    return -2;
  }
  enlarge(segments.get());
  char senderText[INET_ADDRSTRLEN];
  in_addr known{knownSender()};
  inet_ntop(AF_INET, &known, senderText, sizeof senderText);
  base::Fd requests(mkUDPSenderSocket(MR_REQ_PORT, senderText, &sender));
  if (!requests) {
    base::print(fplog, "ERROR: Failed to get sender socket. retval = %i, errno = %i\n",
                requests.get(), errno);
    rmShMem(shmid);
    return -3;
  }
  base::print(stderr, "TRANSFER OK\n");
  receive(segments.get(), &group, requests.get(), &sender);
  rmShMem(shmid);
  mrepl::forgetArea();
  return 0;
}
