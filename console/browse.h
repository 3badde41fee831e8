// Walking about in a volume and picking what to restore.
#pragma once
#include <string>
#include <string_view>
#include <vector>

#include "console/selection.h"

namespace console {

class Browser {
 public:
  // names: of one host, folders with their '/'; any order, any number of times.
  Browser(std::string host, std::vector<std::string> names);

  // Runs one command and returns its answer.
  std::string run(const std::string &line);
  // The operator has chosen; or wants nothing after all.
  bool finished() const { return finished_; }
  bool gaveUp() const { return gaveUp_; }

  std::string prompt() const { return host_ + ":" + (folder_.empty() ? "/" : folder_) + "> "; }
  const Selection &selection() const { return selection_; }

 private:
  std::string absolute(std::string path) const;
  bool isFolder(const std::string &path) const;
  std::string list(const std::string &path) const;
  std::string change(const std::string &path);
  std::string pick(const std::string &word);
  std::string show() const;

  std::string host_;
  std::vector<std::string> names_;  // sorted
  std::string folder_;              // where we are, without the '/' at its end
  Selection selection_;
  bool finished_ = false, gaveUp_ = false;
};

}  // namespace console
