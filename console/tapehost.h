// What zul asks a tape host about a volume, over the console.
#pragma once
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "console/connection.h"
#include "console/volume.h"

namespace console {

// How an operator names a volume: by its place, or by the job that wrote it.
struct VolumeOptions {
  std::optional<int> drive, tape, volume;
  std::optional<int> job;
  std::string asOf;
};

// A volume as the site knows it.
struct Volume {
  VolumeId id;
  std::string label;      // of the tape
  std::string driveText;  // name and device path
  std::optional<Record> record;
  std::optional<Run> run;  // when it was found by its job
  std::string verified;    // what the last verification noted, when it found the volume whole
};

class TapeHost {
 public:
  explicit TapeHost(const Target &target)
      : target_(target), connection_(std::make_unique<Connection>(target)) {}

  // The volume that is meant; a Failure when there is none.
  Volume find(const VolumeOptions &options);

  // The newest run of the same job before this one whose volume holds files of a host.
  std::optional<Run> earlierWith(const Run &than, const std::string &host);

  // Reads a file line by line, however long it is; false when there is none.
  bool eachLine(const std::string &path, const std::function<void(std::string_view)> &take);
  // Stores a file.
  void put(const std::string &path, const std::string &content);
  // True when restores behave soundly there.
  bool restoresSoundly();
  // Sends a request that runs on once it is accepted, and shows its text; a Failure when it is not.
  void start(const std::string &request, const std::function<void(std::string_view)> &show);

  static std::string listPath(const VolumeId &id, const char *suffix = "");

 private:
  bool holds(const VolumeId &id, const std::string &host);
  VolumeId place(const VolumeOptions &options, std::optional<Run> &run);

  Target target_;
  std::unique_ptr<Connection> connection_;
};

// "drive 0, tape 3, volume 5"
std::string placeText(const VolumeId &id);
// A line or two about a volume: where it is, what it is, when it was written, whether it was
// verified.
std::string describeVolume(const Volume &volume);
nlohmann::ordered_json volumeJson(const Volume &volume);

}  // namespace console
