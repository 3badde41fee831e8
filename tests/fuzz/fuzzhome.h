// A home for a fuzz driver, in memory, that goes with it.
#pragma once
#include <stdio.h>
#include <stdlib.h>
#include <zul/host.h>

#include <filesystem>
#include <initializer_list>

namespace fuzz {

inline void makeHome(std::initializer_list<const char *> folders) {
  char name[] = "/dev/shm/zulfuzz.XXXXXX";
  if (!mkdtemp(name)) abort();
  snprintf(ZULhome, sizeof ZULhome, "%s", name);
  atexit([] { std::filesystem::remove_all(ZULhome); });
  for (const char *folder : folders)
    std::filesystem::create_directories(std::filesystem::path(name) / folder);
  backuplog = fplog = fopen("/dev/null", "we");
}

}  // namespace fuzz
