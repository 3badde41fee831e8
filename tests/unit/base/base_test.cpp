// Texts, paths, byte order, shared words, the alarm guard and fork hygiene.
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include "base/alarm.h"
#include "base/byteorder.h"
#include "base/log.h"
#include "base/pause.h"
#include "base/process.h"
#include "base/sharedword.h"
#include "base/text.h"
#include "support.h"

namespace {

class Base : public support::HomeTest {};

TEST_F(Base, CopyTextAlwaysTerminates) {
  char to[4] = {'x', 'x', 'x', 'x'};
  base::copyText(to, sizeof to, "abcdef");
  EXPECT_STREQ(to, "abc");
  base::copyText(to, 0, "zzz");
  EXPECT_STREQ(to, "abc");
}

TEST_F(Base, CopyFieldFillsWithNulsAndMayFillTheField) {
  char to[4] = {'x', 'x', 'x', 'x'};
  base::copyField(to, sizeof to, "a");
  EXPECT_EQ(memcmp(to, "a\0\0\0", 4), 0);
  base::copyField(to, sizeof to, "abcdef");
  EXPECT_EQ(memcmp(to, "abcd", 4), 0);
}

TEST_F(Base, WordsThatLeadElsewhereAreNoPathWords) {
  for (const char *word : {"", ".", "..", "a/b", "/", "../x"})
    EXPECT_FALSE(base::isPathWord(word)) << word;
  for (const char *word : {"7", "...", ".x", "a b", "-1"})
    EXPECT_TRUE(base::isPathWord(word)) << word;
}

TEST_F(Base, APathThatDoesNotFitNamesNoFile) {
  EXPECT_EQ(std::string(base::HomePath("var/%s", "x")), path("var/x"));
  EXPECT_STREQ(base::HomePath("%s", std::string(5000, 'x').c_str()), "");
}

TEST_F(Base, DecimalReadingIgnoresWhatIsNoNumber) {
  EXPECT_EQ(base::decimal("12abc"), 12);
  EXPECT_EQ(base::decimal("abc"), 0);
  EXPECT_EQ(base::decimal(" -3"), -3);
}

TEST_F(Base, ByteOrderedIntegersKeepTheirBytes) {
  base::Be32 big = 0x01020304u;
  EXPECT_EQ(memcmp(&big, "\1\2\3\4", 4), 0);
  EXPECT_EQ(static_cast<uint32_t>(big), 0x01020304u);
  base::Le32 little = 0x01020304u;
  EXPECT_EQ(memcmp(&little, "\4\3\2\1", 4), 0);
}

TEST_F(Base, PrintingToAMissingStreamIsHarmlessAndKeepsErrno) {
  errno = ENOSPC;
  base::print(nullptr, "%s", "x");
  base::print(backuplog, "%s\n", "line");
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_EQ(statusLog(), "line\n");
}

TEST_F(Base, AWordIsWaitedForAndWoken) {
  auto *word = static_cast<uint32_t *>(
      mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  pid_t child = fork();
  if (child == 0) {
    base::storeWord(*word, 1);
    base::wakeWord(word);
    _exit(0);
  }
  long long begin = base::nowMs();
  while (base::loadWord(*word) == 0) base::waitWord(word, 0, 5000);
  EXPECT_LT(base::nowMs() - begin, 4000);
  waitpid(child, nullptr, 0);
  begin = base::nowMs();
  base::waitWord(word, 1, 30);
  EXPECT_GE(base::nowMs() - begin, 29);
  munmap(word, 4096);
}

base::AlarmGuard guard;
void jumpBack(int) {
  if (guard.mustWait()) return;
  siglongjmp(guard.back, 1);
}

TEST_F(Base, AnAlarmIsHeldBackWhileTheDialoguePrints) {
  struct sigaction before;
  ASSERT_EQ(base::catchAlarm(jumpBack, &before), 0);
  guard.reset();
  raise(SIGALRM);  // no dialogue: nothing to jump to
  volatile bool printed = false;
  if (sigsetjmp(guard.back, 1) == 0) {
    guard.armed = 1;
    guard.hold();
    raise(SIGALRM);
    printed = true;
    guard.release();
    FAIL() << "the held alarm was lost";
  }
  EXPECT_TRUE(printed);
  sigaction(SIGALRM, &before, nullptr);
}

TEST_F(Base, AForkedChildDoesNotRepeatItsParentsLines) {
  setvbuf(fplog, nullptr, _IOFBF, 4096);
  fprintf(fplog, "once\n");
  pid_t child = base::forkFlushed();
  if (child == 0) base::endProcess(0);
  waitpid(child, nullptr, 0);
  fflush(fplog);
  EXPECT_EQ(hostLog(), "once\n");
}

TEST_F(Base, ADetachedProcessHoldsNothingOfItsParent) {
  int status = support::inChild([&] {
    int extra = open(home.c_str(), O_RDONLY);
    base::detachHere();
    char cwd[256];
    bool good = getsid(0) == getpid() && umask(0) == 033 && getcwd(cwd, sizeof cwd) && home == cwd;
    good = good && fcntl(extra, F_GETFD) < 0 && fplog == stderr && backuplog == stderr;
    const int modes[] = {O_RDONLY, O_WRONLY, O_RDWR};
    struct stat null, here;
    stat("/dev/null", &null);
    for (int fd = 0; fd < 3; fd++)
      good = good && (fcntl(fd, F_GETFL) & O_ACCMODE) == modes[fd] && fstat(fd, &here) == 0 &&
             here.st_rdev == null.st_rdev;
    return good ? 0 : 1;
  });
  EXPECT_EQ(support::exitOf(status), 0);
}

TEST_F(Base, SleepingGoesOnAfterSignals) {
  long long begin = base::nowMs();
  base::sleepMs(20);
  EXPECT_GE(base::nowMs() - begin, 19);
}

}  // namespace
