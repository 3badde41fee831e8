// Asks a tape host about its volumes, with HOST get.
#include "console/tapehost.h"

#include <time.h>

#include "console/commands.h"
#include "console/failure.h"
#include "console/text.h"

namespace console {

namespace {

constexpr int kMostLooks = 30;  // at volumes, for one that holds a host: their lists may be long

std::string tapeFolder(const VolumeId &id) {
  return "var/tape/drive." + std::to_string(id.drive) + "/tape." + std::to_string(id.tape) + "/";
}

// "lto, /dev/nst0" out of the drive table.
std::string driveOf(const std::string &table, int drive) {
  std::string text;
  LineCutter cutter([&](std::string_view line) {
    std::string wanted = std::to_string(drive) + ":";
    if (line.substr(0, wanted.size()) != wanted) return;
    std::string_view rest = line.substr(wanted.size());
    size_t name = rest.find(':');
    size_t device = name == rest.npos ? rest.npos : rest.find(':', name + 1);
    if (device != rest.npos)
      text =
          oneLine(rest.substr(0, name)) + ", " + oneLine(rest.substr(name + 1, device - name - 1));
  });
  cutter.feed(table);
  cutter.finish();
  return text;
}

}  // namespace

std::string TapeHost::listPath(const VolumeId &id, const char *suffix) {
  return tapeFolder(id) + "vol." + std::to_string(id.volume) + suffix;
}

std::string placeText(const VolumeId &id) {
  return "drive " + std::to_string(id.drive) + ", tape " + std::to_string(id.tape) + ", volume " +
         std::to_string(id.volume);
}

VolumeId TapeHost::place(const VolumeOptions &options, std::optional<Run> &run) {
  if (!options.job) {
    if (!options.drive || !options.tape || !options.volume || !options.asOf.empty())
      throw Failure(
          Exit::usage,
          "which volume? It is named by --drive, --tape and --volume together, or by --job",
          "\"zul request 'TAPE get hhist HOST'\" lists the runs that hold files of a host.");
    return VolumeId{*options.drive, *options.tape, *options.volume};
  }
  if (options.drive || options.tape || options.volume)
    throw Failure(Exit::usage,
                  "a volume is named either by --job, or by --drive, --tape and --volume");
  std::optional<int64_t> asOf;
  if (!options.asOf.empty() && !(asOf = parseDate(options.asOf)))
    throw Failure(Exit::usage, "\"" + oneLine(options.asOf) + "\" is no date",
                  "Write it like 2026-03-01, '2026-03-01 17:20' or @1772385600.");
  std::optional<std::string> history = connection_->fetch("var/tape/bhistory");
  run = chooseRun(parseHistory(history.value_or("")), *options.job, asOf);
  if (!run)
    throw Failure(
        Exit::failed,
        "no run of backup " + std::to_string(*options.job) + " has come to its end" +
            (asOf ? " by " + timeText(*asOf) : ""),
        "\"zul request 'TAPE get hhist HOST'\" lists the runs that hold files of a host.");
  return run->where;
}

Volume TapeHost::find(const VolumeOptions &options) {
  Volume volume;
  volume.id = place(options, volume.run);
  std::string folder = tapeFolder(volume.id);
  std::optional<std::string> header = connection_->fetch(folder + "header");
  if (!header)
    throw Failure(Exit::failed,
                  "the tape host knows no tape " + std::to_string(volume.id.tape) + " of drive " +
                      std::to_string(volume.id.drive),
                  "\"zul request 'TAPE get tapes DRIVE'\" lists the tapes of a drive.");
  volume.label = parseLabel(*header).value_or("");
  volume.record = findRecord(connection_->fetch(folder + "catalog").value_or(""), volume.id.volume);
  if (!volume.record)
    throw Failure(
        Exit::failed,
        "there is no volume " + std::to_string(volume.id.volume) + " on tape " +
            std::to_string(volume.id.tape) + " of drive " + std::to_string(volume.id.drive),
        "Volumes are numbered 1, 3, 5, ...; the line N of \"TAPE get vols\" is volume 2N+1.");
  volume.driveText = driveOf(connection_->fetch("etc/tapedevs").value_or(""), volume.id.drive);
  volume.verified = connection_->fetch(listPath(volume.id, ".verified")).value_or("");
  return volume;
}

bool TapeHost::holds(const VolumeId &id, const std::string &host) {
  bool found = false;
  eachLine(listPath(id), [&](std::string_view text) {
    std::optional<ListLine> line = cutListLine(text);
    found = found || (line && line->host == host);
  });
  return found;
}

std::optional<Run> TapeHost::earlierWith(const Run &than, const std::string &host) {
  std::vector<Run> runs = parseHistory(connection_->fetch("var/tape/bhistory").value_or(""));
  int looks = kMostLooks;
  for (auto run = runs.rbegin(); run != runs.rend() && looks > 0; run++) {
    if (run->job != than.job || run->status == 0 || run->start > than.start) continue;
    looks--;
    if (holds(run->where, host)) return *run;
  }
  return std::nullopt;
}

bool TapeHost::eachLine(const std::string &path,
                        const std::function<void(std::string_view)> &take) {
  bool first = true, data = false;
  LineCutter cutter([&](std::string_view line) {
    if (first) data = line.substr(0, 5) == "DATA ";
    if (!first && data) take(line);
    first = false;
  });
  connection_->send("HOST get " + path);
  Outcome outcome = connection_->receive([&](std::string_view piece) { cutter.feed(piece); }, true);
  cutter.finish();
  if (!outcome.ended) throw Failure(Exit::noConnection, "the connection broke within " + path);
  return data && outcome.status == 0;
}

void TapeHost::put(const std::string &path, const std::string &content) {
  storeFile(*connection_, path, content);
}

bool TapeHost::restoresSoundly() {
  nlohmann::json status =
      nlohmann::json::parse(connection_->ask("HOST status json").text, nullptr, false);
  if (!status.is_object() || !status.contains("sound") || !status["sound"].is_array()) return false;
  for (const nlohmann::json &area : status["sound"])
    if (area == "restore") return true;
  return false;
}

void TapeHost::start(const std::string &request,
                     const std::function<void(std::string_view)> &show) {
  connection_->send(request);
  Outcome outcome = connection_->receive(show, false);
  if (outcome.accepted) {
    // The session serves that request until it ends; what comes next gets one of its own.
    connection_ = std::make_unique<Connection>(target_);
    return;
  }
  if (!outcome.ended)
    throw Failure(Exit::noConnection, "the connection ended in the middle of \"" + request + "\"",
                  "Whether it was accepted is not known: see \"zul ps\".");
  throw Failure(Exit::failed,
                "\"" + oneLine(request) + "\" was not accepted; the reason stands above");
}

std::string describeVolume(const Volume &volume) {
  std::string text = placeText(volume.id);
  if (volume.record)
    text += ": backup " + std::to_string(volume.record->job) + " (" + oneLine(volume.record->name) +
            "), level " + std::to_string(volume.record->level) + ", " +
            timeText(volume.record->created);
  if (volume.run && volume.run->status == 2)
    text += "\n            (some hosts failed in that run)";
  if (volume.record && volume.record->level > 0)
    text += "\n            (level " + std::to_string(volume.record->level) +
            ": only what had changed since a lower level)";
  return text;
}

nlohmann::ordered_json volumeJson(const Volume &volume) {
  nlohmann::ordered_json json = {{"drive", volume.id.drive},
                                 {"tape", volume.id.tape},
                                 {"volume", volume.id.volume},
                                 {"label", volume.label}};
  if (volume.record) {
    json["job"] = volume.record->job;
    json["name"] = volume.record->name;
    json["level"] = volume.record->level;
    json["created"] = volume.record->created;
  }
  return json;
}

}  // namespace console
