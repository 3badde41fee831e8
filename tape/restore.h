// Restore as the rest of the module sees it.
#pragma once

// "DRIVE TAPE VOLUME ENTRIES HOST [DESTINATION [CONFLICT]]": restores from tape. 0, or negative.
int goRestore(char *args);
// The agent's side: receives a restore below destination under a conflict mode. 0, or negative.
int restoreIt(char *destination, int conflict);
