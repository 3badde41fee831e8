// One number for all that a run has brought to a host, made alike by who packs it and by who puts
// it together: over the entries in the order of the run, their names as they travel, their types,
// sizes and contents. Equal numbers on both sides say that a receiver holds what was sent. It finds
// damage, not forgery.
#pragma once
#include <stddef.h>
#include <stdint.h>
#include <zul/mrepl.h>

namespace base {
class Hash;
}

namespace mrepl {

// Plain data, because records of a run are globals; whoever begins one ends it.
class TreeDigest {
 public:
  void begin();
  void end();
  // Content of the entry that is under way, and forgetting it: a new entry begins.
  void content(const void *data, size_t length);
  void newEntry();
  // The entry is there. Of the header only name and type are looked at: they are single bytes, the
  // same in both byte orders.
  void entry(const mfilehead &header, uint64_t size);
  // 16 hex digits; empty where this host has no library to make the digest with.
  static constexpr size_t kTextBytes = 17;
  void text(char *out) const;

 private:
  base::Hash *whole_ = nullptr;
  base::Hash *content_ = nullptr;
};

}  // namespace mrepl
