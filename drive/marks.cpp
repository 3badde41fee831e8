// The list of file marks beside an image, kept by the virtual drives and used when they skip.
#include "drive/marks.h"

#include <fcntl.h>
#include <limits.h>
#include <stddef.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "drive/image.h"
#include "drive/place.h"

namespace drive {

// The list: this head, then 8 bytes for each mark, all native.
struct MarksHead {
  char magic[8];
  uint64_t inode;  // of the image that it belongs to,
  int64_t size;    // as it was left; -1: it is being written
  int64_t time;    // of its last change, in nanoseconds
};
static_assert(sizeof(MarksHead) == 32 && offsetof(MarksHead, time) == 24);

static constexpr char kMagic[8] = {'Z', 'U', 'L', 'v', 't', 'm', '1', '\n'};

static off_t placeOf(int number) {
  return static_cast<off_t>(sizeof(MarksHead)) + static_cast<off_t>(number) * 8;
}

static bool headOf(int image, MarksHead *head) {
  struct stat status;
  if (fstat(image, &status) != 0) return false;
  memcpy(head->magic, kMagic, sizeof kMagic);
  head->inode = status.st_ino;
  head->size = status.st_size;
  head->time = int64_t{status.st_mtim.tv_sec} * 1000000000 + status.st_mtim.tv_nsec;
  return true;
}

Marks openMarks(const char *cartridge, int image) {
  Marks marks = {
      open(ShelfPath(cartridge, ".marks"), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0660)};
  MarksHead wanted = {}, found = {};
  if (marks.fd < 0 || !headOf(image, &wanted)) return marks;
  if (pread(marks.fd, &found, sizeof found, 0) == static_cast<ssize_t>(sizeof found) &&
      memcmp(&found, &wanted, sizeof found) == 0)
    return marks;
  giveToOwner(marks.fd);
  cutMarks(marks, 0);
  sealMarks(marks, image);
  return marks;
}

// A list that cannot be changed any more must not be believed either.
static void putHead(const Marks &marks, const MarksHead &head) {
  if (pwrite(marks.fd, &head, sizeof head, 0) != static_cast<ssize_t>(sizeof head))
    (void)!ftruncate(marks.fd, 0);
}

void cutMarks(const Marks &marks, int count) {
  if (marks.fd < 0) return;
  MarksHead open = {};
  open.size = -1;
  putHead(marks, open);
  if (count >= 0 && count < countMarks(marks)) (void)!ftruncate(marks.fd, placeOf(count));
  if (count < 0) (void)!ftruncate(marks.fd, placeOf(0));
}

void sealMarks(const Marks &marks, int image) {
  MarksHead head;
  if (marks.fd >= 0 && headOf(image, &head)) putHead(marks, head);
}

int countMarks(const Marks &marks) {
  struct stat status;
  if (marks.fd < 0 || fstat(marks.fd, &status) != 0 || status.st_size < placeOf(1)) return 0;
  off_t count = (status.st_size - placeOf(0)) / 8;
  return count < INT_MAX ? static_cast<int>(count) : INT_MAX;
}

void addMark(const Marks &marks, int number, int64_t behind) {
  if (marks.fd >= 0 && number >= 0 && countMarks(marks) == number)
    (void)!pwrite(marks.fd, &behind, sizeof behind, placeOf(number));
}

int64_t behindMark(const Marks &marks, int image, int number) {
  int64_t behind;
  if (marks.fd < 0 || pread(marks.fd, &behind, sizeof behind, placeOf(number)) != sizeof behind)
    return -1;
  // Zeros among the data would pass for a mark; they do not come behind a whole record.
  image::Record mark = image::lookBack(image, behind);
  if (mark.kind != image::Kind::mark || mark.next != behind - image::kWord) return -1;
  image::Record before = image::lookBack(image, mark.next);
  return before.kind == image::Kind::damage ? -1 : behind;
}

}  // namespace drive
