// The names of a job's hosts, where the name service answers, refuses or hangs.
#include "mrepl/addresses.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <netdb.h>
#include <string.h>
#include <sys/wait.h>

#include "base/pause.h"
#include "support.h"

// The name service, which knows nothing of names that begin so, and takes its time over it.
static int slowLookUpMs;

extern "C" int getaddrinfo(const char *name, const char *service, const addrinfo *wanted,
                           addrinfo **found) {
  if (name && strncmp(name, "slow", 4) == 0) {
    base::sleepMs(slowLookUpMs);
    return EAI_NONAME;
  }
  using LookUp = int (*)(const char *, const char *, const addrinfo *, addrinfo **);
  static auto real = reinterpret_cast<LookUp>(dlsym(RTLD_NEXT, "getaddrinfo"));
  return real(name, service, wanted, found);
}

namespace {

class Addresses : public testing::Test {
 protected:
  // The addresses as texts.
  std::vector<std::string> find(const std::vector<std::string> &names, int limitMs = 20000,
                                int most = 100) {
    std::vector<strNode> nodes(names.size() + 1);
    for (size_t at = 0; at < names.size(); at++)
      nodes[at] = {const_cast<char *>(names[at].c_str()), &nodes[at + 1]};
    std::vector<uint32_t> addresses(static_cast<size_t>(most), 99);
    int count = mrepl::lookUpAll(&nodes[0], addresses.data(), most, limitMs);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "no process is left";
    std::vector<std::string> texts;
    for (int at = 0; at < count; at++)
      texts.push_back(inet_ntoa(in_addr{addresses[static_cast<size_t>(at)]}));
    return texts;
  }
  using Texts = std::vector<std::string>;
};

TEST_F(Addresses, StandInTheOrderOfTheirNames) {
  EXPECT_EQ(find({"127.0.0.3", "localhost", "", "no-such-host.invalid", "127.0.0.2"}),
            (Texts{"127.0.0.3", "127.0.0.1", "0.0.0.0", "127.0.0.2"}));
  EXPECT_EQ(find({}), Texts{});
  EXPECT_EQ(find({"127.0.0.3", "127.0.0.4", "127.0.0.5"}, 20000, 2),
            (Texts{"127.0.0.3", "127.0.0.4"}));
}

TEST_F(Addresses, AreLookedUpManyAtOnce) {
  slowLookUpMs = 700;
  Texts names(50, "slow"), wanted(50, "0.0.0.0");
  names.emplace_back("127.0.0.9");
  wanted.emplace_back("127.0.0.9");
  long long begun = base::nowMs();
  EXPECT_EQ(find(names), wanted);
  EXPECT_LT(base::nowMs() - begun, 10000) << "one after the other they would take 35 seconds";
}

TEST_F(Addresses, AreNotWaitedForWithoutEnd) {
  slowLookUpMs = 60000;
  long long begun = base::nowMs();
  EXPECT_EQ(find({"slow", "localhost", "slower"}, 300), (Texts{"0.0.0.0", "127.0.0.1", "0.0.0.0"}));
  EXPECT_LT(base::nowMs() - begun, 10000);
}

}  // namespace
