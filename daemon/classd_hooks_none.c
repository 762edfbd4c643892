/* The shipped daemon: nothing is measured and no fault is injected. */
#include "classd_hooks.h"

int classd_hooks_present(void) { return 0; }

void classd_hooks_fail_nth_allocation(long n) { (void)n; }

long classd_hooks_live_blocks(void) { return -1; }

long classd_hooks_allocations(void) { return -1; }

int classd_hooks_refuse_kernel(void) { return 0; }
