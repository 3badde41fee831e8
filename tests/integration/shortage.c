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

/* When the functions of one name fail. */
struct Plan {
  const char *name, *caller;
  int calls, first, andAll, error;
};
static struct Plan plans[4];

/* A function that is led through here. */
static struct {
  const char *name;
  Function real;
  struct Plan *plan;
} led[8];

static const char *const memory[] = {"malloc", "calloc", "realloc", "strdup", "strndup", NULL};
static const char *const answeringNull[] = {"fopen", "fdopen", "opendir", NULL};

static int isOneOf(const char *const *names, const char *name) {
  while (*names && strcmp(*names, name) != 0) names++;
  return *names != NULL;
}

/* True when the address lies in the function that is asked for; only the module's exported names are to be had. */
static int isFrom(const char *caller, void *address) {
  Dl_info found;
  if (!caller) return 1;
  return dladdr(address, &found) != 0 && found.dli_sname && strcmp(found.dli_sname, caller) == 0;
}

static int isDue(struct Plan *plan, void *from) {
  if (!isFrom(plan->caller, from)) return 0;
  plan->calls++;
  return plan->first > 0 && (plan->calls == plan->first || (plan->calls > plan->first && plan->andAll));
}

/* Six words are more than any of these functions takes, and harmless to those that take fewer. */
#define STAND_IN(at)                                                                                   \
  static long standIn##at(long a, long b, long c, long d, long e, long f) {                            \
    if (!isDue(led[at].plan, __builtin_return_address(0))) return led[at].real(a, b, c, d, e, f);      \
    errno = led[at].plan->error;                                                                       \
    return isOneOf(memory, led[at].name) || isOneOf(answeringNull, led[at].name) ? 0 : -1;             \
  }
STAND_IN(0)
STAND_IN(1)
STAND_IN(2)
STAND_IN(3)
STAND_IN(4)
STAND_IN(5)
STAND_IN(6)
STAND_IN(7)
static const Function standIns[] = {standIn0, standIn1, standIn2, standIn3, standIn4, standIn5, standIn6, standIn7};

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
static int replaceIn(const struct link_map *map, ElfW(Sxword) part, ElfW(Sxword) size, size_t at) {
  const ElfW(Rela) *slot = entry(map, part), *end = slot + (uintptr_t)entry(map, size) / sizeof *slot;
  const ElfW(Sym) *symbols = entry(map, DT_SYMTAB);
  const char *names = entry(map, DT_STRTAB);
  uintptr_t page = (uintptr_t)sysconf(_SC_PAGESIZE);
  int found = 0;
  for (; slot && slot < end; slot++) {
    if (strcmp(names + symbols[ELF64_R_SYM(slot->r_info)].st_name, led[at].name) != 0) continue;
    Function *place = (Function *)(map->l_addr + slot->r_offset);
    /* A hardened library has its table closed when it is complete. */
    if (mprotect((void *)((uintptr_t)place & ~(page - 1)), page, PROT_READ | PROT_WRITE) != 0)
      fail("cannot be made", led[at].name);
    if (*place != standIns[at]) led[at].real = *place;
    *place = standIns[at];
    found++;
  }
  return found;
}

/* True when the module calls the function; it is led through here then. */
static int lead(void *module, const char *name, struct Plan *plan) {
  size_t at = 0;
  struct link_map *map;
  while (led[at].name && strcmp(led[at].name, name) != 0)
    if (++at == sizeof led / sizeof led[0]) fail("too many", name);
  led[at].name = name;
  led[at].plan = plan;
  if (dlinfo(module, RTLD_DI_LINKMAP, &map) != 0) fail(dlerror(), name);
  return replaceIn(map, DT_JMPREL, DT_PLTRELSZ, at) + replaceIn(map, DT_RELA, DT_RELASZ, at) > 0;
}

void makeShort(void *module, const char *name, const char *call, int error) {
  struct Plan *plan = plans;
  char *word = strdup(name), *caller = strchr(word, '@');
  if (caller) *caller++ = '\0';
  while (plan->name && strcmp(plan->name, word) != 0)
    if (++plan == plans + sizeof plans / sizeof plans[0]) fail("too many", word);
  *plan = (struct Plan){word, caller, 0, atoi(call), strchr(call, '+') != NULL, error};
  int isMemory = strcmp(word, "memory") == 0, found = isMemory ? 0 : lead(module, word, plan);
  for (const char *const *each = memory; isMemory && *each; each++) found += lead(module, *each, plan);
  if (found == 0) fail("the module does not call it", word);
}
