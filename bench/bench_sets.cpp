// Compiled rule sets against the best classifiers at hand, in one process,
// on generated rule sets shaped like real access lists, firewalls and IP
// chains (scripts/gen-rulesets.py, run at build time) of 1 to 10,000 rules:
//
//   rte_acl    DPDK's packet classification library, one context per set,
//              classifying batches of 64 packets per call;
//   pcap       libpcap's pcap_offline_filter, one BPF program per rule,
//              tried in order until one accepts;
//   linear     the set search (nuv_clfy_get_clfy_from_set) on the list;
//   optimised  nuv_clfy_set_optim, then the set search on its tree;
//   compiled   nuv_clfy_set_compile, then nuv_clfy_compiled_get_clfy, one
//              packet per call.
//
// Before anything is timed, every packet of the set's trace is classified
// by each of them and the rule numbers must be equal (the list's answer is
// the meaning; a packet the generator made to miss must find no rule).
// rte_acl and libpcap get the rules that are address/port/protocol rules
// and the plain IPv4 packets; the few rules only the classifier expresses
// (IPv6 prefixes, VLAN ids, the receiving device) are left out of their
// sets, which changes no answer on those packets, and the packets drawn
// from such rules are compared among the classifier's three searches only.
// The times are taken on the plain packets, by interleaved repetitions,
// keeping the fastest.  Any disagreement makes the exit status 1; speed
// never does.
//
// Usage: bench_sets [repetitions] [rule set directory] [set, e.g. fw-10000]
// (with a set named, only that set is run, without the one-rule filters).
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#ifdef NIKERKIOG_BENCH_PCAP
#include <pcap/pcap.h>
#endif
#ifdef NIKERKIOG_BENCH_DPDK
#include "acl_reference.h"
#endif

#include "capture_frames.h"
#include "generated_sets.h"
#include "nikerkiog.h"

namespace {

using benchsupport::fastest_seconds;
using benchsupport::measure;
using benchsupport::Timed;
using testsupport::rule_number;
using testsupport::TracedPacket;
using testsupport::TraceKind;
using testsupport::TupleRule;

using benchsupport::Flavour;
using benchsupport::kFlavours;
using benchsupport::OwnedCompiled;
using benchsupport::OwnedSet;

volatile unsigned long g_sink;

constexpr int kSizes[] = {1, 10, 100, 1000, 10000};
// rte_acl classifies this many packets per call.
constexpr std::size_t kBatch = 64;
// The list searches of large sets are timed on the first packets only.
constexpr std::size_t kSlowSubset = 256;

[[noreturn]] void die(const std::string &message) {
  std::fprintf(stderr, "bench_sets: %s\n", message.c_str());
  std::exit(2);
}

// ---- Disagreements ----

int g_disagreements = 0;

void disagree(const std::string &set, const TracedPacket &p, const char *who, unsigned got, unsigned want) {
  if (++g_disagreements <= 20)
    std::printf("  DISAGREEMENT %s: %s finds rule %u, the list %u: %s\n", set.c_str(), who, got, want,
                p.line.c_str());
}

#ifdef NIKERKIOG_BENCH_PCAP

// ---- libpcap ----

pcap_t *dead_ethernet() {
  static pcap_t *p = pcap_open_dead(DLT_EN10MB, 65535);
  return p;
}

bool compile_bpf(bpf_program &program, const std::string &filter) {
  return pcap_compile(dead_ethernet(), &program, filter.c_str(), 1, PCAP_NETMASK_UNKNOWN) == 0;
}

std::string ip4_text(std::uint32_t a) {
  return std::to_string(a >> 24) + "." + std::to_string(a >> 16 & 255) + "." + std::to_string(a >> 8 & 255) + "." +
         std::to_string(a & 255);
}

std::string bpf_ports(const char *side, const std::vector<std::pair<std::uint16_t, std::uint16_t>> &ranges) {
  std::string text;
  for (const auto &r : ranges) {
    text += text.empty() ? " and (" : " or ";
    text += std::string(side) + (r.first == r.second ? " port " + std::to_string(r.first)
                                                     : " portrange " + std::to_string(r.first) + "-" +
                                                           std::to_string(r.second));
  }
  return text.empty() ? text : text + ")";
}

// The BPF filter that accepts what an address/port/protocol rule accepts on
// an untagged Ethernet frame.
std::string bpf_filter(const TupleRule &r) {
  std::string f = "ip";
  if (r.src_len) f += " and src net " + ip4_text(r.src) + "/" + std::to_string(r.src_len);
  if (r.dst_len) f += " and dst net " + ip4_text(r.dst) + "/" + std::to_string(r.dst_len);
  if (r.proto >= 0) f += " and ip proto " + std::to_string(r.proto);
  return f + bpf_ports("src", r.sports) + bpf_ports("dst", r.dports);
}

// One BPF program per expressible rule, tried in list order.
class BpfList {
 public:
  explicit BpfList(const std::vector<TupleRule> &rules) {
    for (std::size_t i = 0; i < rules.size(); ++i) {
      if (!rules[i].expressible) continue;
      bpf_program program{};
      const std::string filter = bpf_filter(rules[i]);
      if (!compile_bpf(program, filter)) die("libpcap refuses " + filter + ": " + pcap_geterr(dead_ethernet()));
      programs_.push_back(program);
      numbers_.push_back(static_cast<unsigned>(i + 1));
    }
  }
  BpfList(const BpfList &) = delete;
  ~BpfList() {
    for (bpf_program &p : programs_) pcap_freecode(&p);
  }
  unsigned first_match(const TracedPacket &p) const {
    pcap_pkthdr h{};
    h.caplen = h.len = static_cast<bpf_u_int32>(p.frame.size());
    for (std::size_t i = 0; i < programs_.size(); ++i)
      if (pcap_offline_filter(&programs_[i], &h, p.frame.data())) return numbers_[i];
    return 0;
  }

 private:
  std::vector<bpf_program> programs_;
  std::vector<unsigned> numbers_;
};

#endif  // NIKERKIOG_BENCH_PCAP

// ---- One rule set ----

struct Row {
  std::string flavour;
  int rules = 0;
  std::size_t packets = 0;  // plain packets timed
  double acl_ns = -1, compiled_ns = 0, optim_ns = 0, linear_ns = 0, pcap_ns = -1;
  std::size_t linear_packets = 0, pcap_packets = 0;
  double acl_build_ms = -1, compiled_build_ms = 0, optim_build_ms = 0;
  double acl_kib = -1, compiled_kib = 0;
  std::size_t acl_rules = 0;
  nuv_clfy_compiled_stats stats{};
};

benchsupport::LoadedSet load(const std::string &stem) {
  benchsupport::LoadedSet l;
  std::string error;
  if (!benchsupport::load_generated_set(stem, l, error)) die(error);
  return l;
}

#ifdef NIKERKIOG_BENCH_DPDK
using testsupport::AclReference;
#else
struct AclReference {};
#endif

Row run_set(const Flavour &flavour, int n, const std::string &dir, int repetitions, bool with_acl) {
  const std::string name = std::string(flavour.file) + "-" + std::to_string(n);
  const benchsupport::LoadedSet set = load(benchsupport::set_stem(dir, flavour, n));
  Row row;
  row.flavour = flavour.name;
  row.rules = n;

  OwnedSet linear, optimised;
  std::string error;
  if (!testsupport::fill_numbered_set(set.lines, linear.set, error)) die(error);
  row.optim_build_ms = 1e3 * fastest_seconds(n >= 10000 ? 1 : 3, [&] {
                         OwnedSet scratch;
                         if (nuv_clfy_set_optim(&linear.set, &scratch.set) != 0) die("nuv_clfy_set_optim failed");
                       });
  if (nuv_clfy_set_optim(&linear.set, &optimised.set) != 0) die("nuv_clfy_set_optim failed");
  OwnedCompiled compiled;
  row.compiled_build_ms = 1e3 * fastest_seconds(3, [&] {
                            nuv_clfy_compiled_free(compiled.c);
                            compiled.c = nullptr;
                            if (nuv_clfy_set_compile(&linear.set, &compiled.c) != NUV_CLFY_COMPILE_OK)
                              die("nuv_clfy_set_compile failed");
                          });
  nuv_clfy_compiled_get_stats(compiled.c, &row.stats);
  row.compiled_kib = row.stats.bytes / 1024.0;

  // The plain packets, their descriptors side by side and their IPv4 headers.
  std::vector<const TracedPacket *> plain;
  for (const TracedPacket &p : set.packets)
    if (p.kind != TraceKind::kExtended) plain.push_back(&p);
  std::vector<nuv_clfy_packet> descs;
  std::vector<const std::uint8_t *> headers;
  for (const TracedPacket *p : plain) {
    descs.push_back(p->desc);
    headers.push_back(p->frame.data() + p->ip4_offset);
  }
  row.packets = plain.size();

#ifdef NIKERKIOG_BENCH_DPDK
  AclReference acl;
  if (with_acl) {
    const auto start = benchsupport::Clock::now();
    if (!acl.build(set.tuples, error)) die(name + ": " + error);
    row.acl_build_ms = 1e3 * std::chrono::duration<double>(benchsupport::Clock::now() - start).count();
    row.acl_kib = acl.bytes / 1024.0;
    row.acl_rules = acl.acl_rules;
  }
  std::vector<std::uint32_t> acl_numbers(plain.size());
  auto acl_classify_all = [&] {
    for (std::size_t i = 0; i < plain.size(); i += kBatch)
      acl.classify(headers.data() + i, acl_numbers.data() + i,
                   static_cast<std::uint32_t>(std::min(kBatch, plain.size() - i)));
  };
#else
  (void)with_acl;
#endif
#ifdef NIKERKIOG_BENCH_PCAP
  const BpfList bpf(set.tuples);
#endif

  // Agreement, on every packet.
#ifdef NIKERKIOG_BENCH_DPDK
  if (with_acl) acl_classify_all();
#endif
  std::size_t next_plain = 0;
  for (const TracedPacket &p : set.packets) {
    const unsigned want = rule_number(nuv_clfy_get_clfy_from_set(&linear.set, 0, &p.desc));
    const unsigned tree = rule_number(nuv_clfy_get_clfy_from_set(&optimised.set, 0, &p.desc));
    const unsigned comp = rule_number(nuv_clfy_compiled_get_clfy(compiled.c, 0, &p.desc));
    if (p.kind == TraceKind::kMiss && want != 0) disagree(name, p, "the list (for a packet made to miss)", want, 0);
    if (tree != want) disagree(name, p, "the optimised tree", tree, want);
    if (comp != want) disagree(name, p, "the compiled set", comp, want);
    if (p.kind == TraceKind::kExtended) continue;
#ifdef NIKERKIOG_BENCH_DPDK
    if (with_acl && acl_numbers[next_plain] != want) disagree(name, p, "rte_acl", acl_numbers[next_plain], want);
#endif
#ifdef NIKERKIOG_BENCH_PCAP
    const unsigned b = bpf.first_match(p);
    if (b != want) disagree(name, p, "the BPF list", b, want);
#endif
    ++next_plain;
  }

  // Times.
  const std::size_t np = plain.size();
  const int fast_passes = static_cast<int>(std::max<std::size_t>(1, 40000 / np));
  Timed t_compiled{"compiled", [&] {
                     unsigned long k = 0;
                     for (int pass = 0; pass < fast_passes; ++pass)
                       for (const nuv_clfy_packet &d : descs) k += rule_number(nuv_clfy_compiled_get_clfy(compiled.c, 0, &d));
                     g_sink = k;
                   }, static_cast<double>(np) * fast_passes};
  const int tree_passes = n >= 1000 ? 1 : fast_passes;
  Timed t_tree{"optimised", [&] {
                 unsigned long k = 0;
                 for (int pass = 0; pass < tree_passes; ++pass)
                   for (const nuv_clfy_packet &d : descs) k += rule_number(nuv_clfy_get_clfy_from_set(&optimised.set, 0, &d));
                 g_sink = k;
               }, static_cast<double>(np) * tree_passes};
  row.linear_packets = n >= 10000 ? std::min(kSlowSubset, np) : np;
  const int linear_passes = n >= 100 ? 1 : fast_passes;
  Timed t_linear{"linear", [&] {
                   unsigned long k = 0;
                   for (int pass = 0; pass < linear_passes; ++pass)
                     for (std::size_t i = 0; i < row.linear_packets; ++i)
                       k += rule_number(nuv_clfy_get_clfy_from_set(&linear.set, 0, &descs[i]));
                   g_sink = k;
                 }, static_cast<double>(row.linear_packets) * linear_passes};
  std::vector<Timed *> cases{&t_compiled, &t_tree, &t_linear};
#ifdef NIKERKIOG_BENCH_DPDK
  Timed t_acl{"rte_acl", [&] {
                for (int pass = 0; pass < fast_passes; ++pass) acl_classify_all();
                g_sink = acl_numbers[0];
              }, static_cast<double>(np) * fast_passes};
  if (with_acl) cases.push_back(&t_acl);
#endif
#ifdef NIKERKIOG_BENCH_PCAP
  row.pcap_packets = n >= 1000 ? std::min(kSlowSubset, np) : np;
  const int pcap_passes = n >= 100 ? 1 : fast_passes / 4 + 1;
  Timed t_pcap{"pcap", [&] {
                 unsigned long k = 0;
                 for (int pass = 0; pass < pcap_passes; ++pass)
                   for (std::size_t i = 0; i < row.pcap_packets; ++i) k += bpf.first_match(*plain[i]);
                 g_sink = k;
               }, static_cast<double>(row.pcap_packets) * pcap_passes};
  cases.push_back(&t_pcap);
#endif
  measure(cases, n >= 10000 ? std::max(2, repetitions / 3) : repetitions);
  row.compiled_ns = t_compiled.per_unit() * 1e9;
  row.optim_ns = t_tree.per_unit() * 1e9;
  row.linear_ns = t_linear.per_unit() * 1e9;
#ifdef NIKERKIOG_BENCH_DPDK
  if (with_acl) row.acl_ns = t_acl.per_unit() * 1e9;
#endif
#ifdef NIKERKIOG_BENCH_PCAP
  row.pcap_ns = t_pcap.per_unit() * 1e9;
#endif
  return row;
}

// ---- The table ----

std::string cell(double v, int precision = 1) {
  if (v < 0) return "-";
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.*f", precision, v);
  return buf;
}

std::string with_subset(double ns, std::size_t used, std::size_t all) {
  return used < all && ns >= 0 ? cell(ns) + "*" : cell(ns);
}

void print_rows(const std::vector<Row> &rows) {
  std::printf("| %-13s | %5s | %8s | %8s | %9s | %9s | %9s | %7s | %9s | %9s | %9s | %9s | %9s | %s\n", "rule set",
              "rules", "rte_acl", "compiled", "optimised", "linear", "pcap", "acl/cmp", "acl build", "cmp build",
              "opt build", "acl KiB", "cmp KiB", "nodes/entries/depth");
  std::printf("| %-13s | %5s | %8s | %8s | %9s | %9s | %9s | %7s | %9s | %9s | %9s | %9s | %9s | %s\n", "", "",
              "ns/pkt", "ns/pkt", "ns/pkt", "ns/pkt", "ns/pkt", "ratio", "ms", "ms", "ms", "", "", "");
  for (const Row &r : rows) {
    const std::string nodes = std::to_string(r.stats.nodes) + "/" + std::to_string(r.stats.leaf_entries) + "/" +
                              std::to_string(r.stats.depth);
    std::printf("| %-13s | %5d | %8s | %8s | %9s | %9s | %9s | %7s | %9s | %9s | %9s | %9s | %9s | %s\n",
                r.flavour.c_str(), r.rules, cell(r.acl_ns).c_str(), cell(r.compiled_ns).c_str(),
                cell(r.optim_ns).c_str(), with_subset(r.linear_ns, r.linear_packets, r.packets).c_str(),
                with_subset(r.pcap_ns, r.pcap_packets, r.packets).c_str(),
                r.acl_ns < 0 ? "-" : cell(r.acl_ns / r.compiled_ns, 2).c_str(), cell(r.acl_build_ms, 2).c_str(),
                cell(r.compiled_build_ms, 2).c_str(), cell(r.optim_build_ms, 2).c_str(), cell(r.acl_kib).c_str(),
                cell(r.compiled_kib).c_str(), nodes.c_str());
  }
  std::printf("  * timed on the first %zu packets of the trace (the list searches of large sets are slow)\n",
              kSlowSubset);
}

// ---- One rule on the bundled captures ----

struct OneRuleRow {
  std::string rule;
  double pcap_ns = -1, compiled_ns = 0;
};

std::vector<OneRuleRow> one_rule_rows(int repetitions) {
  const std::vector<benchsupport::Frame> frames = benchsupport::read_capture_frames("bench_sets", NIKERKIOG_CAPTURES_DIR);
  std::vector<OneRuleRow> rows;
  constexpr int kPasses = 200;
  const double units = static_cast<double>(frames.size()) * kPasses;
  for (const benchsupport::OneRule &one : benchsupport::kOneRules) {
    OwnedSet set;
    std::string error;
    if (!testsupport::fill_numbered_set({one.rule}, set.set, error)) die(error);
    OwnedCompiled compiled;
    if (nuv_clfy_set_compile(&set.set, &compiled.c) != NUV_CLFY_COMPILE_OK) die("nuv_clfy_set_compile failed");
    // The compiled set answers as the set search does; where libpcap's
    // language means something else on a frame, bench_vs_bpf names it.
    for (const benchsupport::Frame &f : frames) {
      const unsigned want = rule_number(nuv_clfy_get_clfy_from_set(&set.set, 0, &f.desc));
      const unsigned got = rule_number(nuv_clfy_compiled_get_clfy(compiled.c, 0, &f.desc));
      if (got != want && ++g_disagreements <= 20)
        std::printf("  DISAGREEMENT \"%s\": the compiled set finds rule %u, the list %u: %s\n", one.rule, got, want,
                    f.origin.c_str());
    }
    OneRuleRow row;
    row.rule = one.rule;
    Timed t_compiled{"compiled", [&] {
                       unsigned long k = 0;
                       for (int pass = 0; pass < kPasses; ++pass)
                         for (const benchsupport::Frame &f : frames)
                           k += nuv_clfy_compiled_get_clfy(compiled.c, 0, &f.desc) != nullptr;
                       g_sink = k;
                     }, units};
    std::vector<Timed *> cases{&t_compiled};
#ifdef NIKERKIOG_BENCH_PCAP
    bpf_program program{};
    if (!compile_bpf(program, one.bpf)) die(std::string("libpcap refuses ") + one.bpf);
    std::vector<pcap_pkthdr> hdrs(frames.size());
    for (std::size_t i = 0; i < frames.size(); ++i)
      hdrs[i].caplen = hdrs[i].len = static_cast<bpf_u_int32>(frames[i].bytes.size());
    Timed t_pcap{"pcap", [&] {
                   unsigned long k = 0;
                   for (int pass = 0; pass < kPasses; ++pass)
                     for (std::size_t i = 0; i < frames.size(); ++i)
                       k += pcap_offline_filter(&program, &hdrs[i], frames[i].bytes.data()) != 0;
                   g_sink = k;
                 }, units};
    cases.push_back(&t_pcap);
#endif
    measure(cases, repetitions);
    row.compiled_ns = t_compiled.per_unit() * 1e9;
#ifdef NIKERKIOG_BENCH_PCAP
    row.pcap_ns = t_pcap.per_unit() * 1e9;
    pcap_freecode(&program);
#endif
    rows.push_back(row);
  }
  return rows;
}

// ---- Goals ----

void print_goals(const std::vector<Row> &rows, const std::vector<OneRuleRow> &one) {
  std::printf("\nGoals (reported, never enforced):\n");
  auto verdict = [](bool met) { return met ? "met" : "MISSED"; };
  double worst_acl = 1e300, worst_build = 1e300, worst_memory = 1e300;
  std::string worst_acl_set, worst_build_set, worst_memory_set;
  for (const Row &r : rows) {
    if (r.acl_ns < 0) continue;
    const std::string set = r.flavour + " " + std::to_string(r.rules);
    if (r.acl_ns / r.compiled_ns < worst_acl) worst_acl = r.acl_ns / r.compiled_ns, worst_acl_set = set;
    if (r.acl_build_ms / r.compiled_build_ms < worst_build)
      worst_build = r.acl_build_ms / r.compiled_build_ms, worst_build_set = set;
    if (r.acl_kib / r.compiled_kib < worst_memory) worst_memory = r.acl_kib / r.compiled_kib, worst_memory_set = set;
  }
  if (worst_acl_set.empty()) {
    std::printf("  rte_acl goals: not measured (built without DPDK, or its environment did not start)\n");
  } else {
    std::printf("  rte_acl ns / compiled ns >= 1 on every set: worst %.2f (%s): %s\n", worst_acl,
                worst_acl_set.c_str(), verdict(worst_acl >= 1));
    for (const Row &r : rows)
      if (r.acl_ns >= 0 && r.acl_ns < r.compiled_ns)
        std::printf("    %-13s %5d rules: %.2f\n", r.flavour.c_str(), r.rules, r.acl_ns / r.compiled_ns);
    std::printf("  build time no worse than rte_acl's: worst rte_acl/compiled %.2f (%s): %s\n", worst_build,
                worst_build_set.c_str(), verdict(worst_build >= 1));
    std::printf("  memory no worse than rte_acl's: worst rte_acl/compiled %.2f (%s): %s\n", worst_memory,
                worst_memory_set.c_str(), verdict(worst_memory >= 1));
  }
  for (const Flavour &f : kFlavours) {
    double at100 = 0, at10000 = 0;
    for (const Row &r : rows) {
      if (r.flavour != f.name) continue;
      if (r.rules == 100) at100 = r.compiled_ns;
      if (r.rules == 10000) at10000 = r.compiled_ns;
    }
    if (at100 > 0 && at10000 > 0)
      std::printf("  %-13s compiled at 10000 rules / at 100 <= 3: %.2f: %s\n", f.name, at10000 / at100,
                  verdict(at10000 / at100 <= 3));
  }
  for (const OneRuleRow &r : one) {
    if (r.pcap_ns < 0) continue;
    std::printf("  one rule \"%s\": pcap %.2f ns / compiled %.2f ns = %.2f >= 3: %s\n", r.rule.c_str(), r.pcap_ns,
                r.compiled_ns, r.pcap_ns / r.compiled_ns, verdict(r.pcap_ns / r.compiled_ns >= 3));
  }
}

}  // namespace

int main(int argc, char **argv) {
  const int repetitions = argc > 1 ? std::max(1, std::atoi(argv[1])) : 9;
  const std::string dir = argc > 2 && *argv[2] ? argv[2] : NIKERKIOG_RULESETS_DIR;
  const std::string only = argc > 3 ? argv[3] : "";
  bool with_acl = false;
#ifdef NIKERKIOG_BENCH_DPDK
  with_acl = testsupport::start_dpdk();
  if (!with_acl) std::printf("rte_acl: DPDK's environment did not start; its column stays empty\n");
#else
  std::printf("rte_acl: built without DPDK (pkg-config libdpdk not found); its column stays empty\n");
#endif
#ifndef NIKERKIOG_BENCH_PCAP
  std::printf("pcap: built without libpcap; its column stays empty\n");
#endif
  std::printf("Generated rule sets from %s; %d interleaved repetitions, fastest kept; rte_acl classifies %zu packets "
              "per call, the classifier one\n\n",
              dir.c_str(), repetitions, kBatch);
  std::vector<Row> rows;
  for (const Flavour &f : kFlavours)
    for (int n : kSizes) {
      if (!only.empty() && only != std::string(f.file) + "-" + std::to_string(n)) continue;
      rows.push_back(run_set(f, n, dir, repetitions, with_acl));
      std::fflush(stdout);
    }
  print_rows(rows);
  if (!only.empty()) return g_disagreements ? 1 : 0;

  std::printf("\nOne rule on the frames of the bundled captures (the one-rule filters of bench_vs_bpf):\n");
  const std::vector<OneRuleRow> one = one_rule_rows(repetitions);
  std::printf("| %-34s | %12s | %14s | %7s\n", "rule", "pcap ns/pkt", "compiled ns/pkt", "ratio");
  for (const OneRuleRow &r : one)
    std::printf("| %-34s | %12s | %14s | %7s\n", r.rule.c_str(), cell(r.pcap_ns, 2).c_str(),
                cell(r.compiled_ns, 2).c_str(), r.pcap_ns < 0 ? "-" : cell(r.pcap_ns / r.compiled_ns, 2).c_str());
  print_goals(rows, one);

  if (g_disagreements) {
    std::printf("\n%d DISAGREEMENTS (the first 20 are listed above)\n", g_disagreements);
    return 1;
  }
  std::printf("\nAll searches agree on every packet of every set.\n");
  return 0;
}
