// DHCP option store and construction: cost of parsing a client request into
// a store and of building a reply's options, each as a ratio to a plain
// reference run in the same process (walking the same options and copying
// each value into its own heap block; copying the finished options area).
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "nuvdhcp.h"
#include "nuvdhcpcfg.h"

namespace {

void *bench_alloc(std::uint32_t size) { return std::malloc(size ? size : 1); }
void bench_free(void *block) { std::free(block); }

const dhcp_memops kMemops = {nullptr, bench_alloc, bench_free};

// A client request with the usual options of a home router's clients.
std::vector<unsigned char> request() {
  static const unsigned char options[] = {
      0x63, 0x82, 0x53, 0x63, 53, 1, 3, 61, 7, 1, 0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 50, 4, 192, 168, 1, 20,
      54, 4, 192, 168, 1, 1, 57, 2, 0x05, 0xc0, 12, 6, 'l', 'a', 'p', 't', 'o', 'p', 60, 8, 'M', 'S', 'F', 'T',
      ' ', '5', '.', '0', 55, 13, 1, 3, 6, 15, 31, 33, 43, 44, 46, 47, 119, 121, 249, 255};
  // The fixed header, the cookie and options, and the readable byte after
  // the message.
  std::vector<unsigned char> m(236 + sizeof options + 1, 0);
  m[0] = 1;
  m[1] = 1;
  m[2] = 6;
  std::memcpy(m.data() + 236, options, sizeof options);
  return m;
}

template <typename F>
double seconds_of(F &&work) {
  auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Walks the options area and copies each value into a fresh block.
int reference_parse(const unsigned char *area, int len, void **blocks) {
  int n = 0;
  for (int pos = 0; pos < len && area[pos] != 255;) {
    if (area[pos] == 0) {
      ++pos;
      continue;
    }
    const int l = area[pos + 1];
    blocks[n] = std::malloc(static_cast<std::size_t>(l) + 1);
    std::memcpy(blocks[n++], area + pos + 2, static_cast<std::size_t>(l));
    pos += 2 + l;
  }
  return n;
}

void BM_ParseRequest(benchmark::State &state) {
  const std::vector<unsigned char> msg = request();
  const int msglen = static_cast<int>(msg.size() - 1);
  constexpr int kRounds = 100;
  double subject_time = 0;
  double reference_time = 0;
  dhcp_options store;
  void *blocks[64];
  for (auto _ : state) {
    subject_time += seconds_of([&] {
      for (int i = 0; i < kRounds; ++i) {
        benchmark::DoNotOptimize(dhcp_parse_options(&kMemops, msg.data(), msglen, store));
        dhcp_free_options(&kMemops, store);
      }
    });
    reference_time += seconds_of([&] {
      for (int i = 0; i < kRounds; ++i) {
        const int n = reference_parse(msg.data() + 240, msglen - 240, blocks);
        benchmark::DoNotOptimize(blocks);
        for (int b = 0; b < n; ++b) std::free(blocks[b]);
      }
    });
  }
  state.counters["ratio_to_plain_copy"] = reference_time > 0 ? subject_time / reference_time : 0;
  state.SetItemsProcessed(state.iterations() * kRounds);
}

// A reply configuration: message type, server, lease, mask, router, DNS,
// domain name.
struct ReplyConfig {
  dhcpoptions_record records[7];
  ipaddr_tab router{nullptr, 0xC0A80101};
  ipaddr_tab dns{nullptr, 0xC0A80101};
  char domain[4] = "lan";
  dhcpoptions_record *head = &records[0];
  ReplyConfig() {
    std::memset(records, 0, sizeof records);
    const int codes[7] = {53, 54, 51, 1, 3, 6, 15};
    for (int i = 0; i < 7; ++i) {
      records[i].optionnr = codes[i];
      records[i].next = i < 6 ? &records[i + 1] : nullptr;
    }
    records[0].value.u8 = 5;
    records[1].value.ipaddr = 0xC0A80101;
    records[2].value.i32 = 86400;
    records[3].value.ipaddr = 0xFFFFFF00;
    records[4].value.ipaddrs = &router;
    records[5].value.ipaddrs = &dns;
    records[6].value.string = domain;
  }
};

void BM_BuildReply(benchmark::State &state) {
  std::vector<unsigned char> msg = request();
  dhcp_options peer;
  if (dhcp_parse_options(&kMemops, msg.data(), static_cast<int>(msg.size() - 1), peer) != 0) {
    state.SkipWithError("request does not parse");
    return;
  }
  ReplyConfig cfg;
  std::vector<unsigned char> reply(240 + 4096, 0);
  const int length = dhcp_cons_options(&kMemops, peer, reply.data(), &cfg.head, 3, 0, 0);
  const std::vector<unsigned char> built(reply.begin(), reply.begin() + length);
  std::vector<unsigned char> copy(built.size());
  constexpr int kRounds = 100;
  double subject_time = 0;
  double reference_time = 0;
  for (auto _ : state) {
    subject_time += seconds_of([&] {
      for (int i = 0; i < kRounds; ++i) {
        benchmark::DoNotOptimize(dhcp_cons_options(&kMemops, peer, reply.data(), &cfg.head, 3, 0, 0));
      }
    });
    reference_time += seconds_of([&] {
      for (int i = 0; i < kRounds; ++i) {
        std::memcpy(copy.data(), built.data(), built.size());
        benchmark::DoNotOptimize(copy.data());
      }
    });
  }
  state.counters["ratio_to_copy"] = reference_time > 0 ? subject_time / reference_time : 0;
  state.SetItemsProcessed(state.iterations() * kRounds);
  dhcp_free_options(&kMemops, peer);
}

}  // namespace

BENCHMARK(BM_ParseRequest);
BENCHMARK(BM_BuildReply);

BENCHMARK_MAIN();
