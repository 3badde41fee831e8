// The request list as the gatherer reads it, line by line, while its generator may still be writing
// it.
#pragma once
#include <stdio.h>

namespace net {

// Opens the list. On a site with the stream remedies a list that is not there yet is waited for.
// Null when it cannot be opened.
FILE *openRequestList(const char *path);

enum class Listed {
  entry,       // path is the next one
  later,       // the generator is still at work and has nothing new: ask again
  end,         // nothing more to come
  incomplete,  // the generator ended without finishing the list
};

// The next entry. path lives until the next call. Without the remedies an answer is entry or end.
Listed nextListed(FILE *list, char **path);

}  // namespace net
