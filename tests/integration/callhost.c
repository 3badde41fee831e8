/* A host that calls what it is told to, for tests that look at the module from outside: only the public headers
 * and the built library, none of its sources.
 *
 *   callhost MODULE HOME FOLDER SCRIPT
 *
 * It lends the symbols of a host, with the answers of its login and of its copying helpers played, and writes down
 * in FOLDER what the module did with them: "backuplog" and "fplog" (streams), "trace" (calls of lent functions) and
 * "results" (one line per call of the script, by whatever process came back from it).
 *
 * A line of the script is a call, its words escaped as in a URL: how the result is read (int, long, text, void), the
 * name, and the arguments: "i7" a number, "sTEXT" a text, "n" a null, "bFILE" a buffer that holds the file and is
 * written back to it, "tN" N pointers that are printed, "rFILE" and "wFILE" a stream, "oFILE" a descriptor for
 * reading, "@N" the address N bytes into the attached segment, "=" the last result, "&NAME+N" the address N bytes
 * into a block of memory, or the result that was kept under that name.
 * Or it is for the host itself: errno N (before each later call), null STREAM, copies N (what the helpers answer;
 * 2: success without a copy; 3: the same, and from then on a failure), answer N (of the login and of deldir), set and
 * get NAME (an exported variable), alarm and timer (what is pending), state (what the process has become), shortage
 * FUNCTION CALL ERRNO (see shortage.h).
 * Blocks of memory live as long as the process: memory NAME SIZE (of zeros), keep NAME (the last result), last NAME
 * (the last result into an exported variable), poke NAME OFFSET FILE, dump NAME OFFSET SIZE FILE, texts NAME TEXT...
 * (a table of texts, closed by a null), point NAME OFFSET OTHER (to its address), say NAME OFFSET TEXT (to a copy),
 * show NAME OFFSET (the text at the address that stands there), copy NAME SIZE FILE (as many bytes from there), number
 * NAME OFFSET (four bytes), symbol NAME EXPORTED (the address of a variable). */
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>
#include <zul/host.h>

#include "shortage.h"

char ZULhome[256];
FILE *backuplog;
FILE *fplog;
char cmdname[16];

enum { kWords = 16, kTable = 256, kBlocks = 32, kArguments = 6 };
enum { kResults = 400, kTrace = 401 }; /* descriptors no detached process closes */

static const char *folder;
static int preset; /* errno before a call */
static int copyResult;
static int loginResult;

static void trace(const char *what, const char *more) { dprintf(kTrace, "%s%s%s\n", what, *more ? " " : "", more); }

int initpass(void) {
  trace("initpass", "");
  return 0;
}
int autoLogin(int sd) {
  trace("autoLogin", sd >= 0 ? "" : "without a socket");
  return loginResult;
}
int insplit(char **fields, char *text, int separator, int count) {
  int found = 0;
  for (fields[found++] = text; found <= count && (text = strchr(text, separator)); fields[found++] = text) *text++ = 0;
  return found;
}
/* Copies, or says what it was told to say; 2 says that all is well and copies nothing, 3 does so once. */
int filecopy(const char *source, const char *destination) {
  char buffer[8192];
  size_t got;
  if (copyResult == 3) {
    copyResult = 1;
    return 0;
  }
  if (copyResult != 0) return copyResult == 2 ? 0 : copyResult;
  FILE *in = fopen(source, "rb"), *out = in ? fopen(destination, "wb") : NULL;
  if (!out) return -1;
  while ((got = fread(buffer, 1, sizeof buffer, in)) > 0) fwrite(buffer, 1, got, out);
  fclose(in);
  return fclose(out);
}
int filecpy(const char *source, const char *destination, int flags) {
  return flags ? -1 : filecopy(source, destination);
}
int deldir(char *args, int flag) {
  trace(args, flag == 1 ? "1" : "?");
  return loginResult; /* one played answer is enough: no test needs both */
}

static char *unescape(char *word) {
  char *to = word, digits[3] = "";
  for (char *from = word; *from; from++) {
    if (*from == '%' && from[1] && from[2]) {
      memcpy(digits, from + 1, 2);
      *to++ = (char)strtol(digits, NULL, 16);
      from += 2;
    } else {
      *to++ = *from;
    }
  }
  *to = '\0';
  return word;
}

static FILE *openLog(const char *name) {
  char path[512];
  snprintf(path, sizeof path, "%s/%s", folder, name);
  FILE *log = fopen(path, "a");
  if (log) setvbuf(log, NULL, _IONBF, 0);
  return log;
}

static void openAt(int fd, const char *name) {
  char path[512];
  snprintf(path, sizeof path, "%s/%s", folder, name);
  int opened = open(path, O_WRONLY | O_CREAT | O_APPEND, 0600);
  if (opened < 0 || dup2(opened, fd) < 0) _exit(9);
  close(opened);
}

/* What a process is after it was detached, and which of its descriptors are open. */
static void printState(void) {
  char directory[512];
  mode_t mask = umask(0);
  umask(mask);
  dprintf(kResults, "state leader=%d mask=%03o directory=%s open=", getsid(0) == getpid(), mask,
          getcwd(directory, sizeof directory) ? directory : "?");
  for (int fd = 0; fd < 256; fd++) {
    int flags = fcntl(fd, F_GETFL);
    if (flags >= 0) dprintf(kResults, "%d:%d,", fd, flags & O_ACCMODE);
  }
  struct sigaction action;
  sigaction(SIGALRM, NULL, &action);
  dprintf(kResults, " alarm=%s name=%s\n", action.sa_handler == SIG_DFL ? "default" : "caught", cmdname);
}

static struct {
  char *name;
  char *at;
} block[kBlocks];

/* NAME or NAME+N. */
static char *blockAt(char *text) {
  char *plus = strchr(text, '+');
  size_t length = plus ? (size_t)(plus - text) : strlen(text);
  for (int each = 0; each < kBlocks && block[each].name; each++)
    if (strlen(block[each].name) == length && strncmp(block[each].name, text, length) == 0)
      return block[each].at + (plus ? atol(plus) : 0);
  dprintf(kResults, "no block %s\n", text);
  _exit(6);
}

static void nameBlock(const char *name, void *at) {
  int each = 0;
  while (each < kBlocks - 1 && block[each].name && strcmp(block[each].name, name) != 0) each++;
  block[each].name = strdup(name);
  block[each].at = at;
}

static void pokeFile(char *to, const char *path) {
  FILE *in = fopen(path, "rb");
  if (!in) _exit(8);
  for (int byte; (byte = getc(in)) != EOF;) *to++ = (char)byte;
  fclose(in);
}

static void dumpFile(const char *from, size_t size, const char *path) {
  FILE *out = fopen(path, "wb");
  if (!out || fwrite(from, 1, size, out) != size) _exit(8);
  fclose(out);
}

static void blocks(void *module, char **word, int words, long last) {
  if (strcmp(word[0], "memory") == 0) nameBlock(word[1], calloc(1, (size_t)atol(word[2])));
  if (strcmp(word[0], "keep") == 0) nameBlock(word[1], (void *)last);
  if (strcmp(word[0], "last") == 0) *(int *)dlsym(module, word[1]) = (int)last;
  if (strcmp(word[0], "poke") == 0) pokeFile(blockAt(word[1]) + atol(word[2]), word[3]);
  if (strcmp(word[0], "dump") == 0) dumpFile(blockAt(word[1]) + atol(word[2]), (size_t)atol(word[3]), word[4]);
  if (strcmp(word[0], "point") == 0) *(char **)(blockAt(word[1]) + atol(word[2])) = blockAt(word[3]);
  if (strcmp(word[0], "say") == 0) *(char **)(blockAt(word[1]) + atol(word[2])) = strdup(word[3]);
  if (strcmp(word[0], "copy") == 0) dumpFile(*(char **)blockAt(word[1]), (size_t)atol(word[2]), word[3]);
  if (strcmp(word[0], "symbol") == 0) nameBlock(word[1], dlsym(module, word[2]));
  if (strcmp(word[0], "number") == 0) dprintf(kResults, "%d\n", *(int *)(blockAt(word[1]) + atol(word[2])));
  if (strcmp(word[0], "show") == 0) {
    const char *text = *(char **)(blockAt(word[1]) + atol(word[2]));
    dprintf(kResults, "%s\n", text ? text : "(null)");
  }
  if (strcmp(word[0], "texts") == 0) {
    char **table = calloc(kWords, sizeof *table);
    for (int at = 2; at < words; at++) table[at - 2] = strdup(word[at]);
    nameBlock(word[1], table);
  }
}

static void own(void *module, char **word) {
  if (strcmp(word[0], "errno") == 0) preset = atoi(word[1]);
  if (strcmp(word[0], "alarm") == 0) dprintf(kResults, "alarm %u\n", alarm(0));
  if (strcmp(word[0], "state") == 0) printState();
  if (strcmp(word[0], "copies") == 0) copyResult = atoi(word[1]);
  if (strcmp(word[0], "answer") == 0) loginResult = atoi(word[1]);
  if (strcmp(word[0], "set") == 0) *(int *)dlsym(module, word[1]) = atoi(word[2]);
  if (strcmp(word[0], "get") == 0) dprintf(kResults, "%s %d\n", word[1], *(int *)dlsym(module, word[1]));
  if (strcmp(word[0], "shortage") == 0) makeShort(module, word[1], word[2], atoi(word[3]));
  if (strcmp(word[0], "timer") == 0) {
    struct itimerval left;
    getitimer(ITIMER_REAL, &left);
    dprintf(kResults, "timer %ld %ld\n", (long)left.it_value.tv_sec, (long)left.it_interval.tv_sec);
  }
  if (strcmp(word[0], "null") == 0) *(strcmp(word[1], "fplog") == 0 ? &fplog : &backuplog) = NULL;
}

struct Argument {
  long value;
  char *path; /* of a buffer */
  size_t length;
  int entries; /* of a table */
};

static char untouched[] = "untouched";

static struct Argument makeArgument(void *module, char *word, long last) {
  struct Argument made = {0, NULL, 0, 0};
  switch (word[0]) {
    case 'i': made.value = strtol(word + 1, NULL, 10); break;
    case 's': made.value = (long)strdup(word + 1); break;
    case '=': made.value = last; break;
    case '&': made.value = (long)blockAt(word + 1); break;
    case 'r':
    case 'w': made.value = (long)fopen(word + 1, word[0] == 'r' ? "r" : "w"); break;
    case 'o': made.value = open(word + 1, O_RDONLY); break;
    case '@': {
      void *(*attach)(int) = (void *(*)(int))dlsym(module, "tpgetShMemPtr");
      made.value = (long)((char *)attach(*(int *)dlsym(module, "tpshmid")) + atol(word + 1));
      break;
    }
    case 't': {
      char **table = malloc(kTable * sizeof *table);
      made.entries = atoi(word + 1);
      for (int at = 0; at < kTable; at++) table[at] = untouched;
      made.value = (long)table;
      break;
    }
    case 'b': {
      FILE *in = fopen(made.path = word + 1, "rb");
      struct stat status;
      if (!in || fstat(fileno(in), &status) != 0) _exit(8);
      made.length = (size_t)status.st_size;
      char *buffer = malloc(made.length + 1);
      if (fread(buffer, 1, made.length, in) != made.length) _exit(8);
      buffer[made.length] = '\0';
      fclose(in);
      made.value = (long)buffer;
      break;
    }
    default: break;
  }
  return made;
}

static void giveBack(const struct Argument *argument) {
  if (argument->path) {
    FILE *out = fopen(argument->path, "wb");
    fwrite((char *)argument->value, 1, argument->length, out);
    fclose(out);
  }
  for (int at = 0; at < argument->entries; at++) {
    char *text = ((char **)argument->value)[at];
    dprintf(kResults, " [%s]", text ? text : "(null)");
  }
}

typedef long (*Call)(long, long, long, long, long, long);
typedef int (*IntCall)(long, long, long, long, long, long);
typedef double (*DoubleCall)(long, long, long, long, long, long);

static long call(void *module, char **word, int words, long last) {
  struct Argument argument[kArguments] = {{0, NULL, 0, 0}};
  long result = 0;
  for (int at = 2; at < words && at < 2 + kArguments; at++) argument[at - 2] = makeArgument(module, word[at], last);
  void *found = dlsym(module, word[1]);
  if (!found) {
    dprintf(kResults, "%s is not exported\n", word[1]);
    _exit(7);
  }
#define ARGUMENTS                                                                                             \
  argument[0].value, argument[1].value, argument[2].value, argument[3].value, argument[4].value, argument[5].value
  errno = preset;
  if (strcmp(word[0], "long") == 0 || strcmp(word[0], "text") == 0) {
    result = ((Call)found)(ARGUMENTS);
  } else if (strcmp(word[0], "double") == 0) {
    dprintf(kResults, "%s %.1f", word[1], ((DoubleCall)found)(ARGUMENTS));
  } else {
    result = ((IntCall)found)(ARGUMENTS);
  }
  if (strcmp(word[0], "text") == 0) dprintf(kResults, "%s %s", word[1], result ? (char *)result : "(null)");
  if (strcmp(word[0], "int") == 0 || strcmp(word[0], "long") == 0) dprintf(kResults, "%s %ld", word[1], result);
  if (strcmp(word[0], "void") == 0) dprintf(kResults, "%s", word[1]);
  fflush(NULL);
  for (int at = 0; at < kArguments; at++) giveBack(&argument[at]);
  dprintf(kResults, "\n");
  return result;
}

static int isCall(const char *kind) {
  const char *const kinds[] = {"int", "long", "text", "void", "double"};
  for (size_t at = 0; at < sizeof kinds / sizeof kinds[0]; at++)
    if (strcmp(kind, kinds[at]) == 0) return 1;
  return 0;
}

int main(int argc, char **argv) {
  static char line[262144];
  long last = 0;
  if (argc != 5) return 2;
  snprintf(ZULhome, sizeof ZULhome, "%s", argv[2]);
  folder = argv[3];
  openAt(kResults, "results");
  openAt(kTrace, "trace");
  FILE *script = fopen(argv[4], "r");
  backuplog = openLog("backuplog");
  fplog = openLog("fplog");
  void *module = dlopen(argv[1], RTLD_NOW);
  if (!module || !script) {
    fprintf(stderr, "%s\n", module ? argv[4] : dlerror());
    return 3;
  }
  /* Read whole: a detached process has lost the descriptor, and goes on with the lines behind its call. */
  size_t length = fread(line, 1, sizeof line - 1, script);
  line[length] = '\0';
  fclose(script);
  char *rest = line;
  for (char *each; (each = strsep(&rest, "\n")) && *each;) {
    char *word[kWords] = {NULL};
    int words = 0;
    for (char *part; words < kWords && (part = strsep(&each, " "));) word[words++] = unescape(part);
    if (isCall(word[0])) {
      last = call(module, word, words, last);
    } else {
      own(module, word);
      blocks(module, word, words, last);
    }
  }
  fflush(NULL);
  _exit(0);
}
