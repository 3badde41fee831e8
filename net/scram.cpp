// The encryption switch of a process and the hooks of the encryption library. The cipher is the
// library's alone: here it is only found and its three functions are handed out.
#include <dlfcn.h>
#include <signal.h>
#include <sys/stat.h>
#include <zul/net.h>

#include "base/log.h"
#include "base/text.h"

namespace {

constexpr const char *kLibrary = "bin/libscram.so";
constexpr const char *kNames[3] = {"crywriten", "cryreadn", "cryreadnline"};

int encrypting = 0;
void *kept = nullptr;  // the library, once it is there

// Fills the hooks in the order of kNames; false after a message.
bool findHooks(scramfn *hooks) {
  void *library = dlopen(base::HomePath("%s", kLibrary), RTLD_LAZY);
  if (!library) {
    base::print(stderr, "ERROR: DLerror:  %s\n", dlerror());
    return false;
  }
  // It is opened anew for every transfer; one reference is enough.
  if (library == kept)
    dlclose(library);
  else
    kept = library;
  for (int at = 0; at < 3; at++) {
    dlerror();
    hooks[at] = reinterpret_cast<scramfn>(dlsym(library, kNames[at]));
    if (const char *error = dlerror()) {
      base::print(stderr, "ERROR: %s\n", error);
      return false;
    }
  }
  return true;
}

}  // namespace

int shouldEncrypt(int arg) {
  if (arg == 0 || arg == 1) encrypting = arg;
  return encrypting;
}

int hasScram(void) {
  struct stat status;
  return lstat(base::HomePath("etc/ZULkey"), &status) == 0 &&
         lstat(base::HomePath("%s", kLibrary), &status) == 0;
}

scramfn getScramPtrs(int type) {
  if (!encrypting) return nullptr;
  scramfn hooks[3] = {};
  // The dialogues' alarms jump; a jump out of the loader would leave its lock held and the next
  // transfer waiting for it for ever.
  sigset_t alarm, before;
  sigemptyset(&alarm);
  sigaddset(&alarm, SIGALRM);
  sigprocmask(SIG_BLOCK, &alarm, &before);
  bool found = findHooks(hooks);
  sigprocmask(SIG_SETMASK, &before, nullptr);
  if (!found) return nullptr;
  switch (type) {
    case 1:
      return hooks[1];
    case 2:
      return hooks[0];
    case 3:
      return hooks[2];
    default:
      return nullptr;
  }
}
