// Packages from a mailbox to the tape, block by block; and the mailbox itself.
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zul/module.h>

#include "drive/cartridge.h"
#include "drive/drive.h"
#include "jobtest.h"
#include "tape/segment.h"

namespace {

using jobtest::File;

class Mailbox : public jobtest::SlotTest {
 protected:
  Mailbox() : SlotTest("alpha") {}
  void SetUp() override {
    SlotTest::SetUp();
    ASSERT_EQ(mkFIFO(0, 4711), 0);
    // A socket of packets keeps the blocks apart, as a tape does.
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK, 0, ends), 0);
    tapeOut.reset(ends[0]);
    tapeIn.reset(ends[1]);
    list = fopen(path("tmp/list").c_str(), "w+");
    clearLogs();
  }
  void TearDown() override {
    fclose(list);
    if (slot->fd >= 0) close(slot->fd);
    SlotTest::TearDown();
  }

  // What the gathering child does: the package into the mailbox, its header into the slot.
  void put(const std::string &bytes, const File &file, int sequence) {
    support::writeFile(path("tmp/ipc.alpha"), bytes);
    std::string raw = jobtest::header(file, sequence);
    unpackPackage(raw.data(), &slot->pack);
    slot->produced++;
  }
  void put(const File &file) {
    put(jobtest::framed(file).substr(0, PACK_SIZE + PACK_CHUNK), file, 0);
  }
  std::vector<std::string> blocks() {
    std::vector<std::string> all;
    char block[65536];
    for (ssize_t got; (got = read(tapeOut.get(), block, sizeof block)) > 0;)
      all.push_back(std::string(block, static_cast<size_t>(got)));
    return all;
  }
  std::string listed() {
    fflush(list);
    return support::readFile(path("tmp/list"));
  }

  base::Fd tapeIn, tapeOut;
  FILE *list = nullptr;
};

TEST_F(Mailbox, IsMadeForItsOwnerAlone) {
  struct stat status;
  ASSERT_EQ(stat(path("tmp/ipc.alpha").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600u);
  EXPECT_EQ(slot->pst.flags, 1);
  EXPECT_EQ(slot->pid, 4711);
  EXPECT_GE(slot->fd, 0);
  strcpy(tape::findSlot(1)->host, "beta");
  EXPECT_EQ(mkFIFO(1, 1), 0);
  EXPECT_EQ(statusLog(), "FIFO made.\n");
  close(tape::findSlot(1)->fd);
}

TEST_F(Mailbox, ThatCannotBeMadeStopsItsHost) {
  ipc *other = tape::findSlot(2);
  strcpy(other->host, "no/such");
  EXPECT_EQ(mkFIFO(2, 1), -3);
  EXPECT_EQ(other->pst.flags, 2);
  EXPECT_EQ(statusLog(),
            "ERROR:  8314  Fatal error.  Can't open FIFO: " + path("tmp/ipc.no/such") + "\n");
}

TEST_F(Mailbox, NeedsASegment) {
  EXPECT_EQ(mkFIFO(102, 1), -1);
  EXPECT_EQ(statusLog(),
            "ERROR:  8313  Fatal error.  Failed to allocate shared memory buffer.  errno = 22\n");
}

TEST_F(Mailbox, AShortFileGoesToTapeInWholeUnits) {
  File file{"/etc/a", jobtest::pattern(100)};
  put(file);
  EXPECT_EQ(procFIFOData(slot, tapeIn.get(), list), 0);
  auto written = blocks();
  ASSERT_EQ(written.size(), 2u);
  EXPECT_EQ(written[0], jobtest::header(file, 0));
  EXPECT_EQ(written[1].size(), 512u);
  EXPECT_EQ(written[1].substr(0, 100), file.data);
  EXPECT_EQ(slot->total, 620u);
  EXPECT_EQ(slot->done, 620u);
  EXPECT_EQ(slot->consumed, slot->produced);
  EXPECT_EQ(listed(), "0:client:0:/etc/a\n");
  EXPECT_EQ(statusLog(), "");
}

TEST_F(Mailbox, AnEmptyFileIsOneHeader) {
  put(File{"/etc/empty", ""});
  EXPECT_EQ(procFIFOData(slot, tapeIn.get(), list), 0);
  EXPECT_EQ(blocks().size(), 1u);
  EXPECT_EQ(slot->total, 520u);
  EXPECT_EQ(slot->done, 520u);
}

TEST_F(Mailbox, DataGoInBlocksOf8192) {
  File file{"/etc/a", jobtest::pattern(8192 * 2 + 513)};
  put(file);
  EXPECT_EQ(procFIFOData(slot, tapeIn.get(), list), 0);
  auto written = blocks();
  ASSERT_EQ(written.size(), 4u);
  EXPECT_EQ(written[1].size(), 8192u);
  EXPECT_EQ(written[2].size(), 8192u);
  EXPECT_EQ(written[3].size(), 1024u);
  EXPECT_EQ(written[1] + written[2] + written[3].substr(0, 513), file.data);
}

TEST_F(Mailbox, AFileOfAMebibyteTakesTwoPackages) {
  File file{"/big", jobtest::pattern(PACK_CHUNK)};
  std::string stream = jobtest::framed(file);
  put(stream.substr(0, PACK_SIZE + PACK_CHUNK), file, 0);
  // The socket holds less than a package.
  base::Fd sink(open("/dev/null", O_WRONLY));
  EXPECT_EQ(procFIFOData(slot, sink.get(), list), 0);
  EXPECT_EQ(slot->total, 1048576u + 2 * 520);
  EXPECT_EQ(slot->done, 1048576u + 520);
  put(stream.substr(PACK_SIZE + PACK_CHUNK), file, 1);
  EXPECT_EQ(procFIFOData(slot, tapeIn.get(), list), 0);
  EXPECT_EQ(slot->done, slot->total);
  EXPECT_EQ(blocks().size(), 1u);
  EXPECT_EQ(slot->consumed, 2u);
  EXPECT_EQ(listed(), "0:client:0:/big\n0:client:1:/big\n");
}

TEST_F(Mailbox, ThePaddingHoldsWhatTheBufferHeldBefore) {
  put(File{"/a", std::string(8192, 'A') + std::string(100, 'B')});
  EXPECT_EQ(procFIFOData(slot, tapeIn.get(), list), 0);
  EXPECT_EQ(blocks()[2], std::string(100, 'B') + std::string(412, 'A'));
}

TEST_F(Mailbox, SoundThePaddingIsZero) {
  behave("sound");
  put(File{"/a", std::string(8192, 'A') + std::string(100, 'B')});
  EXPECT_EQ(procFIFOData(slot, tapeIn.get(), list), 0);
  EXPECT_EQ(blocks()[2], std::string(100, 'B') + std::string(412, '\0'));
}

TEST_F(Mailbox, AFileThatIsCompleteAlreadyIsLeftWhereItIs) {
  put(File{"/a", "abc"});
  slot->pack.sequence = 1;
  slot->total = slot->done = 523;
  EXPECT_EQ(procFIFOData(slot, tapeIn.get(), list), 0);
  EXPECT_NE(slot->consumed, slot->produced);
  EXPECT_TRUE(blocks().empty());
  EXPECT_EQ(listed(), "");
}

TEST_F(Mailbox, ATapeThatRefusesTheHeaderIsReported) {
  put(File{"/a", "abc"});
  base::Fd readOnly(open("/dev/null", O_RDONLY));
  EXPECT_EQ(procFIFOData(slot, readOnly.get(), list), -5);
  EXPECT_EQ(statusLog(), "ERROR:  8320  Fatal error.  Can't write to tape.  retval=-1, errno=9\n");
  EXPECT_EQ(slot->pst.flags, 1);
  EXPECT_NE(slot->consumed, slot->produced);
}

TEST_F(Mailbox, ATapeThatRefusesDataStopsTheHost) {
  loadTape();
  ASSERT_EQ(drive::setFaults("d1", "write 2 EIO\n"), "");
  clearLogs();
  put(File{"/a", "abc"});
  int fd = drive::openDrive(device, O_WRONLY);
  EXPECT_EQ(procFIFOData(slot, fd, list), -5);
  EXPECT_EQ(statusLog(), "ERROR:  8321  Fatal error.  Can't write to tape.  errno=5, retval=-1\n");
  EXPECT_EQ(slot->pst.flags, 2);
  drive::closeDrive(fd);
}

TEST_F(Mailbox, ADeadDescriptorIsOpenedAgain) {
  put(File{"/a", "abc"});
  close(slot->fd);
  slot->fd = -1;
  std::string said =
      support::captureStderr([&] { EXPECT_EQ(procFIFOData(slot, tapeIn.get(), list), 0); });
  EXPECT_EQ(said, "NOTICE:  Attempting to reopen FIFO\n");
  EXPECT_EQ(statusLog(),
            "ERROR:  8316  Seek error! errno = 9\nERROR:  8317  Close error! errno = 9\n");
  EXPECT_EQ(blocks().size(), 2u);
}

TEST_F(Mailbox, ThatCannotBeOpenedAgainStopsTheHost) {
  put(File{"/a", "abc"});
  close(slot->fd);
  slot->fd = -1;
  strcpy(slot->host, "gone/beta");
  support::captureStderr([&] { EXPECT_EQ(procFIFOData(slot, tapeIn.get(), list), -1); });
  EXPECT_NE(statusLog().find("ERROR:  8318  Can't open FIFO: " + path("tmp/ipc.gone/beta") +
                             ".  Stopping backup of: gone/beta.  errno=2\n"),
            std::string::npos);
  EXPECT_EQ(slot->pst.flags, 2);
}

TEST_F(Mailbox, ThatHoldsTooLittleStopsTheHost) {
  for (size_t held : {size_t{0}, size_t{PACK_SIZE}, size_t{PACK_SIZE + 50}}) {
    slot->pst.flags = 1;
    File file{"/a", jobtest::pattern(100)};
    put(jobtest::framed(file).substr(0, held), file, 0);
    EXPECT_EQ(procFIFOData(slot, tapeIn.get(), list), -5) << held;
    EXPECT_EQ(slot->pst.flags, 2) << held;
  }
}

TEST_F(Mailbox, ANameCannotForgeALineOfTheVolumeList) {
  put(File{"/tmp/x\n0:victim:0:/etc/shadow", "abc", 0, "a:b\x01"});
  EXPECT_EQ(procFIFOData(slot, tapeIn.get(), list), 0);
  EXPECT_EQ(listed(), "0:a?b?:0:/tmp/x?0:victim:0:/etc/shadow\n");
}

TEST_F(Mailbox, NamesThatFillTheirFieldsAreBounded) {
  put(File{"/a", "abc"});
  memset(slot->pack.filename, 'f', sizeof slot->pack.filename);
  memset(slot->pack.fromhost, 'h', sizeof slot->pack.fromhost);
  EXPECT_EQ(procFIFOData(slot, tapeIn.get(), list), 0);
  EXPECT_EQ(listed(), "0:" + std::string(63, 'h') + ":0:" + std::string(256, 'f') + "\n");
}

TEST_F(Mailbox, ClassicTheWordsOfAHugeFileWrap) {
  File file{"/huge", "abc"};
  put(file);
  slot->pack.size = 0xffffffff;
  // 4 GiB - 1 byte and 4096 headers do not fit: what is left of the total is the headers' share.
  procFIFOData(slot, tapeIn.get(), list);
  EXPECT_EQ(slot->total, static_cast<uint32_t>(0xffffffffull + 4096 * 520));
}

TEST_F(Mailbox, SoundAHugeFileGoesOnPastFourGibibytes) {
  behave("sound");
  File file{"/huge", std::string(100, 'x')};
  std::string raw = jobtest::header(file, 5120);
  put(raw + file.data, file, 5120);
  slot->pack.size = 5ull * 1024 * 1024 * 1024 + 100;
  slot->total = slot->done = 620;  // what 32 bits say is no matter
  EXPECT_EQ(procFIFOData(slot, tapeIn.get(), list), 0);
  EXPECT_EQ(slot->consumed, slot->produced);
  EXPECT_EQ(blocks().size(), 2u);
}

TEST_F(Mailbox, SoundNumbersThatNoFileHasAreRefused) {
  behave("sound");
  put(File{"/a", "abc"});
  slot->pack.sequence = -1;
  EXPECT_EQ(procFIFOData(slot, tapeIn.get(), list), 0);
  slot->pack.sequence = 1;
  EXPECT_EQ(procFIFOData(slot, tapeIn.get(), list), 0);
  EXPECT_TRUE(blocks().empty());
  EXPECT_NE(slot->consumed, slot->produced);
}

}  // namespace
