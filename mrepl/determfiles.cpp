// The ordered list of paths that a multicast run sends. Runs in the packer.
#include <dirent.h>
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <exception>
#include <string>
#include <vector>

#include <zul/host.h>
#include <zul/mrepl.h>

#include "base/fd.h"
#include "base/lines.h"
#include "base/log.h"
#include "mrepl/packed.h"
#include "mrepl/run.h"

namespace {

// Longer paths cannot be opened, and a header carries far less.
constexpr size_t kLongestPath = 4095;

strNode *requests;
strNode *excludes;

strNode ownList;   // appended to unless addToIncList was given another
strNode *listEnd;  // its last node, the one without a text
strNode *nextOut;  // the node that getNextFile hands out next
bool listChosen;

void chooseList(strNode *head) {
  listChosen = true;
  nextOut = listEnd = head;
  while (listEnd->text && listEnd->next) listEnd = listEnd->next;
}

bool newerThan(const struct stat &status, time_t since) {
  // With 0, the beginning of time, every file is wanted; installed senders leave those out that
  // carry no time, as images built to be reproducible do.
  if (since == 0 && mrepl::soundRun()) return true;
  return status.st_mtime > since;
}

// Excluded are the paths of the list and all below them.
bool excluded(const std::string &path) {
  for (const strNode *node = excludes; node; node = node->next) {
    if (!node->text) continue;
    size_t length = strlen(node->text);
    while (length > 1 && node->text[length - 1] == '/') length--;
    if (length == 0 || path.compare(0, length, node->text, length) != 0) continue;
    if (path.size() == length || path[length] == '/' || length == 1) return true;
  }
  return false;
}

int append(const std::string &path) {
  return addToIncList(0, const_cast<char *>(path.c_str()));
}

// A sound run tells what it could not list: without it everything below would be missing on all
// receivers, and the run complete.
void tellUnlisted(const std::string &path) {
  // One that is gone by now is not missing.
  if (!mrepl::soundRun() || errno == ENOENT) return;
  const char *reason = strerror(errno);
  mrepl::packed.unsent(path.c_str(), reason);
  base::print(fplog, "NOTICE:  Cannot list %s: %s\n", path.c_str(), reason);
}

// All names first, then one after the other: a deep tree does not hold one open directory per
// level.
std::vector<std::string> namesIn(const std::string &path) {
  std::vector<std::string> names;
  DIR *directory = opendir(path.c_str());
  if (!directory) {
    tellUnlisted(path);
    return names;
  }
  for (;;) {
    errno = 0;
    const dirent *entry = readdir(directory);
    if (!entry) break;
    const char *name = entry->d_name;
    if (strcmp(name, ".") == 0 || strcmp(name, "..") == 0) continue;
    // No entry has such a name, so /proc is walked like any other directory; sites that send "/"
    // exclude it.
    if (strcmp(name, "/proc") == 0) continue;
    names.emplace_back(name);
  }
  if (errno != 0) tellUnlisted(path);
  closedir(directory);
  return names;
}

int scan(const std::string &path, long *total, time_t since) {
  struct stat status;
  if (lstat(path.c_str(), &status) != 0 || excluded(path)) return 0;
  *total += static_cast<long>(status.st_size);
  if (newerThan(status, since) && append(path) != 0) return -2;
  if (!S_ISDIR(status.st_mode)) return 0;
  for (const std::string &name : namesIn(path)) {
    std::string below = path == "/" ? path + name : path + "/" + name;
    if (below.size() > kLongestPath) {
      mrepl::packed.unsent(below.c_str(), strerror(ENAMETOOLONG));
      base::print(fplog, "NOTICE: Failed to store file header for:  %s\n", below.c_str());
      continue;
    }
    if (scan(below, total, since) != 0) return -2;
  }
  return 0;
}

// The directories that lead to a path, from the top, so that a receiver has them as they are here.
int appendAncestors(const std::string &path) {
  for (size_t slash = path.find('/', 1); slash != std::string::npos;
       slash = path.find('/', slash + 1)) {
    std::string ancestor = path.substr(0, slash);
    if (!excluded(path) && append(ancestor) != 0) return -2;
  }
  return 0;
}

int appendRequest(std::string path, time_t since) {
  bool tree = !path.empty() && path.back() == '/';
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  if (path.empty()) return 0;
  if (appendAncestors(path) != 0) return -2;
  long total = 0;
  struct stat status;
  bool found = lstat(path.c_str(), &status) == 0;
  // What a job asks for by name is missing when it is not there; installed senders pass over a tree
  // without a word.
  bool told = mrepl::soundRun() ? !excluded(path) : !tree;
  if (!found && told) {
    mrepl::packed.unsent(path.c_str(), strerror(errno));
    base::print(fplog, "NOTICE:  Cannot find requested path %s\n", path.c_str());
  }
  if (!found) return 0;
  if (tree) return scan(path, &total, since);
  if (!newerThan(status, since) || excluded(path)) return 0;
  return append(path);
}

// Adds every line of a file by `add`.
template <typename Add>
int readLines(const char *path, Add add) {
  base::File in(fopen(path, "re"));
  if (!in) return -1;
  base::LineReader line(in.get(), base::LineReader::kNoLimit);
  while (line.next()) {
    size_t length = line.length();
    while (length > 0 && (line.text()[length - 1] == '\n' || line.text()[length - 1] == '\r'))
      length--;
    line.text()[length] = '\0';
    if (length > 0 && add(line.text()) != 0) return -2;
  }
  return line.outOfMemory() ? -2 : 0;
}

int appendTo(strNode **last, const char *text) {
  auto *empty = static_cast<strNode *>(calloc(1, sizeof(strNode)));
  char *copy = strdup(text);
  if (!empty || !copy) {
    free(empty);
    free(copy);
    return -2;
  }
  (*last)->text = copy;
  (*last)->next = empty;
  *last = empty;
  return 0;
}

}  // namespace

void setFileList(strNode *list, int which) {
  (which == 0 ? requests : excludes) = list;
}

int buildFileList(time_t since) {
  try {
    for (const strNode *node = requests; node; node = node->next)
      if (node->text && appendRequest(node->text, since) != 0) return -2;
    return 0;
  } catch (const std::exception &) {
    return -2;
  }
}

int scanDirectory(char *path, long *total, time_t since) {
  try {
    return scan(path, total, since);
  } catch (const std::exception &) {
    return -2;
  }
}

int addToIncList(int mode, void *arg) {
  if (mode == 1) {
    chooseList(static_cast<strNode *>(arg));
    return 0;
  }
  if (!listChosen) chooseList(&ownList);
  return appendTo(&listEnd, static_cast<const char *>(arg));
}

int getNextFile(char **path) {
  while (nextOut && !nextOut->text && nextOut->next) nextOut = nextOut->next;
  if (!nextOut || !nextOut->text) return -1;
  *path = nextOut->text;
  nextOut = nextOut->next;
  return 0;
}

int readFileList(const char *path, strNode *list) {
  strNode *last = list;
  while (last->next) last = last->next;
  return readLines(path, [&last](const char *text) { return appendTo(&last, text); });
}

int readIncludeList(const char *path) {
  return readLines(path,
                   [](const char *text) { return addToIncList(0, const_cast<char *>(text)); });
}
