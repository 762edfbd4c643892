/* Test hooks of the portable platform library: live-allocation accounting
 * and fault injection.  Not part of the router platform's interfaces. */
#ifndef NUVCSOCK_TEST_H
#define NUVCSOCK_TEST_H

#include "nuvcsock.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Number of live blocks from slab_dmalloc/slab_dstrdup. */
NUVCSOCK_API long nuvcsock_slab_live_blocks(void);

/* Number of live blocks from cmemstack_alloc. */
NUVCSOCK_API long nuvcsock_cmemstack_live_blocks(void);

/* Number of live memblock data allocations. */
NUVCSOCK_API long nuvcsock_memblock_live_blocks(void);

/* Allocations attempted so far (slab, cmemstack and memblock together). */
NUVCSOCK_API long nuvcsock_allocations(void);

/* Makes the `n`th allocation from now fail (1: the very next one), counting
 * slab, cmemstack and memblock allocations together; the allocations after
 * it succeed again.  0 switches fault injection off. */
NUVCSOCK_API void nuvcsock_fail_nth_allocation(long n);

/* Makes every allocation from the `n`th from now on fail (until switched off
 * with nuvcsock_fail_nth_allocation(0)). */
NUVCSOCK_API void nuvcsock_fail_from_allocation(long n);

/* Calls `visit` with the file and line tags of every live slab block,
 * oldest first. */
NUVCSOCK_API void nuvcsock_slab_foreach_live(void (*visit)(const char *file, int line, size_t size, void *ctx),
                                             void *ctx);

#ifdef __cplusplus
}
#endif

#endif
