// What the tests of the replication share: a sending host with job 5 of group 3, and target hosts
// that are played by processes on loopback addresses in a network of their own.
#pragma once
#include <support.h>
#include <sys/types.h>
#include <zul/net.h>
#include <zul/replication.h>
#include <zul/tape.h>

#include <functional>
#include <string>
#include <vector>

#include "base/fd.h"

namespace repltest {

using support::count;
using support::pattern;

package headerOf(const std::string &name, int type, uint64_t size = 0, int sequence = 0);
std::string packed(package header);
// A file as it stands on a stream; the last header of a file of whole megabytes may be left out.
std::string framed(const package &header, const std::string &data, bool trailing = true);
std::string endOfList();

// A target host in a child process. Its agent answers "TAPE repclnt" as told, and the receiver
// behind it is the real one, on the data port of its own address, unless another is given.
class TargetHost {
 public:
  struct Play {
    std::string reply = "Rep Flags=n\n";  // what the agent answers
    bool listens = true;                  // the data port is opened at all
    bool tellsEnd = true;                 // the end of the request is said
    bool resets = false;                  // the connection is torn down behind the answer
    bool awaitsList = true;               // answers when a classic sender has its list
    std::string destination;              // instead of the one asked for
    // Instead of the receiver; the exit status of the request.
    std::function<int(int listening)> receive;
  };
  // What it was asked stands in FOLDER/ADDRESS.asked afterwards.
  TargetHost(const std::string &address, const std::string &folder)
      : TargetHost(address, folder, Play()) {}
  TargetHost(const std::string &address, const std::string &folder, const Play &play);
  ~TargetHost();
  TargetHost(const TargetHost &) = delete;
  TargetHost &operator=(const TargetHost &) = delete;

 private:
  pid_t pid_ = -1;
};

class ReplicationTest : public support::HomeTest {
 protected:
  void SetUp() override;

  // All areas classic or sound, every pause short, and more lines. Data connections come from other
  // loopback addresses than the console's, so "security" is classic unless asked for.
  void behave(const std::string &behaviour, const std::string &more = "");
  // Job 5 "copy" of group 3 with these hosts, into destination; fields as in a request.
  void defineJob(const std::vector<std::string> &hosts, const std::string &destination,
                 const std::string &conflict = "4",
                 const std::string &policy = "0:0:28672:32768:0:0");
  // What the job's list names.
  void offer(const std::vector<std::string> &paths);

  // replicate(job) in a process of its own, as goReplicate runs it: its result.
  int run(const std::string &job = "5", int limitSeconds = 60);
  pid_t start(const std::string &job = "5");
  int await(pid_t pid, int limitSeconds = 60);

  std::string jobLog() const { return support::readFile(path("var/tape/jobids/replicate.5.stat")); }
  std::string console() const { return support::readFile(path("tmp/console")); }
  std::string results() const {
    return support::readFile(path("var/tape/jobids/replicate.5.result"));
  }
  std::string progressRecord() const {
    return support::readFile(path("var/tape/jobids/replicate.5.stat.progress"));
  }
  std::string asked(const std::string &address) const {
    return support::readFile(path("tmp/" + address + ".asked"));
  }
};

}  // namespace repltest
