// Reading a data file: exact reads with their retries, and package headers in and out of step. The
// streams are pipes and files, which the drive layer hands to the kernel as they are.
#include <errno.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <zul/host.h>
#include <zul/net.h>

#include "base/fd.h"
#include "media.h"
#include "tape/tapeio.h"

namespace {

using media::captureStderr;

class Stream : public media::MediaTest {
 protected:
  void TearDown() override {
    tape::readLimitMs = 60000;
    MediaTest::TearDown();
  }
  // A stream of these bytes.
  int open(const std::string &bytes) {
    fd_.reset(memfd_create("stream", MFD_CLOEXEC));
    EXPECT_EQ(write(fd_.get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    lseek(fd_.get(), 0, SEEK_SET);
    return fd_.get();
  }
  // Reads n bytes with errno as given; what was said goes to `said`.
  ssize_t readWith(int fd, size_t n, int error) {
    ssize_t result = 0;
    said = captureStderr([&] {
      errno = error;
      result = readt(fd, buffer_, n);
    });
    return result;
  }
  char buffer_[8192];

 private:
  base::Fd fd_;
};

TEST_F(Stream, NothingIsReadAtOnce) {
  EXPECT_EQ(readt(-1, nullptr, 0), 0);
}

TEST_F(Stream, PiecesAreJoined) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  pid_t pid = fork();
  if (pid == 0) {
    for (int at = 0; at < 10; at++) {
      if (write(ends[1], "0123456789", 10) != 10) _exit(1);
      usleep(1000);
    }
    _exit(0);
  }
  EXPECT_EQ(readt(ends[0], buffer_, 100), 100);
  EXPECT_EQ(memcmp(buffer_ + 90, "0123456789", 10), 0);
  waitpid(pid, nullptr, 0);
  close(ends[0]);
  close(ends[1]);
}

TEST_F(Stream, SilenceIsATimeOut) {
  tape::readLimitMs = 30;
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  EXPECT_EQ(readWith(ends[0], 10, 0), -2);
  EXPECT_EQ(said, "ERROR:  Select returned: 0\n");
  close(ends[0]);
  close(ends[1]);
}

TEST_F(Stream, ABadDescriptorFailsTheWait) {
  EXPECT_EQ(readWith(-1, 10, 0), -1);
  EXPECT_EQ(readWith(-3, 10, 0), -1);
  EXPECT_EQ(readWith(900, 10, 0), -1) << "none is open by that number";
}

TEST_F(Stream, AnEndWithAnyOtherErrnoIsFatal) {
  for (int error : {EIO, 0, EINTR, ENOSPC}) {
    int fd = open("abc");
    EXPECT_EQ(readWith(fd, 10, error), -3) << error;
    char expected[256];
    snprintf(expected, sizeof expected,
             "ERROR:  Read error.  nread=0, nleft= 7, fd=%i, ptr=%p, errno = %i\n", fd,
             static_cast<void *>(buffer_ + 3), error);
    EXPECT_EQ(said, expected);
  }
}

TEST_F(Stream, AFailedReadIsFatal) {
  base::Fd fd(::open(home.c_str(), O_RDONLY | O_CLOEXEC));
  EXPECT_EQ(readWith(fd.get(), 10, 0), -3);
  EXPECT_NE(said.find("nread=-1, nleft= 10,"), std::string::npos);
  EXPECT_NE(said.find("errno = 21\n"), std::string::npos);
}

TEST_F(Stream, AnEndWithAPassingErrnoIsRetriedForEver) {
  for (int error : {ENOENT, EAGAIN, EBUSY}) {
    int fd = open("abc");
    std::string heard = path("heard");
    media::writeFile(heard, "");
    pid_t pid = fork();
    if (pid == 0) {
      int log = ::open(heard.c_str(), O_WRONLY);
      dup2(log, 2);
      errno = error;
      readt(fd, buffer_, 10);
      _exit(0);
    }
    // More data ends the wait: it was a writer that is still at work.
    std::string line =
        "ERROR:  Read error. Retry 20:  nread=0, nleft= 7, fd=" + std::to_string(fd) +
        ", errno = " + std::to_string(error) + "\n";
    EXPECT_TRUE(support::eventually([&] { return media::readFile(heard) == line; }));
    usleep(50000);
    EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), 0);
    EXPECT_EQ(media::readFile(heard), line) << "it is said once";
    EXPECT_EQ(pwrite(fd, "defghij", 7, 3), 7);
    int status = -1;
    EXPECT_TRUE(support::eventually([&] { return waitpid(pid, &status, WNOHANG) == pid; }));
    EXPECT_EQ(support::exitOf(status), 0);
  }
}

TEST_F(Stream, AnEndIsAnEndUnderSound) {
  behave("sound");
  for (int error : {ENOENT, EAGAIN, EBUSY, EINTR, EIO}) {
    EXPECT_EQ(readWith(open("abc"), 10, error), -3) << error;
    EXPECT_NE(said.find("ERROR:  Read error.  nread=0, nleft= 7, "), std::string::npos);
  }
}

// A header with recognisable fields as it lies on tape.
std::string streamHeader() {
  package header{};
  header.magic = PACK_MAGIC;
  strcpy(header.filename, "/etc/a file with a name long enough to be recognised");
  strcpy(header.fromhost, "alpha");
  header.usrid = 1000;
  header.grpid = 100;
  header.mode = 0100644;
  header.mtime = 1111111111;
  header.atime = 1222222222;
  header.size = 12345;
  header.sequence = 3;
  header.unused1 = header.unused2 = PACK_FILLER;
  std::string raw(PACK_SIZE, '\0');
  packPackage(raw.data(), &header);
  return raw;
}

// Bytes that hold no magic, each one telling where it stood.
std::string junk(size_t length) {
  std::string bytes(length, '\0');
  for (size_t at = 0; at < length; at++) bytes[at] = static_cast<char>('a' + at % 26);
  return bytes;
}

class PackHead : public Stream {
 protected:
  int find(const std::string &bytes) {
    int fd = open(bytes);
    int result = 0;
    memset(&header, 0, sizeof header);
    memset(raw, 0, sizeof raw);
    said = captureStderr([&] {
      errno = EIO;
      result = getPackHead(fd, raw, &header);
    });
    position = lseek(fd, 0, SEEK_CUR);
    return result;
  }
  std::string searching(const std::string &bytes, int dots) const {
    return "NOTICE:  RAW data:" + bytes.substr(0, 520) +
           "WARNING:  Did not find package header\nWARNING:  Searching" +
           std::string(static_cast<size_t>(dots), '.');
  }
  void expectTrueHeader() {
    EXPECT_EQ(std::string(raw, PACK_SIZE), streamHeader());
    EXPECT_STREQ(header.filename, "/etc/a file with a name long enough to be recognised");
    EXPECT_EQ(header.usrid, 1000u);
    EXPECT_EQ(header.size, 12345u);
    EXPECT_EQ(header.sequence, 3);
    EXPECT_STREQ(header.fromhost, "alpha");
  }
  char raw[PACK_SIZE];
  package header;
  off_t position = 0;
};

TEST_F(PackHead, AHeaderInItsPlaceIsTaken) {
  EXPECT_EQ(find(streamHeader() + "data"), 0);
  EXPECT_EQ(said, "");
  EXPECT_EQ(position, 520);
  expectTrueHeader();
}

TEST_F(PackHead, AHeaderThatBeginsInTheFirstWindowIsFoundWhole) {
  for (const char *behaviour : {"classic", "sound"}) {
    behave(behaviour);
    for (size_t at : {1u, 100u, 515u}) {
      std::string bytes = junk(at) + streamHeader() + "data";
      EXPECT_EQ(find(bytes), 0) << at;
      EXPECT_EQ(said, searching(bytes, 1)) << at;
      EXPECT_EQ(position, static_cast<off_t>(at) + 520);
      expectTrueHeader();
    }
  }
}

TEST_F(PackHead, ALaterOneHasFourStaleBytesInClassic) {
  std::string head = streamHeader();
  std::string bytes = junk(1000) + head + "data";
  EXPECT_EQ(find(bytes), 0);
  EXPECT_EQ(said, searching(bytes, 2));
  // The second window holds stream bytes 520 to 1035, then bytes 516 to 519 of the first; 480
  // follow.
  std::string expected = head.substr(0, 36) + bytes.substr(516, 4) + head.substr(36, 480);
  EXPECT_EQ(std::string(raw, PACK_SIZE), expected);
  EXPECT_EQ(position, 1000 + 516);
}

TEST_F(PackHead, ALaterOneIsTrueUnderSound) {
  behave("sound");
  for (size_t at : {516u, 517u, 519u, 520u, 1000u, 1031u, 1032u, 1033u, 5000u, 50000u}) {
    std::string bytes = junk(at) + streamHeader() + "data";
    EXPECT_EQ(find(bytes), 0) << at;
    EXPECT_EQ(position, static_cast<off_t>(at) + 520);
    expectTrueHeader();
  }
}

TEST_F(PackHead, AMagicAcrossTwoWindowsIsNotFoundInClassic) {
  std::string bytes = junk(518) + streamHeader() + junk(60000);
  EXPECT_EQ(find(bytes), -2);
}

TEST_F(PackHead, TheSearchEndsAfterAHundredWindows) {
  for (const char *behaviour : {"classic", "sound"}) {
    behave(behaviour);
    std::string bytes = junk(60000);
    EXPECT_EQ(find(bytes), -2);
    EXPECT_EQ(said, searching(bytes, 100) + "\nERROR:  Can't find package header\n");
    EXPECT_EQ(position, 520 + 100 * 516);
  }
}

TEST_F(PackHead, AStreamThatEndsIsReportedWhereItEnds) {
  EXPECT_EQ(find("ZuL!"), -1);
  EXPECT_NE(said.find("ERROR:  Failed to read the data header(1).  Got error -3\n"),
            std::string::npos);
  EXPECT_EQ(find(junk(100) + streamHeader().substr(0, 430)), -1);
  EXPECT_NE(said.find("\nERROR:  Failed to read the data header(2).  Got error -3\n"),
            std::string::npos);
  EXPECT_EQ(find(junk(700)), -1);
  EXPECT_NE(said.find("\nERROR:  Failed to read the data header(3).  Got error -3\n"),
            std::string::npos);
  EXPECT_EQ(find(""), -1);
}

TEST_F(PackHead, JunkOfEveryLengthEndsInAResult) {
  for (const char *behaviour : {"classic", "sound"}) {
    behave(behaviour);
    for (size_t at = 0; at < 1600; at += 7) {
      int result = find(junk(at) + streamHeader() + junk(600));
      EXPECT_TRUE(result == 0 || result == -1) << at;
    }
  }
}

TEST_F(Stream, APlainHeaderIsReadAsItStandsInMemory) {
  package header{};
  header.magic = PACK_MAGIC;
  header.size = 77;
  std::string bytes(reinterpret_cast<char *>(&header), sizeof header);
  char buffer[PACK_SIZE];
  EXPECT_EQ(getPackageHead(open(bytes), buffer), 77);
  int fd = open(streamHeader());
  said = captureStderr([&] { EXPECT_EQ(getPackageHead(fd, buffer), -2); });
  EXPECT_EQ(said, "Magic = 214c755a, expected: 5a754c21\n");
  fd = open("");
  said = captureStderr([&] { EXPECT_EQ(getPackageHead(fd, buffer), -2); });
  EXPECT_EQ(said, "Magic = 0, expected: 5a754c21\n");
  EXPECT_EQ(getPackageHead(-1, buffer), -1);
}

}  // namespace
