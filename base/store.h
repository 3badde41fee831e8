// The one way a store of the site (a table, an index, a list; text or binary) is opened for
// writing.
//
// Classic: the store itself is appended to, or truncated and rewritten from its copy "<store>.BAK".
// What goes wrong in the middle leaves it partly written, and the copy holds the former content for
// the operator. Sound (area stores): the changes go to "<store>.tmp", which is flushed to disk and
// renamed over the store at commit(), all under an advisory lock on "<store>.lock". A full disk, a
// failure or a kill at any moment leaves the old store whole, and of two changes at the same time
// both survive. The .BAK copy is made all the same.
//
// The steps are separate calls, because every store has its own order of them and its own message
// for each. In the sound behaviour the first step that fails adds its reason, in words, to stderr
// and the host's log.
//
//   base::Store store(path);                                // sound: takes the lock
//   if (!store.backUp(filecopy)) return complain();         // <store>.BAK
//   base::File old = store.openBackup();                    // read the former content from here
//   if (!old || !store.beginRewrite()) return complain();   // or beginAppend(), which needs no
//   copy
//   ... if (!store.put(data, length)) return complain();
//   return store.commit() ? 0 : complain();                 // without it a sound store stays as it
//   was
//
// One object per store at a time in a process: a second one would wait for the first one's lock.
#pragma once
#include <stddef.h>
#include <stdio.h>
#include <sys/types.h>

#include "base/fd.h"
#include "base/text.h"

namespace base {

class Store {
 public:
  // What a store is made of. A sound append begins at a boundary, so that the tail of an
  // interrupted write does not swallow the new entry: a line gets its missing line feed, a partial
  // record is cut off.
  static constexpr size_t kLines = 0;  // lines of text
  static constexpr size_t kBytes = 1;  // no boundaries to keep
  // Any larger unit is the size of the records.

  explicit Store(const char *path, size_t unit = kLines, int lockLimitMs = 30000);
  ~Store();
  Store(const Store &) = delete;
  Store &operator=(const Store &) = delete;

  // A store that is created is for its owner's eyes alone; else the process's mask decides.
  void ownerOnly() { createMode_ = 0600; }

  const char *path() const { return path_; }
  const char *backup() const { return backup_; }

  // Makes an empty store where there is none, for stores whose copy is taken even before the first
  // entry.
  void createIfMissing();
  // Copies the store to its backup with the host's filecopy or filecpy. False when that fails.
  bool backUp(int (*copy)(const char *from, const char *to));
  bool backUp(int (*copy)(const char *from, const char *to, int flags));
  // The backup, open for reading; an empty owner when it cannot be opened.
  File openBackup();
  // Opens the store for its new content, or for more behind its present one; it is created where
  // missing.
  bool beginRewrite();
  bool beginAppend();
  // Writes all of data, unbuffered: what put() has accepted stands in a classic store at once.
  bool put(const void *data, size_t length);
  bool putText(const char *format, ...) __attribute__((format(printf, 2, 3)));
  // Closes the store; sound: this is the moment the change takes effect. False when a step failed
  // before, or when not all of it was written.
  bool commit();

 private:
  bool lock(int limitMs);
  bool openLive(int flags);
  bool openTemporary();
  bool copyLive(int live);
  bool keepBoundary();
  bool publish();
  bool refuse(const char *what);

  char path_[kPathMax];
  char backup_[kPathMax];
  char target_[kPathMax];     // sound: what the rename replaces, path_ with links resolved
  char temporary_[kPathMax];  // sound: not empty while there is one to remove
  size_t unit_;
  mode_t createMode_ = 0666;
  bool sound_;
  bool usable_ = false;
  bool failed_ = false;  // a step failed: nothing may take effect any more
  Fd lock_;
  Fd out_;
};

}  // namespace base
