// The drive table: tape/tapeconf.cpp.
#include <sys/stat.h>

#include "storestest.h"

namespace {

constexpr const char *kTable = "etc/tapedevs";
constexpr const char *kBackup = "etc/tapedevs.BAK";

class Drives : public Stores {};
class EveryDrives : public BothStores {};
IN_BOTH_BEHAVIOURS(EveryDrives);

TEST_P(EveryDrives, AddWritesTheLineAndMakesTheFolder) {
  umask(022);
  run(addDrive, "0:lto:/dev/nst0:a:b");
  EXPECT_EQ(result, 0);
  EXPECT_EQ(said, "New tape added:  lto\n");
  EXPECT_EQ(content(kTable), "0:lto:/dev/nst0:a:b:\n");
  struct stat status;
  ASSERT_EQ(stat(path("var/tape/drive.0").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0755u);
  EXPECT_FALSE(exists(kBackup)) << "there was nothing to copy yet";
  EXPECT_EQ(hostLog(), "");
}

TEST_P(EveryDrives, AddKeepsThePreviousTableAsBackup) {
  put(kTable, "# drives\n0:lto:/dev/nst0:a:b:\n");
  run(addDrive, "1:dat:/dev/nst1:c:d");
  EXPECT_EQ(result, 0);
  EXPECT_EQ(content(kBackup), "# drives\n0:lto:/dev/nst0:a:b:\n");
  EXPECT_EQ(content(kTable), "# drives\n0:lto:/dev/nst0:a:b:\n1:dat:/dev/nst1:c:d:\n");
}

TEST_P(EveryDrives, AddDropsWhatFollowsTheFifthField) {
  run(addDrive, "0:lto:/dev/nst0:a:b:c:d");
  EXPECT_EQ(result, 0);
  EXPECT_EQ(content(kTable), "0:lto:/dev/nst0:a:b:\n");
}

TEST_P(EveryDrives, AddNeedsFiveFields) {
  run(addDrive, "0:lto:/dev/nst0:a");
  EXPECT_EQ(result, -1);
  EXPECT_EQ(said, "ERROR:  8204  Insufficient arguments.\n");
  EXPECT_FALSE(exists(kTable));
}

TEST_P(EveryDrives, AddRefusesANumberWhoseFolderExistsEvenWithoutALine) {
  block("var/tape/drive.4");
  run(addDrive, "4:lto:/dev/nst0:a:b");
  EXPECT_EQ(result, -1);
  EXPECT_EQ(said, "ERROR:  8214  A drive number 4 already exists.\n");
  EXPECT_FALSE(exists(kTable));
}

TEST_P(EveryDrives, AddSaysWhenTheFolderCannotBeMade) {
  std::filesystem::remove_all(path("var/tape"));
  put("var/tape", "a file");
  run(addDrive, "4:lto:/dev/nst0:a:b");
  EXPECT_EQ(result, -1);
  EXPECT_EQ(said, "ERROR:  8215  Can't make drive data directory " + home + "/var/tape/drive.4.\n");
}

TEST_F(Drives, AddRefusesANumberThatLeadsElsewhere) {
  for (std::string number : {"../../escape", "a/b", "..", "."}) {
    run(addDrive, number + ":lto:/dev/nst0:a:b");
    EXPECT_EQ(result, -1);
    EXPECT_EQ(said, "ERROR:  8215  Can't make drive data directory " + home + "/var/tape/drive." +
                        number + ".\n");
  }
  EXPECT_FALSE(exists("var/escape"));
  EXPECT_FALSE(exists(kTable));
}

TEST_F(Drives, AddSaysWhenTheCopyCannotBeMade) {
  put(kTable, "0:lto:/dev/nst0:a:b:\n");
  block(kBackup);
  run(addDrive, "1:dat:/dev/nst1:c:d");
  EXPECT_EQ(result, -1);
  EXPECT_EQ(said, "ERROR:  8205  Unable to make a work copy of " + path(kBackup) + ". \n");
  EXPECT_EQ(content(kTable), "0:lto:/dev/nst0:a:b:\n");
}

TEST_F(Drives, AddSaysWhenTheTableCannotBeOpenedAndLeavesTheFolder) {
  forbidWriting(kTable, "0:lto:/dev/nst0:a:b:\n");
  runAsNobody(addDrive, "1:dat:/dev/nst1:c:d");
  EXPECT_EQ(result, -1);
  EXPECT_EQ(said, "ERROR:  8206  Cannot open the temp group file " + path(kTable) + ". \n");
  EXPECT_TRUE(exists("var/tape/drive.1"));
}

TEST_F(Drives, SoundAddTakesTheFolderBackSoThatItCanBeTriedAgain) {
  soundSite();
  put(kTable, "0:lto:/dev/nst0:a:b:\n");
  block(kBackup);
  run(addDrive, "1:dat:/dev/nst1:c:d");
  EXPECT_EQ(result, -1);
  EXPECT_FALSE(exists("var/tape/drive.1"));
  std::filesystem::remove(path(kBackup));
  run(addDrive, "1:dat:/dev/nst1:c:d");
  EXPECT_EQ(result, 0);
}

TEST_P(EveryDrives, ModReplacesEveryMatchAndCarriesTheSixthField) {
  put(kTable,
      "# "
      "kept\n\n0:lto:/dev/nst0:a:b:six\n1:dat:/dev/nst1:c:d:\n0:again:/dev/nst2:e:f:other:rest\n");
  run(modDrive, "0", "0:new:/dev/nst9:x:y");
  EXPECT_EQ(result, 0);
  EXPECT_EQ(said, "Modified tape:  again\n");
  EXPECT_EQ(
      content(kTable),
      "# kept\n\n0:new:/dev/nst9:x:y:six\n1:dat:/dev/nst1:c:d:\n0:new:/dev/nst9:x:y:other:rest\n");
  EXPECT_EQ(
      content(kBackup),
      "# "
      "kept\n\n0:lto:/dev/nst0:a:b:six\n1:dat:/dev/nst1:c:d:\n0:again:/dev/nst2:e:f:other:rest\n");
}

TEST_P(EveryDrives, ModCanRenumberADriveAndKeepsItsFolder) {
  run(addDrive, "0:lto:/dev/nst0:a:b");
  run(modDrive, "0", "5:lto:/dev/nst0:a:b");
  EXPECT_EQ(content(kTable), "5:lto:/dev/nst0:a:b:\n");
  EXPECT_TRUE(exists("var/tape/drive.0"));
  EXPECT_FALSE(exists("var/tape/drive.5"));
}

TEST_P(EveryDrives, ModConfirmsWithTheNameOfTheLastEntryAboveATrailingComment) {
  put(kTable, "0:lto:/dev/nst0:a:b:\n1:dat:/dev/nst1:c:d:\n# end\n");
  run(modDrive, "0", "0:new:/dev/nst9:x:y");
  EXPECT_EQ(said, "Modified tape:  dat\n");
}

TEST_P(EveryDrives, ModKeepsCommentsAndShortLinesByteForByte) {
  std::string odd = std::string("#nul\0and\rmore\n", 14) + "\n\n# no colon \xff\n";
  put(kTable, odd + "0:lto:/dev/nst0:a:b:\n#last without line feed");
  run(modDrive, "0", "0:new:/dev/nst0:a:b");
  EXPECT_EQ(result, 0);
  EXPECT_EQ(content(kTable), odd + "0:new:/dev/nst0:a:b:\n#last without line feed");
}

TEST_P(EveryDrives, ModStripsALineEndOfTwoCharacters) {
  put(kTable, "0:lto:/dev/nst0:a:b:six\r\n");
  run(modDrive, "0", "0:new:/dev/nst0:a:b");
  EXPECT_EQ(content(kTable), "0:new:/dev/nst0:a:b:six\n");
}

TEST_P(EveryDrives, ModTakesALineOfFiveFieldsWrittenByHand) {
  put(kTable, "0:lto:/dev/nst0:a:b\n1:dat:/dev/nst1:c:d\n");
  run(modDrive, "0", "0:new:/dev/nst0:a:b");
  EXPECT_EQ(result, 0);
  EXPECT_EQ(content(kTable), "0:new:/dev/nst0:a:b:\n1:dat:/dev/nst1:c:d\n");
}

TEST_P(EveryDrives, ModOfAnUnknownNumberLeavesTheTable) {
  put(kTable, "0:lto:/dev/nst0:a:b:\n");
  run(modDrive, "7", "7:new:/dev/nst0:a:b");
  EXPECT_EQ(result, -1);
  EXPECT_EQ(said, "ERROR:  8213  The drive entry to modify was not found!\n");
  EXPECT_EQ(content(kTable), "0:lto:/dev/nst0:a:b:\n");
}

TEST_P(EveryDrives, ModNeedsFiveFields) {
  put(kTable, "0:lto:/dev/nst0:a:b:\n");
  run(modDrive, "0", "0:new:/dev/nst0:a");
  EXPECT_EQ(result, -1);
  EXPECT_EQ(said, "ERROR:  8207  Insufficient arguments.\n");
}

TEST_F(Drives, ModSaysWhichStepFailed) {
  clearLogs();
  run(modDrive, "0", "0:new:/dev/nst0:a:b");
  EXPECT_EQ(result, -1);
  EXPECT_EQ(said, "ERROR:  8208  Unable to make a work copy of " + path(kBackup) + ". \n");

  std::string table = "0:lto:/dev/nst0:a:b:\n";
  forbidWriting(kTable, table);
  runAsNobody(modDrive, "0", "0:new:/dev/nst0:a:b");
  EXPECT_EQ(result, -1);
  EXPECT_EQ(said, "ERROR:  8210  Cannot open the file " + path(kTable) + ".  Check permissions\n");
  EXPECT_EQ(content(kTable), table);

  forbidReading(kBackup);
  runAsNobody(modDrive, "0", "0:new:/dev/nst0:a:b");
  EXPECT_EQ(said, "ERROR:  8209  Cannot open the file " + path(kBackup) + ".  Check permissions\n");
  EXPECT_EQ(content(kTable), table);
  EXPECT_EQ(hostLog().find("ERROR"), std::string::npos) << "nothing of a drive goes to the log";
}

TEST_F(Drives, ClassicModStopsAtAMalformedLineAndLeavesACutTable) {
  std::string table = "0:lto:/dev/nst0:a:b:\nbroken:line\n1:dat:/dev/nst1:c:d:\n";
  put(kTable, table);
  run(modDrive, "1", "1:new:/dev/nst0:a:b");
  EXPECT_EQ(result, -1);
  EXPECT_EQ(said, "ERROR:  8212  Format error in tape group file.\n");
  EXPECT_EQ(content(kTable), "0:lto:/dev/nst0:a:b:\n");
  EXPECT_EQ(content(kBackup), table);
}

TEST_F(Drives, SoundModStopsAtAMalformedLineAndLeavesTheTableWhole) {
  soundSite();
  std::string table = "0:lto:/dev/nst0:a:b:\nbroken:line\n1:dat:/dev/nst1:c:d:\n";
  put(kTable, table);
  run(modDrive, "1", "1:new:/dev/nst0:a:b");
  EXPECT_EQ(result, -1);
  EXPECT_EQ(said, "ERROR:  8212  Format error in tape group file.\n");
  EXPECT_EQ(content(kTable), table);
  EXPECT_EQ(content(kBackup), table);
  EXPECT_FALSE(exists("etc/tapedevs.tmp"));
}

TEST_F(Drives, ClassicKeysAreAnyTextComparedOver32Characters) {
  std::string longKey(32, 'k');
  put(kTable, longKey + ":lto:/dev/nst0:a:b:\n");
  run(modDrive, longKey + "beyond", "x:new:/dev/nst0:a:b");
  EXPECT_EQ(result, 0);
  EXPECT_EQ(content(kTable), "x:new:/dev/nst0:a:b:\n");
  run(addDrive, "left:lto:/dev/nst0:a:b");
  EXPECT_EQ(result, 0);
}

TEST_F(Drives, SoundKeysAreDecimal) {
  soundSite();
  for (std::string number : {"left", "", "007", "-1", "1 ", "2147483648", "99999999999", "../1"}) {
    run(addDrive, number + ":lto:/dev/nst0:a:b");
    EXPECT_EQ(result, -1);
    EXPECT_EQ(said, "ERROR:  " + number + " is not a decimal number\n");
  }
  EXPECT_FALSE(exists(kTable));
  put(kTable, "2147483647:lto:/dev/nst0:a:b:\n");
  run(modDrive, "2147483647", "nine:lto:/dev/nst0:a:b");
  EXPECT_EQ(said, "ERROR:  nine is not a decimal number\n");
  run(delDrive, "2147483647x");
  EXPECT_EQ(said, "ERROR:  2147483647x is not a decimal number\n");
  run(delDrive, "2147483647");
  EXPECT_EQ(result, 0);
  EXPECT_EQ(content(kTable), "");
}

TEST_P(EveryDrives, DelDropsEveryLineAndLeavesTheFolder) {
  run(addDrive, "0:lto:/dev/nst0:a:b");
  put(kTable, content(kTable) + "1:dat:/dev/nst1:c:d:\n0:again:/dev/nst2:e:f:\n");
  run(delDrive, "0");
  EXPECT_EQ(result, 0);
  EXPECT_EQ(said, "Modified tape:  again\n");
  EXPECT_EQ(content(kTable), "1:dat:/dev/nst1:c:d:\n");
  EXPECT_TRUE(exists("var/tape/drive.0"));
  run(delDrive, "0");
  EXPECT_EQ(result, -1);
}

TEST_F(Drives, ClassicLineBeyondTheBufferIsTakenInPieces) {
  put(kTable, "#" + std::string(1500, 'x') + "\n0:lto:/dev/nst0:a:b:\n");
  run(modDrive, "0", "0:new:/dev/nst0:a:b");
  EXPECT_EQ(said, "ERROR:  8212  Format error in tape group file.\n");
}

TEST_F(Drives, SoundLineOfAnyLengthIsOneLine) {
  soundSite();
  std::string comment = "#" + std::string(100000, 'x') + "\n";
  put(kTable, comment + "0:lto:/dev/nst0:a:b:\n");
  run(modDrive, "0", "0:new:/dev/nst0:a:b");
  EXPECT_EQ(result, 0);
  EXPECT_EQ(content(kTable), comment + "0:new:/dev/nst0:a:b:\n");
}

TEST_F(Drives, SoundAddRefusesWhatTheReadersCouldNotRead) {
  soundSite();
  run(addDrive, "0:" + std::string(100000, 'x') + ":/dev/nst0:a:b");
  EXPECT_EQ(result, -1);
  EXPECT_EQ(said, "ERROR:  The entry is longer than 1000 characters\n");
  run(addDrive, "0:lto:/dev/nst0:a:b\n1:dat:/dev/nst1:c:d");
  EXPECT_EQ(said, "ERROR:  The entry holds a line feed\n");
  EXPECT_FALSE(exists(kTable));
  EXPECT_FALSE(exists("var/tape/drive.0"));
}

TEST_P(EveryDrives, AFullDiskIsNoSuccess) {
  std::string table;
  for (int drive = 0; drive < 100; drive++)
    table += std::to_string(drive) + ":lto:/dev/nst0:a:b:\n";
  put(kTable, table);
  put(kBackup, table);
  int status = onFullDisk(table.size(), [] {
    std::string entry = "50:a much longer name:/dev/nst0:a:b";
    return modDrive("50", entry.data()) == -1 ? 7 : 8;
  });
  EXPECT_EQ(status, 7);
  EXPECT_EQ(content(kBackup), table);
  if (isSound()) {
    EXPECT_EQ(content(kTable), table);
  }
}

}  // namespace
