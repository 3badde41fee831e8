// The login functions that ZULd lends the module. They run in request processes and in the jobs
// that come of them, which connect to other hosts' agents in the name of this one.
#include <sodium.h>
#include <zul/host.h>

#include <new>
#include <string>

#include "host/login.h"

namespace {

// Filled by initpass. Plain bytes, so that the page they lie in can be kept out of the swap space.
unsigned char secret[login::kKeyBytes];
bool tried = false;
bool known = false;

bool readOwnSecret() {
  login::Key key;
  std::string why;
  if (!login::readSecret(std::string(ZULhome) + "/etc/ZULsecret", key, why)) return false;
  (void)!sodium_mlock(
      secret, sizeof secret);  // refused where locking is limited; the login works all the same
  for (size_t at = 0; at < sizeof secret; at++) secret[at] = key.bytes[at];
  return true;
}

}  // namespace

int initpass(void) {
  // A secret that was found stays; one that was missing is looked for again, it may be there by
  // now.
  if (known) return 0;
  tried = true;
  try {
    known = readOwnSecret();
  } catch (const std::bad_alloc &) {
    known = false;
  }
  return known ? 0 : -1;
}

int autoLogin(int sd) {
  if (!tried) initpass();
  if (!known) return -1;
  try {
    login::Key key;
    for (size_t at = 0; at < sizeof secret; at++) key.bytes[at] = secret[at];
    return login::clientLoginNode(sd, key) ? 0 : -1;
  } catch (const std::bad_alloc &) {
    return -1;
  }
}
