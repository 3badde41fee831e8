// Reads the packages of a volume from a drive, block by block.
//
// A package is a header block of 520 bytes and the blocks of its segment, none of which is that
// long: so a header is known by its length and its first bytes wherever it stands, and a package
// that was broken off, or a block that cannot be read, costs what it holds and nothing behind it.
#pragma once
#include <stdint.h>
#include <sys/types.h>
#include <zul/records.h>

#include <memory>

namespace tape {

class PackageReader {
 public:
  // The tape stands at the start of the volume's data.
  explicit PackageReader(int tape);

  // The next header; false at the end of the data, and where nothing more can be made of the tape.
  // What was neither loaded nor skipped of the package before is passed over.
  bool next();
  const package &header() const { return header_; }
  const char *raw() const { return raw_; }

  // Reads the segment behind the header into memory; false when it is not there whole.
  bool load();
  const char *segment() const { return segment_.get(); }

  // Passes over the segment: by the drive's own spacing, which trusts the header, or (careful)
  // block by block.
  void skip();

  // Back to the start of the volume's data; from there on, careful or not. False when the drive
  // does not get there.
  bool again(bool careful);

 private:
  bool takeHeader(const char *block, ssize_t length);

  int tape_;
  int dataFile_ = -1;  // the tape file the data is in, once known
  bool careful_ = false;
  bool ended_ = false;
  bool ahead_ = false;  // the header was read already: it stood where a segment was expected
  size_t unread_ = 0;   // blocks of the current segment that are still before us
  package header_;
  char raw_[PACK_SIZE];
  std::unique_ptr<char[]> segment_;
};

}  // namespace tape
