// The digest of a run. Runs in the packer and in the extracter; docs/formats/mrepjob.md says what
// is hashed, byte by byte.
#include "mrepl/treedigest.h"

#include <inttypes.h>
#include <stdio.h>
#include <string.h>

#include <new>

#include "base/hash.h"
#include "mrepl/run.h"

namespace mrepl {

namespace {

bool hasContent(const mfilehead &header) {
  return header.type == kFile || header.type == kLink;
}

void addNumber(base::Hash *hash, uint64_t value) {
  unsigned char bytes[8];
  for (int at = 0; at < 8; at++) bytes[at] = static_cast<unsigned char>(value >> (56 - 8 * at));
  hash->add(bytes, sizeof bytes);
}

}  // namespace

void TreeDigest::begin() {
  end();
  whole_ = new (std::nothrow) base::Hash;
  content_ = new (std::nothrow) base::Hash;
  if (!whole_ || !content_ || !whole_->begin() || !content_->begin()) end();
}

void TreeDigest::end() {
  delete whole_;
  delete content_;
  whole_ = content_ = nullptr;
}

void TreeDigest::content(const void *data, size_t length) {
  if (content_) content_->add(data, length);
}

void TreeDigest::newEntry() {
  if (content_) content_->begin();
}

void TreeDigest::entry(const mfilehead &header, uint64_t size) {
  if (!whole_) return;
  whole_->add(header.name, strnlen(header.name, sizeof header.name));
  unsigned char behind[2] = {0, header.type};
  whole_->add(behind, sizeof behind);
  addNumber(whole_, size);
  addNumber(whole_, hasContent(header) ? content_->value() : 0);
}

void TreeDigest::text(char *out) const {
  out[0] = '\0';
  if (whole_) snprintf(out, kTextBytes, "%016" PRIx64, whole_->value());
}

}  // namespace mrepl
