/* The statistics file of the classifier daemon. */
#ifndef CLASSD_STATS_H
#define CLASSD_STATS_H

#include <stddef.h>
#include <stdint.h>

#include <nikerkiog.h>

#include "classd_rules.h"

/* Everything the statistics file reports. */
struct classd_stats {
  const char *mode;          /* "tc": classifying in the kernel too; "queue": only here */
  const char *tc_interfaces; /* --tc as given; null without */
  uint32_t ask_mark;         /* with --tc */
  const char *kernel_refused; /* why --tc fell back to queue mode; empty when it did not */
  uint64_t asked;           /* queued packets that carried the ask bit */
  const uint64_t *kernel_asked; /* packets the kernel asked about, by reason (NUV_KCLFY_ASKED_*) */
  uint64_t table_syncs;     /* mirrorings of the tables into the kernel after DHCP learning */
  uint64_t sync_failures;   /* mirrorings that failed */
  const char *rules_path;
  uint16_t queue;
  uint32_t mark_mask;       /* the mark bits the daemon sets */
  uint64_t generation;      /* rule sets loaded so far, the first included */
  uint64_t reloads;         /* reloads that replaced the set */
  uint64_t reload_failures; /* reloads that kept the old set */
  int64_t loaded_at;        /* UNIX time the set in use was loaded */
  int64_t last_reload_at;   /* UNIX time of the last reload, done or failed; 0 before any */
  uint64_t failed_open;     /* packets lost to us that passed unchanged (--fail-open) */
  uint64_t packets;         /* packets answered */
  uint64_t verdict_messages; /* verdict messages that answered them */
  uint64_t unchanged;       /* packets no rule applied to (mark left as it was) */
  uint64_t errors;          /* packets without data and verdicts the kernel did not take */
  uint64_t queue_dropped;   /* the kernel dropped them: queue full */
  uint64_t user_dropped;    /* the kernel could not deliver them to us */
  uint64_t overruns;        /* times our socket buffer overflowed */
  uint64_t missed;          /* packets lost to us that way (dropped, or passed when failing open) */
  long live_blocks;         /* the classifier's live allocations; -1 (left out) when not measured */
  const struct classd_classes *classes;
  const struct classd_ruleset *rules; /* null when no set is loaded */
};

/* Writes `stats` as one JSON object to `path` atomically: into "PATH.tmp",
 * then renamed over `path`.  Returns 0, or -1 with `why` (of `size` bytes)
 * filled. */
int classd_stats_write(const char *path, const struct classd_stats *stats, char *why, size_t size);

#endif
