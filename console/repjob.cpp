// Replication jobs between their stored text and what an operator types and reads.
#include "console/repjob.h"

#include <nlohmann/json.hpp>

#include "console/failure.h"
#include "console/fields.h"
#include "console/text.h"

namespace console {

namespace {

constexpr int kKeepMode = 0x1000, kKeepGroup = 0x2000, kKeepOwner = 0x4000, kKeepSetuid = 0x8000;
constexpr int kPermissions = 0777;
constexpr int kEncrypt = 2;

struct Conflict {
  const char *name;
  int mode;
};
constexpr Conflict kConflicts[] = {
    {"keep-both", 0}, {"never", 1}, {"if-different", 2}, {"always", 4}, {"if-newer", 8}};

std::vector<std::string> cut(const std::string &line, char separator) {
  std::vector<std::string> fields;
  for (size_t from = 0;;) {
    size_t at = line.find(separator, from);
    fields.push_back(line.substr(from, at == line.npos ? line.npos : at - from));
    if (at == line.npos) return fields;
    from = at + 1;
  }
}

std::optional<int> numberIn(const std::string &text, int base = 10) {
  if (text.empty() || text.size() > 11) return std::nullopt;
  char *end;
  long value = strtol(text.c_str(), &end, base);
  if (*end != '\0' || value < INT32_MIN || value > INT32_MAX) return std::nullopt;
  return static_cast<int>(value);
}

[[noreturn]] void refuse(const std::string &what, const std::string &hint = "") {
  throw Failure(Exit::usage, what, hint);
}

// A field of the stored text: it has colons between its fields, and a line feed at its end.
std::string fieldOf(const std::string &text, const char *what, size_t most) {
  if (text.size() > most)
    refuse(std::string(what) + " has more than " + std::to_string(most) + " characters");
  for (unsigned char c : text)
    if (c == ':' || c < ' ')
      refuse(std::string(what) + " \"" + oneLine(text) +
             "\" has a colon or a control character in it");
  return text;
}

// Keep flag and value of an owner or group.
void applyId(const std::optional<std::string> &word, const char *what, int flag, int *value,
             int *policy) {
  if (!word) return;
  if (*word == "keep") {
    *policy |= flag;
    return;
  }
  std::optional<int> number = numberIn(*word);
  if (!number || *number < 0)
    refuse("\"" + oneLine(*word) + "\" is no " + what, "Write a number, or keep.");
  *policy &= ~flag;
  *value = *number;
}

// The permissions in a word, or nothing for "keep".
std::optional<int> permissionsOf(const std::string &word) {
  if (word == "keep") return std::nullopt;
  std::optional<int> mode = numberIn(word, 8);
  if (!mode || *mode < 0 || *mode > kPermissions)
    refuse("\"" + oneLine(word) + "\" are no permissions", "Write them like 755, or keep.");
  return mode;
}

// One flag keeps the permissions of files and directories alike.
void applyModes(const RepJobWords &words, RepJob *job) {
  if (!words.directoryMode && !words.fileMode) return;
  auto mode = [&](const std::optional<std::string> &word, int stored) {
    if (word) return permissionsOf(*word);
    return job->keepsMode() ? std::nullopt : std::optional<int>(stored & kPermissions);
  };
  std::optional<int> directory = mode(words.directoryMode, job->directoryPolicy);
  std::optional<int> file = mode(words.fileMode, job->filePolicy);
  if (directory.has_value() != file.has_value())
    refuse("permissions are kept for files and directories alike, or for neither",
           "Give both --dir-mode and --file-mode.");
  job->directoryPolicy &= ~(kKeepMode | kPermissions);
  job->filePolicy &= ~kPermissions;
  job->directoryPolicy |= directory ? *directory : kKeepMode;
  job->filePolicy |= file.value_or(0);
}

void setBit(std::optional<bool> wanted, int bit, int *word) {
  if (wanted) *word = *wanted ? *word | bit : *word & ~bit;
}

std::string octal(int mode) {
  char text[8];
  snprintf(text, sizeof text, "%o", static_cast<unsigned>(mode & kPermissions));
  return text;
}

}  // namespace

std::string conflictName(int mode) {
  for (const Conflict &each : kConflicts)
    if (each.mode == mode) return each.name;
  return std::to_string(mode);
}

std::optional<int> conflictMode(const std::string &name) {
  for (const Conflict &each : kConflicts)
    if (name == each.name) return each.mode;
  return std::nullopt;
}

std::optional<RepJob> parseRepJob(const std::string &line) {
  std::vector<std::string> field = cut(line, ':');
  if (field.size() < 12 || field[9] != "reserved") return std::nullopt;
  // A name that was stored by other means may have colons in it.
  for (size_t at = 12; at < field.size(); at++) field[11] += ":" + field[at];
  int number[9];
  for (size_t at = 0; at < 9; at++) {
    std::optional<int> value = numberIn(field[at]);
    if (!value) return std::nullopt;
    number[at] = *value;
  }
  return RepJob{number[0], number[1], number[2], number[3], number[4], number[5],
                number[6], number[7], number[8], field[10], field[11]};
}

std::string repJobText(const RepJob &job) {
  std::string text;
  for (int number : {job.number, job.group, job.conflict, job.owner, job.ownerGroup,
                     job.directoryPolicy, job.filePolicy, job.eighth, job.flags})
    text += std::to_string(number) + ":";
  return text + "reserved:" + fieldOf(job.destination, "the destination", 255) + ":" +
         fieldOf(job.name, "the name", 255);
}

void applyWords(const RepJobWords &words, RepJob *job) {
  if (words.group) job->group = *words.group;
  if (words.name) job->name = fieldOf(*words.name, "the name", 255);
  if (words.destination) {
    const std::string &folder = *words.destination;
    if (folder.empty() || folder[0] != '/' || folder.find_first_of(" \t\v\f") != folder.npos)
      refuse("\"" + oneLine(folder) + "\" cannot be the destination",
             "It is a path from the root and has no blanks in it; \"/\" is the root itself.");
    job->destination = fieldOf(folder, "the destination", 255);
  }
  if (words.conflict) {
    std::optional<int> mode = conflictMode(*words.conflict);
    if (!mode) refuse("\"" + oneLine(*words.conflict) + "\" is no conflict mode");
    job->conflict = *mode;
  }
  applyId(words.owner, "owner", kKeepOwner, &job->owner, &job->directoryPolicy);
  applyId(words.ownerGroup, "group", kKeepGroup, &job->ownerGroup, &job->directoryPolicy);
  applyModes(words, job);
  setBit(words.setuid, kKeepSetuid, &job->filePolicy);
  setBit(words.encrypt, kEncrypt, &job->flags);
}

std::string describeRepJob(const RepJob &job) {
  std::string text = std::to_string(job.number) + " " + oneLine(job.name) + ": group " +
                     std::to_string(job.group) + " -> " + oneLine(job.destination) + ", " +
                     conflictName(job.conflict);
  text += job.keepsOwner() ? ", owner kept" : ", owner " + std::to_string(job.owner);
  text += job.keepsGroup() ? ", group kept" : ", group " + std::to_string(job.ownerGroup);
  if (job.keepsMode())
    text += ", mode kept";
  else
    text += ", directories " + octal(job.directoryPolicy) + ", files " + octal(job.filePolicy);
  if (job.keepsSetuid()) text += ", set-user-id kept";
  return text + (job.encrypts() ? ", encrypted" : "");
}

bool takePreviewLine(const std::string &line, Preview *preview) {
  std::vector<std::string> field = cut(line, '\t');
  if (field.size() == 2 && field[0] == "host") {
    preview->hosts.push_back(field[1]);
    return true;
  }
  if (field.size() != 9 || field[0] != "entry") return false;
  preview->entries.push_back(
      {field[1], field[2], field[3], field[4], field[5], field[6], field[7], field[8]});
  return true;
}

std::vector<RepResult> parseResults(const std::string &text) {
  std::vector<RepResult> results;
  for (const std::string &line : cut(text, '\n')) {
    nlohmann::json object = nlohmann::json::parse(line, nullptr, false);
    if (!object.is_object()) continue;
    RepResult result{textOf(object, "host"),    textOf(object, "state"),
                     textOf(object, "reason"),  countOf(object, "files"),
                     countOf(object, "bytes"),  countOf(object, "kept"),
                     countOf(object, "failed"), 0};
    auto seconds = object.find("seconds");
    if (seconds != object.end() && seconds->is_number()) result.seconds = seconds->get<double>();
    if (!result.host.empty()) results.push_back(result);
  }
  return results;
}

}  // namespace console
