// Reads a password from a file or from the terminal, whose echo is switched off meanwhile and on
// again whatever happens. Used by logins from afar and by "zul user".
#include "console/password.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include "base/fd.h"
#include "console/failure.h"
#include "console/text.h"

namespace console {

namespace {

constexpr size_t kLongest = 1024;
constexpr char kInterrupt = 3;  // Ctrl-C

std::string readLine(int fd) {
  std::string line;
  char byte;
  ssize_t got;
  while (line.size() < kLongest) {
    got = read(fd, &byte, 1);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0 || byte == '\n') break;
    line += byte;
    if (byte == kInterrupt) break;
  }
  return line;
}

std::string fromFile(const std::string &path) {
  base::Fd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file)
    throw Failure(Exit::usage, "cannot read the password file " + path + ": " + strerror(errno));
  struct stat status;
  if (fstat(file.get(), &status) != 0 || (S_ISREG(status.st_mode) && (status.st_mode & 077) != 0))
    throw Failure(Exit::usage, "others may read the password file " + path,
                  "Make it private: chmod 600 " + path);
  return readLine(file.get());
}

// Switches the echo of a terminal off for as long as it lives.
class Silence {
 public:
  explicit Silence(int fd) : fd_(fd) {
    good_ = tcgetattr(fd, &before_) == 0;
    termios quiet = before_;
    // Ctrl-C arrives as a byte then: a killed zul would leave a terminal that shows nothing.
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO | ISIG);
    if (good_) tcsetattr(fd, TCSAFLUSH, &quiet);
  }
  ~Silence() {
    if (good_) tcsetattr(fd_, TCSAFLUSH, &before_);
  }
  Silence(const Silence &) = delete;
  Silence &operator=(const Silence &) = delete;

 private:
  int fd_;
  bool good_;
  termios before_{};
};

std::string fromTerminal(const std::string &question) {
  base::Fd terminal(open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY));
  if (!terminal)
    throw Failure(Exit::usage, "a password is needed and there is no terminal to ask on",
                  "Put it into a file of mode 600 and name that with --password-file.");
  std::string asked = oneLine(question);
  dprintf(terminal.get(), "%s: ", asked.c_str());
  std::string password;
  {
    Silence silence(terminal.get());
    password = readLine(terminal.get());
  }
  dprintf(terminal.get(), "\n");
  if (password.find(kInterrupt) != password.npos)
    throw Failure(Exit::usage, "given up; nothing was changed");
  return password;
}

}  // namespace

std::string askPassword(const std::string &whose, const std::string &file) {
  return file.empty() ? fromTerminal("Password of " + whose) : fromFile(file);
}

std::string askNewPassword(const std::string &whose, const std::string &file) {
  std::string password;
  if (!file.empty()) {
    password = fromFile(file);
  } else {
    password = fromTerminal("New password of " + whose);
    if (fromTerminal("The same again") != password)
      throw Failure(Exit::usage, "the two passwords differ; nothing was changed");
  }
  if (password.empty())
    throw Failure(Exit::usage, "an empty password is no password; nothing was changed");
  return password;
}

}  // namespace console
