// The symbols a host lends, for tests that call the module's functions directly. The splitting and
// copying helpers are the daemon's own (host/lent.cpp); the login is played.
#include <zul/host.h>

#include "support.h"

char ZULhome[256];
FILE *backuplog;
FILE *fplog;
char cmdname[64];

namespace support {
HostPlay hostPlay;
}

int initpass(void) {
  support::hostPlay.calls += 'i';
  return 0;
}

int autoLogin(int sd) {
  support::hostPlay.calls += 'a';
  return support::hostPlay.login ? support::hostPlay.login(sd) : support::hostPlay.loginResult;
}
