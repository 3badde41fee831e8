// The file of operators: adding, changing, removing, and files that must not be trusted.
#include "host/users.h"

#include <sys/stat.h>
#include <sys/wait.h>

#include "support.h"

namespace {

class Users : public support::HomeTest {
 protected:
  std::string file() const { return path("etc/ZULusers"); }
  bool put(const std::string &name, const std::string &password,
           login::Role role = login::Role::operatorRole) {
    return login::putUser(file(), name, password, role, why);
  }
  std::vector<login::User> users;
  login::User user;
  std::string why;
};

TEST_F(Users, NoFileMeansNoUsers) {
  EXPECT_TRUE(login::readUsers(file(), users, why));
  EXPECT_TRUE(users.empty());
  EXPECT_FALSE(login::findUser(file(), "ann", user, why));
  EXPECT_EQ(why, "");
}

TEST_F(Users, AnAddedUserIsFoundWithKeyAndRole) {
  ASSERT_TRUE(put("ann", "correct horse")) << why;
  ASSERT_TRUE(put("vic", "battery", login::Role::viewer)) << why;
  EXPECT_EQ(support::readFile(file()).substr(0, 4 + 64 + 10),
            "ann:76eeb3cfeb369f05d5de02f4a6b5c69d7aa95ecc8a61dab76deba8817d2d6ead:operator\n");
  ASSERT_TRUE(login::findUser(file(), "vic", user, why)) << why;
  EXPECT_EQ(user.role, login::Role::viewer);
  struct stat status;
  ASSERT_EQ(stat(file().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600u);
}

TEST_F(Users, PasswordsAreVerified) {
  ASSERT_TRUE(put("ann", "correct horse"));
  EXPECT_TRUE(login::verifyUser(file(), "ann", "correct horse", why)) << why;
  EXPECT_FALSE(login::verifyUser(file(), "ann", "wrong horse", why));
  EXPECT_FALSE(login::verifyUser(file(), "bob", "correct horse", why));
  EXPECT_NE(why.find("bob"), std::string::npos);
}

TEST_F(Users, AddingAgainChangesPasswordAndRole) {
  ASSERT_TRUE(put("ann", "one"));
  ASSERT_TRUE(put("ann", "two", login::Role::viewer));
  ASSERT_TRUE(login::readUsers(file(), users, why));
  ASSERT_EQ(users.size(), 1u);
  EXPECT_EQ(users[0].role, login::Role::viewer);
  EXPECT_TRUE(login::verifyUser(file(), "ann", "two", why));
}

TEST_F(Users, RemovedOnesAreGoneAndOthersStay) {
  ASSERT_TRUE(put("ann", "one"));
  ASSERT_TRUE(put("bob", "two"));
  EXPECT_TRUE(login::removeUser(file(), "ann", why)) << why;
  EXPECT_FALSE(login::removeUser(file(), "ann", why));
  EXPECT_EQ(why, "There is no user ann");
  ASSERT_TRUE(login::readUsers(file(), users, why));
  ASSERT_EQ(users.size(), 1u);
  EXPECT_EQ(users[0].name, "bob");
}

TEST_F(Users, BadNamesPasswordsAndRolesAreRefused) {
  EXPECT_FALSE(put("a:b", "x"));
  EXPECT_FALSE(put("", "x"));
  EXPECT_FALSE(put("ann", ""));
  EXPECT_FALSE(put("ann", "x", login::Role::none));
  EXPECT_FALSE(support::exists(file()));
}

TEST_F(Users, ADamagedLineIsNamedAndNothingIsRewritten) {
  std::string text = "# operators\n\nann:00:operator\n";
  support::writeFile(file(), text);
  EXPECT_FALSE(login::readUsers(file(), users, why));
  EXPECT_NE(why.find("line 3"), std::string::npos) << why;
  EXPECT_FALSE(put("bob", "x"));
  EXPECT_EQ(support::readFile(file()), text);
}

TEST_F(Users, AFileThatOthersCanReadIsRefused) {
  ASSERT_TRUE(put("ann", "one"));
  chmod(file().c_str(), 0640);
  EXPECT_FALSE(login::findUser(file(), "ann", user, why));
  EXPECT_NE(why.find("chmod 600"), std::string::npos) << why;
}

TEST_F(Users, TwoOperatorsAtOnceLoseNoChange) {
  pid_t child = fork();
  if (child == 0) {
    bool good = true;
    for (const char *name : {"a1", "a2", "a3"}) good = put(name, "x") && good;
    _exit(good ? 0 : 1);
  }
  for (const char *name : {"b1", "b2", "b3"}) EXPECT_TRUE(put(name, "x")) << why;
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  ASSERT_TRUE(login::readUsers(file(), users, why));
  EXPECT_EQ(users.size(), 6u);
}

TEST(Roles, HaveNames) {
  EXPECT_EQ(login::roleByName("operator"), login::Role::operatorRole);
  EXPECT_EQ(login::roleByName("viewer"), login::Role::viewer);
  EXPECT_EQ(login::roleByName("Operator"), login::Role::none);
  EXPECT_STREQ(login::roleName(login::Role::operatorRole), "operator");
}

}  // namespace
