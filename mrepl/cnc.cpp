// Job files of multicast replication: reading one into a record, and releasing the record.
//
// Used by the requests about jobs and by the start of a run, in request processes. A job file comes
// from an operator and may hold anything: a line that is no item is passed over, a value that makes
// no sense is reported, and the rest of the file holds.
#include <ctype.h>
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

cmdentry cmdlist[17] = {
    {"Host:", argHost},
    {"Request:", argRequest},
    {"Exclude:", argExclude},
    {"Last:", argLast},
    {"HstGrp:", argHostGroup},
    {"Xform:", argXform},
    {"Description:", argDescription},
    {"Prefix:", argPrefix},
    {"IDnum:", argIDnum},
    {"Speed:", argSpeed},
    {"CntrlFlags:", argCntrlFlags},
    {"UserID:", argUserID},
    {"GroupID:", argGroupID},
    {"FilePerms:", argFilePerm},
    {"DirPerms:", argDirPerm},
    {"Protocol:", argProtocol},
    {nullptr, nullptr},
};

namespace {

constexpr int kNoMemory = -2;
constexpr int kNoPairMemory = -3;

// Puts value into the empty node at the end of a list and a new empty node behind it.
int append(strNode *node, const char *value) {
  while (node->next) node = node->next;
  auto *last = static_cast<strNode *>(calloc(1, sizeof(strNode)));
  char *copy = strdup(value);
  if (!last || !copy) {
    free(last);
    free(copy);
    return kNoMemory;
  }
  node->text = copy;
  node->next = last;
  return 0;
}

int appendPair(pairNode *node, const char *from, size_t fromLength, const char *to) {
  while (node->next) node = node->next;
  auto *last = static_cast<pairNode *>(calloc(1, sizeof(pairNode)));
  char *fromCopy = strndup(from, fromLength), *toCopy = strdup(to);
  if (!last || !fromCopy || !toCopy) {
    free(last);
    free(fromCopy);
    free(toCopy);
    return kNoPairMemory;
  }
  node->from = fromCopy;
  node->to = toCopy;
  node->next = last;
  return 0;
}

int replace(char **text, const char *value) {
  char *copy = strdup(value);
  if (!copy) return kNoMemory;
  free(*text);
  *text = copy;
  return 0;
}

// An empty value leaves the number as it is.
int setNumber(int32_t *number, const char *value) {
  if (value[0] != '\0') *number = base::decimal(value);
  return 0;
}

void freeList(strNode *first) {
  free(first->text);
  for (strNode *node = first->next; node;) {
    strNode *next = node->next;
    free(node->text);
    free(node);
    node = next;
  }
  *first = {};
}

int applyLine(MreplJobData *job, char *line) {
  for (const cmdentry *entry = cmdlist; entry->keyword; entry++) {
    size_t length = strlen(entry->keyword);
    if (strncmp(line, entry->keyword, length) != 0) continue;
    char *value = line + length;
    while (isspace(static_cast<unsigned char>(*value))) value++;
    return entry->handler(job, value);
  }
  return 0;
}

void cutControlCharacters(char *line) {
  size_t length = strlen(line);
  while (length > 0 && iscntrl(static_cast<unsigned char>(line[length - 1]))) length--;
  line[length] = '\0';
}

}  // namespace

int argHost(MreplJobData *job, char *value) {
  return append(&job->hostList, value);
}
int argRequest(MreplJobData *job, char *value) {
  return append(&job->requestList, value);
}
int argExclude(MreplJobData *job, char *value) {
  return append(&job->excludeList, value);
}
int argLast(MreplJobData *job, char *value) {
  return append(&job->lastList, value);
}
int argHostGroup(MreplJobData *job, char *value) {
  return setNumber(&job->hostGroup, value);
}

int argXform(MreplJobData *job, char *value) {
  char *blank = strchr(value, ' ');
  if (!blank) return -1;
  char *to = blank + 1;
  // Two blanks between the words would otherwise put one at the front of every new name.
  if (base::sound(base::Area::multicast)) to += strspn(to, " ");
  return appendPair(&job->xformList, value, static_cast<size_t>(blank - value), to);
}

int argDescription(MreplJobData *job, char *value) {
  return replace(&job->description, value);
}
int argPrefix(MreplJobData *job, char *value) {
  return replace(&job->prefix, value);
}
int argIDnum(MreplJobData *job, char *value) {
  return setNumber(&job->idNum, value);
}
int argSpeed(MreplJobData *job, char *value) {
  return setNumber(&job->speed, value);
}
int argCntrlFlags(MreplJobData *job, char *value) {
  return setNumber(&job->cntrlFlags, value);
}
int argUserID(MreplJobData *job, char *value) {
  return setNumber(&job->userID, value);
}
int argGroupID(MreplJobData *job, char *value) {
  return setNumber(&job->groupID, value);
}
int argFilePerm(MreplJobData *job, char *value) {
  return setNumber(&job->filePerms, value);
}
int argDirPerm(MreplJobData *job, char *value) {
  return setNumber(&job->dirPerms, value);
}

// The number is stored even when there is no such protocol.
int argProtocol(MreplJobData *job, char *value) {
  setNumber(&job->protocol, value);
  return job->protocol >= 0 && job->protocol <= 3 ? 0 : -1;
}

int readMreplJobData(MreplJobData *job, int jobid) {
  job->description = job->prefix = nullptr;
  for (strNode *list : {&job->excludeList, &job->requestList, &job->hostList, &job->lastList})
    *list = {};
  job->xformList = {};
  base::File file(fopen(mrepl::JobPath(jobid), "re"));
  if (!file) return -1;
  base::LineReader lines(file.get(), mrepl::kLineMost);
  bool whole = true;
  while (lines.next()) {
    if (lines.isCommentOrBlank()) continue;
    cutControlCharacters(lines.text());
    int result = applyLine(job, lines.text());
    if (result != 0) base::print(stderr, "NOTICE: Parse error\n");
    // Without one of its excludes or transforms a job sends what it must not, or to where it must
    // not.
    if (result == kNoMemory || result == kNoPairMemory)
      whole = whole && !base::sound(base::Area::multicast);
  }
  if (whole && !lines.outOfMemory()) return 0;
  cncfree(job);
  return -1;
}

void cncfree(MreplJobData *job) {
  free(job->description);
  free(job->prefix);
  job->description = job->prefix = nullptr;
  for (strNode *list : {&job->excludeList, &job->requestList, &job->hostList, &job->lastList})
    freeList(list);
  free(job->xformList.from);
  free(job->xformList.to);
  for (pairNode *node = job->xformList.next; node;) {
    pairNode *next = node->next;
    free(node->from);
    free(node->to);
    free(node);
    node = next;
  }
  job->xformList = {};
}
