// Rights on the console. Sessions ask before they start a request's process, and at an agent's
// login; what is decided here is decided on the same words that the module will find.
#include "host/authorise.h"

#include <arpa/inet.h>
#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

#include "base/fd.h"
#include "base/site.h"

namespace host {

namespace {

struct Permission {
  Family family;
  std::string_view word;
};

// What agents ask of each other; nothing else is open to the holder of the site's secret.
constexpr Permission kNodeMay[] = {
    {Family::tape, "server"}, {Family::tape, "resclnt"},   {Family::tape, "repclnt"},
    {Family::tape, "rsync"},  {Family::mrepl, "mrepclnt"}, {Family::mrepl, "probe"},
};

// The sender of a multicast run collects what became of it on its receivers.
constexpr std::string_view kReceived = "var/tape/mrepljobs/received.json";

constexpr Permission kViewerMay[] = {
    {Family::tape, "get"}, {Family::tape, "version"}, {Family::host, "status"},
    {Family::host, "ps"},  {Family::host, "jobs"},    {Family::host, "tail"},
    {Family::host, "get"},
};

bool isSpace(char c) {
  return isspace(static_cast<unsigned char>(c)) != 0;
}

template <size_t N>
bool listed(const Permission (&table)[N], Family family, std::string_view word) {
  for (const Permission &permission : table)
    if (permission.family == family && permission.word == word) return true;
  return false;
}

// rest: what stands behind the word.
bool asksForRecord(Family family, std::string_view word, std::string_view rest) {
  return family == Family::host && word == "get" && firstWord(rest) == kReceived &&
         firstWord(rest).empty();
}

// A fan-out asks in the name of its host. Agents answer only its requests for agents' work, unless
// this machine's own site file lets all nodes look around as a viewer may.
bool nodesMayLook() {
  return strcmp(base::siteValue("fanout.nodes-may"), "look") == 0;
}

// "any", an address, or "address/bits".
bool covers(std::string rule, uint32_t address) {
  if (rule == "any") return true;
  int bits = 32;
  size_t slash = rule.find('/');
  if (slash != std::string::npos) {
    char *end;
    bits = static_cast<int>(strtol(rule.c_str() + slash + 1, &end, 10));
    if (*end != '\0' || end == rule.c_str() + slash + 1 || bits < 0 || bits > 32) return false;
    rule.resize(slash);
  }
  in_addr parsed;
  if (inet_pton(AF_INET, rule.c_str(), &parsed) != 1) return false;
  uint32_t mask = bits == 0 ? 0 : ~uint32_t{0} << (32 - bits);
  return (ntohl(parsed.s_addr) & mask) == (address & mask);
}

bool anyCovers(std::string_view rules, uint32_t address) {
  while (!rules.empty()) {
    size_t end = rules.find_first_of(", \t\r\n");
    std::string_view rule = rules.substr(0, end);
    rules = end == std::string_view::npos ? std::string_view() : rules.substr(end + 1);
    if (!rule.empty() && covers(std::string(rule), address)) return true;
  }
  return false;
}

}  // namespace

std::string_view firstWord(std::string_view &text) {
  size_t begin = 0;
  while (begin < text.size() && isSpace(text[begin])) begin++;
  size_t end = begin;
  while (end < text.size() && !isSpace(text[end])) end++;
  std::string_view word = text.substr(begin, end - begin);
  text = text.substr(end);
  return word;
}

RequestLine cutRequest(std::string_view line) {
  size_t blank = line.find(' ');
  if (blank == std::string_view::npos) return {line, {}};
  return {line.substr(0, blank), line.substr(blank + 1)};
}

Family familyOf(std::string_view word) {
  if (word == "TAPE") return Family::tape;
  if (word == "MREPL") return Family::mrepl;
  return word == "HOST" ? Family::host : Family::unknown;
}

bool mayRun(const Peer &peer, const RequestLine &request) {
  Family family = familyOf(request.word);
  std::string_view rest = request.rest;
  std::string_view word = firstWord(rest);
  if (peer.kind == login::Kind::node)
    return listed(kNodeMay, family, word) || asksForRecord(family, word, rest) ||
           (nodesMayLook() && listed(kViewerMay, family, word));
  if (peer.role == login::Role::operatorRole) return true;
  return peer.role == login::Role::viewer && listed(kViewerMay, family, word);
}

bool nodeMayLogIn(const std::string &path, const std::string &name, uint32_t address,
                  std::string &why) {
  base::File file(fopen(path.c_str(), "re"));
  if (!file && errno == ENOENT) return true;
  struct stat status;
  // A list that cannot be trusted admits nobody: it was made to keep somebody out.
  if (!file || fstat(fileno(file.get()), &status) != 0 || (status.st_mode & 022) != 0) {
    why = path + " cannot be read or may be written by others";
    return false;
  }
  char line[8192];
  while (fgets(line, sizeof line, file.get())) {
    if (char *comment = strchr(line, '#')) *comment = '\0';
    std::string_view rest = line;
    std::string_view listedName = firstWord(rest);
    if ((listedName == name || listedName == "*") && anyCovers(rest, address)) return true;
  }
  why = path + " does not list this name with this address";
  return false;
}

}  // namespace host
