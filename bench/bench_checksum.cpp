// Throughput of the Internet checksum core for 64, 576, 1500 and 9000-byte
// buffers, against two plain loops run in the same process:
//   word loop   - big-endian 16-bit words added one at a time (what a
//                 straightforward implementation does);
//   read ceiling - 64-bit words only read and added, no carries, compiled
//                 as the compiler likes (vectorised at -O3): roughly the
//                 fastest any summing loop over the buffer can be.
// Ratios use CPU time, which other load on the machine disturbs less; for
// steadier numbers run with --benchmark_repetitions=5 (the table then takes
// the fastest repetition of each).
// A table of ratios is printed after the benchmark results.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "nuvcksum.h"
#include "nuvcksum_priv.h"

namespace {

const std::int64_t kSizes[] = {64, 576, 1500, 9000};

std::vector<std::uint8_t> random_buffer(std::size_t n) {
  std::vector<std::uint8_t> b(n);
  std::mt19937 g(static_cast<std::uint32_t>(n));
  for (auto &x : b) x = static_cast<std::uint8_t>(g());
  return b;
}

// One word per step, as written.  The empty asm keeps the compiler from
// turning it into a vector loop (at -O3 it otherwise would), so that it stays
// the straightforward implementation it stands for.
std::uint32_t plain_word_loop(const std::uint8_t *p, std::size_t n) {
  std::uint32_t s = 0;
  std::size_t i = 0;
  for (; i + 1 < n; i += 2) {
    s += static_cast<std::uint32_t>(p[i] << 8 | p[i + 1]);
    asm volatile("" : "+r"(s));
  }
  if (i < n) s += static_cast<std::uint32_t>(p[i]) << 8;
  while (s >> 16) s = (s & 0xffff) + (s >> 16);
  return s;
}

std::uint64_t plain_read64(const std::uint8_t *p, std::size_t n) {
  std::uint64_t s = 0;
  for (std::size_t i = 0; i + 8 <= n; i += 8) {
    std::uint64_t w;
    std::memcpy(&w, p + i, 8);
    s += w;
  }
  return s;
}

template <typename F>
void run(benchmark::State &state, F sum) {
  const auto n = static_cast<std::size_t>(state.range(0));
  const auto buf = random_buffer(n);
  for (auto _ : state) {
    benchmark::DoNotOptimize(buf.data());
    auto s = sum(buf.data(), n);
    benchmark::DoNotOptimize(s);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * state.range(0));
}

void BM_ChecksumCore(benchmark::State &state) { run(state, dp::be_sum16); }
void BM_WordLoop(benchmark::State &state) { run(state, plain_word_loop); }
void BM_ReadCeiling(benchmark::State &state) { run(state, plain_read64); }

// The exported path: verify an ICMP message of the given size (IPv4 header
// in front), i.e. the core plus the header handling and the library call.
void BM_IcmpChecksumOk(benchmark::State &state) {
  const auto n = static_cast<std::size_t>(state.range(0));
  auto packet = random_buffer(20 + n);
  packet[0] = 0x45;
  packet[2] = static_cast<std::uint8_t>((20 + n) >> 8);
  packet[3] = static_cast<std::uint8_t>(20 + n);
  packet[9] = 1;
  set_icmp_checksum(packet.data());
  for (auto _ : state) {
    benchmark::DoNotOptimize(packet.data());
    int ok = icmp_checksum_ok(packet.data());
    benchmark::DoNotOptimize(ok);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * state.range(0));
}

void sizes(benchmark::internal::Benchmark *b) {
  for (std::int64_t n : kSizes) b->Arg(n);
}

BENCHMARK(BM_ChecksumCore)->Apply(sizes);
BENCHMARK(BM_IcmpChecksumOk)->Apply(sizes);
BENCHMARK(BM_WordLoop)->Apply(sizes);
BENCHMARK(BM_ReadCeiling)->Apply(sizes);

// Console output as usual, plus the time per iteration of every run, kept
// for the ratio table.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run> &runs) override {
    for (const Run &r : runs) {
      if (r.run_type != Run::RT_Iteration || r.iterations == 0) continue;
      // With --benchmark_repetitions the fastest repetition counts: other
      // load on the machine only ever slows a run down.
      const double t = r.GetAdjustedCPUTime();
      auto [it, fresh] = ns_per_iteration_.emplace(r.benchmark_name(), t);
      if (!fresh && t < it->second) it->second = t;
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
  std::printf("\nChecksum core speed relative to the plain loops (higher is better)\n");
  std::printf("%8s %14s %14s %16s %16s\n", "bytes", "core GB/s", "vs word loop", "vs read ceiling",
              "exported vs core");
  for (std::int64_t n : kSizes) {
    const double core = r.time("BM_ChecksumCore", n);
    const double word = r.time("BM_WordLoop", n);
    const double ceiling = r.time("BM_ReadCeiling", n);
    const double exported = r.time("BM_IcmpChecksumOk", n);
    if (core <= 0 || word <= 0 || ceiling <= 0 || exported <= 0) continue;
    std::printf("%8lld %14.2f %13.2fx %15.2fx %15.2fx\n", static_cast<long long>(n), static_cast<double>(n) / core,
                word / core, ceiling / core, core / exported);
  }
}

}  // namespace

int main(int argc, char **argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  print_ratios(reporter);
  benchmark::Shutdown();
  return 0;
}
