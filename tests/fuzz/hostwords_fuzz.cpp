// Request lines of operators and agents: rights are decided on the words that run, paths that are
// let through stay in their trees, and the daemon's own words survive any line.
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>
#include <zul/host.h>

#include <string>

#include "base/text.h"
#include "fuzzhome.h"
#include "host/authorise.h"
#include "host/files.h"
#include "host/hostwords.h"

namespace {

int terminal = -1, nowhere = -1;

void makeHome() {
  fuzz::makeHome({"etc", "var/tape/jobids"});
  host::facts.shared = host::makeShared();
  terminal = fcntl(2, F_DUPFD_CLOEXEC, 10);
  nowhere = open("/dev/null", O_RDWR | O_CLOEXEC);
  // Uploads end at once, and following ends with the first look.
  dup2(nowhere, 0);
}

void checkPath(const std::string &path) {
  std::string why;
  for (host::Access access : {host::Access::reading, host::Access::writing}) {
    if (!host::isOpenPath(path, access, why)) continue;
    if (path.find("..") != std::string::npos &&
        ("/" + path + "/").find("/../") != std::string::npos)
      abort();
    if (path.rfind("etc/", 0) != 0 &&
        path.rfind(access == host::Access::reading ? "var/" : "var/tape/", 0) != 0)
      abort();
    if (path.rfind("etc/ZULsecret", 0) == 0 || path.rfind("etc/ZULusers", 0) == 0) abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  makeHome();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::string line(reinterpret_cast<const char *>(data), size < 4095 ? size : 4095);
  host::RequestLine request = host::cutRequest(line);
  host::Peer node{login::Kind::node, login::Role::none, "n", ""};
  host::Peer viewer{login::Kind::user, login::Role::viewer, "v", ""};
  host::Peer oper{login::Kind::user, login::Role::operatorRole, "o", ""};
  bool known = host::familyOf(request.word) != host::Family::unknown;
  if ((host::mayRun(node, request) || host::mayRun(viewer, request)) && !known) abort();
  if (!host::mayRun(oper, request)) abort();
  checkPath(line);
  // A report of a crash needs the terminal; the words' answers go nowhere.
  dup2(nowhere, 2);
  host::runHostWord(line);
  dup2(terminal, 2);
  return 0;
}
