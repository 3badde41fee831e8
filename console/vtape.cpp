// zul vtape: virtual drives and their cartridges, on this machine's own home. The daemon need not
// run and is not disturbed; a drive that a job is using says so.
#include <ctype.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>
#include <zul/records.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "base/fd.h"
#include "console/cartridges.h"
#include "console/commands.h"
#include "console/places.h"
#include "console/text.h"
#include "console/volume.h"
#include "drive/cartridge.h"

namespace console {

namespace {

constexpr const char *kDevices = "/dev/vtape/";

void check(const drive::Problem &problem) {
  if (!problem.empty()) throw Failure(Exit::failed, problem);
}

void enter(const std::string &home) {
  if (!isHome(home))
    throw Failure(Exit::failed, home + " is no home",
                  "Make one with: zul --home " + home + " init");
  useHome(home);
}

bool hasDrive(const std::string &name) {
  std::vector<drive::DriveInfo> drives = drive::listDrives();
  return std::any_of(drives.begin(), drives.end(),
                     [&](const drive::DriveInfo &each) { return each.name == name; });
}

std::vector<std::string> splitLine(const std::string &line, char separator) {
  std::vector<std::string> fields;
  for (size_t begin = 0; begin <= line.size();) {
    size_t end = std::min(line.find(separator, begin), line.size());
    fields.push_back(line.substr(begin, end - begin));
    begin = end + 1;
  }
  return fields;
}

// The virtual drive behind a number of the drive table, or nothing.
std::string driveOfNumber(const std::string &home, const std::string &number) {
  std::string table = readWhole(home + "/etc/tapedevs").value_or("");
  for (const std::string &line : splitLine(table, '\n')) {
    std::vector<std::string> fields = splitLine(line, ':');
    if (fields.size() >= 3 && fields[0] == number && fields[2].rfind(kDevices, 0) == 0)
      return fields[2].substr(strlen(kDevices));
  }
  return "";
}

// A drive by its name or its number in the drive table; without either, the only one there is.
std::string pickDrive(const std::string &home, const std::string &wanted) {
  std::vector<drive::DriveInfo> drives = drive::listDrives();
  std::string names;
  for (const drive::DriveInfo &each : drives) {
    if (each.name == wanted) return wanted;
    names += (names.empty() ? "" : ", ") + each.name;
  }
  std::string byNumber = driveOfNumber(home, wanted);
  if (!wanted.empty() && hasDrive(byNumber)) return byNumber;
  if (drives.empty())
    throw Failure(Exit::failed, "there is no virtual drive in " + home,
                  "Make one with: zul vtape drive NAME");
  if (!wanted.empty())
    throw Failure(Exit::failed, "there is no virtual drive " + wanted, "There are: " + names);
  if (drives.size() > 1)
    throw Failure(Exit::usage, "there are several virtual drives",
                  "Say which with --drive: " + names);
  return drives[0].name;
}

// A cartridge that has just been made for a drive is of no use when it cannot be loaded; it stays
// on the shelf.
void loadNew(const std::string &name, const std::string &drive) {
  drive::Problem problem = drive::loadCartridge(drive, name);
  if (!problem.empty())
    throw Failure(Exit::failed, problem,
                  "Cartridge " + name +
                      " was made and is on the shelf. When the drive is free: zul vtape load " +
                      name + " --drive " + drive);
}

// What the tape calls itself: "Please insert tape 3" means this and no name on the shelf.
struct TapeLabel {
  int drive, tape;
  std::string name;
};

// The first block of the image, when it is a label. It is read only, so that a job that writes the
// tape is not disturbed.
std::optional<TapeLabel> labelOf(const std::string &home, const std::string &cartridge) {
  std::string path = home + "/var/vtape/shelf/" + cartridge + ".tap";
  base::Fd image(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  tapehead head;
  constexpr off_t kLengthBytes = 4;
  if (!image || pread(image.get(), &head, sizeof head, kLengthBytes) != sizeof head)
    return std::nullopt;
  std::optional<std::string> name =
      parseLabel(std::string_view(reinterpret_cast<const char *>(&head), sizeof head));
  if (!name) return std::nullopt;
  return TapeLabel{head.drive, head.tape, *name};
}

std::string labelText(const std::optional<TapeLabel> &label) {
  if (!label) return "none";
  return "drive " + std::to_string(label->drive) + ", tape " + std::to_string(label->tape) + ", " +
         oneLine(label->name);
}

std::string stateOf(const drive::DriveInfo &each) {
  if (each.isBusy) return "in use by pid " + std::to_string(each.holder);
  if (each.cartridge.empty()) return "empty";
  if (each.fileNo < 0) return "ready";
  return "ready, at file " + std::to_string(each.fileNo) +
         (each.blockNo < 0 ? "" : " block " + std::to_string(each.blockNo));
}

std::string pad(std::string text, size_t width) {
  if (text.size() < width) text.append(width - text.size(), ' ');
  return text + "  ";
}

void printList(const std::string &home, const std::vector<drive::DriveInfo> &drives,
               const std::vector<drive::CartridgeInfo> &cartridges) {
  size_t width = 10;
  for (const drive::DriveInfo &each : drives) width = std::max(width, each.name.size());
  for (const drive::CartridgeInfo &each : cartridges) width = std::max(width, each.name.size());
  std::string text = pad("DRIVE", width) + pad("CARTRIDGE", width) + "STATE\n";
  for (const drive::DriveInfo &each : drives)
    text += pad(each.name, width) + pad(each.cartridge.empty() ? "-" : each.cartridge, width) +
            stateOf(each) + "\n";
  text += "\n" + pad("CARTRIDGE", width) + pad("DRIVE", width) + pad("USED", 10) +
          pad("CAPACITY", 10) + "LABEL\n";
  for (const drive::CartridgeInfo &each : cartridges)
    text += pad(each.name, width) + pad(each.drive.empty() ? "-" : each.drive, width) +
            pad(sizeText(each.usedBytes), 10) +
            pad(each.capacityBytes == 0 ? "no limit" : sizeText(each.capacityBytes), 10) +
            labelText(labelOf(home, each.name)) + (each.isProtected ? "; protected" : "") + "\n";
  printOut(text);
}

nlohmann::json labelJson(const std::optional<TapeLabel> &label) {
  if (!label) return nullptr;
  return {{"drive", label->drive}, {"tape", label->tape}, {"name", label->name}};
}

void printJson(const std::string &home, const std::vector<drive::DriveInfo> &drives,
               const std::vector<drive::CartridgeInfo> &cartridges) {
  nlohmann::json all = {{"drives", nlohmann::json::array()},
                        {"cartridges", nlohmann::json::array()}};
  for (const drive::DriveInfo &each : drives)
    all["drives"].push_back({{"name", each.name},
                             {"device", each.device},
                             {"cartridge", each.cartridge},
                             {"busy", each.isBusy},
                             {"holder", each.holder},
                             {"file", each.fileNo},
                             {"block", each.blockNo}});
  for (const drive::CartridgeInfo &each : cartridges)
    all["cartridges"].push_back({{"name", each.name},
                                 {"drive", each.drive},
                                 {"usedBytes", each.usedBytes},
                                 {"capacityBytes", each.capacityBytes},
                                 {"label", labelJson(labelOf(home, each.name))},
                                 {"protected", each.isProtected}});
  printOut(all.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n");
}

}  // namespace

void makeFirstDrive(const std::string &drive, const std::string &cartridge, uint64_t capacity) {
  if (!hasDrive(drive)) check(drive::makeDrive(drive));
  std::vector<drive::CartridgeInfo> shelf = drive::listCartridges();
  auto found = std::find_if(shelf.begin(), shelf.end(), [&](const drive::CartridgeInfo &each) {
    return each.name == cartridge;
  });
  if (found == shelf.end()) check(drive::makeCartridge(cartridge, capacity));
  if (found == shelf.end() || found->drive.empty()) check(drive::loadCartridge(drive, cartridge));
}

Exit makeCartridge(const std::string &home, const MakeOptions &options) {
  enter(home);
  // What is wrong with the drive is said before anything has been made.
  std::string drive;
  if (options.drive) {
    std::string byNumber = driveOfNumber(home, *options.drive);
    drive = hasDrive(*options.drive) || !hasDrive(byNumber) ? *options.drive : byNumber;
    if (!hasDrive(drive)) {
      check(drive::makeDrive(drive));
      printOut("Made the virtual drive " + drive + ", device " + kDevices + drive + "\n");
    }
  }
  check(drive::makeCartridge(options.name, options.capacity));
  printOut("Made the cartridge " + options.name + ", " + sizeText(options.capacity) + "\n");
  if (drive.empty()) return Exit::done;
  loadNew(options.name, drive);
  printOut("Cartridge " + options.name + " is in drive " + drive + "\n");
  return Exit::done;
}

Exit makeVirtualDrive(const std::string &home, const std::string &name) {
  enter(home);
  check(drive::makeDrive(name));
  printOut("Made the virtual drive " + name + ", device " + kDevices + name +
           "\nTo use it: zul request 'TAPE add drive NUMBER:" + name + ":" + kDevices + name +
           ":0:0'\n");
  return Exit::done;
}

Exit loadCartridge(const std::string &home, const std::string &cartridge,
                   const std::string &wanted) {
  enter(home);
  std::string drive = pickDrive(home, wanted);
  check(drive::loadCartridge(drive, cartridge));
  printOut("Cartridge " + cartridge + " is in drive " + drive + "\n");
  return Exit::done;
}

Exit unloadCartridge(const std::string &home, const std::string &wanted) {
  enter(home);
  std::string drive = pickDrive(home, wanted), cartridge;
  check(drive::unloadCartridge(drive, &cartridge));
  printOut("Cartridge " + cartridge + " is back on the shelf, drive " + drive + " is empty\n");
  return Exit::done;
}

Exit protectCartridge(const std::string &home, const std::string &cartridge, bool off) {
  enter(home);
  check(drive::protectCartridge(cartridge, !off));
  printOut("Cartridge " + cartridge +
           (off ? " may be written\n" : " is protected: it can be read only\n"));
  return Exit::done;
}

Exit listCartridges(const std::string &home, bool json) {
  enter(home);
  std::vector<drive::DriveInfo> drives = drive::listDrives();
  std::vector<drive::CartridgeInfo> cartridges = drive::listCartridges();
  if (json)
    printJson(home, drives, cartridges);
  else
    printList(home, drives, cartridges);
  return Exit::done;
}

}  // namespace console
