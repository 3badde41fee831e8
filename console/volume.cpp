// Reads what a tape host keeps about its volumes. The bytes come from a daemon: nothing in them is
// trusted.
#include "console/volume.h"

#include <string.h>
#include <time.h>
#include <zul/records.h>

#include <algorithm>
#include <charconv>

namespace console {

namespace {

template <typename Number>
bool parseNumber(std::string_view text, Number &number) {
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && end == text.data() + text.size();
}

std::string fieldText(const char *field, size_t width) {
  return std::string(field, strnlen(field, width));
}

}  // namespace

std::vector<Run> parseHistory(std::string_view bytes) {
  std::vector<Run> runs;
  histrec record;
  for (; bytes.size() >= sizeof record; bytes.remove_prefix(sizeof record)) {
    memcpy(&record, bytes.data(), sizeof record);
    if (record.magic != PACK_MAGIC) break;
    runs.push_back(Run{record.job, record.level, record.status, record.start, record.retention,
                       VolumeId{record.drive, record.tape, record.volume}});
  }
  return runs;
}

std::optional<Run> chooseRun(const std::vector<Run> &runs, int job, std::optional<int64_t> asOf) {
  std::optional<Run> chosen;
  for (const Run &run : runs) {
    // A run that never came to its end may have left anything on tape.
    if (run.job != job || run.status == 0 || (asOf && run.start > *asOf)) continue;
    if (!chosen || run.start >= chosen->start) chosen = run;
  }
  return chosen;
}

std::optional<int64_t> parseDate(const std::string &text) {
  int64_t seconds = 0;
  if (text.size() > 1 && text[0] == '@' && parseNumber(std::string_view(text).substr(1), seconds))
    return seconds;
  for (const char *format :
       {"%Y-%m-%d", "%Y-%m-%d %H:%M", "%Y-%m-%d %H:%M:%S", "%Y-%m-%dT%H:%M:%S"}) {
    tm parts{};
    const char *end = strptime(text.c_str(), format, &parts);
    if (!end || *end != '\0') continue;
    if (strlen(format) == strlen("%Y-%m-%d")) {  // a day is over with its last second
      parts.tm_hour = 23;
      parts.tm_min = parts.tm_sec = 59;
    }
    tm asked = parts;
    parts.tm_isdst = -1;
    time_t when = mktime(&parts);
    if (when == -1 || parts.tm_mday != asked.tm_mday) return std::nullopt;
    return when;
  }
  return std::nullopt;
}

std::optional<std::string> parseLabel(std::string_view bytes) {
  tapehead head;
  if (bytes.size() < sizeof head) return std::nullopt;
  memcpy(&head, bytes.data(), sizeof head);
  if (head.magic != TAPEHEAD_MAGIC) return std::nullopt;
  return fieldText(head.name, sizeof head.name);
}

std::optional<Record> findRecord(std::string_view catalog, int volume) {
  if (volume < 1 || volume % 2 == 0) return std::nullopt;
  for (int at = 1; catalog.size() >= CATLG_FIXED; at += 2) {
    catlgstru record;
    memcpy(static_cast<void *>(&record), catalog.data(), CATLG_FIXED);
    if (record.magic != CATLG_MAGIC) return std::nullopt;
    if (at == volume)
      return Record{record.created, record.jobnum, record.level,
                    fieldText(record.label, sizeof record.label)};
    catalog.remove_prefix(CATLG_FIXED);
    for (int text = 0; text < CATLG_STRINGS; text++) {
      size_t end = catalog.find('\0');
      if (end == catalog.npos) return std::nullopt;
      catalog.remove_prefix(end + 1);
    }
  }
  return std::nullopt;
}

std::optional<ListLine> cutListLine(std::string_view line) {
  size_t first = line.find(':');
  size_t second = first == line.npos ? line.npos : line.find(':', first + 1);
  size_t third = second == line.npos ? line.npos : line.find(':', second + 1);
  long entry, sequence;
  if (third == line.npos || third + 1 == line.size() ||
      !parseNumber(line.substr(0, first), entry) ||
      !parseNumber(line.substr(second + 1, third - second - 1), sequence))
    return std::nullopt;
  return ListLine{line.substr(first + 1, second - first - 1), line.substr(third + 1), sequence};
}

std::optional<SumLine> cutSumLine(std::string_view line) {
  size_t first = line.find(':');
  size_t second = first == line.npos ? line.npos : line.find(':', first + 1);
  size_t third = second == line.npos ? line.npos : line.find(':', second + 1);
  uint64_t size;
  if (line.empty() || line[0] == '#' || third == line.npos ||
      !parseNumber(line.substr(second + 1, third - second - 1), size))
    return std::nullopt;
  return SumLine{line.substr(first + 1, second - first - 1), line.substr(third + 1), size};
}

void LineCutter::feed(std::string_view piece) {
  for (size_t end; (end = piece.find('\n')) != piece.npos; piece.remove_prefix(end + 1)) {
    if (rest_.empty()) {
      take_(piece.substr(0, end));
      continue;
    }
    rest_.append(piece.substr(0, end));
    take_(rest_);
    rest_.clear();
  }
  rest_.append(piece);
}

void LineCutter::finish() {
  if (!rest_.empty()) take_(rest_);
  rest_.clear();
}

}  // namespace console
