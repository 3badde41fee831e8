// Who may do what on the console.
#pragma once
#include <string>
#include <string_view>

#include "host/login.h"
#include "host/users.h"

namespace host {

// The peer of a session, as the login found it.
struct Peer {
  login::Kind kind = login::Kind::node;
  login::Role role = login::Role::none;  // of a user
  std::string name;
  std::string from;  // where it comes from, for the log
};

// A request line cut at its first blank. The rest is what the module's entries take.
struct RequestLine {
  std::string_view word;
  std::string_view rest;
};
RequestLine cutRequest(std::string_view line);

enum class Family { tape, mrepl, host, unknown };
Family familyOf(std::string_view word);

bool mayRun(const Peer &peer, const RequestLine &request);

// True where etc/ZULnodes lets a node of that name log in from that IPv4 address (host byte order).
// Without the file every node may. False says why.
bool nodeMayLogIn(const std::string &path, const std::string &name, uint32_t address,
                  std::string &why);

// The first word of text at white space, as the module finds it; text keeps what follows.
std::string_view firstWord(std::string_view &text);

}  // namespace host
