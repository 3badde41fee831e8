// How a subcommand of zul gives up: one exception, caught in main, that carries the exit status,
// what failed and what the operator can do about it.
#pragma once
#include <stdexcept>
#include <string>

namespace console {

// The exit statuses of zul, the same for every subcommand.
enum class Exit : int {
  done = 0,
  failed = 1,        // the request, the job or one of its hosts failed
  usage = 2,         // the command line makes no sense
  noConnection = 3,  // no daemon answers, or it refuses us, or the connection broke
  jobGone = 4,       // the job's process is gone and has not recorded an end
};

class Failure : public std::runtime_error {
 public:
  Failure(Exit status, const std::string &what, std::string hint = "")
      : std::runtime_error(what), status_(status), hint_(std::move(hint)) {}
  Exit status() const { return status_; }
  // What to do next; may be empty.
  const std::string &hint() const { return hint_; }

 private:
  Exit status_;
  std::string hint_;
};

}  // namespace console
