// The operators of a site, etc/ZULusers: one line each, "name:key:role", key being 64 hex digits
// derived from the password (login::keyFromPassword). Who reads this file can log in as its
// operators, so it is guarded like the secret: mode 0600, refused when others can read it.
#pragma once
#include <string>
#include <vector>

#include "host/login.h"

namespace login {

enum class Role { none, viewer, operatorRole };

const char *roleName(Role role);         // "viewer", "operator", "none"
Role roleByName(std::string_view name);  // Role::none for any other word

struct User {
  std::string name;
  Key key;
  Role role = Role::none;
};

// All users. True with an empty list when there is no file.
bool readUsers(const std::string &path, std::vector<User> &users, std::string &why);
// One user; false with an empty `why` when there is none of that name.
bool findUser(const std::string &path, const std::string &name, User &user, std::string &why);
// Adds a user, or gives an existing one a new password and role.
bool putUser(const std::string &path, const std::string &name, const std::string &password,
             Role role, std::string &why);
// Removes a user; false when there is none of that name.
bool removeUser(const std::string &path, const std::string &name, std::string &why);
// True when the password is the user's; for checking one without a connection.
bool verifyUser(const std::string &path, const std::string &name, const std::string &password,
                std::string &why);

}  // namespace login
