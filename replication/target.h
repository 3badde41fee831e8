// Files as a receiving host creates them: where a received name goes, and how it gets there.
//
// Used by the restore agent, and by the receiver of a replication. Under "sound" (area receive)
// everything happens beneath the destination root, whatever links stand in the way; an existing
// file is replaced whole or not at all; directories get their times when everything in them is
// there. Classic follows links and writes in place, as installed agents do.
#pragma once
#include <stddef.h>
#include <stdint.h>
#include <sys/stat.h>
#include <zul/records.h>

namespace target {

// Room for a root and a name, each at most 256 characters.
constexpr size_t kPathRoom = 1024;

// wantFile with room of its own for path: 0, or with an empty path -1 when what is there is to be
// kept, and kRefused (see lastError) when the name cannot be used at all.
constexpr int kRefused = -13;
int choosePath(const package &header, const char *root, int conflict, char *path, size_t room);

// What stands at a path, as lstat gives it; under "sound" beneath the root that was begun. False
// when there is nothing.
bool lookAt(const char *path, struct stat *there);
// kRefused, with the reason as lastError.
int refuse(const char *what, const char *path);

// Bytes of the segment that a header introduces: what is left of the file, at most PACK_CHUNK.
size_t segmentLength(const package &header);

// Begins a reception below root. Ends an earlier one.
void begin(const char *root);
// Gives the directories made meanwhile their permissions and times, drops an unfinished file. False
// when a file was unfinished, or a directory cannot be finished.
bool end();

// Results of creating, beside 0. The text of the last failure stands in lastError().
constexpr int kNotADirectory = -2;
constexpr int kCannotOpen = -3;
constexpr int kNoParent = -4;
constexpr int kCannotOwn = -5;
constexpr int kShortWrite = -11;
constexpr int kUnfinished = -12;
const char *lastError();

// What there is to say beside a result. A restore and a replication have their own texts for it;
// the restore's, on standard error, are in force until setRemarks.
enum class Remark { timesNotSet, linkNotMade };
void setRemarks(void (*print)(Remark remark, const char *path));

// Classic: the times of whatever stands at the path; a failure is only a warning.
void setTimesOf(const package &header, const char *path);

// For a directory that is there and is kept: under "sound" it keeps its times too, whatever is put
// into it meanwhile.
void keepDirectory(const package &header, const char *root);

int makeDirectory(const package &header, const char *path);
// text is the target, terminated. A link that cannot be created is only a warning in classic.
int makeLink(const package &header, const char *path, const char *text);

// One regular file, segment by segment: openSegment for every header, put for its bytes,
// closeSegment with the result so far. Under "sound" the file appears under its name with its last
// byte.
int openSegment(const package &header, const char *path);
int put(const void *data, size_t n);
int closeSegment(const package &header, const char *path, int result);

}  // namespace target
