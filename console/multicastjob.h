// A multicast job as its file says it, and what it makes of names: zul needs both to repair over
// TCP what a run has left undone.
#pragma once
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace console {

struct MulticastJob {
  std::string description, prefix;
  std::vector<std::string> hosts, requests, excludes;
  std::vector<std::pair<std::string, std::string>> transforms;
  int userId = 0, groupId = 0, filePerms = 0, dirPerms = 0;

  // Bits of the permission words.
  static constexpr int kKeepMode = 4096, kKeepGroup = 8192, kKeepOwner = 16384,
                       kAllowSetUser = 32768, kPermissions = 07777;
};

// Lines that say nothing are passed over, as agents do.
MulticastJob parseMulticastJob(const std::string &text);

// One '/' wherever several stand, and none at the end.
std::string plainPath(const std::string &path);
// The name that a path of the sender has on receivers of a sound site, as a plain path; empty when
// it has no room there.
std::string nameOnReceivers(const MulticastJob &job, const std::string &path);
// The one path that a name on receivers can have come from; nothing when several can, or none.
std::optional<std::string> pathOnSender(const MulticastJob &job, const std::string &name);
// Excluded paths, and what lies below them, are not sent.
bool isExcluded(const MulticastJob &job, const std::string &path);

}  // namespace console
