// The classifier against libpcap's BPF filters, in one process, on the
// Ethernet frames of the bundled captures.
//
// Five comparisons, each with the libpcap filter and the classifier rule
// written side by side below:
//   1. one rule per packet (four rules);
//   2. a first-match list of rules that match nothing: cost per rule tried;
//   3. the same rules compiled (nuv_clfy_set_compile), per packet (BPF: the
//      list);
//   4. rule text to rule, per rule (pcap_compile against nuv_clfy_parse);
//   5. 300 alternatives: one pcap_compile of their "or" against 300 rules
//      parsed and optimised into a set.
// Then the classifier's per-packet cost for compiled sets of 10 to 10000
// rules, against its own linear list.
//
// Both sides are first checked to agree on which packets match (where the
// two languages mean different things, the difference is named).  Times are
// taken with interleaved repetitions and the minimum is kept; the ratios, not
// the absolute figures, are what count.  Built without libpcap (the 32-bit
// target), only the classifier's own comparisons are made.
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#ifdef NIKERKIOG_BENCH_PCAP
#include <pcap/pcap.h>
#endif

#include "capture_frames.h"
#include "nikerkiog.h"

namespace {

using benchsupport::Frame;
using benchsupport::measure;
using benchsupport::Timed;

std::vector<Frame> read_frames() { return benchsupport::read_capture_frames("bench_vs_bpf", NIKERKIOG_CAPTURES_DIR); }

volatile long g_sink;

// ---- Classifier helpers ----

struct Set {
  nuv_clfy_set set{};
  ~Set() { nuv_clfy_del_and_free_all(&set); }
};

nuv_clfy *parse_or_die(const std::string &text) {
  nuv_clfy *rule = nullptr;
  if (nuv_clfy_parse(text.c_str(), &rule) != 0) {
    std::fprintf(stderr, "classifier refuses: %s\n", text.c_str());
    std::exit(1);
  }
  return rule;
}

void fill(Set &set, const std::vector<std::string> &rules) {
  for (const std::string &r : rules) nuv_clfy_add_tail(&set.set, parse_or_die(r));
}

// A compiled set, freed at the end of the scope.
struct Compiled {
  nuv_clfy_compiled *c = nullptr;
  explicit Compiled(const nuv_clfy_set &set) {
    if (nuv_clfy_set_compile(&set, &c) != NUV_CLFY_COMPILE_OK) std::abort();
  }
  ~Compiled() { nuv_clfy_compiled_free(c); }
  Compiled(const Compiled &) = delete;
  Compiled &operator=(const Compiled &) = delete;
};

long run_compiled(const Compiled &compiled, const std::vector<Frame> &frames) {
  long found = 0;
  for (const Frame &f : frames) found += nuv_clfy_compiled_get_clfy(compiled.c, 0, &f.desc) != nullptr;
  return found;
}

long run_set(nuv_clfy_set *set, const std::vector<Frame> &frames) {
  long found = 0;
  for (const Frame &f : frames) found += nuv_clfy_get_clfy_from_set(set, 0, &f.desc) != nullptr;
  return found;
}

// Rules of the list comparisons: an address block of 10.200.0.0/13 and a
// port, none of which the captured packets carry.
struct ListRule {
  std::string bpf;
  std::string rule;
};

std::vector<ListRule> list_rules(int n, unsigned seed) {
  std::mt19937 rng(seed);
  std::vector<ListRule> out;
  for (int i = 0; i < n; ++i) {
    const std::string net = "10." + std::to_string(200 + rng() % 8) + "." + std::to_string(rng() % 256) + ".0/24";
    const std::string port = std::to_string(20000 + rng() % 20000);
    out.push_back({"src net " + net + " and tcp dst port " + port, "ip.saddr " + net + " tcp.dport " + port});
  }
  return out;
}

std::vector<std::string> rule_texts(const std::vector<ListRule> &rules) {
  std::vector<std::string> texts;
  for (const ListRule &r : rules) texts.push_back(r.rule);
  return texts;
}

#ifdef NIKERKIOG_BENCH_PCAP

// ---- libpcap helpers ----

std::uint16_t net16(std::uint16_t host) {
  const std::uint8_t b[2] = {static_cast<std::uint8_t>(host >> 8), static_cast<std::uint8_t>(host)};
  std::uint16_t v;
  std::memcpy(&v, b, 2);
  return v;
}

struct Bpf {
  bpf_program program{};
  Bpf() = default;
  Bpf(const Bpf &) = delete;
  ~Bpf() { pcap_freecode(&program); }
};

pcap_t *dead_ethernet() {
  static pcap_t *p = pcap_open_dead(DLT_EN10MB, 65535);
  return p;
}

void compile_or_die(Bpf &bpf, const std::string &filter) {
  if (pcap_compile(dead_ethernet(), &bpf.program, filter.c_str(), 1, PCAP_NETMASK_UNKNOWN) != 0) {
    std::fprintf(stderr, "libpcap refuses: %s: %s\n", filter.c_str(), pcap_geterr(dead_ethernet()));
    std::exit(1);
  }
}

std::vector<pcap_pkthdr> headers_of(const std::vector<Frame> &frames) {
  std::vector<pcap_pkthdr> headers(frames.size());
  for (std::size_t i = 0; i < frames.size(); ++i) {
    headers[i].caplen = headers[i].len = static_cast<bpf_u_int32>(frames[i].bytes.size());
  }
  return headers;
}

bool bpf_matches(const Bpf &bpf, const pcap_pkthdr &h, const Frame &f) {
  return pcap_offline_filter(&bpf.program, &h, f.bytes.data()) != 0;
}

// ---- 1. One rule ----

// The same question in both languages.  Where they differ on a frame, the
// reason is known and printed.
struct OneRule {
  const char *bpf;
  const char *rule;
};
constexpr OneRule kOneRules[] = {
    {"tcp dst port 80", "tcp.dport 80"},
    {"udp dst port 53", "udp.dport 53"},
    {"ip6", "ip.version 6"},
    {"src net 10.0.0.0/8 and udp dst port 53", "ip.saddr 10.0.0.0/8 udp.dport 53"},
    // Not a goal: a filter that accepts every frame shows roughly what each
    // side's call costs before it tests anything.
    {"", "any"},
};
constexpr std::size_t kCallReferenceRow = std::size(kOneRules) - 1;

// Why the two may disagree on a frame, from what the frame carries.
const char *known_difference(const Frame &f) {
  if (f.desc.vlan_tci & NUV_CLFY_VLAN_TAG_PRESENT)
    return "VLAN-tagged frame: a BPF filter reads the type at offset 12 and needs \"vlan and ...\"; "
           "the classifier's descriptor carries the inner type";
  const std::uint8_t *ip = f.desc.ip_header;
  if (f.desc.eth_proto == net16(0x86dd) && f.desc.ip_len >= 40 && ip[6] != 6 && ip[6] != 17)
    return "IPv6 extension header before the transport header: BPF's \"tcp\"/\"udp\" test only the first "
           "next header, the classifier looks through one hop-by-hop header";
  return nullptr;
}

void check_one_rule(const OneRule &c, const std::vector<Frame> &frames, const std::vector<pcap_pkthdr> &headers) {
  Bpf bpf;
  compile_or_die(bpf, c.bpf);
  nuv_clfy *rule = parse_or_die(c.rule);
  int both = 0, differ = 0;
  for (std::size_t i = 0; i < frames.size(); ++i) {
    const bool b = bpf_matches(bpf, headers[i], frames[i]);
    const bool k = nuv_clfy_matches(rule, &frames[i].desc, 0, 0) == 1;
    if (b == k) {
      both += b;
      continue;
    }
    ++differ;
    const char *why = known_difference(frames[i]);
    std::printf("    %-22s BPF %d, classifier %d: %s\n", frames[i].origin.c_str(), b, k,
                why ? why : "UNEXPLAINED DIFFERENCE");
  }
  std::printf("  %-42s | %-34s : %d frames match in both, %d differ\n", c.bpf, c.rule, both, differ);
  nuv_clfy_free(rule);
}

void print_ratio_row(const char *measure, double reference, const char *unit, double classifier, double goal) {
  const double ratio = reference / classifier;
  std::printf("| %-44s | %9.2f %-3s | %9.2f %-3s | %7.2fx | %s%.0fx\n", measure, reference, unit, classifier, unit,
              ratio, ratio >= goal ? "met, goal " : "goal ", goal);
}

#endif  // NIKERKIOG_BENCH_PCAP

}  // namespace

int main(int argc, char **argv) {
  const int repetitions = argc > 1 ? std::atoi(argv[1]) : 45;
  const std::vector<Frame> frames = read_frames();
  if (frames.empty()) {
    std::fprintf(stderr, "no Ethernet frames under %s\n", NIKERKIOG_CAPTURES_DIR);
    return 1;
  }
  const double packets = static_cast<double>(frames.size());
  std::printf("%zu Ethernet frames of the bundled captures, %d interleaved repetitions, minimum kept\n\n",
              frames.size(), repetitions);

  // Classifier sets of the list comparisons.
  constexpr int kListRules = 1000;
  const std::vector<ListRule> list = list_rules(kListRules, 7);
  Set linear;
  fill(linear, rule_texts(list));
  const Compiled compiled(linear.set);
  Timed list_clfy{"classifier list", [&] { g_sink = run_set(&linear.set, frames); }, packets};
  Timed tree_clfy{"classifier compiled", [&] {
                    long n = 0;
                    for (int p = 0; p < 20; ++p) n += run_compiled(compiled, frames);
                    g_sink = n;
                  }, packets * 20};

#ifdef NIKERKIOG_BENCH_PCAP
  const std::vector<pcap_pkthdr> headers = headers_of(frames);

  std::printf("Agreement (BPF filter | classifier rule):\n");
  for (const OneRule &c : kOneRules) check_one_rule(c, frames, headers);
  std::vector<Bpf> bpf_list(kListRules);
  for (int i = 0; i < kListRules; ++i) compile_or_die(bpf_list[i], list[i].bpf);
  long bpf_hits = 0;
  for (std::size_t i = 0; i < frames.size(); ++i)
    for (const Bpf &b : bpf_list) bpf_hits += bpf_matches(b, headers[i], frames[i]);
  std::printf("  %d-rule list \"%s\" ...      : BPF %ld matches, classifier list %ld, compiled %ld\n\n", kListRules,
              list[0].bpf.c_str(), bpf_hits, run_set(&linear.set, frames), run_compiled(compiled, frames));

  // 1. One rule.
  std::vector<Timed> one_bpf, one_clfy;
  std::vector<std::unique_ptr<Bpf>> one_programs;
  std::vector<nuv_clfy *> one_rules;
  for (const OneRule &c : kOneRules) {
    one_programs.push_back(std::make_unique<Bpf>());
    compile_or_die(*one_programs.back(), c.bpf);
    one_rules.push_back(parse_or_die(c.rule));
  }
  constexpr int kPasses = 200;
  for (std::size_t i = 0; i < std::size(kOneRules); ++i) {
    const Bpf *bpf = one_programs[i].get();
    nuv_clfy *rule = one_rules[i];
    one_bpf.push_back({kOneRules[i].bpf, [&, bpf] {
                         long n = 0;
                         for (int p = 0; p < kPasses; ++p)
                           for (std::size_t j = 0; j < frames.size(); ++j) n += bpf_matches(*bpf, headers[j], frames[j]);
                         g_sink = n;
                       }, packets * kPasses});
    one_clfy.push_back({kOneRules[i].rule, [&, rule] {
                          long n = 0;
                          for (int p = 0; p < kPasses; ++p)
                            for (const Frame &f : frames) n += nuv_clfy_matches(rule, &f.desc, 0, 0);
                          g_sink = n;
                        }, packets * kPasses});
  }

  // 2. and 3. The list of rules that match nothing.
  Timed list_bpf{"BPF list", [&] {
                   long n = 0;
                   for (std::size_t j = 0; j < frames.size(); ++j)
                     for (const Bpf &b : bpf_list)
                       if (bpf_matches(b, headers[j], frames[j])) {
                         ++n;
                         break;
                       }
                   g_sink = n;
                 }, packets};

  // 4. Rule text to rule.
  constexpr int kTexts = 200;
  Timed compile_bpf{"pcap_compile", [&] {
                      for (int i = 0; i < kTexts; ++i) {
                        Bpf b;
                        compile_or_die(b, list[i].bpf);
                      }
                    }, kTexts};
  Timed parse_clfy{"nuv_clfy_parse", [&] {
                     for (int i = 0; i < kTexts; ++i) nuv_clfy_free(parse_or_die(list[i].rule));
                   }, kTexts};

  // 5. 300 alternatives.
  constexpr int kAlternatives = 300;
  std::string alternatives;
  for (int i = 0; i < kAlternatives; ++i) alternatives += (i ? " or (" : "(") + list[i].bpf + ")";
  Timed alt_bpf{"one pcap_compile", [&] {
                  Bpf b;
                  compile_or_die(b, alternatives);
                }, 1};
  Timed alt_clfy{"parse + set_optim", [&] {
                   Set source, tree;
                   for (int i = 0; i < kAlternatives; ++i) nuv_clfy_add_tail(&source.set, parse_or_die(list[i].rule));
                   nuv_clfy_set_optim(&source.set, &tree.set);
                 }, 1};

  std::vector<Timed *> all;
  for (std::size_t i = 0; i < one_bpf.size(); ++i) all.push_back(&one_bpf[i]), all.push_back(&one_clfy[i]);
  for (Timed *t : {&list_bpf, &list_clfy, &tree_clfy, &compile_bpf, &parse_clfy}) all.push_back(t);
  measure(all, repetitions);
  measure({&alt_bpf, &alt_clfy}, std::max(3, repetitions / 5));

  std::printf("| %-44s | %-13s | %-13s | %-8s | goal\n", "measure", "BPF", "classifier", "ratio");
  for (std::size_t i = 0; i < one_bpf.size(); ++i) {
    if (i == kCallReferenceRow) continue;
    const std::string measure = std::string("one rule: ") + kOneRules[i].rule;
    print_ratio_row(measure.c_str(), one_bpf[i].per_unit() * 1e9, "ns", one_clfy[i].per_unit() * 1e9, 2);
  }
  print_ratio_row("list of 1000 missing rules, per rule tried", list_bpf.per_unit() / kListRules * 1e9, "ns",
                  list_clfy.per_unit() / kListRules * 1e9, 3);
  print_ratio_row("the 1000 rules compiled, per packet", list_bpf.per_unit() * 1e9, "ns", tree_clfy.per_unit() * 1e9,
                  200);
  print_ratio_row("rule text to rule, per rule", compile_bpf.per_unit() * 1e9, "ns", parse_clfy.per_unit() * 1e9, 12);
  print_ratio_row("300 alternatives: compile / parse + optim", alt_bpf.best * 1e3, "ms", alt_clfy.best * 1e3, 200);
  const double call_bpf = one_bpf[kCallReferenceRow].per_unit() * 1e9;
  const double call_clfy = one_clfy[kCallReferenceRow].per_unit() * 1e9;
  std::printf("| %-44s | %9.2f ns  | %9.2f ns  | %7.2fx | reference: the call, nearly nothing tested\n",
              "accept every frame (\"\" | any)", call_bpf, call_clfy, call_bpf / call_clfy);
  for (nuv_clfy *rule : one_rules) nuv_clfy_free(rule);
  std::printf("\n");
#else
  std::printf("built without libpcap: the classifier's own comparisons only\n\n");
  measure({&list_clfy, &tree_clfy}, repetitions);
  std::printf("1000 missing rules: list %.1f ns per rule tried, compiled %.1f ns per packet\n\n",
              list_clfy.per_unit() / kListRules * 1e9, tree_clfy.per_unit() * 1e9);
#endif

  // Growth with the number of rules: compiled against the linear list.
  std::printf("| %-6s | %-22s | %-22s | %-16s\n", "rules", "linear ns/packet", "compiled ns/packet",
              "linear/compiled");
  for (int n : {10, 100, 1000, 10000}) {
    Set lin;
    fill(lin, rule_texts(list_rules(n, 11)));
    const Compiled opt(lin.set);
    const int passes = std::max(1, 20000 / n);
    Timed tl{"linear", [&] {
               long k = 0;
               for (int p = 0; p < passes; ++p) k += run_set(&lin.set, frames);
               g_sink = k;
             }, packets * passes};
    Timed to{"compiled", [&] {
               long k = 0;
               for (int p = 0; p < 20; ++p) k += run_compiled(opt, frames);
               g_sink = k;
             }, packets * 20};
    measure({&tl, &to}, std::max(3, repetitions / 3));
    std::printf("| %6d | %22.1f | %22.1f | %15.1fx\n", n, tl.per_unit() * 1e9, to.per_unit() * 1e9,
                tl.per_unit() / to.per_unit());
  }
  return 0;
}
