// The files that the login rests on: the daemon's sessions and the operator's command read and
// write them here.
#include "host/guardedfile.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/fd.h"

namespace login {

namespace {

bool fail(std::string &why, const std::string &what, const std::string &path) {
  int error = errno;
  why = what + " " + path + ": " + strerror(error);
  errno = error;
  return false;
}

bool mayBeTrusted(const struct stat &status, const std::string &path, std::string &why) {
  errno = EPERM;
  if (!S_ISREG(status.st_mode))
    why = path + " is no regular file";
  else if (status.st_uid != 0 && status.st_uid != geteuid())
    why = path + " belongs to user " + std::to_string(status.st_uid) + ", not to root or this user";
  else if ((status.st_mode & 077) != 0)
    why = path + " may be read or written by others: chmod 600 " + path;
  else
    return true;
  return false;
}

bool writeAll(int fd, const std::string &text) {
  for (size_t done = 0; done < text.size();) {
    ssize_t put = write(fd, text.data() + done, text.size() - done);
    if (put < 0 && errno == EINTR) continue;
    if (put <= 0) return false;
    done += static_cast<size_t>(put);
  }
  return fsync(fd) == 0;
}

}  // namespace

bool readGuarded(const std::string &path, size_t limit, std::string &text, std::string &why) {
  // Not blocking: a named pipe in the place of the file must not stop a daemon.
  base::Fd file(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  struct stat status;
  if (!file || fstat(file.get(), &status) != 0) return fail(why, "Cannot open", path);
  if (!mayBeTrusted(status, path, why)) return false;
  text.resize(limit + 1);
  size_t have = 0;
  while (have < text.size()) {
    ssize_t got = read(file.get(), text.data() + have, text.size() - have);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return fail(why, "Cannot read", path);
    if (got == 0) break;
    have += static_cast<size_t>(got);
  }
  text.resize(have);
  if (have <= limit) return true;
  errno = EFBIG;
  return fail(why, "Cannot read", path);
}

bool writeGuarded(const std::string &path, const std::string &text, bool keepExisting,
                  std::string &why) {
  std::string temporary = path + ".new.XXXXXX";
  base::Fd file(mkostemp(temporary.data(), O_CLOEXEC));
  if (!file) return fail(why, "Cannot make", temporary);
  bool written =
      fchmod(file.get(), 0600) == 0 && writeAll(file.get(), text) && close(file.release()) == 0;
  // A link fails where a rename would replace.
  bool named = written && (keepExisting ? link(temporary.c_str(), path.c_str())
                                        : rename(temporary.c_str(), path.c_str())) == 0;
  int error = errno;
  if (!named || keepExisting) unlink(temporary.c_str());
  errno = error;
  if (!named) return fail(why, "Cannot write", path);
  syncFolderOf(path);
  return true;
}

void syncFolderOf(const std::string &path) {
  size_t slash = path.rfind('/');
  std::string folder = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
  base::Fd fd(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (fd) fsync(fd.get());
}

}  // namespace login
