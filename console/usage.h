// What zul says about a command line that makes no sense: one sentence on what is wrong, and what
// to do about it.
#pragma once
#include <string>
#include <vector>

#include "console/failure.h"

namespace CLI {
class App;
class ParseError;
}  // namespace CLI

namespace console {

// The word that was most likely meant, or "" when none is near: one that differs by a letter or two
// (a letter missing, another, too many, or two swapped), or the only one that begins so.
std::string nearest(const std::string &word, const std::vector<std::string> &known);

// What the parser could not make sense of.
Failure usageFailure(const CLI::App &app, const CLI::ParseError &error);

}  // namespace console
