// Describing a file for the peer, and pinning what was described.
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zul/net.h>
#include <zul/tape.h>

#include "base/site.h"
#include "base/text.h"
#include "net/gatherer.h"

namespace net {

namespace {

// Opens what lstat has just called a regular file. It may be something else by now: a pipe must not
// block the gatherer, a link not lead it elsewhere. A file with a lease answers a non-blocking open
// with EWOULDBLOCK, and is worth the wait.
int openRegular(const char *path, struct stat *status) {
  int fd = open(path, O_RDONLY | O_NOFOLLOW | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0 && errno == EWOULDBLOCK) fd = open(path, O_RDONLY | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC);
  if (fd < 0) return -1;
  if (fstat(fd, status) == 0 && S_ISREG(status->st_mode)) return fd;
  close(fd);
  return -1;
}

// The header of an entry without contents, which the peer takes as "not there".
void describeAsMissing(Source *source) {
  source->header.type = 5;
  source->header.size = 0;
}

void pinRegular(Source *source) {
  struct stat status;
  source->fd = openRegular(source->path, &status);
  if (source->fd < 0) {
    note("WARNING:  3017  Open failed: %s, skipping.\n", source->path);
    source->explained = true;
    describeAsMissing(source);
    return;
  }
  // The file may have been replaced since it was looked at: the header is that of the file that is
  // open.
  source->header.usrid = status.st_uid;
  source->header.grpid = status.st_gid;
  source->header.mode = status.st_mode;
  source->header.mtime = static_cast<uint64_t>(status.st_mtime);
  source->header.atime = static_cast<uint64_t>(status.st_atime);
  source->header.size = static_cast<uint64_t>(status.st_size);
}

void pinLink(Source *source) {
  ssize_t length = readlink(source->path, source->link, kLinkMax);
  if (length < 0) {
    note("WARNING:  3024  Symlink error %i\n", errno);
    source->explained = true;
    describeAsMissing(source);
    return;
  }
  source->link[length] = '\0';
  source->header.size = static_cast<uint64_t>(length) + 1;
}

}  // namespace

int describeSource(Source *source, int repmode, const char *path, char **transforms) {
  source->fd = -1;
  source->explained = false;
  source->pinned = base::sound(base::Area::stream);
  base::copyText(source->path, sizeof source->path, path);
  // A jump must come neither inside the messages of getFileData nor between the opening of a file
  // and the note of it.
  gathererGuard.hold();
  int result = getFileData(source->path, &source->header, transforms);
  // Left unpinned, a file that grows, shrinks or vanishes before it is sent puts the stream out of
  // step: the rest of the host is lost, and an unreadable file makes the peer wait for it until it
  // gives up the host.
  if (result >= 0 && source->pinned && source->header.type == 0) pinRegular(source);
  if (result >= 0 && source->pinned && source->header.type == 2) pinLink(source);
  gathererGuard.release();
  if (result < 0) return result;
  if (repmode) permctrl(0, &source->header);
  source->header.sequence = 0;
  return 0;
}

void releaseSource(Source *source) {
  if (source->fd >= 0) close(source->fd);
  source->fd = -1;
}

bool tooLargeForStream(const package &header) {
  uint64_t headers = header.size / PACK_CHUNK + 1;
  return header.type == 0 && header.size + headers * PACK_SIZE > UINT32_MAX;
}

}  // namespace net
