// zul repjob and zul transform: the definitions of replication jobs, over the console. Some agents
// say nothing when they refuse a change, so the store is looked at afterwards.
#include <sys/stat.h>

#include <nlohmann/json.hpp>

#include "console/replication.h"
#include "console/text.h"

namespace console {

namespace {

constexpr size_t kMostTransforms = 15;

std::vector<std::string> linesOf(const std::string &text) {
  std::vector<std::string> lines;
  for (size_t from = 0; from < text.size();) {
    size_t feed = std::min(text.find('\n', from), text.size());
    lines.push_back(text.substr(from, feed - from));
    from = feed + 1;
  }
  return lines;
}

// A store that is not there yet is an empty one; its listing fails.
std::vector<RepJob> storedJobs(Connection &connection) {
  std::vector<RepJob> jobs;
  for (const std::string &line : linesOf(connection.ask("TAPE get repids").text))
    if (std::optional<RepJob> job = parseRepJob(line)) jobs.push_back(*job);
  return jobs;
}

std::optional<RepJob> storedJob(Connection &connection, int number) {
  for (const RepJob &job : storedJobs(connection))
    if (job.number == number) return job;
  return std::nullopt;
}

std::string jobName(int number) {
  return "replication job " + std::to_string(number);
}

[[noreturn]] void refused(const std::string &what, const Connection::Answer &answer) {
  std::vector<std::string> said = linesOf(answer.text);
  throw Failure(Exit::failed, what + (said.empty() ? "" : ": " + oneLine(said.back())),
                "The request's log may say more: zul get var/libtape.status");
}

void request(Connection &connection, const std::string &line, const std::string &what) {
  Connection::Answer answer = connection.ask(line);
  if (answer.status != 0) refused(what, answer);
}

bool isDirectory(const std::string &path) {
  struct stat status;
  return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

// In a list a '/' at the end means the whole tree; who names a folder means that.
void addPaths(Connection &connection, const RepJobOptions &options) {
  for (const std::string &path : options.paths) {
    bool here = options.target.host.empty();
    if (path[0] != '/')
      throw Failure(Exit::usage, "\"" + oneLine(path) + "\" is no path from the root");
    bool tree = here && path.back() != '/' && isDirectory(path);
    request(
        connection,
        "TAPE add backuplist " + std::to_string(options.number) + " " + path + (tree ? "/" : ""),
        "the list of " + jobName(options.number) + " does not take " + oneLine(path));
  }
}

nlohmann::ordered_json jsonOf(const RepJob &job) {
  return {{"job", job.number},
          {"name", job.name},
          {"group", job.group},
          {"destination", job.destination},
          {"conflict", conflictName(job.conflict)},
          {"owner",
           job.keepsOwner() ? nlohmann::ordered_json("keep") : nlohmann::ordered_json(job.owner)},
          {"ownerGroup", job.keepsGroup() ? nlohmann::ordered_json("keep")
                                          : nlohmann::ordered_json(job.ownerGroup)},
          {"keepMode", job.keepsMode()},
          {"directoryMode", job.directoryPolicy & 0777},
          {"fileMode", job.filePolicy & 0777},
          {"keepSetuid", job.keepsSetuid()},
          {"encrypt", job.encrypts()}};
}

std::string dump(const nlohmann::ordered_json &value) {
  return value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

std::vector<std::string> storedTransforms(Connection &connection, int job) {
  return linesOf(connection.ask("TAPE get trans " + std::to_string(job)).text);
}

void checkPart(const std::string &text, const char *what) {
  for (unsigned char c : text)
    if (c == '>' || c <= ' ')
      throw Failure(Exit::usage, std::string(what) + " \"" + oneLine(text) + "\" cannot be stored",
                    "It must have no blank and no '>' in it.");
}

std::string pairOf(const std::string &prefix, const std::string &replacement) {
  if (prefix.empty()) throw Failure(Exit::usage, "a transform needs a prefix");
  checkPart(prefix, "the prefix");
  checkPart(replacement, "the replacement");
  return prefix + ">" + replacement;
}

void expectTransform(Connection &connection, int job, const std::string &pair) {
  std::vector<std::string> stored = storedTransforms(connection, job);
  if (std::find(stored.begin(), stored.end(), pair) == stored.end())
    throw Failure(
        Exit::failed, "the daemon has dropped the transform " + oneLine(pair),
        "Sites with classic stores do not take every pair of lengths; a longer prefix may do.");
  if (stored.size() > kMostTransforms)
    printErr("zul: a job uses its first " + std::to_string(kMostTransforms) +
             " transforms; this one has " + std::to_string(stored.size()) + "\n");
}

}  // namespace

Exit addRepJob(const RepJobOptions &options) {
  RepJob job;
  job.number = options.number;
  job.name = "job " + std::to_string(options.number);
  applyWords(options.words, &job);
  Connection connection(options.target);
  if (storedJob(connection, options.number))
    throw Failure(Exit::failed, jobName(options.number) + " is there already",
                  "Change it: zul repjob change " + std::to_string(options.number));
  request(connection, "TAPE add repids " + repJobText(job),
          jobName(options.number) + " is not stored");
  addPaths(connection, options);
  printOut(describeRepJob(job) + "\n");
  return Exit::done;
}

Exit changeRepJob(const RepJobOptions &options) {
  Connection connection(options.target);
  std::optional<RepJob> job = storedJob(connection, options.number);
  if (!job) throw Failure(Exit::failed, "there is no " + jobName(options.number));
  applyWords(options.words, &*job);
  request(connection, "TAPE mod repids " + std::to_string(options.number) + " " + repJobText(*job),
          jobName(options.number) + " is not changed");
  addPaths(connection, options);
  printOut(describeRepJob(*job) + "\n");
  return Exit::done;
}

Exit listRepJobs(const RepJobOptions &options) {
  Connection connection(options.target);
  std::vector<RepJob> jobs = storedJobs(connection);
  nlohmann::ordered_json list = nlohmann::ordered_json::array();
  for (const RepJob &job : jobs) {
    if (options.json)
      list.push_back(jsonOf(job));
    else
      printOut(describeRepJob(job) + "\n");
  }
  if (options.json) printOut(dump(list));
  return Exit::done;
}

Exit removeRepJob(const RepJobOptions &options) {
  Connection connection(options.target);
  if (!storedJob(connection, options.number))
    throw Failure(Exit::failed, "there is no " + jobName(options.number));
  request(connection, "TAPE del repids " + std::to_string(options.number),
          jobName(options.number) + " is not removed");
  printOut(jobName(options.number) + " is removed; its list and its transforms stay\n");
  return Exit::done;
}

void expectRepJob(Connection &connection, const std::string &job) {
  long number = strtol(job.c_str(), nullptr, 10);
  for (const RepJob &each : storedJobs(connection))
    if (each.number == number) return;
  throw Failure(Exit::failed, "there is no replication job " + oneLine(job),
                "zul repjob list shows those there are; zul repjob add makes one.");
}

Exit addTransform(const TransformOptions &options) {
  std::string pair = pairOf(options.prefix, options.replacement);
  Connection connection(options.target);
  request(connection, "TAPE add trans " + std::to_string(options.job) + " " + pair,
          "the transform is not stored");
  expectTransform(connection, options.job, pair);
  return Exit::done;
}

Exit changeTransform(const TransformOptions &options) {
  std::string pair = pairOf(options.newPrefix, options.replacement);
  checkPart(options.prefix, "the prefix");
  Connection connection(options.target);
  request(connection,
          "TAPE mod trans " + std::to_string(options.job) + " " + options.prefix + " " + pair,
          "the transform is not changed");
  expectTransform(connection, options.job, pair);
  return Exit::done;
}

Exit listTransforms(const TransformOptions &options) {
  Connection connection(options.target);
  nlohmann::ordered_json list = nlohmann::ordered_json::array();
  for (const std::string &line : storedTransforms(connection, options.job)) {
    size_t middle = line.find('>');
    if (middle == line.npos) continue;
    if (options.json)
      list.push_back(
          {{"prefix", line.substr(0, middle)}, {"replacement", line.substr(middle + 1)}});
    else
      printOut(line.substr(0, middle) + " -> " + line.substr(middle + 1) + "\n");
  }
  if (options.json) printOut(dump(list));
  return Exit::done;
}

Exit removeTransform(const TransformOptions &options) {
  Connection connection(options.target);
  std::vector<std::string> before = storedTransforms(connection, options.job);
  request(connection, "TAPE del trans " + std::to_string(options.job) + " " + options.prefix,
          "the transform is not removed");
  if (storedTransforms(connection, options.job).size() == before.size())
    throw Failure(Exit::failed, "job " + std::to_string(options.job) + " has no transform of " +
                                    oneLine(options.prefix));
  return Exit::done;
}

}  // namespace console
