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

/* Results of reading a line: its rule is wrong (reading goes on with the
 * next line), or reading cannot go on. */
enum { LINE_WRONG = -1, LOAD_STOPPED = -2 };

/* Adds one line to `text` (of `size` bytes, `*used` of them in use), when
 * it fits whole. */
static void add_line(char *text, size_t size, size_t *used, const char *format, va_list args) {
  char line[512];
  int length = vsnprintf(line, sizeof line, format, args);
  if (length < 0 || (size_t)length + 2 > size - *used) return;
  if (*used) text[(*used)++] = '\n';
  memcpy(text + *used, line, (size_t)length + 1);
  *used += (size_t)length;
}

/* Adds one line to the error text, when it fits whole. */
static void add_error(struct classd_load_error *error, const char *format, ...) {
  va_list args;
  va_start(args, format);
  add_line(error->text, sizeof error->text, &error->length, format, args);
  va_end(args);
}

/* Adds one line to the warning text, when it fits whole. */
static void add_warning(struct classd_load_error *error, const char *format, ...) {
  va_list args;
  va_start(args, format);
  add_line(error->warnings, sizeof error->warnings, &error->warnings_length, format, args);
  va_end(args);
}

/* Parses one rule's text through the classifier's warning parser.  On
 * failure stores the 0-based offset of the fault within `text` and the
 * reason, led by the keyword involved when the reason does not name it (an
 * unknown keyword names the nearest known one).  What the parser changed
 * silently is reported as warnings; a table name that cannot work refuses
 * the rule. */
static int parse_rule(const char *path, unsigned number, size_t column, const char *text, nuv_clfy **rule,
                      uint32_t *offset, char *reason, size_t size, struct classd_load_error *error) {
  nuv_clfy_diag diag;
  nuv_clfy_warning warnings[NUV_CLFY_MAX_WARNINGS];
  uint32_t count = 0, i;
  const char *why, *near;
  memset(&diag, 0, sizeof diag);
  if (nuv_clfy_parse_with_warnings(text, rule, &diag, warnings, &count) == 0) {
    for (i = 0; i < count; ++i) {
      if (warnings[i].is_error) {
        nuv_clfy_free(*rule);
        *rule = NULL;
        *offset = warnings[i].offset;
        snprintf(reason, size, "%s", warnings[i].text);
        return -1;
      }
    }
    for (i = 0; i < count; ++i)
      add_warning(error, "%s:%u:%zu: warning: %s", path, number, column + warnings[i].offset, warnings[i].text);
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

/* Parses the rule of one line and links it behind the set's rules. */
static int add_rule(struct classd_ruleset *rules, size_t *capacity, const char *path, const nuv_clfy_line *line,
                    const struct classd_devnames *devs, struct classd_classes *classes,
                    struct classd_load_error *error) {
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
  if (append_rule(rules, capacity, &entry) != 0) {
    free(entry.text);
    nuv_clfy_free(rule);
    add_error(error, "%s:%u: out of memory", path, line->number);
    return LOAD_STOPPED;
  }
  memcpy(rule->action_data, &index, sizeof index);
  rule->result = line->result;
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
      add_warning(error, "%s:%u:1: warning: never reached: the rule at line %u matches every packet this one matches",
                  path, (unsigned)rules->rules[at_later].line, (unsigned)rules->rules[at_earlier].line);
      break;
    }
  }
}

/* Reads every line of the file's bytes; rules need a result, as the daemon
 * gives every packet a rule applies to the rule's mark. */
static int read_rules(const char *data, size_t size, const char *path, const struct classd_devnames *devs,
                      struct classd_classes *classes, struct classd_ruleset *rules,
                      struct classd_load_error *error) {
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
      result = add_rule(rules, &capacity, path, &line, devs, classes, error);
    }
    if (result != 0) status = result;
  }
  return status;
}

struct classd_ruleset *classd_ruleset_load(const char *path, const struct classd_devnames *devs, int optimise,
                                           struct classd_classes *classes, struct classd_load_error *error) {
  struct classd_ruleset *rules;
  char *data = NULL, why[256];
  size_t size = 0;
  int status;
  error->length = 0;
  error->text[0] = '\0';
  error->warnings_length = 0;
  error->warnings[0] = '\0';
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
  status = read_rules(data, size, path, devs, classes, rules, error);
  free(data);
  if (status == 0) warn_shadowed(rules, path, error);
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
