// Replication jobs between their stored text and the words of an operator.
#include "console/repjob.h"

#include <gtest/gtest.h>

#include "console/failure.h"

namespace {

using console::RepJob;
using console::RepJobWords;

RepJob changed(const RepJobWords &words, RepJob job = RepJob()) {
  console::applyWords(words, &job);
  return job;
}

TEST(RepJobText, ComesBackAsItWas) {
  std::string text = "5:3:8:12:34:28672:32768:7:2:reserved:/srv/copy:a name";
  std::optional<RepJob> job = console::parseRepJob(text);
  ASSERT_TRUE(job);
  EXPECT_EQ(console::repJobText(*job), text);
  EXPECT_TRUE(job->keepsMode() && job->keepsGroup() && job->keepsOwner() && job->keepsSetuid() &&
              job->encrypts());
}

TEST(RepJobText, OtherLinesAreNone) {
  for (const char *line : {"", "5:3", "ERROR:  8536  Cannot read jobid index",
                           "5:3:8:12:34:28672:32768:7:2:other:/srv:copy",
                           "x:3:8:12:34:28672:32768:7:2:reserved:/srv:copy",
                           "99999999999:3:8:12:34:28672:32768:7:2:reserved:/srv:copy"})
    EXPECT_FALSE(console::parseRepJob(line)) << line;
}

TEST(RepJobText, KeepsColonsOfANameAndStoresNone) {
  std::optional<RepJob> job = console::parseRepJob("5:3:8:0:0:0:0:0:0:reserved:/srv:a:b");
  ASSERT_TRUE(job);
  EXPECT_EQ(job->name, "a:b");
  EXPECT_THROW(console::repJobText(*job), console::Failure);
}

TEST(RepJobWords, ANewJobKeepsEverythingButSetuid) {
  RepJob job;
  EXPECT_TRUE(job.keepsMode() && job.keepsGroup() && job.keepsOwner());
  EXPECT_FALSE(job.keepsSetuid() || job.encrypts());
  EXPECT_EQ(console::conflictName(job.conflict), "if-different");
}

TEST(RepJobWords, ConflictModesHaveNames) {
  for (auto [name, mode] : {std::pair{"keep-both", 0},
                            {"never", 1},
                            {"if-different", 2},
                            {"always", 4},
                            {"if-newer", 8}}) {
    EXPECT_EQ(console::conflictMode(name), mode);
    EXPECT_EQ(console::conflictName(mode), name);
    EXPECT_EQ(changed({.conflict = name}).conflict, mode);
  }
  EXPECT_EQ(console::conflictName(77), "77");
  EXPECT_THROW(changed({.conflict = "sometimes"}), console::Failure);
}

TEST(RepJobWords, OwnersAreNumbersOrKept) {
  RepJob job = changed({.owner = "33", .ownerGroup = "44"});
  EXPECT_EQ(job.owner, 33);
  EXPECT_EQ(job.ownerGroup, 44);
  EXPECT_FALSE(job.keepsOwner() || job.keepsGroup());
  EXPECT_TRUE(job.keepsMode());
  job = changed({.owner = "keep"}, job);
  EXPECT_TRUE(job.keepsOwner());
  EXPECT_FALSE(job.keepsGroup());
  for (const char *word : {"-1", "root", "", "3x", "99999999999"})
    EXPECT_THROW(changed({.owner = word}), console::Failure) << word;
}

TEST(RepJobWords, PermissionsAreKeptForBothOrForNeither) {
  RepJob job = changed({.directoryMode = "750", .fileMode = "640"});
  EXPECT_EQ(job.directoryPolicy & 0777, 0750);
  EXPECT_EQ(job.filePolicy & 0777, 0640);
  EXPECT_FALSE(job.keepsMode());
  EXPECT_TRUE(job.keepsOwner());
  // The other one is known by now.
  EXPECT_EQ(changed({.fileMode = "600"}, job).filePolicy & 0777, 0600);
  EXPECT_THROW(changed({.fileMode = "600"}), console::Failure);
  EXPECT_THROW(changed({.directoryMode = "keep"}, job), console::Failure);
  EXPECT_TRUE(changed({.directoryMode = "keep", .fileMode = "keep"}, job).keepsMode());
  for (const char *word : {"1777", "888", "rwx", "-7", ""})
    EXPECT_THROW(changed({.directoryMode = word, .fileMode = "640"}), console::Failure) << word;
}

TEST(RepJobWords, FlagsAreSetAndCleared) {
  RepJob job = changed({.setuid = true, .encrypt = true});
  EXPECT_TRUE(job.keepsSetuid() && job.encrypts());
  job = changed({.setuid = false, .encrypt = false}, job);
  EXPECT_FALSE(job.keepsSetuid() || job.encrypts());
}

TEST(RepJobWords, ADestinationMustTravel) {
  EXPECT_EQ(changed({.destination = "/"}).destination, "/");
  for (const char *folder : {"", "srv", "/my copy", "/a\tb", "/a:b", "/a\nb"})
    EXPECT_THROW(changed({.destination = folder}), console::Failure) << folder;
  EXPECT_THROW(changed({.destination = "/" + std::string(255, 'x')}), console::Failure);
}

TEST(RepJobWords, AreDescribedForPeople) {
  RepJob job = changed({.group = 3,
                        .destination = "/srv/copy",
                        .name = "web",
                        .owner = "33",
                        .directoryMode = "750",
                        .fileMode = "640",
                        .encrypt = true});
  job.number = 5;
  EXPECT_EQ(console::describeRepJob(job),
            "5 web: group 3 -> /srv/copy, if-different, owner 33, group kept, directories 750, "
            "files 640, encrypted");
}

TEST(Preview, TakesItsLinesOnly) {
  console::Preview preview;
  EXPECT_TRUE(console::takePreviewLine("host\th1", &preview));
  EXPECT_TRUE(console::takePreviewLine("entry\tf\t644\t0\t0\t12\t99\t/a\t/x/a", &preview));
  EXPECT_FALSE(console::takePreviewLine("ERROR:  Cannot find job number 5", &preview));
  EXPECT_FALSE(console::takePreviewLine("entry\tf\t644", &preview));
  ASSERT_EQ(preview.hosts.size(), 1u);
  ASSERT_EQ(preview.entries.size(), 1u);
  EXPECT_EQ(preview.entries[0].target, "/x/a");
}

TEST(Results, AreReadLineByLine) {
  std::vector<console::RepResult> results = console::parseResults(
      "{\"host\":\"h1\",\"state\":\"done\",\"reason\":\"\",\"files\":3,\"bytes\":99,\"seconds\":1."
      "250,\"kept\":2,"
      "\"failed\":0}\n{\"host\":\"h2\",\"state\":\"failed\",\"reason\":\"no "
      "\\\"room\\\"\",\"files\":-1}\nno record\n{}\n[]\n");
  ASSERT_EQ(results.size(), 2u);
  EXPECT_EQ(results[0].files, 3u);
  EXPECT_EQ(results[0].seconds, 1.25);
  EXPECT_EQ(results[1].reason, "no \"room\"");
  EXPECT_EQ(results[1].files, 0u);
}

}  // namespace
