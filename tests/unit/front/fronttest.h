// What the tests of the front end share: a home, and requests as a host hands them over.
#pragma once
#include <support.h>
#include <zul/module.h>

#include <string>

#include "base/text.h"

class RequestTest : public support::HomeTest {
 protected:
  // Runs one request here and returns its result; what it printed is in said.
  int run(const std::string &line) {
    int result = 0;
    said = support::captureStderr([&] { result = request(line); });
    return result;
  }
  // The same, printing where this process prints.
  static int request(const std::string &line) {
    char buffer[4096];
    base::copyText(buffer, sizeof buffer, line.c_str());
    return tapetool(buffer);
  }
  std::string said;
};
