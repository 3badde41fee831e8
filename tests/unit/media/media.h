// What the tests of tapes and catalogs share: drives with cartridges, and tapes made block by
// block.
#pragma once
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zul/tape.h>

#include <string>
#include <vector>

#include "drive/cartridge.h"
#include "drive/drive.h"
#include "support.h"

namespace media {

using support::captureStderr;
using support::captureStdout;
using support::exists;
using support::readFile;
using support::writeFile;

class MediaTest : public support::HomeTest {
 protected:
  void SetUp() override {
    HomeTest::SetUp();
    behave("classic");
  }

  // Sets the behaviour of all areas, with every pause as short as can be.
  void behave(const std::string &behaviour) {
    site("behaviour = " + behaviour +
         "\npause.label-settle = 0ms\npause.drive-busy = 5ms\npause.tape-retry = 1ms\n");
  }

  // Adds a line to the drive table and makes the drive's directory.
  void addDriveLine(int number, const std::string &device) {
    std::string text = std::to_string(number);
    table_ += text + ":lto" + text + ":" + device + ":a:b:\n";
    writeFile(path("etc/tapedevs"), table_);
    mkdir(path("var/tape/drive." + text).c_str(), 0755);
  }

  // A virtual drive with an empty cartridge, in the table under that number: its device path.
  std::string addVirtualDrive(int number, uint64_t capacity = 64 << 20) {
    std::string name = "d" + std::to_string(number);
    EXPECT_EQ(drive::makeDrive(name), "");
    EXPECT_EQ(drive::makeCartridge("cart" + name, capacity), "");
    EXPECT_EQ(drive::loadCartridge(name, "cart" + name), "");
    std::string device = "/dev/vtape/" + name;
    addDriveLine(number, device);
    return device;
  }

  // Runs a function that takes a text it may change; what it said goes to `said` and `printed`.
  template <typename Function>
  int run(Function function, const std::string &argument) {
    std::vector<char> text(argument.begin(), argument.end());
    text.push_back('\0');
    int result = 0;
    printed = captureStdout([&] { said = captureStderr([&] { result = function(text.data()); }); });
    return result;
  }

  std::string said;     // standard error of the last run
  std::string printed;  // its standard output

  std::string tapeDir(int drive, int tape) const {
    return path("var/tape/drive." + std::to_string(drive) + "/tape." + std::to_string(tape));
  }

 private:
  std::string table_;
};

// Writes one tape file of these blocks at the drive's position; the close ends it.
inline void writeTapeFile(const std::string &device, const std::vector<std::string> &blocks) {
  int fd = drive::openDrive(device.c_str(), O_WRONLY);
  ASSERT_GE(fd, 0) << device << ": " << strerror(errno);
  for (const std::string &block : blocks)
    ASSERT_EQ(drive::writeBlock(fd, block.data(), block.size()),
              static_cast<ssize_t>(block.size()));
  ASSERT_EQ(drive::closeDrive(fd), 0);
}

// The next block of the tape at the drive's position, which moves on.
inline std::string readTapeBlock(const std::string &device) {
  int fd = drive::openDrive(device.c_str(), O_RDONLY);
  EXPECT_GE(fd, 0) << device;
  std::string block(65536, '\0');
  ssize_t got = drive::readBlock(fd, block.data(), block.size());
  drive::closeDrive(fd);
  return got < 0 ? "error " + std::to_string(errno) : block.substr(0, static_cast<size_t>(got));
}

// A label as a tape carries it.
inline tapehead makeLabel(int drive, int tape, const char *name) {
  tapehead label{};
  label.magic = TAPEHEAD_MAGIC;
  label.created = 1000000000;
  strncpy(label.name, name, sizeof label.name - 1);
  label.drive = drive;
  label.tape = tape;
  return label;
}

inline std::string bytesOf(const tapehead &label) {
  return std::string(reinterpret_cast<const char *>(&label), sizeof label);
}

// A volume record with its texts as it lies in a catalog.
inline std::string makeRecord(int job, const std::vector<std::string> &lines) {
  catlgstru record;
  memset(&record, 0, sizeof record);
  record.magic = CATLG_MAGIC;
  record.created = 1000000000;
  record.retention = 3600;
  record.jobnum = job;
  snprintf(record.label, sizeof record.label, "job%i", job);
  std::string bytes(reinterpret_cast<const char *>(&record), CATLG_FIXED);
  for (size_t at = 0; at < CATLG_STRINGS; at++) {
    if (at < lines.size()) bytes += lines[at];
    bytes += '\0';
  }
  return bytes;
}

}  // namespace media
