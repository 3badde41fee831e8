// The shared segment of a backup job and its doorbell.
#include <errno.h>
#include <string.h>
#include <sys/shm.h>
#include <unistd.h>
#include <zul/module.h>

#include "base/pause.h"
#include "jobtest.h"
#include "tape/segment.h"

namespace {

class Segment : public jobtest::JobTest {
 protected:
  void TearDown() override {
    for (int id : made_) shmctl(id, IPC_RMID, nullptr);
    tpgetShMemPtr(-1);
    tpshmid = -1;
    JobTest::TearDown();
  }
  int make(int size) {
    int id = tpmkShMem(size);
    if (id >= 0) made_.push_back(id);
    return id;
  }

 private:
  std::vector<int> made_;
};

TEST_F(Segment, IsPrivateZeroedAndAsLargeAsAskedFor) {
  int id = make(65536);
  ASSERT_GE(id, 0);
  shmid_ds about;
  ASSERT_EQ(shmctl(id, IPC_STAT, &about), 0);
  EXPECT_EQ(about.shm_segsz, 65536u);
  EXPECT_EQ(about.shm_perm.mode & 0777, 0600);
  EXPECT_EQ(about.shm_nattch, 0u);
  char *bytes = static_cast<char *>(tpgetShMemPtr(id));
  ASSERT_NE(bytes, nullptr);
  EXPECT_EQ(std::string(bytes, 65536), std::string(65536, '\0'));
  EXPECT_EQ(statusLog(), "");
}

TEST_F(Segment, IsAttachedOnceWhateverIdLaterCallsGive) {
  int first = make(65536), second = make(65536);
  void *address = tpgetShMemPtr(first);
  EXPECT_EQ(tpgetShMemPtr(first), address);
  EXPECT_EQ(tpgetShMemPtr(second), address);
  EXPECT_EQ(tpgetShMemPtr(-1), nullptr);
  EXPECT_NE(tpgetShMemPtr(second), address);
}

TEST_F(Segment, ThatCannotBeAttachedIsReported) {
  EXPECT_EQ(tpgetShMemPtr(0x7fffffff), nullptr);
  EXPECT_EQ(statusLog(),
            "ERROR:  8328  Function shmat failed!  Unable to get pointer to shared memory.  errno "
            "= 22 \n");
}

TEST_F(Segment, OfNoSizeIsReportedTwice) {
  EXPECT_EQ(tpmkShMem(0), -1);
  EXPECT_EQ(statusLog(),
            "ERROR:  8325  Function shmget failed!  errno = 22\n"
            "ERROR:  8326  Function shmat failed!  Unable to get pointer to shared memory.  errno "
            "= 22 \n");
}

TEST_F(Segment, IsRemovedOnce) {
  int id = tpmkShMem(65536);
  EXPECT_EQ(tprmShMem(id), 1);
  EXPECT_EQ(statusLog(), "");
  EXPECT_EQ(tprmShMem(id), 0);
  EXPECT_EQ(statusLog(), "ERROR:  8327  Function shmctl failed!  Unable to free shared memory\n");
}

TEST_F(Segment, GrowsWithTheMembersPastOneHundredAndTwo) {
  EXPECT_EQ(tape::segmentSize(0), 65536);
  EXPECT_EQ(tape::segmentSize(102), 65536);
  EXPECT_EQ(tape::segmentSize(103), 69632);
  tpshmid = make(tape::segmentSize(103));
  ASSERT_NE(tape::findSlot(102), nullptr);
  EXPECT_GE(tape::slotCapacity(), 103);
  EXPECT_EQ(tape::findSlot(tape::slotCapacity()), nullptr);
  EXPECT_EQ(tape::findSlot(-1), nullptr);
}

TEST_F(Segment, HasNoSlotsBeforeThereIsOne) {
  tpshmid = -1;
  EXPECT_EQ(tape::findSlot(0), nullptr);
  EXPECT_EQ(tape::slotCapacity(), 0);
  tape::ringDoorbell();  // and this does nothing
}

TEST_F(Segment, ItsDoorbellTouchesNoSlot) {
  for (int size : {65536, 69632, 640}) {
    tpgetShMemPtr(-1);
    tpshmid = make(size);
    ASSERT_NE(tpgetShMemPtr(tpshmid), nullptr);
    tape::ringDoorbell();
    for (int at = 0; at < tape::slotCapacity(); at++) {
      std::string slot(reinterpret_cast<char *>(tape::findSlot(at)), sizeof(ipc));
      EXPECT_EQ(slot, std::string(sizeof(ipc), '\0')) << size << ", slot " << at;
    }
  }
}

TEST_F(Segment, ItsDoorbellWakesTheTapeWriter) {
  tpshmid = make(65536);
  ASSERT_NE(tpgetShMemPtr(tpshmid), nullptr);
  uint32_t before = tape::readDoorbell();
  pid_t child = fork();
  if (child == 0) {
    base::sleepMs(30);
    tape::ringDoorbell();
    _exit(0);
  }
  long long began = base::nowMs();
  while (tape::readDoorbell() == before && base::nowMs() - began < 10000)
    tape::awaitDoorbell(before, 10000);
  EXPECT_LT(base::nowMs() - began, 5000);
  EXPECT_NE(tape::readDoorbell(), before);
  began = base::nowMs();
  tape::awaitDoorbell(before, 10000);  // rung already: no wait
  EXPECT_LT(base::nowMs() - began, 5000);
}

}  // namespace
