// Membership tests of the named tables, as the matcher runs them per packet:
// a probe that misses every entry (the whole table is scanned) in tables of
// 1, 4, 16 and 64 entries, for Ethernet source tables and for IPv4 and IPv6
// destinations.  Each is set against a plain scan written here and run in the
// same process (std::find over 6-byte arrays; a masked compare loop over
// IPv4 entries; memcmp over IPv6 addresses).  A ratio table is printed after
// the benchmark results (CPU time, library relative to the plain scan).
#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "nikerkiog.h"

namespace {

const std::int64_t kSizes[] = {1, 4, 16, 64};

using Mac = std::array<std::uint8_t, 6>;
using Addr6 = std::array<std::uint8_t, 16>;

Mac mac_of(std::uint32_t i) {
  return Mac{0x02, 0x00, static_cast<std::uint8_t>(i >> 16), static_cast<std::uint8_t>(i >> 8),
             static_cast<std::uint8_t>(i), 0x01};
}

std::uint32_t ip4_of(std::uint32_t i) {
  const std::uint8_t b[4] = {10, static_cast<std::uint8_t>(i >> 16), static_cast<std::uint8_t>(i >> 8),
                             static_cast<std::uint8_t>(i)};
  std::uint32_t v;
  std::memcpy(&v, b, 4);
  return v;
}

Addr6 ip6_of(std::uint32_t i) {
  Addr6 a{0x20, 0x01, 0x0d, 0xb8};
  a[13] = static_cast<std::uint8_t>(i >> 16);
  a[14] = static_cast<std::uint8_t>(i >> 8);
  a[15] = static_cast<std::uint8_t>(i);
  return a;
}

// A missing probe: the scan runs over every entry.
constexpr std::uint32_t kMissing = 0xfffff;

std::string table_name(const char *kind, std::int64_t n) { return std::string(kind) + std::to_string(n); }

void BM_EtherSrcTabIsIn(benchmark::State &state) {
  const std::string name = table_name("mac", state.range(0));
  for (std::int64_t i = 0; i < state.range(0); ++i) {
    const Mac m = mac_of(static_cast<std::uint32_t>(i));
    nuv_clfy_ethersrctab_add(name.c_str(), m.data());
  }
  const ethersrctab *table = nuv_clfy_ethersrctab_find(name.c_str());
  const Mac probe = mac_of(kMissing);
  for (auto _ : state) {
    benchmark::DoNotOptimize(probe.data());
    int in = nuv_clfy_ethersrctab_is_in(table, probe.data());
    benchmark::DoNotOptimize(in);
  }
}

void BM_PlainMacScan(benchmark::State &state) {
  std::vector<Mac> macs;
  for (std::int64_t i = 0; i < state.range(0); ++i) macs.push_back(mac_of(static_cast<std::uint32_t>(i)));
  const Mac probe = mac_of(kMissing);
  for (auto _ : state) {
    benchmark::DoNotOptimize(probe.data());
    bool in = std::find(macs.begin(), macs.end(), probe) != macs.end();
    benchmark::DoNotOptimize(in);
  }
}

void BM_IpDstTabIsIn4(benchmark::State &state) {
  const std::string name = table_name("ip4-", state.range(0));
  for (std::int64_t i = 0; i < state.range(0); ++i) nuv_clfy_ipdsttab_add4(name.c_str(), ip4_of(static_cast<std::uint32_t>(i)));
  const ipdsttab *table = nuv_clfy_ipdsttab_find(name.c_str());
  std::uint32_t probe = ip4_of(kMissing);
  for (auto _ : state) {
    benchmark::DoNotOptimize(probe);
    int in = nuv_clfy_ipdsttab_is_in(table, probe);
    benchmark::DoNotOptimize(in);
  }
}

void BM_PlainIp4Scan(benchmark::State &state) {
  struct Entry {
    std::uint32_t addr, mask;
  };
  std::vector<Entry> entries;
  for (std::int64_t i = 0; i < state.range(0); ++i) entries.push_back({ip4_of(static_cast<std::uint32_t>(i)), 0xffffffffu});
  std::uint32_t probe = ip4_of(kMissing);
  for (auto _ : state) {
    benchmark::DoNotOptimize(probe);
    bool in = false;
    for (const Entry &e : entries) {
      if ((probe & e.mask) == e.addr) {
        in = true;
        break;
      }
    }
    benchmark::DoNotOptimize(in);
  }
}

void BM_IpDstTabIsIn6(benchmark::State &state) {
  const std::string name = table_name("ip6-", state.range(0));
  for (std::int64_t i = 0; i < state.range(0); ++i) {
    const Addr6 a = ip6_of(static_cast<std::uint32_t>(i));
    nuv_clfy_ipdsttab_add6(name.c_str(), a.data());
  }
  const ipdsttab *table = nuv_clfy_ipdsttab_find(name.c_str());
  const Addr6 probe = ip6_of(kMissing);
  for (auto _ : state) {
    benchmark::DoNotOptimize(probe.data());
    int in = nuv_clfy_ip6dsttab_is_in(table, probe.data());
    benchmark::DoNotOptimize(in);
  }
}

void BM_PlainIp6Scan(benchmark::State &state) {
  std::vector<Addr6> addrs;
  for (std::int64_t i = 0; i < state.range(0); ++i) addrs.push_back(ip6_of(static_cast<std::uint32_t>(i)));
  const Addr6 probe = ip6_of(kMissing);
  for (auto _ : state) {
    benchmark::DoNotOptimize(probe.data());
    bool in = false;
    for (const Addr6 &a : addrs) {
      if (std::memcmp(a.data(), probe.data(), 16) == 0) {
        in = true;
        break;
      }
    }
    benchmark::DoNotOptimize(in);
  }
}

void sizes(benchmark::internal::Benchmark *b) {
  for (std::int64_t n : kSizes) b->Arg(n);
}

BENCHMARK(BM_EtherSrcTabIsIn)->Apply(sizes);
BENCHMARK(BM_PlainMacScan)->Apply(sizes);
BENCHMARK(BM_IpDstTabIsIn4)->Apply(sizes);
BENCHMARK(BM_PlainIp4Scan)->Apply(sizes);
BENCHMARK(BM_IpDstTabIsIn6)->Apply(sizes);
BENCHMARK(BM_PlainIp6Scan)->Apply(sizes);

// Console output as usual, plus the CPU time per iteration of every run.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run> &runs) override {
    for (const Run &r : runs) {
      if (r.run_type != Run::RT_Iteration || r.iterations == 0) continue;
      ns_per_iteration_[r.benchmark_name()] = r.GetAdjustedCPUTime();
    }
    ConsoleReporter::ReportRuns(runs);
  }

  double time(const std::string &name, std::int64_t size) const {
    const auto it = ns_per_iteration_.find(name + "/" + std::to_string(size));
    return it == ns_per_iteration_.end() ? 0.0 : it->second;
  }

 private:
  std::map<std::string, double> ns_per_iteration_;
};

void print_ratios(const RatioReporter &r) {
  std::printf("\nTable membership, missing probe: library time / plain scan time (lower is better)\n");
  std::printf("%8s %12s %12s %12s %14s\n", "entries", "ethsrc", "ipdst v4", "ipdst v6", "ethsrc ns/entry");
  for (std::int64_t n : kSizes) {
    const double mac = r.time("BM_EtherSrcTabIsIn", n), plain_mac = r.time("BM_PlainMacScan", n);
    const double v4 = r.time("BM_IpDstTabIsIn4", n), plain_v4 = r.time("BM_PlainIp4Scan", n);
    const double v6 = r.time("BM_IpDstTabIsIn6", n), plain_v6 = r.time("BM_PlainIp6Scan", n);
    if (plain_mac <= 0 || plain_v4 <= 0 || plain_v6 <= 0) continue;
    std::printf("%8lld %11.2fx %11.2fx %11.2fx %14.2f\n", static_cast<long long>(n), mac / plain_mac, v4 / plain_v4,
                v6 / plain_v6, mac / static_cast<double>(n));
  }
}

}  // namespace

int main(int argc, char **argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  print_ratios(reporter);
  nuv_clfy_ethersrctab_freeall();
  nuv_clfy_ipdsttab_freeall();
  benchmark::Shutdown();
  return 0;
}
