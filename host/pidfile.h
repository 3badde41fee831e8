// var/ZULd.pid: who serves this home. The lock on it is what keeps a second daemon away; it goes
// with its holder, however that ends, so that no stale file is ever in the way.
#pragma once
#include <string>

namespace host {

class PidFile {
 public:
  PidFile() = default;
  PidFile(const PidFile &) = delete;
  PidFile &operator=(const PidFile &) = delete;

  // Takes the lock and writes our pid. False says why, and names the process that holds it.
  bool take(const std::string &home, std::string &why);
  // Removes the file and lets go of it.
  void release();

 private:
  std::string path_;
  int fd_ = -1;
};

}  // namespace host
