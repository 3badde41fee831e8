// How the extracter brings a file to disk, block by block.
#pragma once
#include <stddef.h>
#include <zul/mrepl.h>

namespace mrepl {

// Bytes of content of a header in host order.
uint64_t sizeOf(const mfilehead &header);
// At the start and end of a run.
void beginRestoring();
void endRestoring();
// A block of the file that restoreFile has opened; bytes written, less than 1 when it failed.
long putBlock(uint64_t *position, int length, const void *data);
// The file is whole: it gets owner, permissions and times. content: it came in segments of its own,
// not with its header. 0 or a code of logError.
int finishFile(mfilehead *header, bool content);
// The file will not become whole: what can be taken back is.
void dropFile();
// Access and modification time of what is there under the header's name.
void setTimes(const mfilehead &header);
// Why the last file failed, in words.
const char *failureText(int code);

}  // namespace mrepl
