// What the tests of the backup job share: a tape host with one virtual drive, and client hosts that
// are played by processes on loopback addresses in a network of their own.
#pragma once
#include <support.h>
#include <sys/types.h>
#include <zul/net.h>
#include <zul/tape.h>

#include <functional>
#include <string>
#include <vector>

#include "base/fd.h"

namespace jobtest {

using support::count;
using support::pattern;

// A file as a played gatherer serves it.
struct File {
  std::string name;
  std::string data;
  int type = 0;
  std::string fromhost = "client";
};

// The stream form of a header.
std::string header(const File &file, int sequence);
// The whole file as it stands on a stream.
std::string framed(const File &file);

// Talks to a connected tape host as a gatherer does: Next, Get, Quit. Ends at the end of the list.
void serveFiles(int sd, std::vector<File> files, std::string *heard = nullptr);

// A client host in a child process: the console on port 2345 of its address takes "TAPE rsync" and
// "TAPE server", and the latter opens the data port 2346.
class Client {
 public:
  struct Play {
    std::vector<File> files;
    std::function<void(int sd)> serve;  // instead of serving the files
    bool storesList = true;             // answers "TAPE rsync" with status 0
    bool listens = true;                // opens the data port at all
  };
  Client(const std::string &address, const Play &play);
  Client(const std::string &address, const std::vector<File> &files);
  ~Client();
  Client(const Client &) = delete;
  Client &operator=(const Client &) = delete;

 private:
  pid_t pid_ = -1;
};

// A tape as it was written: for each tape file its blocks.
using Tape = std::vector<std::vector<std::string>>;

// One package of a data file, put together from its blocks.
struct Package {
  package header;
  std::string data;  // padding cut
};

class JobTest : public support::HomeTest {
 protected:
  void SetUp() override;

  // All areas classic or sound, every pause short, and more lines.
  void behave(const std::string &behaviour, const std::string &more = "");
  // Job 7 "daily" of group 3 on drive 1, whose members are these hosts.
  void defineJob(const std::vector<std::string> &hosts);
  // Drive 1 with a labelled tape 0.
  void loadTape(uint64_t capacity = 64 << 20);

  // goBackup("7", level) in a process of its own, as tapeBackup runs it: its result.
  int backup(const std::string &level = "0");
  // The same, started only.
  pid_t startBackup(const std::string &level = "0");
  int awaitBackup(pid_t pid, int limitSeconds = 60);

  std::string jobLog() const { return support::readFile(path("var/tape/jobids/7.status")); }
  std::string hostLogOf(const std::string &host) const {
    return support::readFile(path("var/tape/jobids/" + host + ".stat"));
  }
  std::string progressRecord() const {
    return support::readFile(path("var/tape/jobids/7.status.progress"));
  }
  std::string tapeFilePath(const std::string &name) const {
    return path("var/tape/drive.1/tape.0/" + name);
  }
  std::string volumeList(int volume) const {
    return support::readFile(tapeFilePath("vol." + std::to_string(volume)));
  }
  std::vector<histrec> history() const;
  Tape readTape() const;

  const char *device = "/dev/vtape/d1";
};

// One host's slot in a segment of its own, as the processes of a job share it.
class SlotTest : public JobTest {
 protected:
  explicit SlotTest(const char *host) : host_(host) {}
  void SetUp() override;
  void TearDown() override;
  ipc *slot = nullptr;

 private:
  const char *host_;
};

// The packages of a data file in their order; a failure of the test when it is none.
std::vector<Package> packages(const std::vector<std::string> &blocks);
// The contents of one file, put together from its packages.
std::string contents(const std::vector<Package> &all, const std::string &name);
// How many segments of the system are this user's and unattached leftovers or in use.
int segments();

}  // namespace jobtest
