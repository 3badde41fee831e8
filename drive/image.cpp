// Blocks and marks in the image of a cartridge, for the virtual drives; in every process that has
// one open.
#include "drive/image.h"

#include <endian.h>
#include <errno.h>
#include <string.h>
#include <sys/uio.h>
#include <unistd.h>

namespace drive::image {

static constexpr uint32_t kEndOfMedium = 0xffffffff;  // other tools may close a tape with it
static constexpr uint32_t kGap = 0xfffffffe;          // and leave such words where they erased

// The word at offset; 4, fewer at the end of the file, -1 on failure.
static ssize_t readWord(int image, int64_t offset, uint32_t *word) {
  uint32_t raw = 0;
  ssize_t got = pread(image, &raw, sizeof raw, offset);
  *word = le32toh(raw);
  return got;
}

static Record recordOf(uint32_t word, int64_t at) {
  if (word == 0) return {Kind::mark, 0, at, at + kWord};
  if (word == kEndOfMedium) return {Kind::end, 0, at, at};
  if (word > kBlockMax) return {Kind::damage, 0, at, at};
  return {Kind::data, word, at, at + roomFor(word)};
}

Record look(int image, int64_t offset) {
  for (;; offset += kWord) {
    uint32_t word;
    ssize_t got = readWord(image, offset, &word);
    if (got < 0) return {Kind::damage, 0, offset, offset};
    if (got < kWord) return {Kind::end, 0, offset, offset};
    if (word != kGap) return recordOf(word, offset);
  }
}

Kind takeData(int image, const Record &record, void *buf) {
  unsigned char tail[1 + kWord];  // the pad, if any, and the second length
  size_t pad = record.length & 1;
  iovec parts[] = {{buf, record.length}, {tail, pad + kWord}};
  ssize_t got = preadv(image, parts, 2, record.at + kWord);
  if (got < 0) return Kind::damage;
  if (got < static_cast<ssize_t>(record.length + pad + kWord)) return Kind::end;
  uint32_t word;
  memcpy(&word, tail + pad, sizeof word);
  return le32toh(word) == record.length ? Kind::data : Kind::damage;
}

Kind confirm(int image, const Record &record) {
  uint32_t word;
  ssize_t got = readWord(image, record.next - kWord, &word);
  if (got < 0) return Kind::damage;
  if (got < kWord) return Kind::end;
  return word == record.length ? Kind::data : Kind::damage;
}

Record lookBack(int image, int64_t offset) {
  for (; offset >= kWord; offset -= kWord) {
    uint32_t word;
    if (readWord(image, offset - kWord, &word) != kWord) break;
    if (word == kGap) continue;
    if (word == 0) return {Kind::mark, 0, offset - kWord, offset - kWord};
    if (word > kBlockMax || roomFor(word) > offset) break;
    int64_t at = offset - roomFor(word);
    uint32_t first;
    if (readWord(image, at, &first) != kWord || first != word) break;
    return {Kind::data, word, at, at};
  }
  return {offset == 0 ? Kind::end : Kind::damage, 0, offset, offset};
}

Record Walk::next() {
  Record record =
      isAheadKnown_ && ahead_ != kGap ? recordOf(ahead_, offset_) : look(image_, offset_);
  isAheadKnown_ = false;
  if (record.kind == Kind::data) {
    uint32_t words[2];
    ssize_t got = pread(image_, words, sizeof words, record.next - kWord);
    if (got < kWord)
      record.kind = got < 0 ? Kind::damage : Kind::end;
    else if (le32toh(words[0]) != record.length)
      record.kind = Kind::damage;
    else if (got == sizeof words) {
      ahead_ = le32toh(words[1]);
      isAheadKnown_ = true;
    }
  }
  if (record.kind == Kind::data || record.kind == Kind::mark) offset_ = record.next;
  return record;
}

// A whole write, or none: what a full disk has let in would be a torn record.
static bool putWhole(int image, int64_t offset, const iovec *parts, int count, int64_t total) {
  ssize_t put = pwritev(image, parts, count, offset);
  if (put == total) return true;
  // A short write does not say why; the same call again does, or succeeds after all.
  if (put >= 0) put = pwritev(image, parts, count, offset);
  if (put == total) return true;
  // To the caller a tape that takes no more has no room, whichever limit of the host was met.
  int error = put >= 0 || errno == EFBIG || errno == EDQUOT ? ENOSPC : errno;
  (void)!ftruncate(image, offset);
  errno = error;
  return false;
}

int64_t putBlock(int image, int64_t offset, const void *buf, size_t length) {
  const uint32_t word = htole32(static_cast<uint32_t>(length));
  unsigned char tail[1 + kWord] = {0};
  const size_t pad = length & 1;
  memcpy(tail + pad, &word, sizeof word);
  const iovec parts[] = {{const_cast<uint32_t *>(&word), sizeof word},
                         {const_cast<void *>(buf), length},
                         {tail, pad + kWord}};
  const int64_t room = roomFor(length);
  return putWhole(image, offset, parts, 3, room) ? room : -1;
}

int putMarks(int image, int64_t offset, int count) {
  static const unsigned char kZeros[1024] = {0};
  int64_t at = offset;
  for (int64_t left = count * kWord; left > 0;) {
    size_t size =
        left < static_cast<int64_t>(sizeof kZeros) ? static_cast<size_t>(left) : sizeof kZeros;
    const iovec part = {const_cast<unsigned char *>(kZeros), size};
    if (!putWhole(image, at, &part, 1, static_cast<int64_t>(size))) {
      int error = errno;
      (void)!ftruncate(image, offset);
      errno = error;
      return -1;
    }
    at += static_cast<int64_t>(size);
    left -= static_cast<int64_t>(size);
  }
  return 0;
}

}  // namespace drive::image
