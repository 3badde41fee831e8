// A tape as one file, in the SIMH layout that other tape tools read too. A data record is its
// length, the data padded to an even number of bytes, and the length again; a file mark is the
// length 0; all lengths are 32-bit little-endian.
//
//   [len][data, pad][len] [len][data, pad][len] [0] [len][data, pad][len] [0]
//
// The end of the file is the end of the data. A last record that runs past it was never finished
// (its writer was killed, or the disk was full) and counts as the end of the data as well. Lengths
// that disagree, or longer than a drive writes, are damage.
//
// The frames here are plain: an alarm may jump over a read.
#pragma once
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

namespace drive::image {

constexpr uint32_t kBlockMax = 1024 * 1024;
constexpr int64_t kWord = 4;  // a length, or a mark

enum class Kind { data, mark, end, damage };

// What stands at a place. next is where the following thing begins (before it, looking back);
// meaningful for data and marks.
struct Record {
  Kind kind;
  uint32_t length;  // of the data, without the pad
  int64_t at;       // where it begins, erase gaps passed
  int64_t next;
};

// The room a block takes.
constexpr int64_t roomFor(size_t length) {
  return kWord + static_cast<int64_t>(length + (length & 1)) + kWord;
}

// By its first length alone. A record of data must be confirmed by takeData or isWhole.
Record look(int image, int64_t offset);

// Copies the data of a record that look found, which fits into buf. Kind::data, or what the place
// turned out to be.
Kind takeData(int image, const Record &record, void *buf);

// The same without the data: is its second length there, and right?
Kind confirm(int image, const Record &record);

// What stands in front of offset; end there means the beginning of the tape.
Record lookBack(int image, int64_t offset);

// Steps over many records with one small read for each, which takes a record's second length and
// the next one's first.
class Walk {
 public:
  Walk(int image, int64_t offset) : image_(image), offset_(offset) {}
  // What stands here, confirmed; moves behind it when it is data or a mark.
  Record next();
  int64_t offset() const { return offset_; }

 private:
  int image_;
  int64_t offset_;
  uint32_t ahead_ = 0;  // the length at offset_, when it was read already
  bool isAheadKnown_ = false;
};

// Writes one block at offset in one system call. The room it took, or -1 with errno and nothing
// but the former content before offset: a block that does not fit whole is taken back.
int64_t putBlock(int image, int64_t offset, const void *buf, size_t length);

// Writes marks; 0, or -1 with errno and none of them there.
int putMarks(int image, int64_t offset, int count);

}  // namespace drive::image
