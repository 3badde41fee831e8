// The subcommands of zul, one function each. A function returns the exit status of the program or
// throws a Failure; what it needs from the command line stands in its options.
#pragma once
#include <stdint.h>

#include <optional>
#include <string>
#include <vector>

#include "console/connection.h"
#include "console/failure.h"
#include "console/progress.h"
#include "console/tapehost.h"

namespace console {

// --- homes.cpp ---

struct InitOptions {
  std::string home;
  bool classic = false;            // no site file: classic behaviour everywhere
  bool force = false;              // mend or refresh an existing home
  uint64_t capacity = 8ull << 30;  // of the first cartridge
  bool noDrive = false;            // a host without drives of its own
  std::string secretFile;          // the site's secret, from its first host; else a new one
  std::string module;              // libtape.so to install; else the one that belongs to this zul
};
Exit initHome(const InitOptions &options);

// --- daemon.cpp ---

struct UpOptions {
  std::string home;
  std::string log;  // else var/ZULd.log under the home
};
Exit startDaemon(const UpOptions &options);
Exit stopDaemon(const std::string &home);

// --- request.cpp ---

struct RequestOptions {
  Target target;
  std::string line;
  std::string
      upload;  // file whose lines follow a request that asks for them; "-" is standard input
  bool follow = false;  // of a backup or replication: wait for the job's end
};
Exit runRequest(const RequestOptions &options);
// True for requests whose text follows once they are accepted; a line of it as it goes over the
// connection.
bool asksForUpload(const std::string &line);
std::string uploadLine(const std::string &line);
// For subcommands that are one request: its text goes to standard output.
Exit showAnswer(const Target &target, const std::string &line);

// --- files.cpp ---

Exit getFile(const Target &target, const std::string &remote, const std::string &local);
Exit putFile(const Target &target, const std::string &local, const std::string &remote);
// A file of the home, over a connection that goes on; a Failure when it cannot be stored.
void storeFile(Connection &connection, const std::string &remote, const std::string &content);

// --- interactive.cpp ---

Exit runConsole(const Target &target);

// --- vtape.cpp ---

struct MakeOptions {
  std::string name;
  uint64_t capacity = 8ull << 30;
  std::optional<std::string> drive;  // name or number: load it there at once
};
Exit makeCartridge(const std::string &home, const MakeOptions &options);
Exit makeVirtualDrive(const std::string &home, const std::string &name);
Exit loadCartridge(const std::string &home, const std::string &cartridge, const std::string &drive);
Exit unloadCartridge(const std::string &home, const std::string &drive);
Exit protectCartridge(const std::string &home, const std::string &cartridge, bool off);
Exit listCartridges(const std::string &home, bool json);

// --- follow.cpp ---

struct FollowOptions {
  Target target;
  std::string job;              // number; empty for restores and verifications
  std::string kind = "backup";  // or "replication", "restore", "verify"
  bool json = false;
  bool plain = false;            // lines, even on a terminal
  bool silent = false;           // shows nothing: the caller tells the result
  std::optional<int64_t> since;  // only a run that started at or after this time
  int waitSeconds = 30;          // for the run to appear
  RunWanted wanted;              // filled by prepareFollow
};
// Called before a run is asked for: notes the record that is there, so that the new one cannot be
// mistaken.
FollowOptions prepareFollow(const Target &target, const std::string &kind, const std::string &job);
Exit followJob(const FollowOptions &options);

// --- restore.cpp, verify.cpp ---

struct RestoreOptions {
  Target target;
  VolumeOptions volume;
  std::string from, to, into = "/", conflict = "keep-both";
  std::vector<std::string> paths;
  bool all = false, yes = false, json = false;
};
Exit restoreFiles(const RestoreOptions &options);

struct VerifyOptions {
  Target target;
  VolumeOptions volume;
  bool json = false;
};
Exit verifyVolume(const VerifyOptions &options);

// --- key.cpp ---

Exit newKey(const std::string &home, bool force);
Exit showFingerprint(const std::string &home);
Exit checkKey(const std::string &home);

// --- users.cpp ---

Exit addUser(const std::string &home, const std::string &name, const std::string &role,
             const std::string &passwordFile);
Exit removeUser(const std::string &home, const std::string &name);
Exit listUsers(const std::string &home);

}  // namespace console
