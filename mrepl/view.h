// What the packer asks about the view besides its content.
#pragma once
#include <stddef.h>
#include <sys/stat.h>

namespace mrepl {

// Bytes of the view that the file really has; the others were filled up with zeros.
size_t viewHolds();
// The file that is open. False when there is none.
bool viewStatus(struct stat *status);

}  // namespace mrepl
