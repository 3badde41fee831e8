#include "base/hash.h"

#include <dlfcn.h>

namespace base {

namespace {

// The library's own calls; their state is opaque to us. xxhash.h would give the types, but not
// without linking.
struct Library {
  bool tried;
  void *(*create)();
  int (*free)(void *state);
  int (*reset)(void *state);
  int (*update)(void *state, const void *data, size_t n);
  uint64_t (*digest)(const void *state);
} library;

template <typename Function>
bool resolve(void *handle, const char *name, Function *to) {
  *to = reinterpret_cast<Function>(dlsym(handle, name));
  return *to != nullptr;
}

bool load() {
  if (library.tried) return library.digest != nullptr;
  library.tried = true;
  void *handle = dlopen("libxxhash.so.0", RTLD_NOW | RTLD_LOCAL);
  bool whole = handle && resolve(handle, "XXH3_createState", &library.create) &&
               resolve(handle, "XXH3_freeState", &library.free) &&
               resolve(handle, "XXH3_64bits_reset", &library.reset) &&
               resolve(handle, "XXH3_64bits_update", &library.update) &&
               resolve(handle, "XXH3_64bits_digest", &library.digest);
  if (!whole) library.digest = nullptr;
  return whole;
}

}  // namespace

Hash::~Hash() {
  if (state_) library.free(state_);
}

bool Hash::available() {
  return load();
}

bool Hash::begin() {
  if (!state_ && load()) state_ = library.create();
  return state_ && library.reset(state_) == 0;
}

void Hash::add(const void *data, size_t n) {
  if (state_) library.update(state_, data, n);
}

uint64_t Hash::value() const {
  return state_ ? library.digest(state_) : 0;
}

}  // namespace base
