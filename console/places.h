// Files and places that the subcommands share: where the programs lie, reading and replacing files.
#pragma once
#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>

namespace console {

// The pieces that belong to this zul: beside it in a build folder, in ../sbin and ../lib/*/zul when
// installed, for the daemon at last in PATH. Failure when there is none.
std::string findDaemon();
std::string findModule();
// The encryption library, which a site can do without; empty when there is none.
std::string findScram();

// The content of a file, or nothing with errno set. Not for files of unknown size: the limit is 64
// MiB.
std::optional<std::string> readWhole(const std::string &path);
// Puts a file in place, whole or not at all, and on disk. Failure when that cannot be done.
void writeWhole(const std::string &path, std::string_view content, mode_t mode);
void copyWhole(const std::string &from, const std::string &to, mode_t mode);

bool exists(const std::string &path);

// True when a home has been made there and completed.
bool isHome(const std::string &home);
// zul init leaves this mark in a home until it is complete.
std::string begunMark(const std::string &home);
// Failure when the home was complete and has no secret now.
void checkSecretLost(const std::string &home);
// Makes home the home that the drive code works on.
void useHome(const std::string &home);

}  // namespace console
