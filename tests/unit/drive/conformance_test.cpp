#include "conformance.h"

#include "drivetest.h"

namespace {

TEST_F(DriveTest, AVirtualDriveSatisfiesEveryPointOfATapeDrive) {
  conformance::Operator hand;
  hand.eject = [] { EXPECT_EQ(drive::unloadCartridge("v0"), ""); };
  hand.insert = [] { EXPECT_EQ(drive::loadCartridge("v0", "c1"), ""); };
  hand.protect = [](bool isProtected) {
    EXPECT_EQ(drive::protectCartridge("c1", isProtected), "");
  };
  char *text = nullptr;
  size_t length = 0;
  FILE *out = open_memstream(&text, &length);
  int differs = conformance::run(kDevice, out, hand);
  fclose(out);
  EXPECT_EQ(differs, 0) << text;
  EXPECT_GT(std::count(text, text + length, '\n'), 80) << text;
  free(text);
}

}  // namespace
