// JSON as the module writes it: by hand, because it brings no library, and only texts need care.
#pragma once
#include <stdio.h>

namespace base {

// Writes text as a JSON string; bytes that are no UTF-8 become U+FFFD.
void writeJsonText(FILE *out, const char *text);

}  // namespace base
