// What the operator's command does with drives and cartridges, its refusals in words.
#include "drive/cartridge.h"

#include <sys/stat.h>

#include "drivetest.h"

namespace {

TEST_F(DriveTest, NamesOfTapesAreShortPlainWords) {
  for (const char *good : {"a", "vtape0", "Daily-2_b.old", "0"})
    EXPECT_TRUE(drive::isTapeName(good));
  EXPECT_TRUE(drive::isTapeName(std::string(63, 'a').c_str()));
  EXPECT_FALSE(drive::isTapeName(std::string(64, 'a').c_str()));
  for (const char *bad : {"", ".", "..", ".hidden", "a/b", "a b", "a\n", "\xc3\xa4"})
    EXPECT_FALSE(drive::isTapeName(bad)) << bad;
}

TEST_F(DriveTest, ABadNameIsRefusedInWords) {
  EXPECT_EQ(
      drive::makeDrive("shelf"),
      "\"shelf\" cannot be the name of a drive: use 1 to 63 letters, digits, '.', '_' or '-', "
      "not \"shelf\", and no '.' in front");
  EXPECT_NE(drive::makeCartridge("../c", 1 << 20), "");
  EXPECT_NE(drive::loadCartridge("../v0", "c1"), "");
  EXPECT_NE(drive::loadCartridge("v0", "../c1"), "");
  EXPECT_NE(drive::unloadCartridge("../v0"), "");
  EXPECT_NE(drive::protectCartridge("../c1", true), "");
}

TEST_F(DriveTest, MakesNothingTwice) {
  EXPECT_EQ(drive::makeDrive("v0"), "Drive v0 already exists");
  writeFile({"abc"});
  EXPECT_EQ(drive::makeCartridge("c1", 1 << 20),
            "Cartridge c1 already exists; choose another name");
  EXPECT_EQ(tape(), "abc | |");
}

TEST_F(DriveTest, ACapacityHasItsBounds) {
  EXPECT_NE(drive::makeCartridge("c2", drive::kCapacityMin - 1), "");
  EXPECT_NE(drive::makeCartridge("c2", drive::kCapacityMax + 1), "");
  EXPECT_EQ(drive::makeCartridge("c2", drive::kCapacityMin), "");
  EXPECT_EQ(support::readFile(path("var/vtape/shelf/c2.info")),
            "capacity = 65536\nprotected = no\n");
  EXPECT_EQ(support::readFile(path("var/vtape/shelf/c2.tap")), "");
}

TEST_F(DriveTest, ACartridgeIsInOneDriveAtATime) {
  ASSERT_EQ(drive::makeDrive("v1"), "");
  ASSERT_EQ(drive::makeCartridge("c2", 1 << 20), "");
  EXPECT_EQ(drive::loadCartridge("v1", "c1"), "Cartridge c1 is in drive v0; unload it there first");
  EXPECT_EQ(drive::loadCartridge("v0", "c2"), "Cartridge c1 is still in drive v0; unload it first");
  EXPECT_EQ(drive::loadCartridge("v0", "c1"), "Cartridge c1 is in drive v0 already");
  EXPECT_EQ(drive::loadCartridge("v0", "none"),
            "There is no cartridge none; \"zul vtape list\" shows the cartridges");
  EXPECT_EQ(drive::loadCartridge("none", "c1"),
            "There is no drive none; \"zul vtape list\" shows the drives");
  std::string out;
  EXPECT_EQ(drive::unloadCartridge("v0", &out), "");
  EXPECT_EQ(out, "c1");
  EXPECT_EQ(drive::unloadCartridge("v0"), "Drive v0 is empty");
  EXPECT_EQ(drive::loadCartridge("v1", "c1"), "");
}

TEST_F(DriveTest, ABusyDriveSaysWhoHoldsIt) {
  int fd = open(O_RDONLY);
  std::string busy = "Drive v0 is in use by process " + std::to_string(getpid()) +
                     "; wait until its job has ended, or stop it";
  EXPECT_EQ(drive::unloadCartridge("v0"), busy);
  EXPECT_EQ(drive::loadCartridge("v0", "c1"), busy);
  EXPECT_EQ(drive::protectCartridge("c1", true), busy);
  std::vector<drive::DriveInfo> drives = drive::listDrives();
  ASSERT_EQ(drives.size(), 1u);
  EXPECT_TRUE(drives[0].isBusy);
  EXPECT_EQ(drives[0].holder, getpid());
  drive::closeDrive(fd);
  EXPECT_FALSE(drive::listDrives()[0].isBusy);
}

TEST_F(DriveTest, ACartridgeComesInAtItsBeginning) {
  writeFile({"abc"});
  ASSERT_EQ(drive::unloadCartridge("v0"), "");
  ASSERT_EQ(drive::loadCartridge("v0", "c1"), "");
  int fd = open(O_RDONLY);
  EXPECT_EQ(place(fd), "0/0");
  EXPECT_EQ(take(fd), "abc");
  drive::closeDrive(fd);
}

TEST_F(DriveTest, ListsSayWhatIsWhere) {
  ASSERT_EQ(drive::makeDrive("a-drive"), "");
  ASSERT_EQ(drive::makeCartridge("b2", 1 << 20), "");
  ASSERT_EQ(drive::protectCartridge("b2", true), "");
  support::writeFile(path("var/vtape/shelf/by-hand.tap"), std::string(8, '\0'));
  writeFile({"abc"});

  std::vector<drive::DriveInfo> drives = drive::listDrives();
  ASSERT_EQ(drives.size(), 2u);
  EXPECT_EQ(drives[0].name, "a-drive");
  EXPECT_EQ(drives[0].cartridge, "");
  EXPECT_EQ(drives[0].fileNo, -1);
  EXPECT_EQ(drives[1].device, "/dev/vtape/v0");
  EXPECT_EQ(drives[1].cartridge, "c1");
  EXPECT_EQ(drives[1].fileNo, 1);
  EXPECT_EQ(drives[1].blockNo, 0);

  std::vector<drive::CartridgeInfo> cartridges = drive::listCartridges();
  ASSERT_EQ(cartridges.size(), 3u);
  EXPECT_EQ(cartridges[0].name, "b2");
  EXPECT_TRUE(cartridges[0].isProtected);
  EXPECT_EQ(cartridges[1].name, "by-hand");
  EXPECT_TRUE(cartridges[1].isProtected);
  EXPECT_EQ(cartridges[1].capacityBytes, 0u);
  EXPECT_EQ(cartridges[2].name, "c1");
  EXPECT_EQ(cartridges[2].drive, "v0");
  EXPECT_EQ(cartridges[2].capacityBytes, kCapacity);
  EXPECT_EQ(cartridges[2].usedBytes, 16u);
}

TEST_F(DriveTest, AnImageFromElsewhereCanBeReadAndThenFreed) {
  support::writeFile(path("var/vtape/shelf/other.tap"),
                     std::string("\2\0\0\0hi\2\0\0\0\0\0\0\0", 14));
  ASSERT_EQ(drive::unloadCartridge("v0"), "");
  ASSERT_EQ(drive::loadCartridge("v0", "other"), "");
  EXPECT_EQ(tape(), "hi | |");
  EXPECT_EQ(openError(O_WRONLY), EROFS);
  ASSERT_EQ(drive::protectCartridge("other", false), "");
  writeFile({"more"});
  EXPECT_EQ(tape(), "hi | more | |");
}

TEST_F(DriveTest, AHomeWithoutDrivesListsNothing) {
  std::string full = home;
  snprintf(ZULhome, sizeof ZULhome, "%s/tmp", full.c_str());
  EXPECT_TRUE(drive::listDrives().empty());
  EXPECT_TRUE(drive::listCartridges().empty());
  EXPECT_EQ(drive::makeDrive("v9"), "");
  EXPECT_EQ(drive::listDrives().size(), 1u);
}

}  // namespace
