// Matches an operator's words against the names in a volume list.
#include "console/selection.h"

#include <fnmatch.h>

#include <algorithm>

#include "console/failure.h"
#include "console/text.h"

namespace console {

namespace {

// Cuts "host:" off; a path of its own begins with '/'.
std::string cutHost(std::string &word) {
  if (word.empty() || word[0] == '/') return "";
  size_t colon = word.find(":/");
  if (colon == word.npos || colon == 0 || word.find('/') < colon) return "";
  std::string host = word.substr(0, colon);
  word.erase(0, colon + 1);
  return host;
}

Selection::Wish wishOf(const std::string &word) {
  Selection::Wish wish;
  wish.word = word;
  for (char c : word)
    if (c != '/' || wish.path.empty() || wish.path.back() != '/') wish.path += c;
  wish.folder = wish.path.size() > 1 && wish.path.back() == '/';
  while (!wish.path.empty() && wish.path.back() == '/') wish.path.pop_back();
  wish.pattern = word.find_first_of("*?[") != word.npos;
  return wish;
}

bool matches(const Selection::Wish &wish, std::string_view path) {
  return fnmatch(wish.path.c_str(), std::string(path).c_str(), FNM_PATHNAME) == 0;
}

// How much of the name is what the wish matches by itself; npos when the name is not wanted.
size_t matchedLength(const Selection::Wish &wish, std::string_view name) {
  size_t length = wish.path.size();
  if (name.substr(0, length) == wish.path) {
    if (name.size() > length ? name[length] == '/' : !wish.folder) return length;
    if (length == 0) return 0;
  }
  if (!wish.pattern) return name.npos;
  for (size_t slash = name.find('/', 1); slash != name.npos; slash = name.find('/', slash + 1))
    if (matches(wish, name.substr(0, slash))) return slash;
  bool folder = !name.empty() && name.back() == '/';
  return !folder && !wish.folder && matches(wish, name) ? name.size() : name.npos;
}

}  // namespace

void Selection::add(const std::string &typed) {
  std::string word = typed;
  std::string host = cutHost(word);
  if (!host.empty()) {
    if (!host_.empty() && host_ != host)
      throw Failure(
          Exit::usage,
          "one restore takes files of one host, not of " + oneLine(host_) + " and " + oneLine(host),
          "Run zul restore once for each of them.");
    host_ = host;
  }
  if (word.empty() || word[0] != '/')
    throw Failure(Exit::usage, "\"" + oneLine(typed) + "\" is no path from the root on",
                  "Write it like /etc/passwd, /etc/ or '/etc/*.conf', perhaps behind \"host:\".");
  if (word.find_first_of(std::string_view("\n\r\0", 3)) != word.npos)
    throw Failure(Exit::usage,
                  "\"" + oneLine(typed) + "\" holds a line end: no such name is on a volume");
  wishes_.push_back(wishOf(word));
}

void Selection::addAll() {
  wishes_.push_back(wishOf("/"));
}

bool Selection::remove(const std::string &typed) {
  std::string word = typed;
  cutHost(word);
  std::string path = wishOf(word).path;
  auto end = std::remove_if(wishes_.begin(), wishes_.end(),
                            [&](const Wish &wish) { return wish.path == path; });
  bool found = end != wishes_.end();
  wishes_.erase(end, wishes_.end());
  return found;
}

bool Selection::wants(std::string_view name) const {
  return std::any_of(wishes_.begin(), wishes_.end(),
                     [&](const Wish &wish) { return matchedLength(wish, name) != name.npos; });
}

bool Selection::take(const ListLine &line) {
  bool wanted = false;
  for (Wish &wish : wishes_) {
    size_t length = matchedLength(wish, line.name);
    if (length == line.name.npos) continue;
    wanted = true;
    if (line.sequence == 0) wish.count++;
    bool folder = length < line.name.size();
    wish.tops[std::string(line.name.substr(0, length))] |= folder;
  }
  return wanted;
}

std::vector<std::string> Selection::unmatched() const {
  std::vector<std::string> words;
  for (const Wish &wish : wishes_)
    if (wish.tops.empty()) words.push_back(wish.word);
  return words;
}

std::string Selection::fileText(const std::string &host) const {
  std::string text;
  for (const Wish &wish : wishes_)
    for (const auto &[path, folder] : wish.tops) {
      text += host + ":" + path;
      text += folder ? "/\n" : "\n";
    }
  return text;
}

}  // namespace console
