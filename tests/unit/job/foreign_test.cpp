// What a job finds on the tape behind its last volume and did not write.
#include <fcntl.h>

#include "drive/drive.h"
#include "jobtest.h"

using jobtest::File;

namespace {

using jobtest::Client;

class ForeignBlocks : public jobtest::JobTest {};

// A tape that another program wrote to from behind the label on.
TEST_F(ForeignBlocks, SoundAreWrittenOver) {
  behave("sound");
  loadTape();
  defineJob({"127.0.0.2"});
  for (size_t length : {size_t{512}, size_t{65536}}) {
    SCOPED_TRACE(length);
    int fd = drive::openDrive(device, O_RDWR);
    ASSERT_EQ(drive::operate(fd, MTREW, 1), 0);
    ASSERT_EQ(drive::operate(fd, MTFSF, 1), 0);
    std::string block(length, 'x');
    ASSERT_EQ(drive::writeBlock(fd, block.data(), length), static_cast<ssize_t>(length));
    ASSERT_EQ(drive::closeDrive(fd), 0);
    support::writeFile(tapeFilePath("catalog"), "");
    alone([&] {
      Client alpha("127.0.0.2", std::vector<File>{{"/a", "abc"}});
      EXPECT_EQ(backup(), 0) << jobLog();
      jobtest::Tape tape = readTape();
      ASSERT_EQ(tape.size(), 3u);
      EXPECT_EQ(tape[1].size(), 9u);
      EXPECT_EQ(tape[1][0].size(), static_cast<size_t>(CATLG_FIXED));
      EXPECT_EQ(contents(jobtest::packages(tape[2]), "/a"), "abc");
    });
  }
}

}  // namespace
