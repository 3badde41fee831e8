// zul verify: has a tape host read a volume back, and shows what it found.
#include <nlohmann/json.hpp>

#include "console/commands.h"
#include "console/tapehost.h"
#include "console/text.h"

namespace console {

Exit verifyVolume(const VerifyOptions &options) {
  TapeHost host(options.target);
  Volume volume = host.find(options.volume);
  if (!options.json)
    printOut(describeVolume(volume) + "\ntape        labelled \"" + oneLine(volume.label) + "\"\n");
  FollowOptions watch = prepareFollow(options.target, "verify", "");
  watch.silent = options.json;
  auto show = [&](std::string_view text) { options.json ? printErr(text) : printOut(text); };
  host.start("TAPE verify " + std::to_string(volume.id.drive) + " " +
                 std::to_string(volume.id.tape) + " " + std::to_string(volume.id.volume),
             show);
  Exit ended = followJob(watch);
  nlohmann::ordered_json problems = nlohmann::ordered_json::array();
  host.eachLine("var/tape/verify.status", [&](std::string_view line) {
    constexpr std::string_view kProblem = "PROBLEM:  ", kNotice = "NOTICE:  ";
    bool problem = line.substr(0, kProblem.size()) == kProblem;
    if (problem && options.json)
      problems.push_back(line.substr(kProblem.size()));
    else if (!options.json && (problem || line.substr(0, kNotice.size()) == kNotice ||
                               line.find("VERIFIED:  ") != line.npos))
      printOut(oneLine(line) + "\n");
  });
  if (options.json) {
    nlohmann::ordered_json all = {
        {"source", volumeJson(volume)}, {"whole", ended == Exit::done}, {"problems", problems}};
    printOut(all.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n");
  }
  return ended;
}

}  // namespace console
