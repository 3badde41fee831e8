// zul request: one request, its text on standard output exactly as the daemon relays it.
#include <errno.h>
#include <string.h>
#include <sys/socket.h>

#include <fstream>
#include <iostream>

#include "console/commands.h"
#include "console/progress.h"
#include "console/text.h"

namespace console {

namespace {

constexpr std::string_view kUploadEnd = "UpLoAd_DoNe.\n";

// The job that a request starts, for following it.
struct JobWords {
  std::string kind, job;
};

std::optional<JobWords> startedJob(const std::string &line) {
  auto begins = [&](std::string_view words) { return line.compare(0, words.size(), words) == 0; };
  if (begins("TAPE restore ")) return JobWords{"restore", ""};
  if (begins("TAPE verify ")) return JobWords{"verify", ""};
  if (!begins("TAPE backup ") && !begins("TAPE replicate ")) return std::nullopt;
  size_t from = line.find_first_not_of(' ', line.find(' ', strlen("TAPE ")));
  if (from == line.npos) return std::nullopt;
  std::string job = line.substr(from, line.find(' ', from) - from);
  if (job.find_first_not_of("0123456789") != job.npos) return std::nullopt;
  return JobWords{begins("TAPE backup ") ? "backup" : "replication", job};
}

std::string readUpload(const std::string &path) {
  std::ifstream file;
  if (path != "-") file.open(path);
  std::istream &in = path == "-" ? std::cin : file;
  if (!in)
    throw Failure(Exit::usage, "cannot read " + path + ": " + strerror(errno),
                  "Nothing was requested.");
  std::string text;
  for (std::string line; std::getline(in, line);) text += uploadLine(line);
  if (in.bad()) throw Failure(Exit::failed, "cannot read " + path, "Nothing was requested.");
  return text + std::string(kUploadEnd);
}

// Says what the text of the request may not have said.
Exit conclude(const Outcome &outcome, const std::string &line) {
  if (outcome.accepted) return Exit::done;
  if (!outcome.ended)
    throw Failure(Exit::noConnection, "the connection ended in the middle of \"" + line + "\"",
                  "What the request did is not known; look before you repeat it.");
  if (outcome.status > 255)
    printErr("zul: the process of the request was killed by signal " +
             std::to_string(outcome.status - 256) + "; the daemon's log may say more\n");
  return outcome.status == 0 ? Exit::done : Exit::failed;
}

Exit runUpload(Connection &connection, const RequestOptions &options) {
  std::string text = readUpload(options.upload);
  connection.send(options.line);
  Outcome outcome = connection.receive(printOut, false);
  if (!outcome.accepted) {
    conclude(outcome, options.line);
    throw Failure(Exit::failed, "the request did not ask for an upload; nothing was sent");
  }
  connection.sendBytes(text);
  outcome = connection.receive(printOut, true);
  outcome.accepted = false;
  return conclude(outcome, options.line);
}

}  // namespace

// A daemon's prompt stands before each line, so that lines of other origin are told apart.
std::string uploadLine(const std::string &line) {
  return std::string(kPrompt) + line + "\n";
}

bool asksForUpload(const std::string &line) {
  return line.rfind("MREPL set ", 0) == 0;
}

Exit runRequest(const RequestOptions &options) {
  const std::string &line = options.line;
  std::optional<JobWords> job = startedJob(line);
  if (options.follow && !job)
    throw Failure(
        Exit::usage,
        "--follow goes with requests that start a job: TAPE backup, restore, verify, replicate");
  if (asksForUpload(line) && options.upload.empty())
    throw Failure(
        Exit::usage, "\"" + line + "\" wants the lines of the job",
        "Name the file that holds them: --upload FILE, or --upload - for standard input.");
  Connection connection(options.target);
  if (!options.upload.empty()) return runUpload(connection, options);
  FollowOptions follow;
  if (options.follow) follow = prepareFollow(options.target, job->kind, job->job);
  connection.send(line);
  Outcome outcome = connection.receive(printOut, onlyShows(line));
  if (onlyShows(line)) outcome.accepted = false;
  Exit status = conclude(outcome, line);
  if (!options.follow || status != Exit::done) return status;
  return followJob(follow);
}

Exit showAnswer(const Target &target, const std::string &line) {
  Connection connection(target);
  connection.send(line);
  Outcome outcome = connection.receive(printOut, true);
  outcome.accepted = false;
  return conclude(outcome, line);
}

}  // namespace console
