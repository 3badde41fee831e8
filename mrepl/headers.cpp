// What a receiving host does to headers besides acting on them: byte order, messages, the hooks of
// a cipher.
#include <zul/host.h>
#include <zul/mrepl.h>

#include <initializer_list>

#include "base/log.h"

namespace {

void toHost(uint32_t *field) {
  *field = unpackul(field);
}

// The text behind the name for each code.
struct Text {
  int code;
  const char *format;
};
constexpr Text kTexts[] = {
    {-9, "NOTICE:  Failed to replicate >%.256s< could not make symbolic link!\n"},
    {-8,
     "NOTICE:  Failed to replicate >%.256s< device file already exists with different "
     "major/minor!\n"},
    {-7, "NOTICE:  Failed to replicate >%.256s< could not make device!\n"},
    {-6, "NOTICE:  Failed to replicate >%.256s< could not open file!\n"},
    {-5, "NOTICE:  Failed to replicate >%.256s< could not mmap file!\n"},
    {-4, "NOTICE:  Failed to replicate >%.256s< could not create directory for it!\n"},
    {-3, "NOTICE:  Failed to replicate >%.256s< a file with that name already exists!\n"},
    {-2, "NOTICE:  File >%.256s< replicated, but failed to set permissions.\n"},
    {-1, "NOTICE:  File >%.256s< replicated, but failed to set ownership.\n"},
};

}  // namespace

void convertFileEndian(mfilehead *header) {
  for (uint32_t *field :
       {&header->magic, &header->owner, &header->group, &header->mode, &header->mtime,
        &header->atime, &header->size, &header->reserved4, &header->rdev})
    toHost(field);
}

void logError(mfilehead *header, int code) {
  if (code == -10) {
    // The name is not trustworthy there.
    base::print(fplog, "NOTICE:  Failed to replicate >u5e6hjytrsjn<.  Data stream error!\n");
    return;
  }
  for (const Text &text : kTexts) {
    if (text.code != code) continue;
    base::print(fplog, text.format, header->name);
    return;
  }
  if (header->name[0] != '\0')
    base::print(fplog, "NOTICE:  Failed to replicate >%.256s< unknown error number %i!\n",
                header->name, code);
}

int decryptHeader(mfilehead *) {
  return 0;
}

int decryptBlock(void *, int) {
  return 0;
}
