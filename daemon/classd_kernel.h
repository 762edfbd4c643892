/* The classifier in the kernel's data path as the daemon runs it: the
 * program at the ingress of the router's interfaces decides what it can,
 * and gives the packets that need the daemon the "ask userspace" mark bit,
 * which a firewall rule sends to the daemon's queue. */
#ifndef CLASSD_KERNEL_H
#define CLASSD_KERNEL_H

#include <stddef.h>
#include <stdint.h>

#include <nikerkiog.h>

#include "classd_rules.h"

/* Most interfaces one daemon attaches to. */
#define CLASSD_KERNEL_MAX_INTERFACES 32

/* Where and how the program runs. */
struct classd_kernel_config {
  int ifindexes[CLASSD_KERNEL_MAX_INTERFACES];
  size_t interface_count;
  uint32_t mark_mask; /* the mark bits a verdict sets */
  uint32_t ask_mark;  /* the "ask userspace" bit(s), outside mark_mask */
};

struct classd_kernel;

/* Reads "NAME[,NAME...]" into `config`'s interface indexes.  Returns 0, or
 * -1 with `why` (of `size` bytes) filled when a name is empty, is no
 * interface of the system or is given twice, or there are too many. */
int classd_kernel_interfaces(const char *list, struct classd_kernel_config *config, char *why, size_t size);

/* Loads the program with `rules`' compiled set and attaches it at the
 * ingress of every interface of `config`.  Returns 0 with *out set (stop
 * with classd_kernel_stop), or the loader's negative result code with
 * `why` saying what failed, in the loader's and the kernel's words; nothing
 * stays loaded or attached then.  `rules` must stay alive until the next
 * successful classd_kernel_load or classd_kernel_stop. */
int classd_kernel_start(const struct classd_kernel_config *config, const struct classd_ruleset *rules,
                        struct classd_kernel **out, char *why, size_t size);

/* Makes `rules` the set the program decides with, in one step.  Returns 0;
 * or a negative result code with `why` filled, and the set in force stays
 * (the caller keeps its rules alive). */
int classd_kernel_load(struct classd_kernel *kernel, const struct classd_ruleset *rules, char *why, size_t size);

/* Mirrors what DHCP learning changed in the named tables into the kernel.
 * Returns 0, or a negative result code with `why` filled. */
int classd_kernel_sync_tables(struct classd_kernel *kernel, char *why, size_t size);

/* Sets the kernel_hits of each rule of `rules`, which must be the set in
 * force, to the kernel's count. */
void classd_kernel_read_hits(struct classd_kernel *kernel, struct classd_ruleset *rules);

/* The packets the program asked the daemon about since it was loaded, by
 * reason (indexes NUV_KCLFY_ASKED_*); left as they were when the kernel
 * cannot say. */
void classd_kernel_read_asked(struct classd_kernel *kernel, uint64_t counts[NUV_KCLFY_ASKED_REASONS]);

/* Detaches the program from every interface and unloads it.  Null is
 * ignored. */
void classd_kernel_stop(struct classd_kernel *kernel);

#endif
