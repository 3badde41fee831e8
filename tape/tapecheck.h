// Whether the tape that an operator means is the one in the drive.
#pragma once

namespace tape {

// 0 when the tape in the drive carries this drive's and tape's numbers; -1 after a message, and
// after the label of the tape that is there when it is another one.
int checkInserted(int drive, int tape);

}  // namespace tape
