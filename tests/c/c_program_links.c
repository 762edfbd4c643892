/* A C99 program that includes every public header and calls the library. */
#include <stdio.h>
#include <string.h>

#include "nikerkiog.h"
#include "nuvcsock.h"

int main(void) {
  /* Filled in as modules arrive: each check prints what failed. */
  int failures = 0;
  if (failures) fprintf(stderr, "%d C-linkage checks failed\n", failures);
  return failures ? 1 : 0;
}
