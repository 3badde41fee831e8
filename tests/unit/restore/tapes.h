// Tapes of one volume for the tests of restores: packages block by block, the volume list beside
// them.
#pragma once
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zul/net.h>
#include <zul/tape.h>

#include <string>
#include <vector>

#include "drive/cartridge.h"
#include "drive/drive.h"
#include "support.h"

namespace tapes {

using support::pattern;

struct File {
  std::string host, name, data;
  int type = 0;
};

inline package headerOf(const File &file, int sequence) {
  package header{};
  header.magic = PACK_MAGIC;
  header.type = static_cast<uint8_t>(file.type);
  snprintf(header.filename, sizeof header.filename, "%s", file.name.c_str());
  snprintf(header.fromhost, sizeof header.fromhost, "%s", file.host.c_str());
  header.usrid = getuid();
  header.grpid = getgid();
  header.mode = file.type == 1 ? S_IFDIR | 0750 : S_IFREG | 0640;
  header.mtime = header.atime = 1000000000;
  header.size = file.data.size();
  header.sequence = sequence;
  return header;
}

// The header block and the data blocks of one package.
inline std::vector<std::string> blocksOf(const File &file, int sequence = 0) {
  package header = headerOf(file, sequence);
  std::string raw(PACK_SIZE, '\0');
  packPackage(raw.data(), &header);
  std::vector<std::string> blocks{raw};
  size_t from = static_cast<size_t>(sequence) * PACK_CHUNK;
  std::string segment = from < file.data.size() ? file.data.substr(from, PACK_CHUNK) : "";
  for (size_t at = 0; at < segment.size(); at += PACK_PIECE) {
    std::string block = segment.substr(at, PACK_PIECE);
    block.resize((block.size() + 511) / 512 * 512, 'p');
    blocks.push_back(block);
  }
  return blocks;
}

inline int packagesOf(const File &file) {
  return static_cast<int>(file.data.size() / PACK_CHUNK) + 1;
}

inline void append(std::vector<std::string> &to, const std::vector<std::string> &blocks) {
  to.insert(to.end(), blocks.begin(), blocks.end());
}

// Whole files one after the other.
inline std::vector<std::string> blocksOf(const std::vector<File> &files) {
  std::vector<std::string> blocks;
  for (const File &file : files)
    for (int sequence = 0; sequence < packagesOf(file); sequence++)
      append(blocks, blocksOf(file, sequence));
  return blocks;
}

// A virtual drive "d0", number 0 in the drive table, with one cartridge.
class TapeTest : public support::HomeTest {
 protected:
  static constexpr const char *kDevice = "/dev/vtape/d0";

  void SetUp() override {
    HomeTest::SetUp();
    behave("sound");
    ASSERT_EQ(drive::makeDrive("d0"), "");
    ASSERT_EQ(drive::makeCartridge("c0", 256 << 20), "");
    ASSERT_EQ(drive::loadCartridge("d0", "c0"), "");
    support::writeFile(path("etc/tapedevs"), "0:d0:/dev/vtape/d0:0:0\n");
    mkdir(path("var/tape/drive.0").c_str(), 0755);
    mkdir(path("var/tape/drive.0/tape.3").c_str(), 0755);
  }

  void behave(const std::string &behaviour) {
    site("behaviour = " + behaviour + "\nbehaviour.security = classic\n" +
         "pause.receiver-start = 0\npause.receiver-ready = 0\npause.receiver-poll = 1ms\n"
         "pause.label-settle = 0\npause.drive-busy = 5ms\npause.tape-retry = 1ms\n"
         "pause.connect-retry = 5ms\n");
  }

  void writeTapeFile(const std::vector<std::string> &blocks) {
    int fd = drive::openDrive(kDevice, O_WRONLY);
    ASSERT_GE(fd, 0) << strerror(errno);
    for (const std::string &block : blocks)
      ASSERT_EQ(drive::writeBlock(fd, block.data(), block.size()),
                static_cast<ssize_t>(block.size()));
    ASSERT_EQ(drive::closeDrive(fd), 0);
  }

  // The label, one volume (1): its catalog copy and its data; and the mark behind.
  void writeTape(const std::vector<std::string> &data, int tape = 3, int drive = 0) {
    int fd = drive::openDrive(kDevice, O_RDONLY);
    drive::operate(fd, MTREW, 1);
    drive::closeDrive(fd);
    tapehead label{};
    label.magic = TAPEHEAD_MAGIC;
    label.created = 1000000000;
    snprintf(label.name, sizeof label.name, "a label");
    snprintf(label.device, sizeof label.device, "%s", kDevice);
    snprintf(label.host, sizeof label.host, "labeller");
    label.drive = drive;
    label.tape = tape;
    writeTapeFile({std::string(reinterpret_cast<char *>(&label), sizeof label)});
    writeTapeFile(catalogBlocks());
    writeTapeFile(data);
  }

  static std::string catalogRecord() {
    catlgstru record;
    memset(&record, 0, sizeof record);
    record.magic = CATLG_MAGIC;
    record.created = 1000000000;
    record.jobnum = 7;
    return std::string(reinterpret_cast<char *>(&record), CATLG_FIXED);
  }
  static std::vector<std::string> catalogBlocks() {
    std::string texts(CATLG_STRINGS * 256, '\0');
    snprintf(texts.data(), 256, "/etc/");
    snprintf(texts.data() + 256, 256, "/home/");
    std::vector<std::string> blocks{catalogRecord()};
    for (size_t at = 0; at < texts.size(); at += 4096) blocks.push_back(texts.substr(at, 4096));
    return blocks;
  }

  // The drive open at the start of the volume's data.
  int openData() {
    int fd = drive::openDrive(kDevice, O_RDONLY);
    EXPECT_GE(fd, 0) << strerror(errno);
    drive::operate(fd, MTREW, 1);
    EXPECT_EQ(drive::operate(fd, MTFSF, 2), 0);
    return fd;
  }

  std::string volumePath(const char *suffix = "") const {
    return path(std::string("var/tape/drive.0/tape.3/vol.1") + suffix);
  }
};

}  // namespace tapes
