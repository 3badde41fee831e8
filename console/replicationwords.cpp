// What zul's command line says about replication: replicate, repjob and transform.
#include <CLI/CLI.hpp>
#include <memory>

#include "console/replication.h"
#include "console/text.h"

namespace console {

namespace {

// What the commands write their words into; lives as long as they do.
struct Words {
  std::function<Target()> target;
  std::function<Exit()> *run;
  ReplicateOptions replicate;
  RepJobOptions job;
  TransformOptions transform;
};
using Shared = std::shared_ptr<Words>;

CLI::App *add(CLI::App &app, const char *name, const char *what, const char *more,
              const Shared &words, const std::function<Exit(Words &)> &act) {
  CLI::App *command = app.add_subcommand(name, what);
  command->footer(more);
  command->callback([words, act] { *words->run = [words, act] { return act(*words); }; });
  return command;
}

void addNumber(CLI::App *command, int *number) {
  command->add_option("job", *number, "The job's number")
      ->required()
      ->option_text("NUMBER REQUIRED")
      ->check(CLI::Range(0, INT32_MAX));
}

std::string idProblem(const std::string &text) {
  bool good =
      text == "keep" || (!text.empty() && text.find_first_not_of("0123456789") == text.npos);
  return good ? "" : "\"" + oneLine(text) + "\" is neither a number nor keep";
}

// What may be said about a job that is made or changed.
void addJobWords(CLI::App *command, const Shared &words) {
  RepJobWords &said = words->job.words;
  addNumber(command, &words->job.number);
  command->add_option("path", words->job.paths,
                      "What it sends: files, and folders with all below them");
  command->add_option("--group", said.group, "Number of the tape group whose hosts are the targets")
      ->type_name("GROUP");
  command->add_option("--to", said.destination, "Folder on each target that the paths go below")
      ->type_name("DIR");
  command->add_option("--name", said.name, "A name for people")->type_name("TEXT");
  command
      ->add_option("--conflict", said.conflict,
                   "What happens to a file that is there: keep-both, if-different (default), "
                   "always, if-newer, never")
      ->option_text("HOW")
      ->check(CLI::IsMember({"keep-both", "if-different", "always", "if-newer", "never"}));
  command
      ->add_option("--owner", said.owner, "keep (default), or the number of the user who gets all")
      ->check(idProblem)
      ->option_text("UID");
  command
      ->add_option("--owner-group", said.ownerGroup,
                   "keep (default), or the number of the group that gets all")
      ->check(idProblem)
      ->option_text("GID");
  command
      ->add_option("--dir-mode", said.directoryMode,
                   "keep (default), or permissions of all directories, like 755")
      ->type_name("MODE");
  command
      ->add_option("--file-mode", said.fileMode,
                   "keep (default), or permissions of all files, like 644")
      ->type_name("MODE");
  command->add_flag_callback(
      "--setuid", [words] { words->job.words.setuid = true; },
      "Keep set-user-id bits, where permissions are kept");
  command->add_flag_callback(
      "--no-setuid", [words] { words->job.words.setuid = false; },
      "Take set-user-id bits away (default)");
  command->add_flag_callback(
      "--encrypt", [words] { words->job.words.encrypt = true; },
      "Encrypt what travels; all hosts need the site's key");
  command->add_flag_callback(
      "--no-encrypt", [words] { words->job.words.encrypt = false; }, "Send in clear (default)");
}

void addJobs(CLI::App &app, const Shared &words) {
  CLI::App *jobs =
      app.add_subcommand("repjob", "Replication jobs: what goes to which hosts, and how");
  jobs->require_subcommand(1);
  jobs->footer(
      "Examples:\n"
      "  zul repjob add 5 --group 3 --to / --name web /srv/www\n"
      "  zul repjob change 5 --conflict always --owner 33 --owner-group 33\n"
      "  zul repjob list");
  CLI::App *make =
      add(*jobs, "add", "Make a job",
          "Below \"--to\" files have their whole names: with --to / they go where they "
          "are here.\n\n"
          "Example:\n  zul repjob add 5 --group 3 --to / --name web /srv/www",
          words, [](Words &chosen) {
            chosen.job.target = chosen.target();
            return addRepJob(chosen.job);
          });
  addJobWords(make, words);
  make->get_option("--group")->required();
  make->get_option("--to")->required();
  CLI::App *change = add(*jobs, "change", "Change what is said, and leave the rest",
                         "Paths are added to those that the job has.\n\n"
                         "Example:\n  zul repjob change 5 --conflict always /srv/ftp",
                         words, [](Words &chosen) {
                           chosen.job.target = chosen.target();
                           return changeRepJob(chosen.job);
                         });
  addJobWords(change, words);
  CLI::App *list = add(*jobs, "list", "Show all jobs", "", words, [](Words &chosen) {
    chosen.job.target = chosen.target();
    return listRepJobs(chosen.job);
  });
  list->add_flag("--json", words->job.json, "For programs: JSON on one line");
  CLI::App *remove = add(*jobs, "remove", "Remove a job", "", words, [](Words &chosen) {
    chosen.job.target = chosen.target();
    return removeRepJob(chosen.job);
  });
  addNumber(remove, &words->job.number);
}

void addTransforms(CLI::App &app, const Shared &words) {
  CLI::App *transforms =
      app.add_subcommand("transform", "Names that a replication job changes on the way");
  transforms->require_subcommand(1);
  transforms->footer(
      "A path that begins with the prefix gets the replacement instead of it, below the job's "
      "destination.\n\n"
      "Examples:\n"
      "  zul transform add 5 /srv/www /srv/mirror\n"
      "  zul replicate 5 --dry-run                 shows what goes where");
  TransformOptions &said = words->transform;
  CLI::App *make = add(*transforms, "add", "Add a transform", "", words, [](Words &chosen) {
    chosen.transform.target = chosen.target();
    return addTransform(chosen.transform);
  });
  addNumber(make, &said.job);
  make->add_option("prefix", said.prefix, "What a path begins with")->required();
  make->add_option("replacement", said.replacement, "What it begins with on the targets")
      ->required();
  CLI::App *change = add(*transforms, "change", "Put another transform in the place of one", "",
                         words, [](Words &chosen) {
                           chosen.transform.target = chosen.target();
                           return changeTransform(chosen.transform);
                         });
  addNumber(change, &said.job);
  change->add_option("prefix", said.prefix, "The prefix of the one that goes")->required();
  change->add_option("new-prefix", said.newPrefix, "The new prefix")->required();
  change->add_option("replacement", said.replacement, "Its replacement")->required();
  CLI::App *list =
      add(*transforms, "list", "Show the transforms of a job", "", words, [](Words &chosen) {
        chosen.transform.target = chosen.target();
        return listTransforms(chosen.transform);
      });
  addNumber(list, &said.job);
  list->add_flag("--json", said.json, "For programs: JSON on one line");
  CLI::App *remove = add(*transforms, "remove", "Remove a transform", "", words, [](Words &chosen) {
    chosen.transform.target = chosen.target();
    return removeTransform(chosen.transform);
  });
  addNumber(remove, &said.job);
  remove->add_option("prefix", said.prefix, "Its prefix")->required();
}

}  // namespace

void addReplication(CLI::App &app, const std::function<Target()> &target,
                    std::function<Exit()> &run) {
  Shared words = std::make_shared<Words>();
  words->target = target;
  words->run = &run;
  ReplicateOptions &said = words->replicate;
  CLI::App *replicate =
      add(app, "replicate", "Send a replication job's files to all hosts of its group",
          "Eight hosts are served at a time; one that fails costs only itself.\n\n"
          "Exit status with --follow: 0 only when every host has everything.\n\n"
          "Examples:\n"
          "  zul replicate 5 --dry-run\n"
          "  zul replicate 5 --follow\n"
          "  zul replicate 5 --retry-failed --follow",
          words, [](Words &chosen) {
            chosen.replicate.target = chosen.target();
            return runReplication(chosen.replicate);
          });
  replicate->add_option("job", said.job, "The job's number")
      ->required()
      ->check([](const std::string &text) {
        bool number = !text.empty() && text.find_first_not_of("0123456789") == text.npos;
        return number ? "" : "\"" + oneLine(text) + "\" is no number of a job";
      });
  CLI::Option *only =
      replicate->add_option("--only", said.only, "Serve only these members, with commas between")
          ->type_name("HOSTS");
  replicate
      ->add_flag("--retry-failed", said.retryFailed, "Serve only those that the last run did not")
      ->excludes(only);
  replicate->add_flag("--follow", said.follow,
                      "Wait for the end, and tell what became of each host");
  replicate->add_flag("--json", said.json, "For programs: records and results, one object a line");
  replicate->add_flag("--dry-run", said.dryRun,
                      "Show what would be sent, under which name and mode; send nothing");
  addJobs(app, words);
  addTransforms(app, words);
}

}  // namespace console
