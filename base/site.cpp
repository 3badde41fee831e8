// Reads etc/ZULsite: lines "key = value", '#' begins a comment. What is wrong with it costs one
// NOTICE each in the host's log and never more: an agent must go on working with a damaged site
// file, as a classic one.
#include "base/site.h"

#include <ctype.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <zul/host.h>

#include "base/log.h"
#include "base/pause.h"
#include "base/text.h"

namespace base {

namespace {

constexpr int kAreas = static_cast<int>(Area::kCount);
constexpr const char *kAreaNames[kAreas] = {"stream", "backup",    "restore",  "receive",
                                            "stores", "multicast", "security", "pace"};

// Keys that carry a value of their own.
constexpr const char *kValueKeys[] = {
    "multicast.sender",    "multicast.interface",  "multicast.ttl",
    "multicast.drain",     "multicast.idle-limit", "multicast.patience",
    "fanout.answer-limit", "fanout.nodes-may",     "replication.silence"};
constexpr int kValues = sizeof kValueKeys / sizeof kValueKeys[0];

bool loaded = false;
bool areaSound[kAreas];
char values[kValues][256];

char *trim(char *text) {
  while (isspace(static_cast<unsigned char>(*text))) text++;
  size_t length = strlen(text);
  while (length > 0 && isspace(static_cast<unsigned char>(text[length - 1]))) text[--length] = '\0';
  return text;
}

// "10s", "250ms", "2m" or a plain number of milliseconds; -1 when it is none of these.
int readLength(const char *text) {
  char *end;
  long value = strtol(text, &end, 10);
  if (end == text || value < 0 || value > 86400000) return -1;
  if (strcmp(end, "") == 0 || strcmp(end, "ms") == 0) return static_cast<int>(value);
  if (strcmp(end, "s") == 0 && value <= 86400) return static_cast<int>(value * 1000);
  if (strcmp(end, "m") == 0 && value <= 1440) return static_cast<int>(value * 60000);
  return -1;
}

// 1 sound, 0 classic, -1 neither.
int readBehaviour(const char *text) {
  if (strcmp(text, "sound") == 0) return 1;
  return strcmp(text, "classic") == 0 ? 0 : -1;
}

enum class Outcome { taken, unknown, badValue };

Outcome takeBehaviour(const char *area, const char *value) {
  int behaviour = readBehaviour(value);
  for (int at = 0; at < kAreas; at++) {
    if (area[0] != '\0' && strcmp(area, kAreaNames[at]) != 0) continue;
    if (behaviour < 0) return Outcome::badValue;
    areaSound[at] = behaviour == 1;
    if (area[0] != '\0') return Outcome::taken;
  }
  return area[0] == '\0' ? Outcome::taken : Outcome::unknown;
}

Outcome takePause(const char *name, const char *value) {
  Pause pause = pauseByName(name);
  if (pause == Pause::kCount) return Outcome::unknown;
  int length = readLength(value);
  if (length < 0) return Outcome::badValue;
  setPause(pause, length);
  return Outcome::taken;
}

Outcome takeLine(const char *key, const char *value) {
  if (strcmp(key, "behaviour") == 0) return takeBehaviour("", value);
  if (strncmp(key, "behaviour.", 10) == 0 && key[10] != '\0') return takeBehaviour(key + 10, value);
  if (strncmp(key, "pause.", 6) == 0) return takePause(key + 6, value);
  for (int at = 0; at < kValues; at++) {
    if (strcmp(key, kValueKeys[at]) != 0) continue;
    if (strlen(value) >= sizeof values[at]) return Outcome::badValue;
    copyText(values[at], sizeof values[at], value);
    return Outcome::taken;
  }
  return Outcome::unknown;
}

void readLines(FILE *file, const char *path) {
  char line[1024];
  for (int number = 1; fgets(line, sizeof line, file); number++) {
    if (char *comment = strchr(line, '#')) *comment = '\0';
    char *key = trim(line);
    if (*key == '\0') continue;
    char *equals = strchr(key, '=');
    if (!equals) {
      print(fplog, "NOTICE:  %s line %i: no '=' in it, ignored: %s\n", path, number, key);
      continue;
    }
    *equals = '\0';
    char *value = trim(equals + 1);
    key = trim(key);
    Outcome outcome = takeLine(key, value);
    if (outcome == Outcome::unknown)
      print(fplog, "NOTICE:  %s line %i: unknown key %s, ignored\n", path, number, key);
    if (outcome == Outcome::badValue)
      print(fplog, "NOTICE:  %s line %i: bad value for %s: %s, its default holds\n", path, number,
            key, value);
  }
}

void load() {
  loaded = true;
  HomePath path("etc/ZULsite");
  FILE *file = fopen(path, "re");
  if (!file) {
    print(fplog, "NOTICE:  No site file %s: classic behaviour everywhere\n", path.c_str());
    return;
  }
  struct stat status;
  // A file that strangers may write must not switch remedies off or on.
  if (fstat(fileno(file), &status) != 0 || (status.st_mode & 022) != 0) {
    print(
        fplog,
        "NOTICE:  Site file %s may be written by others: not used, classic behaviour everywhere\n",
        path.c_str());
  } else {
    readLines(file, path);
  }
  fclose(file);
}

}  // namespace

const char *areaName(Area area) {
  return kAreaNames[static_cast<int>(area)];
}

bool sound(Area area) {
  if (!loaded) load();
  return areaSound[static_cast<int>(area)];
}

const char *siteValue(const char *key) {
  if (!loaded) load();
  for (int at = 0; at < kValues; at++)
    if (strcmp(key, kValueKeys[at]) == 0) return values[at];
  return "";
}

int siteLength(const char *key, int otherwise) {
  int length = readLength(siteValue(key));
  return length < 0 ? otherwise : length;
}

int siteSeconds(const char *key, int fallback) {
  const char *value = siteValue(key);
  char *end;
  long number = strtol(value, &end, 10);
  if (end == value || number < 0 || number > 86400) return fallback;
  if (strcmp(end, "") == 0 || strcmp(end, "s") == 0) return static_cast<int>(number);
  return strcmp(end, "m") == 0 && number <= 1440 ? static_cast<int>(number * 60) : fallback;
}

void forgetSite() {
  loaded = false;
  memset(areaSound, 0, sizeof areaSound);
  memset(values, 0, sizeof values);
  for (int at = 0; at < static_cast<int>(Pause::kCount); at++) setPause(static_cast<Pause>(at), -1);
}

}  // namespace base
