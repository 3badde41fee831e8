// The points themselves. Called by the unit tests of the drive layer and by the program
// tapeconform, in one process with short-lived children.
#include "conformance.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdarg.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <vector>

#include "drive/drive.h"

namespace conformance {
namespace {

constexpr size_t kHead = 2056, kBlock = 8192, kTail = 520;
constexpr int kWriter = O_WRONLY | O_CREAT | O_TRUNC | O_DSYNC;

// A result of a call: the number, or the name of the error.
std::string resultOf(long result) {
  const char *name = result < 0 ? strerrorname_np(errno) : nullptr;
  return name ? name : std::to_string(result);
}

std::string join(std::initializer_list<std::string> words) {
  std::string text;
  for (const std::string &word : words) text += (text.empty() ? "" : " ") + word;
  return text;
}

// Blocks say which they are, so that a read shows which it got.
std::vector<char> blockOf(int file, int number, size_t length) {
  std::vector<char> block(length, static_cast<char>('a' + (file + number) % 26));
  std::string tag = "F" + std::to_string(file) + "B" + std::to_string(number) + ";";
  memcpy(block.data(), tag.data(), tag.size());
  return block;
}

class Points {
 public:
  Points(const std::string &device, FILE *out, const Operator &hand)
      : device_(device), out_(out), hand_(hand), buffer_(1024 * 1024) {}

  int runAll() {
    blockMode();
    fileMarks();
    positions();
    steppingBack();
    overwriting();
    sizes();
    readingMarks();
    busy();
    sharing();
    operations();
    if (hand_) medium();
    endOfTape();
    return differs_;
  }

 private:
  void expect(const char *point, const char *what, const std::string &wanted,
              const std::string &seen) {
    bool isRight = wanted == seen;
    fprintf(out_, "[%s] %s: %s -> %s%s%s\n", point, what, seen.c_str(), isRight ? "OK" : "DIFFERS",
            isRight ? "" : ", expected ", isRight ? "" : wanted.c_str());
    fflush(out_);
    if (!isRight) differs_++;
  }

  // A descriptor that is closed as a drive is.
  class Opened {
   public:
    explicit Opened(int fd) : fd_(fd) {}
    ~Opened() { close(); }
    Opened(const Opened &) = delete;
    Opened &operator=(const Opened &) = delete;
    operator int() const { return fd_; }
    int close() {
      int result = fd_ >= 0 ? drive::closeDrive(fd_) : 0;
      fd_ = -1;
      return result;
    }

   private:
    int fd_;
  };

  int open(int flags) {
    int fd = drive::openDrive(device_.c_str(), flags, 0600);
    if (fd < 0) expect("-", "open of the drive", "a descriptor", resultOf(fd));
    return fd;
  }
  std::string tryOpen(int flags) {
    int fd = drive::openDrive(device_.c_str(), flags, 0600);
    if (fd < 0) return resultOf(fd);
    drive::closeDrive(fd);
    return "opened";
  }

  long write(int fd, int file, int number, size_t length) {
    return drive::writeBlock(fd, blockOf(file, number, length).data(), length);
  }
  long read(int fd, size_t request) {
    std::fill(buffer_.begin(), buffer_.begin() + 64, 0);
    return drive::readBlock(fd, buffer_.data(), request);
  }
  // A read as text: which block, or the number or error.
  std::string readTag(int fd, size_t request = kBlock) {
    long got = read(fd, request);
    if (got <= 0) return resultOf(got);
    const char *end = static_cast<const char *>(memchr(buffer_.data(), ';', 30));
    return (end ? std::string(const_cast<const char *>(buffer_.data()), end) : "?") + ":" +
           std::to_string(got);
  }

  mtget status(int fd) {
    mtget now = {};
    if (drive::status(fd, &now) != 0) expect("-", "status of the drive", "0", resultOf(-1));
    return now;
  }
  std::string place(int fd) {
    mtget now = status(fd);
    return "file " + std::to_string(now.mt_fileno) + " block " + std::to_string(now.mt_blkno);
  }
  std::string placeNow() { return place(Opened(open(O_RDONLY))); }
  std::string blockSize(int fd) {
    return std::to_string((status(fd).mt_dsreg & MT_ST_BLKSIZE_MASK) >> MT_ST_BLKSIZE_SHIFT);
  }
  std::string flag(int fd, long (*test)(const mtget &)) { return test(status(fd)) ? "1" : "0"; }
  static long isEnd(const mtget &now) { return GMT_EOD(now.mt_gstat); }
  static long isMark(const mtget &now) { return GMT_EOF(now.mt_gstat); }

  std::string operate(int fd, short operation, int count) {
    return resultOf(drive::operate(fd, operation, count));
  }
  void standAt(int fd, int file) {
    if (drive::operate(fd, MTREW, 1) != 0 || (file && drive::operate(fd, MTFSF, file) != 0))
      expect("-", "positioning", "0", resultOf(-1));
  }
  void standAt(int file) { standAt(Opened(open(O_RDONLY)), file); }

  void writeFile(int file, std::initializer_list<size_t> lengths) {
    Opened fd(open(kWriter));
    int number = 0;
    for (size_t length : lengths)
      if (write(fd, file, number++, length) != static_cast<long>(length))
        expect("-", "writing a block", std::to_string(length), resultOf(-1));
    if (fd.close() != 0) expect("-", "close after writing", "0", resultOf(-1));
  }

  // The whole tape as text: blocks, '|' for a read of 0, and how it ends.
  std::string dump() {
    std::string text;
    Opened fd(open(O_RDONLY));
    drive::operate(fd, MTREW, 1);
    for (int zeros = 0; zeros < 2 && text.size() < 4000;) {
      std::string seen = readTag(fd, buffer_.size());
      zeros = seen == "0" ? zeros + 1 : 0;
      text += (text.empty() ? "" : " ") + (seen == "0" ? "|" : seen);
      if (seen == "EIO") break;
    }
    return text;
  }

  // Six tape files; file k has a head, k blocks and a tail.
  void fill() {
    standAt(0);
    for (int file = 0; file < 6; file++) {
      Opened fd(open(kWriter));
      int number = 0;
      write(fd, file, number++, kHead);
      for (int i = 0; i < file; i++) write(fd, file, number++, kBlock);
      write(fd, file, number, kTail);
    }
  }

  void blockMode() {
    {
      Opened fd(open(O_RDWR));
      expect("a1", "block size when the drive is first opened", "0", blockSize(fd));
      std::string set = operate(fd, MTSETBLK, 512);
      expect("a2", "MTSETBLK 512, block size then", "0 512", join({set, blockSize(fd)}));
      expect("a3", "a write of no multiple in fixed mode", "EINVAL",
             resultOf(write(fd, 0, 0, kHead)));
    }
    {
      Opened fd(open(O_RDWR));
      expect("a4", "block size after close and open", "512", blockSize(fd));
      std::string set = operate(fd, MTSETBLK, 0);
      expect("a5", "MTSETBLK 0, block size then", "0 0", join({set, blockSize(fd)}));
    }
    Opened fd(open(O_RDWR));
    drive::operate(fd, MTREW, 1);
    expect("a6", "block size after close, open and MTREW", "0", blockSize(fd));
    mtget now = status(fd);
    std::string flags;
    if (GMT_BOT(now.mt_gstat)) flags += "BOT ";
    if (GMT_ONLINE(now.mt_gstat)) flags += "ONLINE ";
    if (GMT_WR_PROT(now.mt_gstat)) flags += "WR_PROT ";
    expect("a7", "status at the beginning", "BOT ONLINE file 0 block 0", flags + place(fd));
  }

  void fileMarks() {
    standAt(0);
    expect("b0", "read on a blank tape", "EIO", readTag(Opened(open(O_RDONLY))));
    standAt(0);
    writeFile(0, {kHead});
    {
      Opened fd(open(O_RDONLY));
      expect("b1", "after one block and close", "file 1 block 0", place(fd));
      drive::operate(fd, MTREW, 1);
      expect("b2", "first read", "F0B0:2056", readTag(fd));
      expect("b3", "read at the mark", "0", readTag(fd));
      std::string first = readTag(fd), second = readTag(fd), third = readTag(fd);
      expect("b4", "further reads at the end of the data", "0 EIO EIO",
             join({first, second, third}));
    }
    standAt(1);
    Opened(open(O_WRONLY)).close();
    expect("b5", "open for writing and close without a write", "F0B0:2056 | |", dump());
    standAt(0);
    {
      Opened fd(open(O_WRONLY));
      write(fd, 0, 0, kHead);
      expect("b6", "an own mark", "0", operate(fd, MTWEOF, 1));
    }
    expect("b6", "after an own mark the close adds none", "file 1 block 0", placeNow());
    standAt(0);
    {
      Opened fd(open(O_WRONLY));
      expect("b7", "a write of 0 bytes", "0", resultOf(drive::writeBlock(fd, "", 0)));
    }
    expect("b7", "and close: no mark", "file 0 block 0", placeNow());
  }

  void positions() {
    fill();
    Opened fd(open(O_RDONLY));
    for (int file = 0; file < 6; file++) {
      std::string number = std::to_string(file);
      std::string results = join({operate(fd, MTREW, 1), operate(fd, MTFSF, file), place(fd)});
      expect("c1", ("MTREW, MTFSF " + number + ", place, block").c_str(),
             "0 0 file " + number + " block 0 F" + number + "B0:2056",
             join({results, readTag(fd, 8190)}));
    }
    drive::operate(fd, MTREW, 1);
    std::string moved = operate(fd, MTFSF, 6);
    expect("c2", "MTFSF as far as there are files", "0 file 6 block 0 EOD 0",
           join({moved, place(fd), "EOD", flag(fd, isEnd)}));
    drive::operate(fd, MTREW, 1);
    moved = operate(fd, MTFSF, 9);
    expect("c3", "MTFSF further", "EIO file 6 block -1 EOD 1",
           join({moved, place(fd), "EOD", flag(fd, isEnd)}));
    drive::operate(fd, MTREW, 1);
    moved = operate(fd, MTEOM, 1);
    expect("c4", "MTEOM", "0 file 6 EOD 1",
           join({moved, "file", std::to_string(status(fd).mt_fileno), "EOD", flag(fd, isEnd)}));
    standAt(fd, 4);
    moved = operate(fd, MTBSF, 2);
    std::string back = place(fd);
    expect("c5", "from file 4: MTBSF 2, MTFSF 1, block", "0 file 2 block -1 0 F3B0:2056",
           join({moved, back, operate(fd, MTFSF, 1), readTag(fd)}));
    standAt(fd, 3);
    readTag(fd), readTag(fd);
    expect("c6", "from within file 3: MTFSF 1, block", "0 F4B0:2056",
           join({operate(fd, MTFSF, 1), readTag(fd)}));
  }

  void steppingBack() {
    Opened fd(open(O_RDONLY));
    standAt(fd, 2);
    std::string moved = operate(fd, MTFSR, 2);
    expect("n1", "in file 2: MTFSR 2, place, block", "0 file 2 block 2 F2B2:8192",
           join({moved, place(fd), readTag(fd)}));
    moved = operate(fd, MTBSR, 2);
    expect("n2", "MTBSR 2, place, block", "0 file 2 block 1 F2B1:8192",
           join({moved, place(fd), readTag(fd)}));
    standAt(fd, 2);
    moved = operate(fd, MTFSR, 9);
    expect("n3", "MTFSR across a mark stops behind it", "EIO file 3 block 0 F3B0:2056",
           join({moved, place(fd), readTag(fd)}));
    standAt(fd, 2);
    moved = operate(fd, MTBSR, 1);
    expect("n4", "MTBSR across a mark stops in front of it", "EIO file 1 block -1 0 F2B0:2056",
           join({moved, place(fd), readTag(fd), readTag(fd)}));
    standAt(fd, 0);
    readTag(fd);
    moved = operate(fd, MTBSR, 5);
    expect("n5", "MTBSR at the beginning", "EIO F0B0:2056", join({moved, readTag(fd)}));
  }

  void overwriting() {
    fill();
    standAt(3);
    {
      Opened fd(open(kWriter));
      std::string wrote = resultOf(write(fd, 93, 0, kHead));
      expect("d1", "file 3 of 6 overwritten, close", "2056 0", join({wrote, resultOf(fd.close())}));
    }
    expect("d2", "O_TRUNC erases nothing before; the write ends the tape there",
           "F0B0:2056 F0B1:520 | F1B0:2056 F1B1:8192 F1B2:520 | F2B0:2056 F2B1:8192 F2B2:8192 "
           "F2B3:520 | F93B0:2056 | |",
           dump());
    fill();
    {
      Opened fd(open(O_RDWR));
      standAt(fd, 2);
      readTag(fd);
      expect("d3", "O_RDWR: a read, then a write", "2056", resultOf(write(fd, 92, 1, kHead)));
    }
    expect("d3", "the write replaces the rest",
           "F0B0:2056 F0B1:520 | F1B0:2056 F1B1:8192 F1B2:520 | F2B0:2056 F92B1:2056 | |", dump());
    standAt(2);
    std::string wrote = resultOf(write(Opened(open(O_RDONLY)), 0, 0, kHead));
    expect("d4", "a write without the right, a read without it", "EBADF EBADF",
           join({wrote, readTag(Opened(open(O_WRONLY)))}));
    expect("d5", "O_CREAT with O_EXCL", "EEXIST", tryOpen(O_WRONLY | O_CREAT | O_EXCL));
    fill();
    standAt(2);
    Opened(open(kWriter)).close();
    expect("d6", "open with O_TRUNC and close loses nothing", "found",
           dump().find("F5B0") != std::string::npos ? "found" : "lost");
  }

  void sizes() {
    {
      Opened fd(open(O_RDONLY));
      standAt(fd, 2);
      expect("e1", "request 8190 for a block of 2056", "F2B0:2056", readTag(fd, 8190));
      expect("e2", "request 8192 for a block of 8192", "F2B1:8192", readTag(fd, kBlock));
      std::string got = readTag(fd, kHead);
      expect("e3", "request 2056 for a block of 8192, which is passed", "ENOMEM file 2 block 3",
             join({got, place(fd)}));
      expect("e4", "the next block then", "F2B3:520", readTag(fd, kTail));
      standAt(fd, 0);
      got = resultOf(read(fd, 0));
      expect("e6", "request 0, then the block", "0 F0B0:2056", join({got, readTag(fd)}));
    }
    // Even and odd lengths, and the longest block.
    for (size_t length : {size_t{512}, size_t{519}, size_t{8000}, size_t{65536}, size_t{262145},
                          size_t{1024 * 1024}}) {
      standAt(0);
      std::vector<char> block(length);
      for (size_t i = 0; i < length; i++) block[i] = static_cast<char>(i % 251);
      std::string wrote;
      {
        Opened fd(open(O_WRONLY));
        wrote = resultOf(drive::writeBlock(fd, block.data(), length));
      }
      Opened fd(open(O_RDONLY));
      standAt(fd, 0);
      std::string got = resultOf(drive::readBlock(fd, buffer_.data(), buffer_.size()));
      bool isSame = memcmp(block.data(), buffer_.data(), length) == 0;
      std::string text = std::to_string(length);
      expect("e9", ("a block of " + text + ": written, read, compared").c_str(),
             text + " " + text + " same", join({wrote, got, isSame ? "same" : "different"}));
    }
  }

  void readingMarks() {
    fill();
    {
      Opened fd(open(O_RDONLY));
      standAt(fd, 0);
      readTag(fd), readTag(fd);
      std::string got = readTag(fd);
      std::string where = place(fd) + " EOF " + flag(fd, isMark);
      expect("f1", "read at a mark, place, next block", "0 file 1 block 0 EOF 1 F1B0:2056",
             join({got, where, readTag(fd)}));
    }
    {
      Opened fd(open(O_RDONLY));
      std::string where = place(fd);
      expect("f2", "closed within file 1: place and block of the next open",
             "file 1 block 1 F1B1:8192", join({where, readTag(fd)}));
      readTag(fd);
    }
    {
      Opened fd(open(O_RDONLY));
      std::string got = readTag(fd);
      expect("f3", "closed before a mark: the next open reads it first", "0 F2B0:2056",
             join({got, readTag(fd)}));
      standAt(fd, 0);
      readTag(fd), readTag(fd), readTag(fd);
    }
    Opened fd(open(O_RDONLY));
    expect("f4", "closed behind a mark", "F1B0:2056", readTag(fd));
    standAt(fd, 0);
    int zeros = 0, blocks = 0;
    for (int inRow = 0; inRow < 2 && blocks < 100;) {
      long got = read(fd, kBlock);
      if (got < 0) break;
      inRow = got ? 0 : inRow + 1;
      ++(got ? blocks : zeros);
    }
    expect("f5", "all through: blocks, reads of 0", "27 7",
           join({std::to_string(blocks), std::to_string(zeros)}));
    fd.close();
    standAt(0);
    writeFile(0, {kHead});
    writeFile(1, {kHead});
    expect("g1", "two files written one after the other", "F0B0:2056 | F1B0:2056 | |", dump());
  }

  void busy() {
    {
      Opened fd(open(O_RDONLY));
      expect("h1", "second open in the same process", "EBUSY", tryOpen(O_RDONLY));
      pid_t child = fork();
      if (child == 0) {
        drive::abandonDrive(fd);
        _exit(drive::openDrive(device_.c_str(), O_WRONLY) < 0 ? errno : 0);
      }
      int ended = 0;
      waitpid(child, &ended, 0);
      expect("h3", "open by another process", "EBUSY", strerrorname_np(WEXITSTATUS(ended)));
      expect("h4", "open with O_NONBLOCK", "EBUSY", tryOpen(O_RDONLY | O_NONBLOCK));
    }
    expect("h5", "open right after the close", "opened", tryOpen(O_RDONLY));
  }

  // Ends a child that waits for the end of its pipe.
  struct Waiting {
    pid_t pid;
    int pipeEnd;
    void end() {
      int ended = 0;
      ::close(pipeEnd);
      waitpid(pid, &ended, 0);
    }
  };
  static Waiting startWaiting() {
    int ends[2];
    if (pipe(ends) != 0) return {-1, -1};
    pid_t pid = fork();
    if (pid == 0) {
      char byte;
      ::close(ends[1]);
      (void)!::read(ends[0], &byte, 1);
      _exit(0);
    }
    ::close(ends[0]);
    return {pid, ends[1]};
  }

  void sharing() {
    standAt(0);
    {
      Opened fd(open(kWriter));
      write(fd, 0, 0, kHead);
      Waiting child = startWaiting();
      std::string closed = resultOf(fd.close());
      expect("i1", "a child holds the written drive: close, open", "0 EBUSY",
             join({closed, tryOpen(O_RDONLY)}));
      child.end();
    }
    expect("i2", "after the child's exit", "file 1 block 0 F0B0:2056 | |",
           join({placeNow(), dump()}));
    standAt(0);
    {
      Opened fd(open(kWriter));
      write(fd, 0, 0, kHead);
      pid_t child = fork();
      if (child == 0) {
        long put = write(fd, 0, 1, kHead);
        drive::closeDrive(fd);
        _exit(put == static_cast<long>(kHead) ? 0 : 1);
      }
      int ended = 0;
      waitpid(child, &ended, 0);
      write(fd, 0, 2, kHead);
    }
    expect("i3", "parent, child, parent write through one open",
           "F0B0:2056 F0B1:2056 F0B2:2056 | |", dump());
    standAt(0);
    pid_t child = fork();
    if (child == 0) {
      int fd = drive::openDrive(device_.c_str(), O_WRONLY);
      write(fd, 0, 0, kHead);
      kill(getpid(), SIGKILL);
    }
    int ended = 0;
    waitpid(child, &ended, 0);
    expect("i4", "a killed writer's file gets its mark", "file 1 block 0 F0B0:2056 | |",
           join({placeNow(), dump()}));
    standAt(0);
    int fd = open(O_WRONLY);
    write(fd, 0, 0, kHead);
    int copy = dup(fd);
    drive::closeDrive(fd);
    expect("i5", "a duplicate keeps the drive busy", "EBUSY", tryOpen(O_RDONLY));
    drive::closeDrive(copy);
    expect("i5", "until it is closed", "F0B0:2056 | |", dump());
  }

  void operations() {
    {
      Opened fd(open(O_RDWR));
      drive::operate(fd, MTREW, 1);
      expect("l7", "MTNOP, MTWEOF 0", "0 0", join({operate(fd, MTNOP, 1), operate(fd, MTWEOF, 0)}));
    }
    Opened null(drive::openDrive("/dev/null", O_RDWR));
    expect("l8", "MTREW on what is no tape", "ENOTTY", operate(null, MTREW, 1));
    fill();
    {
      Opened fd(open(O_WRONLY));
      expect("l9", "MTREW, MTFSF 2 on a drive open for writing", "0 0",
             join({operate(fd, MTREW, 1), operate(fd, MTFSF, 2)}));
    }
    expect("l9", "and nothing is lost", "found",
           dump().find("F5B0") != std::string::npos ? "found" : "lost");
    expect("l10", "MTWEOF on a drive open for reading", "EACCES",
           operate(Opened(open(O_RDONLY)), MTWEOF, 1));
    standAt(0);
    Opened fd(open(O_RDWR));
    write(fd, 0, 0, kHead);
    std::string moved = operate(fd, MTREW, 1), first = readTag(fd);
    expect("l11", "write, MTREW, two reads: the mark came first", "0 F0B0:2056 0",
           join({moved, first, readTag(fd)}));
    expect("l12", "a drive is always readable", "1", resultOf(drive::waitReadable(fd, 0)));
  }

  void medium() {
    standAt(0);
    writeFile(0, {kHead});
    hand_.eject();
    {
      Opened fd(drive::openDrive(device_.c_str(), O_RDONLY | O_NONBLOCK));
      expect("m1", "no cartridge: open with O_NONBLOCK, read", "opened ENOMEDIUM",
             join({fd >= 0 ? "opened" : "failed", readTag(fd)}));
      mtget now = status(fd);
      expect("m2", "no cartridge: ONLINE, DR_OPEN", "0 1",
             join({GMT_ONLINE(now.mt_gstat) ? "1" : "0", GMT_DR_OPEN(now.mt_gstat) ? "1" : "0"}));
    }
    hand_.insert();
    standAt(0);
    expect("m5", "the cartridge is back", "F0B0:2056", readTag(Opened(open(O_RDONLY))));
    hand_.protect(true);
    std::string writing = tryOpen(O_WRONLY), both = tryOpen(O_RDWR);
    expect("m7", "write-protected: O_WRONLY, O_RDWR, O_RDONLY", "EROFS EROFS opened",
           join({writing, both, tryOpen(O_RDONLY)}));
    hand_.protect(false);
    expect("m8", "writable again", "opened", tryOpen(O_WRONLY));
  }

  void endOfTape() {
    standAt(0);
    Opened fd(open(kWriter));
    long good = 0, result;
    while ((result = write(fd, 7, 0, kBlock)) == static_cast<long>(kBlock) && good < 1000000)
      good++;
    expect("j1", "writing until the early warning", "ENOSPC", resultOf(result));
    expect("j2", "place then", "file 0 block " + std::to_string(good), place(fd));
    std::string pattern;
    long tries = 0;
    for (int inRow = 0; inRow < 4 && tries < 100000; tries++) {
      result = write(fd, 7, 0, kBlock);
      if (tries < 4) pattern += (tries ? " " : "") + resultOf(result);
      inRow = result < 0 ? inRow + 1 : 0;
      good += result > 0;
    }
    expect("j2", "every other write succeeds behind it", "8192 ENOSPC 8192 ENOSPC", pattern);
    expect("j2", "until the hard end", "met", tries < 100000 ? "met" : "not met");
    expect("j3", "close at the end of the tape", "0", resultOf(fd.close()));
    Opened back(open(O_RDONLY));
    drive::operate(back, MTREW, 1);
    long seen = 0;
    while ((result = read(back, kBlock)) == static_cast<long>(kBlock)) seen++;
    expect("j4", "every block that was written can be read, then the mark",
           std::to_string(good) + " 0", join({std::to_string(seen), resultOf(result)}));
    back.close();
    standAt(0);
    writeFile(0, {kHead});
    expect("j5", "the full tape overwritten from its beginning", "F0B0:2056 | |", dump());
  }

  std::string device_;
  FILE *out_;
  const Operator &hand_;
  std::vector<char> buffer_;
  int differs_ = 0;
};

}  // namespace

int run(const std::string &device, FILE *out, const Operator &hand) {
  return Points(device, out, hand).runAll();
}

}  // namespace conformance
