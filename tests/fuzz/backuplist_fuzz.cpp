// A backup list of any bytes: the request list made of it has consecutive numbers and no control
// characters, and ends in whole lines. Every path is brought below a small tree of our own first.
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zul/host.h>
#include <zul/tape.h>

#include <string>

#include "base/site.h"
#include "base/text.h"
#include "fuzzhome.h"

namespace {

void makeHome() {
  fuzz::makeHome({"etc", "t/a/b/c", "t/d"});
  for (const char *file : {"t/a/f", "t/a/b/g", "t/h"})
    close(open(base::HomePath("%s", file), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  if (symlink("a", base::HomePath("t/link")) != 0) abort();
}

void setBehaviour(const char *line) {
  FILE *site = fopen(base::HomePath("etc/ZULsite"), "we");
  if (!site) abort();
  fputs(line, site);
  fclose(site);
  chmod(base::HomePath("etc/ZULsite"), 0600);
  base::forgetSite();
}

// The bytes, with each line's path below our tree and no way out of it.
std::string below(const uint8_t *data, size_t size) {
  std::string text;
  bool lineStart = true;
  for (size_t i = 0; i < size; i++) {
    char c = static_cast<char>(data[i]);
    bool control = data[i] < 0x20 || data[i] == 0x7f;
    if (lineStart && !control) text += std::string(ZULhome) + "/t/";
    lineStart = control;
    if (c == '.' && !text.empty() && text.back() == '.') c = 'x';
    text += c;
  }
  return text;
}

void checkLines(const std::string &text, bool complete, bool sound) {
  size_t at = 0;
  for (int number = 0; at < text.size(); number++) {
    size_t end = text.find('\n', at);
    if (end == std::string::npos) abort();
    std::string line = text.substr(at, end - at);
    at = end + 1;
    if (line == "end") {
      if (!sound || !complete || at != text.size()) abort();
      return;
    }
    std::string start = std::to_string(number) + " ";
    if (line.compare(0, start.size(), start) != 0) abort();
    for (unsigned char c : line)
      if (c < 0x20 || c == 0x7f) abort();
  }
  if (sound && complete) abort();
}

std::string readAll(const char *path) {
  FILE *in = fopen(path, "re");
  if (!in) abort();
  std::string text;
  for (int c; (c = getc(in)) != EOF;) text += static_cast<char>(c);
  fclose(in);
  return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (ZULhome[0] == '\0') makeHome();
  if (size == 0) return 0;
  bool sound = data[0] & 1;
  setBehaviour(sound ? "behaviour = sound\n" : "behaviour = classic\n");
  std::string text = below(data + 1, size - 1);
  base::HomePath list("list"), requests("requests");
  FILE *out = fopen(list, "we");
  if (!out || fwrite(text.data(), 1, text.size(), out) != text.size() || fclose(out) != 0) abort();
  int result = mkBackupList(list.data(), requests.data(), data[0] & 2 ? 1 : 0);
  if (result != 0 && result != -3) abort();
  checkLines(readAll(requests), result == 0, sound);
  return 0;
}
