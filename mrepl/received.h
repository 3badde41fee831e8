// What a receiver keeps of a run for whoever asks afterwards: var/tape/mrepljobs/received.json on
// its own disk. In the extracter, which knows what became of each file.
#pragma once
#include <stdint.h>
#include <stdio.h>
#include <sys/stat.h>
#include <time.h>
#include <zul/mrepl.h>

#include "mrepl/treedigest.h"

namespace mrepl {

class Received {
 public:
  // Nothing is received yet. Replaces the record of an earlier run, which no longer tells the
  // truth.
  void begin();
  // The run that a segment belongs to.
  void noteRun(uint32_t control);
  // A header begins an entry; content of it that was written.
  void newEntry() { digest_.newEntry(); }
  void content(const void *data, size_t length) { digest_.content(data, length); }
  // One file, directory, link or device is there, or is not; code as in logError.
  void done(const mfilehead &header, uint64_t bytes);
  void failed(const mfilehead &header, int code, const char *reason);
  // complete: the end of the run was reached.
  void finish(bool complete);

 private:
  void write(const char *state);
  bool isOurs(const char *path) const;

  // All have their values from the start: the one object of this class must need no work at load
  // time.
  uint32_t run_ = 0;
  time_t started_ = 0;
  time_t ended_ = 0;
  uint64_t files_ = 0;
  uint64_t bytes_ = 0;
  uint64_t failures_ = 0;
  bool reachedEnd_ = false;
  // The record as this receiver has written it last.
  ino_t file_ = 0;
  timespec written_ = {};
  TreeDigest digest_;
  FILE *list_ = nullptr;  // the failures as JSON objects, in a file: there may be many
};

extern Received received;

}  // namespace mrepl
