// What the configuration stores have in common: which words they take, how long a line may be, and
// the two kinds of rewrite, of tables of text lines and of files of fixed-size records.
#pragma once
#include <stddef.h>
#include <stdio.h>

#include "base/lines.h"
#include "base/store.h"

namespace stores {

// True when a number that names a drive, a job or a group must not be taken as it is; has said so
// then. Classic stores take any text.
bool keyRefused(const char *number);

// The same for an entry that would not fit one line of its store: longer than most characters, or
// with a line feed in it.
bool entryRefused(const char *entry, size_t most);

// How long a line is read at a time: classic characters, or whole.
size_t lineLimit(size_t classic);

// Says that a store was opened but not written, where the store has no message of its own for it.
// Always -1.
int notWritten(const base::Store &store);

// For the end of a listing: 0, or -1 when it broke off for want of memory, which is said then: a
// part, or nothing at all, must not pass for everything.
int endListing(const base::LineReader &lines);

// One change of a table of ':'-separated lines.
struct TableChange {
  int splits;                // a line is split at most so often,
  int least, most;           // and must have so many fields then
  const char *key;           // the first field of the lines to replace, compared over 32 characters
  char **fresh;              // the fields that replace theirs;
  int freshCount;            // a first one of exactly "DEL" drops the line
  int carried;               // an old field that stays behind the fresh ones, or -1
  char lastName[1024] = "";  // out: the second field of the last line that was split
};

enum class TableResult { done, notFound, badFormat, noMemory, notWritten };

// Copies old to table, which is open for its rewrite, with the change applied to every line that
// matches. Comments and blank lines are kept byte for byte. Leaves the commit to the caller.
TableResult rewriteTable(base::Store &table, FILE *old, TableChange &change);

// In both kinds of records the key stands behind a reserved word. Replaced by a record with this
// key, a record is deleted.
constexpr size_t kKeyOffset = 4;
constexpr int kDeletedKey = -9999;

// Reads on to the record with this key: true, and record is filled. A partial record at the end is
// none.
bool findRecord(FILE *in, int key, void *record, size_t size);

enum class RecordResult { done, otherNotWritten, freshNotWritten };

// Copies old to index, which is open for its rewrite, with every record of this key replaced, and
// commits.
RecordResult rewriteRecords(base::Store &index, FILE *old, int key, const void *fresh, size_t size);

}  // namespace stores
