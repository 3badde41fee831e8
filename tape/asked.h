// What a job's backup list asks for, and what of it the hosts have sent: a tree whose name is
// misspelt would otherwise be missed when it is wanted back. In the job process.
#pragma once
#include <zul/records.h>

#include <string>
#include <vector>

namespace tape {

class Asked {
 public:
  // Reads the list of a job for so many hosts. When it cannot be read, nothing is asked for.
  void read(int job, int hosts);
  // Takes note of what member number `at` has sent.
  void saw(int at, const package &header);
  // What member number `at` was asked for and has sent nothing of, as the list names it.
  std::vector<std::string> unseen(int at) const;

 private:
  struct Request {
    std::string name;  // without the '/' that stands for a whole tree
    bool tree;
    std::vector<bool> seen;  // by member
  };
  std::vector<Request> requests_;  // by name
};

}  // namespace tape
