// Lines of strangers: what parses as a claim or greeting keeps its shape, and none of it proves a
// key.
#include <stdint.h>
#include <stdlib.h>

#include <string_view>

#include "host/login.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::string_view line(reinterpret_cast<const char *>(data), size);
  static const login::Key key = login::newSecret();
  static const login::Nonce server = login::newNonce();
  login::Claim claim;
  if (login::parseClaim(line, claim)) {
    if (!login::isName(claim.name) || size >= login::kMaxLine) abort();
    if (login::proofHolds(claim, server, key)) abort();
    if (login::acceptance(claim, server, key).size() != 3 + 2 * login::kMacBytes + 1) abort();
  }
  login::Nonce nonce;
  if (login::parseGreeting(line, nonce) && login::greeting(nonce) != std::string(line) + "\n")
    abort();
  if (login::acceptanceHolds(line, "alpha", server, nonce, key)) abort();
  login::Key parsed;
  if (login::parseKey(line, parsed) && login::keyText(parsed).size() != 2 * login::kKeyBytes)
    abort();
  return 0;
}
