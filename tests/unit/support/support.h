// What the unit tests share: a home of their own, captured streams, children whose end can be
// looked at.
#pragma once
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/types.h>
#include <zul/host.h>

#include <functional>
#include <string>

namespace support {

// How the played host answers the module.
struct HostPlay {
  int loginResult = 0;
  std::function<int(int)> login;  // instead of loginResult, when set
  std::string calls;              // 'i' for each initpass, 'a' for each autoLogin
};
extern HostPlay hostPlay;

// A temporary ZULhome with the folders of an installation; all streams captured into files of its
// own. backuplog and fplog are set, ENOENT-style leftovers of earlier tests are gone, the site file
// is forgotten.
class HomeTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  std::string home;  // the path, as in ZULhome
  std::string path(const std::string &relative) const { return home + "/" + relative; }

  // Everything written to the stream since the last clearLogs().
  std::string statusLog() const;  // backuplog
  std::string hostLog() const;    // fplog
  void clearLogs();

  // Writes etc/ZULsite and has it read at the next question. "sound" or "classic" behaviour lines
  // go here.
  void site(const std::string &text);
  void soundSite() { site("behaviour = sound\n"); }

  // Runs body in a child with a network of its own, the fixed ports free; its failures are this
  // test's.
  static void alone(const std::function<void()> &body, int limitSeconds = 60);

 private:
  FILE *status_ = nullptr;
  FILE *log_ = nullptr;
};

// Runs body with standard error (or output) going to a file; returns what was written.
std::string captureStderr(const std::function<void()> &body);
std::string captureStdout(const std::function<void()> &body);

// Runs body in a forked child, which leaves with body's result; returns the wait status. The child
// is killed when it runs for longer than limitSeconds, and the test fails.
int inChild(const std::function<int()> &body, int limitSeconds = 60);
// Its exit status, or 1000 + the signal.
int exitOf(int waitStatus);

std::string readFile(const std::string &path);
void writeFile(const std::string &path, const std::string &content, mode_t mode = 0600);
bool exists(const std::string &path);

// True as soon as condition holds; false when limitMs has passed.
bool eventually(const std::function<bool()> &condition, int limitMs = 20000);

// Bytes that differ from place to place.
std::string pattern(size_t size, unsigned seed = 1);
// How often part stands in text.
int count(const std::string &text, const std::string &part);

// The number that a child, the leader of its process group, leaves in a file before it ends well.
// One that still runs after limitSeconds is killed with its group; that and any other end fail the
// test, which shows the log.
int resultOf(pid_t child, const std::string &file, int limitSeconds,
             const std::function<std::string()> &log);

// A TCP listener on loopback; port 0 takes a free one, which is written back. -1 on failure.
int listenOn(int &port);
// The same at one of loopback's addresses.
int listenAt(const std::string &address, int port, int backlog = 64);
// A connection to a port of loopback, -1 when nobody listens there.
int dial(int port);

// The next line with its line feed, or what came before the end.
std::string receiveLine(int sd);
// So many bytes, or what came before the end.
std::string readBytes(int fd, size_t length);

// Moves the calling process into a network namespace of its own with loopback up, so that the fixed
// ports are free whatever else runs on the machine, and into an IPC namespace, so that the segments
// that classic leaves behind go with it. False where that is not permitted; then the ports are used
// as they are.
bool ownNetwork();

}  // namespace support
