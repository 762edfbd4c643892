/* Rule files of the classifier daemon. */
#define _POSIX_C_SOURCE 200809L
#include "classd_rules.h"

#include <errno.h>
#include <net/if.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "rulefile_load.h"

/* Characters trimmed from both ends of a line and of a result. */
static const char kBlanks[] = " \t\r\n";

static int is_blank(char c) { return c != '\0' && strchr(kBlanks, c) != NULL; }

/* Results of reading a line: its rule is wrong (reading goes on with the
 * next line), or reading cannot go on. */
enum { LINE_WRONG = -1, LOAD_STOPPED = -2 };

/* Adds one line to the error text, when it fits whole. */
static void add_error(struct classd_load_error *error, const char *format, ...) {
  char line[512];
  int length;
  va_list args;
  va_start(args, format);
  length = vsnprintf(line, sizeof line, format, args);
  va_end(args);
  if (length < 0 || (size_t)length + 2 > sizeof error->text - error->length) return;
  if (error->length) error->text[error->length++] = '\n';
  memcpy(error->text + error->length, line, (size_t)length + 1);
  error->length += (size_t)length;
}

/* Parses one rule's text through the classifier's warning parser.  On
 * failure stores the 0-based offset of the fault within `text` and the
 * reason, led by the keyword involved when the reason does not name it (an
 * unknown keyword names the nearest known one).  What the parser changed
 * silently is reported as warnings, the rule text starting at `column` of
 * its line; a table name that cannot work refuses the rule. */
static int parse_rule(const char *path, unsigned number, size_t column, const char *text, nuv_clfy **rule,
                      uint32_t *offset, char *reason, size_t size, struct classd_load_error *error) {
  nuv_clfy_diag diag;
  nuv_clfy_warning warnings[NUV_CLFY_MAX_WARNINGS];
  uint32_t count = 0, i;
  const char *why, *near;
  memset(&diag, 0, sizeof diag);
  if (nuv_clfy_parse_with_warnings(text, rule, &diag, warnings, &count) == 0) {
    for (i = 0; i < count; ++i) {
      if (!warnings[i].is_error) continue;
      nuv_clfy_free(*rule);
      *rule = NULL;
      *offset = warnings[i].offset;
      snprintf(reason, size, "%s", warnings[i].text);
      return -1;
    }
    for (i = 0; i < count; ++i)
      add_error(error, "%s:%u:%zu: warning: %s", path, number, column + warnings[i].offset, warnings[i].text);
    return 0;
  }
  why = diag.reason && diag.reason[0] ? diag.reason : nuv_clfy_strerror(diag.code);
  *offset = diag.offset;
  near = diag.code == NUV_CLFY_E_UNKNOWN_KEYWORD ? nuv_clfy_nearest_keyword(text + diag.offset, diag.length) : NULL;
  if (diag.keyword[0] && !strstr(why, diag.keyword))
    snprintf(reason, size, "%.*s: %s%s%s%s", (int)sizeof diag.keyword, diag.keyword, why, near ? " (did you mean `" : "",
             near ? near : "", near ? "`?)" : "");
  else
    snprintf(reason, size, "%s", why);
  return -1;
}

static int32_t resolve_name(const struct classd_devnames *devs, const char *name) {
  size_t i;
  unsigned index;
  for (i = 0; i < devs->count; ++i)
    if (strcmp(devs->entries[i].name, name) == 0) return devs->entries[i].index;
  index = if_nametoindex(name);
  return index == 0 || index > INT32_MAX ? -1 : (int32_t)index;
}

/* Interface names in `dev`/`brdev` conditions become indexes; a name that
 * is neither given nor an interface keeps -1, which no packet has. */
static void resolve_interfaces(nuv_clfy *rule, const struct classd_devnames *devs) {
  if (rule->flags & NUV_CLFY_F_DEV) rule->dev_ifindex = resolve_name(devs, rule->dev);
  if (rule->flags & NUV_CLFY_F_BRDEV) rule->brdev_ifindex = resolve_name(devs, rule->brdev);
}

/* The verdict slot of `value`, added when new; -1 when memory is exhausted. */
static long class_slot(struct classd_classes *classes, uint16_t value) {
  size_t i;
  for (i = 0; i < classes->count; ++i)
    if (classes->values[i] == value) return (long)i;
  if (classes->count == classes->capacity) {
    size_t capacity = classes->capacity ? classes->capacity * 2 : 8;
    uint16_t *values = realloc(classes->values, capacity * sizeof *values);
    uint64_t *verdicts;
    if (!values) return -1;
    classes->values = values;
    verdicts = realloc(classes->verdicts, capacity * sizeof *verdicts);
    if (!verdicts) return -1;
    classes->verdicts = verdicts;
    classes->capacity = capacity;
  }
  classes->values[classes->count] = value;
  classes->verdicts[classes->count] = 0;
  return (long)classes->count++;
}

static int append_rule(struct classd_ruleset *rules, size_t *capacity, const struct classd_rule *rule) {
  if (rules->count == *capacity) {
    size_t grown = *capacity ? *capacity * 2 : 16;
    struct classd_rule *entries = realloc(rules->rules, grown * sizeof *entries);
    if (!entries) return -1;
    rules->rules = entries;
    *capacity = grown;
  }
  rules->rules[rules->count++] = *rule;
  return 0;
}

/* The 1-based column of the result after the last "=>" of the line (of
 * `length` bytes), or 0 when the line gives none. */
static size_t result_column(const char *line, size_t length) {
  size_t i, column = 0;
  for (i = 0; i + 1 < length; ++i)
    if (line[i] == '=' && line[i + 1] == '>') column = i + 2;
  if (!column) return 0;
  while (column < length && is_blank(line[column])) ++column;
  return column + 1;
}

/* Where a rule stands in its file. */
struct rule_site {
  const char *path;
  unsigned line;
  size_t column;        /* of the rule text */
  size_t result_column; /* of the result; 0 when there is none */
};

/* Conditions on fields that differ between the packets of one connection,
 * by the keywords that write them. */
static const struct per_packet_condition {
  uint32_t flag;
  const char *keywords[3];
} kPerPacketConditions[] = {{NUV_CLFY_F_TCP_FLAGS, {"tcp.flags", NULL, NULL}},
                            {NUV_CLFY_F_IP_LEN, {"ip.len", NULL, NULL}},
                            {NUV_CLFY_F_DHCP, {"dhcpoption", "dhcpheader", NULL}},
                            {NUV_CLFY_F_PACKETMATCH, {"packetmatch", NULL, NULL}}};

/* The 0-based offset of the first of `keywords` standing as a word in
 * `text`, with the keyword found; the text's length when none does. */
static size_t keyword_offset(const char *text, const char *const *keywords, const char **found) {
  size_t offset = 0, length = strlen(text);
  while (offset < length) {
    size_t end = offset, k;
    while (end < length && !is_blank(text[end])) ++end;
    for (k = 0; k < 3 && keywords[k]; ++k) {
      if (end - offset == strlen(keywords[k]) && memcmp(text + offset, keywords[k], end - offset) == 0) {
        *found = keywords[k];
        return offset;
      }
    }
    offset = end;
    while (offset < length && is_blank(text[offset])) ++offset;
  }
  *found = keywords[0];
  return length;
}

/* With --per-connection a rule decides on a connection's first packets
 * alone: a warning for each condition on a field later packets differ in. */
static void warn_per_packet_conditions(const struct rule_site *site, const char *text, const nuv_clfy *rule,
                                       struct classd_load_error *error) {
  size_t i;
  for (i = 0; i < sizeof kPerPacketConditions / sizeof kPerPacketConditions[0]; ++i) {
    const char *keyword;
    size_t offset;
    if (!(rule->flags & kPerPacketConditions[i].flag)) continue;
    offset = keyword_offset(text, kPerPacketConditions[i].keywords, &keyword);
    if (offset == strlen(text)) offset = 0;
    add_error(error,
              "%s:%u:%zu: warning: %s differs from packet to packet; with --per-connection only a connection's "
              "first packets are classified",
              site->path, site->line, site->column + offset, keyword);
  }
}

/* Checks of a parsed rule beyond its syntax: its result must fit the mark
 * bits the daemon owns; in per-connection mode, conditions that change
 * within a connection are warned about.  LINE_WRONG when the rule is
 * refused. */
static int check_rule(const struct rule_site *site, const char *text, const nuv_clfy *rule, uint16_t result,
                      const struct classd_load_checks *checks, struct classd_load_error *error) {
  if (checks->per_connection) warn_per_packet_conditions(site, text, rule, error);
  if ((result & ~checks->mark_mask) != 0) {
    add_error(error, "%s:%u:%zu: the result %u has bits outside the mark mask 0x%x", site->path, site->line,
              site->result_column ? site->result_column : site->column, (unsigned)result,
              (unsigned)checks->mark_mask);
    return LINE_WRONG;
  }
  return 0;
}

/* Parses the rule of one line (as the line reader split it, the line's
 * bytes at `bytes`) and links it behind the set's rules. */
static int add_rule(struct classd_ruleset *rules, size_t *capacity, const char *path, const nuv_clfy_line *line,
                    const char *bytes, const struct classd_devnames *devs, const struct classd_load_checks *checks,
                    struct classd_classes *classes, struct classd_load_error *error) {
  const struct rule_site site = {path, line->number, line->column, result_column(bytes, line->length)};
  struct classd_rule entry;
  nuv_clfy *rule = NULL;
  uint32_t offset, index = (uint32_t)rules->count;
  char reason[192];
  long slot;
  memset(&entry, 0, sizeof entry);
  entry.line = line->number;
  entry.result = line->result;
  entry.text = strdup(line->text);
  slot = class_slot(classes, line->result);
  if (!entry.text || slot < 0) {
    free(entry.text);
    add_error(error, "%s:%u: out of memory", path, line->number);
    return LOAD_STOPPED;
  }
  entry.slot = (uint32_t)slot;
  if (parse_rule(path, line->number, line->column, entry.text, &rule, &offset, reason, sizeof reason, error) != 0) {
    free(entry.text);
    add_error(error, "%s:%u:%zu: %s", path, line->number, (size_t)line->column + offset, reason);
    return LINE_WRONG;
  }
  if (check_rule(&site, entry.text, rule, line->result, checks, error) != 0) {
    free(entry.text);
    nuv_clfy_free(rule);
    return LINE_WRONG;
  }
  if (append_rule(rules, capacity, &entry) != 0) {
    free(entry.text);
    nuv_clfy_free(rule);
    add_error(error, "%s:%u: out of memory", path, line->number);
    return LOAD_STOPPED;
  }
  memcpy(rule->action_data, &index, sizeof index);
  rule->result = line->result;
  if (rule->flags & NUV_CLFY_F_DHCP) rules->learns = 1;
  resolve_interfaces(rule, devs);
  rules->last = nuv_clfy_add_tail_after(&rules->set, rules->last, rule);
  return 0;
}

/* Warns about every rule that an earlier rule of the file shadows. */
static void warn_shadowed(const struct classd_ruleset *rules, const char *path, struct classd_load_error *error) {
  const nuv_clfy *later, *earlier;
  uint32_t at_later, at_earlier;
  for (later = rules->set.head; later; later = later->next) {
    for (earlier = rules->set.head; earlier != later; earlier = earlier->next) {
      if (!nuv_clfy_covers(earlier, later)) continue;
      memcpy(&at_later, later->action_data, sizeof at_later);
      memcpy(&at_earlier, earlier->action_data, sizeof at_earlier);
      add_error(error, "%s:%u:1: warning: never reached: the rule at line %u matches every packet this one matches",
                path, (unsigned)rules->rules[at_later].line, (unsigned)rules->rules[at_earlier].line);
      break;
    }
  }
}

/* Reads every line of the file's bytes; rules need a result, as the daemon
 * gives every packet a rule applies to the rule's mark. */
static int read_rules(const char *data, size_t size, const char *path, const struct classd_devnames *devs,
                      const struct classd_load_checks *checks, struct classd_classes *classes,
                      struct classd_ruleset *rules, struct classd_load_error *error) {
  nuv_clfy_line line;
  size_t capacity = 0;
  int status = 0;
  memset(&line, 0, sizeof line);
  while (status != LOAD_STOPPED && nuv_clfy_next_line(data, size, NUV_CLFY_LINE_NEED_RESULT, &line)) {
    int result = 0;
    if (line.code < 0) {
      add_error(error, "%s:%u:%u: %s", path, (unsigned)line.number, (unsigned)line.column, line.reason);
      result = LINE_WRONG;
    } else if (line.code == NUV_CLFY_LINE_RULE) {
      result = add_rule(rules, &capacity, path, &line, data + line.start, devs, checks, classes, error);
    }
    if (result != 0) status = result;
  }
  return status;
}

/* CRC-32 of the file's bytes (reflected, polynomial 0xEDB88320, as zlib
 * and Ethernet compute it), so that the statistics say which file is in use. */
static uint32_t file_checksum(const char *data, size_t size) {
  uint32_t crc = 0xFFFFFFFFu;
  size_t i;
  int bit;
  for (i = 0; i < size; ++i) {
    crc ^= (uint32_t)(unsigned char)data[i];
    for (bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
  }
  return ~crc;
}

struct classd_ruleset *classd_ruleset_load(const char *path, const struct classd_devnames *devs, int optimise,
                                           const struct classd_load_checks *checks, struct classd_classes *classes,
                                           struct classd_load_error *error) {
  struct classd_ruleset *rules;
  char *data = NULL, why[256];
  size_t size = 0;
  int status;
  error->length = 0;
  error->text[0] = '\0';
  if (rulefile_load(path, &data, &size, why, sizeof why) != 0) {
    add_error(error, "%s: cannot read the rule file: %s", path, why);
    return NULL;
  }
  rules = calloc(1, sizeof *rules);
  if (!rules) {
    free(data);
    add_error(error, "%s: out of memory", path);
    return NULL;
  }
  status = read_rules(data, size, path, devs, checks, classes, rules, error);
  if (status == 0) {
    /* The bytes the rules came from. */
    rules->checksum = file_checksum(data, size);
    warn_shadowed(rules, path, error);
  }
  free(data);
  if (status == 0 && optimise && nuv_clfy_set_optim_in_place(&rules->set) != 0) {
    add_error(error, "%s: out of memory while restructuring the rule set", path);
    status = -1;
  }
  if (status == 0 && nuv_clfy_set_compile(&rules->set, &rules->compiled) != NUV_CLFY_COMPILE_OK) {
    add_error(error, "%s: out of memory while compiling the rule set", path);
    status = -1;
  }
  if (status != 0) {
    classd_ruleset_free(rules);
    return NULL;
  }
  return rules;
}

void classd_ruleset_free(struct classd_ruleset *rules) {
  size_t i;
  if (!rules) return;
  nuv_clfy_compiled_free(rules->compiled);
  nuv_clfy_del_and_free_all(&rules->set);
  for (i = 0; i < rules->count; ++i) free(rules->rules[i].text);
  free(rules->rules);
  free(rules);
}

struct classd_rule *classd_ruleset_classify(struct classd_ruleset *rules, const nuv_clfy_packet *packet) {
  nuv_clfy *rule = nuv_clfy_compiled_get_clfy(rules->compiled, 0, packet);
  uint32_t index;
  if (!rule) return NULL;
  memcpy(&index, rule->action_data, sizeof index);
  rules->rules[index].hits++;
  return &rules->rules[index];
}

void classd_classes_free(struct classd_classes *classes) {
  free(classes->values);
  free(classes->verdicts);
  memset(classes, 0, sizeof *classes);
}

int classd_devnames_add(struct classd_devnames *devs, const char *text) {
  const char *equals = strchr(text, '=');
  struct classd_devname *entries, *entry;
  char *end;
  long index;
  if (!equals || equals == text || (size_t)(equals - text) >= sizeof entries->name) return -1;
  errno = 0;
  index = strtol(equals + 1, &end, 10);
  if (equals[1] == '\0' || *end != '\0' || errno != 0 || index < 1 || index > INT32_MAX) return -1;
  entries = realloc(devs->entries, (devs->count + 1) * sizeof *entries);
  if (!entries) return -1;
  devs->entries = entries;
  entry = &entries[devs->count++];
  memset(entry, 0, sizeof *entry);
  memcpy(entry->name, text, (size_t)(equals - text));
  entry->index = (int32_t)index;
  return 0;
}

void classd_devnames_free(struct classd_devnames *devs) {
  free(devs->entries);
  devs->entries = NULL;
  devs->count = 0;
}
