// What the area shares about tapes in drives.
#pragma once
#include <zul/records.h>

#include "drive/drive.h"
#include "drive/reservation.h"

namespace tape {

// Owns one open drive. Not for frames that an alarm may jump over.
class OpenDrive {
 public:
  explicit OpenDrive(int fd) : fd_(fd) {}
  OpenDrive(const OpenDrive &) = delete;
  OpenDrive &operator=(const OpenDrive &) = delete;
  ~OpenDrive() { close(); }

  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }
  // False, with errno, when the drive could not end the tape file: what was written last may be
  // lost.
  bool close() {
    int fd = fd_;
    fd_ = -1;
    return fd < 0 || drive::closeDrive(fd) == 0;
  }

 private:
  int fd_;
};

// Reserves a drive for several calls in a row, waiting for it as an opening does. Where another
// process keeps it longer, the first opening says so.
void reserveDrive(drive::Reservation *reservation, const char *device);

// How long a tape may be silent before readt gives up, in milliseconds; no setting, but the tests
// lower it.
extern int readLimitMs;

// True for a path that names a tape device; anything else is an ordinary file, which takes neither
// a label nor a backup.
bool isDevice(const char *device);

// A label that no tape carries, for getTapeHead to leave alone when it finds none.
tapehead noLabel();
// True for a record that getTapeHead has filled.
bool isLabel(const tapehead &label);
// Prints a label on standard error, field by field.
void printLabel(const tapehead &label);

}  // namespace tape
