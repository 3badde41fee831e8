// What a replication job would send, without sending it.
#pragma once

namespace replication {

// Prints on standard error, the requester's console: a line "host", TAB, NAME for each target, then
// for each entry "entry", TAB, and TYPE, MODE, OWNER, GROUP, SIZE, MTIME, SOURCE and TARGET with
// TABs between. TYPE is one letter: f d l c b, or - for what cannot be sent. 0 or -1.
int preview(int job);

}  // namespace replication
