// What the packer of a run has packed so far, for the data sender's record of the run: the two are
// processes of their own.
#pragma once
#include <stdint.h>
#include <stdio.h>
#include <zul/mrepl.h>

#include "mrepl/treedigest.h"

namespace mrepl {

class Packed {
 public:
  // In the data sender's process, before the packer is forked. Without it nothing is counted.
  void begin();
  void end();

  // In the packer. A header begins an entry; then its content; then it is packed as a whole, or
  // what stands at path cannot be sent.
  void newEntry();
  void content(const void *data, size_t length);
  void done(const mfilehead &header, uint64_t size);
  void unsent(const char *path, const char *reason);
  void finish();

  // In the data sender.
  struct Count {
    uint64_t entries, bytes, unsent;
    bool finished;
    char digest[TreeDigest::kTextBytes];  // when finished
  };
  Count count() const;
  // What could not be sent, as JSON objects with commas between.
  void writeUnsent(FILE *out) const;

 private:
  Count *shared_ = nullptr;
  FILE *list_ = nullptr;
  TreeDigest digest_;
};

extern Packed packed;

}  // namespace mrepl
