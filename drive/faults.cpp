// Reads the fault file of a virtual drive, in whichever process has the drive open.
#include "drive/faults.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <zul/host.h>

#include "base/log.h"
#include "drive/place.h"

namespace drive {

static constexpr size_t kTextRoom = 4096;

static const struct {
  const char *name;
  FaultKind kind;
} kKinds[] = {{"read", FaultKind::read},
              {"write", FaultKind::write},
              {"mark", FaultKind::mark},
              {"rewind", FaultKind::rewind},
              {"space", FaultKind::space}};

// What a drive, or the host's disk behind one, is known to answer.
static const struct {
  const char *name;
  int value;
} kErrors[] = {{"EIO", EIO},       {"ENOSPC", ENOSPC}, {"ENOMEM", ENOMEM},
               {"EBUSY", EBUSY},   {"EAGAIN", EAGAIN}, {"EINTR", EINTR},
               {"EINVAL", EINVAL}, {"EROFS", EROFS},   {"ENOMEDIUM", ENOMEDIUM},
               {"ENXIO", ENXIO},   {"EACCES", EACCES}, {"EOVERFLOW", EOVERFLOW}};

static bool kindByName(const char *name, FaultKind *kind) {
  for (auto &row : kKinds)
    if (strcmp(row.name, name) == 0) {
      *kind = row.kind;
      return true;
    }
  return false;
}

static int errorByName(const char *name) {
  for (auto &row : kErrors)
    if (strcmp(row.name, name) == 0) return row.value;
  return 0;
}

// "2000ms" or "2s", at most an hour; -1 for anything else.
static int delayOf(const char *word) {
  char *end;
  long value = strtol(word, &end, 10);
  if (end == word || value < 0 || value > 3600L * 1000) return -1;
  if (strcmp(end, "ms") == 0) return static_cast<int>(value);
  if (strcmp(end, "s") == 0 && value <= 3600) return static_cast<int>(value * 1000);
  return -1;
}

// "5" is the fifth call alone, "5+" the fifth and every later one.
static bool readNth(const char *word, Fault *fault) {
  char *end;
  unsigned long nth = strtoul(word, &end, 10);
  if (end == word || word[0] == '-' || nth == 0 || nth > UINT32_MAX) return false;
  fault->nth = static_cast<uint32_t>(nth);
  fault->isLasting = strcmp(end, "+") == 0;
  return fault->isLasting || *end == '\0';
}

bool parseFault(const char *line, Faults *faults) {
  char words[5][32] = {};
  int count =
      sscanf(line, "%31s %31s %31s %31s %31s", words[0], words[1], words[2], words[3], words[4]);
  if (count <= 0 || words[0][0] == '#') return true;
  if (strcmp(words[0], "eom-after") == 0) {
    char *end;
    long long bytes = strtoll(words[1], &end, 10);
    if (count != 2 || end == words[1] || *end != '\0' || bytes < 0) return false;
    faults->endAfter = bytes;
    return true;
  }
  Fault fault = {};
  if (count < 3 || faults->count == Faults::kMax || !kindByName(words[0], &fault.kind) ||
      !readNth(words[1], &fault))
    return false;
  int at = 2;
  if (strcmp(words[at], "delay") == 0) {
    fault.delayMs = delayOf(words[3]);
    if (fault.delayMs < 0) return false;
    at = 4;
  }
  if (count > at) fault.error = errorByName(words[at++]);
  if (count != at || (fault.error == 0 && fault.delayMs == 0)) return false;
  faults->list[faults->count++] = fault;
  return true;
}

void loadFaults(const char *drive, Faults *faults) {
  *faults = Faults{};
  faults->endAfter = -1;
  DrivePath path(drive, "faults");
  struct stat status;
  if (stat(path, &status) != 0) return;
  // Replaced or edited, it is another version with a count of its own.
  faults->stamp = (status.st_ino * 1000003 + static_cast<uint64_t>(status.st_size)) * 1000000007 +
                  static_cast<uint64_t>(status.st_mtim.tv_sec) * 1000000000 +
                  static_cast<uint64_t>(status.st_mtim.tv_nsec);
  if (faults->stamp == 0) faults->stamp = 1;
  char text[kTextRoom];
  if (readText(path, text, sizeof text) < 0) return;
  for (char *line = text; *line;) {
    size_t length = strcspn(line, "\n");
    char *next = line + length + (line[length] == '\n');
    line[length] = '\0';
    if (!parseFault(line, faults))
      base::print(fplog, "NOTICE:  Drive %s: fault not understood, left out: %s\n", drive, line);
    line = next;
  }
}

}  // namespace drive
