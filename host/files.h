// Files below the home for the operator's command: reading, following, storing. Paths come from
// peers; they are walked folder by folder without following links, so that none leads outside, and
// the files of credentials are closed to everybody.
#pragma once
#include <string>

#include "base/fd.h"

namespace host {

enum class Access { reading, writing };

// True for a path that may be read (below etc/ and var/) or written (below etc/ and var/tape/).
// False says why.
bool isOpenPath(const std::string &path, Access access, std::string &why);

// Opens a regular file of the home for reading.
base::Fd openForReading(const std::string &path, std::string &why);

// "HOST get PATH", "HOST tail PATH [LINES] [follow]", "HOST put PATH SIZE" on descriptors 0 and 2
// of a request process. The exit status of the request.
int sendFile(const std::string &path);
int sendTail(const std::string &path, long lines, bool follow);
int storeFile(const std::string &path, long long size);

constexpr long long kMaxStored = 64LL << 20;

// Writes all of it to the peer; false when the peer is gone.
bool answer(std::string_view text);
// Answers "ERROR:  <why>\n"; always 1.
int refuse(const std::string &why);

}  // namespace host
