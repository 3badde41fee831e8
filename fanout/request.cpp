// Runs an operator's commands on many hosts, for the operator's client: the list of hosts comes as
// an upload behind the request, because it may be longer than a request line, and every answer is a
// line of JSON, so that nothing a host says can be taken for something else.
#include "fanout/request.h"

#include <errno.h>
#include <netdb.h>
#include <stdlib.h>
#include <string.h>
#include <zul/host.h>
#include <zul/net.h>

#include "base/json.h"
#include "base/log.h"
#include "fanout/crowd.h"
#include "mrepl/upload.h"

namespace fanout {

namespace {

constexpr int kCommandsMost = 16;
constexpr size_t kCommandMost = 2000;
constexpr int kHostsMost = 10000;
constexpr int kLimitMost = 86400;

// What is asked of whom.
struct Order {
  MreplJobData hosts = {};  // only its list of hosts is used
  int hostCount = 0;
  char *commands[kCommandsMost + 1] = {};
  int commandCount = 0;
  bool toTheEnd = false;  // "TRANSFER OK" is text like any other
  int limitSeconds = 0;   // 0: the site's

  ~Order() {
    cncfree(&hosts);
    for (char *command : commands) free(command);
  }
};

constexpr const char *kNames[] = {"ok", "failed", "unreachable", "refused", "lost", "timeout"};
enum Name { kOk, kFailed, kUnreachable, kRefused, kLost, kTimeout, kNames_ };

Name nameOf(const Ending &ending) {
  switch (ending.end) {
    case End::accepted:
      return kOk;
    case End::answered:
      return ending.status == 0 ? kOk : kFailed;
    case End::notStarted:
    case End::refused:
      return kUnreachable;
    case End::noResponse:
    case End::silent:
      return kTimeout;
    case End::badLogin:
      return kRefused;
    case End::errorLine:
    case End::flooded:
      return kFailed;
    case End::firstUnsent:
    case End::nextUnsent:
    case End::lost:
      return kLost;
  }
  return kFailed;
}

const char *reasonOf(const Ending &ending) {
  switch (ending.end) {
    case End::accepted:
    case End::answered:
    case End::errorLine:
      return "";
    case End::notStarted:
      return ending.error != 0 ? strerrordesc_np(ending.error) : "the name is not known";
    case End::refused:
      return strerrordesc_np(ending.error);
    case End::noResponse:
      return "no connection in time";
    case End::badLogin:
      return "the login was refused, or took too long";
    case End::silent:
      return "logged in, then no answer in time";
    case End::flooded:
      return "more text than any command says";
    case End::firstUnsent:
    case End::nextUnsent:
    case End::lost:
      return "the connection was lost";
  }
  return "";
}

// Standard error is unbuffered: a line is put together first, so that it goes out in one piece.
class JsonLine {
 public:
  JsonLine() : out_(open_memstream(&text_, &length_)) {}
  ~JsonLine() {
    if (out_) {
      fclose(out_);
      fwrite(text_, 1, length_, stderr);
    }
    free(text_);
  }
  JsonLine(const JsonLine &) = delete;
  JsonLine &operator=(const JsonLine &) = delete;

  void text(const char *key, const char *value) {
    base::print(out_, "%s\"%s\":", divider_, key);
    if (out_) base::writeJsonText(out_, value);
    divider_ = ",";
  }
  void number(const char *key, int value) {
    base::print(out_, "%s\"%s\":%i", divider_, key, value);
    divider_ = ",";
  }
  void close() { base::print(out_, "}\n"); }

 private:
  char *text_ = nullptr;
  size_t length_ = 0;
  FILE *out_;
  const char *divider_ = "{";
};

class JsonReport : public Audience {
 public:
  explicit JsonReport(bool toTheEnd) : toTheEnd_(toTheEnd) {}

  int connects(const char *host) override {
    h_errno = 0;
    int sd = mkZULagentSD_nb_Real(host, 0);
    // A name that is not known leaves some errno of the look-up behind.
    if (sd < 0 && h_errno != 0) errno = 0;
    return sd;
  }
  void logsIn(hostEntry &) override {}
  void isAsked(hostEntry &) override {}
  void says(hostEntry &entry, const char *line) override {
    saveResponse(&entry, line);
    if (entry.fill <= kPrintAbove) return;
    JsonLine json;
    json.text("host", entry.host);
    json.text("text", takeText(entry));
    json.close();
  }
  bool endsAtAcceptance() const override { return !toTheEnd_; }
  bool endsAtError() const override { return false; }
  void ends(hostEntry &entry, const Ending &ending) override {
    Name name = nameOf(ending);
    counts_[name]++;
    JsonLine json;
    json.text("host", entry.host);
    json.text("result", kNames[name]);
    json.number("status", ending.end == End::answered ? ending.status : name == kOk ? 0 : -1);
    json.number("ms", ending.elapsedMs);
    json.text("why", reasonOf(ending));
    json.text("text", takeText(entry));
    json.close();
  }
  bool isGood(const Ending &ending) const override { return nameOf(ending) == kOk; }

  void sumUp(int hosts) {
    JsonLine json;
    json.number("hosts", hosts);
    for (int name = 0; name < kNames_; name++) json.number(kNames[name], counts_[name]);
    json.close();
  }

 private:
  // Empties the buffer; the text in it lives until more is saved.
  static const char *takeText(hostEntry &entry) {
    entry.fill = 0;
    return entry.buf ? entry.buf : "";
  }

  bool toTheEnd_;
  int counts_[kNames_] = {};
};

int refuse(const char *why) {
  base::print(stderr, "ERROR:  %s\n", why);
  return 1;
}

// The value behind a keyword, or null when the line begins with another one.
char *valueOf(char *line, const char *keyword) {
  size_t length = strlen(keyword);
  if (strncmp(line, keyword, length) != 0) return nullptr;
  return line + length + strspn(line + length, " ");
}

const char *takeLine(Order &order, char *line) {
  if (char *host = valueOf(line, "Host:")) {
    if (++order.hostCount > kHostsMost) return "Too many hosts";
    return argHost(&order.hosts, host) == 0 ? nullptr : "Out of memory";
  }
  if (char *command = valueOf(line, "Command:")) {
    if (order.commandCount == kCommandsMost) return "Too many commands";
    if (command[0] == '\0' || strlen(command) > kCommandMost) return "No command, or one too long";
    char **slot = &order.commands[order.commandCount];
    if (asprintf(slot, "%s\n", command) < 0) {
      *slot = nullptr;
      return "Out of memory";
    }
    order.commandCount++;
    return nullptr;
  }
  if (char *limit = valueOf(line, "Limit:")) {
    order.limitSeconds = base::decimal(limit);
    bool sensible = order.limitSeconds > 0 && order.limitSeconds <= kLimitMost;
    return sensible ? nullptr : "The limit is no number of seconds";
  }
  if (valueOf(line, "ToTheEnd:")) {
    order.toTheEnd = true;
    return nullptr;
  }
  return "Unknown line in the upload";
}

// Null, or why the order cannot be carried out. All of the upload is taken either way.
const char *readOrder(Order &order) {
  const char *problem = nullptr;
  mrepl::UploadReader upload;
  for (;;) {
    mrepl::UploadReader::Got got = upload.next();
    if (got == mrepl::UploadReader::Got::endOfStream)
      return "The upload ended without its end mark";
    if (got == mrepl::UploadReader::Got::endMark) break;
    if (!problem) problem = takeLine(order, upload.text());
  }
  if (!problem && order.hostCount == 0) return "No hosts";
  if (!problem && order.commandCount == 0) return "No command";
  return problem;
}

}  // namespace

int runRequest() {
  Order order;
  base::print(stderr, "TRANSFER OK\n");
  if (const char *problem = readOrder(order)) return refuse(problem);
  JsonReport report(order.toTheEnd);
  int seconds = order.limitSeconds != 0 ? order.limitSeconds : answerLimitSeconds();
  Crowd crowd(report, order.commands, seconds * 1000);
  if (crowd.gather(&order.hosts.hostList) != Crowd::Ready::yes) return refuse("Out of memory");
  crowd.run();
  report.sumUp(crowd.count());
  return crowd.good() == crowd.count() ? 0 : 1;
}

}  // namespace fanout
