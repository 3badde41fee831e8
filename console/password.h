// Passwords of operators: from a file, or typed on the terminal without being shown.
#pragma once
#include <string>

namespace console {

// whose is shown in the question, "anna on tapehost". file, when not empty, is read instead: its
// first line, and only if nobody else may read it. Failure when there is neither a file nor a
// terminal.
std::string askPassword(const std::string &whose, const std::string &file);
// Asks twice for a new one, until both are the same.
std::string askNewPassword(const std::string &whose, const std::string &file);

}  // namespace console
