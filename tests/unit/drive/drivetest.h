// A home with one virtual drive and one cartridge, for the tests of the drive layer.
#pragma once
#include <fcntl.h>

#include <string>

#include "drive/cartridge.h"
#include "drive/drive.h"
#include "support.h"

class DriveTest : public support::HomeTest {
 protected:
  static constexpr const char *kDevice = "/dev/vtape/v0";
  static constexpr uint64_t kCapacity = 4 * 1024 * 1024;

  void SetUp() override {
    HomeTest::SetUp();
    ASSERT_EQ(drive::makeDrive("v0"), "");
    ASSERT_EQ(drive::makeCartridge("c1", kCapacity), "");
    ASSERT_EQ(drive::loadCartridge("v0", "c1"), "");
  }

  std::string imagePath(const std::string &cartridge = "c1") const {
    return path("var/vtape/shelf/" + cartridge + ".tap");
  }
  std::string image() const { return support::readFile(imagePath()); }
  std::string statePath() const { return path("var/vtape/v0/state"); }

  // Opens the drive; the test fails when that does.
  int open(int flags) {
    int fd = drive::openDrive(kDevice, flags);
    EXPECT_GE(fd, 0) << strerror(errno);
    return fd;
  }
  // The errno of an open that must fail; 0 when it does not.
  int openError(int flags, const char *device = kDevice) {
    int fd = drive::openDrive(device, flags);
    if (fd < 0) return errno;
    drive::closeDrive(fd);
    return 0;
  }
  ssize_t put(int fd, const std::string &block) {
    return drive::writeBlock(fd, block.data(), block.size());
  }
  // The next block; "|" for a mark, or the name of the error.
  std::string take(int fd, size_t request = 1024 * 1024) {
    std::string block(request, '\0');
    ssize_t got = drive::readBlock(fd, block.data(), block.size());
    if (got < 0) return strerrorname_np(errno);
    if (got == 0) return "|";
    block.resize(static_cast<size_t>(got));
    return block;
  }
  // Every block of the tape in words, as take gives them, until two marks in a row or an error.
  std::string tape() {
    int fd = open(O_RDONLY);
    drive::operate(fd, MTREW, 1);
    std::string text;
    for (int marks = 0, blocks = 0; marks < 2 && blocks < 1000; blocks++) {
      std::string word = take(fd);
      marks = word == "|" ? marks + 1 : 0;
      text += (text.empty() ? "" : " ") + word;
      if (word[0] == 'E') break;
    }
    drive::closeDrive(fd);
    return text;
  }
  void writeFile(std::initializer_list<std::string> blocks) {
    int fd = open(O_WRONLY);
    for (const std::string &block : blocks)
      EXPECT_EQ(put(fd, block), static_cast<ssize_t>(block.size())) << strerror(errno);
    EXPECT_EQ(drive::closeDrive(fd), 0);
  }
  std::string place(int fd) {
    mtget now = {};
    drive::status(fd, &now);
    return std::to_string(now.mt_fileno) + "/" + std::to_string(now.mt_blkno);
  }
};
