// Any bytes from a sender: a replication's receiver makes of them what it can, beneath its
// destination and nowhere else, and keeps its descriptors.
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <zul/host.h>
#include <zul/net.h>
#include <zul/replication.h>

#include <filesystem>

#include "base/fd.h"
#include "base/site.h"
#include "base/text.h"
#include "fuzzhome.h"
#include "net/timeouts.h"
#include "replication/target.h"

namespace {

void writeSite(bool sound) {
  FILE *out = fopen(base::HomePath("etc/ZULsite"), "we");
  if (!out) abort();
  fprintf(out, "behaviour = %s\nbehaviour.security = classic\npause.receiver-ready = 0\n",
          sound ? "sound" : "classic");
  fclose(out);
  chmod(base::HomePath("etc/ZULsite"), 0600);
  base::forgetSite();
}

void makeHome() {
  fuzz::makeHome({"etc", "outside"});
  net::timeouts.streamMs = 50;
}

int descriptors() {
  int count = 0;
  for (int fd = 0; fd < 64; fd++) count += fcntl(fd, F_GETFD) >= 0;
  return count;
}

// A connection that is waiting to be accepted and holds these bytes already.
struct Sender {
  base::Fd listening, connection;
  Sender(const uint8_t *data, size_t size) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    snprintf(address.sun_path, sizeof address.sun_path, "%.80s/socket", ZULhome);
    unlink(address.sun_path);
    auto *plain = reinterpret_cast<sockaddr *>(&address);
    listening.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    connection.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (bind(listening.get(), plain, sizeof address) != 0 || listen(listening.get(), 1) != 0 ||
        connect(connection.get(), plain, sizeof address) != 0)
      abort();
    if (send(connection.get(), data, size, MSG_DONTWAIT) != static_cast<ssize_t>(size)) abort();
    shutdown(connection.get(), SHUT_WR);
  }
};

// Whole dialogues under "sound" only: a classic receiver follows a name wherever it leads.
void converse(const uint8_t *data, size_t size, int conflict) {
  std::filesystem::remove_all(base::HomePath("dest").c_str());
  Sender sender(data, size);
  int result = repHandShk(sender.listening.release(), base::HomePath("dest").data(), conflict);
  if (result > 0 || result < -4) abort();
  if (!std::filesystem::is_empty(base::HomePath("outside").c_str())) abort();
}

void takeFile(const uint8_t *data, size_t size) {
  std::filesystem::remove_all(base::HomePath("dest").c_str());
  if (mkdir(base::HomePath("dest"), 0755) != 0) abort();
  int pair[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) abort();
  base::Fd near(pair[0]), far(pair[1]);
  if (send(far.get(), data, size, MSG_DONTWAIT) != static_cast<ssize_t>(size)) abort();
  far.reset();
  base::HomePath path("dest/folder/file");
  if (getFilefromStream(near.get(), path.data()) > 0) abort();
  target::end();
}

}  // namespace

// The first byte picks the behaviour, one file or a whole dialogue, and the conflict mode. Run with
// -close_fd_mask=3.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (ZULhome[0] == '\0') makeHome();
  if (size == 0 || size > 100000) return 0;
  bool sound = data[0] & 1, dialogue = data[0] & 2;
  writeSite(sound || dialogue);
  if (!dialogue) {
    takeFile(data + 1, size - 1);
    return 0;
  }
  int before = descriptors();
  converse(data + 1, size - 1, data[0] >> 2 & 15);
  if (descriptors() != before) abort();
  return 0;
}
