// The rules that the configuration stores share: keys, line lengths, and their two kinds of
// rewrite. Called by the stores' own sources, in the process of a configuration request.
#include "tape/storerules.h"

#include <ctype.h>
#include <stdlib.h>
#include <string.h>
#include <zul/host.h>
#include <zul/tape.h>

#include <memory>

#include "base/log.h"
#include "base/site.h"

namespace stores {

namespace {

// Canonical: the same number is always the same text, for keys are compared as one or the other.
bool isDecimalKey(const char *text) {
  size_t length = strlen(text);
  if (length == 0 || length > 10 || (text[0] == '0' && length > 1)) return false;
  for (const char *at = text; *at != '\0'; at++)
    if (!isdigit(static_cast<unsigned char>(*at))) return false;
  return strtoll(text, nullptr, 10) <= 2147483647;
}

struct Free {
  void operator()(char *text) const { free(text); }
};
using Text = std::unique_ptr<char, Free>;

bool putReplacement(base::Store &table, const TableChange &change, char *carried) {
  if (strcmp(change.fresh[0], "DEL") == 0) return true;
  for (int at = 0; at < change.freshCount; at++)
    if (!table.putText(at == 0 ? "%s" : ":%s", change.fresh[at])) return false;
  return carried ? table.putText(":%s\n", carried) : table.put("\n", 1);
}

// One line that is neither comment nor blank.
TableResult changeLine(base::Store &table, base::LineReader &lines, TableChange &change,
                       bool &found) {
  Text copy(strdup(lines.text()));
  if (!copy) return TableResult::noMemory;
  char *field[8] = {};
  int count = insplit(field, copy.get(), ':', change.splits);
  if (count < change.least || count > change.most) return TableResult::badFormat;
  base::copyText(change.lastName, sizeof change.lastName, field[1]);
  bool good;
  if (strncmp(change.key, field[0], 32) != 0) {
    good = table.put(lines.text(), lines.length());
  } else {
    found = true;
    char none[1] = "";
    char *carried = change.carried < 0       ? nullptr
                    : count > change.carried ? field[change.carried]
                                             : none;
    if (carried) stripCtrl(carried);
    good = putReplacement(table, change, carried);
  }
  return good ? TableResult::done : TableResult::notWritten;
}

int32_t keyOf(const char *record) {
  int32_t key;
  memcpy(&key, record + kKeyOffset, sizeof key);
  return key;
}

constexpr size_t kLongestRecord = 1024;

}  // namespace

bool keyRefused(const char *number) {
  // Text that is no number reads as 0: a job of drive "lto1" would write to drive 0.
  if (!base::sound(base::Area::stores) || isDecimalKey(number)) return false;
  base::print(stderr, "ERROR:  %s is not a decimal number\n", number);
  return true;
}

bool entryRefused(const char *entry, size_t most) {
  // The readers would take what does not fit a line for an entry of its own.
  if (!base::sound(base::Area::stores)) return false;
  if (strchr(entry, '\n') != nullptr) {
    base::print(stderr, "ERROR:  The entry holds a line feed\n");
    return true;
  }
  if (strlen(entry) <= most) return false;
  base::print(stderr, "ERROR:  The entry is longer than %zu characters\n", most);
  return true;
}

size_t lineLimit(size_t classic) {
  // The second piece of a longer line would be taken for a line of its own, and be changed or
  // refused as one.
  return base::sound(base::Area::stores) ? base::LineReader::kNoLimit : classic;
}

int notWritten(const base::Store &store) {
  base::print(stderr, "ERROR:  Failed to update %s\n", store.path());
  return -1;
}

int endListing(const base::LineReader &lines) {
  if (!lines.outOfMemory()) return 0;
  base::print(stderr, "ERROR:  Out of memory!\n");
  return -1;
}

TableResult rewriteTable(base::Store &table, FILE *old, TableChange &change) {
  base::LineReader lines(old, lineLimit(1023));
  bool found = false;
  while (lines.next()) {
    if (lines.isCommentOrBlank()) {
      if (!table.put(lines.text(), lines.length())) return TableResult::notWritten;
      continue;
    }
    TableResult result = changeLine(table, lines, change, found);
    if (result != TableResult::done) return result;
  }
  if (lines.outOfMemory()) return TableResult::noMemory;
  // A copy that could not be read to its end is not the whole table.
  if (ferror(old)) return TableResult::notWritten;
  return found ? TableResult::done : TableResult::notFound;
}

bool findRecord(FILE *in, int key, void *record, size_t size) {
  while (fread(record, size, 1, in) == 1)
    if (keyOf(static_cast<char *>(record)) == key) return true;
  return false;
}

RecordResult rewriteRecords(base::Store &index, FILE *old, int key, const void *fresh,
                            size_t size) {
  char record[kLongestRecord];
  bool dropped = keyOf(static_cast<const char *>(fresh)) == kDeletedKey;
  while (fread(record, size, 1, old) == 1) {
    if (keyOf(record) != key) {
      if (!index.put(record, size)) return RecordResult::otherNotWritten;
    } else if (!dropped && !index.put(fresh, size)) {
      return RecordResult::freshNotWritten;
    }
  }
  // A copy that could not be read to its end is not the whole index.
  if (ferror(old)) return RecordResult::otherNotWritten;
  return index.commit() ? RecordResult::done : RecordResult::freshNotWritten;
}

}  // namespace stores
