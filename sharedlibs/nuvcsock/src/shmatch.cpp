// Shell-style wildcard matching on top of libc fnmatch.
#include <fnmatch.h>

#include <cstdlib>
#include <cstring>

#include "nuvcsock.h"

namespace {

int wildcard_match(const char *string, const char *pattern, int flags) {
  if (!string || !pattern) return 0;
  return fnmatch(pattern, string, flags) == 0;
}

}  // namespace

extern "C" {

int shmatch(const char *string, const char *pattern) { return wildcard_match(string, pattern, 0); }

int shcasematch(const char *string, const char *pattern) { return wildcard_match(string, pattern, FNM_CASEFOLD); }

int shcasenmatch(const char *string, size_t length, const char *pattern) {
  if (!string || !pattern) return 0;
  // The text ends at an embedded NUL; nothing after it is read.
  length = strnlen(string, length);
  // fnmatch wants a terminated text: copy the prefix, on the stack when small.
  char small[512];
  char *copy = length < sizeof small ? small : static_cast<char *>(std::malloc(length + 1));
  if (!copy) return 0;
  std::memcpy(copy, string, length);
  copy[length] = '\0';
  int matched = wildcard_match(copy, pattern, FNM_CASEFOLD);
  if (copy != small) std::free(copy);
  return matched;
}

}
