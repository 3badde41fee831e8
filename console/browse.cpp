// The browser of zul restore: a few commands, as of a shell.
#include "console/browse.h"

#include <algorithm>

#include "console/failure.h"
#include "console/text.h"

namespace console {

namespace {

constexpr const char *kHelp =
    "  ls [FOLDER]       what is in a folder; * marks what is picked\n"
    "  cd FOLDER         go there (.. one up)\n"
    "  add PATH...       pick files, folders with all below them, or patterns like *.conf\n"
    "  drop PATH...      take back what was picked\n"
    "  show              what is picked\n"
    "  go                restore what is picked\n"
    "  quit              restore nothing\n";

// Words, with blanks in them behind a '\' or between quotes.
std::vector<std::string> cutWords(const std::string &line) {
  std::vector<std::string> words;
  bool inside = false;
  char quote = 0;
  for (size_t at = 0; at < line.size(); at++) {
    char c = line[at];
    if (!quote && (c == ' ' || c == '\t')) {
      inside = false;
      continue;
    }
    if (!inside) words.emplace_back();
    inside = true;
    if (quote ? c == quote : (c == '"' || c == '\'')) {
      quote = quote ? 0 : c;
    } else {
      if (c == '\\' && quote != '\'' && at + 1 < line.size()) c = line[++at];
      words.back() += c;
    }
  }
  return words;
}

}  // namespace

Browser::Browser(std::string host, std::vector<std::string> names)
    : host_(std::move(host)), names_(std::move(names)) {
  std::sort(names_.begin(), names_.end());
  names_.erase(std::unique(names_.begin(), names_.end()), names_.end());
}

// Without "." and "..", "//" and the '/' at the end; the root is "".
std::string Browser::absolute(std::string path) const {
  if (path.empty() || path[0] != '/') path = folder_ + "/" + path;
  std::vector<std::string> parts;
  for (size_t at = 0; at < path.size();) {
    size_t end = std::min(path.find('/', at), path.size());
    std::string part = path.substr(at, end - at);
    at = end + 1;
    if (part == ".." && !parts.empty()) parts.pop_back();
    if (!part.empty() && part != "." && part != "..") parts.push_back(part);
  }
  std::string whole;
  for (const std::string &part : parts) whole += "/" + part;
  return whole;
}

bool Browser::isFolder(const std::string &path) const {
  auto at = std::lower_bound(names_.begin(), names_.end(), path + "/");
  return at != names_.end() && at->compare(0, path.size() + 1, path + "/") == 0;
}

std::string Browser::list(const std::string &path) const {
  std::string prefix = path + "/", text;
  auto at = std::lower_bound(names_.begin(), names_.end(), prefix);
  if (!isFolder(path)) return "There is no folder " + oneLine(path) + " on this volume\n";
  while (at != names_.end() && at->compare(0, prefix.size(), prefix) == 0) {
    size_t slash = at->find('/', prefix.size());
    std::string child = at->substr(0, slash == at->npos ? slash : slash + 1);
    if (child != prefix)
      text += std::string(selection_.wants(child) ? "* " : "  ") +
              oneLine(std::string_view(child).substr(prefix.size())) + "\n";
    // All that lies below the child sorts before the character behind '/'.
    at = slash == at->npos
             ? at + 1
             : std::lower_bound(at, names_.end(), child.substr(0, child.size() - 1) + "0");
  }
  return text;
}

std::string Browser::change(const std::string &word) {
  std::string path = absolute(word);
  if (!path.empty() && !isFolder(path))
    return "There is no folder " + oneLine(path) + " on this volume\n";
  folder_ = path;
  return "";
}

std::string Browser::pick(const std::string &word) {
  Selection one;
  std::string path = absolute(word);
  one.add(path.empty() ? "/" : path);
  uint64_t count = 0;
  for (const std::string &name : names_) count += one.wants(name);
  if (count == 0) return oneLine(path) + " matches nothing\n";
  selection_.add(path.empty() ? "/" : path);
  return oneLine(path.empty() ? "/" : path) + ": " + std::to_string(count) + " files and folders\n";
}

std::string Browser::show() const {
  std::string text;
  for (const Selection::Wish &wish : selection_.wishes()) text += "  " + oneLine(wish.word) + "\n";
  return text.empty() ? "Nothing is picked\n" : text;
}

std::string Browser::run(const std::string &line) {
  std::vector<std::string> words = cutWords(line);
  if (words.empty()) return "";
  std::string command = words[0], text;
  words.erase(words.begin());
  if (command == "ls") return list(absolute(words.empty() ? "" : words[0]));
  if (command == "cd") return change(words.empty() ? "/" : words[0]);
  if (command == "show") return show();
  if (command == "add" || command == "drop") {
    for (const std::string &word : words) {
      if (command == "add")
        text += pick(word);
      else if (!selection_.remove(absolute(word).empty() ? "/" : absolute(word)))
        text += oneLine(word) + " was not picked\n";
    }
    return words.empty() ? "Name what to " + command + "\n" : text;
  }
  if (command == "go" && selection_.empty()) return "Nothing is picked yet\n";
  finished_ = command == "go" || command == "quit";
  gaveUp_ = command == "quit";
  if (finished_) return "";
  return kHelp;
}

}  // namespace console
