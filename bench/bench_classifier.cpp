// Classifier speed: nuv_clfy_set_execute over a mix of captured packets for
// generated rule sets of 1, 10, 100 and 1000 rules, linear and after
// nuv_clfy_set_optim; a linear list in which no rule matches (cost per rule
// tried); and rules parsed per second.  Ratios are printed at the end, all
// measured in this run.
#include <benchmark/benchmark.h>

#if __has_include(<valgrind/callgrind.h>)
#include <valgrind/callgrind.h>
#define NIKERKIOG_HAVE_CALLGRIND 1
#endif

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "nikerkiog.h"
#include "frame_desc.h"
#include "pcap_file.h"

namespace {

// ---- Captured packets ----

std::string captures_dir() { return NIKERKIOG_CAPTURES_DIR "/"; }

const char *const kCaptures[] = {"ipv4_tcp_http_xml.pcap", "dns_udp.pcap",         "dhcp-rfc3004.pcap",
                                 "icmpv6.pcap",            "tcp-handshake-nano.pcap", "ipv6-routing-header.pcap",
                                 "IGMP_V2.pcap",           "dns-badcookie.pcap",   "igmpv3-queries.pcap"};

struct Packet {
  std::vector<std::uint8_t> frame;
  nuv_clfy_packet desc{};
};

// The descriptor of an IPv4 or IPv6 packet in an Ethernet or Linux cooked
// frame, with room for a whole IPv6 header; false for anything else.
bool describe(Packet &p, std::uint32_t link, std::uint32_t dev) {
  if (!testsupport::describe_frame(p.frame, link, p.desc)) return false;
  const std::uint8_t *type = reinterpret_cast<const std::uint8_t *>(&p.desc.eth_proto);
  const bool ip = (type[0] == 0x08 && type[1] == 0x00) || (type[0] == 0x86 && type[1] == 0xdd);
  if (!ip || p.desc.ip_len < 40) return false;
  p.desc.dev_ifindex = dev;
  return true;
}

// The packet mix, shared by all benchmarks (built once).
const std::vector<Packet> &packets() {
  static std::vector<Packet> mix;
  if (!mix.empty()) return mix;
  std::uint32_t dev = 0;
  for (const char *name : kCaptures) {
    testsupport::Capture capture;
    const std::string error = testsupport::read_pcap_file(captures_dir() + name, capture);
    if (!error.empty()) {
      std::fprintf(stderr, "bench_classifier: %s\n", error.c_str());
      std::exit(1);
    }
    for (testsupport::CapturedPacket &f : capture.packets) {
      Packet p;
      p.frame = std::move(f.data);
      mix.push_back(std::move(p));
      if (!describe(mix.back(), capture.link_type, 1 + dev++ % 4)) mix.pop_back();
    }
  }
  // Descriptors point into the frames' heap buffers, which moving a frame
  // (as the vector grows) keeps in place.
  return mix;
}

// ---- Generated rule sets ----

using Rng = std::mt19937;

int pick(Rng &rng, int n) { return std::uniform_int_distribution<int>(0, n - 1)(rng); }

const char *const kNets[] = {"10.21.11.0/24", "192.168.1.0/24", "10.0.0.0/8",     "172.16.0.0/12",
                             "131.155.0.0/16", "62.12.173.0/24", "209.87.240.0/20", "2001:db8::/32",
                             "fe80::/10",      "2200::/16"};
const char *const kPortLists[] = {"80,443",    "53",    "67,68", "22,23,8000-8100", "1024-65535",
                                  "5060-5070", "<1024", "123",   "5767",            "46656,80"};

// A rule as a router configuration writes them: an interface, a protocol,
// an address prefix and a port list.
std::string realistic_rule(Rng &rng, int dev, bool tcp) {
  std::string line = "dev eth" + std::to_string(dev);
  line += std::string(pick(rng, 2) ? " ip.saddr " : " ip.daddr ") + kNets[pick(rng, 10)];
  line += std::string(tcp ? " tcp." : " udp.") + (pick(rng, 2) ? "dport " : "sport ") + kPortLists[pick(rng, 10)];
  return line;
}

std::string realistic_rule(Rng &rng) { return realistic_rule(rng, 1 + pick(rng, 4), pick(rng, 2)); }

struct RuleSet {
  nuv_clfy_set linear;
  nuv_clfy_set optimised;
  RuleSet() {
    std::memset(&linear, 0, sizeof linear);
    std::memset(&optimised, 0, sizeof optimised);
  }
  ~RuleSet() {
    nuv_clfy_del_and_free_all(&linear);
    nuv_clfy_del_and_free_all(&optimised);
  }
};


int resolve_dev(nuv_clfy *rule, int, void *) {
  if (rule->flags & NUV_CLFY_F_DEV) rule->dev_ifindex = rule->dev[3] - '0';
  return 0;
}

int bench_action(nuv_clfy *rule, void *, const std::uint8_t *, std::uint16_t, const std::uint8_t *) {
  return rule->result;
}

int action_index() {
  static int index = nuv_clfy_register_action("bench", bench_action, nullptr);
  return index;
}

void link_rule(nuv_clfy_set &set, const std::string &line, std::uint16_t result) {
  nuv_clfy *rule = nullptr;
  if (nuv_clfy_parse(line.c_str(), &rule) != 0) {
    std::fprintf(stderr, "rule refused: %s\n", line.c_str());
    std::abort();
  }
  rule->result = result;
  rule->action = action_index();
  nuv_clfy_add_tail(&set, rule);
}

std::unique_ptr<RuleSet> realistic_set(int n) {
  auto sets = std::make_unique<RuleSet>();
  Rng rng(static_cast<unsigned>(n) * 7919u);
  // Configurations list the rules of one interface together, and within it
  // runs of one protocol; a catch-all ends the list.
  const int block = n < 4 ? 1 : n / 4;
  for (int i = 1; i < n; ++i) {
    const int dev = 1 + ((i - 1) / block) % 4;
    const bool tcp = ((i - 1) / 5) % 2 == 0;
    link_rule(sets->linear, realistic_rule(rng, dev, tcp), static_cast<std::uint16_t>(i));
  }
  link_rule(sets->linear, n == 1 ? realistic_rule(rng) : "any", static_cast<std::uint16_t>(n));
  nuv_clfy_set_walk(&sets->linear, resolve_dev, nullptr);
  if (nuv_clfy_set_optim(&sets->linear, &sets->optimised) != 0) std::abort();
  return sets;
}

// Rules that pass the interface and protocol tests and fail on the address:
// every rule of the list is tried for every packet.
std::unique_ptr<RuleSet> missing_set(int n) {
  auto sets = std::make_unique<RuleSet>();
  Rng rng(99);
  for (int i = 0; i < n; ++i) {
    const std::string line = "ip.saddr 198.51." + std::to_string(pick(rng, 256)) + ".0/24 udp.dport " +
                             std::to_string(1 + pick(rng, 60000));
    link_rule(sets->linear, line, static_cast<std::uint16_t>(i + 1));
  }
  return sets;
}

// ---- Benchmarks ----

void run_set(benchmark::State &state, nuv_clfy_set *set) {
  const std::vector<Packet> &mix = packets();
  for (auto _ : state) {
    int sum = 0;
    for (const Packet &p : mix) sum += nuv_clfy_set_execute(set, nullptr, &p.desc);
    benchmark::DoNotOptimize(sum);
  }
  const double n = static_cast<double>(state.iterations()) * static_cast<double>(mix.size());
  state.SetItemsProcessed(static_cast<std::int64_t>(n));
  state.counters["ns_per_packet"] = benchmark::Counter(n, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void BM_ExecuteLinear(benchmark::State &state) {
  auto sets = realistic_set(static_cast<int>(state.range(0)));
  run_set(state, &sets->linear);
}

void BM_ExecuteOptimised(benchmark::State &state) {
  auto sets = realistic_set(static_cast<int>(state.range(0)));
  run_set(state, &sets->optimised);
}

void BM_ExecuteCompiled(benchmark::State &state) {
  auto sets = realistic_set(static_cast<int>(state.range(0)));
  nuv_clfy_compiled *compiled = nullptr;
  if (nuv_clfy_set_compile(&sets->linear, &compiled) != NUV_CLFY_COMPILE_OK) std::abort();
  const std::vector<Packet> &mix = packets();
  for (auto _ : state) {
    int sum = 0;
    for (const Packet &p : mix) sum += nuv_clfy_compiled_execute(compiled, nullptr, &p.desc);
    benchmark::DoNotOptimize(sum);
  }
  nuv_clfy_compiled_free(compiled);
  const double n = static_cast<double>(state.iterations()) * static_cast<double>(mix.size());
  state.SetItemsProcessed(static_cast<std::int64_t>(n));
  state.counters["ns_per_packet"] = benchmark::Counter(n, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void BM_NoRuleMatches(benchmark::State &state) {
  const int n = static_cast<int>(state.range(0));
  auto sets = missing_set(n);
  run_set(state, &sets->linear);
  const double tried = static_cast<double>(state.iterations()) * static_cast<double>(packets().size()) * n;
  state.counters["ns_per_rule_tried"] =
      benchmark::Counter(tried, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void BM_ParseRules(benchmark::State &state) {
  Rng rng(5);
  std::vector<std::string> lines;
  for (int i = 0; i < 256; ++i) lines.push_back(realistic_rule(rng));
  for (auto _ : state) {
    for (const std::string &line : lines) {
      nuv_clfy *rule = nullptr;
      if (nuv_clfy_parse(line.c_str(), &rule) == 0) nuv_clfy_free(rule);
      benchmark::DoNotOptimize(rule);
    }
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * lines.size()));
}

BENCHMARK(BM_ExecuteLinear)->Arg(1)->Arg(10)->Arg(100)->Arg(1000);
BENCHMARK(BM_ExecuteOptimised)->Arg(1)->Arg(10)->Arg(100)->Arg(1000);
BENCHMARK(BM_ExecuteCompiled)->Arg(1)->Arg(10)->Arg(100)->Arg(1000);
BENCHMARK(BM_NoRuleMatches)->Arg(100);
BENCHMARK(BM_ParseRules);

// Prints, after the usual report, the optimised/linear time ratio per size.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run> &runs) override {
    for (const Run &run : runs) {
      const std::string name = run.benchmark_name();
      times_[name] = run.GetAdjustedCPUTime();  // the machine may be shared
    }
    ConsoleReporter::ReportRuns(runs);
  }
  void Finalize() override {
    ConsoleReporter::Finalize();
    std::printf("\noptimised and compiled / linear CPU time per packet (below 1: faster than the list)\n");
    for (int n : {1, 10, 100, 1000}) {
      const auto linear = times_.find("BM_ExecuteLinear/" + std::to_string(n));
      const auto optimised = times_.find("BM_ExecuteOptimised/" + std::to_string(n));
      const auto compiled = times_.find("BM_ExecuteCompiled/" + std::to_string(n));
      if (linear == times_.end() || optimised == times_.end() || compiled == times_.end() || linear->second == 0)
        continue;
      std::printf("  %4d rules: optimised %.3f, compiled %.3f\n", n, optimised->second / linear->second,
                  compiled->second / linear->second);
    }
    std::printf("packets in the mix: %zu\n", packets().size());
  }

 private:
  std::map<std::string, double> times_;
};

// Instruction counts per packet, repeatable on a busy machine: run under
// `valgrind --tool=callgrind --collect-atstart=no` (bench/instructions.sh).
// Every set executes a fixed number of passes over the mix with collection
// switched on only around the execute calls; one profile is dumped per case,
// named "<kind>/<rules> packets=<count>".
int count_instructions() {
#ifdef NIKERKIOG_HAVE_CALLGRIND
  constexpr std::size_t kPasses = 20;
  const std::vector<Packet> &mix = packets();
  for (int n : {1, 10, 100, 1000}) {
    auto sets = realistic_set(n);
    for (bool optimised : {false, true}) {
      nuv_clfy_set *set = optimised ? &sets->optimised : &sets->linear;
      int sum = 0;
      CALLGRIND_ZERO_STATS;
      CALLGRIND_TOGGLE_COLLECT;
      for (std::size_t pass = 0; pass < kPasses; ++pass)
        for (const Packet &p : mix) sum += nuv_clfy_set_execute(set, nullptr, &p.desc);
      CALLGRIND_TOGGLE_COLLECT;
      benchmark::DoNotOptimize(sum);
      char name[96];
      std::snprintf(name, sizeof name, "%s/%d packets=%zu", optimised ? "optimised" : "linear", n,
                    kPasses * mix.size());
      CALLGRIND_DUMP_STATS_AT(name);
    }
  }
  return 0;
#else
  std::fprintf(stderr, "built without valgrind/callgrind.h\n");
  return 1;
#endif
}

}  // namespace

int main(int argc, char **argv) {
  if (argc == 2 && std::strcmp(argv[1], "--instructions") == 0) return count_instructions();
  benchmark::Initialize(&argc, argv);
  if (packets().empty()) {
    std::fprintf(stderr, "no captured packets under %s\n", captures_dir().c_str());
    return 1;
  }
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return 0;
}
