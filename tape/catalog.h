// A tape's catalog in memory.
#pragma once
#include <stdlib.h>
#include <zul/records.h>

#include <memory>

namespace tape {

// The most volumes a tape can have: every reader of a catalog has room for that many.
constexpr int kVolumeLimit = 128;

// Holds a loaded catalog and gives it back at its end. One at a time in a process, because the
// texts live in a buffer of the module.
class Catalog {
 public:
  Catalog() = default;
  Catalog(const Catalog &) = delete;
  Catalog &operator=(const Catalog &) = delete;
  ~Catalog();

  // Loads the catalog of a tape's directory: the number of volumes, or as getTapeCatlg.
  int load(const char *tapedir);
  // Volume record at, below what load returned.
  const catlgstru &operator[](int at) const { return records_.get()[at]; }

 private:
  struct Free {
    void operator()(catlgstru *records) const { free(records); }
  };
  std::unique_ptr<catlgstru, Free> records_;
};

}  // namespace tape
