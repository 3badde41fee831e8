// Shared areas, byte order, clock and log of a multicast run, for the sending and the receiving
// host.
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <time.h>
#include <unistd.h>
#include <zul/host.h>
#include <zul/module.h>

#include "base/log.h"
#include "base/text.h"
#include "mrepl/run.h"

int shmid = -1;

namespace {

// Each process attaches once, for the control block and for the ring.
void *ctrlBase;
void *dataBase;

void *attach(int id) {
  void *area = shmat(id, nullptr, 0);
  if (area != reinterpret_cast<void *>(-1)) return area;
  base::print(fplog,
              "ERROR:  Function shmat failed!  Unable to get pointer to shared memory.  "
              "errno = %i \n",
              errno);
  return nullptr;
}

void detach(void **area) {
  if (*area) shmdt(*area);
  *area = nullptr;
}

// Twelve bits, each moved by itself, so that the word does not depend on the constants of a host.
struct ModeBit {
  uint32_t host, net;
};
constexpr ModeBit kModeBits[] = {
    {S_ISUID, 0x800}, {S_ISGID, 0x400}, {S_ISVTX, 0x200}, {S_IRUSR, 0x100},
    {S_IWUSR, 0x080}, {S_IXUSR, 0x040}, {S_IRGRP, 0x020}, {S_IWGRP, 0x010},
    {S_IXGRP, 0x008}, {S_IROTH, 0x004}, {S_IWOTH, 0x002}, {S_IXOTH, 0x001},
};

}  // namespace

namespace mrepl {

uint32_t runWord;

Moment momentNow() {
  timespec now;
  clock_gettime(soundRun() ? CLOCK_MONOTONIC : CLOCK_REALTIME, &now);
  return {now.tv_sec, static_cast<int32_t>(now.tv_nsec / 1000)};
}

int32_t sinceWire(uint32_t then, uint32_t now) {
  int64_t since = static_cast<int64_t>(now) - then;
  // The clock turns over after 256 seconds. Installed senders add 255, which makes one second in
  // 256 look like no time at all, and the wait time follows.
  if (since < 0) since += soundRun() ? 256000000 : 255000000;
  return static_cast<int32_t>(since);
}

void sleepMicros(int64_t micros) {
  if (micros <= 0) return;
  timespec left{micros / 1000000, (micros % 1000000) * 1000};
  while (clock_nanosleep(CLOCK_MONOTONIC, 0, &left, &left) == EINTR) {
  }
}

void waitWordMicros(const uint32_t &word, uint32_t seen, int64_t micros) {
  if (soundRun())
    base::waitWord(&word, seen, static_cast<int>((micros + 999) / 1000));
  else if (base::loadWord(word) == seen)
    sleepMicros(micros);
}

bool orphaned(int parent) {
  return parent != 0 && getppid() != parent;
}

uint32_t addressOf(const char *text) {
  in_addr address;
  return *text != '\0' && inet_aton(text, &address) != 0 ? address.s_addr : 0;
}

void forgetArea() {
  getCtrlPtr(-1);
  getDataPtr(-1);
}

}  // namespace mrepl

int mkShMem(int size) {
  int id = shmget(IPC_PRIVATE, static_cast<size_t>(size), IPC_CREAT | 0600);
  if (id < 0) base::print(fplog, "ERROR:  Function shmget failed!  errno = %i\n", errno);
  return id;
}

int rmShMem(int id) {
  if (shmctl(id, IPC_RMID, nullptr) == 0) return 1;
  base::print(fplog, "ERROR:  Function shmctl failed!  Unable to free shared memory\n");
  return 0;
}

void *getCtrlPtr(int id) {
  if (id == -1)
    detach(&ctrlBase);
  else if (!ctrlBase)
    ctrlBase = attach(id);
  return ctrlBase;
}

mslot *getDataPtr(int id) {
  if (id == -1) {
    detach(&dataBase);
    return nullptr;
  }
  if (!dataBase) dataBase = attach(id);
  shmid_ds status;
  if (!dataBase || shmctl(id, IPC_STAT, &status) != 0) return nullptr;
  // The id alone tells the sides apart, by the size of their areas.
  size_t ahead = status.shm_segsz >= MR_SEND_AREA ? sizeof(msendctrl) : sizeof(mrecvctrl);
  return reinterpret_cast<mslot *>(static_cast<char *>(dataBase) + ahead);
}

void packul(void *buf, uint32_t value) {
  uint32_t net = htonl(value);
  memcpy(buf, &net, sizeof net);
}

uint32_t unpackul(const void *buf) {
  uint32_t net;
  memcpy(&net, buf, sizeof net);
  return ntohl(net);
}

uint32_t host2netmode(uint32_t mode) {
  uint32_t net = 0;
  for (const ModeBit &bit : kModeBits)
    if (mode & bit.host) net |= bit.net;
  return net;
}

uint32_t net2hostmode(uint32_t mode) {
  uint32_t host = 0;
  for (const ModeBit &bit : kModeBits)
    if (mode & bit.net) host |= bit.host;
  return host;
}

void openLog(int server) {
  const char *name = server == 1 ? "repServ.log" : "repClnt.log";
  char path[base::kPathMax];
  // The name in /tmp is known to everybody: who makes it first owns the log, or keeps us from
  // opening it, but not for ever, as a pipe that nobody reads would.
  if (base::sound(base::Area::security))
    base::copyText(path, sizeof path, base::HomePath("var/%s", name));
  else
    snprintf(path, sizeof path, "/tmp/%s", name);
  int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600);
  FILE *log = fd >= 0 ? fdopen(fd, "w") : nullptr;
  if (!log) {
    base::print(stderr, "ERROR:  Cannot open ZULd log file\n");
    fflush(nullptr);
    _exit(-1);
  }
  setvbuf(log, nullptr, _IONBF, 0);
  fplog = log;
  base::print(fplog, "Replication processes starting\n");
}

int sendSeg(mslot *slot, struct sockaddr_in *to, int sd) {
  ssize_t n =
      sendto(sd, &slot->seg, sizeof slot->seg, 0, reinterpret_cast<sockaddr *>(to), sizeof *to);
  return n < 0 ? static_cast<int>(n) : 0;
}

int reqresend(uint32_t sendTime, uint32_t high, uint32_t low, uint32_t count, int sd,
              struct sockaddr_in *to) {
  mreq request;
  packul(&request.sendTime, sendTime);
  packul(&request.high, high);
  packul(&request.low, low);
  packul(&request.count, count);
  ssize_t n = sendto(sd, &request, sizeof request, 0, reinterpret_cast<sockaddr *>(to), sizeof *to);
  return n < 0 ? static_cast<int>(n) : 0;
}
