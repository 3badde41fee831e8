// Making, loading and listing virtual drives and cartridges, for "zul vtape" and "zul init" in the
// operator's process and for tests.
#include "drive/cartridge.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zul/host.h>

#include <algorithm>

#include "base/fd.h"
#include "drive/drive.h"
#include "drive/faults.h"
#include "drive/place.h"
#include "drive/reservation.h"
#include "drive/state.h"
#include "drive/virtual.h"

namespace drive {

__attribute__((format(printf, 1, 2))) static Problem problem(const char *format, ...) {
  char text[1024];
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof text, format, args);
  va_end(args);
  return text;
}

static std::string deviceOf(const std::string &drive) {
  return "/dev/vtape/" + drive;
}

static Problem checkName(const char *what, const std::string &name) {
  if (isTapeName(name.c_str()) && name != kShelf) return {};
  return problem(
      "\"%s\" cannot be the name of a %s: use 1 to 63 letters, digits, '.', '_' or '-', not "
      "\"%s\", "
      "and no '.' in front",
      name.c_str(), what, kShelf);
}

static bool hasDrive(const std::string &drive) {
  struct stat status;
  return stat(DrivePath(drive.c_str(), ""), &status) == 0 && S_ISDIR(status.st_mode);
}

static bool hasCartridge(const std::string &cartridge) {
  struct stat status;
  return lstat(ShelfPath(cartridge.c_str(), ".tap"), &status) == 0 && S_ISREG(status.st_mode);
}

static Problem noDrive(const std::string &drive) {
  return problem("There is no drive %s; \"zul vtape list\" shows the drives", drive.c_str());
}
static Problem noCartridge(const std::string &cartridge) {
  return problem("There is no cartridge %s; \"zul vtape list\" shows the cartridges",
                 cartridge.c_str());
}

// ---- exclusion

static int holderOf(const std::string &drive) {
  // A job that has the drive reserved may have it closed just now.
  if (pid_t keeper = keeperOf(deviceOf(drive).c_str())) return keeper;
  State *state = mapState(drive.c_str());
  int holder = state ? state->holder : 0;
  unmapState(state);
  return holder;
}

// The drive opened with what is in it, if anything, so that nobody else can; whoever was killed
// while writing has got the closing mark then. The shelf is locked by us: a job that comes to the
// drive meanwhile waits for that (opening.cpp) instead of finding it busy.
class OpenDrive {
 public:
  explicit OpenDrive(const std::string &drive)
      : isReserved_(keeperOf(deviceOf(drive).c_str()) != 0),
        fd_(isReserved_
                ? -1
                : openVirtual(deviceOf(drive).c_str(), O_RDONLY | O_NONBLOCK, Patience::none)),
        error_(isReserved_ ? EBUSY
               : fd_ < 0   ? errno
                           : 0) {}
  ~OpenDrive() {
    if (fd_ >= 0) abandonDrive(fd_);
  }
  OpenDrive(const OpenDrive &) = delete;
  OpenDrive &operator=(const OpenDrive &) = delete;
  int fd() const { return fd_; }
  int error() const { return error_; }

 private:
  bool isReserved_;
  int fd_, error_;
};

static Problem cannotUse(const std::string &drive, int error) {
  if (error == EBUSY)
    return problem("Drive %s is in use by process %d; wait until its job has ended, or stop it",
                   drive.c_str(), holderOf(drive));
  return problem("Drive %s cannot be used: %s", drive.c_str(), strerror(error));
}

// ---- making

static Problem makeFolder(const char *path) {
  if (mkdir(path, 0770) == 0) {
    base::Fd folder(open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (folder) giveToOwner(folder.get());
    syncFolder(path);
    return {};
  }
  if (errno == EEXIST) return {};
  return problem("Cannot make the folder %s: %s", path, strerror(errno));
}

static Problem makeShelf() {
  for (const char *folder : {"var", "var/vtape", "var/vtape/shelf"})
    if (Problem bad = makeFolder(base::HomePath("%s", folder)); !bad.empty()) return bad;
  return {};
}

Problem makeDrive(const std::string &drive) {
  if (Problem bad = checkName("drive", drive); !bad.empty()) return bad;
  if (hasDrive(drive)) return problem("Drive %s already exists", drive.c_str());
  if (Problem bad = makeShelf(); !bad.empty()) return bad;
  if (Problem bad = makeFolder(base::HomePath("var/vtape/%s", drive.c_str())); !bad.empty())
    return bad;
  DrivePath lock(drive.c_str(), "lock");
  base::Fd fd(open(lock, O_RDONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0660));
  State *state = mapState(drive.c_str());
  if (!fd || !state)
    return problem("Cannot set up drive %s below %s/var/vtape: %s", drive.c_str(), ZULhome,
                   strerror(errno));
  giveToOwner(fd.get());
  unmapState(state);
  return {};
}

Problem makeCartridge(const std::string &cartridge, uint64_t capacityBytes) {
  if (Problem bad = checkName("cartridge", cartridge); !bad.empty()) return bad;
  if (capacityBytes < kCapacityMin || capacityBytes > kCapacityMax)
    return problem("A cartridge holds between %llu bytes and %llu bytes, not %llu",
                   static_cast<unsigned long long>(kCapacityMin),
                   static_cast<unsigned long long>(kCapacityMax),
                   static_cast<unsigned long long>(capacityBytes));
  if (Problem bad = makeShelf(); !bad.empty()) return bad;
  base::Fd shelf = lockShelf();
  if (!shelf) return problem("Cannot lock the shelf in %s/var/vtape: %s", ZULhome, strerror(errno));
  if (hasCartridge(cartridge))
    return problem("Cartridge %s already exists; choose another name", cartridge.c_str());
  // The label first: an image without one would be taken for a stranger's.
  if (writeLabel(cartridge.c_str(), {static_cast<int64_t>(capacityBytes), false}) != 0)
    return problem("Cannot write the label of cartridge %s: %s", cartridge.c_str(),
                   strerror(errno));
  ShelfPath path(cartridge.c_str(), ".tap");
  base::Fd image(open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0660));
  if (!image || fsync(image.get()) != 0)
    return problem("Cannot make %s: %s", path.c_str(), strerror(errno));
  giveToOwner(image.get());
  syncFolder(path);
  return {};
}

// ---- loading

static std::vector<std::string> namesIn(const char *folder) {
  std::vector<std::string> names;
  DIR *entries = opendir(folder);
  if (!entries) return names;
  while (dirent *entry = readdir(entries)) names.emplace_back(entry->d_name);
  closedir(entries);
  std::sort(names.begin(), names.end());
  return names;
}

static std::vector<std::string> driveNames() {
  std::vector<std::string> names;
  for (const std::string &name : namesIn(base::HomePath("var/vtape")))
    if (isTapeName(name.c_str()) && name != kShelf && hasDrive(name)) names.push_back(name);
  return names;
}

static std::string loadedIn(const std::string &drive) {
  char name[kNameRoom];
  return readLoaded(drive.c_str(), name) ? name : "";
}

static std::string driveWith(const std::string &cartridge) {
  for (const std::string &drive : driveNames())
    if (loadedIn(drive) == cartridge) return drive;
  return {};
}

Problem loadCartridge(const std::string &drive, const std::string &cartridge) {
  if (!isTapeName(drive.c_str()) || !hasDrive(drive)) return noDrive(drive);
  if (!isTapeName(cartridge.c_str()) || !hasCartridge(cartridge)) return noCartridge(cartridge);
  base::Fd shelf = lockShelf();
  if (!shelf) return problem("Cannot lock the shelf in %s/var/vtape: %s", ZULhome, strerror(errno));
  OpenDrive open(drive);
  if (open.fd() < 0) return cannotUse(drive, open.error());
  if (std::string other = loadedIn(drive); !other.empty())
    return problem(other == cartridge ? "Cartridge %s is in drive %s already"
                                      : "Cartridge %s is still in drive %s; unload it first",
                   other.c_str(), drive.c_str());
  if (std::string other = driveWith(cartridge); !other.empty())
    return problem("Cartridge %s is in drive %s; unload it there first", cartridge.c_str(),
                   other.c_str());
  // A position left over from its last visit would not be the beginning.
  if (State *state = mapState(drive.c_str())) {
    resetState(state, "", -1);
    unmapState(state);
  }
  if (writeText(DrivePath(drive.c_str(), "cartridge"), (cartridge + "\n").c_str()) != 0)
    return problem("Cannot load cartridge %s into drive %s: %s", cartridge.c_str(), drive.c_str(),
                   strerror(errno));
  return {};
}

Problem unloadCartridge(const std::string &drive, std::string *cartridge) {
  if (!isTapeName(drive.c_str()) || !hasDrive(drive)) return noDrive(drive);
  base::Fd shelf = lockShelf();
  OpenDrive open(drive);
  if (open.fd() < 0) return cannotUse(drive, open.error());
  std::string loaded = loadedIn(drive);
  if (loaded.empty()) return problem("Drive %s is empty", drive.c_str());
  DrivePath path(drive.c_str(), "cartridge");
  if (unlink(path) != 0)
    return problem("Cannot unload drive %s: %s", drive.c_str(), strerror(errno));
  syncFolder(path);
  if (cartridge) *cartridge = loaded;
  return {};
}

Problem protectCartridge(const std::string &cartridge, bool isProtected) {
  if (!isTapeName(cartridge.c_str()) || !hasCartridge(cartridge)) return noCartridge(cartridge);
  base::Fd shelf = lockShelf();
  // A job that writes to it keeps what it was promised when it opened the drive.
  if (std::string drive = driveWith(cartridge); !drive.empty()) {
    OpenDrive open(drive);
    if (open.fd() < 0) return cannotUse(drive, open.error());
  }
  Label label = readLabel(cartridge.c_str());
  label.isProtected = isProtected;
  if (writeLabel(cartridge.c_str(), label) != 0)
    return problem("Cannot write the label of cartridge %s: %s", cartridge.c_str(),
                   strerror(errno));
  return {};
}

// ---- listing

static DriveInfo infoOf(const std::string &drive) {
  DriveInfo info;
  info.name = drive;
  info.device = deviceOf(drive);
  OpenDrive open(drive);
  info.cartridge = loadedIn(drive);
  info.isBusy = open.fd() < 0 && open.error() == EBUSY;
  State *state = mapState(drive.c_str());
  if (!state) return info;
  if (info.isBusy) info.holder = holderOf(drive);
  if (info.cartridge == state->cartridge && !info.cartridge.empty()) {
    info.fileNo = state->fileNo;
    info.blockNo = state->blockNo;
  }
  unmapState(state);
  return info;
}

std::vector<DriveInfo> listDrives() {
  std::vector<DriveInfo> drives;
  base::Fd shelf = lockShelf();
  for (const std::string &name : driveNames()) drives.push_back(infoOf(name));
  return drives;
}

std::vector<CartridgeInfo> listCartridges() {
  static constexpr char kEnding[] = ".tap";
  std::vector<CartridgeInfo> cartridges;
  for (const std::string &file : namesIn(base::HomePath("var/vtape/%s", kShelf))) {
    if (file.size() < sizeof kEnding || !file.ends_with(kEnding)) continue;
    std::string name = file.substr(0, file.size() - (sizeof kEnding - 1));
    struct stat status;
    if (!isTapeName(name.c_str()) || stat(ShelfPath(name.c_str(), kEnding), &status) != 0) continue;
    Label label = readLabel(name.c_str());
    CartridgeInfo info;
    info.name = name;
    info.capacityBytes = label.capacity == INT64_MAX ? 0 : static_cast<uint64_t>(label.capacity);
    info.usedBytes = static_cast<uint64_t>(status.st_size);
    info.isProtected = label.isProtected;
    info.drive = driveWith(name);
    cartridges.push_back(info);
  }
  return cartridges;
}

// ---- faults

Problem setFaults(const std::string &drive, const std::string &text) {
  if (!isTapeName(drive.c_str()) || !hasDrive(drive)) return noDrive(drive);
  Faults parsed = {};
  for (size_t at = 0, number = 1; at < text.size(); number++) {
    size_t end = std::min(text.find('\n', at), text.size());
    std::string line = text.substr(at, end - at);
    if (!parseFault(line.c_str(), &parsed))
      return problem("Line %zu of the faults is not understood: %s", number, line.c_str());
    at = end + 1;
  }
  DrivePath path(drive.c_str(), "faults");
  if (text.empty() ? unlink(path) != 0 && errno != ENOENT : writeText(path, text.c_str()) != 0)
    return problem("Cannot write %s: %s", path.c_str(), strerror(errno));
  State *state = mapState(drive.c_str());
  if (!state) return cannotUse(drive, errno);
  // Whoever has the drive open compares this with what it has read.
  Faults loaded;
  loadFaults(drive.c_str(), &loaded);
  for (uint32_t &count : state->faultCounts) count = 0;
  state->faultBytes = 0;
  state->faultStamp = loaded.stamp;
  unmapState(state);
  return {};
}

}  // namespace drive
