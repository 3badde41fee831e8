// What an operator wants of a volume: paths and patterns, and what of the volume they match.
#pragma once
#include <stdint.h>

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "console/volume.h"

namespace console {

class Selection {
 public:
  // One word: "/path", "/etc/*.conf", with a '/' at its end only folders, and any of these behind
  // "host:". Throws a Failure when it can be neither.
  void add(const std::string &word);
  // Everything.
  void addAll();
  // The opposite of add; false when no such word was added.
  bool remove(const std::string &word);
  bool empty() const { return wishes_.empty(); }

  // The one host named by words; empty when none is named. A Failure when several are.
  const std::string &host() const { return host_; }

  // True when the path (a folder's with its '/') is wanted, by itself or below a folder that is.
  bool wants(std::string_view name) const;
  // The same, and remembers what was matched.
  bool take(const ListLine &line);

  // After all lines of the volume were taken:
  std::vector<std::string> unmatched() const;
  // The lines of a selection file: what the words match, folders with all below them.
  std::string fileText(const std::string &host) const;

  struct Wish {
    std::string word;  // as it was typed, without the host
    std::string path;  // without the '/' at its end
    bool pattern = false, folder = false;
    uint64_t count = 0;                // of files and folders
    std::map<std::string, bool> tops;  // what it matches by itself, and whether that is a folder
  };
  const std::vector<Wish> &wishes() const { return wishes_; }

 private:
  std::vector<Wish> wishes_;
  std::string host_;
};

}  // namespace console
