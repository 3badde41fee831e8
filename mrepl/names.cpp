// What becomes of a header's name and permissions before it is sent: the job's transforms, its
// prefix, its permission words. Settings of the packer's process, set once at the start of a run.
#include <arpa/inet.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <zul/host.h>
#include <zul/mrepl.h>

#include "base/fd.h"
#include "base/lines.h"
#include "base/log.h"
#include "base/site.h"
#include "base/text.h"
#include "mrepl/jobfile.h"
#include "mrepl/run.h"

namespace {

constexpr size_t kNameRoom = 256;
constexpr size_t kPrefixMost = 256;
constexpr uint8_t kDirectory = 2;

// Bits of a permission word above the permissions, and the one permission with rules of its own.
constexpr uint32_t kKeepMode = 0x1000;
constexpr uint32_t kKeepGroup = 0x2000;
constexpr uint32_t kKeepOwner = 0x4000;
constexpr uint32_t kAllowSetUser = 0x8000;
constexpr uint32_t kSetUser = 0x800;

pairNode transforms;  // the first pair, copied, and the link to the job's others
pairNode listed;      // pairs that were read from a file

char prefix[kPrefixMost + 2];
bool prefixing;

struct Template {
  uint32_t owner, group, word;
};
Template files, directories;

void freePairs(pairNode *first) {
  free(first->from);
  free(first->to);
  for (pairNode *node = first->next; node;) {
    pairNode *next = node->next;
    free(node->from);
    free(node->to);
    free(node);
    node = next;
  }
  *first = {};
}

// The second pair, or null: lists end with an empty node.
const pairNode *secondPair() {
  return transforms.next && transforms.next->from ? transforms.next : nullptr;
}

bool matches(const char *from, const char *name, size_t nameLength) {
  size_t length = strlen(from);
  if (!base::sound(base::Area::multicast))
    return length == nameLength && memcmp(from, name, length) == 0;
  // Else "/etc /backup/etc" would rename the directory and leave all that lies in it where it is.
  // "/etc" does not stand at the front of "/etcetera": a prefix ends where a component does.
  if (length > nameLength || strncmp(from, name, length) != 0) return false;
  return length == nameLength || name[length] == '/' || (length > 0 && from[length - 1] == '/');
}

// 1, or (sound) -1 where a cut name would be another file's.
int putName(char *name, size_t nameLength, size_t fromLength, const char *to) {
  char changed[kNameRoom];
  int length = snprintf(changed, sizeof changed, "%s%.*s", to,
                        static_cast<int>(nameLength - fromLength), name + fromLength);
  if (base::sound(base::Area::multicast) && static_cast<size_t>(length) >= sizeof changed)
    return -1;
  base::copyField(name, kNameRoom, changed);
  return 1;
}

void applyTemplate(mfilehead *header, const Template &wanted, bool isDirectory) {
  uint32_t own = ntohl(header->mode), mode = own;
  // Directories too ask the files' word: that is how installed senders do it.
  bool allowSetUser = (files.word & kAllowSetUser) != 0;
  if (!(wanted.word & kKeepOwner)) header->owner = htonl(wanted.owner);
  if (!(wanted.word & kKeepGroup)) header->group = htonl(wanted.group);
  if (wanted.word & kKeepMode) {
    if (!allowSetUser) mode &= ~kSetUser;
  } else {
    mode = wanted.word;
    if (!isDirectory && allowSetUser) mode |= own & kSetUser;
  }
  header->mode = htonl(mode);
}

int addPair(pairNode *first, const char *from, size_t fromLength, const char *to) {
  pairNode *node = first;
  while (node->next) node = node->next;
  auto *last = static_cast<pairNode *>(calloc(1, sizeof(pairNode)));
  if (!last) return -1;
  node->from = strndup(from, fromLength);
  node->to = strdup(to);
  node->next = last;
  return node->from && node->to ? 0 : -1;
}

}  // namespace

void setXformDataStruct(pairNode *first) {
  free(transforms.from);
  free(transforms.to);
  transforms = {};
  if (!first || !first->from) return;
  transforms.from = strdup(first->from);
  transforms.to = strdup(first->to ? first->to : "");
  transforms.next = first->next;
}

int getNextXformPair(int mode, char **from, char **to) {
  const pairNode *second = mode == 1 ? secondPair() : nullptr;
  const pairNode *pair = second ? second : &transforms;
  *from = pair->from;
  *to = pair->to;
  return pair->from ? 0 : -1;
}

int xformPrefix(char *name) {
  size_t length = strnlen(name, kNameRoom);
  int tried = 0;
  for (const pairNode *pair = &transforms; pair && pair->from && pair->to; pair = pair->next) {
    // Installed senders look no further than this, and a job may rely on it.
    if (tried++ == 2 && !base::sound(base::Area::multicast)) return 0;
    if (matches(pair->from, name, length))
      return putName(name, length, strlen(pair->from), pair->to);
  }
  return 0;
}

int addPrefix(int mode, char *text) {
  if (mode == 1) {
    prefixing = text != nullptr;
    if (!text) return 0;
    base::copyText(prefix, kPrefixMost + 1, text);
    size_t length = strlen(prefix);
    if (length == 0 || prefix[length - 1] != '/') prefix[length] = '/', prefix[length + 1] = '\0';
    return 0;
  }
  if (!prefixing) return 0;
  char changed[kNameRoom];
  int length = snprintf(changed, sizeof changed, "%s%.256s", prefix, text);
  if (static_cast<size_t>(length) >= sizeof changed) return 1;
  base::copyField(text, kNameRoom, changed);
  return 0;
}

int modifyPerms(int mode, mfilehead *rec) {
  if (mode == 1) files = {rec->owner, rec->group, rec->mode};
  if (mode == 2) directories = {rec->owner, rec->group, rec->mode};
  if (mode != 0) return 0;
  bool isDirectory = rec->type == kDirectory;
  applyTemplate(rec, isDirectory ? directories : files, isDirectory);
  return 0;
}

int readXformList(const char *path) {
  base::File file(fopen(path, "re"));
  if (!file) return -1;
  setXformDataStruct(nullptr);
  freePairs(&listed);
  base::LineReader lines(file.get(), mrepl::kLineMost);
  while (lines.next()) {
    char *line = lines.text();
    line[strcspn(line, "\r\n")] = '\0';
    char *blank = strchr(line, ' ');
    const char *to = blank ? blank + strspn(blank, " ") : "";
    if (to[0] == '\0') continue;
    if (mrepl::debugging()) base::print(fplog, "DEBUG: Include list entry:  %s\n", line);
    if (addPair(&listed, line, static_cast<size_t>(blank - line), to) != 0) return -1;
  }
  setXformDataStruct(&listed);
  return 0;
}
