// Where the file marks of a cartridge are: "CART.marks" beside its image. Skipping to a volume on a
// tape of some hundred gigabytes would otherwise look at every block in between.
//
// It is a convenience that the image can always do without: it belongs to the image as it was left,
// is dropped when that has changed since, and no entry is believed without a look at the image.
#pragma once
#include <stdint.h>

namespace drive {

struct Marks {
  int fd;  // -1: not available, which costs only time
};

// For an image at rest; begins an empty list when there is none that belongs to it.
Marks openMarks(const char *cartridge, int image);
// The image is about to change behind the first count marks.
void cutMarks(const Marks &marks, int count);
// The image is at rest again, and the list is right as far as it goes.
void sealMarks(const Marks &marks, int image);

// A mark was written or passed: the number-th, counted from 0, and the place behind it. Taken when
// it is the next one to be listed.
void addMark(const Marks &marks, int number, int64_t behind);
// How many marks are listed.
int countMarks(const Marks &marks);
// The place behind a listed mark, confirmed by the image; -1 when it cannot be.
int64_t behindMark(const Marks &marks, int image, int number);

}  // namespace drive
