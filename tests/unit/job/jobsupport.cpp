// Plays the client hosts of the job tests, in child processes, and reads back what a job left on
// tape. Runs in the tests' processes.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zul/module.h>

#include <sstream>

#include "base/pause.h"
#include "base/text.h"
#include "drive/cartridge.h"
#include "drive/drive.h"
#include "jobtest.h"
#include "tape/segment.h"

namespace jobtest {

std::string header(const File &file, int sequence) {
  package record;
  memset(static_cast<void *>(&record), 0, sizeof record);
  record.magic = PACK_MAGIC;
  record.type = static_cast<uint8_t>(file.type);
  strncpy(record.filename, file.name.c_str(), sizeof record.filename - 1);
  strncpy(record.fromhost, file.fromhost.c_str(), sizeof record.fromhost - 1);
  record.size = file.data.size();
  record.sequence = sequence;
  record.unused1 = record.unused2 = PACK_FILLER;
  std::string raw(PACK_SIZE, '\0');
  packPackage(raw.data(), &record);
  return raw;
}

std::string framed(const File &file) {
  std::string stream;
  for (size_t at = 0, sequence = 0; at <= file.data.size(); at += PACK_CHUNK, sequence++) {
    stream += header(file, static_cast<int>(sequence));
    stream += file.data.substr(at, PACK_CHUNK);
  }
  return stream;
}

static void sendAll(int sd, const std::string &bytes) {
  for (size_t at = 0; at < bytes.size();) {
    ssize_t put = send(sd, bytes.data() + at, bytes.size() - at, MSG_NOSIGNAL);
    if (put <= 0) return;
    at += static_cast<size_t>(put);
  }
}

// Hosts of one job have names of their own: "client2" plays on 127.0.0.2.
static void nameByAddress(int sd, std::vector<File> &files) {
  sockaddr_in own{};
  socklen_t length = sizeof own;
  getsockname(sd, reinterpret_cast<sockaddr *>(&own), &length);
  if (own.sin_family != AF_INET) return;
  for (File &file : files)
    if (file.fromhost == "client")
      file.fromhost += std::to_string(ntohl(own.sin_addr.s_addr) & 255);
}

void serveFiles(int sd, std::vector<File> files, std::string *heard) {
  nameByAddress(sd, files);
  size_t next = 0;
  for (std::string line; !(line = support::receiveLine(sd)).empty();) {
    if (heard) *heard += line;
    if (line == "Next\n" && next == files.size()) {
      std::string end(PACK_SIZE, '\0');
      end.replace(0, 4, "St0P");
      sendAll(sd, end);
      return;
    }
    if (line == "Next\n") sendAll(sd, header(files[next], 0));
    if (line == "Get\n") sendAll(sd, framed(files[next++]));
    if (line == "Quit\n") return;
  }
}

// A classic job waits for no answer before it connects to the data port, and for how long the other
// side needs depends on how busy the machine is. So the played login lasts until the port is open.
constexpr char kGreeting[] = "\n";

static int awaitGreeting(int sd) {
  pollfd asked{sd, POLLIN, 0};
  char byte;
  return poll(&asked, 1, 60'000) == 1 && read(sd, &byte, 1) == 1 ? 0 : -1;
}

static int clientsAlive = 0;

static void playClient(int console, const std::string &address, const Client::Play &play) {
  for (;;) {
    base::Fd sd(accept(console, nullptr, nullptr));
    base::Fd data(play.listens ? support::listenAt(address, 2346) : -1);
    sendAll(sd.get(), kGreeting);
    std::string line = support::receiveLine(sd.get());
    if (line.rfind("TAPE rsync", 0) == 0) {
      while (!(line = support::receiveLine(sd.get())).empty() && line != "TRANSFER OK\n") {
      }
      sendAll(sd.get(), play.storesList ? "ZuL_DoNe. 0\n" : "ZuL_DoNe. 1\n");
    } else if (line.rfind("TAPE server", 0) == 0 && play.listens) {
      sd.reset();
      base::Fd peer(accept(data.get(), nullptr, nullptr));
      int on = 1;
      setsockopt(peer.get(), IPPROTO_TCP, 1, &on, sizeof on);
      if (play.serve)
        play.serve(peer.get());
      else
        serveFiles(peer.get(), play.files);
    }
  }
}

Client::Client(const std::string &address, const Play &play) {
  int console = support::listenAt(address, 2345);
  fflush(nullptr);
  pid_ = fork();
  if (pid_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    playClient(console, address, play);
  }
  close(console);
  clientsAlive++;
  support::hostPlay.login = awaitGreeting;
}

Client::Client(const std::string &address, const std::vector<File> &files)
    : Client(address, Play{files, nullptr, true, true}) {}

Client::~Client() {
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
  if (--clientsAlive == 0) support::hostPlay.login = nullptr;
}

void JobTest::SetUp() {
  HomeTest::SetUp();
  behave("classic");
}

void JobTest::behave(const std::string &behaviour, const std::string &more) {
  site("behaviour = " + behaviour +
       "\npause.gather-child = 5ms\npause.gatherer-start = 30ms\npause.parent-poll = 10ms\n"
       "pause.mailbox-retry = 5ms\npause.drive-busy = 5ms\npause.drive-busy-tries = 200\n"
       "pause.label-settle = 0ms\npause.tape-retry = 1ms\npause.idle = 10ms\n" +
       more);
}

void JobTest::defineJob(const std::vector<std::string> &hosts) {
  std::string members;
  for (const std::string &host : hosts) members += (members.empty() ? "" : ",") + host;
  support::writeFile(path("var/tape/jobids/group"), "3:" + members + ":all\n");
  support::writeFile(path("var/tape/jobids/7"), "/etc/\n/home/\n");
  std::vector<char> text;
  for (char c : std::string("7:3:3600:1:0:0:daily")) text.push_back(c);
  text.push_back('\0');
  support::captureStderr([&] { ASSERT_EQ(addJobids(text.data()), 0); });
}

void JobTest::loadTape(uint64_t capacity) {
  ASSERT_EQ(drive::makeDrive("d1"), "");
  ASSERT_EQ(drive::makeCartridge("c1", capacity), "");
  ASSERT_EQ(drive::loadCartridge("d1", "c1"), "");
  support::writeFile(path("etc/tapedevs"), "1:d1:/dev/vtape/d1:a:b:\n");
  mkdir(path("var/tape/drive.1").c_str(), 0755);
  char args[] = "1:0:0:0:label";
  support::captureStderr([&] { ASSERT_EQ(addTape(args), 0); });
}

pid_t JobTest::startBackup(const std::string &level) {
  fflush(nullptr);
  pid_t pid = fork();
  if (pid != 0) return pid;
  // Its own process group, so that a test can end it with its children.
  setpgid(0, 0);
  backuplog = fopen(path("var/tape/jobids/7.status").c_str(), "w");
  setvbuf(backuplog, nullptr, _IOLBF, BUFSIZ);
  int null = open("/dev/null", O_WRONLY);
  FILE *console = fopen(path("tmp/console").c_str(), "w");
  dup2(fileno(console), 2);
  close(null);
  std::string job = "7", text = level;
  int result = goBackup(job.data(), text.data());
  support::writeFile(path("tmp/result"), std::to_string(result));
  fflush(nullptr);
  _exit(0);
}

int JobTest::awaitBackup(pid_t pid, int limitSeconds) {
  return support::resultOf(pid, path("tmp/result"), limitSeconds, [this] { return jobLog(); });
}

int JobTest::backup(const std::string &level) {
  return awaitBackup(startBackup(level));
}

std::vector<histrec> JobTest::history() const {
  std::string bytes = support::readFile(path("var/tape/bhistory"));
  std::vector<histrec> records(bytes.size() / sizeof(histrec));
  if (!records.empty())
    memcpy(static_cast<void *>(records.data()), bytes.data(), records.size() * sizeof(histrec));
  return records;
}

Tape JobTest::readTape() const {
  std::string name = device;
  Tape tape;
  mtRewind(name.data());
  int fd = drive::openDrive(device, O_RDONLY);
  std::vector<std::string> blocks;
  char block[65536];
  for (bool afterMark = false;;) {
    ssize_t got = drive::readBlock(fd, block, sizeof block);
    if (got < 0 || (got == 0 && afterMark && blocks.empty())) break;
    if (got == 0) {
      tape.push_back(blocks);
      blocks.clear();
      // A data file without a block in it looks like the end of the data; the tests that make one
      // look at the drive's status instead.
      afterMark = true;
      continue;
    }
    blocks.push_back(std::string(block, static_cast<size_t>(got)));
  }
  if (!blocks.empty()) tape.push_back(blocks);
  drive::closeDrive(fd);
  mtRewind(name.data());
  return tape;
}

void SlotTest::SetUp() {
  JobTest::SetUp();
  tpgetShMemPtr(-1);
  tpshmid = tpmkShMem(IPC_SHM_SIZE);
  slot = tape::findSlot(0);
  ASSERT_NE(slot, nullptr);
  base::copyText(slot->host, sizeof slot->host, host_);
}

void SlotTest::TearDown() {
  shmctl(tpshmid, IPC_RMID, nullptr);
  tpgetShMemPtr(-1);
  tpshmid = -1;
  JobTest::TearDown();
}

std::vector<Package> packages(const std::vector<std::string> &blocks) {
  std::vector<Package> all;
  uint64_t wanted = 0;
  for (const std::string &block : blocks) {
    if (wanted == 0) {
      EXPECT_EQ(block.size(), static_cast<size_t>(PACK_SIZE));
      if (block.size() != PACK_SIZE) return all;
      Package next;
      std::string raw = block;
      unpackPackage(raw.data(), &next.header);
      uint64_t before = static_cast<uint64_t>(next.header.sequence) * PACK_CHUNK;
      wanted = std::min<uint64_t>(next.header.size - before, PACK_CHUNK);
      all.push_back(next);
      continue;
    }
    size_t piece = std::min<uint64_t>(wanted, PACK_PIECE);
    EXPECT_EQ(block.size(), (piece + 511) / 512 * 512);
    all.back().data += block.substr(0, piece);
    wanted -= piece;
  }
  EXPECT_EQ(wanted, 0u);
  return all;
}

std::string contents(const std::vector<Package> &all, const std::string &name) {
  std::string bytes;
  int sequence = 0;
  for (const Package &one : all) {
    if (name != one.header.filename) continue;
    EXPECT_EQ(one.header.sequence, sequence++);
    bytes += one.data;
  }
  return bytes;
}

int segments() {
  shm_info info;
  return shmctl(0, SHM_INFO, reinterpret_cast<shmid_ds *>(&info)) < 0 ? -1 : info.used_ids;
}

}  // namespace jobtest
