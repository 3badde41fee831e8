// zul users: who may use the console of this host from other machines.
#include "host/users.h"

#include "console/commands.h"
#include "console/password.h"
#include "console/places.h"
#include "console/text.h"

namespace console {

namespace {

std::string usersFile(const std::string &home) {
  if (!isHome(home))
    throw Failure(Exit::failed, home + " is no home",
                  "Make one with: zul --home " + home + " init");
  return home + "/etc/ZULusers";
}

}  // namespace

Exit addUser(const std::string &home, const std::string &name, const std::string &role,
             const std::string &passwordFile) {
  std::string file = usersFile(home), why;
  if (!login::isName(name))
    throw Failure(Exit::usage, "\"" + oneLine(name) + "\" cannot be the name of an operator",
                  "Names are 1 to 64 letters, digits, '.', '-' and '_'.");
  std::string password = askNewPassword(name, passwordFile);
  if (!login::putUser(file, name, password, login::roleByName(role), why))
    throw Failure(Exit::failed, "cannot add " + name + ": " + why);
  printOut(name + " may use this console as " + role + ".\n");
  return Exit::done;
}

Exit removeUser(const std::string &home, const std::string &name) {
  std::string why;
  if (!login::removeUser(usersFile(home), name, why))
    throw Failure(Exit::failed,
                  "cannot remove " + name + (why.empty() ? ": no such operator" : ": " + why));
  printOut(name +
           " may no longer use this console; sessions that are open stay so until they end.\n");
  return Exit::done;
}

Exit listUsers(const std::string &home) {
  std::vector<login::User> users;
  std::string why, text;
  if (!login::readUsers(usersFile(home), users, why))
    throw Failure(Exit::failed, "cannot list the operators: " + why);
  for (const login::User &user : users)
    text += user.name + "  " + login::roleName(user.role) + "\n";
  printOut(text);
  return Exit::done;
}

}  // namespace console
