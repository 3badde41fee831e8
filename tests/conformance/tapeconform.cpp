// tapeconform DEVICE [OPERATOR] - every point of the drive interface against one drive, without a
// test framework, so that it runs in a small guest.
//
// The tape in DEVICE is overwritten. OPERATOR is a command that plays the operator; it is called
// with one word: eject, insert, protect or unprotect. A virtual drive is looked for below $ZULHOME.
// Exit status: 0 when everything is as expected, 1 when something differs, 2 for a wrong call.
#include <stdlib.h>
#include <zul/host.h>

#include "conformance.h"

// What a host would lend.
char ZULhome[256];
FILE *backuplog, *fplog;
char cmdname[64];

int main(int argc, char **argv) {
  if (argc < 2 || argc > 3) {
    fprintf(stderr, "usage: tapeconform DEVICE [OPERATOR]\n");
    return 2;
  }
  fplog = backuplog = stderr;
  if (const char *home = getenv("ZULHOME")) snprintf(ZULhome, sizeof ZULhome, "%s", home);
  conformance::Operator hand;
  if (argc == 3) {
    auto call = [command = std::string(argv[2])](const char *word) {
      if (system((command + " " + word).c_str()) != 0)
        fprintf(stderr, "tapeconform: %s %s failed\n", command.c_str(), word);
    };
    hand.eject = [call] { call("eject"); };
    hand.insert = [call] { call("insert"); };
    hand.protect = [call](bool isProtected) { call(isProtected ? "protect" : "unprotect"); };
  }
  int differs = conformance::run(argv[1], stdout, hand);
  printf("tapeconform: %d point(s) differ\n", differs);
  return differs != 0;
}
