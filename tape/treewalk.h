// Walking a tree into a request list: lines "NUMBER PATH" that another process reads while they are
// written.
#pragma once
#include <dirent.h>
#include <stddef.h>
#include <sys/stat.h>
#include <time.h>

namespace lists {

// What ends a line of a backup list, and cannot stand in a name: as in the "C" locale, whatever the
// host set.
bool isControl(char c);

// Writes whole lines to a list. Lines are gathered, because a system call for each costs more than
// finding the file, but never kept for long: the gatherer on the other end reads on while the walk
// runs. A line is written whole or, on a full disk, not at all as far as the reader can tell: the
// first failure ends the list.
class LineWriter {
 public:
  // count is the number of the next line and is the caller's.
  LineWriter(int fd, int *count) : fd_(fd), count_(count) {}
  LineWriter(const LineWriter &) = delete;
  LineWriter &operator=(const LineWriter &) = delete;

  // Adds "NUMBER PATH" and, for a directory, '/'. False when writing failed, now or before.
  bool add(const char *path, size_t length, bool directory);
  // Writes what has waited long enough.
  bool settle();
  // Writes everything.
  bool flush();

 private:
  int fd_;
  int *count_;
  bool failed_ = false;
  long long oldest_ = 0;  // when the first of the waiting lines was added
  size_t used_ = 0;
  char buffer_[32768];
};

// One walk. Directories are opened relative to their parent and never through a link, so a tree
// that changes under the walk cannot lead it elsewhere, and the length of a path bounds its depth.
class TreeWalk {
 public:
  // Entries modified later than newer are listed (under "sound" also what came or changed otherwise
  // since then, and all for a newer of 0); the sizes of all that is seen are added to bytes.
  TreeWalk(LineWriter &lines, long *bytes, time_t newer);

  // Walks the tree at path, a buffer of base::kPathMax bytes, which is used to build names and
  // restored. False when the list cannot be written.
  bool run(char *path);

 private:
  bool visit(int parent, const char *name, size_t length, dev_t device);
  bool hasChanged(const struct stat &status) const;
  bool standsBelowRoot(size_t length) const;
  bool descend(int parent, const char *name, size_t length, dev_t own, dev_t above);
  bool readEntries(DIR *dir, size_t length, dev_t device);
  bool visitEntry(DIR *dir, const char *name, size_t length, dev_t device);
  void notice(const char *what, int cause) const;

  LineWriter &lines_;
  long *bytes_;
  time_t newer_;
  bool sound_;
  char *path_ = nullptr;
};

}  // namespace lists
