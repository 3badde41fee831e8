/* The barest host the module must load in: it lends exactly the symbols a host owes, loads the library whose
 * path it is given, and runs the request lines it is given, each in a process of its own. */
#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

char ZULhome[256];
FILE *backuplog;
FILE *fplog;
char cmdname[16];
int initpass(void) { return 0; }
int autoLogin(int sd) { return sd < 0; }
int insplit(char **fields, char *text, int separator, int count) {
  int found = 0;
  for (fields[found++] = text; found <= count && (text = strchr(text, separator)); fields[found++] = text) *text++ = 0;
  return found;
}
int filecopy(const char *source, const char *destination) { return !source || !destination; }
int filecpy(const char *source, const char *destination, int flags) { return flags || filecopy(source, destination); }
int deldir(char *args, int flag) { return !args || !flag; }

int main(int argc, char **argv) {
  if (argc < 3) return 2;
  snprintf(ZULhome, sizeof ZULhome, "%s", argv[2]);
  void *module = dlopen(argv[1], RTLD_NOW);
  if (!module) {
    fprintf(stderr, "%s\n", dlerror());
    return 3;
  }
  int (*tapetool)(char *) = (int (*)(char *))dlsym(module, "tapetool");
  if (!tapetool || !dlsym(module, "mreplicate")) return 4;
  for (int at = 3; at < argc; at++) {
    fflush(NULL);
    pid_t pid = fork();
    if (pid == 0) _exit(tapetool(argv[at]));
    int status = 0;
    waitpid(pid, &status, 0);
    printf("%s: %d\n", argv[at], WIFEXITED(status) ? WEXITSTATUS(status) : 256 + WTERMSIG(status));
  }
  return 0;
}
