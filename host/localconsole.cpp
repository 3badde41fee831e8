// The local socket from both sides: the daemon makes it, the operator's command connects to it.
#include "host/localconsole.h"

#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "base/fd.h"

namespace login {

namespace {

constexpr const char *kSocketName = "console";
constexpr const char *kGroup = "zul";

base::Fd openFolder(const std::string &home) {
  return base::Fd(open((home + "/var").c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
}

base::Fd localSocket() {
  return base::Fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
}

// The socket's own path, which `ss` then shows; where the kernel has no room for it, the same place
// seen from the open folder.
sockaddr_un addressOf(const std::string &home, const base::Fd &folder) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  constexpr size_t kRoom = sizeof address.sun_path;
  int length = snprintf(address.sun_path, kRoom, "%s/var/%s", home.c_str(), kSocketName);
  if (length < 0 || static_cast<size_t>(length) >= kRoom)
    snprintf(address.sun_path, kRoom, "/proc/self/fd/%d/%s", folder.get(), kSocketName);
  return address;
}

// Opens the way to the socket for the group: var is closed to everybody else when a home is made.
void admitGroup(const std::string &home, const base::Fd &folder) {
  const group *entry = getgrnam(kGroup);
  struct stat status;
  std::string var = home + "/var";
  if (!entry || fstat(folder.get(), &status) != 0 ||
      fchownat(folder.get(), kSocketName, static_cast<uid_t>(-1), entry->gr_gid,
               AT_SYMLINK_NOFOLLOW) != 0)
    return;
  if (chown(var.c_str(), static_cast<uid_t>(-1), entry->gr_gid) == 0)
    (void)!chmod(var.c_str(), (status.st_mode & 07777) | S_IXGRP);
}

}  // namespace

int connectLocalConsole(const std::string &home) {
  base::Fd folder = openFolder(home);
  base::Fd sd = folder ? localSocket() : base::Fd();
  if (!sd) return -1;
  sockaddr_un address = addressOf(home, folder);
  int result;
  do {
    result = connect(sd.get(), reinterpret_cast<sockaddr *>(&address), sizeof address);
  } while (result != 0 && errno == EINTR);
  return result == 0 ? sd.release() : -1;
}

int listenLocalConsole(const std::string &home, int backlog) {
  base::Fd folder = openFolder(home);
  base::Fd sd = folder ? localSocket() : base::Fd();
  if (!sd) return -1;
  if (unlinkat(folder.get(), kSocketName, 0) != 0 && errno != ENOENT) return -1;
  sockaddr_un address = addressOf(home, folder);
  // Closed to all until its group is set.
  mode_t mask = umask(0177);
  int result = bind(sd.get(), reinterpret_cast<sockaddr *>(&address), sizeof address);
  umask(mask);
  if (result != 0) return -1;
  admitGroup(home, folder);
  if (fchmodat(folder.get(), kSocketName, 0660, 0) != 0 || listen(sd.get(), backlog) != 0)
    return -1;
  return sd.release();
}

}  // namespace login
