// The loop and the stages of a fan-out, in the process of the request that asked for it.
//
// A host costs only itself: connections are made without blocking, lines are put together from
// whatever has arrived, and all waiting is one poll over all hosts. The look-up of a name and the
// login, which is the host process's own, do block, for some seconds where a name service or an
// agent hangs. Sound sites (pace) therefore do both in short-lived processes, one a host; classic
// ones do them in the loop, as they always did.
#include "fanout/crowd.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>
#include <zul/host.h>
#include <zul/net.h>

#include "base/log.h"
#include "base/pause.h"
#include "base/site.h"
#include "base/text.h"
#include "fanout/apart.h"

namespace fanout {

Limits limits = {10000, 30000, 16 << 20};

namespace {

constexpr int kLineMost = 1022;
constexpr int kReadsAtOnce = 16;  // so that one talkative host does not keep the others waiting
constexpr int kAnswerSeconds = 300;
constexpr const char *kEndLine = "ZuL_DoNe.";
constexpr const char *kPrompt = "ZuL>";

bool begins(const char *line, const char *with) {
  return strncmp(line, with, strlen(with)) == 0;
}

// Where the end-of-command line begins: at the start of a line, or behind a last line of the
// command that had no line feed. Null when there is none.
char *findEndLine(char *line, bool atLineStart) {
  if (atLineStart && begins(line, kEndLine)) return line;
  char *found = nullptr;
  for (char *at = line; (at = strstr(at, kEndLine)) != nullptr; at++) found = at;
  if (!found) return nullptr;
  const char *rest = found + strlen(kEndLine);
  size_t digits = *rest == ' ' ? strspn(rest + 1, "0123456789") : 0;
  return digits > 0 && strcmp(rest + 1 + digits, "\n") == 0 ? found : nullptr;
}

}  // namespace

// What the loop knows about a host beside its entry.
struct Crowd::Member {
  long long begunMs, heardMs;  // connection begun; last sign of life
  Helper helper;               // looks up its name, or logs in
  short ready;                 // of the last poll
  bool midLine;                // the next byte goes on with a line that came in pieces
  int ended;                   // commands that have ended
  int status;                  // of the first that failed
  long heard;                  // bytes
  int fill;                    // of line
  char line[kLineMost + 2];
};

int answerLimitSeconds() {
  return base::siteSeconds("fanout.answer-limit", kAnswerSeconds);
}

Crowd::Crowd(Audience &audience, char **commands, int answerMs)
    : audience_(audience),
      commands_(commands),
      answerMs_(answerMs),
      apart_(base::sound(base::Area::pace)) {
  while (commands[commandCount_]) commandCount_++;
}

Crowd::~Crowd() {
  free(entries_);
  free(members_);
  free(block_);
}

Crowd::Ready Crowd::gather(const strNode *hosts) {
  for (const strNode *node = hosts; node; node = node->next)
    if (node->text) count_++;
  if (count_ == 0) return Ready::yes;
  entries_ = static_cast<hostEntry *>(calloc(static_cast<size_t>(count_), sizeof *entries_));
  members_ = static_cast<Member *>(calloc(static_cast<size_t>(count_), sizeof *members_));
  if (!entries_ || !members_) return Ready::noEntries;
  block_ = static_cast<char *>(calloc(kAtOnce, kBufferBytes));
  if (!block_) return Ready::noBuffers;
  int index = 0;
  for (const strNode *node = hosts; node; node = node->next) {
    if (!node->text) continue;
    entries_[index].host = node->text;
    entries_[index].sd = -1;
    if (index < kAtOnce) entries_[index].buf = block_ + index * kBufferBytes;
    index++;
  }
  return Ready::yes;
}

void Crowd::run() {
  while (done_ < count_) {
    startWaiting();
    waitForAny();
    for (int index = 0; index < count_; index++)
      if (inFlight(index)) advance(index);
  }
}

bool Crowd::inFlight(int index) const {
  uint32_t state = entries_[index].state;
  return (state & kConnecting) != 0 && (state & (kDone | kFailed)) == 0;
}

void Crowd::startWaiting() {
  for (int index = 0; index < count_ && inFlight_ < kAtOnce; index++)
    if (entries_[index].state == 0) start(index);
}

void Crowd::start(int index) {
  hostEntry &entry = entries_[index];
  if (!entry.buf) {
    base::print(stderr, "ERROR:  7014  Fatal Internal pointer error.  cnt=%i\n", index);
    fflush(nullptr);
    exit(-1);
  }
  entry.state = kConnecting;
  entry.started = time(nullptr);
  members_[index].begunMs = base::nowMs();
  inFlight_++;
  // A name service that does not answer would hold up all hosts, one name after the other.
  in_addr known;
  if (apart_ && inet_aton(entry.host, &known) == 0 && startApart(index)) return;
  errno = 0;
  int sd = audience_.connects(entry.host);
  begun(index, sd, errno);
}

// Begins a connection in a process that may take its time over the name.
bool Crowd::startApart(int index) {
  Helper helper;
  if (!startHelper(&helper)) return false;
  if (helper.pid == 0) {
    leaveOthersAlone(index);
    errno = 0;
    int sd = audience_.connects(entries_[index].host);
    giveAnswer(helper, errno, sd);
  }
  members_[index].helper = helper;
  return true;
}

void Crowd::begun(int index, int sd, int error) {
  entries_[index].sd = sd;
  if (sd < 0) end(index, End::notStarted, error);
}

// Sleeps until a host can go on or has to be given up.
void Crowd::waitForAny() {
  pollfd asked[kAtOnce];
  int who[kAtOnce];
  nfds_t waiting = 0;
  int longest = -1;
  long long now = base::nowMs();
  for (int index = 0; index < count_; index++) {
    members_[index].ready = 0;
    if (!inFlight(index)) continue;
    const hostEntry &entry = entries_[index];
    short events = POLLIN;
    if (!(entry.state & kLoggedIn)) events = POLLIN | POLLOUT;
    bool sends =
        !(entry.state & kFirstSent) || ((entry.state & kFirstSeen) && !(entry.state & kAllSent));
    if ((entry.state & kLoggedIn) && sends) events = POLLOUT;
    const Helper &helper = members_[index].helper;
    asked[waiting] = helper.pid != 0 ? pollfd{helper.end, POLLIN, 0} : pollfd{entry.sd, events, 0};
    who[waiting++] = index;
    int left = deadlineMs(index, now);
    if (longest < 0 || left < longest) longest = left;
  }
  if (waiting == 0) return;
  if (poll(asked, waiting, longest) <= 0) return;
  for (nfds_t at = 0; at < waiting; at++) members_[who[at]].ready = asked[at].revents;
}

// Milliseconds until a host's time is up; 0 when it is.
int Crowd::deadlineMs(int index, long long now) const {
  const Member &member = members_[index];
  long long end = member.begunMs + limits.connectMs;
  if (member.helper.pid != 0 && entries_[index].sd >= 0) end = member.heardMs + limits.loginMs;
  if (entries_[index].state & kLoggedIn) end = member.heardMs + answerMs_;
  return end <= now ? 0 : static_cast<int>(end - now);
}

void Crowd::advance(int index) {
  uint32_t state = entries_[index].state;
  bool ready = members_[index].ready != 0;
  bool late = deadlineMs(index, base::nowMs()) == 0;
  if (members_[index].helper.pid != 0) {
    if (ready || late) takeHelper(index);
  } else if (!(state & kLoggedIn)) {
    // The time counts before the socket does: that is the order operators know from the result
    // file.
    if (late)
      end(index, End::noResponse);
    else if (ready)
      connect(index);
  } else if (late && !ready) {
    end(index, End::silent);
  } else if (!ready) {
    return;
  } else if (!(state & kFirstSent)) {
    sendFirst(index);
  } else if ((state & kFirstSeen) && !(state & kAllSent)) {
    sendNext(index);
  } else {
    receive(index);
  }
}

void Crowd::connect(int index) {
  int sd = entries_[index].sd, error = 0;
  socklen_t length = sizeof error;
  fcntl(sd, F_SETFL, fcntl(sd, F_GETFL) & ~O_NONBLOCK);
  if (getsockopt(sd, SOL_SOCKET, SO_ERROR, &error, &length) == 0 && error != 0)
    return end(index, End::refused, error);
  members_[index].heardMs = base::nowMs();
  audience_.logsIn(entries_[index]);
  login(index);
}

void Crowd::login(int index) {
  // An agent that takes the connection and says nothing would hold up all other hosts for as long
  // as a login may take, and those that have connected meanwhile would count as too late.
  if (apart_ && loginApart(index)) return;
  loggedIn(index, autoLogin(entries_[index].sd) == 0);
}

bool Crowd::loginApart(int index) {
  Helper helper;
  if (!startHelper(&helper)) return false;
  if (helper.pid == 0) {
    leaveOthersAlone(index);
    giveAnswer(helper, autoLogin(entries_[index].sd) == 0 ? 1 : 0);
  }
  members_[index].helper = helper;
  return true;
}

// In a helper: a connection of another host that ends meanwhile must not stay open here.
void Crowd::leaveOthersAlone(int index) const {
  for (int other = 0; other < count_; other++)
    if (other != index && entries_[other].sd >= 0) close(entries_[other].sd);
}

void Crowd::takeHelper(int index) {
  bool late = members_[index].ready == 0;
  Answer answer = takeAnswer(&members_[index].helper);
  if (entries_[index].sd >= 0) return loggedIn(index, answer.value == 1);
  if (late && !answer.came) return end(index, End::noResponse);
  begun(index, answer.sd, answer.value);
}

void Crowd::loggedIn(int index, bool good) {
  if (!good) return end(index, End::badLogin);
  entries_[index].state |= kLoggedIn;
  members_[index].heardMs = base::nowMs();
}

void Crowd::sendFirst(int index) {
  hostEntry &entry = entries_[index];
  audience_.isAsked(entry);
  entry.cmd = commands_[0];
  size_t length = entry.cmd ? strlen(entry.cmd) : 0;
  if (writen(entry.sd, entry.cmd, length) != static_cast<ssize_t>(length))
    return end(index, End::firstUnsent);
  entry.nextCmd = 1;
  entry.state |= kFirstSent;
  // With a single command there is nothing to wait for before its answer.
  if (commandCount_ <= 1) entry.state |= kFirstSeen | kAllSent;
}

void Crowd::sendNext(int index) {
  hostEntry &entry = entries_[index];
  entry.cmd = commands_[entry.nextCmd];
  size_t length = strlen(entry.cmd);
  if (writen(entry.sd, entry.cmd, length) != static_cast<ssize_t>(length))
    return end(index, End::nextUnsent);
  if (++entry.nextCmd >= commandCount_) entry.state |= kAllSent;
}

void Crowd::receive(int index) {
  hostEntry &entry = entries_[index];
  Member &member = members_[index];
  for (int reads = 0; reads < kReadsAtOnce; reads++) {
    ssize_t got = recv(entry.sd, member.line + member.fill,
                       static_cast<size_t>(kLineMost - member.fill), MSG_DONTWAIT);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0 && errno == EAGAIN) return;
    if (got <= 0) {
      member.line[member.fill] = '\0';
      if (member.fill > 0) take(index, member.line, !member.midLine);
      if (inFlight(index)) end(index, End::lost);
      return;
    }
    member.heardMs = base::nowMs();
    member.heard += got;
    // Texts end at a NUL; one that a host sends must not hide what follows it.
    for (ssize_t at = 0; at < got; at++)
      if (member.line[member.fill + at] == '\0') member.line[member.fill + at] = '?';
    member.fill += static_cast<int>(got);
    cutLines(index);
    if (!inFlight(index)) return;
    if (member.heard > limits.mostText) return end(index, End::flooded);
    // The next command may have to go out first.
    if (!(entry.state & kAllSent) && (entry.state & kFirstSeen)) return;
  }
}

// Hands on the whole lines, and a line that has filled its room piece by piece.
void Crowd::cutLines(int index) {
  Member &member = members_[index];
  while (member.fill > 0 && inFlight(index)) {
    auto *feed = static_cast<char *>(memchr(member.line, '\n', static_cast<size_t>(member.fill)));
    bool prompted = !(entries_[index].state & kFirstSeen) && !member.midLine && member.fill >= 4 &&
                    memcmp(member.line, kPrompt, 4) == 0;
    int length = feed ? static_cast<int>(feed - member.line) + 1 : kLineMost;
    // A prompt is not followed by a line feed.
    if (prompted && !feed) length = 4;
    if (length > member.fill) return;
    char line[kLineMost + 1];
    memcpy(line, member.line, static_cast<size_t>(length));
    line[length] = '\0';
    member.fill -= length;
    memmove(member.line, member.line + length, static_cast<size_t>(member.fill));
    bool atLineStart = !member.midLine;
    member.midLine = !feed && !prompted;
    take(index, line, atLineStart);
  }
}

void Crowd::take(int index, char *line, bool atLineStart) {
  hostEntry &entry = entries_[index];
  if (char *endLine = findEndLine(line, atLineStart)) {
    int status = base::decimal(endLine + strlen(kEndLine));
    *endLine = '\0';
    if (line[0] != '\0') audience_.says(entry, line);
    return takeEnd(index, status);
  }
  if (!(entry.state & kFirstSeen) && atLineStart && begins(line, kPrompt)) {
    entry.state |= kFirstSeen;
    return;
  }
  if (atLineStart && begins(line, "ERROR:") && audience_.endsAtError()) {
    audience_.says(entry, line);
    return end(index, End::errorLine);
  }
  bool answers = (entry.state & kAllSent) != 0;
  if (answers && atLineStart && begins(line, "TRANSFER OK") && audience_.endsAtAcceptance())
    return end(index, End::accepted);
  audience_.says(entry, line);
}

void Crowd::takeEnd(int index, int status) {
  Member &member = members_[index];
  entries_[index].state |= kFirstSeen;
  if (member.status == 0) member.status = status;
  if (++member.ended >= commandCount_) end(index, End::answered);
}

void Crowd::end(int index, End how, int error) {
  Member &member = members_[index];
  Ending ending = {how, member.status, error, static_cast<int>(base::nowMs() - member.begunMs)};
  bool good = audience_.isGood(ending);
  if (!good) entries_[index].state |= kFailed;
  audience_.ends(entries_[index], ending);
  hostFinished(count_, index, entries_);
  inFlight_--;
  done_++;
  if (good) good_++;
}

}  // namespace fanout
