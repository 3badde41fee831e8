// The module, bin/libtape.so under ZULhome, loaded once by the listener and inherited by every
// request.
#pragma once
#include <string>

namespace host {

struct Module {
  int (*tapetool)(char *line) = nullptr;
  int (*mreplicate)(char *line) = nullptr;
};

// Loads it and finds its two entries. False says why in words that help.
bool loadModule(const std::string &home, Module &module, std::string &why);

}  // namespace host
