#include "base/json.h"

namespace base {

namespace {

// The length of the UTF-8 character at `at`, or 0 when there is none: a stray or missing
// continuation, an overlong form, a surrogate, or a value past the last one.
int utf8Length(const unsigned char *at) {
  if (at[0] < 0x80) return 1;
  int length = at[0] >= 0xf0 ? 4 : at[0] >= 0xe0 ? 3 : 2;
  if (at[0] < 0xc2 || at[0] > 0xf4) return 0;
  for (int i = 1; i < length; i++)
    if ((at[i] & 0xc0) != 0x80) return 0;
  if (at[0] == 0xe0 && at[1] < 0xa0) return 0;
  if (at[0] == 0xed && at[1] > 0x9f) return 0;
  if (at[0] == 0xf0 && at[1] < 0x90) return 0;
  if (at[0] == 0xf4 && at[1] > 0x8f) return 0;
  return length;
}

void writePlain(FILE *out, unsigned char c) {
  if (c < ' ' || c == 0x7f)
    fprintf(out, "\\u%04x", c);
  else if (c == '"' || c == '\\')
    fprintf(out, "\\%c", c);
  else
    putc(c, out);
}

}  // namespace

void writeJsonText(FILE *out, const char *text) {
  putc('"', out);
  for (auto *at = reinterpret_cast<const unsigned char *>(text); *at != '\0';) {
    int length = utf8Length(at);
    if (length == 0) {
      fputs("\\ufffd", out);
      at++;
    } else if (length > 1) {
      fwrite(at, 1, static_cast<size_t>(length), out);
      at += length;
    } else {
      writePlain(out, *at++);
    }
  }
  putc('"', out);
}

}  // namespace base
