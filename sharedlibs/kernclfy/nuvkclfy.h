/* The classifier in the kernel's data path: one fixed eBPF program at the
 * traffic-control hook (clsact) that walks a compiled rule set's kernel
 * image, kept in maps.  Used by the tool (test runs) and the daemon (tc
 * deployment); links libbpf, which the classifier library itself never does.
 *
 * A loaded classifier (struct nuv_kclfy) is owned by its caller: open it,
 * load rule sets into it (each load is a new generation that replaces the
 * old one in one step: a packet is decided by one generation, never a mix),
 * attach it to interfaces, and close it.  Closing detaches it everywhere
 * and frees the program and its maps.
 *
 * What the program does with a packet:
 *   - a rule applies: mark = (mark & ~mark_mask) | (result & mark_mask),
 *     and the rule's per-CPU hit counter grows (rules with conditions);
 *   - no rule applies: the mark is left alone;
 *   - the first rule that may still apply needs userspace (a DHCP, payload
 *     pattern, class map or bridge condition), or the packet is one the
 *     program does not read (an IPv6 chain longer than it walks, a walk
 *     longer than its budget): the "ask userspace" bit `ask_mark` is set
 *     and nothing else changes.  A firewall rule sends such packets to the
 *     daemon's queue, whose compiled set decides.
 * The program always passes the packet on (TC_ACT_OK). */
#ifndef NUVKCLFY_H
#define NUVKCLFY_H

#include <stddef.h>
#include <stdint.h>

#include "nuvclfy.h"
#include "nuvclfy_kernel.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Result codes. */
enum nuv_kclfy_result {
  NUV_KCLFY_OK = 0,
  NUV_KCLFY_E_INVALID = -1,    /* a null or contradictory argument */
  NUV_KCLFY_E_NO_BPF = -2,     /* the kernel or the privileges do not allow loading the program */
  NUV_KCLFY_E_REFUSED = -3,    /* the kernel's verifier refused the program */
  NUV_KCLFY_E_TOO_BIG = -4,    /* the set has no kernel image (too many rules, nested too deep) */
  NUV_KCLFY_E_NO_MEMORY = -5,
  NUV_KCLFY_E_MAPS = -6,       /* writing the maps failed */
  NUV_KCLFY_E_ATTACH = -7,     /* attaching to (or detaching from) an interface failed */
  NUV_KCLFY_E_TEST_RUN = -8    /* the kernel refused a test run */
};

/* Short English text of a result code; static, never null. */
const char *nuv_kclfy_strerror(int code);

/* Settings of a classifier. */
struct nuv_kclfy_options {
  uint32_t mark_mask; /* the mark bits a verdict sets; 0 means all but ask_mark */
  uint32_t ask_mark;  /* the "ask userspace" bit(s); 0 means NUV_KCLFY_DEFAULT_ASK_MARK.
                         Must not overlap mark_mask. */
  uint32_t slots;     /* room for a rule set, in 32-byte image slots; 0 means NUV_KCLFY_DEFAULT_SLOTS */
};

#define NUV_KCLFY_DEFAULT_ASK_MARK 0x80000000u
/* Room for about 2,000 rules (1 MiB per generation).  Every generation
 * takes the whole room, since the program's lookups are fastest when all
 * image maps have one size.  A set that needs more makes the classifier
 * load the program anew with twice the room (or more), and move every
 * interface it is attached to over to it in one step each; that load takes
 * as long as the first. */
#define NUV_KCLFY_DEFAULT_SLOTS 32768u

struct nuv_kclfy;

/* Loads the program and creates its maps.  On success stores the classifier
 * (owned by the caller, free with nuv_kclfy_close) in *out.  On failure
 * returns a negative code and writes why (the kernel's words, and for a
 * verifier refusal the end of its log) into why[why_size] (may be null). */
int nuv_kclfy_open(const struct nuv_kclfy_options *options, struct nuv_kclfy **out, char *why, size_t why_size);

/* Makes `compiled` the classifier's rule set: lays out its kernel image,
 * writes it into a new generation and switches to it in one step.  The
 * named tables its rules refer to are mirrored into the kernel's table maps
 * at once.  On failure the previous set stays in force.  The classifier
 * keeps the rule pointers of the image (for hits and table mirroring) but
 * not `compiled`: the caller keeps the rules alive until the next load or
 * close. */
int nuv_kclfy_load_set(struct nuv_kclfy *k, const struct nuv_clfy_compiled *compiled, char *why, size_t why_size);

/* Attaches the program to interface `ifindex` at ingress (egress when
 * `egress` is non-zero), adding a clsact queueing discipline when the
 * interface has none.  The classifier remembers it for detaching. */
int nuv_kclfy_attach(struct nuv_kclfy *k, int ifindex, int egress, char *why, size_t why_size);

/* Detaches the program from every interface it was attached to (and
 * removes the clsact disciplines it added).  Returns NUV_KCLFY_OK, or the
 * first failure after trying all of them. */
int nuv_kclfy_detach_all(struct nuv_kclfy *k);

/* What a test run decided. */
enum nuv_kclfy_verdict {
  NUV_KCLFY_NO_RULE = 0, /* no rule applies: mark unchanged */
  NUV_KCLFY_RULE = 1,    /* a rule applies: mark_out carries its result (a result that leaves the mark
                            as it was reads as NUV_KCLFY_NO_RULE: pick mark_in so that none does) */
  NUV_KCLFY_ASK = 2      /* userspace must decide: mark_out = mark_in | ask_mark */
};

/* A frame for a test run, and what the program made of it. */
struct nuv_kclfy_run {
  uint32_t ifindex;  /* receiving interface (must exist; 0: the loopback) */
  uint32_t mark_in;  /* the frame's mark before the program */
  uint32_t mark_out;
  int verdict;       /* enum nuv_kclfy_verdict */
};

/* Runs the program once on the Ethernet frame `frame` of `length` bytes
 * (BPF_PROG_TEST_RUN).  Counts hits as a real packet does.  The kernel
 * refuses test runs of IPv4 and IPv6 frames shorter than their fixed IP
 * header (NUV_KCLFY_E_TEST_RUN); such frames never pass the IP layer of a
 * router, and the program itself reads them as the library does. */
int nuv_kclfy_test_run(struct nuv_kclfy *k, const void *frame, uint32_t length, struct nuv_kclfy_run *run);

/* The number of rules of the set in force, and the kernel's hit count of
 * rule `index` (image order, see nuv_kclfy_rule) summed over CPUs. */
uint32_t nuv_kclfy_rule_count(const struct nuv_kclfy *k);
int nuv_kclfy_rule_hits(struct nuv_kclfy *k, uint32_t index, uint64_t *hits);
/* The rule with image index `index`, or null. */
struct nuv_clfy *nuv_kclfy_rule(const struct nuv_kclfy *k, uint32_t index);

/* How many packets the program asked userspace about, by reason
 * (NUV_KCLFY_ASKED_* of nuvclfy_kernel.h), summed over CPUs, since open. */
int nuv_kclfy_asked(struct nuv_kclfy *k, uint64_t counts[NUV_KCLFY_ASKED_REASONS]);

/* Mirrors the named tables the set in force refers to into the kernel's
 * table maps: adds what the library's tables gained and removes what they
 * lost since the last mirroring.  Call after DHCP learning or table edits. */
int nuv_kclfy_sync_tables(struct nuv_kclfy *k, char *why, size_t why_size);

/* The program's file descriptor (for tools such as a test's instruction
 * check), valid until close. */
int nuv_kclfy_program_fd(const struct nuv_kclfy *k);

/* Instructions the verifier processed when loading the program. */
uint32_t nuv_kclfy_verified_instructions(const struct nuv_kclfy *k);

/* Detaches, frees the program, its maps and the classifier.  Null is
 * ignored. */
void nuv_kclfy_close(struct nuv_kclfy *k);

#ifdef __cplusplus
}
#endif

#endif
