// Multicast jobs on the operator's side; nothing here talks to anybody. The rules for names are
// those of mrepl/names.cpp on a sound site.
#include "console/multicastjob.h"

#include <stdlib.h>
#include <string.h>

#include <algorithm>

namespace console {

namespace {

constexpr size_t kNameMost = 255;
constexpr size_t kPrefixMost = 256;

// What stands behind a keyword, or nothing when the line begins with another one.
std::optional<std::string> valueOf(const std::string &line, const char *keyword) {
  size_t length = strlen(keyword);
  if (line.compare(0, length, keyword) != 0) return std::nullopt;
  size_t from = line.find_first_not_of(" \t", length);
  return from == line.npos ? "" : line.substr(from);
}

void takeLine(const std::string &line, MulticastJob *job) {
  struct Text {
    const char *keyword;
    std::string *to;
  };
  for (const Text &each : {Text{"Description:", &job->description}, Text{"Prefix:", &job->prefix}})
    if (auto value = valueOf(line, each.keyword)) *each.to = *value;
  struct List {
    const char *keyword;
    std::vector<std::string> *to;
  };
  for (const List &each : {List{"Host:", &job->hosts}, List{"Request:", &job->requests},
                           List{"Exclude:", &job->excludes}})
    if (auto value = valueOf(line, each.keyword); value && !value->empty())
      each.to->push_back(*value);
  struct Number {
    const char *keyword;
    int *to;
  };
  for (const Number &each :
       {Number{"UserID:", &job->userId}, Number{"GroupID:", &job->groupId},
        Number{"FilePerms:", &job->filePerms}, Number{"DirPerms:", &job->dirPerms}})
    if (auto value = valueOf(line, each.keyword); value && !value->empty())
      *each.to = static_cast<int>(strtol(value->c_str(), nullptr, 10));
  if (auto value = valueOf(line, "Xform:")) {
    size_t blank = value->find(' ');
    size_t to = blank == value->npos ? blank : value->find_first_not_of(' ', blank);
    if (to != value->npos) job->transforms.emplace_back(value->substr(0, blank), value->substr(to));
  }
}

// A name, or the folders that it begins with.
bool beginsWith(const std::string &name, const std::string &from) {
  if (from.empty() || name.compare(0, from.size(), from) != 0) return false;
  return name.size() == from.size() || name[from.size()] == '/' || from.back() == '/';
}

// Each receiver's name before the prefix was put before it, as far as it can be told.
std::optional<std::string> withoutPrefix(const MulticastJob &job, const std::string &name) {
  std::string prefix = plainPath(job.prefix);
  if (prefix.empty() || prefix == "/") return name;
  if (!beginsWith(name, prefix) || name.size() == prefix.size()) return std::nullopt;
  return name.substr(prefix.size());
}

// True for what the job's requests take along: themselves, the folders above, all below a tree.
bool isAskedFor(const MulticastJob &job, const std::string &path) {
  for (const std::string &request : job.requests) {
    std::string wanted = plainPath(request);
    if (beginsWith(wanted, path)) return true;
    if (request.back() == '/' && (wanted == "/" || beginsWith(path, wanted))) return true;
  }
  return false;
}

}  // namespace

MulticastJob parseMulticastJob(const std::string &text) {
  MulticastJob job;
  for (size_t from = 0; from < text.size();) {
    size_t feed = std::min(text.find('\n', from), text.size());
    std::string line = text.substr(from, feed - from);
    while (!line.empty() && static_cast<unsigned char>(line.back()) < ' ') line.pop_back();
    takeLine(line, &job);
    from = feed + 1;
  }
  return job;
}

std::string plainPath(const std::string &path) {
  std::string plain;
  for (char c : path)
    if (c != '/' || plain.empty() || plain.back() != '/') plain += c;
  if (plain.size() > 1 && plain.back() == '/') plain.pop_back();
  return plain;
}

std::string nameOnReceivers(const MulticastJob &job, const std::string &path) {
  std::string name = path;
  for (const auto &[from, to] : job.transforms) {
    if (!beginsWith(path, from)) continue;
    name = to + path.substr(from.size());
    break;
  }
  if (!job.prefix.empty()) {
    std::string prefix = job.prefix.substr(0, kPrefixMost);
    name = prefix + (prefix.back() == '/' ? "" : "/") + name;
  }
  return name.size() > kNameMost ? "" : plainPath(name);
}

std::optional<std::string> pathOnSender(const MulticastJob &job, const std::string &name) {
  std::string plain = plainPath(name);
  std::optional<std::string> bare = withoutPrefix(job, plain);
  if (!bare) return std::nullopt;
  std::vector<std::string> candidates = {*bare};
  for (const auto &[from, to] : job.transforms)
    if (bare->compare(0, plainPath(to).size(), plainPath(to)) == 0)
      candidates.push_back(plainPath(from + bare->substr(plainPath(to).size())));
  std::vector<std::string> found;
  for (const std::string &path : candidates)
    if (nameOnReceivers(job, path) == plain && isAskedFor(job, path) &&
        std::find(found.begin(), found.end(), path) == found.end())
      found.push_back(path);
  if (found.size() != 1) return std::nullopt;
  return found[0];
}

bool isExcluded(const MulticastJob &job, const std::string &path) {
  for (const std::string &each : job.excludes)
    if (std::string folder = plainPath(each); folder == "/" || beginsWith(path, folder))
      return true;
  return false;
}

}  // namespace console
