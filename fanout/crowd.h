// Hosts that are asked at once: the engine of every fan-out.
//
// One process keeps up to 40 agent connections open and takes each host through its stages:
// connecting, login, commands, answers. What hosts say and how they end is told to an audience,
// which decides what an answer means.
#pragma once
#include <sys/types.h>
#include <zul/fanout.h>

namespace fanout {

constexpr int kAtOnce = 40;
constexpr int kBufferBytes = 16384;
constexpr int kPrintAbove = 15360;  // a response longer than this is printed and begun anew

// Bits of hostEntry::state.
constexpr uint32_t kConnecting = 1 | 2;
constexpr uint32_t kLoggedIn = 4;
constexpr uint32_t kFirstSent = 8;
constexpr uint32_t kFirstSeen = 16;
constexpr uint32_t kAllSent = 32;
constexpr uint32_t kFailed = 64;
constexpr uint32_t kDone = 256;

// After what time a host counts as lost. The first is part of what operators know; all stand here
// so that tests can lower them.
struct Limits {
  int connectMs;
  int loginMs;    // of a login in a process of its own; the login itself ends before
  long mostText;  // bytes a host may answer
};
extern Limits limits;

// This process has put its heading into a result file. Tests begin anew.
extern bool resultHeaded;

enum class End {
  accepted,    // "TRANSFER OK"
  answered,    // all commands have ended
  notStarted,  // no connection could be begun
  refused,     // the connection was refused
  noResponse,  // no connection in time
  badLogin,
  firstUnsent,  // the first command could not be sent
  nextUnsent,
  errorLine,  // a line that begins with "ERROR:"
  lost,       // closed before the end
  silent,     // logged in, and nothing for longer than the limit
  flooded,    // more text than any command says
};

struct Ending {
  End end;
  int status;     // of answered: of the first command that failed, else 0
  int error;      // of notStarted and refused: errno, or 0 for a name that is not known
  int elapsedMs;  // since the connection was begun
};

class Audience {
 public:
  virtual ~Audience() = default;
  // A connection to a host's agent, connected or connecting; -1 when there can be none.
  virtual int connects(const char *host) = 0;
  virtual void logsIn(hostEntry &entry) = 0;
  virtual void isAsked(hostEntry &entry) = 0;
  virtual void says(hostEntry &entry, const char *line) = 0;
  // True when these lines end a host's part.
  virtual bool endsAtAcceptance() const = 0;
  virtual bool endsAtError() const = 0;
  // The response buffer is printed behind this, as far as it is not empty.
  virtual void ends(hostEntry &entry, const Ending &ending) = 0;
  // True when the host did what it was asked.
  virtual bool isGood(const Ending &ending) const = 0;
};

class Crowd {
 public:
  enum class Ready { yes, noEntries, noBuffers };

  // commands: lines with their line feeds, closed by a null.
  Crowd(Audience &audience, char **commands, int answerMs);
  ~Crowd();
  Crowd(const Crowd &) = delete;
  Crowd &operator=(const Crowd &) = delete;

  Ready gather(const strNode *hosts);
  // Returns when every host is done.
  void run();
  int count() const { return count_; }
  int good() const { return good_; }

 private:
  struct Member;

  bool inFlight(int index) const;
  void startWaiting();
  void start(int index);
  bool startApart(int index);
  void begun(int index, int sd, int error);
  void waitForAny();
  int deadlineMs(int index, long long now) const;
  void advance(int index);
  void connect(int index);
  void login(int index);
  bool loginApart(int index);
  void leaveOthersAlone(int index) const;
  void takeHelper(int index);
  void loggedIn(int index, bool good);
  void sendFirst(int index);
  void sendNext(int index);
  void receive(int index);
  void cutLines(int index);
  void take(int index, char *line, bool atLineStart);
  void takeEnd(int index, int status);
  void end(int index, End how, int error = 0);

  Audience &audience_;
  char **commands_;
  int commandCount_ = 0;
  int answerMs_;
  bool apart_;  // look-ups and logins have processes of their own
  hostEntry *entries_ = nullptr;
  Member *members_ = nullptr;
  char *block_ = nullptr;
  int count_ = 0, inFlight_ = 0, done_ = 0, good_ = 0;
};

// Seconds that a host may be silent behind its login.
int answerLimitSeconds();

}  // namespace fanout
