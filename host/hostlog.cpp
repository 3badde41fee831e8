// Opens, reopens and writes the log. The listener opens it; sessions, requests and the module write
// to the stream they inherited.
#include "host/hostlog.h"

#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>
#include <zul/host.h>

namespace host {

namespace {

char logPath[4096];  // empty: standard error, which nobody rotates

// A descriptor of 3 or more: the low ones are what a request's own streams stand on.
int openHigh(const char *path) {
  int fd = path[0] == '\0' ? dup(2)
                           : open(path, O_WRONLY | O_APPEND | O_CREAT | O_NOCTTY | O_CLOEXEC, 0640);
  if (fd < 0) return -1;
  int high = fcntl(fd, F_DUPFD_CLOEXEC, 3);
  int error = errno;
  close(fd);
  errno = error;
  return high;
}

}  // namespace

bool openLog(const std::string &path, std::string &why) {
  snprintf(logPath, sizeof logPath, "%s", path.c_str());
  int fd = openHigh(logPath);
  FILE *stream = fd >= 0 ? fdopen(fd, "a") : nullptr;
  if (!stream) {
    why = "Cannot open the log " + path + ": " + strerror(errno);
    if (fd >= 0) close(fd);
    return false;
  }
  setvbuf(stream, nullptr, _IOLBF, BUFSIZ);
  fplog = stream;
  return true;
}

void reopenLog() {
  if (!fplog || logPath[0] == '\0') return;
  int fd = openHigh(logPath);
  if (fd < 0) {
    logEvent("cannot open the log %s again: %s", logPath, strerror(errno));
    return;
  }
  fflush(fplog);
  dup3(fd, fileno(fplog), O_CLOEXEC);
  close(fd);
}

void logEvent(const char *format, ...) {
  if (!fplog) return;
  int kept = errno;
  // The whole line goes out in one write, so that processes do not mix theirs.
  char line[1024];
  time_t now = time(nullptr);
  tm parts;
  localtime_r(&now, &parts);
  size_t length = strftime(line, sizeof line, "%Y-%m-%d %H:%M:%S", &parts);
  length +=
      static_cast<size_t>(snprintf(line + length, sizeof line - length, " ZULd[%d] ", getpid()));
  va_list args;
  va_start(args, format);
  vsnprintf(line + length, sizeof line - length - 1, format, args);
  va_end(args);
  size_t end = strlen(line);
  line[end] = '\n';
  fwrite(line, 1, end + 1, fplog);
  fflush(fplog);
  errno = kept;
}

std::string printable(std::string_view text, size_t limit) {
  std::string result(text.substr(0, limit));
  for (char &c : result)
    if (static_cast<unsigned char>(c) < 0x20 || static_cast<unsigned char>(c) >= 0x7f) c = '?';
  if (text.size() > limit) result += "...";
  return result;
}

}  // namespace host
