// The file of operators. The daemon looks users up at a login; the operator's command changes the
// file.
#include "host/users.h"

#include <errno.h>
#include <fcntl.h>
#include <sodium.h>
#include <string.h>
#include <sys/file.h>

#include "base/fd.h"
#include "host/guardedfile.h"

namespace login {

namespace {

constexpr size_t kMaxUsersFile = 1 << 20;

// "name:key:role"; everything else is damage that an operator has to hear about.
bool parseUser(std::string_view line, User &user) {
  size_t first = line.find(':');
  if (first == std::string_view::npos) return false;
  size_t second = line.find(':', first + 1);
  if (second == std::string_view::npos) return false;
  user.name = line.substr(0, first);
  user.role = roleByName(line.substr(second + 1));
  return isName(user.name) && user.role != Role::none &&
         parseKey(line.substr(first + 1, second - first - 1), user.key);
}

bool parseUsers(const std::string &path, std::string_view text, std::vector<User> &users,
                std::string &why) {
  for (int number = 1; !text.empty(); number++) {
    size_t end = text.find('\n');
    std::string_view line = text.substr(0, end);
    text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
    if (line.empty() || line[0] == '#') continue;
    User user;
    if (!parseUser(line, user)) {
      why = path + " line " + std::to_string(number) + " is not name:64 hexadecimal digits:role";
      return false;
    }
    users.push_back(user);
  }
  return true;
}

bool writeUsers(const std::string &path, const std::vector<User> &users, std::string &why) {
  std::string text;
  for (const User &user : users)
    text += user.name + ":" + keyText(user.key) + ":" + roleName(user.role) + "\n";
  bool written = writeGuarded(path, text, false, why);
  sodium_memzero(text.data(), text.size());
  return written;
}

// Held while the file is read, changed and written, so that two operators do not lose each other's
// change.
base::Fd lockUsers(const std::string &path, std::string &why) {
  base::Fd lock(open((path + ".lock").c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
  while (lock && flock(lock.get(), LOCK_EX) != 0) {
    if (errno != EINTR) lock.reset();
  }
  if (!lock) why = "Cannot lock " + path + ".lock: " + strerror(errno);
  return lock;
}

auto userNamed(std::vector<User> &users, const std::string &name) {
  auto at = users.begin();
  while (at != users.end() && at->name != name) ++at;
  return at;
}

}  // namespace

const char *roleName(Role role) {
  switch (role) {
    case Role::operatorRole:
      return "operator";
    case Role::viewer:
      return "viewer";
    case Role::none:
      break;
  }
  return "none";
}

Role roleByName(std::string_view name) {
  if (name == "operator") return Role::operatorRole;
  return name == "viewer" ? Role::viewer : Role::none;
}

bool readUsers(const std::string &path, std::vector<User> &users, std::string &why) {
  users.clear();
  why.clear();
  std::string text;
  if (!readGuarded(path, kMaxUsersFile, text, why)) {
    if (errno != ENOENT) return false;
    why.clear();
    return true;
  }
  bool good = parseUsers(path, text, users, why);
  sodium_memzero(text.data(), text.size());
  return good;
}

bool findUser(const std::string &path, const std::string &name, User &user, std::string &why) {
  std::vector<User> users;
  if (!readUsers(path, users, why)) return false;
  auto at = userNamed(users, name);
  if (at == users.end()) return false;
  user = *at;
  return true;
}

bool putUser(const std::string &path, const std::string &name, const std::string &password,
             Role role, std::string &why) {
  User user;
  user.name = name;
  user.role = role;
  if (role == Role::none) {
    why = "A user's role is operator or viewer";
    return false;
  }
  if (!keyFromPassword(name, password, user.key, why)) return false;
  base::Fd lock = lockUsers(path, why);
  std::vector<User> users;
  if (!lock || !readUsers(path, users, why)) return false;
  auto at = userNamed(users, name);
  if (at == users.end())
    users.push_back(user);
  else
    *at = user;
  return writeUsers(path, users, why);
}

bool removeUser(const std::string &path, const std::string &name, std::string &why) {
  base::Fd lock = lockUsers(path, why);
  std::vector<User> users;
  if (!lock || !readUsers(path, users, why)) return false;
  auto at = userNamed(users, name);
  if (at == users.end()) {
    why = "There is no user " + name;
    return false;
  }
  users.erase(at);
  return writeUsers(path, users, why);
}

bool verifyUser(const std::string &path, const std::string &name, const std::string &password,
                std::string &why) {
  User user;
  Key key;
  if (!findUser(path, name, user, why)) {
    if (why.empty()) why = "There is no user " + name;
    return false;
  }
  if (!keyFromPassword(name, password, key, why)) return false;
  if (sodium_memcmp(key.bytes, user.key.bytes, kKeyBytes) == 0) return true;
  why = "The password is not that of " + name;
  return false;
}

}  // namespace login
