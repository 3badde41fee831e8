// What the tests of the stores share: calls with texts that may be modified, messages, both
// behaviours.
#pragma once
#include <support.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zul/host.h>
#include <zul/tape.h>

#include <csignal>
#include <filesystem>
#include <string>

// A home, and calls that keep the result and what was said.
class Stores : public support::HomeTest {
 protected:
  int result = 99;
  std::string said;  // on standard error, by the last call

  template <class Function>
  void run(Function function) {
    said = support::captureStderr([&] { result = function(); });
  }
  void run(int (*operation)(char *), std::string text) {
    run([&] { return operation(text.data()); });
  }
  void run(int (*operation)(const char *), const std::string &text) {
    run([&] { return operation(text.c_str()); });
  }
  void run(int (*operation)(const char *, char *), const std::string &key, std::string text) {
    run([&] { return operation(key.c_str(), text.data()); });
  }

  std::string content(const std::string &relative) const {
    return support::readFile(path(relative));
  }
  void put(const std::string &relative, const std::string &text) const {
    support::writeFile(path(relative), text);
  }
  bool exists(const std::string &relative) const { return support::exists(path(relative)); }
  // A folder where a file is wanted makes every way of opening it for writing fail, for root too.
  void block(const std::string &relative) const {
    std::filesystem::create_directory(path(relative));
  }

  // Runs an operation as a user who may write the folders but not the files that forbid() names.
  // Root may write everything, so this takes a child with another user.
  template <class... Arguments>
  void runAsNobody(Arguments... arguments) {
    for (const char *folder : {"", "/etc", "/tmp", "/var", "/var/tape", "/var/tape/jobids"})
      std::filesystem::permissions(home + folder, std::filesystem::perms::all);
    put("tmp/said", "");
    std::filesystem::permissions(path("tmp/said"), std::filesystem::perms::all);
    chmod(path("etc/ZULsite").c_str(), 0644);
    int status = support::exitOf(support::inChild([&] {
      if (geteuid() == 0 && setuid(65534) != 0) return 9;
      run(arguments...);
      put("tmp/said", said);
      return result == 0 ? 0 : 7;
    }));
    ASSERT_TRUE(status == 0 || status == 7) << status;
    result = status == 0 ? 0 : -1;
    said = content("tmp/said");
  }
  // Makes a file that can be read but not written, or written but not read.
  void forbidWriting(const std::string &relative, const std::string &text) const {
    put(relative, text);
    chmod(path(relative).c_str(), 0444);
  }
  void forbidReading(const std::string &relative) const {
    put(relative, "");
    chmod(path(relative).c_str(), 0222);
    if (geteuid() == 0) (void)!chown(path(relative).c_str(), 65534, 65534);
  }

  // In a child whose files may not grow beyond limit bytes, as on a disk that is full: exits with
  // body's result.
  static int onFullDisk(size_t limit, const std::function<int()> &body) {
    return support::exitOf(support::inChild([&] {
      signal(SIGXFSZ, SIG_IGN);
      rlimit most{limit, limit};
      setrlimit(RLIMIT_FSIZE, &most);
      return body();
    }));
  }
};

// The same in both behaviours.
class BothStores : public Stores, public ::testing::WithParamInterface<const char *> {
 protected:
  void SetUp() override {
    Stores::SetUp();
    site(std::string("behaviour = ") + GetParam() + "\n");
  }
  bool isSound() const { return GetParam() == std::string("sound"); }
};
#define IN_BOTH_BEHAVIOURS(Suite)                                                   \
  INSTANTIATE_TEST_SUITE_P(Behaviour, Suite, ::testing::Values("classic", "sound"), \
                           [](const auto &behaviour) { return std::string(behaviour.param); })
