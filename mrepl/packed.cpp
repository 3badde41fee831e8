// Counts and digest of what is packed, in a page that packer and data sender share.
#include "mrepl/packed.h"

#include <sys/mman.h>
#include <unistd.h>

#include "base/json.h"
#include "mrepl/run.h"

namespace mrepl {

Packed packed;

namespace {

// More names than this help nobody; the count is always right.
constexpr uint64_t kMostNamed = 1000;

uint64_t load(const uint64_t &value) {
  return __atomic_load_n(&value, __ATOMIC_ACQUIRE);
}
void add(uint64_t &value, uint64_t more) {
  __atomic_store_n(&value, value + more, __ATOMIC_RELEASE);
}

}  // namespace

void Packed::begin() {
  end();
  if (!soundRun()) return;
  void *page =
      mmap(nullptr, sizeof(Count), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (page == MAP_FAILED) return;
  shared_ = static_cast<Count *>(page);
  list_ = tmpfile();
  digest_.begin();
}

void Packed::end() {
  if (shared_) munmap(shared_, sizeof(Count));
  if (list_) fclose(list_);
  digest_.end();
  *this = Packed{};
}

void Packed::newEntry() {
  if (shared_) digest_.newEntry();
}

void Packed::content(const void *data, size_t length) {
  if (shared_) digest_.content(data, length);
}

void Packed::done(const mfilehead &header, uint64_t size) {
  // Of other types nothing is made on the receivers.
  bool made = header.type == kFile || header.type == kDirectory || header.type == kLink ||
              header.type == kBlockDevice || header.type == kCharDevice;
  if (!shared_ || !made) return;
  digest_.entry(header, size);
  add(shared_->entries, 1);
  add(shared_->bytes, size);
}

void Packed::unsent(const char *path, const char *reason) {
  if (!shared_) return;
  if (list_ && shared_->unsent < kMostNamed) {
    fputs(shared_->unsent > 0 ? ",\n{\"name\":" : "\n{\"name\":", list_);
    base::writeJsonText(list_, path);
    fputs(",\"error\":", list_);
    base::writeJsonText(list_, reason);
    putc('}', list_);
    fflush(list_);
  }
  add(shared_->unsent, 1);
}

void Packed::finish() {
  if (!shared_) return;
  digest_.text(shared_->digest);
  __atomic_store_n(&shared_->finished, true, __ATOMIC_RELEASE);
}

Packed::Count Packed::count() const {
  if (!shared_) return Count{};
  bool finished = __atomic_load_n(&shared_->finished, __ATOMIC_ACQUIRE);
  Count now = {load(shared_->entries), load(shared_->bytes), load(shared_->unsent), finished, ""};
  for (size_t at = 0; finished && at < sizeof now.digest; at++)
    now.digest[at] = shared_->digest[at];
  return now;
}

void Packed::writeUnsent(FILE *out) const {
  if (!list_) return;
  char block[4096];
  // The packer writes at the end that the two share: reading has an offset of its own.
  long from = 0;
  for (ssize_t n; (n = pread(fileno(list_), block, sizeof block, from)) > 0; from += n)
    fwrite(block, 1, static_cast<size_t>(n), out);
}

}  // namespace mrepl
