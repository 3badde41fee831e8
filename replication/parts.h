// Parts: the names under which files and links are made until they are whole and get their own.
#pragma once
#include <stdio.h>
#include <unistd.h>

namespace target {

// With the process in it, no file that is received has the same.
struct PartName {
  char text[32];
  PartName() { snprintf(text, sizeof text, ".zulpart.%i", getpid()); }
  operator const char *() const { return text; }
};

// Opens a new part for writing; one of an earlier process of the same number makes way. A
// descriptor, or -1.
int openNewPart(int directory);

// Removes the parts of receivers that were killed from a directory: nobody else ever would.
void sweepParts(int directory, const char *name);

}  // namespace target
