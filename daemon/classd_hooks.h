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

/* What of the classifier in the kernel is to fail (the test build: the
 * environment variable NIKERKIOG_CLASSD_REFUSE_KERNEL); always
 * CLASSD_HOOKS_REFUSE_NOTHING in the daemon that is shipped. */
enum classd_hooks_refusal {
  CLASSD_HOOKS_REFUSE_NOTHING = 0,
  CLASSD_HOOKS_REFUSE_LOADING = 1, /* "1": loading fails as on a kernel without BPF */
  CLASSD_HOOKS_REFUSE_RELOADS = 2  /* "reload": every set after the first is refused */
};
int classd_hooks_refuse_kernel(void);

#endif
