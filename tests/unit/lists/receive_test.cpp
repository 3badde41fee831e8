// The member's side of a push: what arrives on standard input becomes the job's list, or does not.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zul/tape.h>

#include <filesystem>

#include "base/fd.h"
#include "support.h"

namespace fs = std::filesystem;
using support::exists;
using support::readFile;
using support::writeFile;

namespace {

class Receive : public support::HomeTest {
 protected:
  // reqSync(job) with text as standard input; what is left unread of it stays in `left`.
  int receive(const std::string &text, const std::string &job = "7") {
    writeFile(path("tmp/stdin"), text);
    int kept = dup(STDIN_FILENO);
    int in = open(path("tmp/stdin").c_str(), O_RDONLY | O_CLOEXEC);
    dup2(in, STDIN_FILENO);
    close(in);
    std::string word = job;
    int result = -5;
    said = support::captureStderr([&] { result = reqSync(word.data()); });
    left = text.substr(static_cast<size_t>(lseek(STDIN_FILENO, 0, SEEK_CUR)));
    dup2(kept, STDIN_FILENO);
    close(kept);
    return result;
  }
  std::string file() const { return path("var/tape/jobids/7.req"); }
  std::string stored() const { return readFile(file()); }
  static std::string lines(int count) {
    std::string text;
    for (int i = 0; i < count; i++) text += "/tree" + std::to_string(i) + "/\n";
    return text;
  }

  std::string said, left;
};

TEST_F(Receive, LinesAreStoredUpToTheEndMarkAndNothingBehindItIsRead) {
  EXPECT_EQ(receive("/a/\n/b\nTRANSFER OK\nnext request\n"), 0);
  EXPECT_EQ(stored(), "/a/\n/b\n");
  EXPECT_EQ(left, "next request\n");
  struct stat status;
  ASSERT_EQ(stat(file().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600U);
}

TEST_F(Receive, UnderSoundTheListIsForItsOwnerAloneToo) {
  soundSite();
  EXPECT_EQ(receive("/a/\nTRANSFER OK\n"), 0);
  struct stat status;
  ASSERT_EQ(stat(file().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600U);
  EXPECT_EQ(stored(), "/a/\n");
}

TEST_F(Receive, AnEmptyListIsOne) {
  EXPECT_EQ(receive("TRANSFER OK\n"), 0);
  EXPECT_TRUE(exists(file()));
  EXPECT_EQ(stored(), "");
}

TEST_F(Receive, TheEndMarkIsALinesBeginning) {
  EXPECT_EQ(receive("/a\nTRANSFER OKAY and more\n/b\n"), 0);
  EXPECT_EQ(stored(), "/a\n");
}

TEST_F(Receive, AnOlderListIsReplaced) {
  writeFile(file(), "a much longer list than the new one\n", 0600);
  EXPECT_EQ(receive("/b\nTRANSFER OK\n"), 0);
  EXPECT_EQ(stored(), "/b\n");
}

TEST_F(Receive, OnlyTheFirst129LinesAreStoredUnlessSound) {
  EXPECT_EQ(receive(lines(129) + "TRANSFER OK\n"), 0);
  EXPECT_EQ(stored(), lines(129));
  EXPECT_EQ(receive(lines(200) + "TRANSFER OK\n"), 0);
  EXPECT_EQ(stored(), lines(129));
  EXPECT_EQ(left, (lines(200) + "TRANSFER OK\n").substr(lines(130).size()));
  site("behaviour.backup = sound\n");
  EXPECT_EQ(receive(lines(5000) + "TRANSFER OK\n"), 0);
  EXPECT_EQ(stored(), lines(5000));
}

TEST_F(Receive, ALongLineIsStoredInPiecesThatAddUp) {
  std::string line = "/" + std::string(999, 'x') + "\n";
  EXPECT_EQ(receive(line + "TRANSFER OK\n"), 0);
  EXPECT_EQ(stored(), line);
  std::string exact = std::string(255, 'y') + "\n" + std::string(254, 'z') + "\n";
  EXPECT_EQ(receive(exact + "TRANSFER OK\n"), 0);
  EXPECT_EQ(stored(), exact);
}

TEST_F(Receive, PiecesCountAsLines) {
  std::string line = std::string(255 * 129, 'x');
  EXPECT_EQ(receive(line + "rest\nTRANSFER OK\n"), 0);
  EXPECT_EQ(stored(), line);
}

TEST_F(Receive, BytesOfAnyKindAreStoredAsTheyAre) {
  std::string odd("/a\0b\xff\r\n\n", 8);
  EXPECT_EQ(receive(odd + "TRANSFER OK\n"), 0);
  EXPECT_EQ(stored(), odd);
}

TEST_F(Receive, AListWithoutItsEndMarkIsTakenUnlessSound) {
  EXPECT_EQ(receive("/a\n/b"), 0);
  EXPECT_EQ(stored(), "/a\n/b");
  site("behaviour.stores = sound\n");
  EXPECT_EQ(receive("/c\n"), -2);
  EXPECT_EQ(said, "ERROR:  Backup list 7 arrived incomplete, the former one is kept\n");
  EXPECT_EQ(stored(), "/a\n/b");
  for (const fs::directory_entry &entry : fs::directory_iterator(path("var/tape/jobids")))
    EXPECT_NE(entry.path().extension(), ".tmp") << entry.path();
}

TEST_F(Receive, AMissingFolderIsReported) {
  fs::remove_all(path("var/tape/jobids"));
  EXPECT_EQ(receive("/a\nTRANSFER OK\n"), -1);
  soundSite();
  EXPECT_EQ(receive("/a\nTRANSFER OK\n"), -1);
}

TEST_F(Receive, AFullDiskIsReported) {
  fs::create_symlink("/dev/full", file());
  EXPECT_EQ(receive("/a\nTRANSFER OK\n"), -2);
}

TEST_F(Receive, AJobIsANumberAndNeverAPath) {
  EXPECT_EQ(receive("/a\nTRANSFER OK\n", "../../../etc/passwd"), 0);
  EXPECT_TRUE(exists(path("var/tape/jobids/0.req")));
  EXPECT_EQ(receive("/a\nTRANSFER OK\n", "12abc"), 0);
  EXPECT_TRUE(exists(path("var/tape/jobids/12.req")));
}

}  // namespace
