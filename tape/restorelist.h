// The restore list: which packages of a volume are wanted, in tape order.
//
// One file name per line, once per package, so a file of several megabytes stands there several
// times. Under "sound" a line "#host=NAME" says which host the names behind it belong to (a volume
// holds the same path of many hosts), and mkRestoreList, or a selection by names, writes one
// whenever the host changes.
#pragma once
#include <stdio.h>

#include "base/text.h"

namespace tape {

constexpr char kHostLine[] = "#host=";

// One line of a volume list, cut into its fields.
struct VolumeLine {
  long entry;
  const char *host;
  long sequence;
  const char *name;
};
// Cuts a line in place (at most 4 fields, the name keeps its ':'); false when it has fewer.
bool cutVolumeLine(char *line, VolumeLine *out);

// Writes restore-list lines, with the host lines they need.
class RestoreListWriter {
 public:
  RestoreListWriter(FILE *file, bool hosts) : file_(file), hosts_(hosts) {}
  void add(const char *host, const char *name);
  long lines() const { return lines_; }

 private:
  FILE *file_;
  bool hosts_;
  char host_[128] = "";
  long lines_ = 0;
};

// Makes a restore list from a selection by names: selection holds one wanted path per line,
// "host:path", a trailing '/' takes the tree. Every line that matches nothing is named on stderr.
// 0, or -1 after a message.
int selectByName(const char *selection, const char *volumeList, const char *listFile);

}  // namespace tape
