/* The kernel classifier's loader: the program object built with the
 * library (embedded), its maps, generations, attachment and test runs. */
#include "nuvkclfy.h"

#include <arpa/inet.h>
#include <errno.h>
#include <linux/pkt_cls.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>
#include <bpf/bpf.h>
#include <bpf/libbpf.h>

#include "nuvclfy_kernel.h"

/* The program object, compiled at build time (nuvclfy_tc_object.c). */
extern const unsigned char nuvclfy_tc_object[];
extern const size_t nuvclfy_tc_object_size;

#define MAX_ATTACHMENTS 64
#define VERIFIER_LOG_SIZE (1u << 20)

struct mirrored {
  uint32_t id;
  uint32_t kind;
  const void *table;
  uint8_t *entries; /* what the kernel holds: keys as written to the map */
  size_t count, capacity;
};

struct attachment {
  int ifindex;
  int egress;
  int added_hook;
};

/* A loaded program and its maps.  Every image map of a program has the
 * same number of slots (`capacity`): then the verifier turns the program's
 * slot lookups into a few instructions instead of calls.  A set that needs
 * more gets a new instance with room for it. */
struct instance {
  struct bpf_object *object;
  uint32_t capacity;
  uint32_t verified;
  int program_fd;
  int images_fd, hits_fd, ethersrc_fd, ipdst4_fd, ipdst6_fd, asked_fd;
};

struct nuv_kclfy {
  struct instance program;
  uint64_t asked_before[NUV_KCLFY_ASKED_REASONS]; /* by instances replaced since open */
  int image_fd; /* the generation in force, -1 before the first */
  uint32_t generation;
  uint32_t mark_mask, ask_mark;
  nuv_clfy_kernel_image *image;
  struct mirrored *tables;
  size_t table_count, table_capacity;
  uint32_t next_table_id;
  struct attachment attached[MAX_ATTACHMENTS];
  size_t attached_count;
  int cpus;
};

static int per_cpu_sum(struct nuv_kclfy *k, int fd, uint32_t key, uint64_t *sum);

static const char *const result_texts[] = {
    "done",
    "invalid argument",
    "the kernel or the privileges do not allow loading the program",
    "the kernel's verifier refused the program",
    "the rule set has no kernel form (too many rules, or nested too deep)",
    "out of memory",
    "writing the program's maps failed",
    "attaching to or detaching from an interface failed",
    "the kernel refused a test run",
};

const char *nuv_kclfy_strerror(int code) {
  if (code > 0 || -code >= (int)(sizeof result_texts / sizeof result_texts[0])) return "unknown result code";
  return result_texts[-code];
}

static int fail(char *why, size_t size, int code, const char *format, ...) {
  if (why && size) {
    va_list args;
    va_start(args, format);
    vsnprintf(why, size, format, args);
    va_end(args);
  }
  return code;
}

/* libbpf's own messages go nowhere: every failure is reported through the
 * result code and the why text. */
static int quiet(enum libbpf_print_level level, const char *format, va_list args) {
  (void)level;
  (void)format;
  (void)args;
  return 0;
}

static uint32_t processed_instructions(const char *log) {
  const char *at = strstr(log, "processed ");
  return at ? (uint32_t)strtoul(at + 10, NULL, 10) : 0;
}

/* The last lines of a verifier log, which say why it refused. */
static const char *log_tail(const char *log, size_t keep) {
  size_t length = strlen(log);
  return length > keep ? log + length - keep : log;
}

static int map_fd(struct bpf_object *object, const char *name) {
  struct bpf_map *map = bpf_object__find_map_by_name(object, name);
  return map ? bpf_map__fd(map) : -1;
}

static void free_instance(struct instance *p) {
  bpf_object__close(p->object);
  memset(p, 0, sizeof *p);
}

/* Loads the program with room for `capacity` slots per image. */
static int load_instance(struct instance *p, uint32_t capacity, char *why, size_t why_size) {
  memset(p, 0, sizeof *p);
  p->capacity = capacity;
  p->object = bpf_object__open_mem(nuvclfy_tc_object, nuvclfy_tc_object_size, NULL);
  if (!p->object) return fail(why, why_size, NUV_KCLFY_E_NO_BPF, "reading the program object: %s", strerror(errno));
  struct bpf_program *program = bpf_object__find_program_by_name(p->object, "nuvclfy_classify");
  struct bpf_map *images = bpf_object__find_map_by_name(p->object, "images");
  /* The pattern of the image maps: the kernel takes their size from it. */
  int pattern = bpf_map_create(BPF_MAP_TYPE_ARRAY, "nuvclfy_pattern", 4, NUV_KCLFY_SLOT_BYTES, capacity, NULL);
  if (pattern < 0) {
    int err = errno;
    free_instance(p);
    return fail(why, why_size, err == EPERM ? NUV_KCLFY_E_NO_BPF : NUV_KCLFY_E_MAPS, "creating a map: %s",
                strerror(err));
  }
  if (!program || !images || bpf_map__set_inner_map_fd(images, pattern) != 0) {
    close(pattern);
    free_instance(p);
    return fail(why, why_size, NUV_KCLFY_E_NO_BPF, "the program object is incomplete");
  }
  char *log = calloc(1, VERIFIER_LOG_SIZE);
  if (!log) {
    free_instance(p);
    return fail(why, why_size, NUV_KCLFY_E_NO_MEMORY, "out of memory");
  }
  bpf_program__set_log_buf(program, log, VERIFIER_LOG_SIZE);
  bpf_program__set_log_level(program, 4); /* statistics: the instructions processed */
  int err = bpf_object__load(p->object);
  close(pattern);
  if (err) {
    int code = (err == -EPERM || err == -EACCES || err == -ENOSYS || err == -EOPNOTSUPP) ? NUV_KCLFY_E_NO_BPF
               : log[0] ? NUV_KCLFY_E_REFUSED
                        : NUV_KCLFY_E_NO_BPF;
    fail(why, why_size, code, "loading the program: %s%s%s", strerror(-err), log[0] ? "; the verifier says: " : "",
         log_tail(log, 400));
    free(log);
    free_instance(p);
    return code;
  }
  p->verified = processed_instructions(log);
  free(log);
  p->program_fd = bpf_program__fd(program);
  p->images_fd = map_fd(p->object, "images");
  p->hits_fd = map_fd(p->object, "hits");
  p->ethersrc_fd = map_fd(p->object, "ethersrc");
  p->ipdst4_fd = map_fd(p->object, "ipdst4");
  p->ipdst6_fd = map_fd(p->object, "ipdst6");
  p->asked_fd = map_fd(p->object, "asked");
  if (p->asked_fd < 0 || p->program_fd < 0 || p->images_fd < 0 || p->hits_fd < 0 || p->ethersrc_fd < 0 ||
      p->ipdst4_fd < 0 || p->ipdst6_fd < 0) {
    free_instance(p);
    return fail(why, why_size, NUV_KCLFY_E_NO_BPF, "the program's maps are missing");
  }
  return NUV_KCLFY_OK;
}

int nuv_kclfy_open(const struct nuv_kclfy_options *options, struct nuv_kclfy **out, char *why, size_t why_size) {
  uint32_t ask = options && options->ask_mark ? options->ask_mark : NUV_KCLFY_DEFAULT_ASK_MARK;
  uint32_t mask = options && options->mark_mask ? options->mark_mask : ~ask;
  uint32_t slots = options && options->slots ? options->slots : NUV_KCLFY_DEFAULT_SLOTS;
  if (!out) return fail(why, why_size, NUV_KCLFY_E_INVALID, "no place for the classifier");
  if (mask & ask)
    return fail(why, why_size, NUV_KCLFY_E_INVALID, "the ask-userspace bits 0x%x overlap the mark mask 0x%x", ask, mask);
  if (slots > NUV_KCLFY_MAX_SLOTS)
    return fail(why, why_size, NUV_KCLFY_E_INVALID, "room for %u slots asked, at most %u", slots, NUV_KCLFY_MAX_SLOTS);
  libbpf_set_print(quiet);
  struct nuv_kclfy *k = calloc(1, sizeof *k);
  if (!k) return fail(why, why_size, NUV_KCLFY_E_NO_MEMORY, "out of memory");
  k->image_fd = -1;
  k->mark_mask = mask;
  k->ask_mark = ask;
  k->next_table_id = 1;
  k->cpus = libbpf_num_possible_cpus();
  if (k->cpus <= 0) {
    free(k);
    return fail(why, why_size, NUV_KCLFY_E_NO_BPF, "the number of processors is unknown");
  }
  int rc = load_instance(&k->program, slots, why, why_size);
  if (rc != NUV_KCLFY_OK) {
    free(k);
    return rc;
  }
  *out = k;
  return NUV_KCLFY_OK;
}

/* ---- Tables ---- */

static struct mirrored *mirrored_of(struct nuv_kclfy *k, const void *table) {
  for (size_t i = 0; i < k->table_count; ++i)
    if (k->tables[i].table == table) return &k->tables[i];
  return NULL;
}

/* Table ids stay the same from one generation to the next, so the table
 * maps need no copy per generation. */
static uint32_t table_id(void *context, uint32_t kind, const void *table) {
  struct nuv_kclfy *k = context;
  struct mirrored *m = mirrored_of(k, table);
  if (m) return m->id;
  if (k->table_count == k->table_capacity) {
    size_t capacity = k->table_capacity ? 2 * k->table_capacity : 8;
    struct mirrored *grown = realloc(k->tables, capacity * sizeof *grown);
    if (!grown) return 0;
    k->tables = grown;
    k->table_capacity = capacity;
  }
  m = &k->tables[k->table_count++];
  memset(m, 0, sizeof *m);
  m->id = k->next_table_id++;
  m->kind = kind;
  m->table = table;
  return m->id;
}

struct ethersrc_key {
  uint32_t table;
  uint8_t mac[6];
  uint8_t pad[2];
};

struct ipdst4_key {
  uint32_t prefixlen;
  uint32_t table;
  uint8_t addr[4];
};

struct ipdst6_key {
  uint32_t prefixlen;
  uint32_t table;
  uint8_t addr[16];
};

/* In the list of a table's keys, IPv4 and IPv6 keys share one size; this
 * bit of the prefix length tells an IPv6 key. */
#define IPV6_KEY 0x80000000u

/* The keys a table should have in the kernel, into keys (room for
 * count entries of key_size).  Returns how many, or -1 for an entry the
 * kernel cannot hold. */
static long wanted_keys(const struct mirrored *m, uint8_t *keys, size_t room, char *why, size_t why_size) {
  long n = 0;
  if (m->kind == NUV_KCLFY_TABLE_ETHERSRC) {
    const ethersrctab *t = m->table;
    for (uint32_t i = 0; i < t->count && (size_t)n < room; ++i) {
      struct ethersrc_key key = {.table = m->id};
      memcpy(key.mac, t->entries + 6u * i, 6);
      memcpy(keys + (size_t)n++ * sizeof key, &key, sizeof key);
    }
    return n;
  }
  const ipdsttab *t = m->table;
  for (uint32_t i = 0; i < t->capacity && (size_t)n < room; ++i) {
    const ipdsttab_entry *e = &t->entries[i];
    struct ipdst6_key key = {.table = htonl(m->id)};
    if (e->family == 4) {
      uint32_t addr = ntohl(e->addr.v4.addr), mask = ntohl(e->addr.v4.mask), host = ~mask;
      if (host & (host + 1u)) {
        fail(why, why_size, NUV_KCLFY_E_MAPS, "table \"%s\": a mask that is not a prefix", t->name);
        return -1;
      }
      if (addr & host) continue; /* covers no address */
      key.prefixlen = 32 + (uint32_t)__builtin_popcount(mask);
      /* An IPv4 key is written without the last 12 bytes. */
      memcpy(key.addr, &e->addr.v4.addr, 4);
    } else if (e->family == 6) {
      key.prefixlen = 32 + (e->prefixlen > 128 ? 128u : e->prefixlen);
      memcpy(key.addr, e->addr.v6, 16);
      key.prefixlen |= IPV6_KEY; /* cleared when written */
    } else {
      continue;
    }
    memcpy(keys + (size_t)n++ * sizeof key, &key, sizeof key);
  }
  return n;
}

static size_t key_size(uint32_t kind) {
  return kind == NUV_KCLFY_TABLE_ETHERSRC ? sizeof(struct ethersrc_key) : sizeof(struct ipdst6_key);
}

static int contains(const uint8_t *keys, size_t count, size_t size, const uint8_t *key) {
  for (size_t i = 0; i < count; ++i)
    if (memcmp(keys + i * size, key, size) == 0) return 1;
  return 0;
}

/* Writes or deletes one key of a table in its map. */
static int write_key(const struct instance *p, uint32_t kind, const uint8_t *key, int add) {
  uint8_t one = 1;
  if (kind == NUV_KCLFY_TABLE_ETHERSRC)
    return add ? bpf_map_update_elem(p->ethersrc_fd, key, &one, BPF_ANY) : bpf_map_delete_elem(p->ethersrc_fd, key);
  struct ipdst6_key wide;
  memcpy(&wide, key, sizeof wide);
  if (wide.prefixlen & IPV6_KEY) {
    wide.prefixlen &= ~IPV6_KEY;
    return add ? bpf_map_update_elem(p->ipdst6_fd, &wide, &one, BPF_ANY) : bpf_map_delete_elem(p->ipdst6_fd, &wide);
  }
  struct ipdst4_key narrow = {.prefixlen = wide.prefixlen, .table = wide.table};
  memcpy(narrow.addr, wide.addr, 4);
  return add ? bpf_map_update_elem(p->ipdst4_fd, &narrow, &one, BPF_ANY) : bpf_map_delete_elem(p->ipdst4_fd, &narrow);
}

static int sync_table(const struct instance *p, struct mirrored *m, char *why, size_t why_size) {
  size_t size = key_size(m->kind);
  size_t room = m->kind == NUV_KCLFY_TABLE_ETHERSRC ? ((const ethersrctab *)m->table)->count
                                                    : ((const ipdsttab *)m->table)->capacity;
  uint8_t *keys = calloc(room ? room : 1, size);
  if (!keys) return fail(why, why_size, NUV_KCLFY_E_NO_MEMORY, "out of memory");
  long n = wanted_keys(m, keys, room, why, why_size);
  if (n < 0) {
    free(keys);
    return NUV_KCLFY_E_MAPS;
  }
  for (size_t i = 0; i < m->count; ++i) {
    const uint8_t *key = m->entries + i * size;
    if (!contains(keys, (size_t)n, size, key) && write_key(p, m->kind, key, 0) != 0 && errno != ENOENT) {
      free(keys);
      return fail(why, why_size, NUV_KCLFY_E_MAPS, "removing a table entry: %s", strerror(errno));
    }
  }
  for (long i = 0; i < n; ++i) {
    const uint8_t *key = keys + (size_t)i * size;
    if (!contains(m->entries, m->count, size, key) && write_key(p, m->kind, key, 1) != 0) {
      int err = errno;
      /* What was written stays recorded, so that a later call removes it. */
      free(m->entries);
      m->entries = keys;
      m->count = (size_t)i;
      return fail(why, why_size, NUV_KCLFY_E_MAPS, "adding a table entry: %s", strerror(err));
    }
  }
  free(m->entries);
  m->entries = keys;
  m->count = (size_t)n;
  m->capacity = room;
  return NUV_KCLFY_OK;
}

int nuv_kclfy_sync_tables(struct nuv_kclfy *k, char *why, size_t why_size) {
  if (!k) return fail(why, why_size, NUV_KCLFY_E_INVALID, "no classifier");
  for (size_t i = 0; i < k->table_count; ++i) {
    int rc = sync_table(&k->program, &k->tables[i], why, why_size);
    if (rc != NUV_KCLFY_OK) return rc;
  }
  return NUV_KCLFY_OK;
}

/* ---- Generations ---- */

static int zero_hits(const struct nuv_kclfy *k, const struct instance *p, uint32_t base, uint32_t count) {
  uint64_t *zeros = calloc((size_t)k->cpus, sizeof *zeros);
  if (!zeros) return -1;
  for (uint32_t i = 0; i < count; ++i) {
    uint32_t index = base + i;
    if (bpf_map_update_elem(p->hits_fd, &index, zeros, BPF_ANY) != 0) {
      free(zeros);
      return -1;
    }
  }
  free(zeros);
  return 0;
}

static int write_slots(int fd, const uint8_t *slots, uint32_t count) {
  uint32_t *keys = malloc((size_t)count * sizeof *keys);
  if (!keys) return -1;
  for (uint32_t i = 0; i < count; ++i) keys[i] = i;
  uint32_t done = 0;
  int rc = 0;
  while (done < count && rc == 0) {
    uint32_t batch = count - done;
    rc = bpf_map_update_batch(fd, keys + done, slots + (size_t)done * NUV_KCLFY_SLOT_BYTES, &batch, NULL);
    done += batch;
  }
  if (rc != 0 && errno == EINVAL) {
    /* Kernels without batch updates of arrays: one slot at a time. */
    rc = 0;
    for (uint32_t i = done; i < count && rc == 0; ++i)
      rc = bpf_map_update_elem(fd, &keys[i], slots + (size_t)i * NUV_KCLFY_SLOT_BYTES, BPF_ANY);
  }
  free(keys);
  return rc;
}

/* Mirrors every table into the maps of a new instance, from empty.  The
 * records of what the old instance holds are kept until `commit`. */
struct saved_shadows {
  uint8_t **entries;
  size_t *counts;
};

static int mirror_into_new(struct nuv_kclfy *k, const struct instance *p, struct saved_shadows *saved, char *why,
                           size_t why_size) {
  saved->entries = calloc(k->table_count + 1, sizeof *saved->entries);
  saved->counts = calloc(k->table_count + 1, sizeof *saved->counts);
  if (!saved->entries || !saved->counts) return fail(why, why_size, NUV_KCLFY_E_NO_MEMORY, "out of memory");
  for (size_t i = 0; i < k->table_count; ++i) {
    saved->entries[i] = k->tables[i].entries;
    saved->counts[i] = k->tables[i].count;
    k->tables[i].entries = NULL;
    k->tables[i].count = 0;
  }
  for (size_t i = 0; i < k->table_count; ++i) {
    int rc = sync_table(p, &k->tables[i], why, why_size);
    if (rc != NUV_KCLFY_OK) return rc;
  }
  return NUV_KCLFY_OK;
}

/* Keeps the new records (commit) or goes back to the old ones. */
static void end_mirroring(struct nuv_kclfy *k, struct saved_shadows *saved, int commit) {
  for (size_t i = 0; saved->entries && saved->counts && i < k->table_count; ++i) {
    uint8_t **drop = commit ? &saved->entries[i] : &k->tables[i].entries;
    free(*drop);
    if (!commit) {
      k->tables[i].entries = saved->entries[i];
      k->tables[i].count = saved->counts[i];
    }
  }
  free(saved->entries);
  free(saved->counts);
}

/* The traffic-control hook of an interface's side. */
static struct bpf_tc_hook hook_of(int ifindex, int egress) {
  struct bpf_tc_hook hook;
  memset(&hook, 0, sizeof hook);
  hook.sz = sizeof hook;
  hook.ifindex = ifindex;
  hook.attach_point = egress ? BPF_TC_EGRESS : BPF_TC_INGRESS;
  return hook;
}

/* Puts program `program_fd` in place of the one attached at `a`, in one
 * step.  Returns 0 or a negative errno. */
static int replace_program(const struct attachment *a, int program_fd) {
  struct bpf_tc_hook hook = hook_of(a->ifindex, a->egress);
  LIBBPF_OPTS(bpf_tc_opts, opts, .prog_fd = program_fd, .handle = 1, .priority = 1, .flags = BPF_TC_F_REPLACE);
  return bpf_tc_attach(&hook, &opts);
}

/* Puts instance `p`'s program in place of the current one on every
 * interface; on a failure the interfaces done are put back. */
static int move_attachments(struct nuv_kclfy *k, const struct instance *p, char *why, size_t why_size) {
  for (size_t i = 0; i < k->attached_count; ++i) {
    int err = replace_program(&k->attached[i], p->program_fd);
    if (err) {
      for (size_t j = 0; j < i; ++j) replace_program(&k->attached[j], k->program.program_fd);
      return fail(why, why_size, NUV_KCLFY_E_ATTACH, "moving interface %d to the larger program: %s",
                  k->attached[i].ifindex, strerror(-err));
    }
  }
  return NUV_KCLFY_OK;
}

/* The room a set of `slots` slots needs: the capacity doubled until it fits. */
static uint32_t room_for(uint32_t capacity, uint32_t slots) {
  while (capacity < slots && capacity < NUV_KCLFY_MAX_SLOTS) capacity *= 2;
  return capacity;
}

/* Writes `image` into a new image map of instance `p`: the slots, cleared
 * hit counters and the tables.  Returns the map, or -1 with `why`. */
static int write_generation(struct nuv_kclfy *k, const struct instance *p, const nuv_clfy_kernel_image *image,
                            uint32_t hits_base, int fresh_tables, struct saved_shadows *saved, char *why,
                            size_t why_size) {
  int fd = bpf_map_create(BPF_MAP_TYPE_ARRAY, "nuvclfy_image", 4, NUV_KCLFY_SLOT_BYTES, p->capacity, NULL);
  if (fd < 0) {
    fail(why, why_size, NUV_KCLFY_E_MAPS, "creating the image map: %s", strerror(errno));
    return -1;
  }
  int rc = NUV_KCLFY_OK;
  if (write_slots(fd, image->slots, image->slot_count) != 0)
    rc = fail(why, why_size, NUV_KCLFY_E_MAPS, "writing the image: %s", strerror(errno));
  else if (zero_hits(k, p, hits_base, image->rule_count) != 0)
    rc = fail(why, why_size, NUV_KCLFY_E_MAPS, "clearing the hit counters: %s", strerror(errno));
  else if (fresh_tables)
    rc = mirror_into_new(k, p, saved, why, why_size);
  else
    rc = nuv_kclfy_sync_tables(k, why, why_size);
  uint32_t zero = 0;
  if (rc == NUV_KCLFY_OK && bpf_map_update_elem(p->images_fd, &zero, &fd, BPF_ANY) != 0)
    rc = fail(why, why_size, NUV_KCLFY_E_MAPS, "switching to the new set: %s", strerror(errno));
  if (rc != NUV_KCLFY_OK) {
    close(fd);
    return -1;
  }
  return fd;
}

int nuv_kclfy_load_set(struct nuv_kclfy *k, const struct nuv_clfy_compiled *compiled, char *why, size_t why_size) {
  nuv_clfy_kernel_image *image = NULL;
  if (!k || !compiled) return fail(why, why_size, NUV_KCLFY_E_INVALID, "no classifier or no compiled set");
  int rc = nuv_clfy_compiled_kernel_image(compiled, table_id, k, &image);
  if (rc == NUV_CLFY_KERNEL_E_TOO_BIG)
    return fail(why, why_size, NUV_KCLFY_E_TOO_BIG, "the set has more than %u rules or lists nested deeper than %u",
                NUV_KCLFY_MAX_RULES, NUV_KCLFY_MAX_NESTING);
  if (rc != NUV_CLFY_KERNEL_OK) return fail(why, why_size, NUV_KCLFY_E_NO_MEMORY, "out of memory");
  struct nuv_kclfy_settings settings = {0};
  settings.hits_base = (k->generation & 1u) ? 0 : NUV_KCLFY_MAX_RULES;
  settings.mark_mask = k->mark_mask;
  settings.ask_mark = k->ask_mark;
  memcpy(image->slots + NUV_KCLFY_SLOT_BYTES, &settings, sizeof settings);

  /* A set larger than the program's room moves the classifier to a new
   * program with room for it; each interface switches in one step. */
  struct instance grown;
  struct saved_shadows saved = {NULL, NULL};
  const int growing = image->slot_count > k->program.capacity;
  if (growing) {
    rc = load_instance(&grown, room_for(k->program.capacity, image->slot_count), why, why_size);
    if (rc != NUV_KCLFY_OK) {
      nuv_clfy_kernel_image_free(image);
      return rc;
    }
  }
  const struct instance *target = growing ? &grown : &k->program;
  int fd = write_generation(k, target, image, settings.hits_base, growing, &saved, why, why_size);
  rc = fd < 0 ? NUV_KCLFY_E_MAPS : growing ? move_attachments(k, &grown, why, why_size) : NUV_KCLFY_OK;
  if (growing) end_mirroring(k, &saved, rc == NUV_KCLFY_OK);
  if (rc != NUV_KCLFY_OK) {
    if (fd >= 0) close(fd);
    if (growing) free_instance(&grown);
    nuv_clfy_kernel_image_free(image);
    return rc;
  }
  if (growing) {
    uint64_t counts[NUV_KCLFY_ASKED_REASONS];
    if (nuv_kclfy_asked(k, counts) == NUV_KCLFY_OK) memcpy(k->asked_before, counts, sizeof counts);
    free_instance(&k->program);
    k->program = grown;
  }
  if (k->image_fd >= 0) close(k->image_fd);
  nuv_clfy_kernel_image_free(k->image);
  k->image_fd = fd;
  k->image = image;
  k->generation++;
  return NUV_KCLFY_OK;
}

uint32_t nuv_kclfy_rule_count(const struct nuv_kclfy *k) { return k && k->image ? k->image->rule_count : 0; }

struct nuv_clfy *nuv_kclfy_rule(const struct nuv_kclfy *k, uint32_t index) {
  return k && k->image && index < k->image->rule_count ? k->image->rules[index] : NULL;
}

int nuv_kclfy_rule_hits(struct nuv_kclfy *k, uint32_t index, uint64_t *hits) {
  if (!k || !hits || !k->image || index >= k->image->rule_count) return NUV_KCLFY_E_INVALID;
  /* The generation in force counts from the base its load chose. */
  uint32_t key = ((k->generation - 1u) & 1u ? 0 : NUV_KCLFY_MAX_RULES) + index;
  return per_cpu_sum(k, k->program.hits_fd, key, hits);
}

/* The sum over CPUs of a per-CPU counter. */
static int per_cpu_sum(struct nuv_kclfy *k, int fd, uint32_t key, uint64_t *sum) {
  uint64_t *values = calloc((size_t)k->cpus, sizeof *values);
  if (!values) return NUV_KCLFY_E_NO_MEMORY;
  int rc = bpf_map_lookup_elem(fd, &key, values);
  *sum = 0;
  for (int c = 0; c < k->cpus; ++c) *sum += values[c];
  free(values);
  return rc == 0 ? NUV_KCLFY_OK : NUV_KCLFY_E_MAPS;
}

int nuv_kclfy_asked(struct nuv_kclfy *k, uint64_t counts[NUV_KCLFY_ASKED_REASONS]) {
  if (!k || !counts) return NUV_KCLFY_E_INVALID;
  for (uint32_t r = 0; r < NUV_KCLFY_ASKED_REASONS; ++r) {
    int rc = per_cpu_sum(k, k->program.asked_fd, r, &counts[r]);
    if (rc != NUV_KCLFY_OK) return rc;
    counts[r] += k->asked_before[r];
  }
  return NUV_KCLFY_OK;
}

/* ---- Test runs ---- */

int nuv_kclfy_test_run(struct nuv_kclfy *k, const void *frame, uint32_t length, struct nuv_kclfy_run *run) {
  if (!k || !frame || !run) return NUV_KCLFY_E_INVALID;
  struct __sk_buff ctx;
  memset(&ctx, 0, sizeof ctx);
  ctx.mark = run->mark_in;
  ctx.ifindex = run->ifindex;
  struct __sk_buff ctx_out;
  memset(&ctx_out, 0, sizeof ctx_out);
  LIBBPF_OPTS(bpf_test_run_opts, opts, .data_in = frame, .data_size_in = length, .ctx_in = &ctx,
              .ctx_size_in = sizeof ctx, .ctx_out = &ctx_out, .ctx_size_out = sizeof ctx_out, .repeat = 1);
  if (bpf_prog_test_run_opts(k->program.program_fd, &opts) != 0) return NUV_KCLFY_E_TEST_RUN;
  run->mark_out = ctx_out.mark;
  if ((ctx_out.mark & k->ask_mark) && !(run->mark_in & k->ask_mark))
    run->verdict = NUV_KCLFY_ASK;
  else
    run->verdict = ctx_out.mark != run->mark_in ? NUV_KCLFY_RULE : NUV_KCLFY_NO_RULE;
  return NUV_KCLFY_OK;
}

/* ---- Attachment ---- */

int nuv_kclfy_attach(struct nuv_kclfy *k, int ifindex, int egress, char *why, size_t why_size) {
  if (!k || ifindex <= 0) return fail(why, why_size, NUV_KCLFY_E_INVALID, "no classifier or no interface");
  if (k->attached_count == MAX_ATTACHMENTS)
    return fail(why, why_size, NUV_KCLFY_E_ATTACH, "attached to %d interfaces already", MAX_ATTACHMENTS);
  struct bpf_tc_hook hook = hook_of(ifindex, egress);
  int added = 0;
  int err = bpf_tc_hook_create(&hook);
  if (err == 0) added = 1;
  else if (err != -EEXIST) return fail(why, why_size, NUV_KCLFY_E_ATTACH, "adding clsact: %s", strerror(-err));
  LIBBPF_OPTS(bpf_tc_opts, opts, .prog_fd = k->program.program_fd, .handle = 1, .priority = 1);
  err = bpf_tc_attach(&hook, &opts);
  if (err) {
    if (added) bpf_tc_hook_destroy(&hook);
    return fail(why, why_size, NUV_KCLFY_E_ATTACH, "attaching: %s", strerror(-err));
  }
  struct attachment *a = &k->attached[k->attached_count++];
  a->ifindex = ifindex;
  a->egress = egress;
  a->added_hook = added;
  return NUV_KCLFY_OK;
}

int nuv_kclfy_detach_all(struct nuv_kclfy *k) {
  if (!k) return NUV_KCLFY_E_INVALID;
  int rc = NUV_KCLFY_OK;
  while (k->attached_count > 0) {
    struct attachment *a = &k->attached[--k->attached_count];
    struct bpf_tc_hook hook = hook_of(a->ifindex, a->egress);
    LIBBPF_OPTS(bpf_tc_opts, opts, .handle = 1, .priority = 1);
    int err = bpf_tc_detach(&hook, &opts);
    if (err && err != -ENOENT && err != -ENODEV && rc == NUV_KCLFY_OK) rc = NUV_KCLFY_E_ATTACH;
    if (a->added_hook) {
      hook.attach_point = BPF_TC_INGRESS | BPF_TC_EGRESS;
      bpf_tc_hook_destroy(&hook);
    }
  }
  return rc;
}

int nuv_kclfy_program_fd(const struct nuv_kclfy *k) { return k ? k->program.program_fd : -1; }

uint32_t nuv_kclfy_verified_instructions(const struct nuv_kclfy *k) { return k ? k->program.verified : 0; }

void nuv_kclfy_close(struct nuv_kclfy *k) {
  if (!k) return;
  nuv_kclfy_detach_all(k);
  if (k->image_fd >= 0) close(k->image_fd);
  nuv_clfy_kernel_image_free(k->image);
  for (size_t i = 0; i < k->table_count; ++i) free(k->tables[i].entries);
  free(k->tables);
  free_instance(&k->program);
  free(k);
}
