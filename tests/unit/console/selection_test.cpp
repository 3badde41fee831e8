// What an operator's words match, and walking about in a volume.
#include "console/selection.h"

#include <gtest/gtest.h>

#include "console/browse.h"
#include "console/failure.h"

using namespace console;

namespace {

const std::vector<std::string> kNames = {
    "/etc/",       "/etc/a.conf",     "/etc/b.conf",       "/etc/c.conf.d/", "/etc/c.conf.d/x",
    "/etc/sub/",   "/etc/sub/d.conf", "/etcetera",         "/home/",         "/home/ann/",
    "/home/ann/f", "/home/bob/",      "/home/bob/[odd].x", "/home/bob/g"};

std::string matched(const std::vector<std::string> &words) {
  Selection selection;
  for (const std::string &word : words) selection.add(word);
  std::string text;
  for (const std::string &name : kNames)
    if (selection.take(ListLine{"h", name, 0})) text += name + " ";
  return text;
}

std::string fileText(const std::vector<std::string> &words) {
  Selection selection;
  for (const std::string &word : words) selection.add(word);
  for (const std::string &name : kNames) selection.take(ListLine{"h", name, 0});
  return selection.fileText("h");
}

TEST(Words, AFileIsItself) {
  EXPECT_EQ(matched({"/etc/a.conf"}), "/etc/a.conf ");
  EXPECT_EQ(fileText({"/etc/a.conf"}), "h:/etc/a.conf\n");
}

TEST(Words, AFolderTakesAllBelowIt) {
  EXPECT_EQ(matched({"/home/ann"}), "/home/ann/ /home/ann/f ");
  EXPECT_EQ(matched({"/home/ann/"}), "/home/ann/ /home/ann/f ");
  EXPECT_EQ(matched({"/home//ann//"}), "/home/ann/ /home/ann/f ");
  EXPECT_EQ(fileText({"/home/ann"}), "h:/home/ann/\n");
}

TEST(Words, WithASlashAtItsEndOnlyFolders) {
  EXPECT_EQ(matched({"/etc/a.conf/"}), "");
}

TEST(Words, NamesThatOnlyBeginAlikeAreOthers) {
  EXPECT_EQ(matched({"/etc"}),
            "/etc/ /etc/a.conf /etc/b.conf /etc/c.conf.d/ /etc/c.conf.d/x /etc/sub/ "
            "/etc/sub/d.conf ");
}

TEST(Words, PatternsStayWithinTheirFolder) {
  EXPECT_EQ(matched({"/etc/*.conf"}), "/etc/a.conf /etc/b.conf ");
  EXPECT_EQ(fileText({"/etc/[ab].conf"}), "h:/etc/a.conf\nh:/etc/b.conf\n");
}

TEST(Words, PatternsTakeFoldersWithAllBelowThem) {
  EXPECT_EQ(matched({"/home/*"}),
            "/home/ann/ /home/ann/f /home/bob/ /home/bob/[odd].x /home/bob/g ");
  EXPECT_EQ(matched({"/etc/c*"}), "/etc/c.conf.d/ /etc/c.conf.d/x ");
  EXPECT_EQ(matched({"/etc/*/"}), "/etc/c.conf.d/ /etc/c.conf.d/x /etc/sub/ /etc/sub/d.conf ");
  EXPECT_EQ(fileText({"/home/*"}), "h:/home/ann/\nh:/home/bob/\n");
}

TEST(Words, ANameThatLooksLikeAPatternIsFoundAsItIsWritten) {
  EXPECT_EQ(matched({"/home/bob/[odd].x"}), "/home/bob/[odd].x ");
}

TEST(Words, TheRootIsEverything) {
  Selection all;
  all.addAll();
  for (const std::string &name : kNames) EXPECT_TRUE(all.take(ListLine{"h", name, 0})) << name;
  EXPECT_EQ(all.fileText("h"), "h:/\n");
}

TEST(Words, WhatMatchesNothingIsNamed) {
  Selection selection;
  for (const char *word : {"/etc/a.conf", "/nope", "/etc/*.txt"}) selection.add(word);
  for (const std::string &name : kNames) selection.take(ListLine{"h", name, 0});
  EXPECT_EQ(selection.unmatched(), (std::vector<std::string>{"/nope", "/etc/*.txt"}));
  EXPECT_EQ(selection.wishes()[0].count, 1u);
}

TEST(Words, AHostGoesBeforeThem) {
  Selection selection;
  selection.add("alpha:/etc/x:y");
  selection.add("alpha:/b");
  selection.add("/c:/d");
  EXPECT_EQ(selection.host(), "alpha");
  EXPECT_THROW(selection.add("beta:/b"), Failure);
}

TEST(Words, WhatIsNoPathIsRefused) {
  Selection selection;
  for (const char *word : {"", "etc", "alpha:etc", "./x", ":/x", "/a\nb"})
    EXPECT_THROW(selection.add(word), Failure) << word;
}

TEST(Browsing, ShowsFoldersAndPicksFromThem) {
  Browser browser("h", kNames);
  EXPECT_EQ(browser.prompt(), "h:/> ");
  EXPECT_EQ(browser.run("ls"), "  etc/\n  etcetera\n  home/\n");
  EXPECT_EQ(browser.run("cd home/ann"), "");
  EXPECT_EQ(browser.prompt(), "h:/home/ann> ");
  EXPECT_EQ(browser.run("ls"), "  f\n");
  EXPECT_EQ(browser.run("cd .."), "");
  EXPECT_EQ(browser.run("add ann '/etc/a.conf'"),
            "/home/ann: 2 files and folders\n/etc/a.conf: 1 files and folders\n");
  EXPECT_EQ(browser.run("ls"), "* ann/\n  bob/\n");
  EXPECT_EQ(browser.run("ls /etc"), "* a.conf\n  b.conf\n  c.conf.d/\n  sub/\n");
  EXPECT_EQ(browser.run("show"), "  /home/ann\n  /etc/a.conf\n");
  EXPECT_EQ(browser.run("drop ann nothing"), "nothing was not picked\n");
  EXPECT_EQ(browser.run("show"), "  /etc/a.conf\n");
  EXPECT_FALSE(browser.finished());
  EXPECT_EQ(browser.run("go"), "");
  EXPECT_TRUE(browser.finished());
  EXPECT_FALSE(browser.gaveUp());
}

TEST(Browsing, SaysWhatIsNotThere) {
  Browser browser("h", kNames);
  EXPECT_EQ(browser.run("cd /none"), "There is no folder /none on this volume\n");
  EXPECT_EQ(browser.run("ls etcetera"), "There is no folder /etcetera on this volume\n");
  EXPECT_EQ(browser.run("add x*"), "/x* matches nothing\n");
  EXPECT_EQ(browser.run("go"), "Nothing is picked yet\n");
  EXPECT_EQ(browser.run("show"), "Nothing is picked\n");
  EXPECT_EQ(browser.run("add"), "Name what to add\n");
  EXPECT_NE(browser.run("what?").find("ls [FOLDER]"), std::string::npos);
  EXPECT_EQ(browser.run(""), "");
  browser.run("quit");
  EXPECT_TRUE(browser.finished() && browser.gaveUp());
}

TEST(Browsing, PathsWithBlanksAreQuoted) {
  Browser browser("h", {"/a b/", "/a b/c d"});
  for (const char *line : {"cd 'a b'", "cd \"/a b\"", "cd /a\\ b"}) {
    EXPECT_EQ(browser.run(line), "") << line;
    EXPECT_EQ(browser.prompt(), "h:/a b> ");
    browser.run("cd");
  }
}

}  // namespace
