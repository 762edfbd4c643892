// DHCP on hostile input, with every allocation succeeding: the properties
// of dhcp_run.h hold in full, and every block taken is given back.
#include "dhcp_run.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  fuzz::DhcpMemory::fail_at() = 0;
  fuzz_dhcp::strict() = true;
  fuzz_dhcp::run(data, size);
  return 0;
}
