#include "tape/tapecheck.h"

#include <stdio.h>
#include <zul/tape.h>

#include "base/log.h"
#include "tape/tapeio.h"

int tape::checkInserted(int drive, int tape) {
  base::print(stderr, "Checking tape header\n");
  char number[16];
  snprintf(number, sizeof number, "%i", drive);
  tapehead label = noLabel();
  if (getTapeHead(number, &label) != 0) return -1;
  if (label.tape != tape) {
    base::printBoth("ERROR:  8111  Please insert tape %i, and try again.\n", tape);
  } else if (label.drive != drive) {
    base::printBoth("WARNING:  8112  The tape appears to have been made on an other device\n");
  } else {
    return 0;
  }
  printLabel(label);
  return -1;
}
