// The list of paths, headers, and what the packer lays into the ring.
#include <fcntl.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <thread>

#include "mrepl/packing.h"
#include "mrepl/run.h"
#include "runsupport.h"

namespace {

namespace fs = std::filesystem;
using mtest::SenderTest;

// A job's list of texts.
class Texts {
 public:
  explicit Texts(std::vector<std::string> texts)
      : texts_(std::move(texts)), nodes_(texts_.size() + 1) {
    for (size_t at = 0; at < texts_.size(); at++) nodes_[at] = {texts_[at].data(), &nodes_[at + 1]};
  }
  strNode *first() { return &nodes_[0]; }

 private:
  std::vector<std::string> texts_;
  std::vector<strNode> nodes_;
};

void freeNodes(strNode *head) {
  free(head->text);
  for (strNode *node = head->next; node;) {
    strNode *next = node->next;
    free(node->text);
    free(node);
    node = next;
  }
}

class PathList : public support::HomeTest {
 protected:
  std::vector<std::string> build(std::vector<std::string> requests,
                                 std::vector<std::string> without = {}, time_t since = 0) {
    Texts wanted(std::move(requests)), left(std::move(without));
    strNode list{};
    addToIncList(1, &list);
    setFileList(wanted.first(), 0);
    setFileList(left.first(), 1);
    EXPECT_EQ(buildFileList(since), 0);
    setFileList(nullptr, 0);
    setFileList(nullptr, 1);
    std::vector<std::string> found;
    for (char *one; getNextFile(&one) == 0;) found.emplace_back(one);
    char *one;
    EXPECT_EQ(getNextFile(&one), -1);
    freeNodes(&list);
    strNode none{};
    addToIncList(1, &none);
    return found;
  }
  std::vector<std::string> ancestors(const std::string &of) {
    std::vector<std::string> found;
    for (size_t at = of.find('/', 1); at != std::string::npos; at = of.find('/', at + 1))
      found.push_back(of.substr(0, at));
    return found;
  }
  // What lies behind the ancestors of the tree.
  std::vector<std::string> below(const std::vector<std::string> &all) {
    std::vector<std::string> found;
    for (const std::string &one : all)
      if (one.rfind(path("tree"), 0) == 0) found.push_back(one.substr(path("").size()));
    return found;
  }
  void makeTree() {
    for (const char *folder : {"tree/a/b", "tree/empty"}) fs::create_directories(path(folder));
    for (const char *file : {"tree/a/one", "tree/a/b/two", "tree/a/b.not"})
      support::writeFile(path(file), "x");
    fs::create_symlink("a", path("tree/link"));
  }
};

TEST_F(PathList, ARequestBringsItsAncestorsFromTheTop) {
  makeTree();
  std::vector<std::string> expected = ancestors(path("tree/a/one"));
  expected.push_back(path("tree/a/one"));
  EXPECT_EQ(build({path("tree/a/one")}), expected);
}

TEST_F(PathList, ADirectoryWithoutSlashIsSentAlone) {
  makeTree();
  EXPECT_EQ(below(build({path("tree")})), std::vector<std::string>{"tree"});
}

TEST_F(PathList, ATreeHasEveryDirectoryBeforeItsEntriesAndFollowsNoLink) {
  makeTree();
  std::vector<std::string> found = below(build({path("tree/")}));
  EXPECT_EQ(found[0], "tree");
  auto at = [&](const std::string &name) {
    return std::find(found.begin(), found.end(), name) - found.begin();
  };
  EXPECT_LT(at("tree/a"), at("tree/a/b"));
  EXPECT_LT(at("tree/a/b"), at("tree/a/b/two"));
  std::sort(found.begin(), found.end());
  EXPECT_EQ(found,
            (std::vector<std::string>{"tree", "tree/a", "tree/a/b", "tree/a/b.not", "tree/a/b/two",
                                      "tree/a/one", "tree/empty", "tree/link"}));
}

TEST_F(PathList, EntriesThatAreNotNewerAreLeftOutButTheirContentsAreNot) {
  makeTree();
  timespec old[2] = {{1000, 0}, {1000, 0}};
  utimensat(AT_FDCWD, path("tree/a").c_str(), old, 0);
  utimensat(AT_FDCWD, path("tree/a/one").c_str(), old, 0);
  std::vector<std::string> found = below(build({path("tree/")}, {}, 1000));
  EXPECT_EQ(std::count(found.begin(), found.end(), "tree/a"), 0);
  EXPECT_EQ(std::count(found.begin(), found.end(), "tree/a/one"), 0);
  EXPECT_EQ(std::count(found.begin(), found.end(), "tree/a/b/two"), 1);
}

TEST_F(PathList, FilesWithoutATimeAreSentOnSoundSitesOnly) {
  makeTree();
  timespec none[2] = {{0, 0}, {0, 0}};
  utimensat(AT_FDCWD, path("tree/a/one").c_str(), none, 0);
  auto sent = [&] {
    std::vector<std::string> found = below(build({path("tree/")}));
    return std::count(found.begin(), found.end(), "tree/a/one");
  };
  EXPECT_EQ(sent(), 0);
  soundSite();
  EXPECT_EQ(sent(), 1);
}

TEST_F(PathList, ExclusionsTakeAPathAndAllBelowIt) {
  makeTree();
  std::vector<std::string> found = below(build({path("tree/")}, {path("tree/a/b")}));
  std::sort(found.begin(), found.end());
  EXPECT_EQ(found, (std::vector<std::string>{"tree", "tree/a", "tree/a/b.not", "tree/a/one",
                                             "tree/empty", "tree/link"}));
  EXPECT_EQ(below(build({path("tree/a/one")}, {path("tree/")})), std::vector<std::string>{});
}

TEST_F(PathList, WhatIsNotThereIsSkipped) {
  makeTree();
  EXPECT_EQ(below(build({path("tree/none/"), path("tree/none"), path("tree/a/one")})),
            (std::vector<std::string>{"tree", "tree", "tree", "tree/a", "tree/a/one"}));
}

TEST_F(PathList, AScanAddsUpTheSizes) {
  makeTree();
  strNode list{};
  addToIncList(1, &list);
  std::string one = path("tree/a/one");
  long total = 5;
  EXPECT_EQ(scanDirectory(one.data(), &total, 0), 0);
  EXPECT_EQ(total, 6);
  freeNodes(&list);
  strNode none{};
  addToIncList(1, &none);
}

TEST_F(PathList, ListsOfPathsAreReadFromFiles) {
  support::writeFile(path("list"), "/a\n\n/b c\r\n/d");
  strNode list{};
  EXPECT_EQ(readFileList(path("list").c_str(), &list), 0);
  ASSERT_NE(list.next, nullptr);
  EXPECT_STREQ(list.text, "/a");
  EXPECT_STREQ(list.next->text, "/b c");
  EXPECT_STREQ(list.next->next->text, "/d");
  EXPECT_EQ(list.next->next->next->text, nullptr);
  EXPECT_EQ(readFileList(path("none").c_str(), &list), -1);
  freeNodes(&list);
  strNode other{};
  addToIncList(1, &other);
  EXPECT_EQ(readIncludeList(path("list").c_str()), 0);
  char *first;
  EXPECT_EQ(getNextFile(&first), 0);
  EXPECT_STREQ(first, "/a");
  freeNodes(&other);
  strNode none{};
  addToIncList(1, &none);
}

// --- headers ---

class Headers : public support::HomeTest {
 protected:
  void store(const std::string &name) {
    memset(static_cast<void *>(&segment), 0x55, sizeof segment);
    result = storeFileHeader(name.c_str(), &segment, &type, &size);
    if (result == 0) inlined = storeNewFileData(name.c_str(), &segment, type, &stored, size);
    memMapClose();
  }
  const mfilehead &head() { return *reinterpret_cast<mfilehead *>(segment.payload); }
  std::string behind(size_t length) { return std::string(segment.payload + MR_INLINE_OFF, length); }
  mseg segment;
  int type = -1, result = -99, inlined = -99;
  uint64_t size = 0, stored = 0;
};

TEST_F(Headers, AFileOfUpTo688BytesTravelsInItsHeader) {
  for (size_t length : {0, 1, 335, 336, 337, 687, 688, 689, 1024}) {
    std::string content(length, 'c');
    support::writeFile(path("f"), content, 0640);
    store(path("f"));
    ASSERT_EQ(result, 0);
    EXPECT_EQ(type, mrepl::kFile);
    EXPECT_EQ(size, length);
    EXPECT_EQ(unpackul(&head().size), length);
    EXPECT_EQ(stored, length <= 688 ? length : 0);
    EXPECT_EQ(behind(688), (length <= 688 ? content : "") +
                               std::string(688 - (length <= 688 ? length : 0), '\0'));
  }
  EXPECT_EQ(unpackul(&head().magic), 0x64456846u);
  EXPECT_STREQ(head().name, path("f").c_str());
  EXPECT_EQ(unpackul(&head().mode), 0640u);
  EXPECT_EQ(unpackul(&head().owner), getuid());
}

TEST_F(Headers, ALinkCarriesItsTarget) {
  fs::create_symlink("over/there", path("l"));
  store(path("l"));
  EXPECT_EQ(type, mrepl::kLink);
  EXPECT_EQ(size, 11u);
  EXPECT_EQ(behind(12), std::string("over/there\0\0", 12));
}

TEST_F(Headers, LongTargetsAreCutInClassicAndCarriedInSoundRuns) {
  fs::create_symlink(std::string(300, 't'), path("l"));
  store(path("l"));
  EXPECT_EQ(size, 256u);
  EXPECT_EQ(behind(257), std::string(255, 't') + std::string(2, '\0'));
  soundSite();
  store(path("l"));
  EXPECT_EQ(size, 301u);
  EXPECT_EQ(behind(301), std::string(300, 't') + std::string(1, '\0'));
  fs::create_symlink(std::string(687, 'u'), path("m"));
  store(path("m"));
  EXPECT_EQ(size, 688u);
  fs::create_symlink(std::string(688, 'u'), path("n"));
  store(path("n"));
  EXPECT_EQ(result, -1) << "there is no room for it";
}

TEST_F(Headers, DirectoriesDevicesAndOthersHaveTheirTypes) {
  store(path("etc"));
  EXPECT_EQ(type, mrepl::kDirectory);
  EXPECT_EQ(size, 0u);
  store("/dev/null");
  EXPECT_EQ(type, mrepl::kCharDevice);
  EXPECT_EQ(unpackul(&head().rdev), 0x103u);
  mkfifo(path("pipe").c_str(), 0600);
  store(path("pipe"));
  EXPECT_EQ(type, mrepl::kOther);
}

TEST_F(Headers, WhatCannotBeExaminedIsSentAsNobodys) {
  store(path("none"));
  EXPECT_EQ(result, 0);
  EXPECT_EQ(type, mrepl::kOther);
  EXPECT_EQ(unpackul(&head().owner), 65535u);
  EXPECT_EQ(unpackul(&head().group), 0xfffffffeu);
  EXPECT_EQ(unpackul(&head().mode), 0600u);
}

TEST_F(Headers, ANameMayFillItsFieldAndNoMore) {
  std::string name = "/" + std::string(255, 'n');
  store(name);
  EXPECT_EQ(result, 0);
  EXPECT_EQ(std::string(head().name, 256), name);
  EXPECT_EQ(head().reserved0[0], 0);
  store(name + "n");
  EXPECT_EQ(result, -1);
}

TEST_F(Headers, LargeFilesNeedASoundRun) {
  int fd = open(path("big").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  ASSERT_EQ(ftruncate(fd, (5LL << 32) + 7), 0);
  close(fd);
  store(path("big"));
  EXPECT_EQ(result, -1);
  soundSite();
  store(path("big"));
  EXPECT_EQ(result, 0);
  EXPECT_EQ(size, (5ULL << 32) + 7);
  EXPECT_EQ(unpackul(&head().size), 7u);
  EXPECT_EQ(unpackul(&head().reserved4), 5u);
}

TEST_F(Headers, TheEndRecordIsFixed) {
  char record[400];
  memset(record, 0x55, sizeof record);
  EXPECT_EQ(makeEOTPkt(record), 0);
  EXPECT_EQ(std::string(record, 4), "dEhF");
  EXPECT_STREQ(record + 4, "EnD_Of_TrAnSmIsSiOn");
  EXPECT_EQ(record[263], 8);
  EXPECT_EQ(unpackul(record + 264), 65535u);
  EXPECT_EQ(unpackul(record + 268), 0xfffffffeu);
  for (size_t at = 272; at < 336; at++) EXPECT_EQ(record[at], 0) << at;
  EXPECT_EQ(record[336], 0x55);
}

// --- views ---

class Views : public support::HomeTest {
 protected:
  void TearDown() override {
    memMapClose();
    HomeTest::TearDown();
  }
};

TEST_F(Views, ShowAFileAtAnyOffsetAndZerosBehindIt) {
  std::string content;
  for (int at = 0; at < 10000; at++) content += static_cast<char>(at * 7);
  support::writeFile(path("f"), content);
  void *view = nullptr;
  ASSERT_EQ(memMapOpen(path("f").c_str(), &view, 4096), 0);
  EXPECT_EQ(memcmp(view, content.data(), 4096), 0);
  ASSERT_EQ(memMapSeek(&view, 4096), 0);
  EXPECT_EQ(memcmp(view, content.data() + 4096, 4096), 0);
  ASSERT_EQ(memMapSeek(&view, 8192), 0);
  EXPECT_EQ(memcmp(view, (content.substr(8192) + std::string(4096, '\0')).data(), 4096), 0);
  ASSERT_EQ(truncate(path("f").c_str(), 100), 0);
  ASSERT_EQ(memMapSeek(&view, 4096), 0) << "a file that was cut meanwhile reads as zeros";
  EXPECT_EQ(std::string(static_cast<char *>(view), 4096), std::string(4096, '\0'));
  EXPECT_EQ(memMapClose(), 0);
  EXPECT_EQ(memMapClose(), -1);
  EXPECT_EQ(memMapSeek(&view, 0), -1);
  EXPECT_EQ(memMapOpen(path("none").c_str(), &view, 4096), -1);
  EXPECT_EQ(memMapOpen(path("etc").c_str(), &view, 4096), -2) << "a directory";
}

TEST_F(Views, WriteAFileOfExactlyItsSize) {
  void *view = nullptr;
  ASSERT_EQ(memMapWriteOpen(path("f").c_str(), &view, 4096, 5000), 0);
  uint64_t position = 4090;
  EXPECT_EQ(memMapWrite(&position, 10, "0123456789"), 10);
  EXPECT_EQ(position, 4100u);
  EXPECT_EQ(memMapClose(), 0);
  std::string content = support::readFile(path("f"));
  EXPECT_EQ(content.size(), 5000u);
  EXPECT_EQ(content.substr(4089, 12), std::string("\0"
                                                  "0123456789\0",
                                                  12));
  EXPECT_LT(memMapWrite(&position, 1, "x"), 1) << "nothing is open";
  EXPECT_EQ(memMapWriteOpen(path("none/f").c_str(), &view, 4096, 1), -1);
  EXPECT_EQ(memMapWriteOpen(path("f").c_str(), &view, 4096, 1ULL << 62), -2)
      << "there is no such room";
}

// --- packing ---

class Packing : public SenderTest {
 protected:
  void SetUp() override {
    SenderTest::SetUp();
    base::storeWord(ctrl->senderState, mrepl::kRunning);
    // With sound pace nothing waits but for room.
    job.filePerms = 4096 + 8192 + 16384 + 32768;
    job.dirPerms = 4096 + 8192 + 16384;
  }
  void sound() {
    soundSite();
    mrepl::runWord = mrepl::kReports | 0x1234 << 16;
  }
  int pack(std::vector<std::string> requests) {
    Texts wanted(std::move(requests));
    job.requestList = *wanted.first();
    int result = dataPacker(&job);
    setFileList(nullptr, 0);
    return result;
  }
  uint64_t filled() { return mrepl::filledOf(*ctrl); }
  const mfilehead &head(uint64_t at) {
    return *reinterpret_cast<mfilehead *>(ring[at % MR_SEND_SLOTS].seg.payload);
  }
  // The segment that carries the header of a name, 0 when there is none.
  uint64_t find(const std::string &name) {
    for (uint64_t at = 1; at < filled(); at++)
      if (unpackul(&head(at).magic) == MR_HEAD_MAGIC && name == std::string(head(at).name))
        return at;
    return 0;
  }
  MreplJobData job{};
};

TEST_F(Packing, LaysDownOneSegmentPerPathAndTwoForTheEnd) {
  support::writeFile(path("small"), "tiny");
  EXPECT_EQ(pack({path("small")}), 0);
  std::string small = path("small");
  auto paths = static_cast<size_t>(std::count(small.begin(), small.end(), '/'));
  ASSERT_EQ(filled(), paths + 2);
  EXPECT_STREQ(head(0).name, "/tmp");
  EXPECT_EQ(ctrl->packerState, mrepl::kEnded);
  uint64_t at = paths - 1;
  EXPECT_STREQ(head(at).name, path("small").c_str());
  EXPECT_STREQ(head(paths).name, "EnD_Of_TrAnSmIsSiOn");
  EXPECT_STREQ(head(paths + 1).name, "EnD_Of_TrAnSmIsSiOn");
  const mslot &slot = ring[at];
  EXPECT_EQ(slot.low, at);
  EXPECT_EQ(unpackul(&slot.seg.low), at);
  EXPECT_EQ(memcmp(slot.seg.magic, "PaCk", 4), 0);
  EXPECT_EQ(memcmp(slot.seg.pfin, "PfInErR!", 8), 0);
  EXPECT_EQ(unpackul(&slot.seg.control), 0u);
  EXPECT_EQ(slot.flag + slot.state, 0);
}

TEST_F(Packing, LargerFilesFollowTheirHeaderInBlocks) {
  for (size_t length : {689, 1024, 1025, 4095, 4096, 4097, 5000, 20000}) {
    std::string content;
    for (size_t at = 0; at < length; at++) content += static_cast<char>(at * 31 >> 3);
    support::writeFile(path("f"), content);
    ASSERT_EQ(pack({path("f")}), 0);
    uint64_t at = find(path("f"));
    ASSERT_NE(at, 0u);
    uint64_t blocks = (length + 1023) / 1024;
    ASSERT_EQ(filled(), at + 1 + blocks + 2) << length;
    std::string found;
    for (uint64_t block = 1; block <= blocks; block++)
      found.append(ring[at + block].seg.payload, MR_PAYLOAD);
    EXPECT_EQ(found, content + std::string(blocks * 1024 - length, '\0'));
  }
  EXPECT_NE(hostLog().find("DEBUG: storeFileData Alignment correction needed!  j="),
            std::string::npos)
      << "a batch has ended within a view";
}

TEST_F(Packing, ABlockOfContentNeverHoldsMoreThanTheSizeSays) {
  support::writeFile(path("f"), std::string(3000, 'x'));
  mseg batch[mrepl::kBatch];
  uint64_t stored = 0, size = 2000;
  int count = 0, room = 16;
  ASSERT_EQ(storeNewFileData(path("f").c_str(), &batch[0], mrepl::kFile, &stored, size), 0);
  ASSERT_EQ(storeFileData(batch, size, &stored, &count, &room), 0);
  EXPECT_EQ(count, 2);
  EXPECT_EQ(room, 14);
  EXPECT_EQ(std::string(batch[1].payload, 1024), std::string(976, 'x') + std::string(48, '\0'));
}

TEST_F(Packing, NumbersCarryIntoTheHighWord) {
  mseg content{};
  mrepl::storeNumber(ctrl->filledHigh, ctrl->filledLow, 0xffffffff);
  mrepl::placeSegment(ctrl, ring, content);
  mrepl::placeSegment(ctrl, ring, content);
  EXPECT_EQ(ctrl->filledHigh, 1u);
  EXPECT_EQ(ctrl->filledLow, 1u);
  EXPECT_EQ(ring[16383].low, 0xffffffffu);
  EXPECT_EQ(ring[0].high, 1u);
  EXPECT_EQ(unpackul(&ring[0].seg.high), 1u);
}

TEST_F(Packing, FreeSlotsAreCountedAcrossTheCarry) {
  EXPECT_EQ(mrepl::freeSlots(ctrl), 16384);
  mrepl::storeNumber(ctrl->filledHigh, ctrl->filledLow, 16384);
  EXPECT_EQ(mrepl::freeSlots(ctrl), 0);
  mrepl::storeNumber(ctrl->filledHigh, ctrl->filledLow, 0x100000010);
  mrepl::storeNumber(ctrl->freeTillHigh, ctrl->freeTillLow, 0xfffffff0);
  EXPECT_EQ(mrepl::freeSlots(ctrl), 16384 - 32 + 1);
}

TEST_F(Packing, AFullRingIsWaitedFor) {
  support::writeFile(path("f"), std::string(20 << 20, 'r'));
  std::thread sender([this] {
    EXPECT_TRUE(support::eventually([this] { return filled() == 16384; }, 20000));
    mrepl::storeNumber(ctrl->freeTillHigh, ctrl->freeTillLow, 10000);
    base::wakeWord(&ctrl->freeTillLow);
  });
  soundSite();
  EXPECT_EQ(pack({path("f")}), 0);
  sender.join();
  EXPECT_GT(filled(), 20480u);
}

TEST_F(Packing, ASenderThatHasEndedIsNotWorkedFor) {
  base::storeWord(ctrl->senderState, mrepl::kEnded);
  EXPECT_EQ(pack({path("etc")}), -1);
  EXPECT_EQ(ctrl->packerState, mrepl::kEnded);
  EXPECT_EQ(filled(), 0u);
}

TEST_F(Packing, APathWithoutHeaderCostsItselfOnly) {
  std::string deep = path("tree");
  while (deep.size() < 260) deep += "/" + std::string(60, 'd');
  fs::create_directories(deep);
  support::writeFile(path("tree/z"), "x");
  EXPECT_EQ(pack({path("tree/")}), 0);
  EXPECT_NE(find(path("tree/z")), 0u);
  EXPECT_NE(hostLog().find("NOTICE: Failed to store file header for:  " + deep + "\n"),
            std::string::npos);
}

TEST_F(Packing, ExclusionsAreSentInClassicOnly) {
  support::writeFile(path("tree.key"), "secret");
  Texts without({path("tree.key")});
  job.excludeList = *without.first();
  EXPECT_EQ(pack({path("tree.key")}), 0);
  EXPECT_NE(find(path("tree.key")), 0u);
  sound();
  EXPECT_EQ(pack({path("tree.key")}), 0);
  EXPECT_EQ(find(path("tree.key")), 0u);
}

TEST_F(Packing, ThePolicyOfTheJobIsApplied) {
  support::writeFile(path("f"), "x", 0644);
  job.filePerms = 0600;
  job.userID = 7;
  std::string prefix = "/stage";
  job.prefix = prefix.data();
  EXPECT_EQ(pack({path("f")}), 0);
  uint64_t at = find("/stage/" + path("f"));
  ASSERT_NE(at, 0u);
  EXPECT_EQ(unpackul(&head(at).owner), 7u);
  EXPECT_EQ(unpackul(&head(at).mode), 0600u);
}

TEST_F(Packing, ANameWithoutRoomForThePrefixIsSentUnprefixedInClassicOnly) {
  std::string folder = path("tree/") + std::string(255 - path("tree/").size() - 3, 'f');
  fs::create_directories(folder);
  std::string prefix = "/stage";
  job.prefix = prefix.data();
  EXPECT_EQ(pack({folder}), 0);
  EXPECT_NE(find(folder), 0u);
  sound();
  EXPECT_EQ(pack({folder}), 0);
  EXPECT_EQ(find(folder), 0u) << "receivers would overwrite the path itself";
  EXPECT_NE(hostLog().find("NOTICE: Failed to store file header for:  " + folder + "\n"),
            std::string::npos);
}

TEST_F(Packing, ASoundRunBeginsWithASegmentThatMayBeLostAndMarksHeaders) {
  support::writeFile(path("f"), std::string(3000, 'x'));
  sound();
  EXPECT_EQ(pack({path("f")}), 0);
  EXPECT_EQ(head(0).type, mrepl::kNothing);
  EXPECT_STREQ(head(1).name, "/tmp");
  uint64_t at = find(path("f"));
  EXPECT_EQ(unpackul(&ring[at].seg.control), mrepl::kHead);
  EXPECT_EQ(unpackul(&ring[at + 1].seg.control), 0u);
  EXPECT_EQ(unpackul(&ring[filled() - 1].seg.control), mrepl::kHead);
  EXPECT_EQ(ctrl->controlWord, mrepl::runWord);
}

// A file that shrinks between header and content: the packer sees it through the view.
TEST_F(Packing, AFileThatBecomesShorterIsZerosInClassicAndBreaksOffInSoundRuns) {
  for (bool good : {false, true}) {
    if (good) soundSite();
    support::writeFile(path("f"), std::string(9000, 'x'));
    mseg batch[mrepl::kBatch];
    uint64_t stored = 0, size = 0;
    int count = 0, room = 16, type = 0;
    ASSERT_EQ(storeFileHeader(path("f").c_str(), &batch[0], &type, &size), 0);
    ASSERT_EQ(storeNewFileData(path("f").c_str(), &batch[0], mrepl::kFile, &stored, 9000), 0);
    ASSERT_EQ(truncate(path("f").c_str(), 5000), 0);
    EXPECT_EQ(storeFileData(batch, 9000, &stored, &count, &room), good ? -1 : 0);
    EXPECT_EQ(count, good ? 4 : 9);
    if (good) continue;
    EXPECT_EQ(std::string(batch[8].payload, 1024), std::string(1024, '\0'));
  }
}

// Who owns the folder of a file may put something else in its place between header and content.
TEST_F(Packing, WhatTookAFilesPlaceIsNotSentAsThatFileInASoundRun) {
  support::writeFile(path("secret"), "secret", 0600);
  auto linked = [this] {
    unlink(path("f").c_str());
    ASSERT_EQ(symlink(path("secret").c_str(), path("f").c_str()), 0);
  };
  auto replaced = [this] {
    support::writeFile(path("new"), "secret", 0600);
    ASSERT_EQ(rename(path("new").c_str(), path("f").c_str()), 0);
  };
  auto grown = [this] { support::writeFile(path("f"), "public and more", 0644); };
  for (bool good : {false, true}) {
    if (good) soundSite();
    for (int what = 0; what < 3; what++) {
      unlink(path("f").c_str());
      support::writeFile(path("f"), "public", 0644);
      mseg segment{};
      int type = 0;
      uint64_t size = 0, stored = 0;
      ASSERT_EQ(storeFileHeader(path("f").c_str(), &segment, &type, &size), 0);
      what == 0 ? linked() : what == 1 ? replaced() : grown();
      int result = storeNewFileData(path("f").c_str(), &segment, type, &stored, size);
      EXPECT_EQ(result, good && what < 2 ? -1 : 0) << what;
      EXPECT_STREQ(segment.payload + MR_INLINE_OFF, what == 2 ? "public"
                                                    : good    ? ""
                                                              : "secret")
          << what;
    }
  }
}

TEST_F(Packing, AnEmptyJobIsTwoEndRecords) {
  EXPECT_EQ(pack({}), 0);
  EXPECT_EQ(filled(), 2u);
}

}  // namespace
