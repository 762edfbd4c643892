/* The statistics file of the classifier daemon. */
#define _POSIX_C_SOURCE 200809L
#include "classd_stats.h"

#include <errno.h>
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

/* Writes `text` as a JSON string. */
static void put_string(FILE *out, const char *text) {
  const unsigned char *p;
  fputc('"', out);
  for (p = (const unsigned char *)text; *p; ++p) {
    if (*p == '"' || *p == '\\') fprintf(out, "\\%c", *p);
    else if (*p < 0x20) fprintf(out, "\\u%04x", *p);
    else fputc(*p, out);
  }
  fputc('"', out);
}

static void put_classes(FILE *out, const struct classd_classes *classes) {
  size_t i;
  int first = 1;
  fputs("{", out);
  for (i = 0; i < classes->count; ++i) {
    if (classes->verdicts[i] == 0) continue;
    fprintf(out, "%s\"%u\": %" PRIu64, first ? "" : ", ", (unsigned)classes->values[i], classes->verdicts[i]);
    first = 0;
  }
  fputs("}", out);
}

static void put_rules(FILE *out, const struct classd_ruleset *rules) {
  size_t i;
  fputs("[", out);
  for (i = 0; rules && i < rules->count; ++i) {
    const struct classd_rule *rule = &rules->rules[i];
    fprintf(out, "%s\n    {\"line\": %u, \"rule\": ", i ? "," : "", (unsigned)rule->line);
    put_string(out, rule->text);
    fprintf(out, ", \"result\": %u, \"hits\": %" PRIu64 ", \"kernel_hits\": %" PRIu64 "}", (unsigned)rule->result,
            rule->hits + rule->kernel_hits, rule->kernel_hits);
  }
  fputs(rules && rules->count ? "\n  ]" : "]", out);
}

/* Why the kernel asked about packets, by counter index (NUV_KCLFY_ASKED_*). */
static const char *const kAskedReasons[NUV_KCLFY_ASKED_REASONS] = {"rule", "link", "icmp", "steps", "nesting",
                                                                   "image"};

static void put_kernel_asked(FILE *out, const uint64_t *counts) {
  size_t i;
  fputs(", \"kernel_asked\": {", out);
  for (i = 0; i < NUV_KCLFY_ASKED_REASONS; ++i)
    fprintf(out, "%s\"%s\": %" PRIu64, i ? ", " : "", kAskedReasons[i], counts ? counts[i] : 0);
  fputs("}", out);
}

/* With --tc: where the program runs, or why it does not. */
static void put_kernel(FILE *out, const struct classd_stats *s) {
  if (!s->tc_interfaces) return;
  fputs("  \"tc\": {\"interfaces\": ", out);
  put_string(out, s->tc_interfaces);
  fprintf(out, ", \"ask_mark\": %" PRIu32 ", \"asked\": %" PRIu64 ", \"table_syncs\": %" PRIu64
               ", \"sync_failures\": %" PRIu64,
          s->ask_mark, s->asked, s->table_syncs, s->sync_failures);
  put_kernel_asked(out, s->kernel_asked);
  if (s->kernel_refused && s->kernel_refused[0]) {
    fputs(", \"refused\": ", out);
    put_string(out, s->kernel_refused);
  }
  fputs("},\n", out);
}

static void put_stats(FILE *out, const struct classd_stats *s) {
  fputs("{\n  \"mode\": ", out);
  put_string(out, s->mode ? s->mode : "queue");
  fputs(",\n", out);
  put_kernel(out, s);
  fputs("  \"rules_file\": ", out);
  put_string(out, s->rules_path ? s->rules_path : "");
  fprintf(out, ",\n  \"queue\": %u,\n", (unsigned)s->queue);
  fprintf(out, "  \"mark_mask\": %" PRIu32 ",\n", s->mark_mask);
  fprintf(out, "  \"generation\": %" PRIu64 ",\n", s->generation);
  fprintf(out, "  \"reloads\": {\"done\": %" PRIu64 ", \"failed\": %" PRIu64 "},\n", s->reloads, s->reload_failures);
  fprintf(out, "  \"rules_loaded_at\": %" PRId64 ",\n  \"last_reload_at\": %" PRId64 ",\n", s->loaded_at,
          s->last_reload_at);
  if (s->rules) fprintf(out, "  \"rules_checksum\": \"crc32:%08" PRIx32 "\",\n", s->rules->checksum);
  fprintf(out, "  \"packets\": %" PRIu64 ",\n", s->packets);
  fprintf(out, "  \"failed_open\": %" PRIu64 ",\n", s->failed_open);
  fprintf(out, "  \"verdict_messages\": %" PRIu64 ",\n", s->verdict_messages);
  fprintf(out, "  \"verdicts\": {\"unchanged\": %" PRIu64 ", \"classes\": ", s->unchanged);
  put_classes(out, s->classes);
  fprintf(out, "},\n  \"errors\": %" PRIu64 ",\n", s->errors);
  fprintf(out, "  \"queue_drops\": {\"queue_full\": %" PRIu64 ", \"undelivered\": %" PRIu64
               ", \"socket_overruns\": %" PRIu64 ", \"missed\": %" PRIu64 "},\n",
          s->queue_dropped, s->user_dropped, s->overruns, s->missed);
  if (s->live_blocks >= 0) fprintf(out, "  \"live_blocks\": %ld,\n", s->live_blocks);
  fputs("  \"rules\": ", out);
  put_rules(out, s->rules);
  fputs("\n}\n", out);
}

int classd_stats_write(const char *path, const struct classd_stats *stats, char *why, size_t size) {
  size_t length = strlen(path);
  char *temporary = malloc(length + sizeof ".tmp");
  FILE *out;
  int status = 0;
  if (!temporary) {
    snprintf(why, size, "%s: out of memory", path);
    return -1;
  }
  memcpy(temporary, path, length);
  memcpy(temporary + length, ".tmp", sizeof ".tmp");
  out = fopen(temporary, "w");
  if (!out) {
    snprintf(why, size, "%s: %s", temporary, strerror(errno));
    free(temporary);
    return -1;
  }
  put_stats(out, stats);
  if (ferror(out) | fclose(out)) {
    snprintf(why, size, "%s: %s", temporary, strerror(errno));
    status = -1;
  } else if (rename(temporary, path) != 0) {
    snprintf(why, size, "cannot rename %s to %s: %s", temporary, path, strerror(errno));
    status = -1;
  }
  if (status != 0) remove(temporary);
  free(temporary);
  return status;
}
