// Finds the programs and the module of this installation, and reads and replaces small files of a
// home. Used by the commands that set a home up or look into it without a daemon.
#include "console/places.h"

#include <errno.h>
#include <fcntl.h>
#include <glob.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zul/host.h>

#include <vector>

#include "base/fd.h"
#include "base/text.h"
#include "console/failure.h"

namespace console {

namespace {

constexpr size_t kWholeLimit = size_t{64} << 20;

std::string ownFolder() {
  char path[base::kPathMax];
  ssize_t length = readlink("/proc/self/exe", path, sizeof path - 1);
  if (length <= 0) return "";
  std::string text(path, static_cast<size_t>(length));
  return text.substr(0, text.rfind('/'));
}

std::string firstMatch(const std::string &pattern) {
  glob_t found{};
  std::string path;
  if (glob(pattern.c_str(), 0, nullptr, &found) == 0 && found.gl_pathc > 0)
    path = found.gl_pathv[0];
  globfree(&found);
  return path;
}

std::string inPath(const std::string &program) {
  const char *list = getenv("PATH");
  std::string rest = list ? list : "";
  while (!rest.empty()) {
    size_t colon = rest.find(':');
    std::string path = rest.substr(0, colon) + "/" + program;
    if (path[0] == '/' && access(path.c_str(), X_OK) == 0) return path;
    rest = colon == rest.npos ? "" : rest.substr(colon + 1);
  }
  return "";
}

[[noreturn]] void cannot(const std::string &what, const std::string &path, int error) {
  throw Failure(Exit::failed, "cannot " + what + " " + path + ": " + strerror(error));
}

bool writeAll(int fd, std::string_view content) {
  while (!content.empty()) {
    ssize_t written = write(fd, content.data(), content.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    content.remove_prefix(static_cast<size_t>(written));
  }
  return true;
}

// A new file beside its final place. It is renamed there when it is complete and on disk, or goes.
class Replacement {
 public:
  Replacement(const std::string &path, mode_t mode) : path_(path), temporary_(path + ".XXXXXX") {
    fd_.reset(mkostemp(temporary_.data(), O_CLOEXEC));
    if (!fd_) cannot("write", path, errno);
    if (fchmod(fd_.get(), mode) != 0) cannot("set the mode of", path, errno);
  }
  ~Replacement() {
    if (!placed_) unlink(temporary_.c_str());
  }
  Replacement(const Replacement &) = delete;
  Replacement &operator=(const Replacement &) = delete;

  void append(std::string_view bytes) {
    if (!writeAll(fd_.get(), bytes)) cannot("write", path_, errno);
  }
  void place() {
    if (fsync(fd_.get()) != 0) cannot("write", path_, errno);
    if (rename(temporary_.c_str(), path_.c_str()) != 0) cannot("put in place", path_, errno);
    placed_ = true;
    base::Fd folder(
        open(path_.substr(0, path_.rfind('/') + 1).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (folder) fsync(folder.get());
  }

 private:
  std::string path_, temporary_;
  base::Fd fd_;
  bool placed_ = false;
};

}  // namespace

std::string findDaemon() {
  std::string folder = ownFolder();
  for (const char *place : {"/ZULd", "/../sbin/ZULd"})
    if (access((folder + place).c_str(), X_OK) == 0) return folder + place;
  std::string found = inPath("ZULd");
  if (found.empty())
    throw Failure(
        Exit::failed,
        "cannot find the daemon ZULd: not in " + folder + ", " + folder + "/../sbin or PATH",
        "Install it beside zul, or put its folder into PATH.");
  return found;
}

static std::string findLibrary(const std::string &name) {
  std::string folder = ownFolder();
  for (const char *place : {"/", "/../lib/zul/", "/../lib/*/zul/"}) {
    std::string found = firstMatch(folder + place + name);
    if (!found.empty()) return found;
  }
  return "";
}

std::string findModule() {
  std::string found = findLibrary("libtape.so"), folder = ownFolder();
  if (!found.empty()) return found;
  throw Failure(
      Exit::failed,
      "cannot find the module libtape.so: not in " + folder + " or " + folder + "/../lib/*/zul",
      "Name it with --module FILE.");
}

std::string findScram() {
  return findLibrary("libscram.so");
}

std::optional<std::string> readWhole(const std::string &path) {
  base::Fd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file) return std::nullopt;
  std::string content;
  char bytes[65536];
  for (;;) {
    ssize_t got = read(file.get(), bytes, sizeof bytes);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return std::nullopt;
    if (got == 0) return content;
    content.append(bytes, static_cast<size_t>(got));
    if (content.size() > kWholeLimit) {
      errno = EFBIG;
      return std::nullopt;
    }
  }
}

void writeWhole(const std::string &path, std::string_view content, mode_t mode) {
  Replacement file(path, mode);
  file.append(content);
  file.place();
}

void copyWhole(const std::string &from, const std::string &to, mode_t mode) {
  base::Fd source(open(from.c_str(), O_RDONLY | O_CLOEXEC));
  if (!source) cannot("read", from, errno);
  Replacement file(to, mode);
  char bytes[65536];
  for (ssize_t got; (got = read(source.get(), bytes, sizeof bytes)) != 0;) {
    if (got < 0 && errno != EINTR) cannot("read", from, errno);
    if (got > 0) file.append(std::string_view(bytes, static_cast<size_t>(got)));
  }
  file.place();
}

bool exists(const std::string &path) {
  struct stat status;
  return lstat(path.c_str(), &status) == 0;
}

bool isHome(const std::string &home) {
  return exists(home + "/etc/ZULsecret");
}

std::string begunMark(const std::string &home) {
  return home + "/.begun-by-zul-init";
}

void checkSecretLost(const std::string &home) {
  if (isHome(home) || exists(begunMark(home)) || !exists(home + "/var/tape")) return;
  throw Failure(Exit::failed, home + " was a home and has lost its etc/ZULsecret",
                "Copy it from another host of the site, mode 600; zul init makes none in its "
                "place, because the other hosts would not know it.");
}

void useHome(const std::string &home) {
  base::copyText(ZULhome, sizeof ZULhome, home.c_str());
}

}  // namespace console
