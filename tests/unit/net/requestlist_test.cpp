// Reading request lists: which lines count, and what the reader makes of a list that is still being
// written.
#include "net/requestlist.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/file.h>
#include <unistd.h>

#include <thread>

#include "base/pause.h"
#include "netsupport.h"

namespace {

class RequestList : public netsupport::NetTest {
 protected:
  void SetUp() override {
    NetTest::SetUp();
    file = path("var/tape/jobids/request.7");
  }
  // All entries of a list with this content, as getLineList gives them.
  std::vector<std::string> entries(const std::string &content) {
    support::writeFile(file, content);
    base::File list(fopen(file.c_str(), "r"));
    std::vector<std::string> found;
    while (char *entry = getLineList(list.get())) found.push_back(entry);
    EXPECT_EQ(getLineList(list.get()), nullptr);
    return found;
  }
  using Texts = std::vector<std::string>;
  std::string file;
};

TEST_F(RequestList, AnEntryIsWhatStandsBehindTheFirstBlank) {
  EXPECT_EQ(entries("0 /etc/\n1 /etc/passwd\n2 /a file with blanks\n"),
            (Texts{"/etc/", "/etc/passwd", "/a file with blanks"}));
}

TEST_F(RequestList, LinesWithoutABlankAreSkipped) {
  EXPECT_EQ(entries("nothing\n\n0 /x\n/y\n1 /z\nend\n"), (Texts{"/x", "/z"}));
}

TEST_F(RequestList, LineEndsOfBothKindsAreCut) {
  EXPECT_EQ(entries("12 /etc/passwd\r\n13 /b\n"), (Texts{"/etc/passwd", "/b"}));
}

TEST_F(RequestList, AnEmptyPathIsAnEntry) {
  EXPECT_EQ(entries("3 \n4 /x\n"), (Texts{"", "/x"}));
}

TEST_F(RequestList, AnEmptyListHasNoEntries) {
  EXPECT_EQ(entries(""), Texts{});
}

TEST_F(RequestList, TheLongestLineIsWhole) {
  std::string path = "/" + std::string(281, 'p');
  EXPECT_EQ(entries("0 " + path + "\n1 /x\n"), (Texts{path, "/x"}));
}

TEST_F(RequestList, ALongerLineIsSkippedWithItsTail) {
  for (size_t extra : {0u, 1u, 200u, 285u, 5000u}) {
    std::string path = "/" + std::string(282 + extra, 'p') + " /etc/shadow";
    EXPECT_EQ(entries("0 " + path + "\n1 /x\n"), (Texts{"/x"})) << extra;
  }
  EXPECT_NE(statusLog().find("NOTICE:  Line of the request list is too long, skipping: 0 /ppp"),
            std::string::npos);
}

TEST_F(RequestList, ALastLineWithoutALineFeedCounts) {
  EXPECT_EQ(entries("0 /x\n1 /last"), (Texts{"/x", "/last"}));
  EXPECT_EQ(entries("0 /x\nlast"), (Texts{"/x"}));
  EXPECT_EQ(entries("0 /" + std::string(282, 'p')), Texts{});
}

TEST_F(RequestList, ALineThatIsSeenHalfIsReadOnceMore) {
  net::timeouts.tornMs = 20000;
  support::writeFile(file, "0 /home/us");
  base::File list(fopen(file.c_str(), "r"));
  std::thread writer([&] {
    base::sleepMs(30);
    base::Fd out(open(file.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
    EXPECT_EQ(write(out.get(), "er\n1 /x\n", 8), 8);
  });
  EXPECT_STREQ(getLineList(list.get()), "/home/user");
  EXPECT_STREQ(getLineList(list.get()), "/x");
  writer.join();
}

TEST_F(RequestList, AMissingListIsWaitedForOnASoundSiteOnly) {
  net::timeouts.listMs = 20000;
  long long begin = base::nowMs();
  EXPECT_EQ(net::openRequestList(file.c_str()), nullptr);
  EXPECT_LT(base::nowMs() - begin, 10000);
  soundSite();
  std::thread writer([&] {
    base::sleepMs(100);
    support::writeFile(file, "0 /x\nend\n");
  });
  base::File list(net::openRequestList(file.c_str()));
  writer.join();
  EXPECT_TRUE(list);
}

TEST_F(RequestList, AListThatNeverAppearsIsGivenUp) {
  soundSite();
  net::timeouts.listMs = 100;
  EXPECT_EQ(net::openRequestList(file.c_str()), nullptr);
}

class GrowingList : public RequestList {
 protected:
  // The generator: holds its lock and appends.
  void begin(const std::string &content) {
    support::writeFile(file, content);
    writer.reset(open(file.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
    ASSERT_EQ(flock(writer.get(), LOCK_EX | LOCK_NB), 0);
    list = base::File(net::openRequestList(file.c_str()));
    ASSERT_TRUE(list);
  }
  void append(const std::string &text) {
    ASSERT_EQ(write(writer.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }
  net::Listed next() { return net::nextListed(list.get(), &entry); }
  base::Fd writer;
  base::File list;
  char *entry = nullptr;
};

TEST_F(GrowingList, IsReadAsItGrows) {
  begin("0 /a\n");
  EXPECT_EQ(next(), net::Listed::entry);
  EXPECT_STREQ(entry, "/a");
  EXPECT_EQ(next(), net::Listed::later);
  EXPECT_EQ(next(), net::Listed::later);
  append("1 /b");
  EXPECT_EQ(next(), net::Listed::later);
  append("b\n2 /c\n");
  EXPECT_EQ(next(), net::Listed::entry);
  EXPECT_STREQ(entry, "/bb");
  EXPECT_EQ(next(), net::Listed::entry);
  EXPECT_EQ(next(), net::Listed::later);
  append("end\n");
  EXPECT_EQ(next(), net::Listed::end);
}

TEST_F(GrowingList, IsCompleteOnlyWithItsLastLine) {
  begin("0 /a\n");
  EXPECT_EQ(next(), net::Listed::entry);
  writer.reset();  // as when the generator is killed
  EXPECT_EQ(next(), net::Listed::incomplete);
}

TEST_F(GrowingList, IsIncompleteWhenItsLastLineWasCut) {
  begin("0 /a\n1 /etc/sha");
  EXPECT_EQ(next(), net::Listed::entry);
  writer.reset();
  EXPECT_EQ(next(), net::Listed::incomplete);
}

TEST_F(GrowingList, HasItsLastLinesReadAfterTheLockIsGone) {
  begin("");
  EXPECT_EQ(next(), net::Listed::later);
  append("0 /late\nend\n");
  writer.reset();
  EXPECT_EQ(next(), net::Listed::entry);
  EXPECT_STREQ(entry, "/late");
  EXPECT_EQ(next(), net::Listed::end);
}

TEST_F(GrowingList, IsReadBySeveralReadersAtOnce) {
  begin("0 /a\n");
  base::File other(fopen(file.c_str(), "r"));
  ASSERT_EQ(flock(fileno(other.get()), LOCK_SH | LOCK_NB), -1);
  writer.reset();
  ASSERT_EQ(flock(fileno(other.get()), LOCK_SH | LOCK_NB), 0);
  // Another reader's look at the lock must not pass for a generator at work.
  EXPECT_EQ(next(), net::Listed::entry);
  EXPECT_EQ(next(), net::Listed::incomplete);
}

}  // namespace
