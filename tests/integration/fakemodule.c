/* A module that does what a test asks of it, loaded by the daemon in the place of the real one.
 *
 * Words of TAPE: echo TEXT; stdin N (takes N lines of its input); exit N; return N; crash; fds; print TEXT (on
 * standard output); log TEXT (in the host's log); wait FILE (runs until FILE is there, then makes FILE.done);
 * daemon FILE (the same, detached); server FILE, likewise, with the gatherer's tag; rsync N (takes a list to its
 * end mark, at most N lines); login ADDRESS LINE (asks another agent). MREPL echoes.
 *
 * With FAKE_SLOW_FORK set, whoever forks goes on half a second behind the child. */
#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

extern char ZULhome[256];
extern FILE *fplog;
extern char cmdname[];
int initpass(void);
int autoLogin(int sd);

static void halfASecond(void) {
  usleep(500000);
}

__attribute__((constructor)) static void slowForks(void) {
  if (getenv("FAKE_SLOW_FORK")) pthread_atfork(NULL, halfASecond, NULL);
}

static int until(const char *file) {
  char done[4096];
  while (access(file, F_OK) != 0) usleep(5000);
  snprintf(done, sizeof done, "%s.done", file);
  close(open(done, O_WRONLY | O_CREAT, 0600));
  return 0;
}

static int detached(const char *file) {
  fprintf(stderr, "TRANSFER OK\n");
  if (fork() != 0) _exit(0);
  setsid();
  if (chdir(ZULhome) != 0) return 1;
  for (int fd = 0; fd < 256; fd++) close(fd);
  open("/dev/null", O_RDWR);
  if (dup(0) != 1 || dup(0) != 2) return 1;
  strcpy(cmdname, "zulcatlg");
  return until(file);
}

static int listDescriptors(void) {
  DIR *dir = opendir("/proc/self/fd");
  struct dirent *entry;
  while ((entry = readdir(dir)) != NULL) {
    char path[300], target[300];
    ssize_t length;
    if (entry->d_name[0] == '.' || atoi(entry->d_name) == dirfd(dir)) continue;
    snprintf(path, sizeof path, "/proc/self/fd/%s", entry->d_name);
    length = readlink(path, target, sizeof target - 1);
    target[length > 0 ? length : 0] = '\0';
    fprintf(stderr, "%s %s\n", entry->d_name, target);
  }
  closedir(dir);
  return 0;
}

static int takeLines(int count) {
  char line[4096];
  while (count-- > 0 && fgets(line, sizeof line, stdin)) {
    if (strcmp(line, "TRANSFER OK\n") == 0) break;
    fprintf(stderr, "line %s", line);
  }
  return 0;
}

static int logInAt(char *rest) {
  char *line = strchr(rest, ' ');
  struct sockaddr_in address = {.sin_family = AF_INET, .sin_port = htons(2345)};
  int sd = socket(AF_INET, SOCK_STREAM, 0), result;
  *line++ = '\0';
  inet_pton(AF_INET, rest, &address.sin_addr);
  if (connect(sd, (struct sockaddr *)&address, sizeof address) != 0) fprintf(stderr, "not connected\n");
  initpass();
  result = autoLogin(sd);
  fprintf(stderr, "autoLogin %d\n", result);
  if (result == 0) {
    char text[4096];
    ssize_t got;
    dprintf(sd, "%s\n", line);
    shutdown(sd, SHUT_WR);
    while ((got = read(sd, text, sizeof text)) > 0) fwrite(text, 1, (size_t)got, stderr);
  }
  close(sd);
  return result;
}

int tapetool(char *line) {
  char *rest = strchr(line, ' ');
  rest = rest ? rest + 1 : line + strlen(line);
  if (strncmp(line, "stdin ", 6) == 0 || strncmp(line, "rsync ", 6) == 0) return takeLines(atoi(rest));
  if (strncmp(line, "exit ", 5) == 0) exit(atoi(rest));
  if (strncmp(line, "return ", 7) == 0) return atoi(rest);
  if (strcmp(line, "crash") == 0) *(volatile int *)16 = 1;
  if (strcmp(line, "fds") == 0) return listDescriptors();
  if (strncmp(line, "print ", 6) == 0) return puts(rest) < 0;
  if (strncmp(line, "log ", 4) == 0) return fprintf(fplog, "%s\n", rest) < 0;
  if (strncmp(line, "daemon ", 7) == 0) return detached(rest);
  if (strncmp(line, "login ", 6) == 0) return logInAt(rest);
  if (strncmp(line, "wait ", 5) == 0 || strncmp(line, "server ", 7) == 0) {
    if (line[0] == 's') strcpy(cmdname, "zultserv");
    fprintf(stderr, "waiting\n");
    return until(rest);
  }
  fprintf(stderr, "[%s]\n", line);
  return 0;
}

int mreplicate(char *line) {
  fprintf(stderr, "{%s}\n", line);
  return 0;
}
