// zul init: makes a home. A mark tells a begun home from somebody's files, and the secret, which
// tells a complete home from a begun one, comes last: a run that was cut off is simply repeated. On
// a complete home --force mends folders and module and touches nothing else: not the secret, the
// site file, tables or tapes.
#include <dirent.h>
#include <errno.h>
#include <grp.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zul/host.h>

#include <algorithm>
#include <memory>

#include "console/cartridges.h"
#include "console/commands.h"
#include "console/places.h"
#include "console/text.h"
#include "drive/cartridge.h"
#include "host/login.h"

namespace console {

namespace {

constexpr size_t kMaxHome = 200;  // paths below it are built in buffers of 255 characters
constexpr const char *kFolders[] = {
    "/etc", "/bin", "/tmp", "/var", "/var/tape", "/var/tape/jobids", "/var/tape/mrepljobs"};
constexpr const char *kFirstDrive = "vtape0";
constexpr const char *kFirstCartridge = "first";

constexpr const char *kSiteText =
    R"(# How this agent behaves. Lines "key = value"; this file must not be writable by others than its owner.
#
# classic: what every installed agent expects, byte for byte, including behaviours that lose data, hang or let
#          strangers in on today's networks and file systems.
# sound:   the remedies. Set the same on all hosts of a site: some of them need both ends.
#
behaviour = sound

# One area at a time (later lines win):
#behaviour.stream = classic      # file data between hosts: large and changing files, long lists, lost peers
#behaviour.backup = classic      # failed hosts and tape errors show in results; backup levels work
#behaviour.restore = classic     # exact host names, numbered lists, one missing name does not end a restore
#behaviour.receive = classic     # what arrives: no writing through links, no escape from its folder, full disks
#behaviour.stores = classic      # tables are replaced whole, keys are compared exactly, long host names
#behaviour.multicast = classic   # multicast replication: small files, loss, exclusions, ends
#behaviour.security = classic    # data ports answer only the host that asked; encryption is not given up silently
#behaviour.pace = classic        # no fixed pauses: readiness is looked for instead

# "zul fanout" on another host may ask here for what only shows something. An agent that holds the site's secret can
# have any file backed up to itself, so this opens nothing new.
fanout.nodes-may = look

# Multicast:
#multicast.sender = 10.1.0.5     # where receivers send their requests
#multicast.interface = eth1

# Any pause can be set by hand, in both behaviours:
#pause.list-grace = 10s
)";

[[noreturn]] void cannotMake(const std::string &path, int error) {
  throw Failure(
      Exit::failed, "cannot make " + path + ": " + strerror(error),
      "What was made so far does no harm; run the same command again when this is mended.");
}

bool isEmptyFolder(const std::string &path) {
  std::unique_ptr<DIR, int (*)(DIR *)> folder(opendir(path.c_str()), closedir);
  if (!folder) cannotMake(path, errno);
  while (dirent *entry = readdir(folder.get()))
    if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0) return false;
  return true;
}

// Nobody's files are mixed with a home: the place must be free, empty, or hold a home already.
void checkPlace(const InitOptions &options) {
  const std::string &home = options.home;
  if (home.size() > kMaxHome)
    throw Failure(Exit::usage, "the path of the home is " + std::to_string(home.size()) +
                                   " characters long; " + std::to_string(kMaxHome) +
                                   " are the most");
  if (std::any_of(home.begin(), home.end(), [](unsigned char c) { return c < 0x20 || c == 0x7f; }))
    throw Failure(Exit::usage, "the path of the home holds a control character");
  struct stat status;
  if (stat(home.c_str(), &status) != 0) return;
  if (!S_ISDIR(status.st_mode)) throw Failure(Exit::failed, home + " is there and is no folder");
  if (isHome(home) && !options.force)
    throw Failure(Exit::failed, home + " is a home already; nothing was changed",
                  "To mend it or to bring its module up to date (tapes, tables and secret stay): "
                  "zul init --force");
  checkSecretLost(home);
  if (!isHome(home) && !exists(begunMark(home)) && !isEmptyFolder(home))
    throw Failure(Exit::failed, home + " is not empty and holds no home; nothing was changed",
                  "Name a folder that is empty or does not exist yet.");
}

void makeParents(const std::string &path) {
  for (size_t slash = path.find('/', 1); slash != path.npos; slash = path.find('/', slash + 1)) {
    std::string parent = path.substr(0, slash);
    if (mkdir(parent.c_str(), 0755) != 0 && errno != EEXIST) cannotMake(parent, errno);
  }
}

void makeFolder(const std::string &path, mode_t mode) {
  if (mkdir(path.c_str(), mode) != 0 && errno != EEXIST) cannotMake(path, errno);
  // The mask of whoever calls us may have taken bits away, and an existing folder may be open to
  // others.
  if (chmod(path.c_str(), mode) != 0) cannotMake(path, errno);
}

// Members of the group zul reach the console's socket below var without being able to look around
// there.
void letOperatorsThrough(const std::string &home) {
  group *operators = getgrnam("zul");
  if (!operators) return;
  for (const char *folder : {"", "/var"}) {
    std::string path = home + folder;
    // Without the right to give the folder to the group the operators are root and the daemon's
    // user.
    if (chown(path.c_str(), static_cast<uid_t>(-1), operators->gr_gid) != 0) return;
    if (chmod(path.c_str(), 0710) != 0) cannotMake(path, errno);
  }
}

// The line and the folder that the request "add drive" makes.
void registerDrive(const std::string &home) {
  std::string table = home + "/etc/tapedevs";
  makeFolder(home + "/var/tape/drive.0", 0755);
  if (exists(table)) return;
  std::string line =
      std::string("0:") + kFirstDrive + ":/dev/vtape/" + kFirstDrive + ":virtual:0:\n";
  writeWhole(table, line, 0600);
}

void makeSecret(const InitOptions &options) {
  std::string path = options.home + "/etc/ZULsecret";
  if (exists(path)) return;
  login::Key key = login::newSecret();
  std::string why;
  if (!options.secretFile.empty() && !login::readSecret(options.secretFile, key, why))
    throw Failure(Exit::failed, "cannot use the secret " + options.secretFile + ": " + why);
  if (!login::writeSecret(path, key, false, why))
    throw Failure(Exit::failed, "cannot write the site's secret " + path + ": " + why);
}

// What makes a new home out of a set of folders.
void fill(const InitOptions &options) {
  const std::string &home = options.home;
  std::string site = home + "/etc/ZULsite";
  if (!options.classic && !exists(site)) writeWhole(site, kSiteText, 0600);
  if (!options.noDrive) {
    useHome(home);
    makeFirstDrive(kFirstDrive, kFirstCartridge, options.capacity);
    registerDrive(home);
  }
  makeSecret(options);
  unlink(begunMark(home).c_str());
}

void report(const InitOptions &options) {
  const std::string &home = options.home;
  std::string text = "Home " + home + " is ready.\n";
  text += "  module   " + home + "/bin/libtape.so\n";
  if (exists(home + "/bin/libscram.so"))
    text += "  cipher   " + home + "/bin/libscram.so, unused until there is a key (zul key new)\n";
  if (!options.noDrive)
    text += "  drive    0, " + std::string(kFirstDrive) + ", virtual, with cartridge \"" +
            kFirstCartridge + "\" of " + sizeText(options.capacity) + "\n";
  text += "  secret   " + home +
          "/etc/ZULsecret (every host of the site has the same: init --secret FILE)\n";
  text += options.classic ? "  site     no site file: classic behaviour\n"
                          : "  site     " + home + "/etc/ZULsite: sound behaviour\n";
  text += "Next: zul --home " + home + " up\n";
  printOut(text);
}

}  // namespace

Exit initHome(const InitOptions &options) {
  const std::string &home = options.home;
  checkPlace(options);
  if (options.capacity < drive::kCapacityMin || options.capacity > drive::kCapacityMax)
    throw Failure(Exit::usage, "no cartridge holds " + sizeText(options.capacity),
                  "From " + sizeText(drive::kCapacityMin) + " to " + sizeText(drive::kCapacityMax) +
                      " are possible.");
  std::string module = options.module.empty() ? findModule() : options.module;
  makeParents(home);
  bool complete = isHome(home);
  makeFolder(home, 0700);
  if (!complete) writeWhole(begunMark(home), "", 0600);
  for (const char *folder : kFolders) makeFolder(home + folder, 0700);
  letOperatorsThrough(home);
  copyWhole(module, home + "/bin/libtape.so", 0755);
  std::string scram = findScram();
  if (!scram.empty()) copyWhole(scram, home + "/bin/libscram.so", 0755);
  if (complete) {
    printOut("Home " + home + ": folders checked, module brought up to date from " + module + "\n");
    return Exit::done;
  }
  fill(options);
  report(options);
  return Exit::done;
}

}  // namespace console
