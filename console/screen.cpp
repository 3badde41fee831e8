// Turns progress records into lines of a given width: the block that is drawn over on a terminal,
// and the single lines of a pipe. Prints nothing itself.
#include "console/screen.h"

#include <algorithm>
#include <map>

#include "console/text.h"

namespace console {

namespace {

constexpr int kMinWidth = 20;
constexpr int kBarWidth = 30;

// Columns are counted in characters: bytes that continue a UTF-8 character take none.
size_t columnsOf(const std::string &text) {
  return static_cast<size_t>(
      std::count_if(text.begin(), text.end(), [](char byte) { return (byte & 0xc0) != 0x80; }));
}

std::string fit(std::string text, size_t width) {
  if (columnsOf(text) <= width) return text;
  size_t end = 0;
  for (size_t columns = 0; end < text.size(); end++) {
    bool begins = (text[end] & 0xc0) != 0x80;
    if (begins && columns == width - 1) break;
    columns += begins ? 1 : 0;
  }
  return text.substr(0, end) + ">";
}

std::string column(const std::string &text, size_t width) {
  std::string cell = fit(text, width);
  return cell + std::string(width - std::min(width, columnsOf(cell)), ' ');
}

std::string rightColumn(const std::string &text, size_t width) {
  size_t columns = columnsOf(text);
  return std::string(width - std::min(width, columns), ' ') + text;
}

// Who needs attention comes first.
int urgency(const HostProgress &host) {
  if (host.state == "failed") return 0;
  if (host.state == "running") return 1;
  if (host.state == "starting") return 2;
  return host.state == "waiting" ? 3 : 4;
}

std::string hostLine(const HostProgress &host, size_t nameWidth) {
  std::string line = "  " + column(oneLine(host.host), nameWidth) + "  " +
                     column(oneLine(host.state), 8) + "  " +
                     rightColumn(countText(host.files, "file"), 14);
  if (host.folders) line += "  " + rightColumn(countText(*host.folders, "folder"), 14);
  line += "  " + rightColumn(sizeText(host.bytes), 10);
  if (host.state == "running") line += "  " + rightColumn(sizeText(host.rate) + "/s", 12);
  if (!host.error.empty()) line += "  " + oneLine(host.error);
  return line;
}

size_t countState(const Progress &progress, const char *state) {
  return static_cast<size_t>(
      std::count_if(progress.hosts.begin(), progress.hosts.end(),
                    [&](const HostProgress &host) { return host.state == state; }));
}

std::string headLine(const Progress &progress) {
  std::string text = jobText(progress);
  if (progress.level >= 0) text += "  level " + std::to_string(progress.level);
  if (progress.drive >= 0) text += "  drive " + std::to_string(progress.drive);
  if (progress.tape >= 0) text += "  tape " + std::to_string(progress.tape);
  if (progress.volume >= 0) text += "  volume " + std::to_string(progress.volume);
  return text + "  " + oneLine(progress.state);
}

std::string hostChange(const HostProgress &host) {
  std::string text = "host " + oneLine(host.host) + ": " + oneLine(host.state);
  if (host.state == "done" || host.state == "failed")
    text += ", " + amountText(host.files, host.folders, host.bytes);
  if (!host.error.empty()) text += ", " + oneLine(host.error);
  return text;
}

}  // namespace

std::string drawBar(const Progress &progress, int width) {
  bool byBytes = progress.expectedBytes > 0;
  uint64_t goal = byBytes ? progress.expectedBytes : progress.wantedPackages;
  if (goal == 0) return "";
  double share =
      static_cast<double>(byBytes ? progress.bytes : progress.packages) / static_cast<double>(goal);
  // The goal is what the last run came to; this one may be larger, and is complete only when it
  // says so.
  share = progress.done() ? 1 : std::min(share, 0.99);
  int inner = std::max(10, width) - 2;
  int filled = static_cast<int>(share * inner);
  return "[" + std::string(static_cast<size_t>(filled), '#') +
         std::string(static_cast<size_t>(inner - filled), '-') + "] " +
         rightColumn(std::to_string(static_cast<int>(share * 100)), 3) + " %";
}

std::string totalText(const Progress &progress) {
  std::string text = amountText(progress.files, progress.folders, progress.bytes);
  if (progress.expectedBytes > 0 && progress.running())
    text += " of about " + sizeText(progress.expectedBytes);
  if (progress.running()) text += ", " + sizeText(progress.rate) + "/s";
  int64_t until = progress.ended > 0 ? progress.ended : progress.updated;
  text += ", " + durationText(until - progress.started);
  int64_t left = progress.running() ? secondsLeft(progress) : -1;
  return left < 0 ? text : text + ", " + durationText(left) + " left";
}

std::vector<std::string> drawProgress(const Progress &progress, int width, int height) {
  size_t columns = static_cast<size_t>(std::max(width, kMinWidth));
  std::vector<std::string> lines;
  lines.push_back(headLine(progress));
  std::string bar = drawBar(progress, std::min(kBarWidth, width / 2));
  lines.push_back("  " + (bar.empty() ? "" : bar + "  ") + totalText(progress));
  std::vector<HostProgress> hosts = progress.hosts;
  std::stable_sort(hosts.begin(), hosts.end(),
                   [](const HostProgress &one, const HostProgress &other) {
                     return urgency(one) < urgency(other);
                   });
  size_t nameWidth = 8;
  for (const HostProgress &host : hosts)
    nameWidth = std::max(nameWidth, columnsOf(oneLine(host.host)));
  nameWidth = std::min<size_t>(nameWidth, 32);
  // The last line of a terminal stays free, so that drawing does not scroll; one more counts the
  // hosts left out.
  size_t room = static_cast<size_t>(std::max(height - 4, 1));
  size_t shown = hosts.size() <= room ? hosts.size() : room;
  for (size_t at = 0; at < shown; at++) lines.push_back(hostLine(hosts[at], nameWidth));
  if (shown < hosts.size())
    lines.push_back("  and " + countText(hosts.size() - shown, "more host") + ": " +
                    std::to_string(countState(progress, "waiting")) + " waiting, " +
                    std::to_string(countState(progress, "done")) + " done in all");
  for (std::string &line : lines) line = fit(line, columns - 1);
  return lines;
}

std::vector<std::string> describeChange(const Progress *before, const Progress &now) {
  std::vector<std::string> lines;
  if (!before)
    lines.push_back("started " + timeText(now.started) + ", pid " + std::to_string(now.pid));
  for (const HostProgress &host : now.hosts) {
    const HostProgress *old = nullptr;
    if (before)
      for (const HostProgress &each : before->hosts)
        if (each.host == host.host) old = &each;
    if (!old || old->state != host.state || old->error != host.error)
      lines.push_back(hostChange(host));
  }
  return lines;
}

// "alpha, beta and 3 more hosts"
static std::string hostsText(const std::vector<std::string> &hosts) {
  constexpr size_t kNamed = 5;
  std::string text;
  for (size_t at = 0; at < hosts.size() && at < kNamed; at++)
    text += (at > 0 ? ", " : "") + oneLine(hosts[at]);
  return hosts.size() <= kNamed ? text
                                : text + " and " + countText(hosts.size() - kNamed, "more host");
}

// What a backup that went well has not: somebody believes it to be on the tape.
static void addUnsaved(const Progress &progress, std::vector<std::string> *lines) {
  std::map<std::string, std::vector<std::string>> absentFrom;
  std::vector<std::string> unreadOn;
  uint64_t unread = 0;
  for (const HostProgress &host : progress.hosts) {
    for (const std::string &name : host.absent) absentFrom[name].push_back(host.host);
    if (host.unread > 0) unreadOn.push_back(host.host);
    unread += host.unread;
  }
  for (const auto &[name, hosts] : absentFrom)
    lines->push_back("WARNING: nothing of " + oneLine(name) + " came from " + hostsText(hosts) +
                     "; is it there?");
  if (unread > 0)
    lines->push_back("WARNING: " + countText(unread, "file") + " cannot be read on " +
                     hostsText(unreadOn) + "; for the names: zul get var/tape/jobids/" +
                     std::to_string(progress.job) + ".status");
}

std::vector<std::string> describeEnd(const Progress &progress) {
  std::vector<std::string> lines;
  std::string text = progress.done() ? "done" : "failed";
  if (!progress.hosts.empty())
    text += ", " + std::to_string(countState(progress, "done")) + " of " +
            countText(progress.hosts.size(), "host");
  lines.push_back(text + ", " + totalText(progress));
  addUnsaved(progress, &lines);
  if (progress.failed > 0) lines.push_back(countText(progress.failed, "file") + " failed");
  if (progress.missing > 0)
    lines.push_back(countText(progress.missing, "file") + " not on the tape");
  if (progress.problems > 0) lines.push_back(countText(progress.problems, "problem") + " found");
  if (!progress.done() && progress.result && *progress.result != 0)
    lines.push_back("the job ended with " + std::to_string(*progress.result));
  // Of a restore that came to its end the error is these numbers once more.
  bool counted = progress.failed + progress.missing > 0 && progress.result == 0;
  if (!progress.error.empty() && !counted) lines.push_back(oneLine(progress.error));
  return lines;
}

}  // namespace console
