// What a restore takes from a drive, and in which order: the packages on the restore list, host by
// host.
//
// Under "sound". A volume holds the packages of its hosts in turn, and a receiver joins what
// follows a file's first package: so one host is read at a time. Each is read forward once, and
// once more with care when something that is on the list has not come or not come whole; so a
// damaged block costs a second reading, and no other file. Only packages that follow each other
// without a gap, and are whole, are offered: a receiver never puts a damaged file in the place of a
// good one.
#pragma once
#include <stdint.h>
#include <stdio.h>
#include <zul/records.h>

#include <string>
#include <vector>

#include "tape/packagereader.h"

namespace tape {

class RestorePlan {
 public:
  // tape stands at the start of the volume's data; list is the restore list, read now and again
  // later.
  RestorePlan(int tape, FILE *list);

  // Goes to the next package to offer, its segment loaded; false when there is none left. What is
  // on the list and cannot be offered is reported by then.
  bool next();
  const package &header() const { return reader_.header(); }
  const char *raw() const { return reader_.raw(); }
  const char *segment() const { return reader_.segment(); }

  // The receiver has no use for the file offered last, or cannot make it: nothing more of it is
  // offered.
  void settle();

 private:
  // One file of the list; a file of several packages stands there several times.
  struct Entry {
    uint64_t hash;    // of its name
    long offset;      // of its line in the list
    uint32_t wanted;  // packages on the list
    uint32_t taken;   // of these, met in this reading
    bool broken;      // one of them was damaged, or did not follow its predecessor
    bool settled;     // nothing more of it is wanted
    bool done() const { return settled || (taken >= wanted && !broken); }
  };
  struct Host {
    std::string name;  // empty: of whichever host
    std::vector<Entry> entries;
    std::vector<uint32_t> byHash;
  };
  // The file whose packages are coming.
  struct Open {
    Entry *entry = nullptr;
    int32_t next = 0;  // sequence of its next package
    bool complete = false;
  };

  void readList();
  Host &hostNamed(const std::string &name);
  std::string nameAt(long offset) const;
  Entry *find(const package &header);
  bool offer();
  bool follows(Entry *entry, const package &header);
  void closeOpen();
  bool nextReading();
  void prepare(bool afresh);
  void reportRest() const;

  PackageReader reader_;
  FILE *list_;
  std::vector<Host> hosts_;
  size_t at_ = 0;         // the host that is read
  bool careful_ = false;  // its second reading
  uint64_t awaited_ = 0;  // packages of it that have not come yet
  Open open_;
};

}  // namespace tape
