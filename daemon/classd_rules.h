/* Rule files of the classifier daemon: reading, building a rule set,
 * classifying a packet against it. */
#ifndef CLASSD_RULES_H
#define CLASSD_RULES_H

#include <stddef.h>
#include <stdint.h>

#include <nikerkiog.h>

/* A name used by `dev`/`brdev` conditions and the interface index it stands for. */
struct classd_devname {
  char name[20];
  int32_t index;
};

/* The interface names given on the command line; names not listed are
 * looked up among the system's interfaces. */
struct classd_devnames {
  struct classd_devname *entries;
  size_t count;
};

/* The result values seen so far, each with a verdict counter.  Slots are
 * only ever appended, so a rule's slot stays valid across reloads. */
struct classd_classes {
  uint16_t *values;
  uint64_t *verdicts;
  size_t count;
  size_t capacity;
};

/* One rule of a loaded file: where it stands, its result, its hits. */
struct classd_rule {
  uint32_t line;     /* 1-based line in the file */
  uint16_t result;   /* the mark given to packets it applies to */
  uint32_t slot;     /* verdict counter of its result in classd_classes */
  uint64_t hits;     /* packets from the queue it applied to */
  uint64_t kernel_hits; /* packets the kernel's program decided by it (as last read) */
  char *text;        /* the rule text as written, without "=> N" */
};

/* A loaded rule file: the set packets are matched against, its compiled
 * form (which the search uses), and its rules in file order.  Each
 * classifier rule of the set carries the index of its entry in `rules` in
 * its action data. */
struct classd_ruleset {
  nuv_clfy_set set;
  nuv_clfy *last;              /* the set's last top-level rule while loading */
  nuv_clfy_compiled *compiled; /* made once the set is complete */
  struct classd_rule *rules;
  size_t count;
  uint32_t checksum; /* CRC-32 (as zlib and Ethernet compute it) of the file's bytes */
  int learns;        /* a rule has a DHCP condition: a search may change a table */
};

/* Why loading failed: one line per error, "FILE:LINE:COLUMN: reason" for
 * each rule the file gets wrong (lines beyond the room are left out). */
struct classd_load_error {
  char text[4096];
  size_t length;
};

/* What a loaded rule is checked for beyond its syntax. */
struct classd_load_checks {
  uint32_t mark_mask; /* the mark bits the daemon owns; a result with other bits is refused */
  int per_connection; /* the daemon sees only a connection's first packets: warn about each
                         condition on a field that changes from packet to packet */
};

/* Reads the rule file at `path` (a regular file of text, read by the
 * classifier's line reader: one rule per line, blank lines and lines
 * starting with "#" skipped, each rule ending with "=> N" giving its result
 * 0..65535; tabs count as spaces), warns about what the rules do that their
 * text does not say and about rules an earlier rule shadows, builds its
 * rule set with interface names
 * resolved through `devs`, and restructures it into a tree when `optimise`.
 * Each rule is checked as `checks` asks.  The rules' results get verdict
 * slots in `classes`.  Returns the new set (free with classd_ruleset_free),
 * or null with `error` filled, naming every rule of the file that is wrong;
 * nothing stays allocated then (result slots already added stay).  Either
 * way `error` may also hold warnings, one line each. */
struct classd_ruleset *classd_ruleset_load(const char *path, const struct classd_devnames *devs, int optimise,
                                           const struct classd_load_checks *checks, struct classd_classes *classes,
                                           struct classd_load_error *error);

/* Frees a rule set and its rules.  Null is ignored. */
void classd_ruleset_free(struct classd_ruleset *rules);

/* The rule of `rules` that applies to `packet`, with its hit counted, or
 * null when none does. */
struct classd_rule *classd_ruleset_classify(struct classd_ruleset *rules, const nuv_clfy_packet *packet);

/* Frees the counters of `classes`. */
void classd_classes_free(struct classd_classes *classes);

/* Adds "NAME=INDEX" to `devs`; returns 0, or -1 when the text is not of
 * that form (empty or over-long name, index not a number 1..2^31-1) or
 * memory is exhausted. */
int classd_devnames_add(struct classd_devnames *devs, const char *text);

/* Frees the names of `devs`. */
void classd_devnames_free(struct classd_devnames *devs);

#endif
