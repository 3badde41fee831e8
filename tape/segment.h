// The shared segment of a backup job, beyond the exported calls that make, attach and remove it.
//
// The slots fill the segment from its start. Its last 256 bytes, which no slot reaches, hold the
// doorbell: a word that every gathering child raises after it has changed `produced` or
// `cst.flags`, so that the tape writer can sleep on one word while any of its children may have
// news.
#pragma once
#include <stdint.h>
#include <zul/records.h>

namespace tape {

// The size of a segment with room for so many slots and the doorbell; IPC_SHM_SIZE where that is
// enough.
int segmentSize(int slots);

// Slots that the attached segment has room for; 0 when none is attached.
int slotCapacity();

// Slot number `slot` of the segment tpshmid, attached at the first call; null when there is none or
// it has no such slot.
ipc *findSlot(int slot);

// Child: there is news in a slot. Does nothing without an attached segment.
void ringDoorbell();
// Parent: the doorbell's value, to be taken before the slots are visited.
uint32_t readDoorbell();
// Parent: sleeps until the doorbell differs from `seen`, at most longestMs.
void awaitDoorbell(uint32_t seen, int longestMs);

}  // namespace tape
