// Cuts the answer to one request out of what the daemon sends.
//
// The answer is the request's own text, as it was written, then the end-of-command line "ZuL_DoNe.
// n\n" with the exit status of the request's process, then the prompt "ZuL>" for the next request.
// The text need not end in a line feed and may arrive in any pieces, so the end line is recognised
// together with the prompt behind it (or the end of the stream), wherever it begins.
#pragma once
#include <stddef.h>

#include <string>
#include <string_view>

namespace console {

constexpr std::string_view kPrompt = "ZuL>";

class ReplyParser {
 public:
  // With data, the answer may be "DATA n\n" and n raw bytes, in which nothing is looked for.
  explicit ReplyParser(bool data = false) : mayBeData_(data) {}

  // Takes what has arrived; returns what of it is text of the answer. Nothing may be fed after the
  // end.
  std::string feed(std::string_view bytes);
  // The stream has ended: returns the text that was held back as a possible end line.
  std::string finish();

  // The end line has been seen; its status is 0 to 255, or 256 and the number of the signal that
  // killed the process.
  bool ended() const { return ended_; }
  int status() const { return status_; }
  // A whole line of the answer began with "TRANSFER OK": the request was accepted and may go on for
  // long.
  bool accepted() const { return accepted_; }
  // Raw bytes announced by "DATA n" and not yet seen; not 0 at the end means that the answer is cut
  // off.
  size_t dataMissing() const { return dataLeft_; }

 private:
  void takeData(std::string &text);
  void watchLines(std::string_view text);

  std::string pending_;
  std::string line_;  // the beginning of the line that text is in, as far as it matters
  bool mayBeData_;
  size_t dataLeft_ = 0;
  bool ended_ = false;
  bool accepted_ = false;
  int status_ = 0;
};

}  // namespace console
