// Lists of hosts as an operator writes them.
#pragma once
#include <functional>
#include <string>
#include <vector>

namespace console {

// "h1,h[08-12,20],@3": names divided by commas, ranges in brackets (leading noughts are kept), and
// the hosts of a tape group by its number, for which groupText gives the site's table of groups.
// Every host once, in the order written. Throws a Failure that says what is wrong with the text.
std::vector<std::string> expandHosts(const std::string &text,
                                     const std::function<std::string()> &groupText);

}  // namespace console
