/* A library calls the functions of others through a table of addresses that the loader has filled in. Shortages are
 * made there, in the module's own table: the host, the C library and the sanitizers, which call the same functions
 * through theirs, never notice. Nothing has to be loaded ahead, which the sanitizers would not bear. */
#define _GNU_SOURCE
#include "shortage.h"

#include <dlfcn.h>
#include <elf.h>
#include <errno.h>
#include <link.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

typedef long (*Function)(long, long, long, long, long, long);

static struct Shortage {
  char *name, *caller;
  Function real;
  int calls, first, andAll;
  int error;
  long failure;
} made[4];

/* True when the address lies in the function that is asked for; the module's own names, but for the exported ones, are
 * not to be had. */
static int isFrom(const struct Shortage *each, void *address) {
  Dl_info found;
  if (!each->caller) return 1;
  return dladdr(address, &found) != 0 && found.dli_sname && strcmp(found.dli_sname, each->caller) == 0;
}

/* Six words are more than any of these functions takes, and harmless to those that take fewer. */
#define STAND_IN(at)                                                                    \
  static long standIn##at(long a, long b, long c, long d, long e, long f) {             \
    struct Shortage *each = &made[at];                                                  \
    int call = isFrom(each, __builtin_return_address(0)) ? ++each->calls : 0;           \
    if (call < each->first || each->first == 0 || (call > each->first && !each->andAll)) \
      return each->real(a, b, c, d, e, f);                                              \
    errno = each->error;                                                                \
    return each->failure;                                                               \
  }
STAND_IN(0)
STAND_IN(1)
STAND_IN(2)
STAND_IN(3)
static const Function standIns[] = {standIn0, standIn1, standIn2, standIn3};

static long failureOf(const char *name) {
  const char *const null[] = {"malloc", "calloc", "realloc", "strdup", "strndup", "fopen", "fdopen", "opendir"};
  for (size_t at = 0; at < sizeof null / sizeof null[0]; at++)
    if (strcmp(name, null[at]) == 0) return 0;
  return -1;
}

static void fail(const char *what, const char *name) {
  dprintf(STDERR_FILENO, "shortage of %s: %s\n", name, what);
  _exit(5);
}

static void *entry(const struct link_map *map, ElfW(Sxword) tag) {
  for (const ElfW(Dyn) *each = map->l_ld; each->d_tag != DT_NULL; each++)
    if (each->d_tag == tag) return (void *)each->d_un.d_ptr;
  return NULL;
}

/* Puts the stand-in into every place of one part of the table that has the function. How many there are. */
static int replaceIn(const struct link_map *map, ElfW(Sxword) part, ElfW(Sxword) size, struct Shortage *each,
                     Function standIn) {
  const ElfW(Rela) *slot = entry(map, part), *end = slot + (uintptr_t)entry(map, size) / sizeof *slot;
  const ElfW(Sym) *symbols = entry(map, DT_SYMTAB);
  const char *names = entry(map, DT_STRTAB);
  uintptr_t page = (uintptr_t)sysconf(_SC_PAGESIZE);
  int found = 0;
  for (; slot && slot < end; slot++) {
    if (strcmp(names + symbols[ELF64_R_SYM(slot->r_info)].st_name, each->name) != 0) continue;
    Function *place = (Function *)(map->l_addr + slot->r_offset);
    /* A hardened library has its table closed when it is complete. */
    if (mprotect((void *)((uintptr_t)place & ~(page - 1)), page, PROT_READ | PROT_WRITE) != 0)
      fail("cannot be made", each->name);
    if (*place != standIn) each->real = *place;
    *place = standIn;
    found++;
  }
  return found;
}

void makeShort(void *module, const char *name, const char *call, int error) {
  size_t at = 0, length = strcspn(name, "@");
  struct link_map *map;
  while (made[at].name && (strncmp(made[at].name, name, length) != 0 || made[at].name[length] != '\0'))
    if (++at == sizeof made / sizeof made[0]) fail("too many", name);
  struct Shortage *each = &made[at];
  if (!each->name) each->name = strndup(name, length);
  free(each->caller);
  each->caller = name[length] == '@' ? strdup(name + length + 1) : NULL;
  each->calls = 0;
  each->first = atoi(call);
  each->andAll = strchr(call, '+') != NULL;
  each->error = error;
  each->failure = failureOf(each->name);
  if (dlinfo(module, RTLD_DI_LINKMAP, &map) != 0) fail(dlerror(), name);
  if (replaceIn(map, DT_JMPREL, DT_PLTRELSZ, each, standIns[at]) +
          replaceIn(map, DT_RELA, DT_RELASZ, each, standIns[at]) ==
      0)
    fail("the module does not call it", name);
}
