// Keeping a drive between two of a job's openings.
#include "drive/reservation.h"

#include <errno.h>
#include <sys/wait.h>
#include <unistd.h>

#include "drivetest.h"

namespace {

class Reserving : public DriveTest {
 protected:
  // Exit status of a child that runs the body.
  static int other(const std::function<int()> &body) {
    return support::exitOf(support::inChild(body));
  }
  int tryOpen() { return openError(O_RDONLY); }
};

TEST_F(Reserving, TheDriveIsBusyForOthersAndNotForTheOwner) {
  drive::Reservation reservation;
  ASSERT_TRUE(reservation.take(kDevice));
  EXPECT_EQ(drive::keeperOf(kDevice), 0);
  EXPECT_EQ(tryOpen(), 0);
  EXPECT_EQ(tryOpen(), 0) << "a look at the reservation does not end it";
  EXPECT_EQ(other([&] { return tryOpen(); }), EBUSY);
  pid_t owner = getpid();
  EXPECT_EQ(other([&] { return drive::keeperOf(kDevice) == owner ? 7 : 0; }), 7);
  EXPECT_EQ(other([&] {
              drive::Reservation second;
              return second.take(kDevice) ? 0 : 7;
            }),
            7);
  EXPECT_EQ(other([&] { return drive::keeperOf("/dev/vtape/v1"); }), 0);
}

TEST_F(Reserving, ItEndsWithItsOwner) {
  {
    drive::Reservation reservation;
    ASSERT_TRUE(reservation.take(kDevice));
  }
  EXPECT_EQ(other([&] { return tryOpen(); }), 0);
  // One that was killed gives nothing back.
  EXPECT_EQ(other([&] {
              drive::Reservation reservation;
              if (!reservation.take(kDevice)) return 1;
              _exit(7);
            }),
            7);
  drive::Reservation reservation;
  EXPECT_TRUE(reservation.take(kDevice));
}

TEST_F(Reserving, AChildThatLivesOnDoesNotKeepTheDrive) {
  int gate[2];
  ASSERT_EQ(pipe2(gate, O_CLOEXEC), 0);
  pid_t child = -1;
  {
    drive::Reservation reservation;
    ASSERT_TRUE(reservation.take(kDevice));
    child = fork();
    if (child == 0) {
      char byte;
      close(gate[1]);
      (void)!read(gate[0], &byte, 1);
      _exit(0);
    }
  }
  EXPECT_EQ(other([&] { return tryOpen(); }), 0);
  close(gate[1]);
  close(gate[0]);
  waitpid(child, nullptr, 0);
}

TEST_F(Reserving, ACartridgeStaysInAReservedDrive) {
  drive::Reservation reservation;
  ASSERT_TRUE(reservation.take(kDevice));
  std::string owner = std::to_string(getpid());
  EXPECT_EQ(other([&] {
              std::string why = drive::unloadCartridge("v0", nullptr);
              return why.find("in use by process " + owner) != std::string::npos ? 7 : 0;
            }),
            7);
}

TEST_F(Reserving, WhereNoLockCanBeMadeTheJobGoesOn) {
  ASSERT_EQ(rename(path("tmp").c_str(), path("tmp.away").c_str()), 0);
  drive::Reservation reservation;
  EXPECT_TRUE(reservation.take(kDevice));
  EXPECT_EQ(other([&] { return tryOpen(); }), 0);
}

}  // namespace
