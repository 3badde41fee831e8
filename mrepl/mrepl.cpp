// Requests about multicast replication: listing, printing, storing and deleting jobs, and starting
// runs.
//
// The host calls mreplicate in a process of its own for every MREPL request. All answers go to
// standard error, which the host relays to the operator, or to the sending host's fan-out.
#include <dirent.h>
#include <errno.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zul/fanout.h>
#include <zul/host.h>
#include <zul/module.h>
#include <zul/mrepl.h>
#include <zul/tape.h>

#include "base/fd.h"
#include "base/log.h"
#include "base/process.h"
#include "base/site.h"
#include "base/store.h"
#include "base/text.h"
#include "fanout/request.h"
#include "mrepl/jobfile.h"
#include "mrepl/probe.h"
#include "mrepl/sending.h"
#include "mrepl/sent.h"
#include "mrepl/upload.h"

namespace {

// Starts the sender alone: receivers were started some other way.
constexpr int kWithoutReceivers = -99;
// Result of repServStart: the port of requests is not to be had.
constexpr int kPortTaken = -2;

void printNumber(const char *keyword, int number) {
  base::print(stderr, "%s: %i\n", keyword, number);
}

void printList(const char *keyword, const strNode *node) {
  for (; node; node = node->next)
    if (node->text) base::print(stderr, "%s: %s\n", keyword, node->text);
}

void printPairs(const pairNode *node) {
  for (; node; node = node->next) {
    if (!node->from) continue;
    if (node->to)
      base::print(stderr, "Xform: %s %s\n", node->from, node->to);
    else
      base::print(stderr, "Xform: %s\n", node->from);
  }
}

void printJob(const MreplJobData &job) {
  if (job.description)
    base::print(stderr, "Description: %s\n", job.description);
  else
    base::print(stderr, "Description:  \n");
  base::print(stderr, "Prefix: %s\n", job.prefix ? job.prefix : "");
  printNumber("IDnum", job.idNum);
  printNumber("Speed", job.speed);
  printNumber("CntrlFlags", job.cntrlFlags);
  printNumber("UserID", job.userID);
  printNumber("GroupID", job.groupID);
  printNumber("FilePerms", job.filePerms);
  printNumber("DirPerms", job.dirPerms);
  printNumber("HstGrp", job.hostGroup);
  // Without it a job that is printed, edited and stored again silently loses its protocol.
  if (base::sound(base::Area::multicast)) printNumber("Protocol", job.protocol);
  printList("Exclude", &job.excludeList);
  printList("Request", &job.requestList);
  printList("Host", &job.hostList);
  printList("Last", &job.lastList);
  printPairs(&job.xformList);
}

bool endsWith(const char *text, const char *end) {
  size_t length = strlen(text), endLength = strlen(end);
  return length >= endLength && strcmp(text + length - endLength, end) == 0;
}

bool namesJob(const char *name) {
  if (strncmp(name, mrepl::kJobName, strlen(mrepl::kJobName)) != 0) return false;
  // Sound stores keep a lock and a temporary beside the job; they are not jobs of their own.
  return !base::sound(base::Area::stores) || (!endsWith(name, ".lock") && !endsWith(name, ".tmp"));
}

// Writes what the operator's client sends. False when not all of it could be written, or, where a
// cut-off job must not replace a whole one, when its end mark is missing.
bool storeUpload(base::Store &store) {
  mrepl::UploadReader upload;
  for (;;) {
    switch (upload.next()) {
      case mrepl::UploadReader::Got::line:
        if (store.putText("%s\n", upload.text())) continue;
        base::print(stderr, "\nERROR:  8606  Unable to write output.  File may be truncated!\n");
        return false;
      case mrepl::UploadReader::Got::endMark:
        return true;
      case mrepl::UploadReader::Got::endOfStream:
        if (!base::sound(base::Area::stores)) return true;
        base::print(stderr, "ERROR:  The upload ended without its end mark.\n");
        return false;
    }
  }
}

// Receivers are started before their sender, and join the first run that they hear. Started beside
// another one they would write that one's files, which are not for their hosts, so a sound site
// holds the port that only one run can have. False when another one has it.
bool holdPort(base::Fd *port) {
  if (!base::sound(base::Area::multicast)) return true;
  sockaddr_in address;
  int opened = mkUDPListenerSocket(MR_REQ_PORT, &address);
  port->reset(opened);
  if (opened >= 0) return true;
  base::print(stderr, "ERROR: Failed to get listener socket. retval = %i, errno = %i\n", opened,
              errno);
  return false;
}

int getJobids(const char *) {
  return mreplgetjobids();
}
int getJob(const char *number) {
  return mreplgetjob(base::decimal(number));
}
int setJob(const char *number) {
  return mreplset(base::decimal(number));
}
int deleteJob(const char *number) {
  return mrepldel(base::decimal(number));
}
int startRun(const char *number) {
  return mreplstart(base::decimal(number));
}
int startReceiver(const char *) {
  return mrepclntstart();
}
int runFanout(const char *) {
  return fanout::runRequest();
}

struct Command {
  const char *word, *second;  // second: null when the first word says it all
  int count;                  // words it needs; the last of them is handed on
  int (*run)(const char *argument);
};

constexpr Command kCommands[] = {
    {"get", "jobids", 2, getJobids},
    {"get", "jobid", 3, getJob},
    {"set", "jobid", 3, setJob},
    {"del", "jobid", 3, deleteJob},
    {"replicate", nullptr, 2, startRun},
    {"mrepclnt", nullptr, 1, startReceiver},
    {"fanout", nullptr, 1, runFanout},
    {"measure", nullptr, 2, mrepl::measureJob},
    {"probe", "listen", 3, mrepl::probeListen},
    {"probe", "send", 3, mrepl::probeSend},
};

}  // namespace

int mreplicate(char *cmdline) {
  base::ignoreSigpipe();
  char *word[3];
  int count = wssplit(word, cmdline, 3);
  if (count == 0) {
    base::print(stderr, "ERROR:  8600 Insufficient arguments.\n");
    return 1;
  }
  for (const Command &command : kCommands) {
    if (count < command.count || strcmp(word[0], command.word) != 0) continue;
    if (command.second && strcmp(word[1], command.second) != 0) continue;
    return command.run(word[command.count - 1]);
  }
  // The line as it reads by now: cut behind its first word, or empty where it began with a blank.
  if (cmdline[0] != '\0')
    base::print(stderr, "ERROR:  8601 Unknown command. >%s<\n", cmdline);
  else
    base::print(stderr, "ERROR:  8601 Unknown command.\n");
  return -1;
}

int mreplgetjobids(void) {
  // With the '/' at its end a link that stands for the folder is as good as the folder, and a file
  // in its place looks like nothing.
  base::HomePath path("%s", mrepl::kJobFolder);
  struct stat status;
  bool isOther = lstat(path, &status) != 0 && errno == ENOTDIR;
  DIR *dir = isOther ? nullptr : opendir(path);
  if (!dir) {
    base::print(stderr, "ERROR:  %i Replication job directory does not exist: %s\n",
                isOther ? 8608 : 8607, path.c_str());
    return -1;
  }
  const char *divider = "";
  while (dirent *entry = readdir(dir)) {
    if (!namesJob(entry->d_name)) continue;
    base::print(stderr, "%s%i", divider, base::decimal(entry->d_name + strlen(mrepl::kJobName)));
    divider = ",";
  }
  base::print(stderr, "\n");
  closedir(dir);
  return 0;
}

int mreplgetjob(int jobid) {
  if (jobid == 0) {
    base::print(stderr, "ERROR:  8603 Invalid replication jobid. jobid=%i\n", jobid);
    return -1;
  }
  MreplJobData job = {};
  if (readMreplJobData(&job, jobid) != 0) {
    base::print(stderr, "ERROR:  8602 Cannot open multicast replication job: %i\n", jobid);
    return -1;
  }
  printJob(job);
  cncfree(&job);
  return 0;
}

int mreplset(int jobid) {
  if (jobid == 0) {
    base::print(stderr, "ERROR:  8605 Invalid replication jobid. jobid=%i\n", jobid);
    return -1;
  }
  mrepl::JobPath path(jobid);
  base::Store store(path);
  if (!store.beginRewrite()) {
    base::print(stderr, "ERROR:  8604 Cannot write replication control file %s\n", path.c_str());
    return -2;
  }
  base::print(stderr, "TRANSFER OK\n");
  bool stored = storeUpload(store) && store.commit();
  // A sound store still holds the former job, and nobody may be told that the new one is there.
  if (!stored && base::sound(base::Area::stores)) {
    base::print(stderr, "ERROR:  Job %i is as it was before\n", jobid);
    return -2;
  }
  base::print(stderr, "Replication Job data uploaded\n");
  return 0;
}

int mrepldel(int jobid) {
  if (jobid == 0) {
    base::print(stderr, "ERROR:  8612 Invalid replication jobid. jobid=%i\n", jobid);
    return -1;
  }
  mrepl::JobPath path(jobid);
  if (unlink(path) == 0) return 0;
  base::print(stderr, "ERROR:  8613  Unable to delete replication job: %s\n", path.c_str());
  return -1;
}

int mreplstart(int jobid) {
  if (jobid == 0) {
    base::print(stderr, "ERROR:  8609 Invalid replication jobid. jobid=%i\n", jobid);
    return -1;
  }
  MreplJobData job = {};
  if (readMreplJobData(&job, jobid) != 0) {
    base::print(stderr, "ERROR:  8611 Cannot open multicast replication job: %i\n", jobid);
    return -1;
  }
  base::print(stderr, "Starting Multicast replication clients\n");
  base::Fd port;
  if (!holdPort(&port)) {
    cncfree(&job);
    return 0;
  }
  if (jobid != kWithoutReceivers) {
    // The number is not looked at; installed agents expect one.
    char request[] = "MREPL mrepclnt 1234567890\n";
    char *commands[] = {request, nullptr};
    minimonk(&job.hostList, commands, -1);
  }
  port.reset();
  base::print(stderr, "Starting Multicast replication server\n");
  mrepl::sent.begin(jobid);
  int result = repServStart(&job);
  if (result == kPortTaken)
    mrepl::sent.drop();
  else
    mrepl::sent.finish(mrepl::sending.receivers, result == 0);
  cncfree(&job);
  return 0;
}

int mrepclntstart(void) {
  repClientStart();
  return 0;
}
