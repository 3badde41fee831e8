// The helpers declared in netsupport.h, for the tests of the network layer; the gatherer runs in a
// child here.
#include "netsupport.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "base/pause.h"

namespace netsupport {

void NetTest::SetUp() {
  HomeTest::SetUp();
  kept_ = net::timeouts;
  shouldEncrypt(0);
}

void NetTest::TearDown() {
  shouldEncrypt(0);
  net::timeouts = kept_;
  HomeTest::TearDown();
}

Pair::Pair() {
  int sd[2];
  EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sd), 0);
  near.reset(sd[0]);
  far.reset(sd[1]);
}

std::string readAll(int fd) {
  std::string text;
  char buffer[65536];
  for (ssize_t got; (got = read(fd, buffer, sizeof buffer)) > 0;)
    text.append(buffer, static_cast<size_t>(got));
  return text;
}

package unpacked(const std::string &raw) {
  package header{};
  EXPECT_EQ(raw.size(), static_cast<size_t>(PACK_SIZE));
  std::string bytes = raw;
  bytes.resize(PACK_SIZE);
  EXPECT_EQ(unpackPackage(bytes.data(), &header), 0);
  return header;
}

std::string name(const package &header) {
  return header.filename;
}

Framed readFramed(int fd, uint64_t announced) {
  Framed framed;
  uint64_t left = announced;
  for (bool more = true; more;) {
    framed.headers.push_back(unpacked(support::readBytes(fd, PACK_SIZE)));
    uint64_t chunk = left < PACK_CHUNK ? left : PACK_CHUNK;
    framed.contents += support::readBytes(fd, chunk);
    left -= chunk;
    more = chunk == PACK_CHUNK;
  }
  return framed;
}

static void runGatherer(const std::string &home, const std::string &list,
                        const Gatherer::Options &options, int listening) {
  int err = open((home + "/tmp/.err").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
  int out = open((home + "/tmp/.out").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
  dup2(err, 2);
  dup2(out, 1);
  std::vector<char *> table;
  for (const std::string &text : options.transforms)
    table.push_back(const_cast<char *>(text.c_str()));
  table.resize(table.size() + 2, nullptr);
  if (options.before) options.before();
  int sd = listening;
  if (options.repmode) sd = accept(listening, nullptr, nullptr);
  int result = servHandshak(options.repmode, sd, list.c_str(), table.data());
  if (options.after) options.after(result);
  fflush(nullptr);
  _exit(-result);
}

Gatherer::Gatherer(const std::string &home, const std::string &list, const Options &options) {
  base::Fd listening(support::listenOn(port_));
  EXPECT_GE(listening.get(), 0);
  fflush(nullptr);
  pid_ = fork();
  if (pid_ == 0) runGatherer(home, list, options, listening.release());
  if (options.connect) connect();
}

Gatherer::~Gatherer() {
  if (pid_ <= 0) return;
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
}

void Gatherer::connect() {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<uint16_t>(port_));
  connection_.reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  timeval limit{30, 0};  // a test that waits for longer has failed
  setsockopt(connection_.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  EXPECT_EQ(::connect(connection_.get(), reinterpret_cast<sockaddr *>(&address), sizeof address),
            0);
}

void Gatherer::say(const std::string &line) {
  EXPECT_EQ(send(sd(), line.data(), line.size(), MSG_NOSIGNAL), static_cast<ssize_t>(line.size()));
}

std::string Gatherer::rawNext() {
  say("Next\n");
  return support::readBytes(sd(), PACK_SIZE);
}

package Gatherer::next() {
  return unpacked(rawNext());
}

Framed Gatherer::get(const package &header) {
  say("Get\n");
  return readFramed(sd(), header.size);
}

bool Gatherer::atEnd() {
  char byte;
  return read(sd(), &byte, 1) == 0;
}

int Gatherer::result(int limitSeconds) {
  int status = 0;
  bool ended = support::eventually([&] { return waitpid(pid_, &status, WNOHANG) == pid_; },
                                   limitSeconds * 1000);
  EXPECT_TRUE(ended) << "the dialogue goes on";
  if (!ended) return 1;
  pid_ = -1;
  EXPECT_TRUE(WIFEXITED(status)) << "ended by signal " << WTERMSIG(status);
  return -WEXITSTATUS(status);
}

}  // namespace netsupport
