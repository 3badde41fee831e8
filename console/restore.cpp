// zul restore: shows what a restore would do, has the tape host do it, and tells what became of
// every file.
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <iostream>
#include <nlohmann/json.hpp>
#include <optional>

#include "base/pause.h"
#include "console/browse.h"
#include "console/commands.h"
#include "console/selection.h"
#include "console/tapehost.h"
#include "console/text.h"

namespace console {

namespace {

using nlohmann::ordered_json;

struct Mode {
  const char *name;
  int number;
  const char *what;
};
constexpr Mode kModes[] = {
    {"keep-both", 0, "is kept, and the restored one gets a number behind its name"},
    {"if-different", 2, "is replaced when the times differ"},
    {"always", 4, "is replaced"},
    {"if-newer", 8, "is replaced when the one on tape is newer"},
    {"never", 1, "is kept"},
};

const Mode &modeOf(const std::string &name) {
  for (const Mode &mode : kModes)
    if (name == mode.name) return mode;
  throw Failure(Exit::usage, "\"" + oneLine(name) + "\" is no way to treat what is there already",
                "One of: keep-both, if-different, always, if-newer, never.");
}

// A word of a request: blanks would cut it.
void needWord(const std::string &what, const std::string &word, size_t most) {
  if (word.empty() || word.find_first_of(" \t\r\n") != word.npos)
    throw Failure(Exit::usage, what + " \"" + oneLine(word) + "\" cannot stand in a request",
                  "It must not be empty or hold blanks.");
  if (word.size() > most)
    throw Failure(Exit::usage, what + " is longer than " + std::to_string(most) + " characters");
}

std::string nodeName() {
  char name[256] = "";
  gethostname(name, sizeof name - 1);
  return name;
}

// What a restore comes to, as far as it can be known before.
struct Plan {
  uint64_t files = 0, folders = 0, packages = 0, bytes = 0;
  bool sized = false;   // bytes are known
  bool looked = false;  // whether something is there already is known
  uint64_t there = 0;
  std::string firstThere;
};

class Restore {
 public:
  explicit Restore(const RestoreOptions &options)
      : options_(options), mode_(modeOf(options.conflict)), host_(options.target) {}

  Exit run();

 private:
  void chooseHost();
  std::string whereElse();
  void checkClassic();
  void browse();
  void look();
  void lookAtSizes();
  void lookThere(const ListLine &line);
  void showPlan() const;
  void showConflicts() const;
  bool agreed() const;
  std::string entries();
  Exit follow(const FollowOptions &watch) const;
  Exit report(Exit followed);
  void reportJson(const ordered_json &files, bool whole) const;

  RestoreOptions options_;
  const Mode &mode_;
  TapeHost host_;
  Volume volume_;
  Selection selection_;
  std::vector<std::string> hosts_;  // on the volume, in the order of their first files
  std::string from_, to_;
  bool sound_ = false;
  Plan plan_;
};

// The one host whose files are meant.
void Restore::chooseHost() {
  bool there = host_.eachLine(TapeHost::listPath(volume_.id), [&](std::string_view text) {
    std::optional<ListLine> line = cutListLine(text);
    if (!line || (!hosts_.empty() && hosts_.back() == line->host)) return;
    std::string name(line->host);
    if (std::find(hosts_.begin(), hosts_.end(), name) == hosts_.end()) hosts_.push_back(name);
  });
  if (!there || hosts_.empty())
    throw Failure(Exit::failed, "the tape host has no list of what is in " + placeText(volume_.id),
                  "Without it nothing can be picked; the volume itself may be whole.");
  std::string all;
  for (const std::string &name : hosts_) all += " " + oneLine(name);
  from_ = options_.from.empty() ? selection_.host() : options_.from;
  if (!selection_.host().empty() && selection_.host() != from_)
    throw Failure(Exit::usage, "--from " + oneLine(from_) + " and paths of " +
                                   oneLine(selection_.host()) + " do not go together");
  if (from_.empty() && hosts_.size() == 1) from_ = hosts_[0];
  if (from_.empty())
    throw Failure(Exit::usage, "the volume holds files of several hosts:" + all,
                  "Say whose you want: --from HOST.");
  if (std::find(hosts_.begin(), hosts_.end(), from_) == hosts_.end())
    throw Failure(Exit::failed,
                  "the volume holds no files of " + oneLine(from_) + ", but of:" + all,
                  whereElse());
  to_ = options_.to.empty() ? from_ : options_.to;
}

// A host that failed in the newest run may have done well in the one before.
std::string Restore::whereElse() {
  std::optional<Run> run;
  if (volume_.run) run = host_.earlierWith(*volume_.run, from_);
  if (!run) return "\"zul request 'TAPE get hhist HOST'\" lists the runs of a host.";
  return "The run of " + timeText(run->start) + " has them: --drive " +
         std::to_string(run->where.drive) + " --tape " + std::to_string(run->where.tape) +
         " --volume " + std::to_string(run->where.volume);
}

// A classic tape host takes entry numbers, and 0 for everything of the volume's first host.
void Restore::checkClassic() {
  sound_ = host_.restoresSoundly();
  if (sound_) return;
  if (!options_.all)
    throw Failure(
        Exit::failed, "the tape host restores in the classic way: it cannot pick files",
        "Restore everything (--all) into an empty folder and take what you need from there, or set "
        "behaviour.restore = sound in its etc/ZULsite.");
  if (from_ != hosts_[0])
    throw Failure(
        Exit::failed,
        "the tape host restores in the classic way: only files of the volume's first host, " +
            oneLine(hosts_[0]) + ", can be had",
        "Set behaviour.restore = sound in its etc/ZULsite.");
}

void Restore::browse() {
  if (isatty(STDIN_FILENO) != 1 || isatty(STDOUT_FILENO) != 1)
    throw Failure(Exit::usage, "what is to be restored?",
                  "Name paths or patterns, or --all; on a terminal you could look around.");
  std::vector<std::string> names;
  host_.eachLine(TapeHost::listPath(volume_.id), [&](std::string_view text) {
    std::optional<ListLine> line = cutListLine(text);
    if (line && line->host == from_ && line->sequence == 0) names.emplace_back(line->name);
  });
  Browser browser(from_, std::move(names));
  printOut(describeVolume(volume_) + "\nPick what to restore; \"help\" shows the commands.\n");
  std::string line;
  while (!browser.finished()) {
    printOut(browser.prompt());
    std::cout.flush();
    fflush(stdout);
    if (!std::getline(std::cin, line)) throw Failure(Exit::failed, "nothing was restored");
    try {
      printOut(browser.run(line));
    } catch (const Failure &failure) {
      printErr(std::string("zul: ") + failure.what() + "\n");
    }
  }
  if (browser.gaveUp()) throw Failure(Exit::failed, "nothing was restored");
  selection_ = browser.selection();
}

void Restore::look() {
  char name[256];
  snprintf(name, sizeof name, "%s", nodeName().c_str());
  plan_.looked = options_.target.host.empty() && (to_ == name || to_ == "localhost");
  host_.eachLine(TapeHost::listPath(volume_.id), [&](std::string_view text) {
    std::optional<ListLine> line = cutListLine(text);
    if (!line || line->host != from_ || !selection_.take(*line)) return;
    plan_.packages++;
    if (line->sequence != 0) return;
    ++(line->isFolder() ? plan_.folders : plan_.files);
    if (plan_.looked && !line->isFolder()) lookThere(*line);
  });
  lookAtSizes();
  if (plan_.packages == 0)
    throw Failure(Exit::failed, "nothing of what was named is on the volume",
                  "Without a path, on a terminal, you can look around in it.");
}

void Restore::lookThere(const ListLine &line) {
  struct stat status;
  std::string path = options_.into + std::string(line.name);
  if (lstat(path.c_str(), &status) != 0) return;
  if (plan_.there++ == 0) plan_.firstThere = path;
}

void Restore::lookAtSizes() {
  plan_.sized = host_.eachLine(TapeHost::listPath(volume_.id, ".sum"), [&](std::string_view text) {
    std::optional<SumLine> line = cutSumLine(text);
    if (line && line->host == from_ && selection_.wants(line->name)) plan_.bytes += line->size;
  });
}

void Restore::showPlan() const {
  std::string text = "from        " + describeVolume(volume_) + "\n";
  text += "read back   " +
          (volume_.verified.empty() ? std::string("never verified (zul verify does it)")
                                    : "verified, and found whole") +
          "\n";
  text += "files of    " + oneLine(from_) + "\n";
  text += "go to       " + oneLine(to_) + ", folder " + oneLine(options_.into) + "\n";
  text += "in all      " + countText(plan_.files, "file") + ", " +
          countText(plan_.folders, "folder") +
          (plan_.sized ? ", " + sizeText(plan_.bytes) : ", size not recorded") + "\n";
  for (const Selection::Wish &wish : selection_.wishes())
    if (!options_.all && wish.count > 0)
      text += "            " + std::to_string(wish.count) + " by " + oneLine(wish.word) + "\n";
  printOut(text);
  showConflicts();
  for (const std::string &word : selection_.unmatched())
    printErr("zul: nothing on the volume matches " + oneLine(word) + "\n");
  printOut("insert      tape " + std::to_string(volume_.id.tape) + ", labelled \"" +
           oneLine(volume_.label) + "\", in drive " + std::to_string(volume_.id.drive) +
           (volume_.driveText.empty() ? "" : " (" + volume_.driveText + ")") + "\n");
}

void Restore::showConflicts() const {
  std::string there = "cannot be seen from here";
  if (plan_.looked) there = plan_.there == 0 ? "none of the files" : countText(plan_.there, "file");
  if (plan_.there > 0) there += ", the first is " + oneLine(plan_.firstThere);
  printOut("there now   " + there + "; what is there " + mode_.what + " (" + mode_.name + ")\n");
}

bool Restore::agreed() const {
  if (options_.yes) return true;
  if (isatty(STDIN_FILENO) != 1)
    throw Failure(Exit::usage, "nobody is there to agree to this plan",
                  "Look at it, then add --yes.");
  printOut("Restore this? [y/N] ");
  fflush(stdout);
  std::string answer;
  std::getline(std::cin, answer);
  return answer == "y" || answer == "Y" || answer == "yes";
}

// The entries word of the request; what it names is put on the tape host for it.
std::string Restore::entries() {
  if (!sound_) return "0";
  // Two operators must not get each other's files. The tape host forgets selections of this kind
  // once it has used them.
  std::string name = "once." + std::to_string(time(nullptr)) + "." + std::to_string(getpid());
  host_.put("var/tape/jobids/select." + name, selection_.fileText(from_));
  return "@" + name;
}

Exit Restore::run() {
  for (const std::string &path : options_.paths) selection_.add(path);
  if (options_.all && !options_.paths.empty())
    throw Failure(Exit::usage, "--all and paths do not go together");
  if (options_.json && !options_.yes)
    throw Failure(Exit::usage, "--json goes with --yes: a program cannot be asked");
  if (options_.into.empty() || options_.into[0] != '/')
    throw Failure(Exit::usage, "--into wants a folder from the root on, like /srv/restored");
  needWord("the folder", options_.into, 255);
  volume_ = host_.find(options_.volume);
  chooseHost();
  needWord("the host", to_, 63);
  checkClassic();
  if (options_.all) selection_.addAll();
  if (selection_.empty()) browse();
  look();
  if (!options_.json) showPlan();
  if (!agreed()) throw Failure(Exit::failed, "nothing was restored");
  FollowOptions watch = prepareFollow(options_.target, "restore", "");
  std::string request = "TAPE restore " + std::to_string(volume_.id.drive) + " " +
                        std::to_string(volume_.id.tape) + " " + std::to_string(volume_.id.volume) +
                        " " + to_ + " " + options_.into + " " + std::to_string(mode_.number) + " " +
                        entries();
  auto show = [&](std::string_view text) { options_.json ? printErr(text) : printOut(text); };
  host_.start(request, show);
  return report(follow(watch));
}

Exit Restore::follow(const FollowOptions &watch) const {
  FollowOptions options = watch;
  options.silent = options_.json;
  return followJob(options);
}

Exit Restore::report(Exit followed) {
  std::map<std::string, uint64_t> counts;
  ordered_json files = ordered_json::array();
  host_.eachLine("var/tape/restore.serv.results", [&](std::string_view text) {
    ordered_json file = ordered_json::parse(text, nullptr, false);
    if (!file.is_object() || !file.contains("result") || !file["result"].is_string()) return;
    std::string result = file["result"], error = file.value("error", "");
    counts[result]++;
    if (!options_.json && (result == "failed" || result == "missing"))
      printErr(result + ": " + oneLine(file.value("path", "")) +
               (error.empty() ? "" : ": " + oneLine(error)) + "\n");
    if (options_.json) files.push_back(std::move(file));
  });
  bool whole = followed == Exit::done && counts["failed"] == 0 && counts["missing"] == 0 &&
               selection_.unmatched().empty();
  if (options_.json) {
    reportJson(files, whole);
  } else {
    printOut(std::to_string(counts["restored"]) + " restored, " + std::to_string(counts["kept"]) +
             " kept as they were, " + std::to_string(counts["failed"]) + " failed, " +
             std::to_string(counts["missing"]) + " not found on tape\n");
    for (const std::string &word : selection_.unmatched())
      printErr("zul: nothing on the volume matched " + oneLine(word) + "\n");
  }
  return whole ? Exit::done : Exit::failed;
}

void Restore::reportJson(const ordered_json &files, bool whole) const {
  ordered_json all = {{"source", volumeJson(volume_)},
                      {"from", from_},
                      {"to", to_},
                      {"into", options_.into},
                      {"conflict", mode_.name},
                      {"unmatched", selection_.unmatched()},
                      {"whole", whole},
                      {"files", files}};
  printOut(all.dump(-1, ' ', false, ordered_json::error_handler_t::replace) + "\n");
}

}  // namespace

Exit restoreFiles(const RestoreOptions &options) {
  return Restore(options).run();
}

}  // namespace console
