// A site file of any bytes: every question has an answer, and pauses stay within their bounds.
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>
#include <zul/host.h>

#include "base/pause.h"
#include "base/site.h"
#include "base/text.h"
#include "fuzzhome.h"

namespace {}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (ZULhome[0] == '\0') fuzz::makeHome({"etc"});
  int fd = open(base::HomePath("etc/ZULsite"), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0 || write(fd, data, size) != static_cast<ssize_t>(size)) abort();
  close(fd);
  base::forgetSite();
  for (int area = 0; area < static_cast<int>(base::Area::kCount); area++)
    base::sound(static_cast<base::Area>(area));
  for (int pause = 0; pause < static_cast<int>(base::Pause::kCount); pause++)
    if (base::pauseLength(static_cast<base::Pause>(pause)) < 0) abort();
  for (const char *key : {"multicast.sender", "multicast.interface", "no.such.key"})
    if (strlen(base::siteValue(key)) > size) abort();
  return 0;
}
