// Site settings: which behaviour holds where, and what a damaged file costs.
#include "base/site.h"

#include <sys/stat.h>

#include "base/pause.h"
#include "support.h"

using base::Area;
using base::sound;

namespace {

class Site : public support::HomeTest {};

TEST_F(Site, WithoutAFileEverythingIsClassicAndOneNoticeSaysSo) {
  unlink(path("etc/ZULsite").c_str());
  base::forgetSite();
  EXPECT_FALSE(sound(Area::stream));
  EXPECT_FALSE(sound(Area::pace));
  EXPECT_EQ(hostLog(),
            "NOTICE:  No site file " + path("etc/ZULsite") + ": classic behaviour everywhere\n");
}

TEST_F(Site, OneLineSwitchesAllAreas) {
  soundSite();
  for (int at = 0; at < static_cast<int>(Area::kCount); at++)
    EXPECT_TRUE(sound(static_cast<Area>(at)));
  EXPECT_EQ(hostLog(), "");
}

TEST_F(Site, AreasAreSwitchedOneByOneBehindIt) {
  site("# all\nbehaviour = sound   # but\nbehaviour.multicast = classic\n");
  EXPECT_TRUE(sound(Area::backup));
  EXPECT_FALSE(sound(Area::multicast));
}

TEST_F(Site, AFileOthersMayWriteIsNotUsed) {
  soundSite();
  chmod(path("etc/ZULsite").c_str(), 0666);
  base::forgetSite();
  EXPECT_FALSE(sound(Area::stream));
  EXPECT_NE(hostLog().find("may be written by others"), std::string::npos);
}

TEST_F(Site, BadValuesNameLineAndKeyAndLeaveTheDefault) {
  site(
      "\nbehaviour.stream = loud\nbehaviour.sauce = sound\npause.idle = "
      "soon\nnonsense\nbehaviour.pace=sound\n");
  EXPECT_FALSE(sound(Area::stream));
  EXPECT_TRUE(sound(Area::pace));
  EXPECT_EQ(base::pauseLength(base::Pause::Idle), 45000);
  std::string file = path("etc/ZULsite");
  EXPECT_EQ(hostLog(), "NOTICE:  " + file +
                           " line 2: bad value for behaviour.stream: loud, its default holds\n" +
                           "NOTICE:  " + file + " line 3: unknown key behaviour.sauce, ignored\n" +
                           "NOTICE:  " + file +
                           " line 4: bad value for pause.idle: soon, its default holds\n" +
                           "NOTICE:  " + file + " line 5: no '=' in it, ignored: nonsense\n");
}

TEST_F(Site, IsReadOncePerProcess) {
  site("behaviour = classic\n");
  EXPECT_FALSE(sound(Area::stream));
  support::writeFile(path("etc/ZULsite"), "behaviour = sound\n");
  EXPECT_FALSE(sound(Area::stream));
}

TEST_F(Site, ValuesOfTheirOwn) {
  site("multicast.sender = 10.1.0.5\n");
  EXPECT_STREQ(base::siteValue("multicast.sender"), "10.1.0.5");
  EXPECT_STREQ(base::siteValue("multicast.interface"), "");
  EXPECT_STREQ(base::siteValue("no.such"), "");
}

TEST_F(Site, PausesHaveTheirStatedLengthsInClassic) {
  EXPECT_EQ(base::pauseLength(base::Pause::ListGrace), 10000);
  EXPECT_EQ(base::pauseLength(base::Pause::GatherChild), 5000);
  EXPECT_EQ(base::pauseLength(base::Pause::GathererStart), 5000);
  EXPECT_EQ(base::pauseLength(base::Pause::ParentPoll), 100);
  EXPECT_EQ(base::pauseLength(base::Pause::ChunkAck), 10);
  EXPECT_EQ(base::pauseLength(base::Pause::DriveBusy), 10000);
  EXPECT_EQ(base::pauseLength(base::Pause::DriveBusyTries), 30);
  EXPECT_EQ(base::pauseLength(base::Pause::LabelSettle), 1000);
}

TEST_F(Site, SoundPaceNeedsNoPauses) {
  site("behaviour.pace = sound\n");
  EXPECT_EQ(base::pauseLength(base::Pause::ListGrace), 0);
  EXPECT_EQ(base::pauseLength(base::Pause::GatherChild), 0);
  // The whole wait for a busy drive stays five minutes.
  EXPECT_EQ(
      base::pauseLength(base::Pause::DriveBusy) * base::pauseLength(base::Pause::DriveBusyTries),
      300000);
}

TEST_F(Site, APauseCanBeSetByHandInBothBehaviours) {
  for (const char *behaviour : {"classic", "sound"}) {
    site(std::string("behaviour = ") + behaviour +
         "\npause.list-grace = 3s\npause.idle = 20ms\npause.drive-busy=0\n");
    EXPECT_EQ(base::pauseLength(base::Pause::ListGrace), 3000);
    EXPECT_EQ(base::pauseLength(base::Pause::Idle), 20);
    EXPECT_EQ(base::pauseLength(base::Pause::DriveBusy), 0);
  }
}

}  // namespace
