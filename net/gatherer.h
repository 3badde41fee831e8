// What the gatherer's sources share: the guard of its alarm, its log, the file it is about to send.
//
// The dialogue is left by a jump from its SIGALRM handler, over every frame below servHandshak. So
// these frames hold plain data, and whatever takes a lock of the C library (printing, the list's
// stream, name look-ups) is done between guard.hold() and guard.release().
#pragma once
#include <sys/types.h>
#include <zul/records.h>

#include "base/alarm.h"

namespace net {

extern base::AlarmGuard gathererGuard;

// Prints a line on the status log, out of reach of the alarm.
void note(const char *format, ...) __attribute__((format(printf, 1, 2)));

constexpr size_t kNameMax = 256;   // characters of a path that a header can carry
constexpr size_t kLinkMax = 8191;  // characters of a link target

// What this gatherer was asked for. A tape host that names another request ("Job ID SINCE", under
// sound stream) has reached a gatherer that an earlier job left waiting on the same port: served
// this one's list, it would file it as that of its own job. Not called in a replication.
void expectRequest(int reqid, int since);

// A file as it is offered to the peer.
struct Source {
  char path[kNameMax + 1];
  package header;
  bool pinned;              // its contents were fixed together with the header: see describeSource
  int fd;                   // of the open file, else -1
  char link[kLinkMax + 1];  // target of a pinned link
  bool explained;           // a message about it stands in the log already
};

// Fills the header for path, as the peer will see it. On a site with the stream remedies the
// contents are pinned: the peer counts on the size in the answer to "Next", and what happens to the
// file until and during "Get" must not change a byte of the count. 0, or the negative code of
// getFileData.
int describeSource(Source *source, int repmode, const char *path, char **transforms);

// Sends header and contents. The codes of sendFile.
long sendSource(Source *source, int sd);

// Closes what is open of it.
void releaseSource(Source *source);

// Lets go of the file that sendFile was jumped out of, if there is one.
void releaseSingle();

// True for a file whose stream form would be cut: the size travels in 32 bits.
bool tooLargeForStream(const package &header);

}  // namespace net
