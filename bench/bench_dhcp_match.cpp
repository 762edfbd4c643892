// DHCP match expressions: cost of evaluating header and option matches on a
// parsed message, as a ratio to a plain reference run in the same process:
// one fnmatch of the same pattern against the field's text already written
// out (the least any matcher of these patterns has to do).
#include <benchmark/benchmark.h>

#include <fnmatch.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "nuvdhcp.h"

namespace {

void *bench_alloc(std::uint32_t size) { return std::malloc(size ? size : 1); }
void bench_free(void *block) { std::free(block); }

const dhcp_memops kMemops = {nullptr, bench_alloc, bench_free};

// A client request: xid de ad be ef, chaddr 00:11:22:33:44:55, option 60
// "MSFT 5.0", option 61 for the same address, option 125 with a Broadband
// Forum block (enterprise 3561) holding a serial number.
std::vector<unsigned char> request() {
  std::vector<unsigned char> m(236, 0);
  m[0] = 1;
  m[1] = 1;
  m[2] = 6;
  const unsigned char xid[] = {0xde, 0xad, 0xbe, 0xef};
  const unsigned char mac[] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
  std::memcpy(&m[4], xid, 4);
  std::memcpy(&m[28], mac, 6);
  const unsigned char options[] = {0x63, 0x82, 0x53, 0x63, 53, 1, 1, 60, 8, 'M', 'S', 'F', 'T', ' ', '5', '.', '0',
                                   61, 7, 1, 0x00, 0x11, 0x22, 0x33, 0x44, 0x55,
                                   125, 15, 0, 0, 0x0d, 0xe9, 10, 2, 8, 'S', 'N', '1', '2', '3', '4', '5', '6', 255};
  m.insert(m.end(), options, options + sizeof options);
  m.push_back(0);  // the readable byte after the message
  return m;
}

struct Case {
  dhcp_match match;
  const char *text;  // what the reference matches: the field's text form
  int flags;
};

template <typename F>
double seconds_of(F &&work) {
  auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

void run_against_reference(benchmark::State &state, const Case &c) {
  std::vector<unsigned char> msg = request();
  dhcp_options store;
  if (dhcp_parse_options(&kMemops, msg.data(), static_cast<std::int32_t>(msg.size() - 1), store) != 0) {
    state.SkipWithError("message does not parse");
    return;
  }
  if (dhcp_packet_matches(&kMemops, msg.data(), store, &c.match) != 1 || fnmatch(c.match.pattern, c.text, c.flags) != 0) {
    state.SkipWithError("case does not match");
    dhcp_free_options(&kMemops, store);
    return;
  }
  constexpr int kRounds = 100;
  double subject_time = 0;
  double reference_time = 0;
  for (auto _ : state) {
    subject_time += seconds_of([&] {
      for (int i = 0; i < kRounds; ++i) benchmark::DoNotOptimize(dhcp_packet_matches(&kMemops, msg.data(), store, &c.match));
    });
    reference_time += seconds_of([&] {
      for (int i = 0; i < kRounds; ++i) benchmark::DoNotOptimize(fnmatch(c.match.pattern, c.text, c.flags));
    });
  }
  state.counters["ratio_to_fnmatch"] = reference_time > 0 ? subject_time / reference_time : 0;
  state.SetItemsProcessed(state.iterations() * kRounds);
  dhcp_free_options(&kMemops, store);
}

void BM_HeaderXid(benchmark::State &state) {
  run_against_reference(state, {{0, DHCP_HFIELD_XID, 0, "DEAD*"}, "DEADBEEF", FNM_CASEFOLD});
}

void BM_HeaderChaddr(benchmark::State &state) {
  run_against_reference(state, {{0, DHCP_HFIELD_CHADDR, 0, "00:11:22:*"}, "00:11:22:33:44:55", FNM_CASEFOLD});
}

void BM_OptionVendorClass(benchmark::State &state) {
  run_against_reference(state, {{60, 0, 0, "MSFT*"}, "MSFT 5.0", 0});
}

void BM_OptionClientIdentifier(benchmark::State &state) {
  run_against_reference(state, {{61, 0, 0, "00:11:22:*"}, "00:11:22:33:44:55", FNM_CASEFOLD});
}

void BM_OptionVendorSubOption(benchmark::State &state) {
  run_against_reference(state, {{125, 2, 3561, "SN*"}, "SN123456", 0});
}

}  // namespace

BENCHMARK(BM_HeaderXid);
BENCHMARK(BM_HeaderChaddr);
BENCHMARK(BM_OptionVendorClass);
BENCHMARK(BM_OptionClientIdentifier);
BENCHMARK(BM_OptionVendorSubOption);

BENCHMARK_MAIN();
