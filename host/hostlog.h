// The daemon's log: one line per event, with time and process, on standard error or in a file. Its
// stream is `fplog`, which request processes inherit and the module writes to; it stands on a
// descriptor of 3 or more.
#pragma once
#include <string>
#include <string_view>

namespace host {

// Opens the log; an empty path takes standard error. False says why.
bool openLog(const std::string &path, std::string &why);
// Opens the file again under its name, after it was rotated. The descriptor keeps its number.
void reopenLog();

void logEvent(const char *format, ...) __attribute__((format(printf, 1, 2)));

// What a peer sent, fit for one line of a log: bytes that do not print become '?', and it ends
// after limit bytes.
std::string printable(std::string_view text, size_t limit = 200);

}  // namespace host
