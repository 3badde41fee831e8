// Decides how a replication over TCP can do what a multicast run has left undone. What it cannot do
// just the same is said rather than done differently: names above all, because a file under another
// name would overwrite what is not ours.
#include "console/multicastrepair.h"

#include <algorithm>
#include <set>

#include "console/text.h"

namespace console {

namespace {

constexpr size_t kPathMost = 255;  // of a line in a list
constexpr size_t kMostTransforms = 15;
constexpr int kKeepAll =
    MulticastJob::kKeepMode | MulticastJob::kKeepGroup | MulticastJob::kKeepOwner;
constexpr int kImposable = 0777;

bool fitsList(const std::string &path) {
  return !path.empty() && path.size() <= kPathMost &&
         std::none_of(path.begin(), path.end(),
                      [](unsigned char c) { return c < ' ' || c == 0x7f; });
}

// What one host lacks, as far as it can be told path by path.
RepairOrder orderOf(const MulticastJob &job, const Verdict &verdict) {
  RepairOrder order;
  order.whole = !verdict.missingKnown || verdict.missing.empty();
  for (const MissingFile &file : verdict.missing) {
    std::optional<std::string> path = pathOnSender(job, file.name);
    // A name that is no text reads differently in a record.
    bool told = path && fitsList(*path) && path->find("\xef\xbf\xbd") == path->npos;
    if (told)
      order.paths.push_back(*path);
    else
      order.whole = true;
  }
  if (order.whole) order.paths.clear();
  return order;
}

RepairPass passOf(const MulticastJob &job, int keeps) {
  RepairPass pass;
  pass.job.conflict = 4;
  pass.job.destination = plainPath(job.prefix.empty() ? "/" : job.prefix);
  pass.job.owner = job.userId;
  pass.job.ownerGroup = job.groupId;
  pass.job.directoryPolicy = keeps | (job.dirPerms & kImposable);
  pass.job.filePolicy =
      (job.filePerms & kImposable) | (job.filePerms & MulticastJob::kAllowSetUser);
  return pass;
}

bool imposesMore(int word) {
  return (word & MulticastJob::kKeepMode) == 0 &&
         (word & MulticastJob::kPermissions & ~kImposable) != 0;
}

bool wanted(const RepairPass &pass, const PreviewEntry &entry) {
  return entry.type == "d" ? pass.folders : pass.files;
}

// A device, which no replication makes, or a name that would come out differently.
std::string entryProblem(const MulticastJob &job, const PreviewEntry &entry) {
  if (entry.type == "c" || entry.type == "b")
    return "devices are not sent over TCP: " + oneLine(entry.source);
  if (nameOnReceivers(job, plainPath(entry.source)) != plainPath(entry.target))
    return "over TCP it would get another name: " + oneLine(entry.source);
  if (!fitsList(plainPath(entry.source)))
    return "its name has no place in a list: " + oneLine(entry.source);
  return "";
}

}  // namespace

std::vector<RepairOrder> planRepair(const MulticastJob &job, const std::vector<Verdict> &verdicts) {
  std::vector<RepairOrder> orders;
  for (size_t at = 0; at < verdicts.size(); at++) {
    if (verdicts[at].complete()) continue;
    RepairOrder order = orderOf(job, verdicts[at]);
    auto same = std::find_if(orders.begin(), orders.end(), [&](const RepairOrder &other) {
      return other.whole == order.whole && other.paths == order.paths;
    });
    if (same == orders.end()) same = orders.insert(orders.end(), order);
    same->hosts.push_back(at);
  }
  return orders;
}

std::vector<RepairPass> passesOf(const MulticastJob &job, std::vector<std::string> *remarks) {
  if (imposesMore(job.filePerms) || imposesMore(job.dirPerms))
    remarks->push_back("set-id and sticky bits of FilePerms and DirPerms are not set over TCP");
  if ((job.filePerms & MulticastJob::kAllowSetUser) != 0 &&
      (job.filePerms & MulticastJob::kKeepMode) == 0)
    remarks->push_back("set-user-id bits of files are not kept over TCP");
  if ((job.filePerms & MulticastJob::kKeepOwner) == 0 ||
      (job.filePerms & MulticastJob::kKeepGroup) == 0)
    remarks->push_back("links keep owner and group over TCP");
  int files = job.filePerms & kKeepAll, folders = job.dirPerms & kKeepAll;
  std::vector<RepairPass> passes = {passOf(job, files)};
  if (files == folders) return passes;
  // Folders last: they get their owner and permissions when all is in them.
  passes[0].folders = false;
  passes.push_back(passOf(job, folders));
  passes[1].files = false;
  return passes;
}

std::string namesProblem(const MulticastJob &job) {
  if (job.prefix.find_first_of(" \t:") != job.prefix.npos)
    return "a prefix with a blank or a colon cannot be expressed over TCP";
  if (!job.prefix.empty() && job.prefix[0] != '/') return "the prefix is no path from the root";
  if (job.transforms.size() > kMostTransforms) return "over TCP a job uses its first 15 transforms";
  for (const auto &[from, to] : job.transforms)
    if ((from + to).find_first_of(" \t>") != from.npos)
      return "a transform with a blank or a '>' cannot be expressed over TCP: " + oneLine(from);
  return "";
}

RepairList listOf(const MulticastJob &job, const RepairOrder &order, const RepairPass &pass,
                  const Preview &preview) {
  RepairList list;
  std::set<std::string> asked(order.paths.begin(), order.paths.end()), seen;
  for (const PreviewEntry &entry : preview.entries) {
    std::string path = plainPath(entry.source);
    bool device = entry.type == "c" || entry.type == "b";
    if (entry.type != "f" && entry.type != "d" && entry.type != "l" && !device) continue;
    // Folders on the way are in every preview, and every replication sends them. Where they are
    // treated in another way than files, the pass of the folders puts them right again.
    bool onTheWay = entry.type == "d" && !pass.files;
    if (!order.whole && asked.count(path) == 0 && !onTheWay) continue;
    if (isExcluded(job, path) || nameOnReceivers(job, path).empty()) continue;
    if (!seen.insert(path).second) continue;
    if (list.problem.empty()) list.problem = entryProblem(job, entry);
    if (!wanted(pass, entry)) continue;
    list.text += path + "\n";
    list.entries++;
    if (entry.type == "f") list.bytes += strtoull(entry.size.c_str(), nullptr, 10);
  }
  for (const std::string &path : order.paths) list.gone += seen.count(path) == 0;
  return list;
}

std::string outcomeOf(const RepResult &result) {
  if (result.state != "done")
    return result.reason.empty() ? "the replication failed" : result.reason;
  return result.failed > 0 ? countText(result.failed, "file") + " could not be made" : "";
}

std::string lookedAgain(const RepResult &result, size_t entries) {
  std::string outcome = outcomeOf(result);
  if (outcome.empty() && result.kept + result.files < entries)
    outcome =
        "only " + std::to_string(result.kept) + " of " + std::to_string(entries) + " are there";
  return outcome.empty() ? "" : "when looked at again: " + outcome;
}

}  // namespace console
