// zul, the operator's command: reads the command line and runs one subcommand.
#include <stdio.h>
#include <stdlib.h>
#include <zul/host.h>

#include <CLI/CLI.hpp>
#include <filesystem>

#include "console/commands.h"
#include "console/manyhosts.h"
#include "console/replication.h"
#include "console/text.h"
#include "console/usage.h"

// The drive code is written for a process that hosts the module and finds the home through these.
char ZULhome[256];
FILE *backuplog;
FILE *fplog;
char cmdname[64];

namespace console {

namespace {

constexpr const char *kDefaultHome = "/var/lib/zul";

// Everything the command line may say. Subcommands write their parts, and `run` is what was chosen.
struct CommandLine {
  Target target;
  std::function<Exit()> run;

  InitOptions init;
  std::string capacity = "8G", cartridgeSize = "8G";
  UpOptions up;
  RequestOptions request;
  FollowOptions follow;
  std::string since;
  RestoreOptions restore;
  VerifyOptions verify;
  MakeOptions make;
  std::string drive, cartridge, user, role = "operator", newPasswordFile, remote, local;
  bool json = false, off = false, force = false;
};

uint64_t sizeOf(const std::string &text) {
  std::optional<uint64_t> bytes = parseSize(text);
  if (!bytes || *bytes == 0)
    throw Failure(Exit::usage, "\"" + oneLine(text) + "\" is no size",
                  "Write it like 500M, 8G or 1.5T.");
  return *bytes;
}

// Absolute, because the daemon and the module work from other folders.
std::string homeOf(const CommandLine &line) {
  const char *fromEnvironment = getenv("ZULHOME");
  std::string home = line.target.home;
  if (home.empty() && fromEnvironment) home = fromEnvironment;
  if (home.empty()) home = kDefaultHome;
  std::string path = std::filesystem::absolute(home).lexically_normal().string();
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

Target targetOf(const CommandLine &line) {
  Target target = line.target;
  target.home = homeOf(line);
  return target;
}

// For what works on files of this machine.
std::string localHome(const CommandLine &line) {
  if (!line.target.host.empty())
    throw Failure(Exit::usage, "this works on this machine's home only, not with --host",
                  "Run it on " + line.target.host + " itself.");
  return homeOf(line);
}

int64_t sinceOf(const std::string &text) {
  char *end;
  long long seconds = strtoll(text.c_str(), &end, 10);
  if (text.empty() || *end != '\0')
    throw Failure(Exit::usage, "--since wants seconds since 1970, as \"date +%s\" prints them");
  return seconds;
}

std::string jsonWord(const CommandLine &line) {
  return line.json ? " json" : "";
}

CLI::App *add(CLI::App &app, const char *name, const char *what, const char *more,
              CommandLine &line, const std::function<Exit()> &run) {
  CLI::App *command = app.add_subcommand(name, what);
  command->footer(more);
  command->callback([&line, run] { line.run = run; });
  return command;
}

void addHomes(CLI::App &app, CommandLine &line) {
  CLI::App *init = add(
      app, "init", "Make a home: folders, secret, site file, module, a virtual drive",
      "The home is a new or empty folder. An existing home is never overwritten; with --force its\n"
      "folders and its module are brought up to date, and nothing else is touched.\n\n"
      "All hosts of a site have the same secret: take etc/ZULsecret of the first host along.\n\n"
      "Examples:\n"
      "  zul --home /var/lib/zul init\n"
      "  zul init --no-drive --secret /root/ZULsecret   a host that is only backed up\n"
      "  zul init --force                                after an upgrade of the programs",
      line, [&line] {
        line.init.home = localHome(line);
        line.init.capacity = sizeOf(line.capacity);
        return initHome(line.init);
      });
  init->add_flag("--classic", line.init.classic,
                 "No site file: classic behaviour, for sites with older agents");
  init->add_flag("--force", line.init.force,
                 "Mend an existing home; tapes, tables and secret stay as they are");
  init->add_option("--size", line.capacity,
                   "Capacity of the first cartridge (8G); it takes room only as it is written")
      ->type_name("SIZE");
  init->add_flag("--no-drive", line.init.noDrive, "Make no virtual drive");
  init->add_option("--secret", line.init.secretFile,
                   "Copy of the site's secret instead of a new one")
      ->type_name("FILE");
  init->add_option("--module", line.init.module,
                   "libtape.so to install instead of the one beside zul")
      ->type_name("FILE");

  CLI::App *up =
      add(app, "up", "Start the daemon of the home in the background",
          "Returns when the daemon serves. A daemon that is running already is left alone.\n\n"
          "Example:\n  zul --home /var/lib/zul up",
          line, [&line] {
            line.up.home = localHome(line);
            return startDaemon(line.up);
          });
  up->add_option("--log", line.up.log, "The daemon's log (HOME/var/ZULd.log)")->type_name("FILE");

  add(app, "down", "Stop the daemon of the home; running jobs go on",
      "Says which jobs go on; the next \"zul up\" finds them again.\n\nExample:\n  zul down", line,
      [&line] { return stopDaemon(localHome(line)); });
}

void addRequests(CLI::App &app, CommandLine &line) {
  CLI::App *request = add(app, "request", "Send one request; its text goes to standard output",
                          "Standard output gets exactly what the daemon relays. A request that "
                          "starts a long job returns when the\n"
                          "daemon has accepted it; --follow waits for the job's end.\n\n"
                          "Examples:\n"
                          "  zul request 'TAPE get drives'\n"
                          "  zul request 'TAPE add group 1:alpha,beta:web servers'\n"
                          "  zul request --follow 'TAPE backup 7 0'\n"
                          "  zul request --upload job5.txt 'MREPL set jobid 5'",
                          line, [&line] {
                            line.request.target = targetOf(line);
                            return runRequest(line.request);
                          });
  request->add_option("line", line.request.line, "The request, quoted")->required();
  request->add_flag("--follow", line.request.follow,
                    "Of a backup, restore, verify or replicate: follow the job it starts");
  request
      ->add_option("--upload", line.request.upload,
                   "File with the lines that the request asks for (-: standard input)")
      ->type_name("FILE");

  add(app, "console", "Type requests one after another, or pipe them in",
      "On a terminal with line editing and history (~/.zul_history); otherwise one request a line, "
      "'#' begins\n"
      "a comment, and the exit status is 1 when one of them failed. Ctrl-C lets go of a request "
      "and never ends it.\n\n"
      "Examples:\n  zul console\n  zul console < requests.txt",
      line, [&line] { return runConsole(targetOf(line)); });

  CLI::App *get =
      add(app, "get", "Copy a file from the home, also of another host",
          "Paths are relative to the home and lie below etc or var; secrets are not given.\n\n"
          "Example:\n  zul --host tapehost get var/tape/jobids/7.status",
          line, [&line] { return getFile(targetOf(line), line.remote, line.local); });
  get->add_option("path", line.remote, "The file, relative to the home")->required();
  get->add_option("to", line.local, "Where to put it (standard output)");

  CLI::App *put = add(app, "put", "Copy a file into the home, also of another host",
                      "It is stored whole or not at all, below etc or var/tape.\n\n"
                      "Example:\n  zul put ZULsite etc/ZULsite",
                      line, [&line] { return putFile(targetOf(line), line.local, line.remote); });
  put->add_option("file", line.local, "The file to copy")->required();
  put->add_option("path", line.remote, "Where it goes, relative to the home")->required();
}

void addReports(CLI::App &app, CommandLine &line) {
  CLI::App *follow =
      add(app, "follow", "Wait for a job and show its progress",
          "A bar on a terminal, lines in a pipe, records with --json. Waits for the run to appear. "
          "A record that\n"
          "ended more than 10 s ago belongs to an earlier run and is not taken for the new one; "
          "--since and\n"
          "\"zul request --follow\" leave no doubt at all.\n\n"
          "Exit status: 0 the job ended well; 1 it failed or one of its hosts did, or no run "
          "appeared;\n"
          "3 no daemon answers; 4 its process is gone and has recorded no end.\n\n"
          "Examples:\n"
          "  zul follow 7\n  zul follow restore\n"
          "  since=$(date +%s); zul request 'TAPE backup 7 0' && zul follow 7 --since $since",
          line, [&line] {
            line.follow.target = targetOf(line);
            // Restores and verifications have no number: one of them runs at a time.
            if (!isdigit(static_cast<unsigned char>(line.follow.job[0])))
              line.follow.kind = std::exchange(line.follow.job, "");
            if (!line.since.empty()) line.follow.since = sinceOf(line.since);
            return followJob(line.follow);
          });
  follow->add_option("job", line.follow.job, "The job's number, or \"restore\" or \"verify\"")
      ->required()
      ->type_name("JOB")
      ->check([](const std::string &text) {
        bool number = !text.empty() && text.find_first_not_of("0123456789") == text.npos;
        bool known = number || text == "restore" || text == "verify";
        return known ? "" : "\"" + oneLine(text) + "\" is no number of a job";
      });
  follow
      ->add_flag_callback(
          "--replication", [&line] { line.follow.kind = "replication"; },
          "The number is that of a replication, not of a backup")
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
  follow->add_flag("--json", line.follow.json, "Print each record on a line");
  follow->add_flag("--plain", line.follow.plain, "Print lines even on a terminal");
  follow
      ->add_option("--since", line.since,
                   "Only a run that started at this time or later (seconds since 1970)")
      ->type_name("SECONDS");
  follow
      ->add_option("--wait", line.follow.waitSeconds,
                   "How long to wait for the run to appear (30 s)")
      ->option_text("SECONDS")
      ->check(CLI::Range(0, 86400));

  struct Report {
    const char *name, *what, *word;
  };
  for (const Report &report : {Report{"status", "What the daemon is and does", "status"},
                               Report{"jobs", "Jobs and how far they are", "jobs"},
                               Report{"ps", "Processes of requests and jobs", "ps"}}) {
    std::string word = report.word;
    CLI::App *command = add(app, report.name, report.what, "", line, [&line, word] {
      return showAnswer(targetOf(line), "HOST " + word + jsonWord(line));
    });
    command->add_flag("--json", line.json, "For programs: JSON on one line");
  }
}

void addVolume(CLI::App &command, VolumeOptions &volume) {
  command.add_option("--drive", volume.drive, "Number of the drive that wrote the volume")
      ->type_name("N");
  command.add_option("--tape", volume.tape, "Number of the tape")->type_name("N");
  command.add_option("--volume", volume.volume, "Number of the volume on the tape: 1, 3, 5, ...")
      ->type_name("N");
  command
      .add_option("--job", volume.job, "Instead: the newest volume that this backup has written")
      ->type_name("JOB");
  command
      .add_option("--as-of", volume.asOf,
                  "With --job: not newer than this, like 2026-03-01 or '2026-03-01 17:20'")
      ->type_name("DATE");
}

void addTapes(CLI::App &app, CommandLine &line) {
  CLI::App *restore =
      add(app, "restore", "Get files back from a tape",
          "Paths are those that the files had: /etc/passwd, a folder with all below it, a pattern "
          "like '/etc/*.conf',\n"
          "each perhaps behind \"host:\"; with a '/' at its end only folders. Without a path, on a "
          "terminal, you look\n"
          "around in the volume and pick. Shows a plan and asks; then tells what became of every "
          "file.\n\n"
          "Exit status: 0 only when everything that was wanted is restored, or was kept as "
          "--conflict says.\n\n"
          "Examples:\n"
          "  zul restore --job 7 --from alpha --into /srv/back /etc/ '/home/*/.ssh'\n"
          "  zul restore --job 7 --as-of 2026-03-01 alpha:/srv/www/\n"
          "  zul restore --drive 1 --tape 4 --volume 3 --from alpha --to beta --all --conflict "
          "never --yes",
          line, [&line] {
            line.restore.target = targetOf(line);
            return restoreFiles(line.restore);
          });
  addVolume(*restore, line.restore.volume);
  restore->add_option("--from", line.restore.from, "The host whose files they were")
      ->type_name("NAME");
  restore->add_option("--to", line.restore.to, "The host that gets them (the one they are from)")
      ->type_name("NAME");
  restore
      ->add_option("--into", line.restore.into, "The folder there that stands for their root (/)")
      ->type_name("DIR");
  restore
      ->add_option("--conflict", line.restore.conflict,
                   "A file that is there already: keep-both (default), if-different, always, "
                   "if-newer, never")
      ->option_text("HOW")
      ->check(CLI::IsMember({"keep-both", "if-different", "always", "if-newer", "never"}));
  restore->add_flag("--all", line.restore.all, "Everything of that host");
  restore->add_flag("--yes", line.restore.yes, "Do not ask");
  restore->add_flag("--json", line.restore.json, "For programs: plan and outcomes as JSON");
  restore->add_option("path", line.restore.paths, "What to restore");

  CLI::App *verify =
      add(app, "verify", "Read a volume back and compare it with what was written",
          "Reads every block; compares names with the volume list, and contents with the digests "
          "of the backup.\n"
          "Nothing is restored. Exit status 0 only when the volume is whole.\n\n"
          "Example:\n  zul verify --job 7",
          line, [&line] {
            line.verify.target = targetOf(line);
            return verifyVolume(line.verify);
          });
  addVolume(*verify, line.verify.volume);
  verify->add_flag("--json", line.verify.json, "For programs: the findings as JSON");
}

void addVtape(CLI::App &app, CommandLine &line) {
  CLI::App *vtape = app.add_subcommand("vtape", "Virtual tape drives and their cartridges");
  vtape->require_subcommand(1);
  vtape->footer(
      "Examples:\n"
      "  zul vtape make weekly --size 20G\n"
      "  zul vtape unload && zul vtape load weekly\n"
      "  zul vtape make quick --drive quick            a new drive as well, if there is none\n"
      "  zul request 'TAPE add drive 1:quick:/dev/vtape/quick:0:0'");
  CLI::App *make = add(*vtape, "make", "Make an empty cartridge", "", line, [&line] {
    line.make.capacity = sizeOf(line.cartridgeSize);
    return makeCartridge(localHome(line), line.make);
  });
  make->add_option("name", line.make.name, "The cartridge's name")->required();
  make->add_option("--size", line.cartridgeSize,
                   "Its capacity (8G); it takes room only as it is written")
      ->type_name("SIZE");
  make->add_option("--drive", line.make.drive,
                   "Load it into this drive, made if there is none of that name")
      ->type_name("DRIVE");
  CLI::App *makeDrive = add(*vtape, "drive", "Make an empty virtual drive", "", line,
                            [&line] { return makeVirtualDrive(localHome(line), line.drive); });
  makeDrive->add_option("name", line.drive, "The drive's name")->required();
  CLI::App *load = add(*vtape, "load", "Put a cartridge into an empty drive", "", line, [&line] {
    return loadCartridge(localHome(line), line.cartridge, line.drive);
  });
  load->add_option("cartridge", line.cartridge, "The cartridge's name")->required();
  load->add_option("--drive", line.drive, "Name of the drive, or its number in the drive table")
      ->type_name("DRIVE");
  CLI::App *unload = add(*vtape, "unload", "Take the cartridge out of a drive", "", line,
                         [&line] { return unloadCartridge(localHome(line), line.drive); });
  unload->add_option("--drive", line.drive, "Name of the drive, or its number in the drive table")
      ->type_name("DRIVE");
  CLI::App *protect =
      add(*vtape, "protect", "Protect a cartridge against writing", "", line,
          [&line] { return protectCartridge(localHome(line), line.cartridge, line.off); });
  protect->add_option("cartridge", line.cartridge, "The cartridge's name")->required();
  protect->add_flag("--off", line.off, "Allow writing again");
  CLI::App *list = add(*vtape, "list", "Show drives and cartridges", "", line,
                       [&line] { return listCartridges(localHome(line), line.json); });
  list->add_flag("--json", line.json, "For programs: JSON on one line");
}

void addUsers(CLI::App &app, CommandLine &line) {
  CLI::App *users = app.add_subcommand("users", "Operators who may log in from other machines");
  users->require_subcommand(1);
  users->footer(
      "Example:\n  zul users add anna --role viewer      then, elsewhere: zul --host tapehost "
      "--user anna status");
  CLI::App *addCommand =
      add(*users, "add", "Add an operator, or give one a new password", "", line,
          [&line] { return addUser(localHome(line), line.user, line.role, line.newPasswordFile); });
  addCommand->add_option("name", line.user, "The name to log in with")->required();
  addCommand
      ->add_option("--role", line.role, "operator (default), or viewer: may look and not change")
      ->option_text("ROLE")
      ->check(CLI::IsMember({"operator", "viewer"}));
  addCommand
      ->add_option("--new-password-file", line.newPasswordFile,
                   "Instead of asking for the password")
      ->type_name("FILE");
  CLI::App *del = add(*users, "del", "Remove an operator", "", line,
                      [&line] { return removeUser(localHome(line), line.user); });
  del->add_option("name", line.user, "The operator's name")->required();
  add(*users, "list", "Show all operators and their roles", "", line,
      [&line] { return listUsers(localHome(line)); });
}

void addKey(CLI::App &app, CommandLine &line) {
  CLI::App *key = app.add_subcommand("key", "The key that encrypts streams between hosts");
  key->require_subcommand(1);
  key->footer(
      "Streams are encrypted when their job asks for it and both hosts have the same key.\n\n"
      "Example:\n  zul key new && scp -p /var/lib/zul/etc/ZULkey other:/var/lib/zul/etc/ZULkey");
  CLI::App *make = add(*key, "new", "Make a new key, for all hosts of the site", "", line,
                       [&line] { return newKey(localHome(line), line.force); });
  make->add_flag("--force", line.force, "Replace the key that is there");
  add(*key, "show-fingerprint", "Show what tells keys apart, to compare hosts", "", line,
      [&line] { return showFingerprint(localHome(line)); });
  add(*key, "check", "Make sure that this host can encrypt", "", line,
      [&line] { return checkKey(localHome(line)); });
}

void addEverything(CLI::App &app, CommandLine &line) {
  app.name("zul");
  app.set_version_flag("--version", "zul " ZUL_VERSION);
  app.require_subcommand(1);
  // "zul up --home X" and "zul --home X up" mean the same.
  app.fallthrough();
  app.add_option("--home", line.target.home,
                 std::string("The home (ZULHOME, else ") + kDefaultHome + ")")
      ->type_name("DIR");
  app.add_option("--host", line.target.host,
                 "Talk to the daemon of another machine, HOST or HOST:PORT")
      ->type_name("HOST");
  app.add_option("--user", line.target.user, "Operator's name there (your own)")->type_name("NAME");
  app.add_option("--password-file", line.target.passwordFile,
                 "File with the password, mode 600, instead of asking")
      ->type_name("FILE");
  addHomes(app, line);
  addRequests(app, line);
  addReports(app, line);
  addTapes(app, line);
  addVtape(app, line);
  addUsers(app, line);
  addReplication(
      app, [&line] { return targetOf(line); }, line.run);
  addManyHosts(
      app, [&line] { return targetOf(line); }, line.run);
  addKey(app, line);
  app.footer(
      "First steps:\n"
      "  zul init && zul up                 a home and its daemon\n"
      "  zul request 'TAPE get drives'      a first request\n"
      "  zul COMMAND --help                 more about a command, with examples; man zul\n\n"
      "Exit status: 0 done, 1 failed, 2 wrong command line, 3 no daemon answers, 4 a followed job "
      "is gone.");
}

int runCommandLine(int argc, char **argv) {
  CLI::App app("Operates ZUL, tape backup, restore and replication for a site of Linux machines.");
  CommandLine line;
  addEverything(app, line);
  try {
    try {
      app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
      if (error.get_exit_code() == 0) return app.exit(error);  // --help and --version
      throw usageFailure(app, error);
    }
    Exit status = line.run();
    if (!finishOut()) throw Failure(Exit::failed, "standard output did not take everything");
    return static_cast<int>(status);
  } catch (const Failure &failure) {
    finishOut();
    printErr(std::string("zul: ") + failure.what() + "\n");
    if (!failure.hint().empty()) printErr("     " + failure.hint() + "\n");
    return static_cast<int>(failure.status());
  }
}

}  // namespace

}  // namespace console

int main(int argc, char **argv) {
  try {
    return console::runCommandLine(argc, argv);
  } catch (const std::exception &error) {
    fprintf(stderr, "zul: %s\n", error.what());
    return static_cast<int>(console::Exit::failed);
  }
}
