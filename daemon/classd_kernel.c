/* The classifier in the kernel's data path as the daemon runs it. */
#define _POSIX_C_SOURCE 200809L
#include "classd_kernel.h"

#include <net/if.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <nuvkclfy.h>

struct classd_kernel {
  struct nuv_kclfy *loaded;
};

static int is_listed(const struct classd_kernel_config *config, unsigned index) {
  size_t i;
  for (i = 0; i < config->interface_count; ++i)
    if (config->ifindexes[i] == (int)index) return 1;
  return 0;
}

int classd_kernel_interfaces(const char *list, struct classd_kernel_config *config, char *why, size_t size) {
  const char *name = list;
  config->interface_count = 0;
  for (;;) {
    size_t length = strcspn(name, ",");
    char copy[IF_NAMESIZE];
    unsigned index;
    if (length == 0 || length >= sizeof copy) {
      snprintf(why, size, "--tc %s: give interface names separated by commas", list);
      return -1;
    }
    memcpy(copy, name, length);
    copy[length] = '\0';
    index = if_nametoindex(copy);
    if (index == 0) {
      snprintf(why, size, "--tc: no interface named %s", copy);
      return -1;
    }
    if (is_listed(config, index)) {
      snprintf(why, size, "--tc: %s named twice", copy);
      return -1;
    }
    if (config->interface_count == CLASSD_KERNEL_MAX_INTERFACES) {
      snprintf(why, size, "--tc: %d interfaces at most", CLASSD_KERNEL_MAX_INTERFACES);
      return -1;
    }
    config->ifindexes[config->interface_count++] = (int)index;
    if (name[length] == '\0') return 0;
    name += length + 1;
  }
}

/* "[WHAT: ]the loader's text for `code`: the details", the details being
 * the loader's and the kernel's words where it gave any. */
static int explain(int code, const char *what, const char *details, char *why, size_t size) {
  snprintf(why, size, "%s%s%s%s%s", what ? what : "", what ? ": " : "", nuv_kclfy_strerror(code),
           details[0] ? ": " : "", details);
  return code;
}

static int attach_all(struct nuv_kclfy *loaded, const struct classd_kernel_config *config, char *why, size_t size) {
  char details[512] = "", name[IF_NAMESIZE], what[64];
  size_t i;
  for (i = 0; i < config->interface_count; ++i) {
    int code = nuv_kclfy_attach(loaded, config->ifindexes[i], 0, details, sizeof details);
    if (code != NUV_KCLFY_OK) {
      if (!if_indextoname((unsigned)config->ifindexes[i], name))
        snprintf(name, sizeof name, "%d", config->ifindexes[i]);
      snprintf(what, sizeof what, "attaching to %s", name);
      return explain(code, what, details, why, size);
    }
  }
  return NUV_KCLFY_OK;
}

int classd_kernel_start(const struct classd_kernel_config *config, const struct classd_ruleset *rules,
                        struct classd_kernel **out, char *why, size_t size) {
  struct nuv_kclfy_options options;
  struct classd_kernel *kernel = calloc(1, sizeof *kernel);
  char details[512] = "";
  int code;
  if (!kernel) return explain(NUV_KCLFY_E_NO_MEMORY, NULL, "", why, size);
  memset(&options, 0, sizeof options);
  options.mark_mask = config->mark_mask;
  options.ask_mark = config->ask_mark;
  code = nuv_kclfy_open(&options, &kernel->loaded, details, sizeof details);
  if (code != NUV_KCLFY_OK) {
    free(kernel);
    return explain(code, NULL, details, why, size); /* the details say what was done */
  }
  code = classd_kernel_load(kernel, rules, why, size);
  if (code == NUV_KCLFY_OK) code = attach_all(kernel->loaded, config, why, size);
  if (code != NUV_KCLFY_OK) {
    classd_kernel_stop(kernel);
    return code;
  }
  *out = kernel;
  return NUV_KCLFY_OK;
}

int classd_kernel_load(struct classd_kernel *kernel, const struct classd_ruleset *rules, char *why, size_t size) {
  char details[512] = "";
  int code = nuv_kclfy_load_set(kernel->loaded, rules->compiled, details, sizeof details);
  return code == NUV_KCLFY_OK ? code : explain(code, "loading the rule set into the kernel", details, why, size);
}

int classd_kernel_sync_tables(struct classd_kernel *kernel, char *why, size_t size) {
  char details[512] = "";
  int code = nuv_kclfy_sync_tables(kernel->loaded, details, sizeof details);
  return code == NUV_KCLFY_OK ? code : explain(code, "mirroring the tables into the kernel", details, why, size);
}

void classd_kernel_read_hits(struct classd_kernel *kernel, struct classd_ruleset *rules) {
  uint32_t count = nuv_kclfy_rule_count(kernel->loaded), i;
  size_t r;
  for (r = 0; r < rules->count; ++r) rules->rules[r].kernel_hits = 0;
  for (i = 0; i < count; ++i) {
    const nuv_clfy *rule = nuv_kclfy_rule(kernel->loaded, i);
    uint64_t rule_hits;
    uint32_t index;
    /* The parents an optimised set groups rules under decide nothing: the
     * file's rules are the ones without sub-rules, and their action data
     * holds their place in the file. */
    if (!rule || rule->children) continue;
    memcpy(&index, rule->action_data, sizeof index);
    if (index < rules->count && nuv_kclfy_rule_hits(kernel->loaded, i, &rule_hits) == NUV_KCLFY_OK)
      rules->rules[index].kernel_hits += rule_hits;
  }
}

void classd_kernel_read_asked(struct classd_kernel *kernel, uint64_t counts[NUV_KCLFY_ASKED_REASONS]) {
  uint64_t read[NUV_KCLFY_ASKED_REASONS];
  if (nuv_kclfy_asked(kernel->loaded, read) == NUV_KCLFY_OK) memcpy(counts, read, sizeof read);
}

void classd_kernel_stop(struct classd_kernel *kernel) {
  if (!kernel) return;
  nuv_kclfy_close(kernel->loaded);
  free(kernel);
}
