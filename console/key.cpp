// zul key: the key with which the hosts of a site encrypt what they send each other. Whether a
// stream is encrypted is settled between its two agents; here the key is made and looked at.
#include <dlfcn.h>
#include <sodium.h>

#include <memory>

#include "console/commands.h"
#include "console/places.h"
#include "console/text.h"
#include "host/login.h"
#include "scram/keyfile.h"

namespace console {

namespace {

constexpr const char *kHooks[] = {"crywriten", "cryreadn", "cryreadnline"};

std::string keyPath(const std::string &home) {
  if (!isHome(home))
    throw Failure(Exit::failed, home + " is no home",
                  "Make one with: zul --home " + home + " init");
  return home + "/etc/ZULkey";
}

std::string fingerprintOf(const std::string &home) {
  std::string path = keyPath(home);
  if (!exists(path))
    throw Failure(
        Exit::failed, "there is no key " + path + "; nothing is encrypted",
        "Make one with \"zul key new\" on one host of the site and copy it to the others.");
  uint8_t key[scram::kKeyBytes];
  char why[512], text[scram::kFingerprintText];
  if (!scram::readKey(path.c_str(), key, why, sizeof why))
    throw Failure(Exit::failed, why, "As it is, every encrypted transfer of this host is refused.");
  scram::fingerprint(key, text);
  sodium_memzero(key, sizeof key);
  return text;
}

// Loads the library as the agent does.
void checkLibrary(const std::string &path) {
  constexpr const char *kHint = "\"zul init --force\" puts it in place.";
  std::unique_ptr<void, int (*)(void *)> library(dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL),
                                                 dlclose);
  if (!library)
    throw Failure(Exit::failed, std::string("the encryption library cannot be used: ") + dlerror(),
                  kHint);
  for (const char *hook : kHooks)
    if (!dlsym(library.get(), hook))
      throw Failure(Exit::failed, path + " is no encryption library: it has no " + hook, kHint);
}

}  // namespace

Exit newKey(const std::string &home, bool force) {
  std::string path = keyPath(home), why;
  if (exists(path) && !force)
    throw Failure(Exit::failed, path + " is there already; nothing was changed",
                  "With --force it is replaced: hosts that have the old one are refused until they "
                  "get the new one.");
  if (!login::writeSecret(path, login::newSecret(), force, why))
    throw Failure(Exit::failed, "cannot write the key " + path + ": " + why);
  printOut("New key " + path + ", fingerprint " + fingerprintOf(home) +
           "\n"
           "Every host of the site needs the same file, by a way that nobody reads with you:\n"
           "  scp -p " +
           path + " OTHERHOST:" + path +
           "\n"
           "It belongs to the user the agent runs as, mode 600. Then compare, on each of them:\n"
           "  zul key show-fingerprint\n");
  return Exit::done;
}

Exit showFingerprint(const std::string &home) {
  printOut(fingerprintOf(home) + "\n");
  return Exit::done;
}

Exit checkKey(const std::string &home) {
  std::string fingerprint = fingerprintOf(home), library = home + "/bin/libscram.so";
  checkLibrary(library);
  printOut("key      " + home + "/etc/ZULkey, fingerprint " + fingerprint + "\nlibrary  " +
           library +
           "\nThis host can encrypt what it exchanges with hosts that have the same key.\n");
  return Exit::done;
}

}  // namespace console
