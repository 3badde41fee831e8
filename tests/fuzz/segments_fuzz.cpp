// Datagrams of any content into a receiver, and what they carry onto its disk: the ring holds, a
// sound receiver never passes what it lacks, and nothing is made outside the folder that names are
// led to here.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <zul/host.h>
#include <zul/mrepl.h>

#include <netinet/in.h>
#include <filesystem>

#include "base/site.h"
#include "base/text.h"
#include "fuzzhome.h"
#include "mrepl/run.h"

namespace {

alignas(8) char area[MR_RECV_AREA];
auto *ctrl = reinterpret_cast<mrecvctrl *>(area);
auto *ring = reinterpret_cast<mslot *>(area + sizeof(mrecvctrl));

void chooseBehaviour(bool sound) {
  FILE *site = fopen(base::HomePath("etc/ZULsite"), "we");
  if (!site || fputs(sound ? "behaviour = sound\n" : "behaviour = classic\n", site) < 0) abort();
  fclose(site);
  base::forgetSite();
}

// A datagram of the input: four bytes say which number it has and how it is marked, the payload
// follows.
struct Piece {
  uint16_t number;
  uint8_t control;
  uint8_t words;
  size_t length() const { return words * 4u; }
};

void takeIn(const Piece &piece, const uint8_t *bytes, bool sound) {
  mseg datagram{};
  memcpy(datagram.magic, "PaCk", 4);
  // Around what the receiver is at, or anywhere.
  uint64_t number = (piece.control & 0x80) != 0 ? piece.number * 0x10001000100ull
                                                : mrepl::contiguousOf(*ctrl) + piece.number % 6000;
  packul(&datagram.high, static_cast<uint32_t>(number >> 32));
  packul(&datagram.low, static_cast<uint32_t>(number));
  packul(&datagram.control, piece.control & 0x0f);
  memcpy(datagram.payload, bytes, piece.length());
  sockaddr_in nobody{};
  uint64_t before = mrepl::contiguousOf(*ctrl);
  if (processNewSeg(-1, &nobody, ctrl, ring, &datagram) < -2) abort();
  uint64_t after = mrepl::contiguousOf(*ctrl);
  if (!sound) return;
  if (after < before || after >= mrepl::extractedOf(*ctrl) + MR_RECV_SLOTS) abort();
  for (uint64_t each = before + 1; each <= after; each++)
    if (mrepl::recvSlot(ring, each).state != 1) abort();
}

// The name of a header is led into the home; everything else stays as it came.
void leadHome(mslot *slot) {
  auto *header = reinterpret_cast<mfilehead *>(slot->seg.payload);
  char name[sizeof header->name + 1];
  memcpy(name, header->name, sizeof header->name);
  name[sizeof header->name] = '\0';
  for (char *at = name; *at; at++)
    if (*at == '.') *at = '_';
  memset(header->name, 0, sizeof header->name);
  snprintf(header->name, sizeof header->name, "%s/tmp/%s", ZULhome, name);
  // Sizes a disk in memory has room for.
  char size[4];
  packul(size, unpackul(&header->size) % 5000);
  memcpy(&header->size, size, sizeof size);
  header->reserved4 = 0;
  if (header->type == mrepl::kLink) memcpy(slot->seg.payload + MR_INLINE_OFF, "link", 4);
}

void extract() {
  uint64_t contiguous = mrepl::contiguousOf(*ctrl);
  for (uint64_t number = mrepl::extractedOf(*ctrl); number < contiguous; number++) {
    mslot &slot = mrepl::recvSlot(ring, number);
    leadHome(&slot);
    fileExtractor(&slot);
    slot.state = 0;
    mrepl::storeNumber(ctrl->extractedHigh, ctrl->extractedLow, number + 1);
    if (contiguous - number > MR_RECV_SLOTS) return;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (ZULhome[0] == '\0') {
    fuzz::makeHome({"etc", "tmp", "var"});
    fplog = nullptr;
  }
  if (size < 1) return 0;
  bool sound = (data[0] & 1) != 0;
  chooseBehaviour(sound);
  memset(area, 0, sizeof area);
  for (size_t at = 1; at + sizeof(Piece) <= size;) {
    Piece piece;
    memcpy(&piece, data + at, sizeof piece);
    at += sizeof piece;
    if (at + piece.length() > size) break;
    takeIn(piece, data + at, sound);
    at += piece.length();
    if ((piece.control & 0x40) != 0) extract();
  }
  extract();
  std::error_code ignored;
  for (const auto &entry :
       std::filesystem::directory_iterator(base::HomePath("tmp").c_str(), ignored))
    std::filesystem::remove_all(entry, ignored);
  return 0;
}
