/* nikerkiog-classd: classifies the packets of a kernel queue with the
 * rules of a file and answers each with a mark.  With --tc it also loads
 * the rule set into the classifier in the kernel's data path, at the
 * ingress of the given interfaces; the queue then gets only the packets
 * that program asks the daemon about.
 *
 *   nikerkiog-classd --queue N --rules FILE [options]   (see --help and
 *   the manual page nikerkiog-classd(8))
 *
 * SIGHUP reloads the rule file (the set in use stays when the new one has
 * an error, in the kernel too), SIGUSR1 writes the statistics file, SIGTERM
 * and SIGINT detach from the interfaces and stop after answering the
 * packets in hand. */
#define _GNU_SOURCE
#include <errno.h>
#include <stddef.h>
#include <getopt.h>
#include <inttypes.h>
#include <poll.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/signalfd.h>
#include <sys/timerfd.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <nikerkiog.h>
#include <nuvkclfy.h>
#include "classd_hooks.h"
#include "classd_kernel.h"
#include "classd_queue.h"
#include "classd_rules.h"
#include "classd_stats.h"

#ifndef CLASSD_VERSION
#define CLASSD_VERSION "unknown" /* the build gives the project's version */
#endif

/* Exit statuses. */
enum {
  EXIT_STOPPED = 0, /* stopped by SIGTERM/SIGINT, or a self-test passed */
  EXIT_FAILED = 1,  /* the queue failed while running, or a self-test failed */
  EXIT_REFUSED = 2  /* did not start: bad options, rule file errors, queue not bound, and with
                       --tc-required the classifier not loaded into the kernel */
};

/* In the test build: when set to N > 0, every reload's Nth allocation of
 * the classifier fails, as when memory runs out mid-reload. */
#define CLASSD_FAIL_ALLOCATION_ENV "NIKERKIOG_CLASSD_FAIL_ALLOCATION"

/* Packets answered per turn of the loop, between signal checks. */
#define CLASSD_BATCH 64
/* Turns of answering waiting packets between a stop signal and unbinding. */
#define CLASSD_STOP_TURNS 16
/* Default seconds between two statistics writes. */
#define CLASSD_STATS_INTERVAL 10

struct options {
  long queue;
  const char *rules_path;
  const char *stats_path;
  long stats_interval;
  long queue_maxlen;
  long socket_buffer;
  uint32_t mark_mask;
  uint32_t ask_mark; /* with --tc: the "ask userspace" bit(s); 0 without */
  const char *tc_interfaces;
  int mark_mask_given;
  int ask_mark_given;
  int tc_required;
  int optimise;
  int per_connection;
  int fail_open;
  int null_mode;
  int use_syslog;
  long selftest_reloads;
};

struct daemon {
  struct options options;
  struct classd_devnames devs;
  struct classd_classes classes;
  struct classd_ruleset *rules;
  struct classd_queue *queue;
  struct classd_kernel_config kernel_config;
  struct classd_kernel *kernel; /* null in queue mode */
  int in_kernel;                /* the program was attached (it stays 1 once detached at the end) */
  char kernel_refused[768];     /* why --tc fell back to queue mode; empty otherwise */
  uint64_t generation, reloads, reload_failures, unchanged;
  uint64_t asked, table_syncs, sync_failures;
  uint64_t kernel_asked[NUV_KCLFY_ASKED_REASONS]; /* as last read from the kernel */
  int tables_changed; /* DHCP learning may have changed a table since the last mirroring */
  int sync_failing;   /* the last mirroring failed (and was logged) */
  time_t loaded_at, last_reload_at;
  long fail_allocation;
  int stop;
};

static int use_syslog;

static void say(int priority, const char *format, ...) {
  va_list args;
  va_start(args, format);
  if (use_syslog) {
    vsyslog(priority, format, args);
  } else {
    fputs("nikerkiog-classd: ", stderr);
    vfprintf(stderr, format, args);
    fputc('\n', stderr);
  }
  va_end(args);
}

/* Says each line of `text` on its own. */
static void say_lines(int priority, const char *text) {
  const char *end;
  for (; (end = strchr(text, '\n')) != NULL; text = end + 1) say(priority, "%.*s", (int)(end - text), text);
  say(priority, "%s", text);
}

static void usage(FILE *out) {
  fputs("usage: nikerkiog-classd --queue N --rules FILE [options]\n"
        "  --queue N              queue number of the firewall rule (--queue-num N)\n"
        "  --rules FILE           rule file: one rule per line, \"=> N\" at the end gives the mark\n"
        "  --dev NAME=INDEX       interface index for NAME in dev/brdev conditions (repeatable);\n"
        "                         other names are looked up among the interfaces\n"
        "  --optimise             restructure the rule set into a tree (same verdicts)\n"
        "  --mark-mask M          the mark bits the daemon sets (default 0xffffffff, with --tc all\n"
        "                         but the ask bit); the others keep the packet's value:\n"
        "                         mark = (old & ~M) | (result & M)\n"
        "  --tc IFACE[,IFACE...]  classify in the kernel at the ingress of these interfaces; the\n"
        "                         queue gets the packets that need the daemon (mark bit --ask-mark)\n"
        "  --ask-mark BIT         the mark bit of packets the kernel asks the daemon about\n"
        "                         (default 0x80000000); outside --mark-mask\n"
        "  --tc-required          exit when the classifier cannot be loaded into the kernel,\n"
        "                         instead of classifying every queued packet here\n"
        "  --per-connection       the firewall queues a connection's first packets only and\n"
        "                         keeps their mark for the rest; warns about per-packet conditions\n"
        "  --fail-open            let packets pass when the queue is full\n"
        "  --queue-maxlen N       packets the kernel holds for the daemon at most\n"
        "  --socket-buffer BYTES  receive buffer of the queue socket (default 8 MiB)\n"
        "  --stats FILE           write statistics as JSON to FILE on SIGUSR1 and every interval\n"
        "  --stats-interval SECS  seconds between statistics writes (default 10; 0: only on SIGUSR1)\n"
        "  --null                 accept every packet unchanged without classifying (reference)\n"
        "  --syslog               log to syslog instead of standard error\n"
        "  --version              print the version and exit\n"
        "  --help                 print this help and exit\n"
        "signals: SIGHUP reloads the rules, SIGUSR1 writes statistics, SIGTERM/SIGINT stop\n",
        out);
}

enum {
  OPT_DEV = 256, OPT_MARK_MASK, OPT_PER_CONNECTION, OPT_STATS_INTERVAL, OPT_QUEUE_MAXLEN, OPT_SOCKET_BUFFER,
  OPT_NULL, OPT_SYSLOG, OPT_SELFTEST, OPT_HELP, OPT_VERSION, OPT_TC, OPT_ASK_MARK, OPT_TC_REQUIRED
};

static const struct option kOptions[] = {
    {"queue", required_argument, NULL, 'q'},
    {"rules", required_argument, NULL, 'r'},
    {"dev", required_argument, NULL, OPT_DEV},
    {"optimise", no_argument, NULL, 'O'},
    {"fail-open", no_argument, NULL, 'f'},
    {"mark-mask", required_argument, NULL, OPT_MARK_MASK},
    {"tc", required_argument, NULL, OPT_TC},
    {"ask-mark", required_argument, NULL, OPT_ASK_MARK},
    {"tc-required", no_argument, NULL, OPT_TC_REQUIRED},
    {"per-connection", no_argument, NULL, OPT_PER_CONNECTION},
    {"stats", required_argument, NULL, 's'},
    {"stats-interval", required_argument, NULL, OPT_STATS_INTERVAL},
    {"queue-maxlen", required_argument, NULL, OPT_QUEUE_MAXLEN},
    {"socket-buffer", required_argument, NULL, OPT_SOCKET_BUFFER},
    {"null", no_argument, NULL, OPT_NULL},
    {"syslog", no_argument, NULL, OPT_SYSLOG},
    {"help", no_argument, NULL, OPT_HELP},
    {"version", no_argument, NULL, OPT_VERSION},
    /* Test build only, not shown by --help: reload N times without binding
     * a queue and compare the classifier's live allocations before and after. */
    {"selftest-reloads", required_argument, NULL, OPT_SELFTEST},
    {NULL, 0, NULL, 0}};

/* Options taking a number: its range, where it goes, what to say when the
 * value is outside the range. */
struct number_option {
  int code;
  long low, high;
  size_t offset;
  const char *complaint;
};

static const struct number_option kNumberOptions[] = {
    {'q', 0, 65535, offsetof(struct options, queue), "--queue: a number 0..65535"},
    {OPT_STATS_INTERVAL, 0, 86400, offsetof(struct options, stats_interval), "--stats-interval: seconds 0..86400"},
    {OPT_QUEUE_MAXLEN, 1, 1 << 24, offsetof(struct options, queue_maxlen), "--queue-maxlen: a number 1..16777216"},
    {OPT_SOCKET_BUFFER, 4096, 1 << 30, offsetof(struct options, socket_buffer),
     "--socket-buffer: bytes 4096..1073741824"},
    {OPT_SELFTEST, 1, 1000000, offsetof(struct options, selftest_reloads), "--selftest-reloads: a number 1..1000000"}};

/* Options that switch something on, and options naming a file. */
struct plain_option {
  int code;
  size_t offset;
};

static const struct plain_option kFlagOptions[] = {{'O', offsetof(struct options, optimise)},
                                                   {'f', offsetof(struct options, fail_open)},
                                                   {OPT_PER_CONNECTION, offsetof(struct options, per_connection)},
                                                   {OPT_NULL, offsetof(struct options, null_mode)},
                                                   {OPT_SYSLOG, offsetof(struct options, use_syslog)},
                                                   {OPT_TC_REQUIRED, offsetof(struct options, tc_required)}};

static const struct plain_option kFileOptions[] = {{'r', offsetof(struct options, rules_path)},
                                                   {'s', offsetof(struct options, stats_path)},
                                                   {OPT_TC, offsetof(struct options, tc_interfaces)}};

#define COUNT_OF(table) (sizeof(table) / sizeof((table)[0]))

static int take_number(const struct number_option *option, const char *text, struct options *o) {
  char *end;
  long value;
  errno = 0;
  value = strtol(text, &end, 10);
  if (text[0] == '\0' || *end != '\0' || errno != 0 || value < option->low || value > option->high) {
    say(LOG_ERR, "%s", option->complaint);
    return -1;
  }
  memcpy((char *)o + option->offset, &value, sizeof value);
  return 0;
}

/* Options taking mark bits: where the bits go, whether they were given,
 * what to say when the value is no nonzero 32-bit number. */
static const struct mark_option {
  int code;
  size_t offset, given_offset;
  const char *complaint;
} kMarkOptions[] = {
    {OPT_MARK_MASK, offsetof(struct options, mark_mask), offsetof(struct options, mark_mask_given),
     "--mark-mask: a nonzero 32-bit number such as 0xff00"},
    {OPT_ASK_MARK, offsetof(struct options, ask_mark), offsetof(struct options, ask_mark_given),
     "--ask-mark: a nonzero 32-bit number such as 0x80000000"}};

/* Mark bits: a nonzero 32-bit number, decimal or hexadecimal with "0x". */
static int take_mark(const struct mark_option *option, const char *text, struct options *o) {
  char *end;
  unsigned long long value;
  uint32_t bits;
  const int given = 1;
  errno = 0;
  value = strtoull(text, &end, 0);
  if (text[0] < '0' || text[0] > '9' || *end != '\0' || errno != 0 || value == 0 || value > UINT32_MAX) {
    say(LOG_ERR, "%s", option->complaint);
    return -1;
  }
  bits = (uint32_t)value;
  memcpy((char *)o + option->offset, &bits, sizeof bits);
  memcpy((char *)o + option->given_offset, &given, sizeof given);
  return 0;
}

/* Reads one option; 0, 1 for --help and --version, or -1 (after saying why). */
static int take_option(struct daemon *d, int c, const char *arg) {
  struct options *o = &d->options;
  size_t i;
  for (i = 0; i < COUNT_OF(kNumberOptions); ++i)
    if (kNumberOptions[i].code == c) return take_number(&kNumberOptions[i], arg, o);
  for (i = 0; i < COUNT_OF(kFlagOptions); ++i) {
    if (kFlagOptions[i].code == c) {
      const int on = 1;
      memcpy((char *)o + kFlagOptions[i].offset, &on, sizeof on);
      return 0;
    }
  }
  for (i = 0; i < COUNT_OF(kFileOptions); ++i) {
    if (kFileOptions[i].code == c) {
      memcpy((char *)o + kFileOptions[i].offset, &arg, sizeof arg);
      return 0;
    }
  }
  for (i = 0; i < COUNT_OF(kMarkOptions); ++i)
    if (kMarkOptions[i].code == c) return take_mark(&kMarkOptions[i], arg, o);
  if (c == OPT_DEV && classd_devnames_add(&d->devs, arg) == 0) return 0;
  if (c == OPT_DEV) say(LOG_ERR, "--dev %s: give NAME=INDEX", arg);
  if (c == OPT_VERSION) {
    puts("nikerkiog-classd " CLASSD_VERSION);
    return 1;
  }
  if (c == OPT_HELP) usage(stdout);
  else if (c != OPT_DEV) usage(stderr);
  return c == OPT_HELP ? 1 : -1;
}

/* With --tc: the ask bit defaults to NUV_KCLFY_DEFAULT_ASK_MARK, and the
 * mark mask to every other bit; the two must not overlap, since a verdict
 * that set the ask bit would send the packet to the queue again.  The
 * interfaces must exist.  The options that only make sense with --tc are
 * refused without it.  0, or -1 after saying why. */
static int check_kernel_options(struct daemon *d) {
  struct options *o = &d->options;
  char why[256];
  if (!o->tc_interfaces) {
    if (!o->ask_mark_given && !o->tc_required) return 0;
    say(LOG_ERR, "%s: only with --tc", o->tc_required ? "--tc-required" : "--ask-mark");
    return -1;
  }
  if (o->null_mode) {
    say(LOG_ERR, "--null: not with --tc");
    return -1;
  }
  if (!o->ask_mark_given) o->ask_mark = NUV_KCLFY_DEFAULT_ASK_MARK;
  if (!o->mark_mask_given) o->mark_mask = ~o->ask_mark;
  if (o->mark_mask & o->ask_mark) {
    say(LOG_ERR, "--ask-mark 0x%" PRIx32 " overlaps --mark-mask 0x%" PRIx32 ": a verdict must never set the ask bit",
        o->ask_mark, o->mark_mask);
    return -1;
  }
  if (classd_kernel_interfaces(o->tc_interfaces, &d->kernel_config, why, sizeof why) != 0) {
    say(LOG_ERR, "%s", why);
    return -1;
  }
  d->kernel_config.mark_mask = o->mark_mask;
  d->kernel_config.ask_mark = o->ask_mark;
  return 0;
}

/* 0 to go on, 1 to stop with success (--help, --version), -1 for a usage error. */
static int parse_options(struct daemon *d, int argc, char **argv) {
  int c, status;
  d->options.queue = -1;
  d->options.stats_interval = CLASSD_STATS_INTERVAL;
  d->options.mark_mask = UINT32_MAX;
  while ((c = getopt_long(argc, argv, "", kOptions, NULL)) != -1)
    if ((status = take_option(d, c, optarg)) != 0) return status;
  if (d->options.selftest_reloads && !classd_hooks_present()) {
    say(LOG_ERR, "--selftest-reloads: only in the daemon's test build");
    return -1;
  }
  if (optind < argc) {
    say(LOG_ERR, "unexpected argument: %s", argv[optind]);
    return -1;
  }
  if (check_kernel_options(d) != 0) return -1;
  if ((d->options.queue < 0 && !d->options.selftest_reloads) || (!d->options.rules_path && !d->options.null_mode) ||
      (!d->options.rules_path && d->options.selftest_reloads)) {
    usage(stderr);
    return -1;
  }
  return 0;
}

/* Makes `fresh` the kernel's set; in the test build the hook may refuse it
 * as the kernel would. */
static int load_into_kernel(struct daemon *d, const struct classd_ruleset *fresh, char *why, size_t size) {
  if (classd_hooks_refuse_kernel() == CLASSD_HOOKS_REFUSE_RELOADS) {
    snprintf(why, size, "loading the rule set into the kernel: %s: refused by the test build "
             "(NIKERKIOG_CLASSD_REFUSE_KERNEL)", nuv_kclfy_strerror(NUV_KCLFY_E_MAPS));
    return NUV_KCLFY_E_MAPS;
  }
  return classd_kernel_load(d->kernel, fresh, why, size);
}

/* Loads the rule file; the new set replaces the one in use only when it
 * was read and built without any error. */
static int load_rules(struct daemon *d, int reload) {
  struct classd_load_checks checks;
  struct classd_load_error error;
  struct classd_ruleset *fresh;
  checks.mark_mask = d->options.mark_mask;
  checks.per_connection = d->options.per_connection;
  if (reload) d->last_reload_at = time(NULL);
  if (reload && d->fail_allocation > 0) classd_hooks_fail_nth_allocation(d->fail_allocation);
  fresh = classd_ruleset_load(d->options.rules_path, &d->devs, d->options.optimise, &checks, &d->classes, &error);
  if (reload && d->fail_allocation > 0) classd_hooks_fail_nth_allocation(0);
  if (!fresh) {
    if (reload) d->reload_failures++;
    if (reload) say(LOG_ERR, "reload failed, the rules in use stay:");
    say_lines(LOG_ERR, error.text);
    return -1;
  }
  if (error.length) say_lines(LOG_WARNING, error.text);
  if (d->kernel && load_into_kernel(d, fresh, error.text, sizeof error.text) != 0) {
    /* The kernel keeps deciding with the old set: so does the queue. */
    d->reload_failures++;
    say(LOG_ERR, "reload failed, the rules in use stay: %s", error.text);
    classd_ruleset_free(fresh);
    return -1;
  }
  classd_ruleset_free(d->rules);
  d->rules = fresh;
  d->loaded_at = time(NULL);
  d->generation++;
  if (reload) {
    d->reloads++;
    if (!d->options.selftest_reloads) say(LOG_INFO, "reloaded %s: %zu rules", d->options.rules_path, fresh->count);
  }
  return 0;
}

/* Decides a queued packet.  With --tc every mark returned has the ask bit
 * clear: the packet is decided, and must not be sent to the queue again by
 * a later hook. */
static void decide(void *ctx, const nuv_clfy_packet *packet, uint32_t mark, struct classd_verdict *verdict) {
  struct daemon *d = ctx;
  struct classd_rule *rule = d->options.null_mode ? NULL : classd_ruleset_classify(d->rules, packet);
  const uint32_t ask = d->options.ask_mark;
  if (mark & ask) d->asked++;
  /* The search may have learned or forgotten a DHCP client. */
  if (!d->options.null_mode && d->rules->learns) d->tables_changed = 1;
  if (!rule) {
    d->unchanged++;
    verdict->set_mark = (mark & ask) != 0;
    verdict->mark = mark & ~ask;
    return;
  }
  /* Other subsystems own the bits outside the mask: they keep their value. */
  verdict->set_mark = 1;
  verdict->mark = ((mark & ~d->options.mark_mask) | (rule->result & d->options.mark_mask)) & ~ask;
  d->classes.verdicts[rule->slot]++;
}

/* What DHCP learning changed reaches the kernel's tables before the next
 * batch, so that a learned client's next packets are decided there. */
static void sync_tables(struct daemon *d) {
  char why[768];
  if (!d->tables_changed || !d->kernel) return;
  d->tables_changed = 0;
  d->table_syncs++;
  if (classd_kernel_sync_tables(d->kernel, why, sizeof why) == 0) {
    d->sync_failing = 0;
    return;
  }
  d->sync_failures++;
  /* Said once per run of failures: each mirroring compares all of a table,
   * so the next one that succeeds catches up. */
  if (!d->sync_failing) say(LOG_ERR, "%s", why);
  d->sync_failing = 1;
}

static void write_stats(struct daemon *d) {
  struct classd_stats stats;
  const struct classd_queue_counters *counters;
  char why[512];
  if (!d->options.stats_path) return;
  memset(&stats, 0, sizeof stats);
  stats.mode = d->in_kernel ? "tc" : "queue";
  stats.tc_interfaces = d->options.tc_interfaces;
  stats.ask_mark = d->options.ask_mark;
  stats.kernel_refused = d->kernel_refused;
  stats.asked = d->asked;
  stats.table_syncs = d->table_syncs;
  stats.sync_failures = d->sync_failures;
  stats.kernel_asked = d->kernel_asked;
  if (d->kernel) {
    classd_kernel_read_hits(d->kernel, d->rules);
    classd_kernel_read_asked(d->kernel, d->kernel_asked);
  }
  stats.rules_path = d->options.rules_path;
  stats.queue = (uint16_t)d->options.queue;
  stats.mark_mask = d->options.mark_mask;
  stats.generation = d->generation;
  stats.reloads = d->reloads;
  stats.reload_failures = d->reload_failures;
  stats.loaded_at = (int64_t)d->loaded_at;
  stats.last_reload_at = (int64_t)d->last_reload_at;
  stats.unchanged = d->unchanged;
  if (d->queue) {
    counters = classd_queue_counters(d->queue);
    stats.packets = counters->packets;
    stats.verdict_messages = counters->verdict_messages;
    stats.errors = counters->malformed + counters->send_errors;
    stats.overruns = counters->overruns;
    stats.missed = counters->missed;
    if (d->options.fail_open) stats.failed_open = counters->missed;
  }
  classd_queue_kernel_drops(stats.queue, &stats.queue_dropped, &stats.user_dropped);
  stats.live_blocks = classd_hooks_live_blocks();
  stats.classes = &d->classes;
  stats.rules = d->rules;
  if (classd_stats_write(d->options.stats_path, &stats, why, sizeof why) != 0)
    say(LOG_ERR, "statistics not written: %s", why);
}

static void handle_signals(struct daemon *d, int fd) {
  struct signalfd_siginfo info;
  while (read(fd, &info, sizeof info) == (ssize_t)sizeof info) {
    if (info.ssi_signo == SIGHUP && d->options.rules_path) load_rules(d, 1);
    else if (info.ssi_signo == SIGUSR1) write_stats(d);
    else if (info.ssi_signo == SIGTERM || info.ssi_signo == SIGINT) d->stop = 1;
  }
}

/* Signals arrive through a descriptor, read between two packet batches. */
static int signal_descriptor(void) {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGHUP);
  sigaddset(&signals, SIGUSR1);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  if (sigprocmask(SIG_BLOCK, &signals, NULL) != 0) return -1;
  return signalfd(-1, &signals, SFD_NONBLOCK | SFD_CLOEXEC);
}

static int timer_descriptor(long seconds) {
  struct itimerspec interval;
  int fd;
  if (seconds <= 0) return -1;
  fd = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
  if (fd < 0) return -1;
  memset(&interval, 0, sizeof interval);
  interval.it_value.tv_sec = interval.it_interval.tv_sec = seconds;
  timerfd_settime(fd, 0, &interval, NULL);
  return fd;
}

/* Detaches the program, keeping its last hit counts for the statistics. */
static void stop_kernel(struct daemon *d) {
  if (!d->kernel) return;
  classd_kernel_read_hits(d->kernel, d->rules);
  classd_kernel_read_asked(d->kernel, d->kernel_asked);
  classd_kernel_stop(d->kernel);
  d->kernel = NULL;
}

/* Serves the queue until a stop signal or a socket failure. */
static int serve(struct daemon *d, int signals, int timer) {
  struct pollfd fds[3];
  nfds_t count = timer >= 0 ? 3 : 2;
  int turns;
  fds[0].fd = classd_queue_fd(d->queue);
  fds[1].fd = signals;
  fds[2].fd = timer;
  while (!d->stop) {
    fds[0].events = fds[1].events = fds[2].events = POLLIN;
    if (poll(fds, count, -1) < 0) {
      if (errno == EINTR) continue;
      say(LOG_ERR, "poll: %s", strerror(errno));
      return EXIT_FAILED;
    }
    if (fds[0].revents && classd_queue_serve(d->queue, CLASSD_BATCH) < 0) {
      say(LOG_ERR, "queue %ld failed: %s", d->options.queue, strerror(errno));
      return EXIT_FAILED;
    }
    sync_tables(d);
    if (fds[1].revents) handle_signals(d, signals);
    if (count == 3 && fds[2].revents) {
      uint64_t expirations;
      if (read(timer, &expirations, sizeof expirations) > 0) write_stats(d);
    }
  }
  /* No packet gets the ask bit any more; answer what already waits before
   * letting the queue go; under steady traffic the queue never empties, so
   * only a few turns. */
  stop_kernel(d);
  for (turns = 0; turns < CLASSD_STOP_TURNS && classd_queue_serve(d->queue, CLASSD_BATCH) > 0; ++turns) {
  }
  return EXIT_STOPPED;
}

/* Loads the set into the kernel and attaches the program (the queue is
 * bound already, so that the first packet asked about finds the daemon).
 * On failure says why and goes on in queue mode, or with --tc-required
 * returns -1. */
static int start_kernel(struct daemon *d) {
  char *why = d->kernel_refused;
  const size_t size = sizeof d->kernel_refused;
  int code;
  if (classd_hooks_refuse_kernel() == CLASSD_HOOKS_REFUSE_LOADING) {
    code = NUV_KCLFY_E_NO_BPF;
    snprintf(why, size, "%s: refused by the test build (NIKERKIOG_CLASSD_REFUSE_KERNEL)",
             nuv_kclfy_strerror(code));
  } else {
    code = classd_kernel_start(&d->kernel_config, d->rules, &d->kernel, why, size);
  }
  if (code == NUV_KCLFY_OK) {
    why[0] = '\0';
    d->in_kernel = 1;
    say(LOG_INFO,
        "classifying in the kernel at the ingress of %s: %zu rules; packets it asks about (mark bit 0x%" PRIx32
        ") come through queue %ld",
        d->options.tc_interfaces, d->rules->count, d->options.ask_mark, d->options.queue);
    return 0;
  }
  say(LOG_ERR, "cannot classify in the kernel: %s", why);
  if (d->options.tc_required) {
    say(LOG_ERR, "stopping (--tc-required)");
    return -1;
  }
  say(LOG_WARNING, "queue mode: only the packets the firewall sends to queue %ld are classified, all of them here",
      d->options.queue);
  return 0;
}

static int run(struct daemon *d) {
  struct classd_queue_config config;
  char why[512];
  int signals, timer, status;
  signals = signal_descriptor();
  if (signals < 0) {
    say(LOG_ERR, "cannot receive signals: %s", strerror(errno));
    return EXIT_REFUSED;
  }
  config.number = (uint16_t)d->options.queue;
  config.maxlen = (uint32_t)d->options.queue_maxlen;
  config.fail_open = d->options.fail_open;
  config.socket_buffer = (size_t)d->options.socket_buffer;
  status = classd_queue_open(&config, decide, d, &d->queue, why, sizeof why);
  if (status != CLASSD_QUEUE_OK) {
    say(LOG_ERR, "%s", why);
    close(signals);
    return EXIT_REFUSED;
  }
  say(LOG_INFO, "queue %ld bound%s, %zu rules", d->options.queue, d->options.fail_open ? " (fail-open)" : "",
      d->rules ? d->rules->count : (size_t)0);
  if (d->options.tc_interfaces && start_kernel(d) != 0) {
    classd_queue_close(d->queue);
    d->queue = NULL;
    close(signals);
    return EXIT_REFUSED;
  }
  timer = d->options.stats_path ? timer_descriptor(d->options.stats_interval) : -1;
  status = serve(d, signals, timer);
  stop_kernel(d); /* when the queue failed */
  write_stats(d);
  classd_queue_close(d->queue);
  d->queue = NULL;
  if (timer >= 0) close(timer);
  close(signals);
  return status;
}

/* Test build: reloads the rule file again and again (with the allocation
 * failure of the test hook armed, if set), then once more without it, and
 * reports whether the classifier's live allocations came back to the count
 * after the first load, and how many allocations a reload makes. */
static int selftest_reloads(struct daemon *d) {
  long before = classd_hooks_live_blocks(), after, allocations, i;
  for (i = 0; i < d->options.selftest_reloads; ++i) load_rules(d, 1);
  printf("selftest: %ld reloads, %" PRIu64 " done, %" PRIu64 " failed", d->options.selftest_reloads, d->reloads,
         d->reload_failures);
  d->fail_allocation = 0;
  allocations = classd_hooks_allocations();
  load_rules(d, 1);
  allocations = classd_hooks_allocations() - allocations;
  after = classd_hooks_live_blocks();
  printf(", live blocks %ld before, %ld after, %ld allocations per reload\n", before, after, allocations);
  return before == after ? EXIT_STOPPED : EXIT_FAILED;
}

int main(int argc, char **argv) {
  struct daemon d;
  const char *fail = getenv(CLASSD_FAIL_ALLOCATION_ENV);
  int status;
  memset(&d, 0, sizeof d);
  status = parse_options(&d, argc, argv);
  if (status != 0) {
    classd_devnames_free(&d.devs);
    return status > 0 ? EXIT_STOPPED : EXIT_REFUSED;
  }
  if (fail && classd_hooks_present()) d.fail_allocation = strtol(fail, NULL, 10);
  use_syslog = d.options.use_syslog;
  if (use_syslog) openlog("nikerkiog-classd", LOG_PID, LOG_DAEMON);
  if (d.options.rules_path && load_rules(&d, 0) != 0) status = EXIT_REFUSED;
  else if (d.options.selftest_reloads) status = selftest_reloads(&d);
  else status = run(&d);
  classd_ruleset_free(d.rules);
  classd_classes_free(&d.classes);
  classd_devnames_free(&d.devs);
  if (use_syslog) closelog();
  return status;
}
