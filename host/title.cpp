#include "host/title.h"

#include <stdlib.h>
#include <string.h>
#include <unistd.h>

namespace host {

namespace {

char *area = nullptr;
char **environmentCopy =
    nullptr;  // kept for as long as the process lives: somebody may hold its texts
size_t areaSize = 0;

// The strings lie one behind the other as the kernel put them; what does not follow is not ours to
// write.
char *endOfArea(int argc, char **argv) {
  char *end = argv[0];
  for (int at = 0; at < argc; at++)
    if (argv[at] == end) end += strlen(argv[at]) + 1;
  for (char **entry = environ; *entry; entry++)
    if (*entry == end) end += strlen(*entry) + 1;
  return end;
}

}  // namespace

void prepareTitle(int argc, char **argv) {
  if (argc < 1) return;
  char *end = endOfArea(argc, argv);
  size_t count = 0;
  while (environ[count]) count++;
  environmentCopy = static_cast<char **>(calloc(count + 1, sizeof *environmentCopy));
  if (!environmentCopy) return;
  for (size_t at = 0; at < count; at++)
    if (!(environmentCopy[at] = strdup(environ[at]))) return;
  environ = environmentCopy;
  area = argv[0];
  areaSize = static_cast<size_t>(end - argv[0]);
}

void showTitle(std::string_view text) {
  if (areaSize <= kTitlePrefix.size() + 1) return;
  memset(area, 0, areaSize);
  memcpy(area, kTitlePrefix.data(), kTitlePrefix.size());
  size_t room = areaSize - kTitlePrefix.size() - 1;
  memcpy(area + kTitlePrefix.size(), text.data(), text.size() < room ? text.size() : room);
}

}  // namespace host
