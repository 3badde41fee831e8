// HOST get, tail and put, in request processes. The words come from operators, the files may change
// or vanish at any time, and the peer may stop reading or sending in the middle: each ends in an
// error line or a cut connection, never in a wrong file.
#include "host/files.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zul/host.h>

#include <algorithm>
#include <vector>

#include "base/pause.h"

namespace host {

namespace {

constexpr int kBodySilenceMs = 60000;
constexpr int kFollowLookMs = 200;
constexpr size_t kBuffer = 65536;

std::vector<std::string> components(const std::string &path) {
  std::vector<std::string> parts;
  for (size_t from = 0;;) {
    size_t slash = path.find('/', from);
    parts.push_back(path.substr(from, slash - from));
    if (slash == std::string::npos) return parts;
    from = slash + 1;
  }
}

// With what follows the name as well: locks, temporaries and copies of these files are as secret as
// they are.
bool isCredential(const std::vector<std::string> &parts) {
  if (parts[0] != "etc") return false;
  for (const char *name : {"ZULsecret", "ZULusers", "ZULkey"})
    if (parts[1].find(name) != std::string::npos) return true;
  return false;
}

std::string reason(const std::string &what, const std::string &path) {
  return what + " " + path + ": " + strerror(errno);
}

// The folder that holds the last component of path; none when a component is a link or missing.
base::Fd openFolderOf(const std::vector<std::string> &parts) {
  base::Fd folder(open(ZULhome, O_PATH | O_DIRECTORY | O_CLOEXEC));
  for (size_t at = 0; folder && at + 1 < parts.size(); at++)
    folder.reset(
        openat(folder.get(), parts[at].c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  return folder;
}

bool readable(int fd, int timeoutMs) {
  pollfd look{fd, POLLIN, 0};
  return poll(&look, 1, timeoutMs) > 0;
}

// What the caller has not read yet of [from, to), at most a buffer full. 0 at the end, -1 on
// failure.
ssize_t readAt(int fd, char *buffer, off_t from, off_t to) {
  size_t want = static_cast<size_t>(std::min<off_t>(to - from, kBuffer));
  ssize_t got;
  do {
    got = pread(fd, buffer, want, from);
  } while (got < 0 && errno == EINTR);
  return got;
}

// Sends [from, to); false when the file ended before or the peer is gone.
bool sendRange(int fd, off_t from, off_t to) {
  std::vector<char> buffer(kBuffer);
  while (from < to) {
    ssize_t got = readAt(fd, buffer.data(), from, to);
    if (got <= 0 || !answer({buffer.data(), static_cast<size_t>(got)})) return false;
    from += got;
  }
  return true;
}

// Where the last `lines` lines begin.
off_t startOfTail(int fd, off_t size, long lines) {
  std::vector<char> buffer(kBuffer);
  long breaks = 0;
  for (off_t end = size; end > 0;) {
    off_t begin = std::max<off_t>(0, end - static_cast<off_t>(kBuffer));
    ssize_t got = readAt(fd, buffer.data(), begin, end);
    if (got != end - begin) return end;
    for (off_t at = end; at > begin; at--) {
      if (buffer[static_cast<size_t>(at - 1 - begin)] != '\n' || at == size) continue;
      if (++breaks == lines) return at;
    }
    end = begin;
  }
  return 0;
}

// The file that has the name now, when it is another one than that which is open: status files are
// replaced.
base::Fd replacement(const std::string &path, int fd) {
  std::string why;
  base::Fd named = openForReading(path, why);
  struct stat now, before;
  if (!named || fstat(named.get(), &now) != 0 || fstat(fd, &before) != 0 ||
      (now.st_dev == before.st_dev && now.st_ino == before.st_ino))
    return {};
  return named;
}

// Sends what is added until the peer says a line or closes.
int follow(const std::string &path, base::Fd file, off_t at) {
  for (;;) {
    struct stat status;
    if (fstat(file.get(), &status) != 0) return refuse(reason("Cannot read", path));
    // Begun anew in place.
    if (status.st_size < at) at = 0;
    if (!sendRange(file.get(), at, status.st_size)) return 1;
    at = status.st_size;
    if (base::Fd next = replacement(path, file.get())) {
      file = std::move(next);
      at = 0;
      continue;
    }
    if (!readable(0, kFollowLookMs)) continue;
    char byte = '\n';
    while (read(0, &byte, 1) == 1 && byte != '\n') {
    }
    return 0;
  }
}

// Receives exactly size bytes. Once the disk has failed the rest is still taken off the connection,
// because it would be read as requests otherwise. The number of bytes received; stored tells
// whether all went to the file.
long long receiveBody(int file, long long size, bool &stored, int &error) {
  std::vector<char> buffer(kBuffer);
  long long have = 0;
  stored = true;
  while (have < size) {
    if (!readable(0, kBodySilenceMs)) break;
    ssize_t got =
        read(0, buffer.data(), static_cast<size_t>(std::min<long long>(size - have, kBuffer)));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    have += got;
    for (ssize_t done = 0; stored && done < got;) {
      ssize_t put = write(file, buffer.data() + done, static_cast<size_t>(got - done));
      if (put < 0 && errno == EINTR) continue;
      if (put <= 0) {
        stored = false;
        error = errno;
      } else {
        done += put;
      }
    }
  }
  return have;
}

// Gives the new file the mode and owner of the one it replaces; a new name is nobody else's to
// read.
void takeOverMode(int folder, const char *name, int file) {
  struct stat old;
  if (fstatat(folder, name, &old, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(old.st_mode)) return;
  (void)!fchown(file, old.st_uid, old.st_gid);
  (void)!fchmod(file, old.st_mode & 0777);
}

int storeBody(const std::string &path, int folder, const std::string &name, long long size) {
  std::string temporary = ".put." + std::to_string(getpid());
  base::Fd file(openat(folder, temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  if (!file) return refuse(reason("Cannot write", path));
  takeOverMode(folder, name.c_str(), file.get());
  bool stored = false;
  int error = 0;
  long long have = answer("TRANSFER OK\n") ? receiveBody(file.get(), size, stored, error) : -1;
  if (have == size && stored) {
    // Named only when it is on disk: after a power cut there is the old file or the new one.
    stored =
        fsync(file.get()) == 0 && renameat(folder, temporary.c_str(), folder, name.c_str()) == 0;
    error = errno;
    if (stored) {
      base::Fd listing(openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
      if (listing) fsync(listing.get());
      return 0;
    }
  }
  unlinkat(folder, temporary.c_str(), 0);
  if (have != size)
    return refuse("The upload ended after " + std::to_string(std::max(have, 0LL)) + " of " +
                  std::to_string(size) + " bytes; " + path + " is as it was");
  errno = error;
  return refuse(reason("Cannot write", path));
}

}  // namespace

bool answer(std::string_view text) {
  while (!text.empty()) {
    ssize_t put = write(2, text.data(), text.size());
    if (put < 0 && errno == EINTR) continue;
    if (put <= 0) return false;
    text.remove_prefix(static_cast<size_t>(put));
  }
  return true;
}

int refuse(const std::string &why) {
  answer("ERROR:  " + why + "\n");
  return 1;
}

bool isOpenPath(const std::string &path, Access access, std::string &why) {
  std::vector<std::string> parts = components(path);
  for (const std::string &part : parts) {
    if (!part.empty() && part != "." && part != ".." && part.size() <= 255) continue;
    why = "Not a path below the home: " + path;
    return false;
  }
  bool readableTree = parts.size() > 1 && (parts[0] == "etc" || parts[0] == "var");
  bool writableTree =
      readableTree && (parts[0] == "etc" || (parts.size() > 2 && parts[1] == "tape"));
  if (access == Access::reading ? !readableTree : !writableTree)
    why = access == Access::reading ? "Only files below etc/ and var/ can be read: " + path
                                    : "Only files below etc/ and var/tape/ can be written: " + path;
  else if (isCredential(parts))
    why = "Credentials cannot be read or written here: " + path;
  else
    return true;
  return false;
}

base::Fd openForReading(const std::string &path, std::string &why) {
  if (!isOpenPath(path, Access::reading, why)) return {};
  std::vector<std::string> parts = components(path);
  base::Fd folder = openFolderOf(parts);
  base::Fd file;
  // Not blocking: a named pipe must not hold the request.
  if (folder)
    file.reset(openat(folder.get(), parts.back().c_str(),
                      O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  struct stat status;
  if (!file || fstat(file.get(), &status) != 0) {
    why = reason("Cannot read", path);
    return {};
  }
  if (S_ISREG(status.st_mode)) return file;
  why = "No regular file: " + path;
  return {};
}

int sendFile(const std::string &path) {
  std::string why;
  base::Fd file = openForReading(path, why);
  struct stat status;
  if (!file || fstat(file.get(), &status) != 0) return refuse(why);
  if (!answer("DATA " + std::to_string(status.st_size) + "\n")) return 1;
  if (sendRange(file.get(), 0, status.st_size)) return 0;
  // The announced bytes cannot be had any more. The connection ends here, or the peer would take
  // the next answer for the rest of the file.
  shutdown(0, SHUT_RDWR);
  return 1;
}

int sendTail(const std::string &path, long lines, bool follows) {
  std::string why;
  base::Fd file = openForReading(path, why);
  struct stat status;
  if (!file || fstat(file.get(), &status) != 0) return refuse(why);
  off_t from = lines > 0 ? startOfTail(file.get(), status.st_size, lines) : status.st_size;
  if (!sendRange(file.get(), from, status.st_size)) return 1;
  return follows ? follow(path, std::move(file), status.st_size) : 0;
}

int storeFile(const std::string &path, long long size) {
  std::string why;
  if (!isOpenPath(path, Access::writing, why)) return refuse(why);
  if (size < 0 || size > kMaxStored)
    return refuse("A file of " + std::to_string(size) + " bytes is not taken; the most is " +
                  std::to_string(kMaxStored));
  std::vector<std::string> parts = components(path);
  base::Fd folder = openFolderOf(parts);
  if (!folder) return refuse(reason("Cannot write", path));
  return storeBody(path, folder.get(), parts.back(), size);
}

}  // namespace host
