// The packer of a multicast run: a child of the sending process that turns a job's paths into
// numbered segments in the sender's ring, never overwriting a slot that the data sender has not
// freed.
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>
#include <zul/host.h>
#include <zul/mrepl.h>

#include <algorithm>

#include "base/log.h"
#include "base/pause.h"
#include "mrepl/packed.h"
#include "mrepl/packing.h"
#include "mrepl/run.h"
#include "mrepl/view.h"

namespace {

constexpr int kViewBytes = 4096;
constexpr int kViewBlocks = kViewBytes / MR_PAYLOAD;

// The file that is being packed.
struct Packing {
  char *path;   // null at the end of the list
  bool inData;  // its header is stored, its content is not yet
  uint64_t size;
  uint64_t stored;   // bytes of content
  mfilehead header;  // as it travels
  int count;         // segments in the batch
  mseg batch[mrepl::kBatch];
};

strNode runPaths;  // the list of this run

mfilehead *headOf(mseg *segment) {
  return reinterpret_cast<mfilehead *>(segment->payload);
}

// What a job makes of a header: its name, owner and permissions. False when the file must be left
// out.
bool applyPolicy(mfilehead *header) {
  bool sound = mrepl::soundRun();
  if (xformPrefix(header->name) < 0) return false;
  modifyPerms(0, header);
  // A name that has no room for the prefix would go out without it, and the receivers would
  // overwrite the live path instead of the one below the prefix.
  return addPrefix(0, header->name) == 0 || !sound;
}

bool doesNotFit(const char *path) {
  mrepl::packed.unsent(path, "its name or its size does not fit a header");
  return false;
}

// Puts the header segment of the current path into the batch. False when it cannot be sent.
bool beginFile(Packing *packing) {
  mseg *segment = &packing->batch[packing->count];
  memset(segment, 0, sizeof *segment);
  int type;
  packing->stored = 0;
  mrepl::packed.newEntry();
  if (storeFileHeader(packing->path, segment, &type, &packing->size) != 0)
    return doesNotFit(packing->path);
  if (storeNewFileData(packing->path, segment, type, &packing->stored, packing->size) != 0) {
    if (type != mrepl::kFile) return false;
    // A header of a file promises content; this one has none that we may read.
    mrepl::packed.unsent(packing->path, strerror(errno));
    base::print(fplog, "NOTICE:  Cannot read %s: %s\n", packing->path, strerror(errno));
    type = headOf(segment)->type = mrepl::kOther;
    packul(&headOf(segment)->size, 0);
  }
  if (!applyPolicy(headOf(segment))) {
    memMapClose();
    return doesNotFit(packing->path);
  }
  packul(&segment->control, mrepl::runWord != 0 ? mrepl::kHead : 0);
  packing->count++;
  packing->inData = type == mrepl::kFile && packing->size > MR_INLINE_MAX;
  packing->header = *headOf(segment);
  if (packing->inData) return true;
  const char *room = segment->payload + MR_INLINE_OFF;
  uint64_t length = type == mrepl::kLink ? strnlen(room, MR_INLINE_MAX) : packing->stored;
  mrepl::packed.content(room, static_cast<size_t>(length));
  mrepl::packed.done(packing->header, type == mrepl::kOther ? 0 : packing->size);
  return true;
}

// Puts more content of the current file into the batch. False when there is less than its header
// promised.
bool addData(Packing *packing, int *available) {
  int first = packing->count;
  uint64_t before = packing->stored;
  bool good = storeFileData(packing->batch, packing->size, &packing->stored, &packing->count,
                            available) == 0;
  uint64_t fresh = packing->stored - before;
  for (int at = first; at < packing->count; at++, fresh -= std::min<uint64_t>(fresh, MR_PAYLOAD))
    mrepl::packed.content(packing->batch[at].payload, std::min<uint64_t>(fresh, MR_PAYLOAD));
  packing->inData = good && packing->stored < packing->size;
  if (good && !packing->inData) mrepl::packed.done(packing->header, packing->size);
  if (good) return true;
  // What follows begins with a header, by which the receivers notice that the rest is missing.
  mrepl::packed.unsent(packing->path, "it became shorter while it was sent");
  base::print(fplog, "NOTICE:  %s became shorter while it was sent\n", packing->path);
  return false;
}

void fillBatch(Packing *packing, int available) {
  packing->count = 0;
  while (packing->path && packing->count < mrepl::kBatch && available > 0) {
    bool good = true;
    if (packing->inData) {
      good = addData(packing, &available);
    } else if ((good = beginFile(packing))) {
      available--;
    } else {
      base::print(fplog, "NOTICE: Failed to store file header for:  %s\n", packing->path);
    }
    if (!packing->inData && getNextFile(&packing->path) != 0) packing->path = nullptr;
    if (!good) break;
  }
}

// The first segment is never transmitted, so a sound run does not put the first path there.
void placeOpening(msendctrl *ctrl, mslot *ring) {
  mseg segment{};
  packul(&headOf(&segment)->magic, MR_HEAD_MAGIC);
  headOf(&segment)->type = mrepl::kNothing;
  packul(&segment.control, mrepl::kHead);
  mrepl::placeSegment(ctrl, ring, segment);
}

void waitForRoom(const msendctrl *ctrl, int64_t micros) {
  mrepl::waitWordMicros(ctrl->freeTillLow, base::loadWord(ctrl->freeTillLow), micros);
}

bool senderRuns(const msendctrl *ctrl, int parent) {
  return base::loadWord(ctrl->senderState) == mrepl::kRunning && !mrepl::orphaned(parent);
}

void freeList(strNode *head) {
  for (strNode *node = head->next; node;) {
    strNode *next = node->next;
    free(node->text);
    free(node);
    node = next;
  }
  free(head->text);
  *head = strNode{};
}

void buildList(MreplJobData *job) {
  freeList(&runPaths);
  addToIncList(1, &runPaths);
  setFileList(&job->requestList, 0);
  // Installed senders store exclusions and send the files all the same: what an operator excluded,
  // keys for one, would be multicast in the clear.
  setFileList(mrepl::soundRun() ? &job->excludeList : nullptr, 1);
  if (buildFileList(0) != 0)
    base::print(fplog, "ERROR:  Out of memory: the list of files is not complete\n");
}

// The table of transforms has a copy of the first pair, and is empty without the memory for it.
bool hasTransforms(const MreplJobData &job) {
  char *from = nullptr, *to = nullptr;
  return !job.xformList.from || (getNextXformPair(0, &from, &to) == 0 && to);
}

// False when the job's names cannot be changed as it wants.
bool applySettings(MreplJobData *job) {
  addPrefix(1, job->prefix);
  setXformDataStruct(&job->xformList);
  if (!hasTransforms(*job)) {
    base::print(fplog, "ERROR:  Out of memory: the transforms of the job are not known\n");
    return false;
  }
  mfilehead rules{};
  rules.owner = static_cast<uint32_t>(job->userID);
  rules.group = static_cast<uint32_t>(job->groupID);
  rules.mode = static_cast<uint32_t>(job->filePerms);
  modifyPerms(1, &rules);
  rules.mode = static_cast<uint32_t>(job->dirPerms);
  modifyPerms(2, &rules);
  return true;
}

}  // namespace

namespace mrepl {

int freeSlots(const msendctrl *ctrl) {
  uint32_t filledLow = base::loadWord(ctrl->filledLow);
  uint32_t freeLow = base::loadWord(ctrl->freeTillLow);
  int32_t free = static_cast<int32_t>(freeLow - filledLow + MR_SEND_SLOTS);
  return free + (base::loadWord(ctrl->filledHigh) != base::loadWord(ctrl->freeTillHigh) ? 1 : 0);
}

void placeSegment(msendctrl *ctrl, mslot *ring, const mseg &content) {
  Number number = filledOf(*ctrl);
  mslot &slot = sendSlot(ring, number);
  slot.low = lowOf(number);
  slot.high = highOf(number);
  slot.flag = slot.state = 0;
  memcpy(slot.seg.magic, "PaCk", 4);
  packul(&slot.seg.high, highOf(number));
  packul(&slot.seg.low, lowOf(number));
  slot.seg.control = content.control;
  memcpy(slot.seg.pfin, "PfIn", 4);
  memcpy(slot.seg.sent, "ErR!", 4);
  memcpy(slot.seg.payload, content.payload, sizeof slot.seg.payload);
  storeNumber(ctrl->filledHigh, ctrl->filledLow, number + 1);
}

void placeEndRecords(msendctrl *ctrl, mslot *ring) {
  mseg segment{};
  makeEOTPkt(segment.payload);
  packul(&segment.control, runWord != 0 ? kHead : 0);
  placeSegment(ctrl, ring, segment);
  placeSegment(ctrl, ring, segment);
}

}  // namespace mrepl

int storeFileData(mseg *batch, uint64_t size, uint64_t *stored, int *count, int *availsegs) {
  // What the file does not hold any more is sent as zeros to installed receivers, which wait for
  // all that its header promised. In a sound run the file ends here: zeros would replace good
  // copies.
  bool sound = mrepl::soundRun();
  void *view = nullptr;
  int block = static_cast<int>(*stored / MR_PAYLOAD % kViewBlocks);
  bool good = memMapSeek(&view, *stored - *stored % kViewBytes) == 0 || !sound;
  if (block != 0 && mrepl::debugging())
    base::print(fplog, "DEBUG: storeFileData Alignment correction needed!  j=%i\n", block);
  while (good && *count<mrepl::kBatch && * availsegs> 0 && *stored < size) {
    if (block == kViewBlocks) {
      block = 0;
      good = memMapSeek(&view, *stored) == 0 || !sound;
    }
    size_t offset = static_cast<size_t>(block++) * MR_PAYLOAD;
    uint64_t left = size - *stored;
    size_t wanted = left < MR_PAYLOAD ? static_cast<size_t>(left) : MR_PAYLOAD;
    if (sound && mrepl::viewHolds() < offset + wanted) good = false;
    if (!good) break;
    mseg *segment = &batch[(*count)++];
    memset(segment, 0, sizeof *segment);
    memcpy(segment->payload, static_cast<char *>(view) + offset, wanted);
    *stored += wanted;
    --*availsegs;
  }
  if (!good || *stored >= size) memMapClose();
  return good ? 0 : -1;
}

int plainDataPacker(msendctrl *ctrl, mslot *ring) {
  static Packing packing;
  packing = Packing{};
  int parent = getppid();
  // With nothing to do the packer looks every millisecond; where pauses are replaced by readiness
  // that is all it pauses for.
  bool paced = !base::sound(base::Area::pace);
  if (mrepl::runWord != 0) placeOpening(ctrl, ring);
  if (getNextFile(&packing.path) != 0) packing.path = nullptr;
  while (packing.path && senderRuns(ctrl, parent)) {
    fillBatch(&packing, mrepl::freeSlots(ctrl));
    for (int at = 0; at < packing.count; at++) mrepl::placeSegment(ctrl, ring, packing.batch[at]);
    if (paced || packing.count == 0) waitForRoom(ctrl, 1000);
  }
  while (mrepl::freeSlots(ctrl) < 2 && senderRuns(ctrl, parent)) waitForRoom(ctrl, 10000);
  if (mrepl::freeSlots(ctrl) >= 2) mrepl::placeEndRecords(ctrl, ring);
  memMapClose();
  if (!packing.path) mrepl::packed.finish();
  base::storeWord(ctrl->packerState, mrepl::kEnded);
  return 0;
}

int dataPacker(MreplJobData *job) {
  auto *ctrl = static_cast<msendctrl *>(getCtrlPtr(shmid));
  mslot *ring = getDataPtr(shmid);
  if (!ctrl || !ring) return -1;
  mrepl::storeNumber(ctrl->filledHigh, ctrl->filledLow, 0);
  base::storeWord(ctrl->controlWord, mrepl::runWord);
  buildList(job);
  base::storeWord(ctrl->packerState, mrepl::kRunning);
  int parent = getppid();
  while (base::loadWord(ctrl->senderState) == 0 && !mrepl::orphaned(parent))
    mrepl::sleepMicros(100);
  if (base::loadWord(ctrl->senderState) != mrepl::kRunning) {
    base::storeWord(ctrl->packerState, mrepl::kEnded);
    return -1;
  }
  // Under their own names the files would go over those that the job keeps them apart from. The
  // sender notices that its packer is gone, and ends the run.
  if (!applySettings(job)) return -1;
  return plainDataPacker(ctrl, ring);
}
