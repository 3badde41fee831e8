// Restore lists: which packages of a volume are wanted, in tape order.
//
// Runs in the restore job's process on the tape host. A selection names entries by their numbers in
// the volume list, or (under "sound") paths; both walk the volume list once, front to back, so the
// list they write is in the order of the tape.
#include "tape/restorelist.h"

#include <ctype.h>
#include <stdlib.h>
#include <string.h>
#include <zul/host.h>
#include <zul/tape.h>

#include <algorithm>
#include <string>
#include <tuple>
#include <vector>

#include "base/fd.h"
#include "base/log.h"
#include "base/site.h"

namespace {

constexpr int kIndexLines = 128;
constexpr size_t kShortLine = 256;  // classic reads at most 255 characters of a volume-list line
constexpr size_t kDirectoryRoom = 256;

bool sound() {
  return base::sound(base::Area::restore);
}

// Sorted, every number once.
std::vector<long> readIndex(FILE *file) {
  std::vector<long> wanted;
  char line[256];
  for (int count = 0; count < kIndexLines && fgets(line, sizeof line, file); count++)
    wanted.push_back(strtol(line, nullptr, 10));
  std::sort(wanted.begin(), wanted.end());
  wanted.erase(std::unique(wanted.begin(), wanted.end()), wanted.end());
  return wanted;
}

// The byte difference of two names where they first differ, as the C library's comparison gives it.
int difference(const char *a, const char *b) {
  while (*a != '\0' && *a == *b) {
    a++;
    b++;
  }
  return static_cast<unsigned char>(*a) - static_cast<unsigned char>(*b);
}

// Walks a volume list and decides line by line; see mkRestoreList.
class Selector {
 public:
  explicit Selector(const std::vector<long> &wanted) : wanted_(wanted), next_(wanted[0]) {}

  // True when the line's package belongs into the restore list.
  bool take(const tape::VolumeLine &line) {
    if (sound()) passUnmatched(line);
    if (ofAnotherHost(line.host)) return false;
    if (takesAll(line)) return true;
    if (line.entry == next_) begin(line);
    bool written = false;
    if (continuation_) {
      if (line.sequence != 0)
        written = true;
      else
        continuation_ = false;
    }
    if (selected_ && step(line)) written = true;
    return written;
  }

  // Names the wanted numbers behind the last entry.
  void finish() {
    while (sound() && next_ != 0) giveUp("there is none on this volume");
  }

 private:
  bool ofAnotherHost(const char *host) const {
    if (!hostKnown_) return false;
    // Classic skips by an odd difference only: files of hosts whose names lie an even distance
    // apart come along. Under "sound" another host is another host.
    int apart = difference(host, host_.c_str());
    return sound() ? apart != 0 : (apart & 1) != 0;
  }

  // In a numbered volume list 0 is no entry's number: it stands for everything of the first host,
  // as it has always done where every entry is numbered 0.
  bool takesAll(const tape::VolumeLine &line) {
    if (!sound() || wanted_[0] != 0 || line.entry == 0) return false;
    fixHost(line);
    return true;
  }

  // In a numbered list nothing behind a wanted number could match any more once that number has
  // gone by, be it that it is an entry of another host or none at all: it is named, and passed
  // over.
  void passUnmatched(const tape::VolumeLine &line) {
    if (line.entry == next_ && ofAnotherHost(line.host)) giveUp("it is of another host");
    while (next_ != 0 && line.entry > next_) giveUp("there is none on this volume");
  }

  void giveUp(const char *why) {
    if (next_ == 0) return;
    base::print(stderr, "WARNING:  Entry %li is not restored: %s\n", next_, why);
    advance();
  }

  void advance() {
    at_++;
    next_ = at_ < wanted_.size() ? wanted_[at_] : 0;
  }

  void fixHost(const tape::VolumeLine &line) {
    if (hostKnown_) return;
    host_.assign(line.host, strnlen(line.host, 127));
    hostKnown_ = true;
  }

  void begin(const tape::VolumeLine &line) {
    fixHost(line);
    advance();
    // A tree that is wanted does not end at an entry in it that is wanted too.
    if (sound() && selected_ && directory_ && below(line)) return;
    selected_ = true;
    size_t length = strlen(line.name);
    directory_ = length > 0 && line.name[length - 1] == '/';
    if (directory_) prefix_.assign(line.name, strnlen(line.name, kDirectoryRoom));
  }

  bool below(const tape::VolumeLine &line) const {
    return strncmp(line.name, prefix_.c_str(), prefix_.size()) == 0;
  }

  bool step(const tape::VolumeLine &line) {
    if (directory_) {
      continuation_ = false;
      if (below(line)) return true;
      selected_ = false;
      return false;
    }
    selected_ = false;
    continuation_ = true;
    return true;
  }

  const std::vector<long> &wanted_;
  size_t at_ = 0;
  long next_;
  std::string host_;
  bool hostKnown_ = false;
  bool selected_ = false, directory_ = false, continuation_ = false;
  std::string prefix_;
};

// Reads the next line whole where the behaviour knows long ones.
bool readLine(FILE *file, char *line, size_t room) {
  if (!fgets(line, static_cast<int>(sound() ? room : kShortLine), file)) return false;
  return true;
}

void dropLineEnd(char *text) {
  size_t length = strlen(text);
  if (length > 0 && iscntrl(static_cast<unsigned char>(text[length - 1]))) text[length - 1] = '\0';
}

// The number of lines written.
long walk(FILE *volume, FILE *list, const std::vector<long> &wanted) {
  Selector selector(wanted);
  tape::RestoreListWriter writer(list, sound());
  char line[base::kPathMax], whole[base::kPathMax];
  while (readLine(volume, line, sizeof line)) {
    base::copyText(whole, sizeof whole, line);
    dropLineEnd(whole);
    tape::VolumeLine cut;
    if (!tape::cutVolumeLine(line, &cut)) {
      base::printBoth("ERROR:  8109  Cannot open restore list file: %s\n", whole);
      continue;
    }
    if (selector.take(cut)) writer.add(cut.host, cut.name);
  }
  selector.finish();
  return writer.lines();
}

// One wanted path: "host:path"; a path that ends in '/' takes the tree.
struct Wish {
  std::string host, path;
  bool tree;
  bool found;
};

std::vector<Wish> readWishes(FILE *file) {
  std::vector<Wish> wishes;
  char line[base::kPathMax];
  while (fgets(line, sizeof line, file)) {
    dropLineEnd(line);
    char *colon = strchr(line, ':');
    if (!colon || colon[1] == '\0') {
      if (line[0] != '\0') base::print(stderr, "WARNING:  Not \"host:path\", ignored: %s\n", line);
      continue;
    }
    *colon = '\0';
    std::string path = colon + 1;
    wishes.push_back({line, path, path.back() == '/', false});
  }
  // Sorted by host and path, so that one search finds what could match a name, however many wishes
  // there are.
  auto key = [](const Wish &wish) { return std::tie(wish.host, wish.path); };
  std::sort(wishes.begin(), wishes.end(),
            [&](const Wish &a, const Wish &b) { return key(a) < key(b); });
  wishes.erase(std::unique(wishes.begin(), wishes.end(),
                           [&](const Wish &a, const Wish &b) { return key(a) == key(b); }),
               wishes.end());
  return wishes;
}

class Wishes {
 public:
  explicit Wishes(std::vector<Wish> wishes) : wishes_(std::move(wishes)) {}

  // True when the path of the host is wanted, by itself or within a wanted tree.
  bool match(const char *host, const std::string &name) {
    bool found = look(host, name, false);
    // A directory is wanted by its name with or without the '/'.
    if (!name.empty() && name.back() == '/')
      found |= look(host, name.substr(0, name.size() - 1), false);
    for (size_t slash = name.find('/'); slash != std::string::npos;
         slash = name.find('/', slash + 1))
      found |= look(host, name.substr(0, slash + 1), true);
    return found;
  }

  // What matched nothing, each named once.
  void complain() const {
    for (const Wish &wish : wishes_)
      if (!wish.found)
        base::print(stderr, "WARNING:  Not on this volume: %s:%s\n", wish.host.c_str(),
                    wish.path.c_str());
  }

 private:
  bool look(const char *host, const std::string &path, bool tree) {
    auto at = std::lower_bound(
        wishes_.begin(), wishes_.end(), std::make_pair(host, &path),
        [](const Wish &wish, const std::pair<const char *, const std::string *> &key) {
          int order = wish.host.compare(key.first);
          return order != 0 ? order < 0 : wish.path < *key.second;
        });
    if (at == wishes_.end() || at->host != host || at->path != path || (tree && !at->tree))
      return false;
    at->found = true;
    return true;
  }

  std::vector<Wish> wishes_;
};

// What is read and what is written, both open.
struct Lists {
  base::File volume, list;
};

bool openLists(const char *volumeList, const char *listFile, Lists *lists) {
  lists->volume = base::File(fopen(volumeList, "re"));
  if (!lists->volume) {
    base::printBoth("ERROR:  8107  Cannot open restore catalog file: %s\n", volumeList);
    return false;
  }
  lists->list = base::File(fopen(listFile, "we"));
  if (!lists->list) base::printBoth("ERROR:  8108  Cannot open restore list file: %s\n", listFile);
  return static_cast<bool>(lists->list);
}

int finishList(base::File *list, const char *listFile, const char *selection, long lines) {
  if (!list->close()) {
    base::printBoth("ERROR:  8108  Cannot open restore list file: %s\n", listFile);
    return -1;
  }
  // A restore of nothing would end as if all had been restored.
  if (lines > 0 || !sound()) return 0;
  base::printBoth("ERROR:  Nothing of the selection is on this volume: %s\n", selection);
  return -1;
}

}  // namespace

bool tape::cutVolumeLine(char *line, VolumeLine *out) {
  char *field[5];
  // With four splits, as classic does it, a name ends at its own ':' and is not on the tape.
  if (insplit(field, line, ':', sound() ? 3 : 4) < 4) return false;
  dropLineEnd(field[3]);
  *out =
      VolumeLine{strtol(field[0], nullptr, 10), field[1], strtol(field[2], nullptr, 10), field[3]};
  return true;
}

void tape::RestoreListWriter::add(const char *host, const char *name) {
  if (hosts_ && strncmp(host, host_, sizeof host_ - 1) != 0) {
    base::copyText(host_, sizeof host_, host);
    fprintf(file_, "%s%s\n", kHostLine, host_);
  }
  fprintf(file_, "%s\n", name);
  lines_++;
}

int tape::selectByName(const char *selection, const char *volumeList, const char *listFile) {
  base::File names(fopen(selection, "re"));
  if (!names) {
    base::printBoth("ERROR:  8106  Cannot open restore index file: %s\n", selection);
    return -1;
  }
  Wishes wishes(readWishes(names.get()));
  Lists lists;
  if (!openLists(volumeList, listFile, &lists)) return -1;
  RestoreListWriter writer(lists.list.get(), true);
  char line[base::kPathMax];
  while (fgets(line, sizeof line, lists.volume.get())) {
    VolumeLine cut;
    if (cutVolumeLine(line, &cut) && wishes.match(cut.host, cut.name))
      writer.add(cut.host, cut.name);
  }
  wishes.complain();
  return finishList(&lists.list, listFile, selection, writer.lines());
}

int mkRestoreList(char *indexfile, char *volumelist, char *listfile) {
  base::File index(fopen(indexfile, "re"));
  if (!index) {
    base::printBoth("ERROR:  8106  Cannot open restore index file: %s\n", indexfile);
    return -1;
  }
  std::vector<long> wanted = readIndex(index.get());
  if (wanted.empty()) return -1;
  Lists lists;
  if (!openLists(volumelist, listfile, &lists)) return -1;
  long lines = walk(lists.volume.get(), lists.list.get(), wanted);
  return finishList(&lists.list, listfile, indexfile, lines);
}
