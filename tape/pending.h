// The note "catalog.pending" in a tape's directory: while it stands, the tape's catalog counts a
// volume whose two tape files may not both have their marks yet. A job that is killed leaves it to
// the next one, which then sees to it that catalog and tape agree. Sound backups only.
#pragma once

namespace tape {

// Before the volume's record is appended; on disk when this returns. False when it cannot be made.
bool notePending(int drive, int tape, int volume);
bool isPending(int drive, int tape);
// The volume of the note; 0 when there is none that can be read.
int pendingVolume(int drive, int tape);
// The volume is complete on tape. Not when it is out of the catalog again: the tape may still hold
// the beginning of it, which the next job has to know for what it is.
void clearPending(int drive, int tape);
// Copies a file of the tape's directory over another one.
bool copyTapeFile(int drive, int tape, const char *from, const char *to);
// Writes a file of the tape's directory through to the disk.
void syncTapeFile(int drive, int tape, const char *name);

}  // namespace tape
