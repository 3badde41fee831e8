// Compares headers with the lines of the backup list. A tree that is there sends the header of its
// folder, and a single entry its own, whatever they hold.
#include "tape/asked.h"

#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <zul/host.h>

#include <algorithm>
#include <string_view>

#include "base/fd.h"
#include "base/text.h"
#include "tape/treewalk.h"

namespace tape {

namespace {

constexpr size_t kNameRoom = 256;  // of a line, and of a name in a header

std::string_view withoutSlash(std::string_view name) {
  while (!name.empty() && name.back() == '/') name.remove_suffix(1);
  return name;
}

}  // namespace

void Asked::read(int job, int hosts) {
  requests_.clear();
  base::File list(fopen(base::HomePath("var/tape/jobids/%i", job), "re"));
  std::string line;
  for (int c = 0; list && c != EOF;) {
    c = getc(list.get());
    if (c != EOF && !lists::isControl(static_cast<char>(c))) {
      line += static_cast<char>(c);
      continue;
    }
    // The root has no header, and a longer name none that could be recognised.
    std::string_view name = withoutSlash(line);
    if (!name.empty() && line.size() < kNameRoom)
      requests_.push_back({std::string(name), line.back() == '/',
                           std::vector<bool>(static_cast<size_t>(hosts), false)});
    line.clear();
  }
  std::stable_sort(requests_.begin(), requests_.end(),
                   [](const Request &one, const Request &other) { return one.name < other.name; });
}

void Asked::saw(int at, const package &header) {
  // The header of what was not there any more has no kind of file in it.
  if (header.type == 5 && (header.mode & S_IFMT) == 0) return;
  std::string_view name =
      withoutSlash({header.filename, strnlen(header.filename, sizeof header.filename)});
  auto found =
      std::lower_bound(requests_.begin(), requests_.end(), name,
                       [](const Request &one, std::string_view other) { return one.name < other; });
  for (; found != requests_.end() && found->name == name; ++found)
    found->seen[static_cast<size_t>(at)] = true;
}

std::vector<std::string> Asked::unseen(int at) const {
  std::vector<std::string> names;
  for (const Request &each : requests_)
    if (!each.seen[static_cast<size_t>(at)]) names.push_back(each.name + (each.tree ? "/" : ""));
  return names;
}

}  // namespace tape
