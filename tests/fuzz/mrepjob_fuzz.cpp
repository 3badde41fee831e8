// A job file of any bytes: it is read, printed in both behaviours and released, its lists end as
// they must, and what a sound site prints reads back as the same job.
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>
#include <zul/host.h>
#include <zul/mrepl.h>

#include <string>

#include "base/site.h"
#include "base/text.h"
#include "fuzzhome.h"

namespace {

void setSite(const char *text) {
  FILE *site = fopen(base::HomePath("etc/ZULsite"), "we");
  if (!site || fputs(text, site) < 0 || fclose(site) != 0) abort();
  base::forgetSite();
}

void writeJob(int number, const void *data, size_t size) {
  FILE *out = fopen(base::HomePath("var/tape/mrepljobs/mrepjob.%i", number), "we");
  if (!out || (size > 0 && fwrite(data, size, 1, out) != 1) || fclose(out) != 0) abort();
}

// What a job prints.
std::string print(int number) {
  fflush(stderr);
  int kept = dup(2), file = memfd_create("printed", 0);
  dup2(file, 2);
  int result = mreplgetjob(number);
  dup2(kept, 2);
  close(kept);
  std::string text(static_cast<size_t>(lseek(file, 0, SEEK_END)), '\0');
  if (pread(file, text.data(), text.size(), 0) != static_cast<ssize_t>(text.size()) || result != 0)
    abort();
  close(file);
  return text;
}

void walk(const strNode *node) {
  for (; node->next; node = node->next)
    if (!node->text) abort();
  if (node->text) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (ZULhome[0] == '\0') fuzz::makeHome({"etc", "var/tape/mrepljobs"});
  setSite("behaviour = sound\n");
  writeJob(1, data, size);
  MreplJobData job = {};
  if (readMreplJobData(&job, 1) != 0) abort();
  for (const strNode *list : {&job.hostList, &job.requestList, &job.excludeList, &job.lastList})
    walk(list);
  for (const pairNode *pair = &job.xformList; pair->next; pair = pair->next)
    if (!pair->from || !pair->to) abort();
  char name[256] = "/etc/hosts";
  setXformDataStruct(&job.xformList);
  addPrefix(1, job.prefix);
  xformPrefix(name);
  addPrefix(0, name);
  setXformDataStruct(nullptr);
  cncfree(&job);

  // A parse error says so on the way; only the lines of the job are compared.
  std::string once = print(1);
  size_t from = once.find("Description: ");
  if (from == std::string::npos) abort();
  once = once.substr(from);
  // Lines that are too long for the parser with their keyword in front are cut by it.
  for (size_t at = 0, feed; (feed = once.find('\n', at)) != std::string::npos; at = feed + 1)
    if (feed - at > 2000) return 0;
  writeJob(2, once.data(), once.size());
  std::string again = print(2);
  again = again.substr(again.find("Description: "));
  setSite("");
  print(1);
  // An empty description and none print alike but for a blank; after one round nothing changes.
  writeJob(3, again.data(), again.size());
  setSite("behaviour = sound\n");
  std::string third = print(3);
  if (third.substr(third.find("Description: ")) != again) abort();
  return 0;
}
