// What the tests of the network layer share: lowered time-outs, socket pairs, and a gatherer in a
// child with the tape host's side of the dialogue.
#pragma once
#include <gtest/gtest.h>
#include <zul/net.h>

#include <map>
#include <string>
#include <vector>

#include "base/fd.h"
#include "net/timeouts.h"
#include "support.h"

namespace netsupport {

class NetTest : public support::HomeTest {
 protected:
  void SetUp() override;
  void TearDown() override;

 private:
  net::Timeouts kept_;
};

// Two connected stream sockets.
struct Pair {
  base::Fd near, far;
  Pair();
};

std::string readAll(int fd);  // to the end of the stream
package unpacked(const std::string &raw);
// Without the leftover text of a text field's end.
std::string name(const package &header);

// A framed file as it stands on the stream, taken apart.
struct Framed {
  std::vector<package> headers;
  std::string contents;
};
// Reads what a peer reads that was told `announced` in the answer to "Next".
Framed readFramed(int fd, uint64_t announced);

// servHandshak in a child, and the peer's end of its connection.
class Gatherer {
 public:
  struct Options {
    int repmode = 0;
    std::vector<std::string> transforms;
    std::function<void()> before;    // in the child, before the dialogue
    std::function<void(int)> after;  // in the child, after it, with its result
    bool connect = true;
  };
  // The messages of the child's stderr and stdout go to tmp/.err and tmp/.out below home.
  Gatherer(const std::string &home, const std::string &list) : Gatherer(home, list, Options()) {}
  Gatherer(const std::string &home, const std::string &list, const Options &options);
  ~Gatherer();

  int sd() const { return connection_.get(); }
  void connect();
  void say(const std::string &line);
  package next();  // "Next" and its answer
  std::string rawNext();
  Framed get(const package &header);  // "Get" and the file
  bool atEnd();                       // the gatherer has closed
  void hangUp() { connection_.reset(); }
  // Waits for the child and gives the result of servHandshak.
  int result(int limitSeconds = 10);
  int pid() const { return pid_; }

 private:
  int port_ = 0;
  base::Fd connection_;
  pid_t pid_ = -1;
};

}  // namespace netsupport
