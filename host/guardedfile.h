// Files that hold credentials: read only when nobody else can, written whole or not at all.
#pragma once
#include <sys/types.h>

#include <string>

namespace login {

// Reads a small file. Refused when it is no regular file (links are not followed), belongs to
// another user than root or our own, or may be read or written by others. False says why; errno is
// ENOENT when there is no file.
bool readGuarded(const std::string &path, size_t limit, std::string &text, std::string &why);

// Writes a file whole or not at all: a synced temporary beside it takes its name. With keepExisting
// the call fails (EEXIST) when there is a file of that name, also when another process makes it
// meanwhile.
bool writeGuarded(const std::string &path, const std::string &text, bool keepExisting,
                  std::string &why);

// Makes the name of a file last through a power cut.
void syncFolderOf(const std::string &path);

}  // namespace login
