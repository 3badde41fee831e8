// What init needs of the virtual drives.
#pragma once
#include <stdint.h>

#include <string>

namespace console {

// Makes the drive and a loaded cartridge where there is no drive of that name yet; leaves an
// existing drive as it is.
void makeFirstDrive(const std::string &drive, const std::string &cartridge, uint64_t capacity);

}  // namespace console
