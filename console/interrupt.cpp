// What Ctrl-C leaves behind.
#include "console/interrupt.h"

#include <string.h>
#include <unistd.h>

#include "base/text.h"
#include "console/text.h"

namespace console {

namespace {

char note[512];  // put together before: a handler may only write

void sayAndEnd(int number) {
  (void)!write(STDERR_FILENO, note, strlen(note));
  // By the signal itself, so that a shell that runs us in a loop ends too.
  signal(number, SIG_DFL);
  raise(number);
}

}  // namespace

InterruptNote::InterruptNote(const std::string &text) {
  base::copyText(note, sizeof note, ("\nzul: " + oneLine(text) + "\n").c_str());
  struct sigaction say {};
  say.sa_handler = sayAndEnd;
  say.sa_flags = SA_NODEFER;
  sigaction(SIGINT, nullptr, &before_);
  // Whoever started us without interrupts, in the background, wants none.
  if (before_.sa_handler != SIG_IGN) sigaction(SIGINT, &say, nullptr);
}

InterruptNote::~InterruptNote() {
  sigaction(SIGINT, &before_, nullptr);
}

}  // namespace console
