/* A C99 program that includes every public header and calls the library. */
#include <stdio.h>
#include <string.h>

#include "nikerkiog.h"
#include "nuvcsock.h"

int main(void) {
  /* Filled in as modules arrive: each check prints what failed. */
  int failures = 0;

  /* Access rules: parse, normalise, print. */
  {
    ipaccess_rule rule;
    int32_t policy = 0;
    if (ipaccess_parse(&rule, "permit tcp any host 10.0.0.1 range 1024 65535 log") != 0) {
      fprintf(stderr, "ipaccess_parse failed\n");
      ++failures;
    }
    ipaccess_optim_rulestruct(&rule);
    if (strcmp(ipaccess_string_use_flags(&rule), "permit tcp any host 10.0.0.1 ge 1024 log short") != 0) {
      fprintf(stderr, "ipaccess_string_use_flags gave '%s'\n", ipaccess_string_use_flags(&rule));
      ++failures;
    }
    if (ipaccesspolicy_parse(&policy, "reject") != 0 || policy != 3 ||
        strcmp(ipaccesspolicy_string(9), "illegal-policy") != 0) {
      fprintf(stderr, "access rule policy words wrong\n");
      ++failures;
    }
  }
  if (failures) fprintf(stderr, "%d C-linkage checks failed\n", failures);
  return failures ? 1 : 0;
}
