// What the rest of the system relies on in a tape drive, point by point, through the interface that
// it uses. The same points run against a virtual drive (tests/unit/drive) and against the kernel's
// tape driver (tests/realtape), so that nothing above the interface can tell which it has.
#pragma once
#include <stdio.h>

#include <functional>
#include <string>

namespace conformance {

// Who changes cartridges while the points run. Without an operator those points are left out.
struct Operator {
  std::function<void()> eject, insert;
  std::function<void(bool)> protect;
  explicit operator bool() const { return eject && insert && protect; }
};

// Runs every point against the drive, which holds a blank, writable cartridge of a few MiB and does
// not rewind at close; its content is lost. One line for each point goes to out, "[point] what:
// seen
// -> OK" or "-> DIFFERS, expected ...". Returns how many differ.
int run(const std::string &device, FILE *out, const Operator &hand = {});

}  // namespace conformance
