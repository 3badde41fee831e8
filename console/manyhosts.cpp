// What zul's command line says about many hosts: fanout and multicast.
#include "console/manyhosts.h"

#include <CLI/CLI.hpp>
#include <memory>

#include "console/multicastrun.h"
#include "console/text.h"

namespace console {

namespace {

// What the commands write their words into; lives as long as they do.
struct Words {
  std::function<Target()> target;
  std::function<Exit()> *run;
  FanoutOptions fanout;
  std::string number, file;
  bool json = false, retryFailed = false;
};
using Shared = std::shared_ptr<Words>;

CLI::App *add(CLI::App &app, const char *name, const char *what, const char *more,
              const Shared &words, const std::function<Exit(Words &)> &act) {
  CLI::App *command = app.add_subcommand(name, what);
  command->footer(more);
  command->callback([words, act] { *words->run = [words, act] { return act(*words); }; });
  return command;
}

std::string numberProblem(const std::string &text) {
  size_t sign = text.size() > 1 && text[0] == '-' ? 1 : 0;
  bool number = !text.empty() && text.find_first_not_of("0123456789", sign) == text.npos;
  bool sensible = number && text.size() <= 9 + sign && text.find_first_not_of("-0") != text.npos;
  return sensible ? "" : "\"" + oneLine(text) + "\" is no number of a job";
}

void addNumber(CLI::App *command, const Shared &words) {
  command->add_option("number", words->number, "The job's number")
      ->required()
      ->check(numberProblem);
}

void addJobs(CLI::App &multicast, const Shared &words) {
  CLI::App *job = multicast.add_subcommand("job", "Definitions of multicast jobs");
  job->require_subcommand(1);
  job->footer(
      "Examples:\n"
      "  zul multicast job put 5 web.job      docs/examples/multicast.job explains every line\n"
      "  zul multicast job get 5 > web.job");
  CLI::App *put = add(
      *job, "put", "Store a job, replacing the one of that number", "", words,
      [](Words &chosen) { return putMulticastJob(chosen.target(), chosen.number, chosen.file); });
  addNumber(put, words);
  put->add_option("file", words->file, "The job file (-: standard input)")->required();
  CLI::App *get = add(*job, "get", "Print a job as a job file", "", words, [](Words &chosen) {
    return getMulticastJob(chosen.target(), chosen.number);
  });
  addNumber(get, words);
  CLI::App *list = add(*job, "list", "Show the numbers of all jobs", "", words, [](Words &chosen) {
    return listMulticastJobs(chosen.target(), chosen.json);
  });
  list->add_flag("--json", words->json, "For programs: JSON on one line");
  CLI::App *remove = add(*job, "remove", "Remove a job", "", words, [](Words &chosen) {
    return removeMulticastJob(chosen.target(), chosen.number);
  });
  addNumber(remove, words);
}

void addRuns(CLI::App &multicast, const Shared &words) {
  CLI::App *run = add(
      multicast, "run", "Send a job to all its hosts at once, and tell what became of each",
      "Afterwards every receiver is asked for its record, and what it wrote is compared with what "
      "was\n"
      "sent. A host is complete; incomplete, with the files it lacks; it never joined; or it is\n"
      "unreachable, when its agent does not answer now. A run that is interrupted here goes on; "
      "see\n"
      "\"zul multicast result\".\n\n"
      "--retry-failed starts no run: hosts that the last one left without something get just that "
      "over\n"
      "TCP, with the same names, owners and permissions, whatever is there. Repeat it as often as "
      "you like.\n\n"
      "Exit status: 0 only when every host has everything.\n\n"
      "Examples:\n"
      "  zul multicast run 5\n"
      "  zul multicast run 5 --json | jq '.hosts[] | select(.state != \"complete\")'\n"
      "  zul multicast run 5 --retry-failed",
      words, [](Words &chosen) {
        return runMulticast({chosen.target(), chosen.number, chosen.retryFailed, chosen.json});
      });
  addNumber(run, words);
  run->add_flag("--retry-failed", words->retryFailed,
                "Send what the last run left undone over TCP, to the hosts that lack it");
  run->add_flag("--json", words->json, "For programs: the table as one object on one line");
  CLI::App *result =
      add(multicast, "result", "Tell again what became of the last run",
          "Asks the receivers anew. A host keeps the record of its last run only.\n\n"
          "Example:\n  zul multicast result 5",
          words, [](Words &chosen) {
            return showMulticastResult({chosen.target(), chosen.number, false, chosen.json});
          });
  addNumber(result, words);
  result->add_flag("--json", words->json, "For programs: the table as one object on one line");
  CLI::App *doctor = add(
      multicast, "doctor", "Check all hosts of a job before a run",
      "Of every host: does its agent answer and let the sender log in; has it an interface for\n"
      "multicast; does it hear a datagram that the sender sends to the group; is its clock right; "
      "has it\n"
      "room for the job; does it behave as the sender does, and is it as new. What is wrong is "
      "said with\n"
      "what to do about it. Nothing is changed anywhere.\n\n"
      "Exit status: 0 only when all is well.\n\n"
      "Example:\n  zul multicast doctor 5",
      words, [](Words &chosen) {
        return runMulticastDoctor({chosen.target(), chosen.number, chosen.json});
      });
  addNumber(doctor, words);
  doctor->add_flag("--json", words->json, "For programs: JSON on one line");
}

}  // namespace

void addManyHosts(CLI::App &app, const std::function<Target()> &target,
                  std::function<Exit()> &run) {
  Shared words = std::make_shared<Words>();
  words->target = target;
  words->run = &run;
  CLI::App *fanout = add(
      app, "fanout", "Run one request on many hosts at once",
      "The daemon asks 40 hosts at a time. What they answer is printed behind their names as they\n"
      "finish, then how many did well. A host is unreachable when it refuses the connection or "
      "its\n"
      "name is not known, and timed out when it does not answer in time.\n\n"
      "Agents run such requests only as far as each allows it (fanout.nodes-may in "
      "etc/ZULsite).\n\n"
      "Exit status: 0 every host did as asked, 1 one of them did not.\n\n"
      "Examples:\n"
      "  zul fanout h1,h2,web[01-20] -- TAPE version\n"
      "  zul fanout @3 --json -- HOST status json",
      words, [](Words &chosen) {
        chosen.fanout.target = chosen.target();
        return runFanout(chosen.fanout);
      });
  fanout->add_option("hosts", words->fanout.hosts, "Names, ranges like h[1-9], tape groups like @3")
      ->required();
  fanout->add_option("request", words->fanout.command, "The request, behind --")->required();
  fanout
      ->add_option("--timeout", words->fanout.timeoutSeconds,
                   "How long a host may be silent behind its login (300 s)")
      ->option_text("SECONDS")
      ->check(CLI::Range(1, 86400));
  fanout->add_flag("--json", words->fanout.json, "One object a host, then one with the sums");
  CLI::App *multicast = app.add_subcommand("multicast", "Replication to many hosts at once");
  multicast->require_subcommand(1);
  multicast->footer(
      "Examples:\n"
      "  zul multicast job put 5 web.job\n"
      "  zul multicast doctor 5            before the first run\n"
      "  zul multicast run 5\n"
      "  zul multicast run 5 --retry-failed");
  addJobs(*multicast, words);
  addRuns(*multicast, words);
}

}  // namespace console
