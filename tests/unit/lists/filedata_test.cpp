// Headers made from the file system, and directories as the operator sees them.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <sys/utsname.h>
#include <unistd.h>
#include <zul/tape.h>

#include <filesystem>
#include <set>
#include <sstream>
#include <vector>

#include "base/fd.h"
#include "support.h"

namespace fs = std::filesystem;
using support::captureStderr;
using support::writeFile;

namespace {

class FileData : public support::HomeTest {
 protected:
  void SetUp() override {
    HomeTest::SetUp();
    memset(&header, 0x55, sizeof header);
  }
  int fill(std::string name, char **transforms = nullptr) {
    return getFileData(name.data(), &header, transforms);
  }
  // Fills a header for name with the pairs as its transform table, and returns the name it came to.
  std::string transformed(const std::string &name, std::vector<std::string> pairs) {
    std::vector<char *> table;
    for (std::string &text : pairs) table.push_back(text.data());
    table.insert(table.end(), 2, nullptr);
    EXPECT_EQ(fill(name, table.data()), 0);
    return header.filename;
  }

  package header;
};

TEST_F(FileData, ARegularFileIsDescribedWhole) {
  std::string name = path("tmp/file");
  writeFile(name, "hello", 0640);
  timespec times[2] = {{1111, 0}, {2222, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, name.c_str(), times, 0), 0);
  EXPECT_EQ(fill(name), 0);
  struct stat status;
  ASSERT_EQ(lstat(name.c_str(), &status), 0);
  EXPECT_EQ(header.magic, PACK_MAGIC);
  EXPECT_EQ(header.squez, 0);
  EXPECT_EQ(header.version, 0);
  EXPECT_EQ(header.type, 0);
  EXPECT_EQ(header.filename, name);
  EXPECT_EQ(header.usrid, status.st_uid);
  EXPECT_EQ(header.grpid, status.st_gid);
  EXPECT_EQ(header.mode, status.st_mode);
  EXPECT_EQ(header.atime, 1111U);
  EXPECT_EQ(header.mtime, 2222U);
  EXPECT_EQ(header.size, 5U);
  EXPECT_EQ(header.sequence, 0);
  EXPECT_EQ(header.unused1, PACK_FILLER);
  EXPECT_EQ(header.unused2, PACK_FILLER);
  struct utsname node;
  uname(&node);
  EXPECT_EQ(header.fromhost, std::string(node.nodename).substr(0, 63));
  for (char byte : header.padding) EXPECT_EQ(byte, 0);
  EXPECT_EQ(statusLog(), "");
}

TEST_F(FileData, AMissingFileKeepsTheDefaultsAndIsNoticedTwice) {
  std::string name = path("tmp/missing"), text;
  int result = -5;
  text = captureStderr([&] { result = fill(name); });
  EXPECT_EQ(result, 0);
  EXPECT_EQ(text, "NOTICE:  Can't stat file: " + name + ".  errno = 2.  Ignoring\n");
  EXPECT_EQ(statusLog(), "NOTICE:  Can't stat file: " + name + ".  errno = 2.   Ignoring\n");
  EXPECT_EQ(header.magic, PACK_MAGIC);
  EXPECT_EQ(header.type, 5);
  EXPECT_EQ(header.mode, 0600U);
  EXPECT_EQ(header.usrid, 65535U);
  EXPECT_EQ(header.grpid, 4294967294U);
  EXPECT_EQ(header.filename, name);
  EXPECT_EQ(header.size, 0U);
  EXPECT_EQ(header.mtime, 0U);
  EXPECT_EQ(header.unused1, PACK_FILLER);
}

TEST_F(FileData, AMissingFileInAClosedLogIsNoTrouble) {
  backuplog = nullptr;
  captureStderr([&] { EXPECT_EQ(fill(path("tmp/missing")), 0); });
  EXPECT_EQ(header.type, 5);
}

TEST_F(FileData, KindsHaveTheirTypes) {
  fs::create_directory(path("tmp/dir"));
  writeFile(path("tmp/file"), std::string(100, 'x'));
  fs::create_symlink("/tmp", path("tmp/link"));
  mkfifo(path("tmp/fifo").c_str(), 0600);
  struct Kind {
    std::string name;
    int type;
    uint64_t size;
  };
  for (const Kind &kind : {Kind{"tmp/file", 0, 100}, Kind{"tmp/dir", 1, 0}, Kind{"tmp/link", 2, 5},
                           Kind{"tmp/fifo", 5, 0}}) {
    EXPECT_EQ(fill(path(kind.name)), 0);
    EXPECT_EQ(header.type, kind.type) << kind.name;
    EXPECT_EQ(header.size, kind.size) << kind.name;
    EXPECT_EQ(header.unused1, PACK_FILLER) << kind.name;
    EXPECT_EQ(header.mode & 07000, 0U);
  }
}

TEST_F(FileData, ASocketIsOfNoKindThatCanBeSent) {
  base::Fd sd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  snprintf(address.sun_path, sizeof address.sun_path, "%s", path("tmp/s").c_str());
  ASSERT_EQ(bind(sd.get(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
  EXPECT_EQ(fill(path("tmp/s")), 0);
  EXPECT_EQ(header.type, 5);
}

TEST_F(FileData, DevicesCarryTheirNumber) {
  EXPECT_EQ(fill("/dev/null"), 0);
  EXPECT_EQ(header.type, 3);
  EXPECT_EQ(header.unused1, static_cast<int32_t>(makedev(1, 3)));
  EXPECT_EQ(header.unused2, PACK_FILLER);
  std::string block = path("tmp/block");
  bool made = mknod(block.c_str(), S_IFBLK | 0600, makedev(7, 200)) == 0;
  ASSERT_TRUE(made || errno == EPERM) << "only root makes devices";
  if (!made) return;
  EXPECT_EQ(fill(block), 0);
  EXPECT_EQ(header.type, 4);
  EXPECT_EQ(header.unused1, static_cast<int32_t>(makedev(7, 200)));
}

TEST_F(FileData, ADanglingLinkIsALinkOfItsTargetsLength) {
  fs::create_symlink("nowhere", path("tmp/link"));
  EXPECT_EQ(fill(path("tmp/link")), 0);
  EXPECT_EQ(header.type, 2);
  EXPECT_EQ(header.size, 8U);
  EXPECT_EQ(header.mode & S_IFMT, static_cast<uint32_t>(S_IFLNK));
}

TEST_F(FileData, LinkTargetsCountUpTo255CharactersAndUnderSoundWhole) {
  std::string link = path("tmp/link");
  fs::create_symlink(std::string(255, 't'), link);
  EXPECT_EQ(fill(link), 0);
  EXPECT_EQ(header.size, 256U);
  EXPECT_EQ(statusLog(), "");
  fs::remove(link);
  fs::create_symlink(std::string(256, 't'), link);
  EXPECT_EQ(fill(link), 0);
  EXPECT_EQ(header.size, 256U);
  EXPECT_EQ(statusLog(), "NOTICE:  Target of link " + link + " is longer than 255 characters.\n");
  clearLogs();
  fs::remove(link);
  fs::create_symlink(std::string(4095, 't'), link);
  soundSite();
  EXPECT_EQ(fill(link), 0);
  EXPECT_EQ(header.type, 2);
  EXPECT_EQ(header.size, 4096U);
  EXPECT_EQ(statusLog(), "");
}

TEST_F(FileData, ANameOfMoreThan256CharactersIsCut) {
  std::string name = "/" + std::string(299, 'n');
  captureStderr([&] { EXPECT_EQ(fill(name), 0); });
  EXPECT_EQ(header.filename, name.substr(0, 256));
  EXPECT_EQ(header.usrid, 65535U);
}

TEST_F(FileData, AnEmptyTableOrNoneTransformsNothing) {
  writeFile(path("tmp/x"), "");
  char *table[] = {nullptr, nullptr};
  EXPECT_EQ(fill(path("tmp/x"), table), 0);
  EXPECT_EQ(header.filename, path("tmp/x"));
  EXPECT_EQ(statusLog(), "");
}

// --- transforms; "/etc/passwd" and "/etc" stand for files that are there ---

TEST_F(FileData, AMatchingPrefixIsReplaced) {
  EXPECT_EQ(transformed("/etc/passwd", {"/etc", "/b"}), "/b/passwd");
  EXPECT_EQ(statusLog(), "Transform enabled!\nTransforming >/etc/passwd< to >/b<\n");
}

TEST_F(FileData, APrefixThatDoesNotMatchChangesNothing) {
  EXPECT_EQ(transformed("/etc/passwd", {"/usr", "/b"}), "/etc/passwd");
  EXPECT_EQ(statusLog(), "Transform enabled!\n");
}

TEST_F(FileData, AnEmptyReplacementDoublesTheTailAndUnderSoundTakesThePrefixAway) {
  EXPECT_EQ(transformed("/etc/passwd", {"/etc", ""}), "/etc/passwd/passwd");
  soundSite();
  EXPECT_EQ(transformed("/etc/passwd", {"/etc", ""}), "/passwd");
}

TEST_F(FileData, EveryMatchingPairStartsAgainFromThePathItself) {
  EXPECT_EQ(transformed("/etc/passwd", {"/etc", "/first", "/et", "/b"}), "/bc/passwd");
  EXPECT_EQ(statusLog(),
            "Transform enabled!\nTransforming >/etc/passwd< to >/first<\n"
            "Transforming >/etc/passwd< to >/b<\n");
  // The tail goes behind whatever the name holds by then.
  EXPECT_EQ(transformed("/etc/passwd", {"/etc", "/first", "/etc/", ""}), "/first/passwdpasswd");
}

TEST_F(FileData, TransformedNamesNeverRunIntoTheOwner) {
  struct stat status;
  ASSERT_EQ(lstat("/etc/passwd", &status), 0);
  std::string full(256, 'r'), longer(300, 'r'), nearly(250, 'r');
  EXPECT_EQ(transformed("/etc/passwd", {"/etc", full}), full);
  EXPECT_EQ(transformed("/etc/passwd", {"/etc", longer}), full);
  EXPECT_EQ(transformed("/etc/passwd", {"/etc", nearly}), nearly + "/passw");
  EXPECT_EQ(transformed("/etc/passwd", {"/etc", nearly, "/et", "", "/e", ""}), nearly + "/passw");
  EXPECT_EQ(header.usrid, status.st_uid);
  EXPECT_EQ(header.filename[256], '\0');
}

TEST_F(FileData, AShorterNameLeavesNothingOfALongerOne) {
  transformed("/etc/passwd", {"/etc/pass", "/b"});
  EXPECT_STREQ(header.filename, "/bwd");
  for (size_t at = 4; at < sizeof header.filename; at++) EXPECT_EQ(header.filename[at], 0) << at;
}

TEST_F(FileData, AnUnfinishedPairEndsTheTable) {
  char prefix[] = "/etc";
  char *table[] = {prefix, nullptr};
  EXPECT_EQ(fill("/etc/passwd", table), 0);
  EXPECT_STREQ(header.filename, "/etc/passwd");
}

// --- printing ---

TEST_F(FileData, AHeaderIsPrintedInThirteenLines) {
  memset(&header, 0, sizeof header);
  header.magic = PACK_MAGIC;
  strcpy(header.filename, "/a b");
  strcpy(header.fromhost, "h1");
  header.usrid = 65535;
  header.grpid = 0xfffffffeU;
  header.mode = 0600;
  header.size = 5000000000;
  header.mtime = 77;
  header.atime = 88;
  header.type = 2;
  header.version = 3;
  header.squez = 4;
  header.unused1 = PACK_FILLER;
  EXPECT_EQ(support::captureStdout([&] { prntFileData(&header); }),
            "Filename = /a b\nFromhost = h1\nMagic = 5a754c21\nUser ID = 65535\nGroup ID = -2\n"
            "Mode = 384\nSize = 5000000000\nMtime = 77\nAtime = 88\nType # = 2\nVersion = 3\n"
            "Sqeez= 4\nUnused = a5a5a5a5\n");
}

TEST_F(FileData, AHeaderWithoutTerminatorsIsPrintedWithinItsFields) {
  memset(&header, 'x', sizeof header);
  std::string text = support::captureStdout([&] { prntFileData(&header); });
  EXPECT_EQ(text.substr(0, text.find("Magic")),
            "Filename = " + std::string(257, 'x') + "\nFromhost = " + std::string(64, 'x') + "\n");
}

// --- getdir ---

class Directory : public support::HomeTest {
 protected:
  std::string printed(std::string name) {
    return captureStderr([&] { result = getdir(name.data()); });
  }
  int result = -5;
};

TEST_F(Directory, IsListedWithSlashesBehindDirectories) {
  fs::create_directory(path("tmp/d"));
  fs::create_directory(path("tmp/d/sub"));
  writeFile(path("tmp/d/file"), "");
  fs::create_directory_symlink("sub", path("tmp/d/link"));
  std::istringstream lines(printed(path("tmp/d")));
  EXPECT_EQ(result, 0);
  std::multiset<std::string> found;
  for (std::string line; std::getline(lines, line);) found.insert(line);
  EXPECT_EQ(found, (std::multiset<std::string>{".", "sub/", "file", "link"}));
}

TEST_F(Directory, ThatIsMissingIsReported) {
  EXPECT_EQ(printed("/nowhere"), "ERROR:  8300  Cannot stat file: >/nowhere<, errno = 2\n");
  EXPECT_EQ(result, -1);
}

TEST_F(Directory, ThatIsAFileIsReportedWithoutALineEnd) {
  errno = 0;
  EXPECT_EQ(printed("/etc/passwd"),
            "ERROR:  8301  Path is not a directory:  >/etc/passwd<, errno = 0\\n");
  EXPECT_EQ(result, -1);
}

TEST_F(Directory, ThatIsALinkToOneIsNone) {
  fs::create_directory_symlink("/etc", path("tmp/link"));
  EXPECT_EQ(printed(path("tmp/link")).substr(0, 14), "ERROR:  8301  ");
  EXPECT_EQ(result, -1);
}

// Runs body without the rights of root; what it writes to stderr is returned.
std::string asNobody(const std::function<int()> &body) {
  return captureStderr([&] {
    int status = support::inChild([&] {
      if (geteuid() == 0 && seteuid(65534) != 0) return 99;
      return body();
    });
    EXPECT_EQ(support::exitOf(status), 0);
  });
}

TEST_F(Directory, ThatMayNotBeReadIsReported) {
  std::string shut = path("tmp/shut");
  fs::create_directory(shut);
  chmod(shut.c_str(), 0);
  for (const std::string &name : {home, path("tmp")}) chmod(name.c_str(), 0755);
  EXPECT_EQ(asNobody([&] { return getdir(shut.data()) == -1 ? 0 : 1; }),
            "ERROR:  8302  Cannot read directory: " + shut + "\n");
}

TEST_F(Directory, WhoseEntriesMayNotBeExaminedSaysSoForEach) {
  std::string half = path("tmp/half");
  fs::create_directory(half);
  writeFile(half + "/x", "");
  chmod(half.c_str(), 0444);
  for (const std::string &name : {home, path("tmp")}) chmod(name.c_str(), 0755);
  std::string text = asNobody([&] { return getdir(half.data()); });
  EXPECT_NE(text.find(half + "/x  ERROR:  8303  Unreadable\n"), std::string::npos) << text;
}

}  // namespace
