// The sending host of a multicast run: repServStart, called for "replicate", forks the packer and
// is itself the data sender until the run is over.
#include <errno.h>
#include <netinet/in.h>
#include <poll.h>
#include <string.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zul/host.h>
#include <zul/module.h>
#include <zul/mrepl.h>

#include "base/fd.h"
#include "base/log.h"
#include "base/pause.h"
#include "base/process.h"
#include "mrepl/addresses.h"
#include "mrepl/packing.h"
#include "mrepl/sending.h"
#include "mrepl/sent.h"

using mrepl::sending;

namespace {

constexpr int kAllCategories = 1911;
constexpr int kDrainPasses = 1024;
constexpr int kLookUpMs = 10000;        // sound: the name of a host
constexpr int kDrainMs = 60000;         // sound: the longest drain
constexpr int kQuietMs = 2000;          // sound: nobody has asked for so long
constexpr int kHeartbeatMicros = 5000;  // sound: how often the last segment is repeated

// What the loop keeps from one pass to the next.
struct Pass {
  mrepl::Moment previous;  // of the last transmission
  int drainPasses;
  long long drainSinceMs;  // 0: not draining
  long long lookedMs;      // at the packer and the receivers
  long long refusedMs;     // sound: since when the network has taken nothing; 0: it does
};

int64_t microsOf(const mrepl::Moment &moment) {
  return moment.seconds * 1000000 + moment.micros;
}

// --- start and end ---

void prepareArea(msendctrl *ctrl, mslot *ring) {
  memset(ctrl, 0, sizeof *ctrl);
  timeval now;
  gettimeofday(&now, nullptr);
  // Full seconds here, seconds modulo 256 later: it only affects slots that were never sent.
  auto stamp = static_cast<uint32_t>(static_cast<uint64_t>(now.tv_sec) * 1000000 +
                                     static_cast<uint64_t>(now.tv_usec));
  for (int at = 0; at < MR_SEND_SLOTS; at++) {
    memset(static_cast<void *>(&ring[at]), 0, offsetof(mslot, seg) + offsetof(mseg, payload));
    packul(&ring[at].seg.sendTime, stamp);
  }
}

void initialise(msendctrl *ctrl) {
  mrepl::storeNumber(ctrl->lastSentHigh, ctrl->lastSentLow, 0);
  ctrl->segmentSize = MR_PAYLOAD;
  ctrl->ringSlots = MR_SEND_SLOTS;
  mrepl::storeNumber(ctrl->freeTillHigh, ctrl->freeTillLow, 0);
  ctrl->waitTime = 50;
  // An operator who sets a speed means all of the run, not only what comes after a loss.
  if (mrepl::soundRun() && getMinWait(0) > 0) ctrl->waitTime = getMinWait(0);
  ctrl->lastRtt = 1000000;
  ctrl->smoothedRtt = 200;
  ctrl->maxRtt = 0;
  base::storeWord(ctrl->senderState, mrepl::kRunning);
}

// Whether our child is gone; a packer that is none of ours never is.
bool packerGone() {
  int status;
  if (sending.packer > 0 && base::reapNow(sending.packer, &status) == sending.packer)
    sending.packer = -1;
  return sending.packer < 0;
}

// Without the end records, which only the packer can lay down, neither side would ever end.
void standInForPacker() {
  if (mrepl::freeSlots(sending.ctrl) < 2) return;
  base::print(fplog, "ERROR:  The packer has died: not all files are sent\n");
  mrepl::placeEndRecords(sending.ctrl, sending.ring);
  base::storeWord(sending.ctrl->packerState, mrepl::kEnded);
}

bool packerStarted() {
  msendctrl *ctrl = sending.ctrl;
  while (base::loadWord(ctrl->packerState) == 0 && !packerGone()) mrepl::sleepMicros(100);
  if (base::loadWord(ctrl->packerState) == mrepl::kRunning) return true;
  // A packer that does not pause may have packed a small job by now.
  return mrepl::soundRun() && mrepl::filledOf(*ctrl) != 0;
}

// --- the end of the run ---

// Installed senders count passes, whatever the receivers' state, and repeat the end for about a
// tenth of a second: whoever lacks more by then never completes.
bool drainedClassic(Pass *pass) {
  const msendctrl &ctrl = *sending.ctrl;
  if (mrepl::debugging())
    base::print(fplog, "DEBUG:  Shutdown?  filled=%i:%i, lastSent=%i:%i, shutdownFlag=%i\n",
                ctrl.filledHigh, ctrl.filledLow, ctrl.lastSentHigh, ctrl.lastSentLow,
                pass->drainPasses);
  return ++pass->drainPasses >= kDrainPasses;
}

bool drainedSound(Pass *pass) {
  long long now = base::nowMs();
  if (pass->drainSinceMs == 0) pass->drainSinceMs = now;
  sending.receivers.ended(mrepl::filledOf(*sending.ctrl));
  if (now - pass->drainSinceMs > base::siteLength("multicast.drain", kDrainMs)) return true;
  if (sending.receivers.waiting()) return false;
  // Who does not report can only be waited for in silence.
  if (sending.receivers.count() > 0 && sending.strangerMs == 0) return true;
  long long quietSince =
      sending.strangerMs > pass->drainSinceMs ? sending.strangerMs : pass->drainSinceMs;
  return now - quietSince > kQuietMs;
}

bool draining() {
  const msendctrl &ctrl = *sending.ctrl;
  if (base::loadWord(ctrl.packerState) == mrepl::kRunning) return false;
  // The slot behind the last one is sent by installed senders only.
  mrepl::Number ahead = mrepl::soundRun() ? 1 : 0;
  return mrepl::filledOf(ctrl) == mrepl::lastSentOf(ctrl) + ahead;
}

// A network that is gone for good would keep the run, and its receivers, for ever.
bool networkIsGone(const Pass &pass) {
  if (pass.refusedMs == 0) return false;
  int longest = base::siteLength("multicast.drain", kDrainMs);
  if (base::nowMs() - pass.refusedMs <= longest) return false;
  base::print(fplog, "ERROR:  Nothing could be sent for %i seconds: the run is given up\n",
              longest / 1000);
  return true;
}

bool runIsOver(Pass *pass) {
  if (networkIsGone(*pass)) return true;
  if (!draining()) return false;
  return mrepl::soundRun() ? drainedSound(pass) : drainedClassic(pass);
}

// --- one pass ---

mrepl::Moment waitForTurn(const Pass &pass, mrepl::Moment now) {
  int64_t wait = sending.ctrl->waitTime;
  int64_t elapsed = now.micros - pass.previous.micros;
  if (now.seconds != pass.previous.seconds) elapsed += 1000000;
  if (wait <= elapsed) return now;
  mrepl::sleepMicros(wait - elapsed);
  return mrepl::momentNow();
}

void look(Pass *pass) {
  long long now = base::nowMs();
  if (now == pass->lookedMs) return;
  pass->lookedMs = now;
  sending.receivers.giveUp(now);
  mrepl::sent.look(sending.receivers, now);
  if (packerGone() && base::loadWord(sending.ctrl->packerState) == mrepl::kRunning)
    standInForPacker();
}

void sendOne(Pass *pass) {
  msendctrl *ctrl = sending.ctrl;
  mrepl::Moment now = mrepl::momentNow();
  mrepl::Number lastSent = mrepl::lastSentOf(*ctrl);
  // The slot of the last segment is not searched: it may not be filled yet.
  mrepl::Number last = lastSent - (lastSent > 0 ? 1 : 0);
  mrepl::Number wanted = sending.wanted.next(sending.ring, mrepl::freeTillOf(*ctrl) + 1, last);
  bool found = wanted <= last && lastSent > 0;
  bool ending = draining();
  if (!ending) mrepl::expire(sending.ring, ctrl, found ? wanted : lastSent, now.wire());
  now = waitForTurn(*pass, now);
  if (found) base::print(fplog, "DEBUG:  Resending seg=%i\n", mrepl::lowOf(wanted));
  uint32_t choice = mrepl::lowOf(found ? wanted : ending ? lastSent - 1 : lastSent);
  timeval moment{now.seconds, now.micros};
  int result = sendData(sending.ring, ctrl, sending.to, sending.sd, choice, &moment);
  // The flag of a segment that was sent is gone; one that failed is tried again.
  if (result == 0 && found) sending.wanted.done(wanted);
  pass->previous = now;
}

// --- one pass of a sound run: as many segments as may go now, in one call ---

// Sends what was gathered; how much of it went out. A network that takes nothing is asked again
// soon, not at once; the log hears of it once.
int sendGathered(Pass *pass) {
  int went = sending.burst.send(sending.sd, *sending.to);
  if (went > 0) {
    pass->refusedMs = 0;
    return went;
  }
  if (pass->refusedMs == 0) {
    base::print(fplog, "NOTICE: Failed to send segment. errno = %i\n", errno);
    pass->refusedMs = base::nowMs();
  }
  base::sleepMs(1);
  return 0;
}

// Nothing to send, or the receivers are not ready for more: they are reminded of the last segment,
// by which they notice what they lack, and listened to.
void rest(Pass *pass, const mrepl::Moment &now) {
  msendctrl *ctrl = sending.ctrl;
  mrepl::Number last = mrepl::lastSentOf(*ctrl);
  mrepl::expire(sending.ring, ctrl, last, now.wire());
  if (microsOf(now) - microsOf(pass->previous) >= kHeartbeatMicros) {
    if (last > 0) {
      mslot &slot = mrepl::sendSlot(sending.ring, last);
      mrepl::prepareAgain(slot, *ctrl, now);
      sending.burst.add(&slot);
      sendGathered(pass);
    }
    pass->previous = now;
  }
  pollfd ready{sending.requestSd, POLLIN, 0};
  poll(&ready, 1, 1);
}

// Slots to be sent again, oldest first.
void gatherAgain(int most, const mrepl::Moment &now) {
  mrepl::Burst &burst = sending.burst;
  mrepl::Number lastSent = mrepl::lastSentOf(*sending.ctrl);
  mrepl::Number wanted = mrepl::freeTillOf(*sending.ctrl);
  while (burst.count() < most) {
    wanted = sending.wanted.next(sending.ring, wanted + 1, lastSent);
    if (wanted > lastSent) return;
    if (mrepl::debugging()) base::print(fplog, "DEBUG:  Resending seg=%i\n", mrepl::lowOf(wanted));
    mslot &slot = mrepl::sendSlot(sending.ring, wanted);
    mrepl::prepareAgain(slot, *sending.ctrl, now);
    burst.add(&slot);
  }
}

// What was asked for, then new segments. Returns how many of them are new.
int gather(int most, const mrepl::Moment &now) {
  const msendctrl &ctrl = *sending.ctrl;
  mrepl::Burst &burst = sending.burst;
  mrepl::Number next = mrepl::lastSentOf(ctrl) + 1;
  mrepl::Number ready = mrepl::readyTill(ctrl);
  burst.clear();
  // A quarter is kept for new ones: a host that asks for everything all the time must not stop the
  // run.
  gatherAgain(next < ready ? most - most / 4 : most, now);
  int again = burst.count();
  for (; burst.count() < most && next < ready; next++) {
    mslot &slot = mrepl::sendSlot(sending.ring, next);
    mrepl::prepareNew(slot, ctrl, next, now);
    burst.add(&slot);
  }
  return burst.count() - again;
}

// What did not go out keeps its flag, or stays the next new one.
void account(int went, int fresh) {
  msendctrl *ctrl = sending.ctrl;
  int again = sending.burst.count() - fresh;
  for (int at = 0; at < went && at < again; at++) {
    mslot &slot = sending.burst.at(at);
    slot.flag = slot.state = 0;
    sending.wanted.done(mrepl::joined(slot.high, slot.low));
  }
  if (went > again)
    mrepl::storeNumber(ctrl->lastSentHigh, ctrl->lastSentLow,
                       mrepl::lastSentOf(*ctrl) + static_cast<mrepl::Number>(went - again));
}

void sendBurst(Pass *pass) {
  msendctrl *ctrl = sending.ctrl;
  mrepl::Moment now = mrepl::momentNow();
  mrepl::Pace &pace = sending.pace;
  bool strangers = sending.strangerMs != 0 && pass->lookedMs - sending.strangerMs < kQuietMs;
  bool reporting = sending.receivers.waiting() && !strangers;
  pace.adapt(&sending.receivers, microsOf(now));
  pace.guess(reporting, ctrl->waitTime);
  int64_t ahead = pace.ahead(microsOf(now));
  if (ahead > 0) {
    mrepl::sleepMicros(ahead);
    return;
  }
  int fresh = gather(pace.allowance(microsOf(now), mrepl::Burst::kMost), now);
  if (sending.burst.count() == 0) return rest(pass, now);
  int went = sendGathered(pass);
  account(went, fresh);
  pace.sent(microsOf(now), went);
  mrepl::Number last = mrepl::lastSentOf(*ctrl);
  mrepl::Number asked = sending.wanted.next(sending.ring, mrepl::freeTillOf(*ctrl) + 1, last);
  if (!draining()) mrepl::expire(sending.ring, ctrl, asked < last ? asked : last, now.wire());
  pass->previous = now;
}

// --- the hosts of the job ---

void expectHosts(const MreplJobData *job) {
  sending.receivers.begin();
  sending.strangerMs = 0;
  if (!mrepl::soundRun()) return;
  static uint32_t addresses[mrepl::Receivers::kMost];
  int count = mrepl::lookUpAll(&job->hostList, addresses, mrepl::Receivers::kMost, kLookUpMs);
  int at = 0, beyond = 0;
  for (const strNode *node = &job->hostList; node; node = node->next) {
    if (!node->text || node->text[0] == '\0') continue;
    if (at == count) {
      beyond++;
      continue;
    }
    uint32_t address = addresses[at++];
    if (address == 0) base::print(fplog, "WARNING:  Receiver %s: unknown host\n", node->text);
    sending.receivers.expect(node->text, address, base::nowMs());
  }
  if (beyond > 0)
    base::printBoth("WARNING:  Only %i receivers are followed: nobody will know of the other %i\n",
                    mrepl::Receivers::kMost, beyond);
}

void chooseRunWord() {
  mrepl::runWord = 0;
  if (!mrepl::soundRun()) return;
  uint16_t run = 0;
  while (run == 0 && getrandom(&run, sizeof run, 0) >= 0) {
  }
  mrepl::runWord = mrepl::kReports | static_cast<uint32_t>(run == 0 ? 1 : run) << 16;
}

void tellOutcome() {
  static constexpr const char *kStates[] = {"never joined", "incomplete", "complete", ""};
  for (int at = 0; at < sending.receivers.count(); at++) {
    const mrepl::Receiver &each = sending.receivers.at(at);
    const char *text = kStates[static_cast<int>(each.state)];
    if (each.state == mrepl::ReceiverState::lost)
      text = each.joined ? "incomplete" : "never joined";
    base::print(fplog, "INFO:  Receiver %s: %s\n", each.name, text);
    base::print(stderr, "INFO:  Receiver %s: %s\n", each.name, text);
  }
}

int startPacker(MreplJobData *job, msendctrl *ctrl) {
  pid_t pid = base::forkFlushed();
  if (pid < 0) {
    base::storeWord(ctrl->senderState, mrepl::kEnded);
    base::storeWord(ctrl->packerState, mrepl::kEnded);
    return -1;
  }
  if (pid > 0) return pid;
  dataPacker(job);
  rmShMem(shmid);
  base::endProcess(0);
}

}  // namespace

int dataSender(struct sockaddr_in *to, int dataSd, struct sockaddr_in *, int reqSd) {
  auto *ctrl = static_cast<msendctrl *>(getCtrlPtr(shmid));
  mslot *ring = getDataPtr(shmid);
  if (!ctrl || !ring) return -1;
  sending.ctrl = ctrl;
  sending.ring = ring;
  sending.to = to;
  sending.sd = dataSd;
  sending.requestSd = reqSd;
  sending.wanted.clear();
  sending.pace.begin(getMinWait(0) > 0 ? getMinWait(0) : 0);
  initialise(ctrl);
  if (!packerStarted()) {
    base::storeWord(ctrl->senderState, mrepl::kEnded);
    return -1;
  }
  if (!base::sound(base::Area::pace)) mrepl::sleepMicros(10000);
  for (Pass pass{}; !runIsOver(&pass);) {
    mrepl::takeRequests();
    look(&pass);
    // Installed senders send one segment at a time, whatever the receivers say.
    mrepl::soundRun() ? sendBurst(&pass) : sendOne(&pass);
  }
  base::storeWord(ctrl->senderState, mrepl::kEnded);
  return 0;
}

int repServStart(MreplJobData *job) {
  base::defaultSigchld();
  base::ignoreSigpipe();
  if (!mrepl::soundRun()) dlvl = kAllCategories;
  openLog(1);
  mrepl::forgetArea();
  shmid = mkShMem(MR_SEND_AREA);
  auto *ctrl = shmid < 0 ? nullptr : static_cast<msendctrl *>(getCtrlPtr(shmid));
  mslot *ring = ctrl ? getDataPtr(shmid) : nullptr;
  if (!ring) {
    base::print(stderr, "ERROR: Failed to allocate shared memory buffer.  errno = %i\n", errno);
    // One that could not be attached would outlive every process.
    if (shmid >= 0) rmShMem(shmid);
    mrepl::forgetArea();
    return shmid < 0 ? shmid : -1;
  }
  prepareArea(ctrl, ring);
  // Attached as it is, the area goes with its last process, even if all of them are killed.
  if (mrepl::soundRun()) rmShMem(shmid);
  sockaddr_in requestAddress, group;
  char groupText[] = MR_GROUP;
  base::Fd requests(mkUDPListenerSocket(MR_REQ_PORT, &requestAddress));
  if (!requests) {
    base::print(stderr, "ERROR: Failed to get listener socket. retval = %i, errno = %i\n",
                requests.get(), errno);
    rmShMem(shmid);
    return -2;
  }
  base::Fd data(mkUDPSenderSocket(MR_DATA_PORT, groupText, &group));
  if (!data) {
    base::print(stderr, "ERROR: Failed to get sender socket. retval = %i, errno = %i\n", data.get(),
                errno);
    rmShMem(shmid);
    return -3;
  }
  getMinWait(job->speed);
  chooseRunWord();
  expectHosts(job);
  sending.packer = startPacker(job, ctrl);
  if (sending.packer > 0) dataSender(&group, data.get(), &requestAddress, requests.get());
  rmShMem(shmid);
  mrepl::forgetArea();
  tellOutcome();
  return 0;
}
