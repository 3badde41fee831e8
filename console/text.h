// Texts for people: sizes, durations, and bytes of unknown origin made fit for a terminal.
#pragma once
#include <stdint.h>
#include <time.h>

#include <optional>
#include <string>
#include <string_view>

namespace console {

// "8G", "512M", "1.5T", "1048576": binary units, upper or lower case, with or without "iB" or "B"
// behind them. Nothing when it is no size or does not fit 63 bits.
std::optional<uint64_t> parseSize(std::string_view text);
// "1.2 GiB", "17 B".
std::string sizeText(uint64_t bytes);
// "0:00:42", "27:13:05".
std::string durationText(int64_t seconds);
// "2026-03-01 17:20:03", local time; "-" for 0.
std::string timeText(int64_t seconds);
// "1 file", "3 files".
std::string countText(uint64_t count, const std::string &noun);
// "3 files, 1 folder, 1.5 MiB"; without folders where nobody counted them apart.
std::string amountText(uint64_t files, std::optional<uint64_t> folders, uint64_t bytes);

// Makes bytes from a daemon, a tape or another host harmless for a terminal: control bytes, C1
// control characters and bytes that are no UTF-8 become "\x1b"-like texts; line feeds and tabs
// stay. Keeps an incomplete character at the end of a piece for the next call.
class TerminalFilter {
 public:
  std::string operator()(std::string_view bytes);
  // What an incomplete last character leaves behind.
  std::string finish();

 private:
  std::string carry_;
};

// The same for a whole text; line feeds and tabs are escaped too, so that it stays within its line.
std::string oneLine(std::string_view bytes);

// Standard output and standard error of the command: filtered when they are terminals, untouched
// otherwise.
void printOut(std::string_view bytes);
void printErr(std::string_view bytes);
// Completes what printOut holds back and reports a standard output that took not everything: false
// then.
bool finishOut();

}  // namespace console
