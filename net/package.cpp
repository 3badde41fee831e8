// The package header between its record in memory and its form on a stream.
// docs/protocols/stream.md has the stream form byte by byte.
#include <string.h>
#include <zul/net.h>

#include "base/byteorder.h"
#include "base/site.h"

namespace {

// Bytes 0 to 299 are the fields in network order; behind them lie the sender's own record bytes, of
// which a receiver takes the sender's name and, on a sound site, the high word of the size.
struct StreamHeader {
  base::Be32 magic;
  uint8_t squez;
  uint8_t version;
  uint8_t type;
  char filename[257];
  base::Be32 usrid;
  base::Be32 grpid;
  base::Be32 mode;
  base::Be32 mtime;
  base::Be32 atime;
  base::Be32 size;
  base::Be32 sequence;
  base::Be32 unused1;
  base::Be32 unused2;
  base::Le32 sizeHigh;
  uint8_t numbers[12];  // sequence, unused1 and unused2 once more, in the sender's order
  char fromhost[64];
  char padding[136];
  uint8_t zero[4];
};
static_assert(sizeof(StreamHeader) == PACK_SIZE && alignof(StreamHeader) == 1);
static_assert(offsetof(StreamHeader, filename) == 7 && offsetof(StreamHeader, usrid) == 264);
static_assert(offsetof(StreamHeader, size) == 284 && offsetof(StreamHeader, sizeHigh) == 300);
static_assert(offsetof(StreamHeader, fromhost) == 316 && offsetof(StreamHeader, zero) == 516);

}  // namespace

int packPackage(char *obuff, package *ipack) {
  StreamHeader out;
  memcpy(&out, ipack, sizeof out);
  out.magic = ipack->magic;
  out.squez = ipack->squez;
  out.version = ipack->version;
  out.type = ipack->type;
  memcpy(out.filename, ipack->filename, sizeof out.filename);
  out.usrid = ipack->usrid;
  out.grpid = ipack->grpid;
  out.mode = ipack->mode;
  out.mtime = static_cast<uint32_t>(ipack->mtime);
  out.atime = static_cast<uint32_t>(ipack->atime);
  out.size = static_cast<uint32_t>(ipack->size);
  out.sequence = static_cast<uint32_t>(ipack->sequence);
  out.unused1 = static_cast<uint32_t>(ipack->unused1);
  out.unused2 = static_cast<uint32_t>(ipack->unused2);
  memset(out.zero, 0, sizeof out.zero);
  memcpy(obuff, &out, sizeof out);
  return 0;
}

int unpackPackage(char *ibuff, package *opack) {
  StreamHeader in;
  memcpy(&in, ibuff, sizeof in);
  memcpy(static_cast<void *>(opack), &in, sizeof in);
  opack->magic = in.magic;
  opack->squez = in.squez;
  opack->version = in.version;
  opack->type = in.type;
  opack->usrid = in.usrid;
  opack->grpid = in.grpid;
  opack->mode = in.mode;
  opack->mtime = in.mtime;
  opack->atime = in.atime;
  opack->size = in.size;
  opack->sequence = static_cast<int32_t>(static_cast<uint32_t>(in.sequence));
  opack->unused1 = static_cast<int32_t>(static_cast<uint32_t>(in.unused1));
  opack->unused2 = static_cast<int32_t>(static_cast<uint32_t>(in.unused2));
  // Without its high word the size of a file of 4 GiB or more is a lie, and its data are read as
  // headers.
  if (base::sound(base::Area::stream)) opack->size |= static_cast<uint64_t>(in.sizeHigh) << 32;
  // Both texts end inside their field on every honest stream; a peer or a damaged tape may say
  // otherwise.
  opack->filename[sizeof opack->filename - 1] = '\0';
  opack->fromhost[sizeof opack->fromhost - 1] = '\0';
  return 0;
}
