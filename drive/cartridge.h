// Virtual drives and their cartridges, as the operator's command handles them. Nothing here stops
// a running daemon or job: a drive that is in use says so.
//
// Every call that can fail returns what is wrong in words for the operator, without a line end;
// an empty text means that it was done.
#pragma once
#include <stdint.h>

#include <string>
#include <vector>

namespace drive {

using Problem = std::string;

constexpr uint64_t kCapacityMin = 64ULL * 1024;
constexpr uint64_t kCapacityMax = 1ULL << 60;

struct CartridgeInfo {
  std::string name;
  uint64_t capacityBytes = 0;  // 0: without limit (an image that was put on the shelf by hand)
  uint64_t usedBytes = 0;      // length of the image
  bool isProtected = false;
  std::string drive;  // where it is loaded, or empty
};

struct DriveInfo {
  std::string name;
  std::string device;     // what goes into the drive table: "/dev/vtape/NAME"
  std::string cartridge;  // empty: none loaded
  bool isBusy = false;
  int holder = 0;                 // the process that opened it, when it is busy
  int fileNo = -1, blockNo = -1;  // position; -1: not known
};

// Names of drives and cartridges: 1 to 63 letters, digits, '.', '_' and '-', the first one no '.'.
bool isTapeName(const char *name);

Problem makeDrive(const std::string &drive);
// An empty cartridge on the shelf. It takes room on the disk only as it is written.
Problem makeCartridge(const std::string &cartridge, uint64_t capacityBytes);
// Puts a cartridge from the shelf into an empty drive, at its beginning.
Problem loadCartridge(const std::string &drive, const std::string &cartridge);
// Takes the cartridge out; its name goes to *cartridge when that is not null.
Problem unloadCartridge(const std::string &drive, std::string *cartridge = nullptr);
// A protected cartridge is read only.
Problem protectCartridge(const std::string &cartridge, bool isProtected);

// In the order of their names; empty when there are none.
std::vector<DriveInfo> listDrives();
std::vector<CartridgeInfo> listCartridges();

// Faults on demand (docs/formats/vtape.md): the whole text replaces the former one, counting starts
// anew, and a process that has the drive open heeds it from its next call on. An empty text ends
// all faults.
Problem setFaults(const std::string &drive, const std::string &text);

}  // namespace drive
