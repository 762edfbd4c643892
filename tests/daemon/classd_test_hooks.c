/* The daemon's test build: measurements and fault injection from the
 * portable platform library's test interfaces. */
#include "classd_hooks.h"

#include <stdlib.h>
#include <string.h>

#include <nuvcsock_test.h>

int classd_hooks_present(void) { return 1; }

void classd_hooks_fail_nth_allocation(long n) { nuvcsock_fail_nth_allocation(n); }

long classd_hooks_live_blocks(void) { return nuvcsock_slab_live_blocks(); }

long classd_hooks_allocations(void) { return nuvcsock_allocations(); }

int classd_hooks_refuse_kernel(void) {
  const char *refuse = getenv("NIKERKIOG_CLASSD_REFUSE_KERNEL");
  return refuse && strcmp(refuse, "1") == 0;
}
