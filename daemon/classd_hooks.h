/* Measurements and fault injection the daemon's own tests use.  The daemon
 * that is shipped has none of them (classd_hooks_none.c): a router's
 * platform library need not offer them.  The test build of the daemon
 * links an implementation on the portable platform's test interfaces. */
#ifndef CLASSD_HOOKS_H
#define CLASSD_HOOKS_H

/* 1 in the test build, 0 in the daemon that is shipped. */
int classd_hooks_present(void);

/* Makes the `n`th allocation of the classifier from now fail (0: none). */
void classd_hooks_fail_nth_allocation(long n);

/* The classifier's live allocations, or -1 when not measured. */
long classd_hooks_live_blocks(void);

/* The classifier's allocations so far, or -1 when not measured. */
long classd_hooks_allocations(void);

/* Whether loading the classifier into the kernel is to fail as on a kernel
 * without BPF (the test build: when NIKERKIOG_CLASSD_REFUSE_KERNEL=1 is in
 * the environment); 0 in the daemon that is shipped. */
int classd_hooks_refuse_kernel(void);

#endif
