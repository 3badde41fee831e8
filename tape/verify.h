// Reading a volume back to see whether it is all there.
#pragma once

// "DRIVE TAPE VOLUME": checks the tape in the drive, releases the console, detaches, reads the
// volume and writes what it finds to var/tape/verify.status (and its progress record). A volume
// without a fault is marked as verified in its catalog directory, "vol.N.verified". 0, 1 too few
// words, -1.
int goVerify(char *rest);
