/* Rule files of the classifier daemon. */
#define _POSIX_C_SOURCE 200809L
#include "classd_rules.h"

#include <errno.h>
#include <net/if.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

/* Characters trimmed from both ends of a line and of a result. */
static const char kBlanks[] = " \t\r\n";

/* Largest result a rule can give. */
#define CLASSD_MAX_RESULT 65535ul

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

/* Parses one rule's text through the classifier's diagnostic parser.  On
 * failure stores the 0-based offset of the fault within `text` and the
 * reason, led by the keyword involved when the reason does not name it. */
static int parse_rule(const char *text, nuv_clfy **rule, uint32_t *offset, char *reason, size_t size) {
  nuv_clfy_diag diag;
  const char *why;
  memset(&diag, 0, sizeof diag);
  if (nuv_clfy_parse_with_diag(text, rule, &diag) == 0) return 0;
  why = diag.reason && diag.reason[0] ? diag.reason : nuv_clfy_strerror(diag.code);
  *offset = diag.offset;
  if (diag.keyword[0] && !strstr(why, diag.keyword))
    snprintf(reason, size, "%.*s: %s", (int)sizeof diag.keyword, diag.keyword, why);
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

/* A rule line split into its parts: the rule text's span and the result. */
struct rule_line {
  size_t first, last; /* rule text: [first, last) */
  uint16_t result;
};

/* Splits the line at its last "=>"; -1 (with `error` filled) when the
 * result is not a number 0..65535. */
static int split_result(const char *path, unsigned number, const char *line, struct rule_line *out,
                        struct classd_load_error *error) {
  const char *arrow = NULL, *p;
  size_t value_first, value_last;
  char value[32], *end;
  unsigned long result;
  for (p = line + out->first; p + 1 < line + out->last; ++p)
    if (p[0] == '=' && p[1] == '>') arrow = p;
  if (!arrow) return 0;
  value_first = (size_t)(arrow - line) + 2;
  value_last = out->last;
  while (value_first < value_last && is_blank(line[value_first])) ++value_first;
  if (value_last - value_first >= sizeof value) value_last = value_first + sizeof value - 1;
  memcpy(value, line + value_first, value_last - value_first);
  value[value_last - value_first] = '\0';
  errno = 0;
  result = strtoul(value, &end, 10);
  if (value[0] == '\0' || value[0] == '+' || value[0] == '-' || *end != '\0' || errno != 0 ||
      result > CLASSD_MAX_RESULT) {
    add_error(error, "%s:%u:%zu: the result after \"=>\" must be a number 0..65535", path, number,
              (value[0] ? value_first : (size_t)(arrow - line)) + 1);
    return LINE_WRONG;
  }
  out->result = (uint16_t)result;
  out->last = (size_t)(arrow - line);
  while (out->last > out->first && is_blank(line[out->last - 1])) --out->last;
  return 0;
}

/* Finds the rule on a line; 0 with `*found` 0 for a blank or comment line. */
static int read_line(const char *path, unsigned number, const char *line, struct rule_line *out, int *found,
                     struct classd_load_error *error) {
  out->first = 0;
  out->last = strlen(line);
  out->result = 0;
  while (out->first < out->last && is_blank(line[out->first])) ++out->first;
  while (out->last > out->first && is_blank(line[out->last - 1])) --out->last;
  *found = out->first < out->last && line[out->first] != '#';
  return *found ? split_result(path, number, line, out, error) : 0;
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

/* The 1-based column of the result after the rule's "=>", or 0 when the
 * line gives none. */
static size_t result_column(const char *line, const struct rule_line *split) {
  const char *arrow = strstr(line + split->last, "=>");
  size_t column;
  if (!arrow) return 0;
  column = (size_t)(arrow - line) + 2;
  while (is_blank(line[column])) ++column;
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

/* Parses the rule of one line and links it behind the set's rules. */
static int add_rule(struct classd_ruleset *rules, size_t *capacity, const char *path, unsigned number,
                    const char *line, const struct rule_line *split, const struct classd_devnames *devs,
                    const struct classd_load_checks *checks, struct classd_classes *classes,
                    struct classd_load_error *error) {
  const struct rule_site site = {path, number, split->first + 1, result_column(line, split)};
  struct classd_rule entry;
  nuv_clfy *rule = NULL;
  uint32_t offset, index = (uint32_t)rules->count;
  char reason[160];
  long slot;
  memset(&entry, 0, sizeof entry);
  entry.line = number;
  entry.result = split->result;
  entry.text = strndup(line + split->first, split->last - split->first);
  slot = class_slot(classes, split->result);
  if (!entry.text || slot < 0) {
    free(entry.text);
    add_error(error, "%s:%u: out of memory", path, number);
    return LOAD_STOPPED;
  }
  entry.slot = (uint32_t)slot;
  if (parse_rule(entry.text, &rule, &offset, reason, sizeof reason) != 0) {
    free(entry.text);
    add_error(error, "%s:%u:%zu: %s", path, number, split->first + offset + 1, reason);
    return LINE_WRONG;
  }
  if (check_rule(&site, entry.text, rule, split->result, checks, error) != 0) {
    free(entry.text);
    nuv_clfy_free(rule);
    return LINE_WRONG;
  }
  if (append_rule(rules, capacity, &entry) != 0) {
    free(entry.text);
    nuv_clfy_free(rule);
    add_error(error, "%s:%u: out of memory", path, number);
    return LOAD_STOPPED;
  }
  memcpy(rule->action_data, &index, sizeof index);
  rule->result = split->result;
  resolve_interfaces(rule, devs);
  rules->last = nuv_clfy_add_tail_after(&rules->set, rules->last, rule);
  return 0;
}

static int read_rules(FILE *file, const char *path, const struct classd_devnames *devs,
                      const struct classd_load_checks *checks, struct classd_classes *classes,
                      struct classd_ruleset *rules, struct classd_load_error *error) {
  char *line = NULL;
  size_t size = 0, capacity = 0;
  unsigned number = 0;
  int status = 0;
  while (status != LOAD_STOPPED && getline(&line, &size, file) >= 0) {
    struct rule_line split;
    int found, result;
    ++number;
    result = read_line(path, number, line, &split, &found, error);
    if (result == 0 && found)
      result = add_rule(rules, &capacity, path, number, line, &split, devs, checks, classes, error);
    if (result != 0) status = result;
  }
  if (status != LOAD_STOPPED && ferror(file)) {
    add_error(error, "%s: cannot read the rule file: %s", path, strerror(errno));
    status = -1;
  }
  free(line);
  return status;
}

/* CRC-32 of the rest of `file` (reflected, polynomial 0xEDB88320, as zlib
 * and Ethernet compute it), so that the statistics say which file is in use. */
static uint32_t file_checksum(FILE *file) {
  uint32_t crc = 0xFFFFFFFFu;
  int c, bit;
  while ((c = getc(file)) != EOF) {
    crc ^= (uint32_t)c;
    for (bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
  }
  return ~crc;
}

struct classd_ruleset *classd_ruleset_load(const char *path, const struct classd_devnames *devs, int optimise,
                                           const struct classd_load_checks *checks, struct classd_classes *classes,
                                           struct classd_load_error *error) {
  struct classd_ruleset *rules;
  FILE *file = fopen(path, "r");
  int status;
  error->length = 0;
  error->text[0] = '\0';
  if (!file) {
    add_error(error, "%s: cannot open the rule file: %s", path, strerror(errno));
    return NULL;
  }
  rules = calloc(1, sizeof *rules);
  if (!rules) {
    fclose(file);
    add_error(error, "%s: out of memory", path);
    return NULL;
  }
  status = read_rules(file, path, devs, checks, classes, rules, error);
  /* The same open file read again: the bytes the rules came from. */
  if (status == 0) {
    rewind(file);
    rules->checksum = file_checksum(file);
  }
  fclose(file);
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
