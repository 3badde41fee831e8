// Takes an operator's lines from the console, behind the request that asked for them. Runs in the
// process of that request.
#include "mrepl/upload.h"

#include <string.h>
#include <unistd.h>
#include <zul/net.h>
#include <zul/tape.h>

namespace mrepl {

namespace {

bool begins(const char *line, const char *with) {
  return strncmp(line, with, strlen(with)) == 0;
}

}  // namespace

UploadReader::Got UploadReader::next() {
  while (zul_getline(STDIN_FILENO, line_, sizeof line_) > 0) {
    // The second mark is a console's own word for the end of a request; a tool that is cut off may
    // echo it.
    if (begins(line_, "UpLoAd_DoNe.") || begins(line_, "ZuL_DoNe.")) return Got::endMark;
    if (!begins(line_, "ZuL>")) continue;
    stripCtrl(line_ + kPromptLength);
    return Got::line;
  }
  return Got::endOfStream;
}

}  // namespace mrepl
