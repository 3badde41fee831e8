// The built library as the module uses it: found in the home, its hooks behind writen, readn and
// readnline, whole dialogues through it.
#include <dlfcn.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zul/net.h>

#include "net/stream.h"
#include "scramsupport.h"

namespace {

using scramsupport::Pair;
using scramsupport::textOf;

class ModuleWithLibrary : public scramsupport::ScramTest {
 protected:
  void SetUp() override {
    ScramTest::SetUp();
    ASSERT_EQ(symlink(SCRAM_LIBRARY, path("bin/libscram.so").c_str()), 0);
    ASSERT_EQ(hasScram(), 1);
  }
  // Both ends in children of their own: a library that was loaded stays for the life of a process.
  void ends(const std::function<bool(int)> &near, const std::function<bool(int)> &far) {
    Pair pair;
    pid_t pid = fork();
    if (pid == 0) {
      pair.near.reset();
      shouldEncrypt(1);
      _exit(far(pair.far.get()) ? 0 : 1);
    }
    pair.far.reset();
    int status = support::inChild([&] {
      shouldEncrypt(1);
      return near(pair.near.get()) ? 0 : 1;
    });
    EXPECT_EQ(support::exitOf(status), 0) << "near";
    pair.near.reset();
    waitpid(pid, &status, 0);
    EXPECT_EQ(support::exitOf(status), 0) << "far";
  }
};

TEST_F(ModuleWithLibrary, TheThreeFunctionsCarryADialogue) {
  ends(
      [](int fd) {
        char line[64];
        std::string data(100000, '\0');
        return writen(fd, "Next\nGet\n", 9) == 9 && readn(fd, data.data(), 100000) == 100000 &&
               data == textOf(100000) && readnline(fd, line, sizeof line) == 5 &&
               strcmp(line, "Quit\n") == 0;
      },
      [](int fd) {
        char line[64];
        return readnline(fd, line, sizeof line) == 5 && strcmp(line, "Next\n") == 0 &&
               readnline(fd, line, sizeof line) == 4 && strcmp(line, "Get\n") == 0 &&
               writen(fd, textOf(100000).data(), 100000) == 100000 && writen(fd, "Quit\n", 5) == 5;
      });
}

TEST_F(ModuleWithLibrary, HeaderAndContentsArriveBehindEachOther) {
  std::string head = textOf(520), data = textOf(1 << 20);
  ends(
      [&](int fd) {
        size_t done;
        return net::writeBoth(fd, head.data(), head.size(), data.data(), data.size(), &done) &&
               done == head.size() + data.size();
      },
      [&](int fd) {
        std::string got(head.size() + data.size(), '\0');
        bool good = readn(fd, got.data(), 520) == 520;
        for (size_t at = 520; at < got.size(); at += 8192)
          good = good && readn(fd, got.data() + at, 8192) == 8192;
        return good && got == head + data;
      });
}

TEST_F(ModuleWithLibrary, AGathererServesFilesThroughIt) {
  std::string content = textOf((5 << 20) / 2);
  support::writeFile(path("file"), content);
  support::writeFile(path("list"), "1 " + path("file") + "\nend\n");
  ends(
      [&](int fd) {
        package header;
        char raw[PACK_SIZE];
        if (writen(fd, "Next\n", 5) != 5 || readn(fd, raw, PACK_SIZE) != PACK_SIZE) return false;
        unpackPackage(raw, &header);
        if (header.size != content.size() || writen(fd, "Get\n", 4) != 4) return false;
        std::string got(content.size(), '\0');
        for (size_t at = 0; at < got.size(); at += PACK_CHUNK) {
          size_t piece = std::min<size_t>(PACK_CHUNK, got.size() - at);
          if (readn(fd, raw, PACK_SIZE) != PACK_SIZE ||
              readn(fd, got.data() + at, piece) != static_cast<ssize_t>(piece))
            return false;
        }
        if (got != content || writen(fd, "Next\n", 5) != 5) return false;
        if (readn(fd, raw, PACK_SIZE) != PACK_SIZE) return false;
        unpackPackage(raw, &header);
        return header.magic == PACK_EOL_MAGIC;
      },
      [&](int fd) {
        char *none[] = {nullptr, nullptr};
        return servHandshak(1, fd, path("list").c_str(), none) == 0;
      });
}

TEST_F(ModuleWithLibrary, AProcessThatEndsInGoodOrderEndsItsStream) {
  Pair pair;
  pid_t pid = fork();
  if (pid == 0) {
    shouldEncrypt(1);
    exit(writen(pair.far.get(), "last\n", 5) == 5 ? 0 : 1);
  }
  pair.far.reset();
  int status = support::inChild([&] {
    shouldEncrypt(1);
    char line[16];
    return readnline(pair.near.get(), line, sizeof line) == 5 &&
                   readnline(pair.near.get(), line, sizeof line) == 0
               ? 0
               : 1;
  });
  EXPECT_EQ(support::exitOf(status), 0);
  waitpid(pid, &status, 0);
  EXPECT_EQ(support::exitOf(status), 0);
}

TEST_F(ModuleWithLibrary, WithoutAUsableKeyNothingIsSentInClear) {
  giveKey("no key");
  Pair pair;
  int status = support::inChild([&] {
    shouldEncrypt(1);
    char byte = 'x';
    std::string said = support::captureStderr([&] {
      if (writen(pair.near.get(), "plain", 5) != -1 || readn(pair.near.get(), &byte, 1) != -4 ||
          readnline(pair.near.get(), &byte, 2) != -3)
        _exit(1);
    });
    return said.find("64 hexadecimal digits") != std::string::npos ? 0 : 2;
  });
  EXPECT_EQ(support::exitOf(status), 0);
  char byte;
  EXPECT_EQ(recv(pair.far.get(), &byte, 1, MSG_DONTWAIT), -1);
}

TEST_F(ModuleWithLibrary, TheHostsHomeGoesBeforeTheEnvironments) {
  int status = support::inChild([&] {
    setenv("ZULHOME", "/nonexistent", 1);
    shouldEncrypt(1);
    char byte;
    void *library = dlopen(SCRAM_LIBRARY, RTLD_LAZY);
    auto *limits = library ? dlsym(library, "timeouts") : nullptr;
    if (!library || limits) return 1;  // nothing but the three functions is to be had
    Pair pair;
    pid_t pid = fork();
    if (pid == 0) _exit(writen(pair.far.get(), "y", 1) == 1 ? 0 : 1);
    return readn(pair.near.get(), &byte, 1) == 1 && byte == 'y' ? 0 : 2;
  });
  EXPECT_EQ(support::exitOf(status), 0);
}

}  // namespace
