// DHCP on hostile input while allocations fail: the option parser,
// construction and match evaluation of dhcp_run.h run with the caller's
// memory operations failing the nth allocation and the platform layer
// (scratch text, slab) failing its mth, n and m chosen by the input.
// Nothing may leak, nothing may be read or written out of bounds.
// Input: n, m (one byte each, 0: no failure), then the input of dhcp_run.h.
#include "dhcp_run.h"
#include "nuvcsock_test.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  if (size < 2) return 0;
  const long slab_before = nuvcsock_slab_live_blocks();
  const long scratch_before = nuvcsock_cmemstack_live_blocks();
  fuzz::DhcpMemory::attempts() = 0;
  fuzz::DhcpMemory::fail_at() = data[0];
  nuvcsock_fail_nth_allocation(data[1]);
  fuzz_dhcp::strict() = false;
  fuzz_dhcp::run(data + 2, size - 2);
  nuvcsock_fail_nth_allocation(0);
  fuzz::DhcpMemory::fail_at() = 0;
  FUZZ_CHECK(nuvcsock_slab_live_blocks() == slab_before);
  FUZZ_CHECK(nuvcsock_cmemstack_live_blocks() == scratch_before);
  return 0;
}
