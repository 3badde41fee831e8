// zul multicast job: the definitions of multicast jobs, on this host or another one. A job file is
// looked at before it is stored, because an agent passes over what it does not understand.
#include <ctype.h>
#include <errno.h>
#include <string.h>

#include <algorithm>
#include <fstream>
#include <iostream>
#include <nlohmann/json.hpp>

#include "console/commands.h"
#include "console/manyhosts.h"
#include "console/text.h"

namespace console {

namespace {

constexpr size_t kLineMost = 2039;  // with the prompt before it a line of 2043 characters

enum class Value { text, number, pair, protocol };
struct Keyword {
  const char *name;
  Value value;
};
constexpr Keyword kKeywords[] = {
    {"Host:", Value::text},         {"Request:", Value::text},      {"Exclude:", Value::text},
    {"Last:", Value::text},         {"HstGrp:", Value::number},     {"Xform:", Value::pair},
    {"Description:", Value::text},  {"Prefix:", Value::text},       {"IDnum:", Value::number},
    {"Speed:", Value::number},      {"CntrlFlags:", Value::number}, {"UserID:", Value::number},
    {"GroupID:", Value::number},    {"FilePerms:", Value::number},  {"DirPerms:", Value::number},
    {"Protocol:", Value::protocol},
};

std::string valueProblem(const Keyword &keyword, const std::string &value) {
  std::string name = keyword.name;
  bool list = name == "Host:" || name == "Request:" || name == "Exclude:";
  if (list && value.empty()) return name + " wants a value";
  if (keyword.value == Value::pair && value.find(' ') == value.npos)
    return name + " wants two words, what a name begins with and what replaces it";
  if (keyword.value == Value::text || keyword.value == Value::pair || value.empty()) return "";
  size_t sign = value[0] == '-' ? 1 : 0;
  if (value.size() == sign || value.find_first_not_of("0123456789", sign) != value.npos)
    return name + " wants a number";
  if (keyword.value == Value::protocol && (value.size() != 1 || value[0] > '3'))
    return name + " is 0 to 3";
  if (value.size() > 1 && value[0] == '0')
    return name + " is read as decimal: write 420 for the permissions 644";
  return "";
}

std::string lineProblem(const std::string &line) {
  if (line.size() > kLineMost) return "is longer than " + std::to_string(kLineMost) + " characters";
  if (line.size() < 2 || line[0] == '#') return "";
  for (const Keyword &keyword : kKeywords) {
    if (line.rfind(keyword.name, 0) != 0) continue;
    size_t from = line.find_first_not_of(" \t", strlen(keyword.name));
    return valueProblem(keyword, from == line.npos ? "" : line.substr(from));
  }
  return "begins with no keyword: \"" + oneLine(line.substr(0, 40)) + "\"";
}

std::string readJob(const std::string &path) {
  std::ifstream file;
  if (path != "-") file.open(path);
  std::istream &in = path == "-" ? std::cin : file;
  std::string text((std::istreambuf_iterator<char>(in)), {});
  if (!in && !in.eof()) throw Failure(Exit::usage, "cannot read " + path + ": " + strerror(errno));
  return text;
}

std::vector<std::string> linesOf(const std::string &text) {
  std::vector<std::string> lines;
  for (size_t from = 0; from < text.size();) {
    size_t feed = std::min(text.find('\n', from), text.size());
    lines.push_back(text.substr(from, feed - from));
    while (!lines.back().empty() && iscntrl(static_cast<unsigned char>(lines.back().back())))
      lines.back().pop_back();
    from = feed + 1;
  }
  return lines;
}

// Asks for something and takes the answer only when it is one.
std::string askFor(const Target &target, const std::string &request) {
  Connection connection(target);
  Connection::Answer answer = connection.ask(request);
  if (answer.status == 0) return answer.text;
  while (!answer.text.empty() && answer.text.back() == '\n') answer.text.pop_back();
  throw Failure(Exit::failed, oneLine(answer.text));
}

}  // namespace

std::vector<std::string> checkMulticastJob(const std::string &text) {
  std::vector<std::string> problems;
  int number = 0;
  bool requests = false, hosts = false;
  for (const std::string &line : linesOf(text)) {
    number++;
    std::string problem = lineProblem(line);
    if (!problem.empty()) problems.push_back("line " + std::to_string(number) + ": " + problem);
    requests |= line.rfind("Request:", 0) == 0;
    hosts |= line.rfind("Host:", 0) == 0;
  }
  if (!requests) problems.push_back("there is no Request: nothing would be sent");
  if (!hosts) problems.push_back("there is no Host: nobody would receive it");
  return problems;
}

Exit putMulticastJob(const Target &target, const std::string &number, const std::string &file) {
  std::string text = readJob(file);
  std::vector<std::string> problems = checkMulticastJob(text);
  for (const std::string &problem : problems) printErr(file + ": " + problem + "\n");
  if (!problems.empty())
    throw Failure(Exit::usage, "nothing was stored", "man zul explains every keyword.");
  std::string upload;
  for (const std::string &line : linesOf(text)) upload += uploadLine(line);
  Connection connection(target);
  connection.send("MREPL set jobid " + number);
  std::string said;
  auto collect = [&](std::string_view piece) { said += piece; };
  Outcome outcome = connection.receive(collect, false);
  if (outcome.accepted) {
    said.clear();
    connection.sendBytes(upload + "UpLoAd_DoNe.\n");
    outcome = connection.receive(collect, true);
  }
  if (!outcome.ended)
    throw Failure(Exit::noConnection, "the connection ended before job " + number + " was stored");
  // An agent of the classic kind reports a full disk and yet ends well.
  if (outcome.status != 0 || said.find("ERROR:") != said.npos)
    throw Failure(Exit::failed, "job " + number + " was not stored: " + oneLine(said));
  printOut("Job " + number + " stored\n");
  return Exit::done;
}

Exit getMulticastJob(const Target &target, const std::string &number) {
  printOut(askFor(target, "MREPL get jobid " + number));
  return Exit::done;
}

Exit listMulticastJobs(const Target &target, bool json) {
  std::string text = askFor(target, "MREPL get jobids");
  std::vector<long> numbers;
  for (const char *at = text.c_str(); *at;) {
    char *end;
    long number = strtol(at, &end, 10);
    if (end == at) break;
    numbers.push_back(number);
    at = *end == ',' ? end + 1 : end;
  }
  std::sort(numbers.begin(), numbers.end());
  if (json) printOut(nlohmann::json(numbers).dump() + "\n");
  for (long number : numbers)
    if (!json) printOut(std::to_string(number) + "\n");
  return Exit::done;
}

Exit removeMulticastJob(const Target &target, const std::string &number) {
  askFor(target, "MREPL del jobid " + number);
  printOut("Job " + number + " removed\n");
  return Exit::done;
}

}  // namespace console
