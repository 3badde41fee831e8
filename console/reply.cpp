// Takes the bytes of a connection as they come and cuts them into the request's own text and its
// end. It knows nothing of sockets, so that the tests can feed it any pieces.
#include "console/reply.h"

#include <ctype.h>
#include <stdlib.h>

#include <algorithm>

namespace console {

namespace {

constexpr std::string_view kEndWord = "ZuL_DoNe. ";
constexpr std::string_view kAccepted = "TRANSFER OK";
constexpr std::string_view kData = "DATA ";

enum class Match { no, partly, yes };

struct EndLine {
  Match match = Match::no;
  size_t lineEnd = 0;  // offset behind the line feed, once that is there
  int status = 0;
};

// Looks at text for an end line at its very beginning.
EndLine matchEnd(std::string_view text) {
  EndLine end;
  size_t word = std::min(text.size(), kEndWord.size());
  if (text.substr(0, word) != kEndWord.substr(0, word)) return end;
  size_t at = word;
  while (at < text.size() && at < word + 3 && isdigit(static_cast<unsigned char>(text[at])))
    end.status = end.status * 10 + (text[at++] - '0');
  end.match = Match::partly;
  if (at == text.size()) return end;
  if (at == word || text[at] != '\n') return EndLine();
  end.lineEnd = at + 1;
  std::string_view behind = text.substr(end.lineEnd).substr(0, kPrompt.size());
  if (behind == kPrompt) end.match = Match::yes;
  if (behind != kPrompt.substr(0, behind.size())) return EndLine();
  return end;
}

}  // namespace

std::string ReplyParser::feed(std::string_view bytes) {
  pending_ += bytes;
  std::string text;
  takeData(text);
  if (mayBeData_ || dataLeft_ > 0) return text;
  size_t at = 0;
  for (; (at = pending_.find(kEndWord[0], at)) != pending_.npos; at++) {
    EndLine end = matchEnd(std::string_view(pending_).substr(at));
    if (end.match == Match::no) continue;
    ended_ = end.match == Match::yes;
    status_ = end.status;
    break;
  }
  std::string shown = pending_.substr(0, at);
  pending_.erase(0, ended_ ? pending_.size() : shown.size());
  watchLines(shown);
  return text + shown;
}

// "DATA n\n" opens the answer or it is an ordinary one; then n bytes belong to the text whatever
// they are.
void ReplyParser::takeData(std::string &text) {
  if (mayBeData_) {
    size_t word = std::min(pending_.size(), kData.size());
    size_t lineEnd = pending_.find('\n');
    if (pending_.substr(0, word) != kData.substr(0, word)) {
      mayBeData_ = false;
    } else if (lineEnd != pending_.npos) {
      dataLeft_ = strtoull(pending_.c_str() + kData.size(), nullptr, 10);
      mayBeData_ = false;
      text = pending_.substr(0, lineEnd + 1);
      pending_.erase(0, lineEnd + 1);
    }
  }
  size_t taken = std::min(dataLeft_, pending_.size());
  text += pending_.substr(0, taken);
  pending_.erase(0, taken);
  dataLeft_ -= taken;
}

void ReplyParser::watchLines(std::string_view text) {
  for (char byte : text) {
    if (byte == '\n') {
      if (line_ == kAccepted) accepted_ = true;
      line_.clear();
    } else if (line_.size() < kAccepted.size()) {
      line_ += byte;
    }
  }
}

std::string ReplyParser::finish() {
  EndLine end = matchEnd(pending_);
  std::string text;
  if (!ended_ && end.lineEnd > 0) {
    ended_ = true;
    status_ = end.status;
  } else if (!ended_) {
    text.swap(pending_);
  }
  pending_.clear();
  return text;
}

}  // namespace console
