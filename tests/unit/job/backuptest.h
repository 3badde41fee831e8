// What the tests of whole backup jobs share: a job on drive 1, and what it left behind.
#pragma once
#include <filesystem>
#include <regex>
#include <string>

#include "jobtest.h"

namespace jobtest {

class Backup : public JobTest {
 protected:
  bool logged(const std::string &text) const { return jobLog().find(text) != std::string::npos; }
  // What a job leaves behind in any case is nothing.
  void expectNothingLeft() {
    for (const auto &entry : std::filesystem::directory_iterator(path("tmp")))
      EXPECT_NE(entry.path().filename().string().rfind("ipc.", 0), 0u) << entry.path();
  }
  // The volume list without its entry numbers.
  std::string listed(int volume) const {
    return std::regex_replace(volumeList(volume), std::regex("(^|\n)[0-9]+:"), "$1");
  }
  std::string catalog() const { return support::readFile(tapeFilePath("catalog")); }
  // Positions behind the last volume, as the next job will: its volume number.
  int nextVolume() {
    std::string name = device;
    int tape = -1, volume = 0;
    support::captureStderr([&] { volume = gotoNextVol(name.data(), 1, &tape); });
    return volume;
  }
};

// The same job in both behaviours; backup_test.cpp names them.
class AnyBackup : public Backup, public ::testing::WithParamInterface<const char *> {
 protected:
  void SetUp() override {
    Backup::SetUp();
    behave(GetParam());
  }
  bool isSound() const { return std::string(GetParam()) == "sound"; }
};

}  // namespace jobtest
