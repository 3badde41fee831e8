// What the tests of whole replication jobs share: a tree to send, in either behaviour.
#pragma once
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "repltest.h"

namespace repltest {

// driver_test.cpp names the behaviours.
class Driver : public ReplicationTest, public testing::WithParamInterface<const char *> {
 protected:
  void SetUp() override {
    ReplicationTest::SetUp();
    behave(GetParam());
    mkdir(path("tree").c_str(), 0755);
    support::writeFile(path("tree/one"), "first");
    support::writeFile(path("tree/two"), pattern(1500000));
    (void)!symlink("one", path("tree/link").c_str());
    offer({path("tree") + "/"});
  }
  bool sound() const { return strcmp(GetParam(), "sound") == 0; }
  // The copy of a file on a target whose destination is this folder.
  std::string copy(const std::string &folder, const std::string &file) const {
    return support::readFile(folder + path(file));
  }
};
class ClassicDriver : public Driver {};
class SoundDriver : public Driver {};

}  // namespace repltest
