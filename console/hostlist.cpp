// Takes lists of hosts apart; nothing here talks to anybody. Commands that work on many hosts at
// once use it before they ask the daemon for anything.
#include "console/hostlist.h"

#include <ctype.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>

#include "console/failure.h"
#include "console/text.h"

namespace console {

namespace {

constexpr size_t kHostsMost = 10000;

[[noreturn]] void refuse(const std::string &text, const std::string &why) {
  throw Failure(Exit::usage, "\"" + oneLine(text) + "\" is no list of hosts: " + why,
                "Write it like h1,h[02-10],@3: names, ranges, the hosts of a tape group.");
}

bool isNumber(const std::string &text) {
  return !text.empty() && text.size() <= 9 &&
         text.find_first_not_of("0123456789") == std::string::npos;
}

// Cuts at commas that stand in no brackets.
std::vector<std::string> cut(const std::string &text, char divider, bool brackets) {
  std::vector<std::string> parts(1);
  int depth = 0;
  for (char c : text) {
    if (brackets && c == '[') depth++;
    if (brackets && c == ']') depth--;
    if (c == divider && depth == 0)
      parts.emplace_back();
    else
      parts.back() += c;
  }
  return parts;
}

std::vector<std::string> expandRange(const std::string &range, const std::string &whole) {
  size_t dash = range.find('-');
  std::string low = range.substr(0, dash), high = dash == range.npos ? low : range.substr(dash + 1);
  if (!isNumber(low) || !isNumber(high)) refuse(whole, "\"" + range + "\" is no range of numbers");
  int first = atoi(low.c_str()), last = atoi(high.c_str());
  if (first > last || static_cast<size_t>(last - first) >= kHostsMost)
    refuse(whole, "the range " + range + " is empty or too large");
  std::vector<std::string> numbers;
  for (int number = first; number <= last; number++) {
    char text[16];
    snprintf(text, sizeof text, "%0*d", low[0] == '0' ? static_cast<int>(low.size()) : 1, number);
    numbers.push_back(text);
  }
  return numbers;
}

std::vector<std::string> expandName(const std::string &name, const std::string &whole) {
  size_t open = name.find('['), close = name.find(']');
  if (open == name.npos && close == name.npos) return {name};
  if (open == name.npos || close == name.npos || close < open ||
      name.find_first_of("[]", close + 1) != name.npos || name.find('[', open + 1) != name.npos)
    refuse(whole, "its brackets do not match");
  std::vector<std::string> names;
  for (const std::string &range : cut(name.substr(open + 1, close - open - 1), ',', false))
    for (const std::string &number : expandRange(range, whole))
      names.push_back(name.substr(0, open) + number + name.substr(close + 1));
  return names;
}

// The members in a table of lines "number:host,host:name".
std::vector<std::string> groupHosts(const std::string &number, const std::string &table) {
  for (const std::string &line : cut(table, '\n', false)) {
    std::vector<std::string> fields = cut(line, ':', false);
    if (fields.size() < 3 || line[0] == '#' || fields[0] != number) continue;
    return cut(fields[1], ',', false);
  }
  throw Failure(Exit::failed, "there is no tape group " + number,
                "See the groups with: zul request 'TAPE get group'");
}

// What a name may consist of; anything else would be a mistake, or a line of its own on the way.
void checkName(const std::string &name, const std::string &whole) {
  if (name.empty()) refuse(whole, "a name is missing");
  for (char c : name)
    if (!isalnum(static_cast<unsigned char>(c)) && c != '.' && c != '-' && c != '_')
      refuse(whole, "a name cannot hold '" + oneLine(std::string(1, c)) + "'");
}

}  // namespace

std::vector<std::string> expandHosts(const std::string &text,
                                     const std::function<std::string()> &groupText) {
  std::vector<std::string> hosts;
  for (const std::string &part : cut(text, ',', true)) {
    bool group = !part.empty() && part[0] == '@';
    if (group && !isNumber(part.substr(1))) refuse(text, "behind '@' stands a tape group's number");
    for (std::string &host :
         group ? groupHosts(part.substr(1), groupText()) : expandName(part, text)) {
      checkName(host, text);
      if (std::find(hosts.begin(), hosts.end(), host) == hosts.end()) hosts.push_back(host);
      if (hosts.size() > kHostsMost) refuse(text, "it names too many hosts");
    }
  }
  return hosts;
}

}  // namespace console
