// The module's front end: one command line in, one handler called.
//
// The host calls tapetool in a process of its own for every TAPE request. Configuration requests
// answer on standard error, which the host relays to the operator. Starters of long work release
// the console and detach (tapeBackup, goReplicate), or are the agent-side workers a peer asked for
// and run in the calling process (goServer, goRepclnt, goResclnt).
#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>
#include <zul/host.h>
#include <zul/module.h>
#include <zul/net.h>
#include <zul/replication.h>
#include <zul/tape.h>

#include "base/log.h"
#include "base/process.h"
#include "base/site.h"
#include "base/text.h"
#include "base/version.h"
#include "replication/preview.h"
#include "replication/replicate.h"
#include "tape/verify.h"

int dlvl = 0;

namespace {

// Splits rest into at most N words. Slots without a word hold an empty text, so that a handler of a
// request without arguments reads "" and not whatever the stack held.
template <int N>
struct Words {
  char empty[1] = "";
  char *word[N];
  int count;
  explicit Words(char *rest) {
    for (char *&slot : word) slot = empty;
    count = wssplit(word, rest, N);
  }
};

// Opens a status file as backuplog. A failure leaves backuplog on stderr, never on a closed stream.
bool openStatus(const char *path, const char *mode, int buffering) {
  backuplog = fopen(path, mode);
  if (!backuplog) {
    int error = errno;
    backuplog = stderr;
    base::print(stderr, "ERROR:  Fatal error.  Cannot open status log file: %s.  errno = %i\n",
                path, error);
    return false;
  }
  setvbuf(backuplog, nullptr, buffering, buffering == _IONBF ? 0 : BUFSIZ);
  return true;
}

void closeStatus() {
  if (backuplog && backuplog != stderr) fclose(backuplog);
  backuplog = stderr;
}

// What the stores say to the host's log belongs into the status file too: the detached process has
// no other place where an operator would look. A stream of its own, because backuplog is closed
// before the job has said its last.
void logToStatus() {
  int fd = fcntl(fileno(backuplog), F_DUPFD_CLOEXEC, 3);
  FILE *log = fd >= 0 ? fdopen(fd, "w") : nullptr;
  if (!log) return;
  setvbuf(log, nullptr, _IOLBF, BUFSIZ);
  fplog = log;
}

// A follower that looks right after the acceptance must not take the record of an earlier run for
// this one's.
void forgetEarlierRun(const char *status) {
  char record[base::kPathMax + 16];
  snprintf(record, sizeof record, "%s.progress", status);
  unlink(record);
}

int fold(int result) {
  return result != 0 ? 1 : 0;
}

int runGet(char *rest) {
  return fold(tapeGet(rest));
}
int runAdd(char *rest) {
  return fold(tapeAdd(rest));
}
int runMod(char *rest) {
  return fold(tapeMod(rest));
}
int runDel(char *rest) {
  return fold(tapeDel(rest));
}
int runBackup(char *rest) {
  return fold(tapeBackup(rest));
}
int runServer(char *rest) {
  return fold(goServer(rest));
}
int runResclnt(char *rest) {
  return fold(goResclnt(rest));
}
int runRepclnt(char *rest) {
  return fold(goRepclnt(rest));
}
int runRsync(char *rest) {
  return fold(reqSync(rest));
}
int runJsync(char *rest) {
  return fold(syncBackupLists(base::decimal(rest)));
}
int runVerify(char *rest) {
  return fold(goVerify(rest));
}
int runReplicate(char *rest) {
  return fold(goReplicate(rest));
}
int runPreview(char *rest) {
  return fold(replication::preview(base::decimal(rest)));
}

int runRestore(char *rest) {
  if (goRestore(rest) == 0) return 0;
  base::print(stderr, "ERROR:  Restore failed...\n");
  return 1;
}

int printVersion(char *) {
  base::print(stderr, "%s\n", base::kModuleVersion);
  return 0;
}

// Runs replication job 6 for real, in the foreground: a site keeps that number for its trial job.
int runFuntest(char *) {
  replicate("6");
  return 0;
}

struct Command {
  const char *word;
  int (*run)(char *rest);
};

constexpr Command kCommands[] = {
    {"get", runGet},         {"add", runAdd},         {"mod", runMod},
    {"del", runDel},         {"backup", runBackup},   {"restore", runRestore},
    {"server", runServer},   {"resclnt", runResclnt}, {"repclnt", runRepclnt},
    {"rsync", runRsync},     {"jsync", runJsync},     {"replicate", runReplicate},
    {"verify", runVerify},   {"preview", runPreview}, {"version", printVersion},
    {"funtest", runFuntest},
};

}  // namespace

int wssplit(char **argv, char *line, int max) {
  int count = 0;
  bool inWord = false;
  for (char *at = line; *at != '\0' && count < max; at++) {
    if (isspace(static_cast<unsigned char>(*at))) {
      *at = '\0';
      inWord = false;
    } else if (!inWord) {
      // The walk stops with the last word's first character: that word keeps the rest of the line.
      argv[count++] = at;
      inWord = true;
    }
  }
  return count;
}

int stripCtrl(char *s) {
  size_t length = strlen(s);
  if (length == 0) return 0;
  auto control = [&](size_t at) { return iscntrl(static_cast<unsigned char>(s[at])) != 0; };
  // The next-to-last is looked at first, which removes a CR LF pair at once.
  if (length > 1 && control(length - 2))
    s[length - 2] = '\0';
  else if (control(length - 1))
    s[length - 1] = '\0';
  return 1;
}

int tapetool(char *cmdline) {
  base::ignoreSigpipe();
  base::HomePath path("var/libtape.status");
  // The stream is left open at the end of the request, whose process ends with it.
  backuplog = fopen(path, "w+");
  if (!backuplog) {
    int error = errno;
    backuplog = stderr;
    base::print(stderr, "ERROR:  Fatal error.  Cannot open status log file: %s.  errno = %i\n",
                path.c_str(), error);
    return -9;
  }
  Words<2> words(cmdline);
  if (words.count == 0) {
    base::print(stderr, "ERROR:  8000 Insufficient arguments.\n");
    return 1;
  }
  for (const Command &command : kCommands)
    if (strcmp(words.word[0], command.word) == 0) return command.run(words.word[1]);
  base::print(stderr, "ERROR:  8001  Tape lib: Unknown request, %s\n", words.word[0]);
  fflush(nullptr);
  exit(-1);
}

int tapeBackup(char *rest) {
  Words<2> words(rest);
  if (words.count < 2) {
    base::print(stderr, "ERROR:  8005  Insufficient arguments.\n");
    return -1;
  }
  base::HomePath path("var/tape/jobids/%i.status", base::decimal(words.word[0]));
  closeStatus();
  forgetEarlierRun(path);
  base::print(stderr, "Creating a a background process\n");
  base::print(stderr, "See the backup logs for status\n");
  base::print(stderr, "TRANSFER OK\n");
  if (mkDaemon() != 0) return -1;
  if (!openStatus(path, "w", _IOLBF)) return -997;
  logToStatus();
  return goBackup(words.word[0], words.word[1]) == 0 ? 0 : -1;
}

int goReplicate(const char *rest) {
  int job = base::decimal(rest);
  // Its status file would be emptied under the job.
  if (replication::isRunning(job)) {
    base::print(stderr, "ERROR:  Replication job# %i is running already\n", job);
    return -1;
  }
  base::HomePath path("var/tape/jobids/replicate.%i.stat", job);
  closeStatus();
  forgetEarlierRun(path);
  base::print(stderr, "Creating a replication process.\n");
  base::print(stderr, "See the replication logs for status:  %s\n", path.c_str());
  base::print(stderr, "TRANSFER OK\n");
  if (mkDaemon() != 0) return -1;
  if (!openStatus(path, "w", _IONBF)) return -2;
  if (replicate(rest) >= 0) return 0;
  // A job that is not in the store has its log closed.
  if (backuplog == stderr) openStatus(path, "a", _IONBF);
  base::print(backuplog, "ERROR:  ZUL network file gatherer error\n");
  return -1;
}

int goServer(char *rest) {
  Words<2> words(rest);
  if (words.count != 2) {
    base::print(stderr, "ERROR:  Command syntax error\n");
    return -1;
  }
  int reqid = base::decimal(words.word[0]);
  int since = base::decimal(words.word[1]);
  closeStatus();
  if (!openStatus(base::HomePath("var/tape/jobids/tapeserv.stat"), "w", _IONBF)) return -2;
  server(reqid, since);
  base::print(backuplog, "ERROR:  ZUL network file gatherer error\n");
  return -1;
}

int goRepclnt(char *rest) {
  Words<3> words(rest);
  if (words.count != 3) {
    base::print(stderr, "ERROR:  Command syntax error\n");
    return -1;
  }
  // The initiator reads this line before anything else and switches its own encryption by it.
  base::print(stderr, "Rep Flags=");
  bool wanted = (base::decimal(words.word[2]) & 2) != 0;
  if (wanted && hasScram()) {
    base::print(stderr, "e\n");
    shouldEncrypt(1);
  } else {
    base::print(stderr, "n\n");
    // Files that are not to be seen by anybody would come in clear.
    if (wanted && base::sound(base::Area::security)) {
      base::print(stderr,
                  "ERROR:  Encryption is asked for, and there is no key or no library here\n");
      return -1;
    }
  }
  if (replicateIt(words.word[0], base::decimal(words.word[1])) >= 0) return 0;
  base::print(stderr, "ERROR:  ZUL restore/replication client error\n");
  return -1;
}

// Points the descriptor of a stream at the log, after what the stream still holds went where it
// belongs.
static void redirectStream(FILE *stream, int log) {
  if (!stream) return;
  fflush(stream);
  int fd = fileno(stream);
  if (fd >= 0) dup2(log, fd);
}

int goResclnt(char *rest) {
  Words<2> words(rest);
  if (words.count != 2) {
    base::print(stderr, "ERROR:  Command syntax error\n");
    return -1;
  }
  FILE *log = fopen(base::HomePath("var/tape/restore.clnt"), "w");
  if (!log) {
    base::print(stderr, "ERROR:  ZUL restore/replication client error\n");
    return -1;
  }
  setvbuf(log, nullptr, _IONBF, 0);
  redirectStream(backuplog, fileno(log));
  redirectStream(stderr, fileno(log));
  redirectStream(fplog, fileno(log));
  fclose(log);
  if (backuplog) setvbuf(backuplog, nullptr, _IONBF, 0);
  base::print(backuplog, "Starting Restore");
  if (restoreIt(words.word[0], base::decimal(words.word[1])) >= 0) return 0;
  base::print(stderr, "ERROR:  ZUL restore/replication client error\n");
  return -1;
}
