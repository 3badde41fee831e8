// What zul says about a command line that makes no sense.
#include "console/usage.h"

#include <CLI/CLI.hpp>
#include <algorithm>

#include "console/text.h"

namespace console {

namespace {

// How many letters must be put in, taken out, changed or swapped with the next to get from one word
// to the other.
size_t distance(const std::string &from, const std::string &to) {
  std::vector<std::vector<size_t>> cost(from.size() + 1, std::vector<size_t>(to.size() + 1));
  for (size_t i = 0; i <= from.size(); i++)
    for (size_t j = 0; j <= to.size(); j++) {
      if (i == 0 || j == 0) {
        cost[i][j] = i + j;
        continue;
      }
      bool same = from[i - 1] == to[j - 1];
      cost[i][j] = std::min({cost[i - 1][j] + 1, cost[i][j - 1] + 1, cost[i - 1][j - 1] + !same});
      if (i > 1 && j > 1 && from[i - 1] == to[j - 2] && from[i - 2] == to[j - 1])
        cost[i][j] = std::min(cost[i][j], cost[i - 2][j - 2] + 1);
    }
  return cost[from.size()][to.size()];
}

// The command that was named, as far as it was: "zul vtape" of "zul vtape lst".
const CLI::App *chosenOf(const CLI::App &app, std::string *name) {
  const CLI::App *chosen = &app;
  *name = app.get_name();
  while (!chosen->get_subcommands().empty()) {
    chosen = chosen->get_subcommands().front();
    *name += " " + chosen->get_name();
  }
  return chosen;
}

std::vector<std::string> commandsOf(const CLI::App &app) {
  std::vector<std::string> names;
  for (const CLI::App *each : app.get_subcommands([](const CLI::App *) { return true; }))
    names.push_back(each->get_name());
  return names;
}

// With those of what it is a part of, which may stand behind it too.
std::vector<std::string> optionsOf(const CLI::App *app) {
  std::vector<std::string> names;
  for (; app; app = app->get_parent())
    for (const CLI::Option *option : app->get_options())
      for (const std::string &name : option->get_lnames()) names.push_back("--" + name);
  return names;
}

std::string joined(const std::vector<std::string> &names) {
  std::string text;
  for (const std::string &name : names) text += (text.empty() ? "" : ", ") + name;
  return text;
}

std::string hintOf(const std::string &meant, const std::string &name) {
  std::string help = name + " --help";
  return meant.empty() ? "See: " + help : "Did you mean \"" + meant + "\"? See: " + help;
}

}  // namespace

std::string nearest(const std::string &word, const std::vector<std::string> &known) {
  std::string best;
  size_t least = word.size() <= 4 ? 2 : 3, beginning = 0;  // a short word has few letters to share
  if (word.size() > 64) return "";
  for (const std::string &each : known)
    if (size_t far = distance(word, each); far < least) best = each, least = far;
  if (!best.empty()) return best;
  for (const std::string &each : known)
    if (each.rfind(word, 0) == 0) best = each, beginning++;
  return beginning == 1 ? best : "";
}

Failure usageFailure(const CLI::App &app, const CLI::ParseError &error) {
  std::string name;
  const CLI::App *chosen = chosenOf(app, &name);
  std::vector<std::string> left = app.remaining(true), commands = commandsOf(*chosen);
  // A value behind a word that is no option is left over too; the option is what is wrong.
  auto wrong = std::find_if(left.begin(), left.end(), [](const std::string &word) {
    return word.size() > 1 && word[0] == '-';
  });
  if (wrong != left.end())
    return Failure(Exit::usage, name + " has no option " + oneLine(*wrong),
                   hintOf(nearest(wrong->substr(0, wrong->find('=')), optionsOf(chosen)), name));
  if (!left.empty() && !commands.empty())
    return Failure(Exit::usage, name + " has no command \"" + oneLine(left[0]) + "\"",
                   hintOf(nearest(left[0], commands), name));
  if (!commands.empty())
    return Failure(Exit::usage, name + " needs a command: " + joined(commands), hintOf("", name));
  if (!left.empty())
    return Failure(Exit::usage, name + " has no use for \"" + oneLine(left[0]) + "\"",
                   chosen->get_name() == "request"
                       ? "A request is one word of the shell: zul request 'TAPE get drives'"
                       : hintOf("", name));
  return Failure(Exit::usage, name + ": " + oneLine(error.what()), hintOf("", name));
}

}  // namespace console
