// Reads packages for the tape side of a restore, in the restore job's process.
#include "tape/packagereader.h"

#include <errno.h>
#include <string.h>
#include <zul/net.h>

#include "base/log.h"
#include "drive/drive.h"
#include "replication/target.h"

namespace tape {

namespace {

constexpr size_t kTapeUnit = 512;       // blocks of a segment are multiples of this
constexpr int kUnreadableBlocks = 100;  // one after the other: then the tape is given up

size_t roundedUp(size_t n) {
  return (n + kTapeUnit - 1) / kTapeUnit * kTapeUnit;
}

size_t blocksOf(const package &header) {
  return (target::segmentLength(header) + PACK_PIECE - 1) / PACK_PIECE;
}

}  // namespace

PackageReader::PackageReader(int tape) : tape_(tape) {
  mtget where;
  if (drive::status(tape, &where) == 0) dataFile_ = static_cast<int>(where.mt_fileno);
}

bool PackageReader::takeHeader(const char *block, ssize_t length) {
  if (length != PACK_SIZE || memcmp(block, "ZuL!", 4) != 0) return false;
  memcpy(raw_, block, PACK_SIZE);
  return unpackPackage(raw_, &header_) >= 0;
}

bool PackageReader::next() {
  if (ahead_) {
    ahead_ = false;
    unread_ = blocksOf(header_);
    return true;
  }
  long foreign = 0;
  char block[PACK_PIECE];
  for (int bad = 0; !ended_ && bad < kUnreadableBlocks;) {
    ssize_t got = drive::readBlock(tape_, block, sizeof block);
    if (got == 0) break;
    if (got < 0) {
      bad++;
      base::print(stderr, "WARNING:  A block of the tape cannot be read: %s\n", strerror(errno));
      continue;
    }
    bad = 0;
    if (takeHeader(block, got)) {
      if (foreign)
        base::print(stderr, "WARNING:  Passed over %li blocks that belong to no package\n",
                    foreign);
      unread_ = blocksOf(header_);
      return true;
    }
    if (unread_ > 0)
      unread_--;
    else
      foreign++;
  }
  ended_ = true;
  return false;
}

bool PackageReader::load() {
  // Every read asks for a longest block: a header that stands where the rest of a segment was
  // expected would not fit a shorter one, and be gone.
  if (!segment_) segment_ = std::make_unique<char[]>(PACK_CHUNK + PACK_PIECE);
  size_t length = target::segmentLength(header_);
  for (size_t at = 0; at < length; unread_--) {
    size_t want = roundedUp(length - at < PACK_PIECE ? length - at : PACK_PIECE);
    ssize_t got = drive::readBlock(tape_, segment_.get() + at, PACK_PIECE);
    if (got == static_cast<ssize_t>(want)) {
      at += want;
      continue;
    }
    base::print(stderr, "ERROR:  The tape breaks off within %s: %s\n", header_.filename,
                got < 0 ? strerror(errno) : "something else follows");
    ended_ = got == 0;
    ahead_ = got > 0 && takeHeader(segment_.get() + at, got);
    return false;
  }
  return true;
}

void PackageReader::skip() {
  // Spacing costs one call for 128 blocks and moves no data.
  if (careful_ || ahead_ || unread_ == 0) return;
  ended_ = drive::operate(tape_, MTFSR, static_cast<int>(unread_)) != 0;
  unread_ = 0;
}

bool PackageReader::again(bool careful) {
  careful_ = careful;
  ended_ = ahead_ = false;
  unread_ = 0;
  return dataFile_ >= 0 && drive::operate(tape_, MTREW, 1) == 0 &&
         drive::operate(tape_, MTFSF, dataFile_) == 0;
}

}  // namespace tape
