// Reads the file of the site's encryption key, in every process that encrypts, and in "zul key".
#include "scram/keyfile.h"

#include <errno.h>
#include <fcntl.h>
#include <sodium.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

namespace scram {

namespace {

constexpr size_t kFileMost = 255;
constexpr char kBlanks[] = " \t\r\n";

// Why the file is not to be trusted, or null.
const char *objection(const struct stat &status) {
  if (!S_ISREG(status.st_mode)) return "is no regular file";
  if (status.st_uid != 0 && status.st_uid != geteuid())
    return "belongs to another user than root or this one";
  if ((status.st_mode & 077) != 0) return "may be read or written by others: chmod 600";
  return nullptr;
}

// Bytes read, at most kFileMost + 1, or -1.
ssize_t readAll(int fd, char *text) {
  size_t have = 0;
  while (have <= kFileMost) {
    ssize_t got = read(fd, text + have, kFileMost + 1 - have);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return -1;
    if (got == 0) break;
    have += static_cast<size_t>(got);
  }
  return static_cast<ssize_t>(have);
}

bool parse(const char *text, size_t length, uint8_t *key) {
  while (length > 0 && memchr(kBlanks, text[length - 1], sizeof kBlanks - 1)) length--;
  while (length > 0 && memchr(kBlanks, *text, sizeof kBlanks - 1)) text++, length--;
  size_t bytes = 0;
  return length == 2 * kKeyBytes &&
         sodium_hex2bin(key, kKeyBytes, text, length, nullptr, &bytes, nullptr) == 0 &&
         bytes == kKeyBytes;
}

}  // namespace

bool readKey(const char *path, uint8_t *key, char *why, size_t whySize) {
  // Not blocking: a named pipe in the place of the file must not stop a transfer.
  int fd = open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  struct stat status;
  if (fd < 0 || fstat(fd, &status) != 0) {
    snprintf(why, whySize, "cannot open %s: %s", path, strerrordesc_np(errno));
    if (fd >= 0) close(fd);
    return false;
  }
  const char *wrong = objection(status);
  char text[kFileMost + 1];
  ssize_t length = wrong ? 0 : readAll(fd, text);
  if (!wrong && (length < 0 || !parse(text, static_cast<size_t>(length), key)))
    wrong = "does not hold 64 hexadecimal digits";
  sodium_memzero(text, sizeof text);
  close(fd);
  if (wrong) snprintf(why, whySize, "%s %s", path, wrong);
  return !wrong;
}

void fingerprint(const uint8_t *key, char *text) {
  constexpr char kLabel[] = "ZUL key fingerprint";
  uint8_t hash[16];
  crypto_generichash(hash, sizeof hash, reinterpret_cast<const uint8_t *>(kLabel),
                     sizeof kLabel - 1, key, kKeyBytes);
  for (size_t at = 0; at < sizeof hash; at++) {
    if (at > 0 && at % 2 == 0) *text++ = ' ';
    snprintf(text, 3, "%02x", hash[at]);
    text += 2;
  }
}

}  // namespace scram
