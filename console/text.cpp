// Numbers and names as people read them. Names come from other hosts' files: what would steer a
// terminal is escaped here, and nowhere else.
#include "console/text.h"

#include <ctype.h>
#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <charconv>

namespace console {

namespace {

constexpr const char kUnits[] = "BKMGTPE";

// Length of the UTF-8 character that begins bytes; 0 when no character begins so, -1 when bytes
// ends inside it.
int characterLength(std::string_view bytes) {
  auto at = [&](size_t index) { return static_cast<unsigned char>(bytes[index]); };
  unsigned char first = at(0);
  if (first < 0x80) return 1;
  if (first < 0xc2 || first > 0xf4) return 0;
  size_t length = first < 0xe0 ? 2 : first < 0xf0 ? 3 : 4;
  for (size_t index = 1; index < length; index++) {
    if (index == bytes.size()) return -1;
    if ((at(index) & 0xc0) != 0x80) return 0;
    // Overlong forms, surrogates and what lies beyond Unicode show in the second byte.
    if (index == 1 && ((first == 0xe0 && at(1) < 0xa0) || (first == 0xed && at(1) > 0x9f) ||
                       (first == 0xf0 && at(1) < 0x90) || (first == 0xf4 && at(1) > 0x8f)))
      return 0;
  }
  return static_cast<int>(length);
}

bool isControl(std::string_view character) {
  unsigned char first = static_cast<unsigned char>(character[0]);
  if (first < 0x20 || first == 0x7f) return true;
  // U+0080 to U+009F: a terminal may take them for escape sequences.
  return first == 0xc2 && static_cast<unsigned char>(character[1]) < 0xa0;
}

void appendEscaped(std::string &to, std::string_view bytes) {
  for (char byte : bytes) {
    char text[8];
    snprintf(text, sizeof text, "\\x%02x", static_cast<unsigned char>(byte));
    to += text;
  }
}

// Appends the harmless form of bytes; returns how many were used up (all but an incomplete last
// character).
size_t appendHarmless(std::string &to, std::string_view bytes, std::string_view kept) {
  size_t at = 0;
  while (at < bytes.size()) {
    int length = characterLength(bytes.substr(at));
    if (length < 0) break;
    std::string_view character = bytes.substr(at, length > 0 ? static_cast<size_t>(length) : 1);
    bool harmless = length > 0 && (!isControl(character) || kept.find(character[0]) != kept.npos);
    if (harmless)
      to += character;
    else
      appendEscaped(to, character);
    at += character.size();
  }
  return at;
}

void writeStream(FILE *stream, std::string_view bytes) {
  fwrite(bytes.data(), 1, bytes.size(), stream);
}

TerminalFilter &outFilter() {
  static TerminalFilter filter;
  return filter;
}

}  // namespace

std::optional<uint64_t> parseSize(std::string_view text) {
  if (text.empty() || !isdigit(static_cast<unsigned char>(text[0]))) return std::nullopt;
  double value = 0;
  auto [rest, error] =
      std::from_chars(text.data(), text.data() + text.size(), value, std::chars_format::fixed);
  if (error != std::errc()) return std::nullopt;
  std::string unit(rest, text.data() + text.size());
  double factor = 1;
  if (!unit.empty()) {
    const char *found = strchr(kUnits, toupper(static_cast<unsigned char>(unit[0])));
    if (!found) return std::nullopt;
    factor = pow(1024, static_cast<double>(found - kUnits));
    std::string bytesWord = unit.substr(1);
    if (!bytesWord.empty() && (found == kUnits || (bytesWord != "iB" && bytesWord != "B")))
      return std::nullopt;
  }
  double bytes = value * factor;
  if (bytes >= 9.2e18) return std::nullopt;
  return static_cast<uint64_t>(bytes);
}

std::string sizeText(uint64_t bytes) {
  double value = static_cast<double>(bytes);
  int unit = 0;
  // 1023.95 would be printed as 1024.0 of the smaller unit.
  while (value >= (unit == 0 ? 1024 : 1023.95)) {
    value /= 1024;
    unit++;
  }
  char text[32];
  if (unit == 0)
    snprintf(text, sizeof text, "%.0f B", value);
  else
    snprintf(text, sizeof text, "%.1f %ciB", value, kUnits[unit]);
  return text;
}

std::string durationText(int64_t seconds) {
  if (seconds < 0) seconds = 0;
  char text[48];
  snprintf(text, sizeof text, "%lld:%02d:%02d", static_cast<long long>(seconds / 3600),
           static_cast<int>(seconds / 60 % 60), static_cast<int>(seconds % 60));
  return text;
}

std::string timeText(int64_t seconds) {
  if (seconds == 0) return "-";
  time_t when = static_cast<time_t>(seconds);
  tm parts{};
  char text[64];
  if (!localtime_r(&when, &parts) || strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts) == 0)
    return "?";
  return text;
}

std::string countText(uint64_t count, const std::string &noun) {
  return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

std::string amountText(uint64_t files, std::optional<uint64_t> folders, uint64_t bytes) {
  return countText(files, "file") + (folders ? ", " + countText(*folders, "folder") : "") + ", " +
         sizeText(bytes);
}

std::string TerminalFilter::operator()(std::string_view bytes) {
  carry_ += bytes;
  std::string text;
  carry_.erase(0, appendHarmless(text, carry_, "\n\t"));
  return text;
}

std::string TerminalFilter::finish() {
  std::string text;
  appendEscaped(text, carry_);
  carry_.clear();
  return text;
}

std::string oneLine(std::string_view bytes) {
  std::string text;
  size_t used = appendHarmless(text, bytes, "");
  appendEscaped(text, bytes.substr(used));
  return text;
}

void printOut(std::string_view bytes) {
  static const bool terminal = isatty(STDOUT_FILENO) == 1;
  writeStream(stdout, terminal ? outFilter()(bytes) : std::string(bytes));
  fflush(stdout);
}

void printErr(std::string_view bytes) {
  static const bool terminal = isatty(STDERR_FILENO) == 1;
  TerminalFilter filter;
  writeStream(stderr, terminal ? filter(bytes) + filter.finish() : std::string(bytes));
}

bool finishOut() {
  writeStream(stdout, outFilter().finish());
  return fflush(stdout) == 0 && !ferror(stdout);
}

}  // namespace console
