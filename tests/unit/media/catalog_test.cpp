// Catalogs: loading what jobs have written, damaged files of every kind, building and appending a
// record, listing volumes.
#include <sys/resource.h>
#include <zul/host.h>

#include <filesystem>
#include <memory>

#include "media.h"
#include "tape/catalog.h"

using media::makeRecord;
using media::readFile;
using media::writeFile;

namespace {

namespace fs = std::filesystem;

class CatalogFile : public media::MediaTest {
 protected:
  void SetUp() override {
    MediaTest::SetUp();
    dir = tapeDir(0, 0);
    fs::create_directories(dir);
    // Exactly the room every caller has: one record too many is seen by the sanitizer.
    records = std::make_unique<catlgstru[]>(tape::kVolumeLimit);
  }
  void TearDown() override {
    EXPECT_EQ(getTapeCatlg(nullptr, nullptr), 0);
    MediaTest::TearDown();
  }
  int load(const std::string &content) {
    writeFile(dir + "/catalog", content);
    return getTapeCatlg(dir.data(), records.get());
  }
  std::string dir;
  std::unique_ptr<catlgstru[]> records;
};

TEST_F(CatalogFile, AMissingOneHasNoVolumes) {
  EXPECT_EQ(getTapeCatlg(dir.data(), records.get()), 0);
  EXPECT_EQ(load(""), 0);
}

TEST_F(CatalogFile, RecordsAreCountedAndTheirTextsFound) {
  EXPECT_EQ(load(makeRecord(1, {"/etc", "/home"}) + makeRecord(2, {"/var"})), 2);
  EXPECT_EQ(records[0].jobnum, 1);
  EXPECT_EQ(records[1].jobnum, 2);
  EXPECT_STREQ(records[0].strings[0], "/etc");
  EXPECT_STREQ(records[0].strings[1], "/home");
  for (int at = 2; at < 127; at++) EXPECT_STREQ(records[0].strings[at], "") << at;
  EXPECT_STREQ(records[1].strings[0], "/var");
  for (int at = 1; at < 128; at++) EXPECT_STREQ(records[1].strings[at], "") << at;
}

TEST_F(CatalogFile, TheLastTextOfARecordIsTheFirstOfTheNext) {
  EXPECT_EQ(load(makeRecord(1, {"/etc"}) + makeRecord(2, {"/var"})), 2);
  EXPECT_EQ(records[0].strings[127], records[1].strings[0]);
  EXPECT_STREQ(records[0].strings[127], "/var");
  // Texts that are all used run on without a NUL between the records.
  std::vector<std::string> all(128, "x");
  EXPECT_EQ(load(makeRecord(1, all) + makeRecord(2, {"/var"})), 2);
  EXPECT_STREQ(records[0].strings[126], "x");
  EXPECT_STREQ(records[0].strings[127], "x/var");
}

TEST_F(CatalogFile, AWrongMagicAnywhereSpoilsItAll) {
  EXPECT_EQ(load(std::string(8200, 'x')), -5);
  EXPECT_EQ(load(makeRecord(1, {}) + std::string(8200, '\0')), -5);
  EXPECT_EQ(load(makeRecord(1, {}) + std::string(2, '\0') + makeRecord(2, {})), -5);
}

TEST_F(CatalogFile, ADirectoryByThatNameIsNone) {
  fs::create_directory(dir + "/catalog");
  EXPECT_EQ(getTapeCatlg(dir.data(), records.get()), -5);
}

TEST_F(CatalogFile, AFileThatCannotBeOpenedIsReported) {
  ASSERT_EQ(symlink("/nowhere/at/all", (dir + "/catalog").c_str()), 0);
  EXPECT_EQ(getTapeCatlg(dir.data(), records.get()), -3);
}

TEST_F(CatalogFile, APipeByThatNameHoldsNobodyUp) {
  ASSERT_EQ(mkfifo((dir + "/catalog").c_str(), 0600), 0);
  EXPECT_EQ(getTapeCatlg(dir.data(), records.get()), 0);
}

TEST_F(CatalogFile, ALinkLeadsToTheWholeCatalog) {
  writeFile(path("elsewhere"), makeRecord(1, std::vector<std::string>(128, std::string(255, 'p'))));
  ASSERT_EQ(symlink(path("elsewhere").c_str(), (dir + "/catalog").c_str()), 0);
  EXPECT_EQ(getTapeCatlg(dir.data(), records.get()), 1);
  EXPECT_EQ(std::string(records[0].strings[126]), std::string(255, 'p'));
}

TEST_F(CatalogFile, EveryCutEndsTheLoadWithWholeRecords) {
  std::string first = makeRecord(1, {"/etc"});
  std::string both = first + makeRecord(2, {"/home", "/var"});
  for (size_t cut :
       {1ul, 3ul, 4ul, 8199ul, 8200ul, 8201ul, first.size() - 1, first.size(), first.size() + 1,
        first.size() + 8199, first.size() + 8200, first.size() + 8203, both.size() - 1}) {
    int expected = cut < 8200 ? 0 : cut < first.size() + 8200 ? 1 : 2;
    ASSERT_EQ(load(both.substr(0, cut)), expected) << cut;
    for (int record = 0; record < expected; record++)
      for (char *text : records[record].strings) ASSERT_LT(strlen(text), 100u) << cut;
  }
}

TEST_F(CatalogFile, ATextWithoutItsEndIsEndedByTheFile) {
  EXPECT_EQ(load(makeRecord(1, {}).substr(0, 8200) + std::string(50000, 'x')), 1);
  EXPECT_EQ(strlen(records[0].strings[0]), 50000u);
  EXPECT_STREQ(records[0].strings[127], "");
}

TEST_F(CatalogFile, NoMoreThanTheLimitIsLoaded) {
  std::string content;
  for (int at = 0; at < 130; at++) content += makeRecord(at, {"/x"});
  EXPECT_EQ(load(content), 128);
  EXPECT_EQ(records[127].jobnum, 127);
}

TEST_F(CatalogFile, ASecondLargerCatalogDoesNotOverrunTheBuffer) {
  EXPECT_EQ(load(makeRecord(1, {"/first"})), 1);
  char *first = records[0].strings[0];
  std::string large;
  for (int at = 0; at < 100; at++)
    large += makeRecord(at, std::vector<std::string>(128, std::string(255, 'y')));
  EXPECT_EQ(load(large), 100);
  EXPECT_EQ(std::string(records[99].strings[100]), std::string(255, 'y'));
  EXPECT_STREQ(first, "/first") << "the texts of the first load are still held";
}

TEST_F(CatalogFile, AnEndlessFileIsNotReadIntoMemory) {
  writeFile(dir + "/catalog", makeRecord(1, {"/x"}));
  ASSERT_EQ(truncate((dir + "/catalog").c_str(), off_t{1} << 40), 0);
  EXPECT_EQ(getTapeCatlg(dir.data(), records.get()), -5);
}

TEST_F(CatalogFile, ARecordIsPrintedUpToItsFirstEmptyText) {
  ASSERT_EQ(load(makeRecord(5, {"/etc", "/home", "", "/never"})), 1);
  strcpy(records[0].hosts, "a,b");
  std::string text = media::captureStderr([&] { prntCatlgstru(&records[0]); });
  EXPECT_EQ(text,
            "Magic = 2a546143\nCreated = 1000000000\nRetention = 3600\nNewer than = 0\n"
            "Hosts = a,b\nJob number = 5\nGroup number = 0\nVol Label = job5\nVersion = 0\n"
            "Level = 0\nUnused1 = 0\nUnused2 = 0\n/etc\n/home\n");
}

TEST_F(CatalogFile, FieldsThatFillTheirRoomArePrintedToItsEnd) {
  catlgstru record;
  memset(&record, 'z', sizeof record);
  memset(record.strings, 0, sizeof record.strings);
  std::string text = media::captureStderr([&] { prntCatlgstru(&record); });
  EXPECT_NE(text.find("Hosts = " + std::string(4096, 'z') + "\n"), std::string::npos);
  EXPECT_NE(text.find("Vol Label = " + std::string(256, 'z') + "\n"), std::string::npos);
}

class Record : public CatalogFile {
 protected:
  void SetUp() override {
    CatalogFile::SetUp();
    jobrec job{};
    job.job = 3;
    job.group = 4;
    job.retention = -60;
    job.drive = 0;
    strcpy(job.name, "nightly");
    writeFile(path("var/tape/jobids/index"),
              std::string(reinterpret_cast<char *>(&job), sizeof job));
    addGroup("4:alpha,beta:both");
    writeFile(path("var/tape/jobids/3"), "/etc\n/home\n");
  }
  void addGroup(std::string entry) {
    media::captureStderr([&] { ASSERT_EQ(addTapeGroup(entry.data()), 0); });
  }
};

TEST_F(Record, IsBuiltFromTheJobItsGroupAndItsList) {
  catlgstru record;
  memset(&record, 'x', sizeof record);
  time_t before = time(nullptr);
  ASSERT_EQ(fillCatlgstru(3, &record, 7), 0);
  EXPECT_EQ(record.magic, CATLG_MAGIC);
  EXPECT_EQ(record.reserved0, 0u);
  EXPECT_GE(record.created, before);
  EXPECT_EQ(record.retention, -60);
  EXPECT_EQ(record.newer, 0);
  EXPECT_STREQ(record.hosts, "alpha,beta");
  EXPECT_EQ(record.jobnum, 3);
  EXPECT_EQ(record.group, 4);
  EXPECT_STREQ(record.label, "nightly");
  EXPECT_EQ(record.version, 0);
  EXPECT_EQ(record.level, 7);
  for (int word : record.minus1) EXPECT_EQ(word, -1);
  EXPECT_EQ(record.unused1, 0);
  EXPECT_EQ(record.unused2, 0);
  for (char byte : record.reserved) ASSERT_EQ(byte, 0);
  EXPECT_STREQ(record.strings[0], "/etc");
  EXPECT_STREQ(record.strings[1], "/home");
  EXPECT_STREQ(record.strings[2], "");
  EXPECT_STREQ(record.strings[127], "");
}

TEST_F(Record, NeedsTheBackupListTheJobAndTheGroup) {
  catlgstru record;
  media::captureStderr([&] {
    EXPECT_EQ(fillCatlgstru(8, &record, 0), 1) << "no list";
    writeFile(path("var/tape/jobids/8"), "/etc\n");
    EXPECT_EQ(fillCatlgstru(8, &record, 0), -1) << "no job";
    fs::remove(path("var/tape/jobids/group"));
    EXPECT_EQ(fillCatlgstru(3, &record, 0), -1) << "no group";
  });
  fs::create_directory(path("var/tape/jobids/9"));
  memset(&record, 'x', sizeof record);
  EXPECT_EQ(fillCatlgstru(9, &record, 0), 0);
  const char *bytes = reinterpret_cast<const char *>(&record);
  for (size_t at = 0; at < sizeof record; at++) ASSERT_EQ(bytes[at], 0) << at;
}

TEST_F(Record, IsAppendedInBothBehaviours) {
  for (const char *behaviour : {"classic", "sound"}) {
    behave(behaviour);
    fs::remove_all(dir);
    fs::create_directories(dir);
    catlgstru record;
    ASSERT_EQ(fillCatlgstru(3, &record, 0), 0);
    EXPECT_EQ(storCatalg(0, 0, &record), 0);
    EXPECT_EQ(storCatalg(0, 0, &record), 0);
    std::string bytes = readFile(dir + "/catalog");
    std::string one(reinterpret_cast<const char *>(&record), CATLG_FIXED);
    one += std::string("/etc\0/home\0", 11) + std::string(126, '\0');
    EXPECT_EQ(bytes, one + one);
    EXPECT_EQ(getTapeCatlg(dir.data(), records.get()), 2);
    EXPECT_STREQ(records[1].strings[1], "/home");
  }
}

TEST_F(Record, WithoutTextsIsStoredWithEmptyOnes) {
  catlgstru record;
  memset(&record, 0, sizeof record);
  record.magic = CATLG_MAGIC;
  EXPECT_EQ(storCatalg(0, 0, &record), 0);
  EXPECT_EQ(readFile(dir + "/catalog").size(), 8200u + 128);
}

TEST_F(Record, GoesNowhereWithoutTheTapesDirectory) {
  catlgstru record;
  memset(&record, 0, sizeof record);
  std::string line =
      "ERROR:  8081  Cannot make update tape catalog: " + tapeDir(0, 5) + "/catalog\n";
  std::string text = media::captureStderr([&] { EXPECT_EQ(storCatalg(0, 5, &record), -1); });
  EXPECT_EQ(text, line);
  EXPECT_EQ(hostLog(), line);
  behave("sound");
  text = media::captureStderr([&] { EXPECT_EQ(storCatalg(0, 5, &record), -1); });
  EXPECT_NE(text.find(line), std::string::npos);
}

// Appends a record where the file may grow to `limit` bytes only, in a child; what it said.
std::string storeOnFullDisk(const std::string &home, rlim_t limit, catlgstru *record) {
  std::string said = home + "/said";
  int status = support::inChild([&] {
    signal(SIGXFSZ, SIG_IGN);
    rlimit bound{limit, limit};
    setrlimit(RLIMIT_FSIZE, &bound);
    // The limit holds for what is said, too; a pipe has none.
    int ends[2];
    if (pipe(ends) != 0) return 9;
    dup2(ends[1], 2);
    fplog = nullptr;
    int result = storCatalg(0, 0, record);
    rlimit open{RLIM_INFINITY, RLIM_INFINITY};
    setrlimit(RLIMIT_FSIZE, &open);
    char text[4096];
    ssize_t got = read(ends[0], text, sizeof text);
    writeFile(said, std::string(text, got > 0 ? static_cast<size_t>(got) : 0));
    return result == -1 ? 0 : 1;
  });
  EXPECT_EQ(support::exitOf(status), 0);
  return readFile(said);
}

TEST_F(Record, AFullDiskIsReportedForTheStepThatMetIt) {
  catlgstru record;
  ASSERT_EQ(fillCatlgstru(3, &record, 0), 0);
  std::string file = dir + "/catalog\n";
  EXPECT_EQ(storeOnFullDisk(home, 1000, &record),
            "ERROR:  8082  Cannot write tape catalog header: " + file);
  fs::remove(dir + "/catalog");
  EXPECT_EQ(storeOnFullDisk(home, 8202, &record),
            "ERROR:  8083  Failed to update tape catalog: " + file);
  fs::remove(dir + "/catalog");
  EXPECT_EQ(storeOnFullDisk(home, 8204, &record),
            "ERROR:  8084  Failed to update tape catalog: " + file);
}

TEST_F(Record, AFullDiskLeavesTheOldCatalogWholeOnlyUnderSound) {
  catlgstru record;
  ASSERT_EQ(fillCatlgstru(3, &record, 0), 0);
  ASSERT_EQ(storCatalg(0, 0, &record), 0);
  std::string before = readFile(dir + "/catalog");
  behave("sound");
  said = storeOnFullDisk(home, before.size() + 5000, &record);
  EXPECT_NE(said.find("ERROR:  8082  Cannot write tape catalog header: "), std::string::npos);
  EXPECT_EQ(readFile(dir + "/catalog"), before);
  behave("classic");
  storeOnFullDisk(home, before.size() + 5000, &record);
  EXPECT_EQ(readFile(dir + "/catalog").size(), before.size() + 5000);
}

class Volumes : public CatalogFile {
 protected:
  void SetUp() override {
    CatalogFile::SetUp();
    setenv("TZ", "UTC", 1);
    tzset();
  }
  std::string volume(int64_t created, int64_t retention, const char *label) {
    std::string bytes = makeRecord(1, {});
    catlgstru record;
    memcpy(&record, bytes.data(), CATLG_FIXED);
    record.created = created;
    record.retention = retention;
    strcpy(record.label, label);
    memcpy(bytes.data(), &record, CATLG_FIXED);
    return bytes;
  }
};

TEST_F(Volumes, AreListedWithTheirDayAndWhetherTheyHaveExpired) {
  // 2006-07-04 12:00:00 UTC
  writeFile(dir + "/catalog", volume(1152014400, 3600, "old") +
                                  volume(1152014400, int64_t{1} << 40, "kept") +
                                  volume(time(nullptr), 0, "today"));
  EXPECT_EQ(run(getTapeVols, "0 0"), 0);
  EXPECT_EQ(printed, "");
  EXPECT_EQ(said.find("0:4/7/106:1:old\n1:4/7/106:0:kept\n2:"), 0u) << said;
  EXPECT_EQ(run(getTapeVols, "  0\t0  "), 0);
  EXPECT_EQ(said.find("0:4/7/106:1:old\n"), 0u);
}

TEST_F(Volumes, DatesOfDamagedRecordsAreListedToo) {
  writeFile(dir + "/catalog",
            volume(INT64_MAX, INT64_MAX, "late") + volume(INT64_MIN, INT64_MIN, "early"));
  EXPECT_EQ(run(getTapeVols, "0 0"), 0);
  EXPECT_EQ(said, "0:0/1/0:0:late\n1:0/1/0:0:early\n");
}

TEST_F(Volumes, ATapeWithoutACatalogHasNone) {
  EXPECT_EQ(run(getTapeVols, "0 0"), 0);
  EXPECT_EQ(run(getTapeVols, "9 9"), 0);
  EXPECT_EQ(said + printed, "");
}

TEST_F(Volumes, NeedADriveAndATape) {
  for (const char *args : {"", "0", "0 0 0"}) {
    EXPECT_EQ(run(getTapeVols, args), 1) << args;
    EXPECT_EQ(said, "ERROR:  8085 Insufficient arguments.\n");
  }
}

TEST_F(Volumes, OfADamagedCatalogAreNotListed) {
  writeFile(dir + "/catalog", std::string(9000, 'x'));
  EXPECT_EQ(run(getTapeVols, "0 0"), -2);
  EXPECT_EQ(printed, "Cannot read tape catalogs: " + dir + "\n");
  EXPECT_EQ(run(getTapeVols, "0/../drive.0 0"), -2);
  EXPECT_EQ(run(getTapeVols, ".. 0"), -2);
}

}  // namespace
