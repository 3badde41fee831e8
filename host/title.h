// The command line that `ps` shows. A request's process and every job that comes of it carry their
// request line there, which is also how a daemon that was started again recognises them.
#pragma once
#include <string_view>

namespace host {

constexpr std::string_view kTitlePrefix = "ZULd: ";

// Takes over the memory that holds the arguments and the environment; before any other use of
// either. The environment is copied elsewhere first.
void prepareTitle(int argc, char **argv);
// Shows "ZULd: " and text, cut to what the memory holds.
void showTitle(std::string_view text);

}  // namespace host
