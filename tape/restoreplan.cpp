// Decides package by package what a restore offers; in the restore job's process on the tape host.
#include "tape/restoreplan.h"

#include <string.h>
#include <unistd.h>
#include <zul/tape.h>

#include <algorithm>
#include <functional>
#include <string_view>

#include "base/log.h"
#include "base/text.h"
#include "tape/restorelist.h"
#include "tape/restorereport.h"
#include "tape/volumelist.h"

namespace tape {

namespace {

uint64_t hashOf(std::string_view name) {
  return std::hash<std::string_view>()(name);
}

}  // namespace

RestorePlan::RestorePlan(int tape, FILE *list) : reader_(tape), list_(list) {
  readList();
  prepare(true);
}

RestorePlan::Host &RestorePlan::hostNamed(const std::string &name) {
  for (Host &host : hosts_)
    if (host.name == name) return host;
  hosts_.push_back(Host{name, {}, {}});
  return hosts_.back();
}

void RestorePlan::readList() {
  char line[base::kPathMax];
  Host *host = nullptr;
  for (long offset = 0; fgets(line, sizeof line, list_); offset = ftell(list_)) {
    stripCtrl(line);
    if (strncmp(line, kHostLine, sizeof kHostLine - 1) == 0) {
      host = &hostNamed(line + sizeof kHostLine - 1);
      continue;
    }
    if (!host) host = &hostNamed("");
    // The packages of one file follow one another on their host's list.
    uint64_t hash = hashOf(line);
    if (!host->entries.empty() && host->entries.back().hash == hash)
      host->entries.back().wanted++;
    else
      host->entries.push_back(Entry{hash, offset, 1, 0, false, false});
  }
  for (Host &each : hosts_) {
    each.byHash.resize(each.entries.size());
    for (uint32_t at = 0; at < each.byHash.size(); at++) each.byHash[at] = at;
    std::sort(each.byHash.begin(), each.byHash.end(), [&](uint32_t a, uint32_t b) {
      return std::make_pair(each.entries[a].hash, a) < std::make_pair(each.entries[b].hash, b);
    });
  }
}

std::string RestorePlan::nameAt(long offset) const {
  char line[base::kPathMax];
  ssize_t got = pread(fileno(list_), line, sizeof line - 1, offset);
  line[got > 0 ? got : 0] = '\0';
  line[strcspn(line, "\n")] = '\0';
  return line;
}

// The file on the list that a package on tape belongs to; names are compared as lists write them.
RestorePlan::Entry *RestorePlan::find(const package &header) {
  Host &host = hosts_[at_];
  char name[sizeof header.filename], from[sizeof header.fromhost];
  listName(name, sizeof name, header.filename);
  listHost(from, sizeof from, header.fromhost);
  if (!host.name.empty() && host.name != from) return nullptr;
  uint64_t hash = hashOf(name);
  auto at = std::lower_bound(host.byHash.begin(), host.byHash.end(), hash,
                             [&](uint32_t one, uint64_t h) { return host.entries[one].hash < h; });
  for (; at != host.byHash.end() && host.entries[*at].hash == hash; ++at) {
    Entry &entry = host.entries[*at];
    if (!entry.settled && entry.taken < entry.wanted && nameAt(entry.offset) == name) return &entry;
  }
  return nullptr;
}

// True when the package goes on where the one before it ended.
bool RestorePlan::follows(Entry *entry, const package &header) {
  if (header.sequence == 0) {
    closeOpen();
    open_ = Open{entry, 0, false};
  }
  return open_.entry == entry && header.sequence == open_.next;
}

bool RestorePlan::offer() {
  const package &header = reader_.header();
  base::print(stderr, "INFO:  Is this the desired file? %s\n", header.filename);
  Entry *entry = find(header);
  if (!entry) {
    reader_.skip();
    return false;
  }
  entry->taken++;
  awaited_--;
  if (!follows(entry, header)) entry->broken = true;
  if (entry->broken) {
    reader_.skip();
    return false;
  }
  open_.next++;
  if (!reader_.load()) {
    entry->broken = true;
    return false;
  }
  open_.complete = (static_cast<uint64_t>(header.sequence) + 1) * PACK_CHUNK >= header.size;
  return true;
}

// A file whose last package has not come is not whole.
void RestorePlan::closeOpen() {
  if (open_.entry && !open_.complete) open_.entry->broken = true;
  open_ = Open{};
}

void RestorePlan::settle() {
  if (!open_.entry) return;
  awaited_ -= open_.entry->wanted - open_.entry->taken;
  open_.entry->settled = true;
}

bool RestorePlan::next() {
  if (hosts_.empty()) return false;
  do {
    while (awaited_ > 0 && reader_.next())
      if (offer()) return true;
  } while (nextReading());
  return false;
}

// Counts what is awaited of the host; afresh, or for a second reading, of what has not come whole.
void RestorePlan::prepare(bool afresh) {
  awaited_ = 0;
  careful_ = !afresh;
  if (at_ >= hosts_.size()) return;
  for (Entry &entry : hosts_[at_].entries) {
    if (entry.done()) continue;
    entry.taken = 0;
    entry.broken = false;
    awaited_ += entry.wanted;
  }
}

// Turns to the same host's second reading, or to the next host; false behind the last one.
bool RestorePlan::nextReading() {
  closeOpen();
  if (at_ >= hosts_.size()) return false;
  const std::vector<Entry> &entries = hosts_[at_].entries;
  bool whole = std::all_of(entries.begin(), entries.end(), [](const Entry &e) { return e.done(); });
  bool second = !whole && !careful_;
  if (second) {
    base::print(stderr, "NOTICE:  Reading the volume again for what has not come whole\n");
  } else {
    reportRest();
    at_++;
    if (at_ >= hosts_.size()) return false;
  }
  prepare(!second);
  if (reader_.again(second)) return true;
  base::print(stderr, "ERROR:  The tape cannot be brought back to the volume's start\n");
  for (; at_ < hosts_.size(); at_++) reportRest();
  return false;
}

void RestorePlan::reportRest() const {
  const Host &host = hosts_[at_];
  for (const Entry &entry : host.entries) {
    if (entry.done()) continue;
    std::string name = nameAt(entry.offset);
    base::print(stderr, "ERROR:  Not restored, %s: %s\n",
                entry.taken == 0 ? "not found on tape" : "damaged on tape", name.c_str());
    if (entry.taken == 0)
      reportRestored(host.name.c_str(), name.c_str(), "missing", "not found on tape");
    else
      reportRestored(host.name.c_str(), name.c_str(), "failed",
                     "damaged on tape, or not all of it is there");
  }
}

}  // namespace tape
