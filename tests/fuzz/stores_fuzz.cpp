// Stores of any bytes: each is listed, looked up and changed, without harm, in both behaviours.
// What a change leaves of the binary ones is whole records; a sound change that failed leaves the
// store as it was.
//
// The first byte picks the store and the behaviour, the rest is its content. The listings go to
// standard error: run with -close_fd_mask=2.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <zul/host.h>
#include <zul/tape.h>

#include <string>

#include "base/site.h"
#include "base/text.h"
#include "fuzzhome.h"

namespace {

void writeFile(const char *relative, const void *data, size_t size) {
  FILE *out = fopen(base::HomePath("%s", relative), "we");
  if (!out || (size > 0 && fwrite(data, size, 1, out) != 1) || fclose(out) != 0) abort();
}

std::string readAll(const char *relative) {
  FILE *in = fopen(base::HomePath("%s", relative), "re");
  if (!in) abort();
  std::string text;
  for (int c; (c = getc(in)) != EOF;) text += static_cast<char>(c);
  fclose(in);
  return text;
}

void setBehaviour(bool sound) {
  const char *line = sound ? "behaviour = sound\n" : "behaviour = classic\n";
  writeFile("etc/ZULsite", line, strlen(line));
  chmod(base::HomePath("etc/ZULsite"), 0600);
  base::forgetSite();
}

// Texts are modified by the operations that take them.
int call(int (*operation)(const char *, char *), const char *key, std::string text) {
  return operation(key, text.data());
}
int call(int (*operation)(char *), std::string text) {
  return operation(text.data());
}

int useDrives(const std::string &content) {
  size_t end = content.find(':');
  std::string key = end < 40 ? content.substr(0, end) : "0";
  int result = call(modDrive, key.c_str(), "3:name:/dev/null:a:b");
  return result != 0 ? result : delDrive("3");
}

int useGroups(const std::string &content) {
  char host[64], hosts[4096];
  int groups[32];
  int group = base::decimal(content.c_str());
  (void)getGrpMember(-1, 1, host);  // out of the cache
  int count = getGrpMember(group, 1, host);
  for (int index = 2; index <= count; index++)
    if (getGrpMember(group, index, host) != count || strlen(host) > 63) abort();
  (void)getGroupHosts(group, hosts);
  if (getHostGrps(count > 0 ? host : "h", groups) > 32) abort();
  (void)getTapeGroup();
  return call(modTapeGroup, "1", "2:h:name");
}

int useJobs(const std::string &content) {
  jobrec job;
  if (content.size() >= sizeof job) {
    memcpy(&job, content.data(), sizeof job);
    if (readJobid(job.job, &job) != 0) abort();
  }
  (void)getJobids();
  int result = call(modJobids, "1", "2:1:0:0:0:0:n");
  if (result == 0 && readAll("var/tape/jobids/index").size() % sizeof job != 0) abort();
  return result;
}

int useReplications(const std::string &content) {
  reprec job;
  if (content.size() >= sizeof job) {
    memcpy(&job, content.data(), sizeof job);
    if (readRepid(job.job, &job) != 0) abort();
    package header{};
    permctrl(1, &job);
    permctrl(0, &header);
  }
  (void)getRepids();
  int result = call(modRepids, "1", "2:1:0:0:0:0:0:0:0:r:/d:n");
  if (result == 0 && readAll("var/tape/jobids/repljobs").size() % sizeof job != 0) abort();
  return result;
}

int useList(const std::string &content) {
  char *slots[128];
  if (readBackupList(7, slots) != 0) abort();
  for (char *slot : slots)
    if (strlen(slot) > 255) abort();
  (void)getBackupList("7");
  (void)call(addBackupList, "7 /added");
  std::string entry = content.substr(0, content.find('\n'));
  return call(delBackupList, "7 " + entry);
}

int useTransforms(const std::string &content) {
  char buffer[9728] = {};
  char *table[32];
  int result = readTransforms(5, buffer, table);
  // More than the table holds is refused, but never in classic.
  if (result != 0 && (result != -1 || !base::sound(base::Area::stores))) abort();
  for (int at = 0; table[at]; at++)
    if (at >= 30 || table[at] < buffer || table[at] + strlen(table[at]) >= buffer + sizeof buffer)
      abort();
  (void)getTrans("5");
  (void)call(addTrans, "5 /ab>/cd");
  return delTrans("5", content.substr(0, content.find('>')).c_str());
}

struct Kind {
  const char *file;
  int (*use)(const std::string &content);
  bool changesOnce;  // its last call is the only change, so a failure must leave a sound store as
                     // it was
};
constexpr Kind kKinds[] = {
    {"etc/tapedevs", useDrives, false},       {"var/tape/jobids/group", useGroups, true},
    {"var/tape/jobids/index", useJobs, true}, {"var/tape/jobids/repljobs", useReplications, true},
    {"var/tape/jobids/7", useList, false},    {"var/tape/jobids/trans.5", useTransforms, false},
};
constexpr size_t kKindCount = sizeof kKinds / sizeof kKinds[0];

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (ZULhome[0] == '\0') fuzz::makeHome({"etc", "var/tape/jobids"});
  if (size == 0) return 0;
  bool sound = (data[0] & 0x80) != 0;
  setBehaviour(sound);
  const Kind &kind = kKinds[(data[0] & 0x7f) % kKindCount];
  std::string content(reinterpret_cast<const char *>(data + 1), size - 1);
  writeFile(kind.file, content.data(), content.size());
  int result = kind.use(content);
  if (result != 0 && sound && kind.changesOnce && readAll(kind.file) != content) abort();
  return 0;
}
