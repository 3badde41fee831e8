// Plays target hosts for the replication tests, in child processes. Runs in the tests' processes.
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "base/site.h"
#include "repltest.h"

namespace repltest {

package headerOf(const std::string &name, int type, uint64_t size, int sequence) {
  package header;
  memset(static_cast<void *>(&header), 0, sizeof header);
  header.magic = PACK_MAGIC;
  header.type = static_cast<uint8_t>(type);
  strncpy(header.filename, name.c_str(), sizeof header.filename - 1);
  strcpy(header.fromhost, "sender");
  header.usrid = getuid();
  header.grpid = getgid();
  header.mode = type == 1 ? S_IFDIR | 0750 : S_IFREG | 0640;
  header.mtime = 1000000000;
  header.atime = 1000000001;
  header.size = size;
  header.sequence = sequence;
  header.unused1 = header.unused2 = PACK_FILLER;
  return header;
}

std::string packed(package header) {
  std::string raw(PACK_SIZE, '\0');
  packPackage(raw.data(), &header);
  return raw;
}

std::string framed(const package &header, const std::string &data, bool trailing) {
  std::string stream;
  package repeat = header;
  for (size_t at = 0; at <= data.size(); at += PACK_CHUNK, repeat.sequence++) {
    if (at > 0 && at == data.size() && !trailing) break;
    stream += packed(repeat) + data.substr(at, PACK_CHUNK);
    if (header.type != 0) break;
  }
  return stream;
}

std::string endOfList() {
  package end{};
  end.magic = PACK_EOL_MAGIC;
  return packed(end);
}

// Classic senders read the list as it is when they come to it, and connect once. So that no test
// depends on how long a list takes, or a port, the answer waits for both.
constexpr char kListDue[] = "/list.due";

static void awaitList(const std::string &folder) {
  std::string due = folder + kListDue, list = folder + "/../var/tape/jobids/repl.5";
  if (!support::exists(due)) return;
  constexpr int kLimitMs = 15000;
  support::eventually(
      [&] { return support::exists(list) && support::readFile(list) == support::readFile(due); },
      kLimitMs);
}

// One request of the sending host.
static void playRequest(int sd, const std::string &address, const std::string &folder,
                        const TargetHost::Play &play) {
  std::string line = support::receiveLine(sd);
  int log = open((folder + "/" + address + ".asked").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
  (void)!write(log, line.data(), line.size());
  close(log);
  if (play.awaitsList) awaitList(folder);
  int listening = -1;
  if (play.listens && !play.resets) listening = support::listenAt(address, ZULSRV_PORT);
  send(sd, play.reply.data(), play.reply.size(), MSG_NOSIGNAL);
  if (play.resets) {
    linger atOnce{1, 0};
    setsockopt(sd, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
    close(sd);
    return;
  }
  char destination[256] = "";
  int conflict = 0, flags = 0;
  sscanf(line.c_str(), "TAPE repclnt %255s %i %i", destination, &conflict, &flags);
  if (!play.destination.empty())
    snprintf(destination, sizeof destination, "%s", play.destination.c_str());
  int status = 1;
  if (play.listens) {
    // The receiver's complaints go to the console, as an agent relays them.
    dup2(sd, 0);
    dup2(sd, 2);
    if (play.receive) {
      status = play.receive(listening);
      close(listening);
    } else {
      status = repHandShk(listening, destination, conflict) == 0 ? 0 : 1;
    }
  }
  std::string end = "ZuL_DoNe. " + std::to_string(status) + "\n";
  if (play.tellsEnd) send(sd, end.data(), end.size(), MSG_NOSIGNAL);
  shutdown(sd, SHUT_RDWR);
}

TargetHost::TargetHost(const std::string &address, const std::string &folder, const Play &play) {
  int console = support::listenAt(address, ZUL_PORT);
  fflush(nullptr);
  pid_ = fork();
  if (pid_ != 0) {
    close(console);
    return;
  }
  setpgid(0, 0);
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  signal(SIGCHLD, SIG_IGN);
  backuplog = fopen((folder + "/" + address + ".log").c_str(), "we");
  setvbuf(backuplog, nullptr, _IONBF, 0);
  for (;;) {
    int sd = accept4(console, nullptr, nullptr, SOCK_CLOEXEC);
    if (sd < 0) continue;
    if (fork() == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      playRequest(sd, address, folder, play);
      _exit(0);
    }
    close(sd);
  }
}

TargetHost::~TargetHost() {
  kill(-pid_, SIGKILL);
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
}

void ReplicationTest::SetUp() {
  HomeTest::SetUp();
  behave("classic");
}

void ReplicationTest::behave(const std::string &behaviour, const std::string &more) {
  site("behaviour = " + behaviour + "\nbehaviour.security = classic\npause.list-start = 1ms\n" +
       (behaviour == "classic" ? "pause.list-grace = 1ms\npause.receiver-start = 1ms\n"
                                 "pause.receiver-ready = 5ms\npause.replicate-start = 5ms\n"
                                 "pause.replicate-poll = 10ms\n"
                               : "") +
       more);
}

void ReplicationTest::defineJob(const std::vector<std::string> &hosts,
                                const std::string &destination, const std::string &conflict,
                                const std::string &policy) {
  std::string members;
  for (const std::string &host : hosts) members += (members.empty() ? "" : ",") + host;
  if (!hosts.empty()) support::writeFile(path("var/tape/jobids/group"), "3:" + members + ":all\n");
  unlink(path("var/tape/jobids/repljobs").c_str());
  std::string text = "5:3:" + conflict + ":" + policy + ":reserved:" + destination + ":copy";
  std::vector<char> writable(text.begin(), text.end());
  writable.push_back('\0');
  ASSERT_EQ(addRepids(writable.data()), 0);
}

void ReplicationTest::offer(const std::vector<std::string> &paths) {
  std::string lines;
  for (const std::string &each : paths) lines += each + "\n";
  support::writeFile(path("var/tape/jobids/5"), lines);
}

pid_t ReplicationTest::start(const std::string &job) {
  std::string source = path("var/tape/jobids/5"), due = path("tmp") + kListDue;
  unlink(due.c_str());
  if (!base::sound(base::Area::stream) && support::exists(source))
    mkBackupList(source.data(), due.data(), 0);
  fflush(nullptr);
  pid_t pid = fork();
  if (pid != 0) return pid;
  // Its own process group, so that a test can end it with its children.
  setpgid(0, 0);
  backuplog = fopen(path("var/tape/jobids/replicate.5.stat").c_str(), "w");
  setvbuf(backuplog, nullptr, _IONBF, 0);
  FILE *console = fopen(path("tmp/console").c_str(), "w");
  dup2(fileno(console), 2);
  int result = replicate(job.c_str());
  support::writeFile(path("tmp/result"), std::to_string(result));
  fflush(nullptr);
  _exit(0);
}

int ReplicationTest::await(pid_t pid, int limitSeconds) {
  return support::resultOf(pid, path("tmp/result"), limitSeconds,
                           [this] { return jobLog() + console(); });
}

int ReplicationTest::run(const std::string &job, int limitSeconds) {
  return await(start(job), limitSeconds);
}

}  // namespace repltest
