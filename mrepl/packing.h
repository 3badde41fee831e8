// What the packer offers to the data sender, which takes its place when it has died.
#pragma once
#include <zul/mrepl.h>

namespace mrepl {

// Segments that the packer prepares before it lays them into the ring.
constexpr int kBatch = 16;

// Slots that may be filled; negative while the data sender is far behind.
int freeSlots(const msendctrl *ctrl);
// Lays one segment into the ring: the payload, and of the control word the bit of a header.
void placeSegment(msendctrl *ctrl, mslot *ring, const mseg &content);
// The two segments that end every run.
void placeEndRecords(msendctrl *ctrl, mslot *ring);

}  // namespace mrepl
