// What a run needs of the network and of its hosts, tried out with the sockets of a run. Runs in
// request processes: "MREPL probe ..." on the receivers by way of the fan-out, and on the sender.
#include "mrepl/probe.h"

#include <arpa/inet.h>
#include <errno.h>
#include <ifaddrs.h>
#include <inttypes.h>
#include <net/if.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <time.h>
#include <unistd.h>
#include <zul/host.h>
#include <zul/mrepl.h>

#include "base/fd.h"
#include "base/json.h"
#include "base/log.h"
#include "base/pause.h"
#include "base/site.h"
#include "base/text.h"
#include "base/version.h"
#include "mrepl/run.h"

namespace mrepl {

namespace {

constexpr int kTokenMost = 32;
constexpr int kListenMost = 60;
constexpr int kSendMost = 600;
constexpr int kEveryMs = 50;

struct Words {
  char token[kTokenMost + 1] = "";
  int seconds = 0;
  char path[base::kPathMax] = "";
};

bool readWords(const char *text, int most, Words *words) {
  int end = 0;
  if (sscanf(text, "%32[0-9a-f] %i %n", words->token, &words->seconds, &end) < 2) return false;
  base::copyText(words->path, sizeof words->path, text + end);
  return words->seconds > 0 && words->seconds <= most;
}

int refuse() {
  base::print(stderr, "ERROR:  This is no probe\n");
  return 1;
}

int64_t microsNow() {
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  return int64_t{now.tv_sec} * 1000000 + now.tv_nsec / 1000;
}

// One line of JSON, in one piece: standard error is unbuffered.
class Answer {
 public:
  Answer() : out_(open_memstream(&text_, &length_)) {}
  ~Answer() {
    base::print(out_, "}\n");
    if (out_) fclose(out_);
    if (text_) fwrite(text_, 1, length_, stderr);
    free(text_);
  }
  Answer(const Answer &) = delete;
  Answer &operator=(const Answer &) = delete;

  void text(const char *key, const char *value) {
    begin(key);
    if (out_) base::writeJsonText(out_, value);
  }
  void number(const char *key, int64_t value) {
    begin(key);
    base::print(out_, "%" PRId64, value);
  }
  void truth(const char *key, bool value) {
    begin(key);
    base::print(out_, "%s", value ? "true" : "false");
  }
  void soundAreas() {
    begin("sound");
    const char *divider = "[";
    for (int at = 0; at < static_cast<int>(base::Area::kCount); at++) {
      auto area = static_cast<base::Area>(at);
      if (!base::sound(area)) continue;
      base::print(out_, "%s\"%s\"", divider, base::areaName(area));
      divider = ",";
    }
    base::print(out_, "%s]", *divider == '[' ? "[" : "");
  }

 private:
  void begin(const char *key) {
    base::print(out_, "%s\"%s\":", divider_, key);
    divider_ = ",";
  }
  char *text_ = nullptr;
  size_t length_ = 0;
  FILE *out_;
  const char *divider_ = "{";
};

// --- the listening side ---

// Why the interface that a receiver would choose is no good; empty when it is.
const char *interfaceProblem(char *name) {
  base::copyText(name, IFNAMSIZ, base::siteValue("multicast.interface"));
  if (getIfName(name) != 0) return "there is no interface with an address";
  base::Fd sd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  ifreq request{};
  base::copyText(request.ifr_name, sizeof request.ifr_name, name);
  if (!sd || ioctl(sd.get(), SIOCGIFFLAGS, &request) != 0) return "the interface cannot be asked";
  if ((request.ifr_flags & IFF_UP) == 0) return "the interface is down";
  return (request.ifr_flags & IFF_MULTICAST) == 0 ? "the interface carries no multicast" : "";
}

const char *joinProblem(int result) {
  switch (result) {
    case -5:
      return "there is no interface with an address";
    case -6:
      return "the interface has no IPv4 address";
    case -7:
      return "the group cannot be joined";
    default:
      return "there is no socket to be had";
  }
}

struct Heard {
  bool heard = false;
  char from[INET_ADDRSTRLEN] = "";
  int64_t clockMs = 0;  // of this host's clock, ahead of the sender's
};

void take(const char *datagram, const sockaddr_in &from, const char *token, Heard *heard) {
  char told[kTokenMost + 1];
  int64_t micros;
  if (sscanf(datagram, "ZUL-PROBE %32[0-9a-f] %" SCNd64, told, &micros) != 2) return;
  if (strcmp(told, token) != 0) return;
  heard->heard = true;
  inet_ntop(AF_INET, &from.sin_addr, heard->from, sizeof heard->from);
  heard->clockMs = (microsNow() - micros) / 1000;
}

Heard listenFor(int sd, const Words &words) {
  Heard heard;
  long long end = base::nowMs() + words.seconds * 1000LL;
  for (long long left; !heard.heard && (left = end - base::nowMs()) > 0;) {
    pollfd ready{sd, POLLIN, 0};
    if (poll(&ready, 1, static_cast<int>(left)) <= 0) continue;
    char datagram[256] = "";
    sockaddr_in from{};
    socklen_t length = sizeof from;
    ssize_t n = recvfrom(sd, datagram, sizeof datagram - 1, MSG_DONTWAIT,
                         reinterpret_cast<sockaddr *>(&from), &length);
    if (n > 0) take(datagram, from, words.token, &heard);
  }
  return heard;
}

// The nearest folder above a path that is there already.
void existingFolder(char *path) {
  struct stat status;
  while (stat(path, &status) != 0) {
    char *slash = strrchr(path, '/');
    if (!slash || slash == path) break;
    *slash = '\0';
  }
  struct stat last;
  if (stat(path, &last) != 0) base::copyText(path, base::kPathMax, "/");
}

void answerSpace(Answer &answer, char *path) {
  existingFolder(path);
  struct statvfs space;
  bool known = statvfs(path, &space) == 0;
  answer.text("folder", path);
  answer.number(
      "free",
      known ? static_cast<int64_t>(space.f_bavail) * static_cast<int64_t>(space.f_frsize) : -1);
}

// --- the sending side ---

// The interface by which datagrams to the group leave, and its address.
void localSide(int sd, const sockaddr_in &to, char *name, char *address) {
  sockaddr_in own{};
  socklen_t length = sizeof own;
  if (connect(sd, reinterpret_cast<const sockaddr *>(&to), sizeof to) != 0 ||
      getsockname(sd, reinterpret_cast<sockaddr *>(&own), &length) != 0)
    return;
  inet_ntop(AF_INET, &own.sin_addr, address, INET_ADDRSTRLEN);
  ifaddrs *list = nullptr;
  if (getifaddrs(&list) != 0) return;
  for (ifaddrs *at = list; at; at = at->ifa_next) {
    if (!at->ifa_addr || at->ifa_addr->sa_family != AF_INET) continue;
    sockaddr_in known;
    memcpy(&known, at->ifa_addr, sizeof known);
    if (known.sin_addr.s_addr == own.sin_addr.s_addr) base::copyText(name, IFNAMSIZ, at->ifa_name);
  }
  freeifaddrs(list);
}

int sendProbe(int sd, const sockaddr_in &to, const char *token) {
  char datagram[128];
  int length =
      snprintf(datagram, sizeof datagram, "ZUL-PROBE %s %" PRId64 "\n", token, microsNow());
  ssize_t n = sendto(sd, datagram, static_cast<size_t>(length), 0,
                     reinterpret_cast<const sockaddr *>(&to), sizeof to);
  return n < 0 ? errno : 0;
}

// Another run has the port where requests are heard.
bool runGoesOn() {
  sockaddr_in address;
  base::Fd requests(mkUDPListenerSocket(MR_REQ_PORT, &address));
  return !requests;
}

}  // namespace

int probeListen(const char *text) {
  Words words;
  if (!readWords(text, kListenMost, &words) || words.path[0] != '/') return refuse();
  char name[IFNAMSIZ] = "", group[] = MR_GROUP;
  const char *problem = interfaceProblem(name);
  Heard heard;
  if (!*problem) {
    sockaddr_in address;
    int opened = mkMulticListener(kProbePort, group, &address);
    base::Fd sd(opened);
    if (opened < 0)
      problem = joinProblem(opened);
    else
      heard = listenFor(opened, words);
  }
  Answer answer;
  answer.text("interface", name);
  answer.text("problem", problem);
  answer.truth("heard", heard.heard);
  answer.text("from", heard.from);
  answer.number("clockMs", heard.clockMs);
  answer.text("sender", base::siteValue("multicast.sender"));
  answerSpace(answer, words.path);
  answer.text("version", base::kModuleVersion);
  answer.soundAreas();
  return 0;
}

int probeSend(const char *text) {
  Words words;
  if (!readWords(text, kSendMost, &words)) return refuse();
  sockaddr_in to;
  char group[] = MR_GROUP, name[IFNAMSIZ] = "", address[INET_ADDRSTRLEN] = "";
  int opened = mkUDPSenderSocket(kProbePort, group, &to);
  base::Fd sd(opened);
  int error = opened < 0 ? EBADF : sendProbe(opened, to, words.token);
  {
    base::Fd other(mkUDPSenderSocket(kProbePort, group, &to));
    if (other) localSide(other.get(), to, name, address);
    Answer answer;
    answer.text("interface", name);
    answer.text("address", address);
    answer.text("problem", error == 0 ? "" : strerrordesc_np(error));
    answer.truth("busy", runGoesOn());
    answer.text("version", base::kModuleVersion);
    answer.soundAreas();
  }
  if (error != 0) return 1;
  for (long long end = base::nowMs() + words.seconds * 1000LL; base::nowMs() < end;) {
    // The operator who has heard enough closes, or says something.
    pollfd console{STDIN_FILENO, POLLIN, 0};
    if (poll(&console, 1, kEveryMs) != 0) break;
    sendProbe(sd.get(), to, words.token);
  }
  return 0;
}

int measureJob(const char *number) {
  MreplJobData job = {};
  if (readMreplJobData(&job, base::decimal(number)) != 0) {
    base::print(stderr, "ERROR:  8602 Cannot open multicast replication job: %s\n", number);
    return 1;
  }
  strNode paths = {};
  addToIncList(1, &paths);
  setFileList(&job.requestList, 0);
  setFileList(soundRun() ? &job.excludeList : nullptr, 1);
  int64_t files = 0, bytes = 0;
  bool whole = buildFileList(0) == 0;
  for (char *path; getNextFile(&path) == 0; files++) {
    struct stat status;
    if (lstat(path, &status) == 0 && S_ISREG(status.st_mode)) bytes += status.st_size;
  }
  Answer answer;
  answer.number("files", files);
  answer.number("bytes", bytes);
  // The list goes with the process.
  return whole ? 0 : 1;
}

}  // namespace mrepl
